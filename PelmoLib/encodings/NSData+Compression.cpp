#include "PelmoLib/encodings/NSData+Compression.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <limits>

#include "PelmoLib/encodings/VLKLog.h"

namespace velkor {

namespace {

constexpr int zlibWrapper = MAX_WBITS;
constexpr int gzipWrapper = MAX_WBITS + 16;
constexpr int zlibOrGzipWrapper = MAX_WBITS + 32;
constexpr std::size_t chunkSize = 16384;

std::atomic<std::size_t> inflatedLimit = std::size_t{64} << 20;

/// Feeds the stream with input of any length.
class Input {
public:
    explicit Input(std::string_view bytes) noexcept : m_rest(bytes) {}
    bool isLast() const noexcept { return m_rest.empty(); }
    void refill(z_stream& stream) noexcept {
        if (stream.avail_in != 0 || m_rest.empty()) return;
        const auto count = std::min<std::size_t>(m_rest.size(), std::numeric_limits<uInt>::max());
        stream.next_in = const_cast<Bytef*>(reinterpret_cast<const Bytef*>(m_rest.data()));
        stream.avail_in = static_cast<uInt>(count);
        m_rest.remove_prefix(count);
    }

private:
    std::string_view m_rest;
};

/// Calls `step` with room for a chunk of output, and appends what it wrote, until its result is neither Z_OK nor within the
/// limit. Returns the last result; Z_MEM_ERROR when the output would have passed the limit.
template <class Step>
int runStream(z_stream& stream, std::string& out, std::size_t limit, Step step) {
    std::array<char, chunkSize> chunk;
    const std::size_t before = out.size();
    int result = Z_OK;
    while (result == Z_OK) {
        stream.next_out = reinterpret_cast<Bytef*>(chunk.data());
        stream.avail_out = static_cast<uInt>(chunk.size());
        result = step();
        const std::size_t written = chunk.size() - stream.avail_out;
        if (written > limit - (out.size() - before)) return Z_MEM_ERROR;
        out.append(chunk.data(), written);
    }
    return result;
}

/// A deflate stream that a thread uses again and again.
class Deflater {
public:
    explicit Deflater(int wrapper) noexcept
        : m_ready(deflateInit2(&m_stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, wrapper, 8, Z_DEFAULT_STRATEGY) == Z_OK) {}
    ~Deflater() { deflateEnd(&m_stream); }
    Deflater(const Deflater&) = delete;
    Deflater& operator=(const Deflater&) = delete;

    bool append(std::string& out, std::string_view bytes) {
        if (!m_ready || deflateReset(&m_stream) != Z_OK) return false;
        Input input(bytes);
        const int result = runStream(m_stream, out, std::numeric_limits<std::size_t>::max(), [&] {
            input.refill(m_stream);
            return deflate(&m_stream, input.isLast() ? Z_FINISH : Z_NO_FLUSH);
        });
        return result == Z_STREAM_END;
    }

private:
    z_stream m_stream{};
    bool m_ready;
};

/// An inflate stream that a thread uses again and again.
class Inflater {
public:
    Inflater() noexcept : m_ready(inflateInit2(&m_stream, zlibWrapper) == Z_OK) {}
    ~Inflater() { inflateEnd(&m_stream); }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;

    bool append(std::string& out, std::string_view bytes, int wrapper) {
        if (!m_ready || inflateReset2(&m_stream, wrapper) != Z_OK) return false;
        m_stream.avail_in = 0;
        Input input(bytes);
        const std::size_t limit = maximumInflatedSize();
        const int result = runStream(m_stream, out, limit, [&] {
            input.refill(m_stream);
            return inflate(&m_stream, Z_SYNC_FLUSH);
        });
        if (result == Z_MEM_ERROR) {
            VLKLog::sharedInstance().logMessageAtLevel(100, "Unable to inflate %lu bytes: they give more than %lu bytes.",
                                                       bytes.size(), limit);
        }
        return result == Z_STREAM_END;
    }

private:
    z_stream m_stream{};
    bool m_ready;
};

bool appendDeflate(std::string& out, std::string_view bytes, int wrapper) {
    if (bytes.empty()) return true;
    const std::size_t before = out.size();
    thread_local Deflater zlibDeflater(zlibWrapper);
    const bool done = wrapper == zlibWrapper ? zlibDeflater.append(out, bytes) : Deflater(wrapper).append(out, bytes);
    if (!done) out.resize(before);
    return done;
}

bool appendInflate(std::string& out, std::string_view stream, int wrapper) {
    if (stream.empty()) return true;
    const std::size_t before = out.size();
    thread_local Inflater inflater;
    const bool done = inflater.append(out, stream, wrapper);
    if (!done) out.resize(before);
    return done;
}

using Append = bool (*)(std::string&, std::string_view, int);

std::optional<NS::Data> transformed(Append append, const NS::Data& data, int wrapper) {
    std::string out;
    if (!append(out, data.view(), wrapper)) return std::nullopt;
    return NS::Data(std::move(out));
}

}  // namespace

std::optional<NS::Data> zlibDeflate(const NS::Data& data) { return transformed(appendDeflate, data, zlibWrapper); }
std::optional<NS::Data> zlibInflate(const NS::Data& data) { return transformed(appendInflate, data, zlibWrapper); }
std::optional<NS::Data> gzipDeflate(const NS::Data& data) { return transformed(appendDeflate, data, gzipWrapper); }
std::optional<NS::Data> gzipInflate(const NS::Data& data) { return transformed(appendInflate, data, zlibOrGzipWrapper); }

bool appendZlibDeflate(std::string& out, std::string_view bytes) { return appendDeflate(out, bytes, zlibWrapper); }
bool appendZlibInflate(std::string& out, std::string_view stream) { return appendInflate(out, stream, zlibWrapper); }

std::size_t maximumInflatedSize() noexcept { return inflatedLimit.load(std::memory_order_relaxed); }
void setMaximumInflatedSize(std::size_t bytes) noexcept { inflatedLimit.store(bytes, std::memory_order_relaxed); }

std::uint32_t crc32Checksum(std::string_view bytes) noexcept {
    return static_cast<std::uint32_t>(crc32_z(0, reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()));
}

}  // namespace velkor
