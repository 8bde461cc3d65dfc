// Guids of any bytes, a line each: the order is total, the fast sort agrees with it, and sorting changes nothing else.
#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "PelmoLib/encodings/GuidOrder.h"

using namespace velkor;

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    std::vector<std::string_view> guids;
    while (!rest.empty()) {
        guids.push_back(rest.substr(0, rest.find('\n')));
        rest.remove_prefix(std::min(guids.back().size() + 1, rest.size()));
    }
    for (std::size_t i = 1; i < guids.size(); ++i) {
        const auto order = compareGuids(guids[i - 1], guids[i]), reversed = compareGuids(guids[i], guids[i - 1]);
        if ((order < 0) != (reversed > 0) || (order == 0) != (guids[i - 1] == guids[i])) std::abort();
    }
    auto sorted = guids, slowly = guids;
    sortGuids(sorted);
    std::sort(slowly.begin(), slowly.end(), GuidLess());
    if (sorted != slowly) std::abort();
    sortUniqueGuids(guids);
    slowly.erase(std::unique(slowly.begin(), slowly.end()), slowly.end());
    if (guids != slowly || syncHashOfSortedGuids(guids).size() != 44) std::abort();
    return 0;
}
