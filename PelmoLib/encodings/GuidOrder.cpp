#include "PelmoLib/encodings/GuidOrder.h"

#include <unicode/uchar.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <deque>

#include "PelmoLib/encodings/NSData+Digests.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "platform/base/UTF8.h"

namespace velkor {

namespace {

constexpr char foldASCII(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

/// Reads a text's bytes folded. Bytes that are no UTF-8 come as they are.
class FoldedBytes {
public:
    explicit FoldedBytes(std::string_view text) noexcept : m_at(text.data()), m_end(m_at + text.size()) {}

    /// The next byte (0 to 255), or -1 at the end.
    int next() noexcept {
        if (m_read == m_count) {
            if (m_at == m_end) return -1;
            fold();
        }
        return static_cast<unsigned char>(m_folded[m_read++]);
    }

private:
    void fold() noexcept {
        const std::size_t length = NS::utf8CharacterLength(m_at, m_end);
        m_read = 0;
        m_count = 1;
        if (length <= 1) {
            m_folded[0] = foldASCII(*m_at++);
            return;
        }
        const auto character = static_cast<UChar32>(NS::utf8Character(m_at, length));
        m_count = NS::writeUTF8(m_folded, static_cast<char32_t>(u_foldCase(character, U_FOLD_CASE_DEFAULT))) - m_folded;
        m_at += length;
    }

    const char* m_at;
    const char* m_end;
    char m_folded[4];
    std::ptrdiff_t m_read = 0;
    std::ptrdiff_t m_count = 0;
};

std::string folded(std::string_view text) {
    std::string out;
    FoldedBytes bytes(text);
    for (int byte = bytes.next(); byte >= 0; byte = bytes.next()) out.push_back(static_cast<char>(byte));
    return out;
}

std::strong_ordering compareFolded(std::string_view a, std::string_view b) noexcept {
    FoldedBytes left(a), right(b);
    while (true) {
        const int x = left.next(), y = right.next();
        if (x != y || x < 0) return x <=> y;
    }
}

std::strong_ordering compareBytes(std::string_view a, std::string_view b) noexcept { return a.compare(b) <=> 0; }

bool isASCII(std::string_view text) noexcept {
    const char* const end = text.data() + text.size();
    return NS::skipASCII(text.data(), end) == end;
}

/// Up to eight bytes of an ASCII or folded text from the offset on, folded, as a number that compares like them.
std::uint64_t foldedWord(std::string_view text, std::size_t offset) noexcept {
    std::uint64_t word = 0;
    if (offset < text.size()) std::memcpy(&word, text.data() + offset, std::min(text.size() - offset, sizeof word));
    // Of each byte the top bits of two sums tell "at least A" and "beyond Z"; without its own top bit no sum carries over.
    constexpr std::uint64_t ones = 0x0101010101010101ULL, tops = ones << 7;
    const std::uint64_t low = word & ~tops;
    const std::uint64_t capitals = (low + ones * (0x80 - 'A')) & ~(low + ones * (0x7F - 'Z')) & ~word & tops;
    word |= capitals >> 2;
    return std::endian::native == std::endian::little ? __builtin_bswap64(word) : word;
}

/// Sorts texts by eight bytes at a time: most guids differ in the first eight, so that their texts are looked at once.
class Sorter {
public:
    explicit Sorter(std::span<const std::string_view> texts) : m_originals(texts), m_texts(texts.begin(), texts.end()) {
        m_items.reserve(texts.size());
        for (std::size_t i = 0; i < texts.size(); ++i) {
            if (!isASCII(texts[i])) m_texts[i] = m_folded.emplace_back(folded(texts[i]));
            m_items.push_back({foldedWord(m_texts[i], 0), i});
        }
        sortByWord(m_items, 0);
    }
    /// The positions of the texts in sorted order.
    template <class Use>
    void forEachInOrder(Use use) const {
        for (const Item& item : m_items) use(item.index);
    }

private:
    struct Item {
        std::uint64_t word;
        std::size_t index;
    };
    static constexpr std::size_t smallRun = 16;
    static constexpr std::size_t deepest = 256;  // bytes; texts that agree so far are compared whole

    void sortByWord(std::span<Item> items, std::size_t offset) {
        std::sort(items.begin(), items.end(), [](const Item& a, const Item& b) { return a.word < b.word; });
        for (auto run = items.begin(); run != items.end();) {
            const auto end = std::find_if(run, items.end(), [&](const Item& item) { return item.word != run->word; });
            if (end - run > 1) sortRun({run, end}, offset + sizeof run->word);
            run = end;
        }
    }
    // The items agree in all words before the offset.
    void sortRun(std::span<Item> items, std::size_t offset) {
        if (items.size() <= smallRun || offset >= deepest) {
            std::sort(items.begin(), items.end(), [this](const Item& a, const Item& b) {
                return compareGuids(m_originals[a.index], m_originals[b.index]) < 0;
            });
            return;
        }
        for (Item& item : items) item.word = foldedWord(m_texts[item.index], offset);
        sortByWord(items, offset);
    }

    std::span<const std::string_view> m_originals;
    std::vector<std::string_view> m_texts;  // folded where they are not ASCII
    std::deque<std::string> m_folded;
    std::vector<Item> m_items;
};

bool isSorted(std::span<const std::string_view> guids) { return std::is_sorted(guids.begin(), guids.end(), GuidLess()); }

/// Feeds a digest with larger pieces than single guids.
class HashInput {
public:
    void add(std::string_view guid) {
        if (m_pending.size() + guid.size() > pieceSize) flush();
        m_pending.append(guid);
    }
    std::string hash() {
        flush();
        const auto digest = m_digest.finish();
        return base64Encoding(std::string_view(reinterpret_cast<const char*>(digest.data()), digest.size()));
    }

private:
    static constexpr std::size_t pieceSize = 16384;
    void flush() {
        m_digest.update(m_pending);
        m_pending.clear();
    }
    SHA256Digest m_digest;
    std::string m_pending;
};

template <class Text>
std::string hashOf(std::span<const Text> guids) {
    HashInput input;
    for (const Text& guid : guids) input.add(guid);
    return input.hash();
}

template <class Text>
void dropDuplicates(std::vector<Text>& guids) {
    guids.erase(std::unique(guids.begin(), guids.end()), guids.end());
}

}  // namespace

std::strong_ordering compareGuids(std::string_view a, std::string_view b) {
    const std::size_t common = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < common; ++i) {
        if (static_cast<unsigned char>(a[i] | b[i]) >= 0x80) {
            const auto order = compareFolded(a.substr(i), b.substr(i));
            return order != 0 ? order : compareBytes(a, b);
        }
        if (a[i] == b[i]) continue;
        const char x = foldASCII(a[i]), y = foldASCII(b[i]);
        if (x != y) return x <=> y;
    }
    return a.size() != b.size() ? a.size() <=> b.size() : compareBytes(a, b);
}

void sortGuids(std::vector<std::string_view>& guids) {
    if (isSorted(guids)) return;
    std::vector<std::string_view> sorted;
    sorted.reserve(guids.size());
    Sorter(guids).forEachInOrder([&](std::size_t i) { sorted.push_back(guids[i]); });
    guids = std::move(sorted);
}

void sortGuids(std::vector<std::string>& guids) {
    const std::vector<std::string_view> views(guids.begin(), guids.end());
    if (isSorted(views)) return;
    std::vector<std::string> sorted;
    sorted.reserve(guids.size());
    Sorter(views).forEachInOrder([&](std::size_t i) { sorted.push_back(std::move(guids[i])); });
    guids = std::move(sorted);
}

void sortUniqueGuids(std::vector<std::string_view>& guids) {
    sortGuids(guids);
    dropDuplicates(guids);
}

void sortUniqueGuids(std::vector<std::string>& guids) {
    sortGuids(guids);
    dropDuplicates(guids);
}

std::string syncHashOfSortedGuids(std::span<const std::string_view> guids) { return hashOf(guids); }
std::string syncHashOfSortedGuids(std::span<const std::string> guids) { return hashOf(guids); }

}  // namespace velkor
