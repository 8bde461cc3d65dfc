#include "service/Signing.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

#include "PelmoLib/encodings/NSData+Digests.h"
#include "platform/base/Exception.h"

namespace velkor::service {

std::string hmacSHA256(std::string_view key, std::string_view text) {
    std::string code(32, '\0');
    unsigned length = 0;
    const auto* made =
        HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<const unsigned char*>(text.data()),
             text.size(), reinterpret_cast<unsigned char*>(code.data()), &length);
    NS::assertThat(made && length == code.size(), "the system's cryptographic library works");
    return code;
}

std::string sha256(std::string_view text) {
    SHA256Digest digest;
    digest.update(text);
    const auto bytes = digest.finish();
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

std::string hexadecimal(std::string_view bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const char c : bytes) {
        text += digits[static_cast<unsigned char>(c) >> 4];
        text += digits[c & 0x0F];
    }
    return text;
}

bool equalsInConstantTime(std::string_view a, std::string_view b) {
    return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

}  // namespace velkor::service
