#include "service/Passwords.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <array>

#include "PelmoLib/encodings/NSData_Base64.h"
#include "platform/base/Exception.h"
#include "platform/base/UTF8.h"
#include "service/Signing.h"

namespace velkor::service {
namespace {

constexpr std::string_view prefix = "scrypt$14$8$1$";  // log2 N, r and p: 16 MiB, tens of milliseconds
constexpr std::size_t saltSize = 16;
constexpr std::size_t keySize = 32;

std::string derive(std::string_view password, std::string_view salt) {
    std::string key(keySize, '\0');
    const int done =
        EVP_PBE_scrypt(password.data(), password.size(), reinterpret_cast<const unsigned char*>(salt.data()), salt.size(),
                       1 << 14, 8, 1, std::uint64_t(64) << 20, reinterpret_cast<unsigned char*>(key.data()), key.size());
    NS::assertThat(done == 1, "scrypt can be computed");
    return key;
}

}  // namespace

std::optional<Credentials> cutCredentials(std::string_view email, std::string_view password) {
    std::string pair(email);
    pair += ':';
    pair += password;
    const std::string_view cut = std::string_view(pair).substr(0, NS::utf16Length(pair));
    if (cut.size() <= email.size() + 1) return std::nullopt;
    return Credentials{std::string(email), std::string(cut.substr(email.size() + 1))};
}

std::optional<Credentials> credentialsFromHeader(std::string_view authorization) {
    constexpr std::string_view scheme = "basic ";
    if (authorization.size() < scheme.size()) return std::nullopt;
    for (std::size_t i = 0; i < scheme.size(); ++i) {
        if ((authorization[i] | 0x20) != (scheme[i] | 0x20)) return std::nullopt;
    }
    std::string pair;
    if (!appendBase64Decoding(pair, authorization.substr(scheme.size()))) return std::nullopt;
    const auto colon = pair.find(':');
    if (colon == pair.npos || pair.find('\0') != pair.npos) return std::nullopt;
    Credentials credentials{pair.substr(0, colon), pair.substr(colon + 1)};
    if (!NS::isValidUTF8(credentials.email)) return std::nullopt;
    return credentials;
}

std::string hashPassword(std::string_view password) {
    std::array<unsigned char, saltSize> salt;
    NS::assertThat(RAND_bytes(salt.data(), salt.size()) == 1, "random bytes are to be had");
    const std::string_view saltBytes(reinterpret_cast<const char*>(salt.data()), salt.size());
    return std::string(prefix) + base64Encoding(saltBytes) + "$" + base64Encoding(derive(password, saltBytes));
}

bool verifyPassword(std::string_view password, std::string_view hash) {
    if (!hash.starts_with(prefix)) return false;
    hash.remove_prefix(prefix.size());
    const auto dollar = hash.find('$');
    std::string salt, key;
    if (dollar == hash.npos || !appendBase64Decoding(salt, hash.substr(0, dollar)) ||
        !appendBase64Decoding(key, hash.substr(dollar + 1))) {
        return false;
    }
    return equalsInConstantTime(derive(password, salt), key);
}

}  // namespace velkor::service
