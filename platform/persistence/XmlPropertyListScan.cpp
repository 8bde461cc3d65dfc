#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <limits>
#include <vector>

#include "platform/base/Trimmed.h"
#include "platform/persistence/PropertyListScan.h"

namespace velkor::NS {
namespace {

constexpr std::string_view blanks = " \t\r\n";

bool isInteger(std::string_view text) {
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) text.remove_prefix(1);
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    if (!hexadecimal && text.size() > 1 && text.front() == '0') return false;  // the parser would take it for octal
    std::uint64_t value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value, hexadecimal ? 16 : 10);
    const auto limit = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()) + (negative ? 1 : 0);
    return result.ec == std::errc() && result.ptr == text.data() + text.size() && value <= limit;
}

bool isReal(std::string_view text) {
    for (const std::string_view name : {"nan", "inf", "infinity"}) {
        if (text == name || text == "+" + std::string(name) || text == "-" + std::string(name)) return true;
    }
    if (text.starts_with('+')) {
        text.remove_prefix(1);
        if (text.starts_with('-')) return false;
    }
    double value = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec != std::errc::invalid_argument && result.ptr == text.data() + text.size();
}

bool isDate(std::string_view text) {
    constexpr std::string_view pattern = "dddd-dd-ddTdd:dd:ddZ";
    const auto fits = [](char c, char p) { return p == 'd' ? c >= '0' && c <= '9' : c == p; };
    if (text.size() != pattern.size() || !std::equal(text.begin(), text.end(), pattern.begin(), fits)) return false;
    int year = 0;
    unsigned month = 0, day = 0, hour = 0, minute = 0, second = 0;
    std::sscanf(std::string(text).c_str(), "%4d-%2u-%2uT%2u:%2u:%2uZ", &year, &month, &day, &hour, &minute, &second);
    const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(month), std::chrono::day(day)};
    if (!date.ok() || hour > 23 || minute > 59 || second > 59) return false;
    const std::int64_t seconds =
        std::chrono::sys_days(date).time_since_epoch().count() * std::int64_t{86400} + hour * 3600 + minute * 60 + second;
    return std::abs(seconds - propertyListDateOrigin) <= std::numeric_limits<std::int32_t>::max();
}

// Whole groups of four from the alphabet, blanks anywhere, padding at the end only.
bool isBase64(std::string_view text) {
    static const auto classes = [] {
        std::array<unsigned char, 256> table{};
        for (const char c : std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"))
            table[static_cast<unsigned char>(c)] = 1;
        for (const char c : blanks) table[static_cast<unsigned char>(c)] = 2;
        table['='] = 3;
        return table;
    }();
    std::size_t digits = 0, padding = 0;
    for (const char c : text) {
        switch (classes[static_cast<unsigned char>(c)]) {
            case 0:
                return false;
            case 1:
                if (padding != 0) return false;
                ++digits;
                break;
            case 3:
                ++padding;
                break;
            default:
                break;
        }
    }
    return padding <= 2 && (digits + padding) % 4 == 0;
}

struct Element {
    std::string_view name;
    bool (*acceptsText)(std::string_view);  // null for a container
};

constexpr Element elements[] = {
    {"plist", nullptr},
    {"dict", nullptr},
    {"array", nullptr},
    {"key", [](std::string_view) { return true; }},
    {"string", [](std::string_view) { return true; }},
    {"integer", [](std::string_view text) { return isInteger(trimmed(text)); }},
    {"real", [](std::string_view text) { return isReal(trimmed(text)); }},
    {"date", [](std::string_view text) { return isDate(trimmed(text)); }},
    {"data", isBase64},
    {"true", [](std::string_view text) { return text.empty(); }},
    {"false", [](std::string_view text) { return text.empty(); }},
};

class Scan {
public:
    explicit Scan(std::string_view text) : m_text(text) {}

    std::string fault() {
        while (m_fault.empty() && skipToTag()) {
            if (startsWith("</")) {
                closeContainer();
            } else {
                openElement();
            }
        }
        if (m_fault.empty() && (!m_open.empty() || !m_rootSeen)) refuse("it ends too early");
        return m_fault;
    }

private:
    struct Container {
        std::string_view name;
        std::size_t children = 0;
    };

    bool startsWith(std::string_view text) const { return m_text.substr(m_at).starts_with(text); }
    void refuse(std::string_view why) {
        if (m_fault.empty()) m_fault = std::string(why) + " (at byte " + std::to_string(m_at) + ")";
    }
    // The parser overlooks what stands in double quotes, also the end of a tag: what is cut there is not the same for both.
    bool isCutInQuotes(std::string_view tag) {
        if (std::count(tag.begin(), tag.end(), '"') % 2 == 0) return false;
        refuse("a quotation mark is not closed");
        return true;
    }
    // Moves behind the next `end`.
    bool skipBehind(std::string_view end) {
        const std::size_t found = m_text.find(end, m_at);
        if (found == std::string_view::npos) {
            refuse("it ends too early");
            return false;
        }
        m_at = found + end.size();
        return true;
    }
    // Moves over blanks, comments and declarations to the next tag; false at the end of the text or at a fault.
    bool skipToTag() {
        for (;;) {
            m_at = std::min(m_text.find_first_not_of(blanks, m_at), m_text.size());
            if (m_at == m_text.size()) return false;
            if (startsWith("<!--")) {
                m_at += 4;
                if (!skipBehind("-->")) return false;
            } else if (startsWith("<?")) {
                const std::size_t start = m_at;
                if (!skipBehind("?>") || isCutInQuotes(m_text.substr(start, m_at - start))) return false;
            } else if (startsWith("<!DOCTYPE") && !m_rootSeen) {
                const std::size_t start = m_at;
                if (!skipBehind(">")) return false;
                const std::string_view declaration = m_text.substr(start, m_at - start);
                if (isCutInQuotes(declaration)) return false;
                if (declaration.find('[') != std::string_view::npos) refuse("it declares entities");
            } else if (m_text[m_at] != '<' || (m_rootSeen && m_open.empty())) {
                refuse("there is text outside of the values");
                return false;
            } else {
                return m_fault.empty();
            }
        }
    }
    void closeContainer() {
        const std::size_t end = m_text.find('>', m_at);
        if (end == std::string_view::npos || m_open.empty() ||
            trimmed(m_text.substr(m_at + 2, end - m_at - 2)) != m_open.back().name) {
            return refuse("a closing tag is wrong");
        }
        if (m_open.back().name == "plist" && m_open.back().children != 1) return refuse("it holds no value, or several");
        if (m_open.back().name == "dict" && m_open.back().children % 2 != 0) return refuse("a key has no value");
        m_open.pop_back();
        m_at = end + 1;
    }
    void openElement() {
        const std::size_t end = m_text.find('>', m_at);
        if (end == std::string_view::npos) return refuse("it ends too early");
        const bool empty = m_text[end - 1] == '/';
        const std::string_view tag = m_text.substr(m_at + 1, end - m_at - 1 - (empty ? 1 : 0));
        if (tag.find('<') != std::string_view::npos) return refuse("a tag is not closed");
        if (isCutInQuotes(tag)) return;
        const std::string_view name = tag.substr(0, tag.find_first_of(blanks));
        const auto* element =
            std::find_if(std::begin(elements), std::end(elements), [&](const Element& e) { return e.name == name; });
        if (element == std::end(elements)) return refuse("it holds an unknown element");
        if (!admit(name)) return;
        m_at = end + 1;
        if (!element->acceptsText) {
            if (m_open.size() > propertyListDepthLimit) return refuse("it is nested too deeply");  // the outermost is <plist>
            if (!empty) m_open.push_back({name});
        } else if (empty) {
            if (!element->acceptsText("")) refuse("a value is damaged");
        } else {
            skipText(*element);
        }
    }
    // Whether an element of that name may stand here; counts it.
    bool admit(std::string_view name) {
        const bool isRoot = name == "plist";
        if (isRoot ? m_rootSeen : m_open.empty()) refuse("its root element is wrong");
        if (++m_nodes > propertyListNodeLimit) refuse("it holds too many values");
        if (isRoot) {
            m_rootSeen = true;
        } else if (!m_open.empty()) {
            const bool keyExpected = m_open.back().name == "dict" && m_open.back().children % 2 == 0;
            if (keyExpected != (name == "key")) refuse("a key is missing or out of place");
            ++m_open.back().children;
        }
        return m_fault.empty();
    }
    // Moves behind the closing tag of an element that holds text.
    void skipText(const Element& element) {
        const bool mayQuote = element.name == "key" || element.name == "string";
        const std::size_t start = m_at;
        for (;;) {
            m_at = m_text.find('<', m_at);
            if (m_at == std::string_view::npos) {
                m_at = m_text.size();
                return refuse("it ends too early");
            }
            if (!mayQuote || !startsWith("<![CDATA[")) break;
            if (!skipBehind("]]>")) return;
        }
        if (!element.acceptsText(m_text.substr(start, m_at - start))) return refuse("a value is damaged");
        const std::size_t end = m_text.find('>', m_at);
        if (!startsWith("</") || end == std::string_view::npos ||
            trimmed(m_text.substr(m_at + 2, end - m_at - 2)) != element.name) {
            return refuse("a closing tag is wrong");
        }
        m_at = end + 1;
    }

    std::string_view m_text;
    std::size_t m_at = 0;
    std::size_t m_nodes = 0;
    bool m_rootSeen = false;
    std::vector<Container> m_open;
    std::string m_fault;
};

}  // namespace

std::string xmlPropertyListFault(std::string_view bytes) {
    if (bytes.find('\0') != std::string_view::npos) return "it holds a NUL byte";
    return Scan(bytes).fault();
}

}  // namespace velkor::NS
