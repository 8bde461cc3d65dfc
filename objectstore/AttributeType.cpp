#include "objectstore/AttributeType.h"

#include <utility>

namespace velkor::NS {

namespace {

constexpr std::pair<AttributeType, std::string_view> typeNames[] = {
    {AttributeType::undefined, "undefined"}, {AttributeType::integer16, "integer16"},
    {AttributeType::integer32, "integer32"}, {AttributeType::integer64, "integer64"},
    {AttributeType::decimal, "decimal"},     {AttributeType::doubleType, "double"},
    {AttributeType::floatType, "float"},     {AttributeType::string, "string"},
    {AttributeType::boolean, "boolean"},     {AttributeType::date, "date"},
    {AttributeType::binaryData, "binary"},   {AttributeType::transformable, "transformable"},
    {AttributeType::objectID, "objectID"},
};

constexpr std::pair<DeleteRule, std::string_view> ruleNames[] = {
    {DeleteRule::noAction, "noAction"},
    {DeleteRule::nullify, "nullify"},
    {DeleteRule::cascade, "cascade"},
    {DeleteRule::deny, "deny"},
};

template <class T, std::size_t N>
std::string_view nameIn(const std::pair<T, std::string_view> (&table)[N], T wanted) noexcept {
    for (const auto& [value, name] : table) {
        if (value == wanted) return name;
    }
    return "unknown";
}

template <class T, std::size_t N>
std::optional<T> valueIn(const std::pair<T, std::string_view> (&table)[N], std::string_view wanted) noexcept {
    for (const auto& [value, name] : table) {
        if (name == wanted) return value;
    }
    return std::nullopt;
}

}  // namespace

std::string_view nameOfAttributeType(AttributeType type) noexcept { return nameIn(typeNames, type); }
std::string_view nameOfDeleteRule(DeleteRule rule) noexcept { return nameIn(ruleNames, rule); }
std::optional<AttributeType> attributeTypeNamed(std::string_view name) noexcept { return valueIn(typeNames, name); }
std::optional<DeleteRule> deleteRuleNamed(std::string_view name) noexcept { return valueIn(ruleNames, name); }

}  // namespace velkor::NS
