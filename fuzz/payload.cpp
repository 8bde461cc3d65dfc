// What a payload goes through: base64, then a zlib or gzip stream. The first byte chooses where the input enters.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "PelmoLib/encodings/NSData+Compression.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "platform/base/SystemLog.h"

using namespace velkor;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    [[maybe_unused]] static const bool quiet = [] {
        NS::setSystemLogHandler([](std::string_view) {});
        setMaximumInflatedSize(1 << 20);
        return true;
    }();
    if (size == 0) return 0;
    const std::string_view input(reinterpret_cast<const char*>(bytes) + 1, size - 1);
    if (bytes[0] % 2 == 0) {
        const auto data = dataWithBase64EncodedString(input);
        if (!data) return 0;
        if (dataWithBase64EncodedString(base64Encoding(*data)) != data) std::abort();
        (void)zlibInflate(*data);
    } else {
        const NS::Data data = NS::Data::copyOf(input);
        const auto inflated = gzipInflate(data);
        if (inflated && inflated->size() > maximumInflatedSize() && !data.empty()) std::abort();
        if (zlibInflate(*zlibDeflate(data)) != data) std::abort();
        if (dataWithBase64EncodedString(base64Encoding(data)) != data) std::abort();
    }
    return 0;
}
