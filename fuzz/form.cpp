// Forms and URL texts as anybody may send them.
#include <array>
#include <cstdlib>
#include <string_view>

#include "service/Download.h"
#include "service/Forms.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    using namespace velkor::service;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    constexpr std::array<FormField, 3> fields{FormField{"old_password", true}, FormField{"new_password", true}, FormField{"p"}};
    std::size_t taken = 0;
    for (const auto& value : readForm(text, fields)) {
        if (value) taken += value->size();
    }
    if (taken > size) std::abort();  // values never overlap
    if (percentDecoded(text).size() > size) std::abort();
    if (const auto download = Download::parse(text)) {
        if (Download::parse(download->identifier())->identifier() != download->identifier()) std::abort();
    }
    return 0;
}
