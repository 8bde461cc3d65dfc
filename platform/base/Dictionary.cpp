#include "platform/base/Dictionary.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <utility>

#include "platform/base/Description.h"
#include "platform/base/Exception.h"
#include "platform/base/Value.h"

namespace velkor::NS {
namespace {

constexpr std::uint32_t freeSlot = std::numeric_limits<std::uint32_t>::max();
// Up to so many members a search in line beats the index.
constexpr std::size_t searchedInLine = 16;

// Keys may come from a hostile sender, so the hash differs from process to process. Made by the first use: a program's global
// dictionaries may be built before anything of this file is.
std::uint64_t hashSeed() noexcept {
    static const std::uint64_t seed = [] {
        std::random_device random;
        return std::uint64_t{random()} << 32 | random();
    }();
    return seed;
}

std::uint64_t mixed(std::uint64_t a, std::uint64_t b) noexcept {
    __extension__ using Wide = unsigned __int128;
    const Wide product = Wide{a} * b;
    return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
}

std::uint64_t hashOf(std::string_view text) noexcept {
    const std::uint64_t seed = hashSeed();
    std::uint64_t hash = seed ^ text.size();
    while (!text.empty()) {
        std::uint64_t word = 0;
        const std::size_t step = std::min<std::size_t>(text.size(), sizeof word);
        std::memcpy(&word, text.data(), step);
        hash = mixed(hash ^ word, 0x9E3779B97F4A7C15ull ^ seed);
        text.remove_prefix(step);
    }
    return mixed(hash, 0xD6E8FEB86659FD93ull);
}

}  // namespace

// A block of the head and `capacity` places for members, the first `count` of them made. Members are moved by moving their bytes.
// Beyond `searchedInLine` members an open-addressed index of their positions stands beside.
struct alignas(Value) Dictionary::Storage : SharedStorage {
    std::uint32_t count = 0;
    std::uint32_t capacity = 0;
    std::uint32_t slotMask = 0;
    std::uint32_t* slots = nullptr;

    Entry* entries() noexcept { return reinterpret_cast<Entry*>(this + 1); }

    static std::size_t bytesFor(std::size_t capacity) {
        if (capacity >= freeSlot / 4) throw Exception(RangeException, "A dictionary is too large.");
        return sizeof(Storage) + capacity * sizeof(Entry);
    }
    static Storage* make(std::size_t capacity) {
        auto* storage = new (allocateStorage(bytesFor(capacity))) Storage;
        storage->capacity = static_cast<std::uint32_t>(capacity);
        return storage;
    }

    // The slot of the key, or the free slot where it belongs.
    std::uint32_t& slotFor(std::string_view key) noexcept {
        auto slot = static_cast<std::uint32_t>(hashOf(key)) & slotMask;
        while (slots[slot] != freeSlot && entries()[slots[slot]].key() != key) slot = (slot + 1) & slotMask;
        return slots[slot];
    }
    Entry* find(std::string_view key) noexcept {
        if (slots) {
            const std::uint32_t position = slotFor(key);
            return position == freeSlot ? nullptr : entries() + position;
        }
        if (key.size() > SharedText::inlineCapacity) {
            return findInLine([key](const Entry& entry) { return entry.key() == key; });
        }
        return findInLine([text = SharedText(key)](const Entry& entry) { return entry.m_key == text; });  // compares two words
    }
    template <class Matches>
    Entry* findInLine(Matches&& matches) noexcept {
        for (Entry *entry = entries(), *end = entry + count; entry != end; ++entry) {
            if (matches(*entry)) return entry;
        }
        return nullptr;
    }
    // Makes the index anew, sized for the capacity. Returns the first position whose key an earlier slot has, or the count.
    std::uint32_t rebuildIndex() {
        std::free(std::exchange(slots, nullptr));
        if (count <= searchedInLine) return count;
        const std::uint32_t slotCount = std::bit_ceil(capacity * 2);
        slots = static_cast<std::uint32_t*>(allocateStorage(slotCount * sizeof(std::uint32_t)));
        slotMask = slotCount - 1;
        std::fill_n(slots, slotCount, freeSlot);
        std::uint32_t repeat = count;
        for (std::uint32_t i = 0; i < count; ++i) {
            std::uint32_t& slot = slotFor(entries()[i].key());
            if (slot == freeSlot) {
                slot = i;
            } else {
                repeat = std::min(repeat, i);
            }
        }
        return repeat;
    }
    void append(SharedText&& key, Value&& value) {
        auto* entry = new (entries() + count) Entry(std::move(key), std::move(value));
        ++count;
        if (slots) {
            slotFor(entry->key()) = count - 1;
        } else if (count > searchedInLine) {
            rebuildIndex();
        }
    }
    // The same for a dictionary without an index.
    std::uint32_t firstRepeatInLine() noexcept {
        if (count > searchedInLine) return count;
        for (std::uint32_t i = 1; i < count; ++i) {
            for (std::uint32_t earlier = 0; earlier < i; ++earlier) {
                if (entries()[earlier].m_key == entries()[i].m_key) return i;
            }
        }
        return count;
    }
    // Drops the members from `repeated` on whose key an earlier one has, after giving that one their value.
    void mergeFrom(std::uint32_t repeated) {
        const std::uint32_t end = std::exchange(count, repeated);
        rebuildIndex();
        for (std::uint32_t i = repeated; i < end; ++i) {
            Entry member = std::move(entries()[i]);
            entries()[i].~Entry();
            if (Entry* earlier = find(member.key())) {
                earlier->m_value = std::move(member.m_value);
            } else {
                append(std::move(member.m_key), std::move(member.m_value));
            }
        }
    }
};

Dictionary::Dictionary(std::initializer_list<std::pair<std::string_view, Value>> members) {
    makeRoomFor(members.size());
    for (const auto& [key, value] : members) set(key, value);
}

Dictionary::Dictionary(const Dictionary& other) noexcept : m_storage(other.m_storage) {
    if (m_storage) m_storage->retain();
}

Dictionary& Dictionary::operator=(const Dictionary& other) noexcept { return *this = Dictionary(other); }

Dictionary& Dictionary::operator=(Dictionary&& other) noexcept {
    Dictionary taken(std::move(other));
    std::swap(m_storage, taken.m_storage);
    return *this;
}

Dictionary::~Dictionary() {
    if (m_storage && m_storage->release()) destroy(m_storage);
}

Dictionary Dictionary::adopting(std::span<Entry> members) {
    Dictionary dictionary;
    if (members.empty()) return dictionary;
    Storage* storage = dictionary.m_storage = Storage::make(members.size());
    std::memcpy(static_cast<void*>(storage->entries()), members.data(), members.size_bytes());
    storage->count = storage->capacity;
    std::uninitialized_value_construct(members.begin(), members.end());
    const std::uint32_t repeated = std::min(storage->firstRepeatInLine(), storage->rebuildIndex());
    if (repeated < storage->count) storage->mergeFrom(repeated);
    return dictionary;
}

void Dictionary::destroy(Storage* storage) noexcept {
    std::destroy_n(storage->entries(), storage->count);
    std::free(storage->slots);
    std::free(storage);
}

std::size_t Dictionary::size() const noexcept { return m_storage ? m_storage->count : 0; }
Dictionary::const_iterator Dictionary::begin() const noexcept { return m_storage ? m_storage->entries() : nullptr; }
Dictionary::const_iterator Dictionary::end() const noexcept {
    return m_storage ? m_storage->entries() + m_storage->count : nullptr;
}

const Value* Dictionary::find(std::string_view key) const noexcept {
    const Entry* entry = m_storage ? m_storage->find(key) : nullptr;
    return entry ? &entry->m_value : nullptr;
}

const Value& Dictionary::operator[](std::string_view key) const noexcept {
    static const Value& nil = *new Value;  // outlives every user at exit
    const Value* value = find(key);
    return value ? *value : nil;
}

// Afterwards the storage is this dictionary's own and has at least that many places.
void Dictionary::makeRoomFor(std::size_t count) {
    if (m_storage && m_storage->isUnique()) {
        if (count <= m_storage->capacity) return;
        const std::size_t capacity = std::max<std::size_t>(count, std::size_t{m_storage->capacity} * 2);
        void* larger = std::realloc(static_cast<void*>(m_storage), Storage::bytesFor(capacity));
        if (!larger) throw std::bad_alloc();
        m_storage = static_cast<Storage*>(larger);
        m_storage->capacity = static_cast<std::uint32_t>(capacity);
    } else {
        Storage* own = Storage::make(std::max<std::size_t>(count, m_storage ? m_storage->count : 4));
        std::uninitialized_copy(begin(), end(), own->entries());
        own->count = static_cast<std::uint32_t>(size());
        const Dictionary former(std::move(*this));
        m_storage = own;
    }
    m_storage->rebuildIndex();
}

void Dictionary::reserve(std::size_t count) {
    if (count > size()) makeRoomFor(count);
}

// The member under the key in storage that is this dictionary's own, or null.
Dictionary::Entry* Dictionary::findForChange(std::string_view key) {
    if (!contains(key)) return nullptr;
    makeRoomFor(size());
    return m_storage->find(key);
}

namespace {

void refuseNil(std::string_view key, const Value& value) {
    if (value.isNil()) throw Exception(InvalidArgumentException, "A dictionary cannot hold nil (key: " + std::string(key) + ")");
}

}  // namespace

void Dictionary::set(std::string_view key, Value value) {
    refuseNil(key, value);
    if (Entry* entry = findForChange(key)) {
        entry->m_value = std::move(value);
    } else {
        append(SharedText(key), std::move(value));
    }
}

void Dictionary::set(SharedText key, Value value) {
    refuseNil(key.view(), value);
    if (Entry* entry = findForChange(key.view())) {
        entry->m_value = std::move(value);
    } else {
        append(std::move(key), std::move(value));
    }
}

void Dictionary::append(SharedText key, Value value) {
    makeRoomFor(size() + 1);
    m_storage->append(std::move(key), std::move(value));
}

void Dictionary::remove(std::string_view key) {
    Entry* entry = findForChange(key);
    if (!entry) return;
    std::move(entry + 1, m_storage->entries() + m_storage->count, entry);
    m_storage->entries()[--m_storage->count].~Entry();
    m_storage->rebuildIndex();
}

void Dictionary::clear() noexcept { *this = Dictionary(); }

bool Dictionary::operator==(const Dictionary& other) const noexcept {
    if (m_storage == other.m_storage) return true;
    if (size() != other.size()) return false;
    return std::all_of(begin(), end(), [&](const Entry& entry) {
        const Value* value = other.find(entry.key());
        return value && *value == entry.value();
    });
}

std::string Dictionary::description() const {
    std::string text;
    appendDescription(text, *this, 0);
    return text;
}

}  // namespace velkor::NS
