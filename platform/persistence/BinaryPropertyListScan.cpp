#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <vector>

#include "platform/persistence/PropertyListScan.h"

namespace velkor::NS {
namespace {

constexpr std::size_t headerSize = 8;
constexpr std::size_t trailerSize = 32;

// The file is a header, objects, a table of their offsets and a trailer. Collections hold numbers of objects, so that one object
// can stand in many places: what counts is the tree that comes out.
class Scan {
public:
    explicit Scan(std::string_view bytes) : m_bytes(bytes) {}

    std::string fault() {
        if (!readTrailer()) return "its trailer is damaged";
        m_sizes.resize(m_objectCount);
        visit(m_root, 1);
        return m_fault;
    }

private:
    std::uint64_t number(std::size_t at, std::size_t size) const {
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < size; ++i) value = value << 8 | static_cast<unsigned char>(m_bytes[at + i]);
        return value;
    }
    bool readTrailer() {
        if (m_bytes.size() < headerSize + trailerSize) return false;
        const std::size_t trailer = m_bytes.size() - trailerSize;
        m_offsetSize = number(trailer + 6, 1);
        m_referenceSize = number(trailer + 7, 1);
        m_objectCount = number(trailer + 8, 8);
        m_root = number(trailer + 16, 8);
        m_table = number(trailer + 24, 8);
        const auto sizeIsSane = [](std::size_t size) { return size == 1 || size == 2 || size == 4 || size == 8; };
        return sizeIsSane(m_offsetSize) && sizeIsSane(m_referenceSize) && m_table >= headerSize && m_table <= trailer &&
               m_objectCount <= propertyListNodeLimit && m_objectCount <= (trailer - m_table) / m_offsetSize &&
               m_root < m_objectCount;
    }
    std::size_t refuse(const char* why) {
        if (m_fault.empty()) m_fault = why;
        return 0;
    }
    // Where the object lies; 0 when it is not there.
    std::size_t placeOf(std::uint64_t object) const {
        if (object >= m_objectCount) return 0;
        const std::uint64_t at = number(m_table + object * m_offsetSize, m_offsetSize);
        return at < headerSize || at >= m_table ? 0 : at;
    }
    // Number of values (and pieces of content) in the tree below and including the object, limited; 0 after a fault.
    std::size_t visit(std::uint64_t object, std::size_t depth) {
        const std::size_t at = placeOf(object);
        if (at == 0) return refuse("it refers to an object that is not there");
        // An object met again, at no greater depth, has been looked at.
        Known& known = m_sizes[object];
        if (known.size != 0 && depth <= known.depth) return known.size;
        const std::size_t size = sizeOfObject(at, depth);
        known = {size, depth};
        return size;
    }
    std::size_t sizeOfObject(std::size_t at, std::size_t depth) {
        const unsigned marker = static_cast<unsigned char>(m_bytes[at]);
        const unsigned low = marker & 15;
        const std::size_t scalarEnd = at + 1 + (std::size_t{1} << low);
        switch (marker >> 4) {
            case 0x0:
                return low == 8 || low == 9 ? 1 : refuse("it holds an unknown kind of value");
            case 0x1:
                if (low > 4 || scalarEnd > m_table) return refuse("a number is damaged");
                if (low == 4 &&
                    (number(at + 1, 8) != 0 || number(at + 9, 8) > std::uint64_t(std::numeric_limits<std::int64_t>::max()))) {
                    return refuse("a number is too large");
                }
                return 1;
            case 0x2:
                return (low == 2 || low == 3) && scalarEnd <= m_table ? 1 : refuse("a number is damaged");
            case 0x3:
                return low == 3 && scalarEnd <= m_table && dateIsInRange(number(at + 1, 8)) ? 1 : refuse("a date is damaged");
            default:
                return sizeOfCounted(marker >> 4, at, depth);
        }
    }
    static bool dateIsInRange(std::uint64_t bits) {
        return std::abs(std::bit_cast<double>(bits)) <= std::numeric_limits<std::int32_t>::max();
    }
    // Data, texts and collections: a count, in the marker or as a number behind it, then the content.
    std::size_t sizeOfCounted(unsigned type, std::size_t at, std::size_t depth) {
        std::uint64_t count = static_cast<unsigned char>(m_bytes[at]) & 15;
        ++at;
        if (count == 15) {
            if (at >= m_table || (static_cast<unsigned char>(m_bytes[at]) & 0xFC) != 0x10) return refuse("a length is damaged");
            const std::size_t width = std::size_t{1} << (m_bytes[at] & 3);
            if (width > m_table - at - 1) return refuse("a length is damaged");
            count = number(at + 1, width);
            at += 1 + width;
        }
        const std::size_t unit = type == 0x4 || type == 0x5 ? 1
                                 : type == 0x6              ? 2
                                 : type == 0xD              ? 2 * m_referenceSize
                                                            : m_referenceSize;
        if (count > (m_table - at) / unit) return refuse("a length is damaged");
        const std::string_view content = m_bytes.substr(at, count * unit);
        switch (type) {
            case 0x4:
                return sizeOfBytes(count);
            case 0x5:
                return isAscii(content) ? sizeOfBytes(count) : refuse("a text is not what it says");
            case 0x6:
                return isSoundUtf16(at, count) ? sizeOfBytes(count * 2) : refuse("a text is no valid UTF-16");
            case 0xA:
                return sizeOfCollection(at, count, depth);
            case 0xD:
                for (std::uint64_t i = 0; i < count; ++i) {
                    if (!isText(number(at + i * m_referenceSize, m_referenceSize))) return refuse("a key is no text");
                }
                return sizeOfCollection(at, count * 2, depth);
            default:
                return refuse("it holds an unknown kind of value");
        }
    }
    // Content counts too: a large text that stands in many places would be copied to each.
    static std::size_t sizeOfBytes(std::uint64_t count) { return 1 + count / 256; }
    static bool isAscii(std::string_view text) {
        return std::all_of(text.begin(), text.end(), [](char c) { return c != 0 && static_cast<unsigned char>(c) < 0x80; });
    }
    bool isText(std::uint64_t object) const {
        const std::size_t at = placeOf(object);
        const int type = at == 0 ? 0 : static_cast<unsigned char>(m_bytes[at]) >> 4;
        return type == 0x5 || type == 0x6;
    }
    bool isSoundUtf16(std::size_t at, std::uint64_t count) const {
        bool lowExpected = false;
        for (std::uint64_t i = 0; i < count; ++i) {
            const std::uint64_t unit = number(at + 2 * i, 2);
            if (unit == 0 || lowExpected != ((unit & 0xFC00) == 0xDC00)) return false;
            lowExpected = (unit & 0xFC00) == 0xD800;
        }
        return !lowExpected;
    }
    std::size_t sizeOfCollection(std::size_t at, std::uint64_t references, std::size_t depth) {
        if (depth > propertyListDepthLimit) return refuse("it is nested too deeply");
        std::size_t size = 1;
        for (std::uint64_t i = 0; i < references; ++i) {
            const std::size_t below = visit(number(at + i * m_referenceSize, m_referenceSize), depth + 1);
            if (below == 0) return 0;
            size += below;
            if (size > propertyListNodeLimit) return refuse("it holds too many values");
        }
        return size;
    }

    struct Known {
        std::size_t size = 0;
        std::size_t depth = 0;
    };

    std::string_view m_bytes;
    std::size_t m_offsetSize = 0, m_referenceSize = 0;
    std::uint64_t m_objectCount = 0, m_root = 0, m_table = 0;
    std::vector<Known> m_sizes;
    std::string m_fault;
};

}  // namespace

std::string binaryPropertyListFault(std::string_view bytes) { return Scan(bytes).fault(); }

}  // namespace velkor::NS
