#include "json/JSONCursor.h"

#include "json/TextScan.h"

namespace velkor {

JSONCursor::JSONCursor(std::string_view json) noexcept : CJSONScanner(json) { scanUTF8String("\xEF\xBB\xBF"); }

char JSONCursor::peek() noexcept {
    skipWhitespace();
    return currentCharacter();
}

bool JSONCursor::enter(char bracket, Fault missing) {
    if (!ok()) return false;
    skipWhitespace();
    if (!scanCharacter(bracket)) return fail(missing);
    m_first = true;
    return true;
}

bool JSONCursor::next(char bracket, Fault unfinished) {
    if (!ok()) return false;
    skipWhitespace();
    if (m_first) {
        m_first = false;
        return !scanCharacter(bracket);
    }
    if (scanCharacter(',')) return true;
    if (!scanCharacter(bracket)) fail(unfinished);
    return false;
}

bool JSONCursor::enterObject() { return enter('{', Fault::dictionaryStart); }
bool JSONCursor::enterArray() { return enter('[', Fault::arrayStart); }

bool JSONCursor::nextMember(std::string_view& key) {
    if (!next('}', Fault::dictionaryComma)) return false;
    if (peek() != '"') return fail(Fault::dictionaryKey);
    if (!string(key)) return false;
    skipWhitespace();
    return scanCharacter(':') || fail(Fault::dictionaryColon);
}

bool JSONCursor::nextElement() {
    if (!next(']', Fault::arrayDelimiter)) return false;
    // An end right behind a comma is no element.
    return peek() != ']' || fail(Fault::arrayValue);
}

bool JSONCursor::string(std::string_view& text) {
    if (!ok()) return false;
    if (peek() == '"') {
        const char* const begin = m_at + 1;
        const char* const end = detail::skipPlainText(begin, m_end);
        if (end != m_end && *end == '"') {
            text = std::string_view(begin, end);
            m_at = end + 1;
            return true;
        }
    }
    NS::SharedText kept;
    if (!scanJSONStringConstant(kept)) return false;
    text = m_kept.emplace_back(std::move(kept)).view();
    return true;
}

bool JSONCursor::value(NS::Value& value) { return ok() && scanJSONObject(value); }

bool JSONCursor::skip() { return ok() && skip(0); }

bool JSONCursor::skip(int depth) {
    std::string_view text;
    const char first = peek();
    if (depth >= maximumDepth && (first == '{' || first == '[')) return fail(Fault::nesting);
    switch (first) {
        case '"':
            return string(text);
        case '{':
            for (enterObject(); nextMember(text);) {
                if (!skip(depth + 1)) return false;
            }
            return ok();
        case '[':
            for (enterArray(); nextElement();) {
                if (!skip(depth + 1)) return false;
            }
            return ok();
        case 't':
            return scanUTF8String("true") || fail(Fault::value);
        case 'f':
            return scanUTF8String("false") || fail(Fault::value);
        case 'n':
            return scanUTF8String("null") || fail(Fault::value);
        default:
            NS::Value number;
            return scanJSONNumberConstant(number);
    }
}

}  // namespace velkor
