#pragma once

#include <deque>
#include <string_view>

#include "json/CJSONScanner.h"
#include "platform/base/Export.h"
#include "platform/base/SharedText.h"
#include "platform/base/Value.h"

namespace velkor {

/// Walks through one JSON text in UTF-8 and leaves its strings where they are: for large texts of which only parts are wanted.
/// Each step consumes what it names; what is neither read nor skipped is the caller's mistake. A step that fails returns false,
/// so does every later one, and `ok()` tells a failure from the end of a collection. The text outlives the cursor; views that it
/// gives are valid as long as both.
class VELKOR_EXPORT JSONCursor : private CJSONScanner {
public:
    explicit JSONCursor(std::string_view json) noexcept;

    /// The first byte of the value at the current place; 0 at the end.
    char peek() noexcept;
    /// Steps into an object; `nextMember` then gives one key after the other, each followed by reading its value.
    bool enterObject();
    bool nextMember(std::string_view& key);
    /// Steps into an array; each `nextElement` is followed by reading the element.
    bool enterArray();
    bool nextElement();

    /// Reads the string at the current place.
    bool string(std::string_view& text);
    /// Reads any value into one that owns what it holds.
    bool value(NS::Value& value);
    /// Steps over any value, which is checked as if it were read.
    bool skip();
    /// Fails unless nothing but white space is left.
    bool end() { return ok() && scanEnd(); }

    bool ok() const noexcept { return fault() == Fault::none; }

private:
    bool enter(char bracket, Fault missing);
    /// Whether a further part of the collection follows, which ends with `bracket`.
    bool next(char bracket, Fault unfinished);
    bool skip(int depth);

    bool m_first = false;               // the place is the start of a collection
    std::deque<NS::SharedText> m_kept;  // strings that had escapes
};

}  // namespace velkor
