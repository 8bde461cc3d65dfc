#include "objectstore/sqlite/RowReader.h"

#include <charconv>

#include "objectstore/ManagedObjectID.h"
#include "platform/base/DecimalText.h"
#include "platform/base/UTF8.h"
#include "platform/persistence/KeyedArchiver.h"

namespace velkor::NS::sqlite {

namespace {

bool readArchive(std::string_view bytes, Value& value) {
    auto read = unarchiveObjectWithData(bytes);
    if (!read) return false;
    value = std::move(read).value();
    return true;
}

bool readInteger(const Statement& statement, int place, int type, AttributeType attribute, Value& value) {
    if (type != SQLITE_INTEGER) return false;
    const std::int64_t number = statement.integer(place);
    if (attribute == AttributeType::boolean) {
        value = Value(number != 0);
    } else {
        value = Value(number);
    }
    return true;
}

bool readReal(const Statement& statement, int place, int type, AttributeType attribute, Value& value) {
    if (type != SQLITE_FLOAT && type != SQLITE_INTEGER) return false;
    const double number = statement.real(place);
    if (attribute == AttributeType::date) {
        value = Value(Date(number));
    } else {
        value = Value(number);
    }
    return true;
}

bool readText(std::string_view text, AttributeType attribute, const ManagedObjectModel& model, Value& value) {
    switch (attribute) {
        case AttributeType::objectID:
            return readObjectID(text, model, value);
        case AttributeType::decimal:
            if (!DecimalParts::parse(text)) return false;
            value = Value::decimal(text);
            return true;
        default:
            if (!isValidUTF8(text)) return false;
            value = Value(text);
            return true;
    }
}

}  // namespace

bool readObjectID(std::string_view uri, const ManagedObjectModel& model, Value& value) {
    constexpr std::string_view scheme = "x-velkor:///";
    const std::size_t slash = uri.rfind("/p");
    if (!uri.starts_with(scheme) || slash == uri.npos || slash < scheme.size()) return false;
    const EntityDescription* entity = model.entityNamed(uri.substr(scheme.size(), slash - scheme.size()));
    const std::string_view digits = uri.substr(slash + 2);
    std::int64_t key = 0;
    const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), key);
    if (!entity || failure != std::errc() || key <= 0 || end != digits.data() + digits.size()) return false;
    value = Value(std::make_shared<ManagedObjectID>(*entity, key));
    return true;
}

bool readValue(const Statement& statement, int place, const Column& column, const ManagedObjectModel& model, Value& value) {
    const int type = statement.type(place);
    if (type == SQLITE_NULL) {
        value = Value();
        return true;
    }
    if (column.content == Column::Content::key) {
        return readInteger(statement, place, type, AttributeType::integer64, value) && *value.asInteger() > 0;
    }
    switch (column.type) {
        case AttributeType::integer16:
        case AttributeType::integer32:
        case AttributeType::integer64:
        case AttributeType::boolean:
            return readInteger(statement, place, type, column.type, value);
        case AttributeType::doubleType:
        case AttributeType::floatType:
        case AttributeType::date:
            return readReal(statement, place, type, column.type, value);
        case AttributeType::string:
        case AttributeType::decimal:
        case AttributeType::objectID:
            return type == SQLITE_TEXT && readText(statement.text(place), column.type, model, value);
        case AttributeType::binaryData:
            if (type != SQLITE_BLOB) return false;
            value = Value(Data::copyOf(statement.bytes(place)));
            return true;
        case AttributeType::undefined:
        case AttributeType::transformable:
            return type == SQLITE_BLOB && readArchive(statement.bytes(place), value);
    }
    return false;
}

bool RowReader::read(const Statement& statement) {
    m_row.key = statement.integer(0);
    m_row.version = statement.integer(1);
    m_damaged = nullptr;
    if (m_row.key <= 0) return false;
    m_row.values.resize(m_table.columns.size());
    int place = 2;
    for (std::size_t i = 0; i < m_table.columns.size(); ++i) {
        const Column& column = m_table.columns[i];
        if (column.content == Column::Content::none) {
            m_row.values[i] = Value();
        } else if (!readValue(statement, place++, column, m_model, m_row.values[i])) {
            m_damaged = &column;
            return false;
        }
    }
    return true;
}

std::string RowReader::problem() const {
    const std::string property = m_damaged ? '.' + std::string(m_damaged->property) : std::string();
    return "is damaged: " + m_table.entity->name() + property + " of row " + std::to_string(m_row.key) + " cannot be read";
}

}  // namespace velkor::NS::sqlite
