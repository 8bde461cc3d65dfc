// The head of a server's answer, line by line.
#include "platform/url/ResponseHead.h"

#include <cstdint>
#include <cstdlib>

using velkor::NS::detail::ResponseHead;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    ResponseHead head;
    while (!rest.empty()) {
        const auto end = rest.find('\n');
        const auto line = rest.substr(0, end == std::string_view::npos ? end : end + 1);
        rest.remove_prefix(line.size());
        if (head.take(line) == ResponseHead::Step::tooLong) break;
        std::size_t kept = 0;
        for (const auto& [name, value] : head.headers()) kept += name.size() + value.size();
        if (kept > ResponseHead::mostBytes || head.statusCode() < -99 || head.statusCode() > 999) std::abort();
    }
    return 0;
}
