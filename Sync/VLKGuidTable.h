#pragma once

#include <cstddef>
#include <functional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "platform/base/Value.h"

namespace velkor {

/// Guids as keys: the texts are shared with the objects and descriptions that they come from. Looked up by value or by text.
/// Not declared noexcept: then the standard library keeps the hashes, and compares them before it goes to the texts.
struct VLKGuidHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view guid) const { return std::hash<std::string_view>()(guid); }
    std::size_t operator()(const NS::Value& guid) const { return (*this)(guid.asString().value_or("")); }
};

struct VLKGuidEqual {
    using is_transparent = void;
    static std::string_view text(const NS::Value& guid) noexcept { return guid.asString().value_or(""); }
    static std::string_view text(std::string_view guid) noexcept { return guid; }
    template <class A, class B>
    bool operator()(const A& a, const B& b) const noexcept {
        return text(a) == text(b);
    }
};

using VLKGuidSet = std::unordered_set<NS::Value, VLKGuidHash, VLKGuidEqual>;
template <class T>
using VLKGuidMap = std::unordered_map<NS::Value, T, VLKGuidHash, VLKGuidEqual>;

}  // namespace velkor
