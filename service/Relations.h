#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "service/Database.h"

namespace velkor::service {

/// A relationship as the link graph sees it from one of its two ends. Links of a pair of inverse relationships are kept under one
/// name, that of the one seen first; its own class is side 0.
struct RelationEnd {
    std::uint32_t key = 0;      // the name's number times two, plus the side
    bool kept = false;          // the graph keeps the links
    bool paired = false;        // both ends are known: the graph decides what the lists are
    bool inverseToMany = true;  // the other end is a list

    std::uint32_t otherKey() const { return key ^ 1; }
};

/// The relationships of a partition's classes, learned from the payloads. Two are inverse when each is the only one between the
/// two classes. One transaction's thread.
class Relations {
public:
    static Relations read(Connection& connection, std::int64_t partition);

    /// Makes sure that the relationship is known, and writes it down when it is new. `pairUp` follows before anything is asked.
    void learn(Connection& connection, std::string_view className, std::string_view name, std::string_view destination,
               bool toMany);
    /// Finds the inverses among what was learned.
    void pairUp();
    /// The end of a known relationship.
    RelationEnd end(std::string_view className, std::string_view name, std::string_view destination) const;
    /// Whether both ends of the links of that name (a key divided by two) are known.
    bool isPaired(std::uint32_t relation) const { return m_relations[relation].end.paired; }

private:
    struct Relation {
        std::string className, name, destination;
        bool toMany;
        RelationEnd end;
    };

    explicit Relations(std::int64_t partition) : m_partition(partition) {}
    const Relation* find(std::string_view className, std::string_view name, std::string_view destination) const;

    std::int64_t m_partition;
    std::vector<Relation> m_relations;  // a relationship's number is its place
    bool m_arePaired = false;
};

}  // namespace velkor::service
