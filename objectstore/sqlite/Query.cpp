#include "objectstore/sqlite/Query.h"

#include <algorithm>
#include <cmath>

#include "objectstore/ManagedObjectID.h"
#include "objectstore/sqlite/Collation.h"
#include "objectstore/sqlite/StoreFailure.h"

namespace velkor::NS::sqlite {

namespace {

constexpr std::size_t fewValues = 48;
constexpr std::size_t mostParameters = 30'000;  // every SQLite takes 32,766
// Few shapes of lists make few statements to cache: shorter lists repeat their last value.
constexpr std::size_t listSizes[] = {1, 4, 16, fewValues};

Error badRequest(const std::string& problem) { return storeError(StoreError::badRequest, problem); }

void appendParameters(std::string& sql, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) sql += i == 0 ? "?" : ",?";
}

void appendJSONText(std::string& json, std::string_view text) {
    const auto isEscaped = [](char c) { return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20; };
    json += '"';
    while (true) {
        const auto end = std::find_if(text.begin(), text.end(), isEscaped);
        json.append(text.begin(), end);
        if (end == text.end()) break;
        constexpr char digits[] = "0123456789abcdef";
        json += "\\u00";
        json += digits[static_cast<unsigned char>(*end) >> 4];
        json += digits[*end & 0xF];
        text.remove_prefix(static_cast<std::size_t>(end - text.begin()) + 1);
    }
    json += '"';
}

std::string jsonArray(std::span<const Value> values) {
    std::string json = "[";
    json.reserve(values.size() * 40);
    for (const Value& value : values) {
        if (json.size() > 1) json += ',';
        if (const auto text = value.asString()) {
            appendJSONText(json, *text);
        } else {
            json += std::to_string(value.asInteger().value_or(0));
        }
    }
    return json += ']';
}

/// What an operand of a predicate is to a column.
enum class Match { comparable, never, unsupported };

/// Turns an operand into an argument that compares with the column as the values themselves do.
Match takeOperand(const Column& column, const Value& value, Value& argument) {
    if (column.content == Column::Content::key) {
        const auto identifier = value.as<ManagedObjectID>();
        const auto key = identifier ? std::optional(identifier->key()) : value.asInteger();
        if (!key) return Match::unsupported;
        argument = Value(*key);
        return Match::comparable;
    }
    switch (column.type) {
        case AttributeType::undefined:
        case AttributeType::transformable:
            return Match::unsupported;
        case AttributeType::string:
            if (!value.isString() || !isStorableText(*value.asString())) return Match::never;
            argument = value;
            return Match::comparable;
        case AttributeType::integer16:
        case AttributeType::integer32:
        case AttributeType::integer64:
        case AttributeType::boolean:
        case AttributeType::doubleType:
        case AttributeType::floatType: {
            // A number outside the attribute's range compares too, so the attribute's own form would be too strict.
            const auto real = value.isNumber() ? value.asDouble() : std::nullopt;
            if (!real || std::isnan(*real)) return Match::never;
            const auto whole = value.asInteger();
            argument = whole ? Value(*whole) : Value(*real);
            return Match::comparable;
        }
        default:
            break;
    }
    StoredForm form;
    if (!form.take(column.type, value).empty()) return Match::never;
    switch (form.kind) {
        case StoredForm::Kind::real:
            argument = Value(form.real);
            break;
        case StoredForm::Kind::text:
            argument = Value(form.bytes);
            break;
        case StoredForm::Kind::bytes:
            argument = Value(Data::copyOf(form.bytes));
            break;
        default:
            return Match::never;
    }
    return Match::comparable;
}

std::string_view sign(Predicate::Comparison comparison) {
    switch (comparison) {
        case Predicate::Comparison::equal:
            return " = ?";
        case Predicate::Comparison::notEqual:
            return " IS NOT ?";  // nil differs from every value
        case Predicate::Comparison::less:
            return " < ?";
        case Predicate::Comparison::lessOrEqual:
            return " <= ?";
        case Predicate::Comparison::greater:
            return " > ?";
        case Predicate::Comparison::greaterOrEqual:
            return " >= ?";
    }
    return "";
}

/// The column as queries compare and sort it.
std::string operandSQL(const Column& column) {
    return column.type == AttributeType::decimal ? column.name + " COLLATE " + decimalCollation : column.name;
}

class PredicateWriter {
public:
    PredicateWriter(Query& query, const EntityTable& table) : m_query(query), m_table(table) {}

    Result<void> write(const Predicate& predicate) {
        switch (predicate.kind()) {
            case Predicate::Kind::always:
                m_query.sql += '1';
                return {};
            case Predicate::Kind::comparison:
                return writeComparison(predicate);
            case Predicate::Kind::in:
                return writeList(predicate);
            case Predicate::Kind::conjunction:
                return writeParts(predicate, " AND ", "1");
            case Predicate::Kind::disjunction:
                return writeParts(predicate, " OR ", "0");
            case Predicate::Kind::negation: {
                // A comparison with nil is unknown to SQL but plainly false here.
                auto written = writeParts(predicate, "", "");
                m_query.sql += " IS NOT TRUE";
                return written;
            }
        }
        return {};
    }

private:
    Result<const Column*> column(const Predicate& predicate) const {
        const Column* found = m_table.columnNamed(predicate.name());
        if (found && found->content != Column::Content::none) return found;
        return badRequest(m_table.entity->name() + " has no attribute or to-one relationship " + predicate.name() + '.');
    }

    Result<void> writeComparison(const Predicate& predicate) {
        auto found = column(predicate);
        if (!found) return found.error();
        const Column& left = *found.value();
        const auto comparison = predicate.comparison();
        const bool equality = comparison == Predicate::Comparison::equal || comparison == Predicate::Comparison::notEqual;
        if (predicate.value().isNil()) {
            m_query.sql +=
                !equality ? "0" : left.name + (comparison == Predicate::Comparison::equal ? " IS NULL" : " IS NOT NULL");
            return {};
        }
        Value argument;
        switch (takeOperand(left, predicate.value(), argument)) {
            case Match::unsupported:
                return unsupported(left);
            case Match::never:
                m_query.sql += comparison == Predicate::Comparison::notEqual ? "1" : "0";
                return {};
            case Match::comparable:
                break;
        }
        m_query.sql += operandSQL(left);
        m_query.sql += sign(comparison);
        m_query.arguments.push_back(std::move(argument));
        return {};
    }

    Result<void> writeList(const Predicate& predicate) {
        auto found = column(predicate);
        if (!found) return found.error();
        const Column& left = *found.value();
        bool withNil = false;
        std::vector<Value> arguments;
        arguments.reserve(predicate.values().size());
        for (const Value& value : predicate.values()) {
            Value argument;
            if (value.isNil()) {
                withNil = true;
            } else if (const Match match = takeOperand(left, value, argument); match == Match::comparable) {
                arguments.push_back(std::move(argument));
            } else if (match == Match::unsupported) {
                return unsupported(left);
            }
        }
        const bool whole = std::all_of(arguments.begin(), arguments.end(),
                                       [](const Value& v) { return v.isString() || v.kind() == Value::Kind::integer; });
        m_query.sql += '(';
        if (arguments.empty()) {
            m_query.sql += '0';
        } else {
            m_query.sql += operandSQL(left);
            m_query.appendList(arguments, whole);
        }
        if (withNil) m_query.sql += " OR " + left.name + " IS NULL";
        m_query.sql += ')';
        return {};
    }

    Result<void> writeParts(const Predicate& predicate, std::string_view word, std::string_view whenEmpty) {
        if (predicate.parts().empty()) {
            m_query.sql += whenEmpty;
            return {};
        }
        if (++m_depth > 100) return badRequest("The predicate is nested too deeply.");
        auto written = writeBalanced(predicate.parts(), word);
        --m_depth;
        return written;
    }

    // SQLite limits the depth of an expression, and a chain of operators is as deep as it is long.
    Result<void> writeBalanced(std::span<const Predicate> parts, std::string_view word) {
        m_query.sql += '(';
        if (parts.size() == 1) {
            if (auto written = write(parts[0]); !written) return written;
        } else {
            const std::size_t half = parts.size() / 2;
            if (auto written = writeBalanced(parts.first(half), word); !written) return written;
            m_query.sql += word;
            if (auto written = writeBalanced(parts.subspan(half), word); !written) return written;
        }
        m_query.sql += ')';
        return {};
    }

    Error unsupported(const Column& column) const {
        return badRequest(m_table.entity->name() + '.' + std::string(column.property) + " cannot be compared with this value.");
    }

    Query& m_query;
    const EntityTable& m_table;
    int m_depth = 0;
};

Result<void> appendOrder(Query& query, const std::vector<SortDescriptor>& order, const EntityTable& table) {
    std::string_view separator = " ORDER BY ";
    for (const SortDescriptor& descriptor : order) {
        const Column* column = table.columnNamed(descriptor.key);
        if (!column || column->content != Column::Content::attribute) {
            return badRequest(table.entity->name() + " has no attribute " + descriptor.key + " to sort by.");
        }
        query.sql += separator;
        query.sql += operandSQL(*column);
        if (!descriptor.ascending) query.sql += " DESC";
        separator = ",";
    }
    if (!order.empty()) query.sql += ",id";  // equals come in the order in which they were made
    return {};
}

}  // namespace

void Query::bind(Statement& statement) const noexcept {
    int place = 0;
    for (const Value& argument : arguments) {
        ++place;
        if (const auto text = argument.asString()) {
            statement.bindText(place, *text);
        } else if (const Data* data = argument.asData()) {
            statement.bindBytes(place, data->view());
        } else if (argument.kind() == Value::Kind::real) {
            statement.bind(place, *argument.asDouble());
        } else {
            statement.bind(place, argument.asInteger().value_or(0));
        }
    }
}

void Query::appendList(std::span<const Value> values, bool asJSON) {
    if (values.size() > fewValues && asJSON) {
        sql += " IN (SELECT value FROM json_each(?))";
        arguments.emplace_back(jsonArray(values));
        return;
    }
    std::size_t count = values.size();
    if (const auto* size = std::lower_bound(std::begin(listSizes), std::end(listSizes), count); size != std::end(listSizes))
        count = *size;
    sql += " IN (";
    appendParameters(sql, count);
    sql += ')';
    arguments.insert(arguments.end(), values.begin(), values.end());
    arguments.insert(arguments.end(), count - values.size(), values.back());
}

KeyCondition::KeyCondition(std::span<const RowKey> keys) : m_keys(keys.begin(), keys.end()) {
    if (!std::is_sorted(m_keys.begin(), m_keys.end())) std::sort(m_keys.begin(), m_keys.end());
    m_keys.erase(std::unique(m_keys.begin(), m_keys.end()), m_keys.end());
}

void KeyCondition::append(Query& query, std::string_view column) {
    query.sql += column;
    const auto width = static_cast<std::uint64_t>(m_keys.back()) - static_cast<std::uint64_t>(m_keys.front());
    m_range = m_keys.size() > fewValues && width / 3 <= m_keys.size();
    if (m_range) {
        query.sql += " BETWEEN ? AND ?";
        query.arguments.emplace_back(m_keys.front());
        query.arguments.emplace_back(m_keys.back());
        return;
    }
    const std::vector<Value> values(m_keys.begin(), m_keys.end());
    query.appendList(values, true);
}

bool KeyCondition::accepts(RowKey key) noexcept {
    if (!m_range) return true;
    while (m_next < m_keys.size() && m_keys[m_next] < key) ++m_next;
    return m_next < m_keys.size() && m_keys[m_next] == key;
}

Result<void> appendRequest(Query& query, const FetchRequest& request, const EntityTable& table, bool ordered) {
    if (request.predicate.kind() != Predicate::Kind::always) {
        query.sql += " WHERE ";
        if (auto written = PredicateWriter(query, table).write(request.predicate); !written) return written;
    }
    if (ordered) {
        if (auto written = appendOrder(query, request.sortDescriptors, table); !written) return written;
    }
    if (request.limit) {
        query.sql += " LIMIT ?";
        query.arguments.emplace_back(static_cast<std::int64_t>(std::min<std::size_t>(*request.limit, INT64_MAX)));
    }
    if (query.arguments.size() > mostParameters) return badRequest("The predicate for " + table.entity->name() + " is too long.");
    return {};
}

}  // namespace velkor::NS::sqlite
