#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "platform/base/DecimalText.h"
#include "platform/base/Format.h"
#include "platform/persistence/ArchiveFormat.h"
#include "platform/persistence/KeyedArchiver.h"

namespace velkor::NS {
namespace {

using archive::Tag;
using Factory = std::function<std::shared_ptr<Archivable>(const Coder&)>;

constexpr std::int64_t damagedArchiveCode = 4864;

struct ClassRegistry {
    std::mutex mutex;
    std::map<std::string, Factory, std::less<>> factories;
};

ClassRegistry& classRegistry() {
    static auto& registry = *new ClassRegistry;
    return registry;
}

Error archiveError(std::string_view why) {
    return Error::withDescription(PlatformErrorDomain, damagedArchiveCode, format("The archive cannot be read: %@.", why));
}

// The members of one object, for the object to read itself from.
class MemberCoder final : public Coder {
public:
    explicit MemberCoder(const Dictionary& members) : m_members(members) {}
    void encodeObject(const Value&, std::string_view) override {}
    void encodeBool(bool, std::string_view) override {}
    void encodeInt64(std::int64_t, std::string_view) override {}
    Value decodeObject(std::string_view key) const override { return m_members[key]; }
    bool decodeBool(std::string_view key) const override {
        const Value& value = m_members[key];
        return value.kind() == Value::Kind::boolean && *value.asBoolean();
    }
    std::int64_t decodeInt64(std::string_view key) const override {
        const Value& value = m_members[key];
        return value.kind() == Value::Kind::integer ? *value.asInteger() : 0;
    }

private:
    const Dictionary& m_members;
};

// Reads the body of one archive. Every length is compared with what is left before anything is made of it; after the first fault
// nothing is left.
class Unarchiver {
public:
    explicit Unarchiver(std::string_view body) : m_rest(body) {}

    Result<Value> read() {
        Value value = valueAt(0);
        if (m_fault.empty() && !m_rest.empty()) refuse("something follows its end");
        if (!m_fault.empty()) return archiveError(m_fault);
        return value;
    }

private:
    struct Name {
        SharedText text;
        const Factory* factory = nullptr;  // once it has been looked up as a class
    };

    Value refuse(std::string_view why) {
        if (m_fault.empty()) m_fault = why;
        m_rest = {};
        return {};
    }
    bool failed() const { return !m_fault.empty(); }
    std::string_view take(std::uint64_t size) {
        if (size > m_rest.size()) {
            refuse("it ends too early");
            return {};
        }
        const std::string_view bytes = m_rest.substr(0, size);
        m_rest.remove_prefix(size);
        return bytes;
    }
    template <class Number>
    Number fixed() {
        Number number{};
        if (const std::string_view bytes = take(sizeof number); !bytes.empty()) std::memcpy(&number, bytes.data(), sizeof number);
        return number;
    }
    std::uint64_t number() {
        std::uint64_t value = 0;
        for (unsigned shift = 0; shift < 64; shift += 7) {
            const auto byte = fixed<std::uint8_t>();
            if (shift == 63 && byte > 1) break;
            value |= std::uint64_t{byte & 0x7Fu} << shift;
            if (byte < 0x80) return value;
        }
        refuse("a number is too large");
        return 0;
    }
    std::string_view bytes() { return take(number()); }

    // The name that stands here, or null after a fault.
    Name* name() {
        const std::uint64_t index = number();
        if (index == m_names.size() && !failed()) m_names.push_back({SharedText(bytes())});
        if (index >= m_names.size()) refuse("it refers to a name that is not there");
        return failed() ? nullptr : &m_names[index];
    }
    Value valueAt(std::size_t depth) {
        const auto tag = static_cast<Tag>(fixed<std::uint8_t>());
        if (failed()) return {};
        switch (tag) {
            case Tag::null:
                return Null();
            case Tag::no:
                return false;
            case Tag::yes:
                return true;
            case Tag::integer:
                return fixed<std::int64_t>();
            case Tag::real:
                return fixed<double>();
            case Tag::decimal:
                return decimal();
            case Tag::string:
                return bytes();
            case Tag::date:
                return Date(fixed<double>());
            case Tag::data:
                return Data::copyOf(bytes());
            default:
                break;
        }
        if (depth == archive::depthLimit) return refuse("it is nested too deeply");
        switch (tag) {
            case Tag::array:
                return array(depth + 1);
            case Tag::dictionary:
                return dictionary(depth + 1);
            case Tag::object:
                return object(depth + 1);
            default:
                return refuse("it holds an unknown kind of value");
        }
    }
    Value decimal() {
        const std::string_view text = bytes();
        return DecimalParts::parse(text) ? Value::decimal(text) : refuse("a number is damaged");
    }
    Value array(std::size_t depth) {
        const std::uint64_t count = number();
        if (count > m_rest.size()) return refuse("it ends too early");  // an element takes a byte at least
        Array array;
        array.reserve(std::min<std::uint64_t>(count, 1024));
        for (std::uint64_t i = 0; i < count && !failed(); ++i) array.push_back(valueAt(depth));
        return array;
    }
    template <class ReadKey>
    Dictionary members(std::size_t depth, ReadKey&& readKey) {
        const auto count = fixed<std::uint32_t>();
        if (count > m_rest.size() / 2) refuse("it ends too early");  // a member takes two bytes at least
        const std::size_t first = m_entries.size();
        for (std::uint32_t i = 0; i < count && !failed(); ++i) {
            SharedText key = readKey();
            Value value = valueAt(depth);
            if (!failed()) m_entries.emplace_back(std::move(key), std::move(value));
        }
        Dictionary members = Dictionary::adopting(std::span(m_entries).subspan(first));
        m_entries.resize(first);
        return members;
    }
    Dictionary dictionary(std::size_t depth) {
        return members(depth, [this] { return SharedText(bytes()); });
    }
    Dictionary objectMembers(std::size_t depth) {
        return members(depth, [this] {
            const Name* key = name();
            return key ? key->text : SharedText();
        });
    }
    Value object(std::size_t depth) {
        const Factory* factory = factoryFor(name());
        if (!factory) return {};
        const Dictionary own = objectMembers(depth);
        if (failed()) return {};
        auto object = (*factory)(MemberCoder(own));
        return object ? Value(std::move(object)) : refuse("an object could not be restored");
    }
    const Factory* factoryFor(Name* className) {
        if (!className || className->factory) return className ? className->factory : nullptr;
        const std::lock_guard lock(classRegistry().mutex);
        const auto found = classRegistry().factories.find(className->text.view());
        if (found == classRegistry().factories.end()) {
            refuse(format("it names an unknown class (%@)", className->text.view()));
            return nullptr;
        }
        return className->factory = &found->second;  // registrations are never taken back
    }

    std::string_view m_rest;
    std::vector<Name> m_names;
    std::vector<Dictionary::Entry> m_entries;  // the members read so far, of all levels
    std::string m_fault;
};

}  // namespace

void registerArchivableClass(std::string_view className, Factory factory) {
    const std::lock_guard lock(classRegistry().mutex);
    classRegistry().factories.insert_or_assign(std::string(className), std::move(factory));
}

Result<Value> unarchiveObjectWithData(std::string_view bytes) {
    std::uint32_t version = 0, checksum = 0;
    std::uint64_t length = 0;
    if (bytes.size() < archive::headSize + archive::checksumSize || !bytes.starts_with(archive::magic)) {
        return archiveError("these bytes are no archive");
    }
    std::memcpy(&version, bytes.data() + archive::magic.size(), sizeof version);
    std::memcpy(&length, bytes.data() + archive::magic.size() + sizeof version, sizeof length);
    if (version != archive::version) return archiveError(format("its version %u is unknown", version));
    if (length != bytes.size() - archive::headSize - archive::checksumSize) return archiveError("its length is wrong");
    const std::string_view covered = bytes.substr(0, bytes.size() - archive::checksumSize);
    std::memcpy(&checksum, bytes.data() + covered.size(), sizeof checksum);
    if (crc32_z(0, reinterpret_cast<const Bytef*>(covered.data()), covered.size()) != checksum)
        return archiveError("its checksum is wrong");
    return Unarchiver(covered.substr(archive::headSize)).read();
}

}  // namespace velkor::NS
