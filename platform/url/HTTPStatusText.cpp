#include <algorithm>
#include <array>
#include <string>
#include <string_view>
#include <utility>

#include "platform/persistence/Bundle.h"
#include "platform/url/URLConnection.h"

namespace velkor::NS {

namespace {

using StatusText = std::pair<std::int64_t, std::string_view>;

constexpr std::array statusTexts = std::to_array<StatusText>({
    {100, "continue"},
    {101, "switching protocols"},
    {102, "processing"},
    {103, "early hints"},
    {200, "no error"},
    {201, "created"},
    {202, "accepted"},
    {203, "non-authoritative information"},
    {204, "no content"},
    {205, "reset content"},
    {206, "partial content"},
    {207, "multi-status"},
    {208, "already reported"},
    {226, "instance manipulations applied"},
    {300, "multiple choices"},
    {301, "moved permanently"},
    {302, "found"},
    {303, "see other"},
    {304, "not modified"},
    {305, "needs proxy"},
    {307, "temporarily redirected"},
    {308, "permanently redirected"},
    {400, "bad request"},
    {401, "unauthorized"},
    {402, "payment required"},
    {403, "forbidden"},
    {404, "not found"},
    {405, "method not allowed"},
    {406, "unacceptable"},
    {407, "proxy authentication required"},
    {408, "request timed out"},
    {409, "conflict"},
    {410, "no longer exists"},
    {411, "length required"},
    {412, "precondition failed"},
    {413, "request too large"},
    {414, "requested URL too long"},
    {415, "unsupported media type"},
    {416, "requested range not satisfiable"},
    {417, "expectation failed"},
    {421, "misdirected request"},
    {422, "unprocessable content"},
    {423, "locked"},
    {424, "failed dependency"},
    {425, "too early"},
    {426, "upgrade required"},
    {428, "precondition required"},
    {429, "too many requests"},
    {431, "request headers too large"},
    {451, "unavailable for legal reasons"},
    {500, "internal server error"},
    {501, "unimplemented"},
    {502, "bad gateway"},
    {503, "service unavailable"},
    {504, "gateway timed out"},
    {505, "unsupported version"},
    {506, "variant also negotiates"},
    {507, "insufficient storage"},
    {508, "loop detected"},
    {511, "network authentication required"},
});

std::string_view textForClass(std::int64_t statusClass) {
    switch (statusClass) {
        case 1:
            return "informational";
        case 2:
            return "success";
        case 3:
            return "redirected";
        case 4:
            return "client error";
        default:
            return "server error";
    }
}

}  // namespace

std::string localizedStringForStatusCode(std::int64_t statusCode) {
    const auto* known = std::ranges::lower_bound(statusTexts, statusCode, {}, &StatusText::first);
    const bool found = known != statusTexts.end() && known->first == statusCode;
    return Bundle::libraryBundle().localizedString(found ? known->second : textForClass(statusCode / 100));
}

}  // namespace velkor::NS
