#include "PelmoLib/encodings/NSString+UUID.h"

#include <sys/random.h>

#include <array>
#include <atomic>
#include <cstdint>

#include "platform/base/Exception.h"

namespace velkor {

std::string stringWithUUID() {
    std::array<unsigned char, 16> bytes;
    // Requests of up to 256 bytes are answered whole once the kernel's pool is ready; before that a signal may interrupt the
    // wait.
    ssize_t count;
    do {
        count = getrandom(bytes.data(), bytes.size(), 0);
    } while (count < 0 && errno == EINTR);
    NS::assertThat(count == static_cast<ssize_t>(bytes.size()), "The system gives no random numbers.");
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4: random
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);

    constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
        text.push_back(digits[bytes[i] >> 4]);
        text.push_back(digits[bytes[i] & 0x0F]);
    }
    return text;
}

std::string stringWithGedcomId() {
    static std::atomic<std::int64_t> counter = 0;
    return std::to_string(counter++);
}

}  // namespace velkor
