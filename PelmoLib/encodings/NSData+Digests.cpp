#include "PelmoLib/encodings/NSData+Digests.h"

#include <openssl/evp.h>

#include "platform/base/Exception.h"

namespace velkor {

namespace {

/// A digest's implementation, fetched once for the process: fetching costs more than digesting a guid.
const EVP_MD* fetched(const char* name) {
    const EVP_MD* digest = EVP_MD_fetch(nullptr, name, nullptr);
    NS::assertThat(digest != nullptr, "The system's cryptographic library lacks a digest.");
    return digest;
}

const EVP_MD* md5() {
    static const EVP_MD* const digest = fetched("MD5");
    return digest;
}
const EVP_MD* sha1() {
    static const EVP_MD* const digest = fetched("SHA1");
    return digest;
}
const EVP_MD* sha256() {
    static const EVP_MD* const digest = fetched("SHA256");
    return digest;
}
const EVP_MD* sha512() {
    static const EVP_MD* const digest = fetched("SHA512");
    return digest;
}

class Context {
public:
    Context() : m_context(EVP_MD_CTX_new()) { NS::assertThat(m_context != nullptr, "There is no memory for a digest."); }
    ~Context() { EVP_MD_CTX_free(m_context); }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    void begin(const EVP_MD* digest) { check(EVP_DigestInit_ex2(m_context, digest, nullptr)); }
    void update(std::string_view bytes) { check(EVP_DigestUpdate(m_context, bytes.data(), bytes.size())); }
    /// Writes the digest at `out`; returns its length in bytes.
    std::size_t finish(unsigned char* out) {
        unsigned length = 0;
        check(EVP_DigestFinal_ex(m_context, out, &length));
        return length;
    }

private:
    static void check(int result) { NS::assertThat(result == 1, "The system's cryptographic library failed."); }
    EVP_MD_CTX* m_context;
};

std::string digestOf(const NS::Data& data, const EVP_MD* digest) {
    thread_local Context context;
    unsigned char bytes[EVP_MAX_MD_SIZE];
    context.begin(digest);
    context.update(data.view());
    const std::size_t length = context.finish(bytes);
    return {reinterpret_cast<const char*>(bytes), length};
}

std::string hexadecimal(const std::string& bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const char c : bytes) {
        text.push_back(digits[static_cast<unsigned char>(c) >> 4]);
        text.push_back(digits[c & 0x0F]);
    }
    return text;
}

}  // namespace

NS::Data md5Hash(const NS::Data& data) { return NS::Data(digestOf(data, md5())); }
NS::Data sha1Hash(const NS::Data& data) { return NS::Data(digestOf(data, sha1())); }
NS::Data sha256Hash(const NS::Data& data) { return NS::Data(digestOf(data, sha256())); }
NS::Data sha512Hash(const NS::Data& data) { return NS::Data(digestOf(data, sha512())); }

std::string md5HexHash(const NS::Data& data) { return hexadecimal(digestOf(data, md5())); }
std::string sha1HexHash(const NS::Data& data) { return hexadecimal(digestOf(data, sha1())); }
std::string sha256HexHash(const NS::Data& data) { return hexadecimal(digestOf(data, sha256())); }
std::string sha512HexHash(const NS::Data& data) { return hexadecimal(digestOf(data, sha512())); }

struct SHA256Digest::State {
    Context context;
};

SHA256Digest::SHA256Digest() : m_state(std::make_unique<State>()) { m_state->context.begin(sha256()); }
SHA256Digest::~SHA256Digest() = default;
SHA256Digest::SHA256Digest(SHA256Digest&&) noexcept = default;
SHA256Digest& SHA256Digest::operator=(SHA256Digest&&) noexcept = default;

void SHA256Digest::update(std::string_view bytes) { m_state->context.update(bytes); }

std::array<std::uint8_t, 32> SHA256Digest::finish() {
    std::array<std::uint8_t, 32> digest;
    m_state->context.finish(digest.data());
    m_state->context.begin(sha256());
    return digest;
}

struct SHA1Digest::State {
    Context context;
};

SHA1Digest::SHA1Digest() : m_state(std::make_unique<State>()) { m_state->context.begin(sha1()); }
SHA1Digest::~SHA1Digest() = default;
SHA1Digest::SHA1Digest(SHA1Digest&&) noexcept = default;
SHA1Digest& SHA1Digest::operator=(SHA1Digest&&) noexcept = default;

void SHA1Digest::update(std::string_view bytes) { m_state->context.update(bytes); }

std::array<std::uint8_t, 20> SHA1Digest::finish() {
    std::array<std::uint8_t, 20> digest;
    m_state->context.finish(digest.data());
    m_state->context.begin(sha1());
    return digest;
}

}  // namespace velkor
