// Changes requests and listings as anybody may send them.
#include <cstdlib>
#include <string_view>

#include "PelmoLib/encodings/VLKLog.h"
#include "service/ChangesRequest.h"
#include "service/ListingRequest.h"

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    using namespace velkor::service;
    velkor::VLKLog::sharedInstance().setLogLevel(0);
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (const auto listing = ListingRequest::read(text)) {
        for (const auto guid : listing->guids()) {
            if (guid.empty() || guid.size() > longestName || guid.find('\0') != guid.npos) std::abort();
        }
    }
    if (auto request = ChangesRequest::read(text)) {
        request->readRelationships();
        if (request->instance().empty()) std::abort();
        for (const auto& transaction : request->transactions()) {
            if (!transaction.isUsable()) std::abort();
        }
    }
    return 0;
}
