#include "platform/persistence/KeyedArchiver.h"

#include <zlib.h>

#include <bit>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "platform/base/Exception.h"
#include "platform/base/Format.h"
#include "platform/persistence/ArchiveFormat.h"

namespace velkor::NS {
namespace {

using archive::Tag;

static_assert(std::endian::native == std::endian::little, "archives are written as the machine keeps numbers");

// Writes one archive; the coder that its objects write themselves to.
class Archiver final : public Coder {
public:
    Data archive(const Value& root) && {
        m_bytes.append(archive::magic);
        appendFixed(archive::version);
        appendFixed(std::uint64_t{0});
        encode(root, 0);
        const std::uint64_t length = m_bytes.size() - archive::headSize;
        std::memcpy(m_bytes.data() + archive::headSize - sizeof length, &length, sizeof length);
        appendFixed(static_cast<std::uint32_t>(crc32_z(0, reinterpret_cast<const Bytef*>(m_bytes.data()), m_bytes.size())));
        return Data(std::move(m_bytes));
    }

    void encodeObject(const Value& value, std::string_view key) override {
        if (value.isNil()) return;
        beginMember(key);
        encode(value, m_depth);
    }
    void encodeBool(bool value, std::string_view key) override {
        beginMember(key);
        appendTag(value ? Tag::yes : Tag::no);
    }
    void encodeInt64(std::int64_t value, std::string_view key) override {
        beginMember(key);
        appendTag(Tag::integer);
        appendFixed(value);
    }
    Value decodeObject(std::string_view) const override { return {}; }
    bool decodeBool(std::string_view) const override { return false; }
    std::int64_t decodeInt64(std::string_view) const override { return 0; }

private:
    void appendTag(Tag tag) { m_bytes += static_cast<char>(tag); }
    template <class Number>
    void appendFixed(Number number) {
        char bytes[sizeof number];
        std::memcpy(bytes, &number, sizeof number);
        m_bytes.append(bytes, sizeof bytes);
    }
    void appendNumber(std::uint64_t number) {
        for (; number >= 0x80; number >>= 7) m_bytes += static_cast<char>(number | 0x80);
        m_bytes += static_cast<char>(number);
    }
    void appendBytes(std::string_view bytes) {
        appendNumber(bytes.size());
        m_bytes.append(bytes);
    }
    // Objects of a class write their names in the same order, so the name that followed the last one is tried before the table.
    void appendName(std::string_view text) {
        std::uint32_t index = m_lastName < m_names.size() ? m_names[m_lastName].next : 0;
        if (index >= m_names.size() || m_names[index].text != text) {
            const auto [found, isNew] = m_nameIndex.try_emplace(std::string(text), static_cast<std::uint32_t>(m_names.size()));
            index = found->second;
            if (isNew) m_names.push_back({found->first, 0});
            if (m_lastName < m_names.size()) m_names[m_lastName].next = index;
            if (isNew) {
                appendNumber(index);
                appendBytes(text);
                m_lastName = index;
                return;
            }
        }
        appendNumber(index);
        m_lastName = index;
    }
    void beginMember(std::string_view key) {
        ++m_members;
        appendName(key);
    }
    // Members come one by one; their count is set when the last one is there.
    template <class WriteMembers>
    void appendMembers(std::size_t depth, WriteMembers&& writeMembers) {
        const std::uint32_t outerMembers = std::exchange(m_members, 0);
        const std::size_t outerDepth = std::exchange(m_depth, depth);
        const std::size_t place = m_bytes.size();
        appendFixed(std::uint32_t{0});
        writeMembers();
        std::memcpy(m_bytes.data() + place, &m_members, sizeof m_members);
        m_members = outerMembers;
        m_depth = outerDepth;
    }
    void encode(const Value& value, std::size_t depth) {
        switch (value.kind()) {
            case Value::Kind::nil:
                throw Exception(InvalidArgumentException, "An archive cannot hold nil.");
            case Value::Kind::null:
                return appendTag(Tag::null);
            case Value::Kind::boolean:
                return appendTag(*value.asBoolean() ? Tag::yes : Tag::no);
            case Value::Kind::integer:
                appendTag(Tag::integer);
                return appendFixed(*value.asInteger());
            case Value::Kind::real:
                appendTag(Tag::real);
                return appendFixed(*value.asDouble());
            case Value::Kind::decimal:
                appendTag(Tag::decimal);
                return appendBytes(*value.asDecimal());
            case Value::Kind::string:
                appendTag(Tag::string);
                return appendBytes(*value.asString());
            case Value::Kind::date:
                appendTag(Tag::date);
                return appendFixed(value.asDate()->timeIntervalSince1970());
            case Value::Kind::data:
                appendTag(Tag::data);
                return appendBytes(value.asData()->view());
            default:
                encodeNested(value, depth + 1);
        }
    }
    void encodeNested(const Value& value, std::size_t depth) {
        if (depth > archive::depthLimit)
            throw Exception(InvalidArgumentException, "The values to archive are nested too deeply.");
        if (const Array* array = value.asArray()) {
            appendTag(Tag::array);
            appendNumber(array->size());
            for (const Value& element : *array) encode(element, depth);
        } else if (const Dictionary* dictionary = value.asDictionary()) {
            appendTag(Tag::dictionary);
            appendMembers(depth, [&] {
                for (const auto& [key, member] : *dictionary) {
                    ++m_members;
                    appendBytes(key);
                    encode(member, depth);
                }
            });
        } else {
            const auto object = value.as<Archivable>();
            if (!object)
                throw Exception(InvalidArgumentException, format("An object of class %@ cannot be archived.", value.className()));
            appendTag(Tag::object);
            appendName(object->className());
            appendMembers(depth, [&] { object->encodeWithCoder(*this); });
        }
    }

    struct Name {
        std::string_view text;   // the key in m_nameIndex
        std::uint32_t next = 0;  // the name that followed it last time
    };

    std::string m_bytes;
    std::vector<Name> m_names;
    std::unordered_map<std::string, std::uint32_t> m_nameIndex;
    std::uint32_t m_lastName = 0;
    std::uint32_t m_members = 0;
    std::size_t m_depth = 0;
};

}  // namespace

Data archivedDataWithRootObject(const Value& root) { return Archiver().archive(root); }

}  // namespace velkor::NS
