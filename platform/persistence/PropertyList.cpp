#include "platform/persistence/PropertyList.h"

#include <plist/plist.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>

#include "platform/base/Format.h"
#include "platform/base/PlainLocale.h"
#include "platform/base/UTF8.h"
#include "platform/persistence/AtomicFile.h"
#include "platform/persistence/PropertyListScan.h"

namespace velkor::NS {
namespace {

constexpr std::int64_t invalidPropertyListCode = 3840;

Error invalid(std::string_view why) {
    return Error::withDescription(PlatformErrorDomain, invalidPropertyListCode, format("The property list is invalid: %@.", why));
}

struct FreeNode {
    void operator()(plist_t node) const noexcept { plist_free(node); }
};
using Node = std::unique_ptr<std::remove_pointer_t<plist_t>, FreeNode>;
struct FreeMemory {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

bool isPropertyListText(std::string_view text) {
    for (const char c : text) {
        if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r') return false;
    }
    return isValidUTF8(text);
}

// Turns a value into the library's nodes. The first thing that has no form in a property list ends it.
class Writer {
public:
    Result<Node> write(const Value& root) {
        Node node = nodeFor(root, 0);
        if (!node) return invalid(m_fault);
        return node;
    }

private:
    Node refuse(std::string_view why) {
        m_fault = why;
        return nullptr;
    }
    // Counts so many more values and keys of a collection at this depth; whether they may be.
    bool admit(std::size_t count, std::size_t depth) {
        m_nodes += count;
        if (depth > propertyListDepthLimit) m_fault = "it is nested too deeply";
        if (m_nodes > propertyListNodeLimit) m_fault = "it holds too many values";
        return m_fault.empty();
    }
    Node nodeFor(const Value& value, std::size_t depth) {
        switch (value.kind()) {
            case Value::Kind::boolean:
                return Node(plist_new_bool(*value.asBoolean()));
            // The library knows unsigned numbers only, but writes and reads the bits of negative ones rightly.
            case Value::Kind::integer:
                return Node(plist_new_uint(static_cast<std::uint64_t>(*value.asInteger())));
            case Value::Kind::real:
                return Node(plist_new_real(*value.asDouble()));
            case Value::Kind::string:
                return textNode(*value.asString());
            case Value::Kind::date:
                return dateNode(*value.asDate());
            case Value::Kind::data:
                return Node(plist_new_data(value.asData()->view().data(), value.asData()->size()));
            case Value::Kind::array:
                return arrayNode(*value.asArray(), depth + 1);
            case Value::Kind::dictionary:
                return dictionaryNode(*value.asDictionary(), depth + 1);
            default:
                return refuse(format("a value of class %@ cannot be in one", value.className()));
        }
    }
    Node textNode(std::string_view text) {
        if (!isPropertyListText(text)) return refuse("a text is no valid UTF-8 or holds control characters");
        return Node(plist_new_string(std::string(text).c_str()));
    }
    Node dateNode(Date date) {
        const double seconds = std::floor(date.timeIntervalSince1970()) - static_cast<double>(propertyListDateOrigin);
        if (!(std::abs(seconds) <= std::numeric_limits<std::int32_t>::max())) return refuse("a date is out of range");
        return Node(plist_new_date(static_cast<std::int32_t>(seconds), 0));
    }
    Node arrayNode(const Array& array, std::size_t depth) {
        if (!admit(array.size(), depth)) return nullptr;
        Node node(plist_new_array());
        for (const Value& value : array) {
            Node element = nodeFor(value, depth);
            if (!element) return nullptr;
            plist_array_append_item(node.get(), element.release());
        }
        return node;
    }
    Node dictionaryNode(const Dictionary& dictionary, std::size_t depth) {
        if (!admit(2 * dictionary.size(), depth)) return nullptr;
        Node node(plist_new_dict());
        for (const auto& [key, value] : dictionary) {
            if (!isPropertyListText(key)) return refuse("a key is no valid UTF-8 or holds control characters");
            Node element = nodeFor(value, depth);
            if (!element) return nullptr;
            plist_dict_set_item(node.get(), std::string(key).c_str(), element.release());
        }
        return node;
    }

    std::size_t m_nodes = 2;  // the reader counts the root and what is around it too
    std::string m_fault;
};

// Turns the library's nodes into values; nil after a fault. The depth has been looked at before.
class Reader {
public:
    Result<Value> read(plist_t root) {
        Value value = valueOf(root);
        if (value.isNil()) return invalid(m_fault);
        return value;
    }

private:
    Value refuse(std::string_view why) {
        m_fault = why;
        return {};
    }
    Value valueOf(plist_t node) {
        switch (plist_get_node_type(node)) {
            case PLIST_BOOLEAN: {
                std::uint8_t value = 0;
                plist_get_bool_val(node, &value);
                return value != 0;
            }
            case PLIST_UINT: {
                std::uint64_t value = 0;
                plist_get_uint_val(node, &value);
                return static_cast<std::int64_t>(value);
            }
            case PLIST_REAL: {
                double value = 0;
                plist_get_real_val(node, &value);
                return value;
            }
            case PLIST_STRING: {
                std::uint64_t length = 0;
                const char* text = plist_get_string_ptr(node, &length);
                return checkedText({text, static_cast<std::size_t>(length)});
            }
            case PLIST_DATE: {
                std::int32_t seconds = 0, microseconds = 0;
                plist_get_date_val(node, &seconds, &microseconds);
                return Date(static_cast<double>(seconds + propertyListDateOrigin));
            }
            case PLIST_DATA: {
                std::uint64_t length = 0;
                const char* bytes = plist_get_data_ptr(node, &length);
                return length == 0 ? Data() : Data::copyOf({bytes, static_cast<std::size_t>(length)});
            }
            case PLIST_ARRAY:
                return arrayOf(node);
            case PLIST_DICT:
                return dictionaryOf(node);
            default:
                return refuse("it holds an unknown kind of value");
        }
    }
    Value checkedText(std::string_view text) {
        if (!isPropertyListText(text)) return refuse("a text is no valid UTF-8 or holds control characters");
        return text;
    }
    Value arrayOf(plist_t node) {
        Array array;
        array.reserve(plist_array_get_size(node));
        plist_array_iter position = nullptr;
        plist_array_new_iter(node, &position);
        const std::unique_ptr<void, FreeMemory> owned(position);
        for (plist_t item = nullptr; plist_array_next_item(node, position, &item), item; item = nullptr) {
            Value value = valueOf(item);
            if (value.isNil()) return {};
            array.push_back(std::move(value));
        }
        return array;
    }
    Value dictionaryOf(plist_t node) {
        Dictionary dictionary;
        dictionary.reserve(plist_dict_get_size(node));
        plist_dict_iter position = nullptr;
        plist_dict_new_iter(node, &position);
        const std::unique_ptr<void, FreeMemory> owned(position);
        for (;;) {
            char* keyText = nullptr;
            plist_t item = nullptr;
            plist_dict_next_item(node, position, &keyText, &item);
            const std::unique_ptr<char, FreeMemory> key(keyText);
            if (!item || !key) return dictionary;
            if (!isPropertyListText(key.get())) return refuse("a key is no valid UTF-8 or holds control characters");
            Value value = valueOf(item);
            if (value.isNil()) return {};
            dictionary.set(key.get(), std::move(value));
        }
    }

    std::string m_fault;
};

}  // namespace

Result<std::string> propertyListXML(const Value& value) {
    const PlainLocale locale;  // the library's numbers follow the thread's
    auto node = Writer().write(value);
    if (!node) return node.error();
    char* text = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(node.value().get(), &text, &length);
    const std::unique_ptr<char, FreeMemory> owned(text);
    if (!text || length > propertyListSizeLimit) return invalid("it is too large");
    return std::string(text, length);
}

Result<Value> propertyListFromBytes(std::string_view bytes) {
    if (bytes.size() > propertyListSizeLimit) return invalid("it is too large");
    const bool binary = bytes.starts_with("bplist00");
    if (bytes.starts_with("\xEF\xBB\xBF")) bytes.remove_prefix(3);
    const std::string fault = binary ? binaryPropertyListFault(bytes) : xmlPropertyListFault(bytes);
    if (!fault.empty()) return invalid(fault);
    plist_t root = nullptr;
    const PlainLocale locale;
    (binary ? plist_from_bin : plist_from_xml)(bytes.data(), static_cast<std::uint32_t>(bytes.size()), &root);
    if (!root) return invalid("it is damaged");
    const Node owned(root);
    return Reader().read(root);
}

Result<Dictionary> dictionaryWithContentsOfFile(const std::filesystem::path& path) {
    auto bytes = readFile(path, propertyListSizeLimit);
    if (!bytes) return bytes.error();
    auto value = propertyListFromBytes(bytes.value().view());
    if (!value) return value.error();
    const Dictionary* dictionary = value.value().asDictionary();
    if (!dictionary) return invalid(format("%@ holds no dictionary", path.string()));
    return *dictionary;
}

Result<void> writeDictionaryToFile(const Dictionary& dictionary, const std::filesystem::path& path) {
    auto text = propertyListXML(dictionary);
    if (!text) return text.error();
    return writeFileAtomically(path, text.value());
}

}  // namespace velkor::NS
