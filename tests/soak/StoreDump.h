#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Dictionary.h"
#include "platform/base/Value.h"

namespace velkor::soak {

/// The walk found something wrong.
struct Failure {
    std::string what;
};

/// An object as a line of `dump` tells it.
struct DumpedObject {
    std::string entity;
    NS::Dictionary attributes;
    NS::Dictionary relationships;

    std::string text(std::string_view attribute) const { return attributes[attribute].stringOr(""); }
    bool isTrue(std::string_view attribute) const { return attributes[attribute].asBoolean().value_or(false); }
    std::optional<std::string> destination(std::string_view relationship) const;
    std::vector<std::string> destinations(std::string_view relationship) const;
    /// All attributes as one text.
    std::string state() const;
};

/// Everything in a host's store.
class StoreDump {
public:
    /// Raises Failure for a text that `dump` cannot have printed.
    explicit StoreDump(std::string_view text);

    const std::map<std::string, DumpedObject>& objects() const noexcept { return m_objects; }
    const DumpedObject* find(const std::string& guid) const;
    const std::multiset<std::string>& drafts() const noexcept { return m_drafts; }
    /// Private notebooks and expired notes: each host may have its own, and its own links to them.
    std::set<std::string> guidsOfItsOwn() const;

    /// What is the same on all hosts, a line an object: without what is its own, links to `hidden` objects, and the notebook of
    /// the notes that have been in a private one.
    std::vector<std::string> sharedLines(const std::set<std::string>& hidden, const std::set<std::string>& looseNotes) const;

private:
    std::map<std::string, DumpedObject> m_objects;
    std::multiset<std::string> m_drafts;
};

}  // namespace velkor::soak
