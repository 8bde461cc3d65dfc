#include "objectstore/ValueOrder.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <string_view>

#include "objectstore/ObjectState.h"
#include "platform/base/DecimalText.h"

namespace velkor::NS {

namespace {

enum class Rank { nil, number, text, bytes, other };

Rank rankOf(const Value& value) noexcept {
    if (value.isNil() || value.isNull()) return Rank::nil;
    if (value.isNumber() || value.kind() == Value::Kind::date) return Rank::number;
    if (value.isString()) return Rank::text;
    return value.asData() ? Rank::bytes : Rank::other;
}

template <class T>
int order(const T& left, const T& right) noexcept {
    return left < right ? -1 : right < left ? 1 : 0;
}

double realOf(const Value& value) noexcept {
    const auto date = value.asDate();
    return date ? date->timeIntervalSince1970() : value.asDouble().value_or(0);
}

/// Objects without a row come last; their keys count downwards.
bool comesBefore(RowKey left, RowKey right) noexcept {
    if ((left < 0) != (right < 0)) return right < 0;
    return left < 0 ? left > right : left < right;
}

/// None for dates, infinities and what is no number.
std::optional<DecimalParts> decimalOf(const Value& value) {
    return DecimalParts::parse(value.asDecimal() ? *value.asDecimal() : std::string_view(value.description()));
}

int orderOfNumbers(const Value& left, const Value& right) noexcept {
    const auto a = left.asInteger();
    const auto b = right.asInteger();
    if (a && b) return order(*a, *b);
    if (left.asDecimal() || right.asDecimal()) {
        const auto x = decimalOf(left), y = decimalOf(right);
        if (x && y) return x->compare(*y);
    }
    // Unsaved values may be no numbers; without a place of their own they would leave no order to sort by.
    const double x = realOf(left), y = realOf(right);
    if (std::isnan(x) || std::isnan(y)) return order(std::isnan(y), std::isnan(x));
    return order(x, y);
}

}  // namespace

int orderOf(const Value& left, const Value& right) noexcept {
    const Rank rank = rankOf(left);
    if (const int difference = order(rank, rankOf(right)); difference != 0) return difference;
    switch (rank) {
        case Rank::number:
            return orderOfNumbers(left, right);
        case Rank::text:
            return left.asString()->compare(*right.asString());
        case Rank::bytes:
            return left.asData()->view().compare(right.asData()->view());
        default:
            return 0;
    }
}

bool areOrdered(const Value& left, const Value& right) noexcept {
    const Rank rank = rankOf(left);
    if (rank == Rank::nil || rank != rankOf(right) || left.isNumber() != right.isNumber()) return false;
    return rank != Rank::number || !(std::isnan(realOf(left)) || std::isnan(realOf(right)));
}

std::size_t hashOf(const Value& value) noexcept {
    switch (rankOf(value)) {
        case Rank::number:
            return std::hash<double>()(realOf(value));
        case Rank::text:
            return std::hash<std::string_view>()(*value.asString());
        case Rank::bytes:
            return std::hash<std::string_view>()(value.asData()->view());
        default:
            return 0;
    }
}

void sortObjects(std::vector<std::shared_ptr<ManagedObject>>& objects, const FetchRequest& request) {
    struct Column {
        std::size_t place;
        bool ascending;
    };
    std::vector<Column> columns;
    for (const SortDescriptor& descriptor : request.sortDescriptors) {
        if (const auto* attribute = request.entity->attributeNamed(descriptor.key)) {
            columns.push_back({attribute->index, descriptor.ascending});
        }
    }
    if (columns.empty()) return;
    std::sort(objects.begin(), objects.end(), [&](const auto& left, const auto& right) {
        for (const Column& column : columns) {
            const int difference = orderOf(stateOf(*left).values()[column.place], stateOf(*right).values()[column.place]);
            if (difference != 0) return column.ascending == (difference < 0);
        }
        return comesBefore(stateOf(*left).key, stateOf(*right).key);
    });
}

}  // namespace velkor::NS
