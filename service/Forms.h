#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velkor::service {

/// One known field of a form.
struct FormField {
    std::string_view name;
    bool percentDecoded = false;  // else the value is taken as it stands
};

/// The values of the known fields, in their order; none where a field is missing. Clients escape neither "&" nor "=" nor "+" in
/// values, so a value ends only where another known field begins, or at the end of the form, whose last "&" belongs to no value.
/// A plus is a plus. A value whose escapes are broken is taken as it stands; one that is no UTF-8, or holds a NUL, is missing.
std::vector<std::optional<std::string>> readForm(std::string_view form, std::span<const FormField> fields);

/// Percent-decodes the text; one with a broken escape, or that decodes to a NUL or to no UTF-8, is returned as it stands.
std::string percentDecoded(std::string_view text);

}  // namespace velkor::service
