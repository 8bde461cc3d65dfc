#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace velkor::service {

/// One link of an object, as the object's row keeps it.
struct Link {
    std::uint32_t key = 0;    // which relationship, seen from the object (RelationEnd)
    std::uint32_t other = 0;  // the object at the other end
    std::int64_t number = 0;  // of the transaction that last changed it
    std::int64_t instance = 0;
    bool present = false;  // false: it was removed
};

/// Appends the link to the text of a row's links: four whole numbers, each five bits a character, lowest first.
void appendLink(std::string& text, const Link& link);
/// Takes the first link off the text; false at its end, and for a text that is damaged.
bool takeLink(std::string_view& text, Link& link);

}  // namespace velkor::service
