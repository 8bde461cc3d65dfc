#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "platform/base/Data.h"
#include "platform/base/Export.h"

namespace velkor {

/// Digests of 16, 20, 32 and 64 bytes.
VELKOR_EXPORT NS::Data md5Hash(const NS::Data& data);
VELKOR_EXPORT NS::Data sha1Hash(const NS::Data& data);
VELKOR_EXPORT NS::Data sha256Hash(const NS::Data& data);
VELKOR_EXPORT NS::Data sha512Hash(const NS::Data& data);
/// The same as lower-case hexadecimal text, two characters a byte.
VELKOR_EXPORT std::string md5HexHash(const NS::Data& data);
VELKOR_EXPORT std::string sha1HexHash(const NS::Data& data);
VELKOR_EXPORT std::string sha256HexHash(const NS::Data& data);
VELKOR_EXPORT std::string sha512HexHash(const NS::Data& data);

/// A SHA-256 digest of bytes that come piece by piece. One thread at a time.
class VELKOR_EXPORT SHA256Digest {
public:
    SHA256Digest();
    ~SHA256Digest();
    SHA256Digest(SHA256Digest&&) noexcept;
    SHA256Digest& operator=(SHA256Digest&&) noexcept;

    void update(std::string_view bytes);
    /// The digest of everything so far; the next `update` starts a new one.
    std::array<std::uint8_t, 32> finish();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

/// The same for SHA-1.
class VELKOR_EXPORT SHA1Digest {
public:
    SHA1Digest();
    ~SHA1Digest();
    SHA1Digest(SHA1Digest&&) noexcept;
    SHA1Digest& operator=(SHA1Digest&&) noexcept;

    void update(std::string_view bytes);
    std::array<std::uint8_t, 20> finish();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace velkor
