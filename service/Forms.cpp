#include "service/Forms.h"

#include <algorithm>

#include "PelmoLib/encodings/NSString+URLEncode.h"
#include "platform/base/UTF8.h"

namespace velkor::service {
namespace {

struct Found {
    std::size_t field;
    std::size_t start;  // of the name
    std::size_t value;
};

/// Where "name=" first stands at the start of the form or behind an "&".
std::optional<Found> locate(std::string_view form, std::string_view name, std::size_t field) {
    for (std::size_t at = form.find(name); at != form.npos; at = form.find(name, at + 1)) {
        const std::size_t end = at + name.size();
        if ((at == 0 || form[at - 1] == '&') && end < form.size() && form[end] == '=') return Found{field, at, end + 1};
    }
    return std::nullopt;
}

}  // namespace

std::vector<std::optional<std::string>> readForm(std::string_view form, std::span<const FormField> fields) {
    std::vector<Found> found;
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (auto place = locate(form, fields[i].name, i)) found.push_back(*place);
    }
    std::sort(found.begin(), found.end(), [](const Found& a, const Found& b) { return a.start < b.start; });

    std::vector<std::optional<std::string>> values(fields.size());
    for (std::size_t i = 0; i < found.size(); ++i) {
        std::size_t end = i + 1 < found.size() ? found[i + 1].start - 1 : form.size();
        if (i + 1 == found.size() && end > found[i].value && form[end - 1] == '&') --end;
        const auto text = form.substr(found[i].value, end - found[i].value);
        std::string value = fields[found[i].field].percentDecoded ? percentDecoded(text) : std::string(text);
        if (!NS::isValidUTF8(value) || value.find('\0') != value.npos) continue;
        values[found[i].field] = std::move(value);
    }
    return values;
}

std::string percentDecoded(std::string_view text) {
    auto decoded = simpleUrlDecode(text);
    if (!decoded || decoded->find('\0') != decoded->npos) return std::string(text);
    return *std::move(decoded);
}

}  // namespace velkor::service
