#include "service/Relations.h"

#include <map>
#include <utility>

namespace velkor::service {
namespace {

constexpr Sql readRelations{"SELECT class, name, destination, to_many FROM relations WHERE partition_id = :partition ORDER BY id",
                            "i:ttti"};
constexpr Sql storeRelation{
    "INSERT INTO relations (partition_id, id, class, name, destination, to_many) VALUES (:partition, :id, "
    ":class, :name, :destination, :many) ON CONFLICT (partition_id, id) DO UPDATE SET to_many = "
    "excluded.to_many",
    "iittti:"};
constexpr std::size_t mostRelations = 2'000;  // in a partition; more are not kept in the graph

}  // namespace

Relations Relations::read(Connection& connection, std::int64_t partition) {
    Relations relations(partition);
    auto rows = connection.query(readRelations, partition);
    while (rows.next()) {
        relations.m_relations.push_back({rows.text(0), rows.text(1), rows.text(2), rows.integer(3) != 0, {}});
    }
    relations.pairUp();
    return relations;
}

void Relations::learn(Connection& connection, std::string_view className, std::string_view name, std::string_view destination,
                      bool toMany) {
    const Relation* known = find(className, name, destination);
    if (known && known->toMany == toMany) return;
    if (!known && m_relations.size() >= mostRelations) return;
    const auto place = known ? static_cast<std::size_t>(known - m_relations.data()) : m_relations.size();
    if (known) {
        m_relations[place].toMany = toMany;
    } else {
        m_relations.push_back({std::string(className), std::string(name), std::string(destination), toMany, {}});
    }
    connection.run(storeRelation, m_partition, place, className, name, destination, toMany ? 1 : 0);
    m_arePaired = false;
}

RelationEnd Relations::end(std::string_view className, std::string_view name, std::string_view destination) const {
    const Relation* relation = find(className, name, destination);
    return relation ? relation->end : RelationEnd();
}

const Relations::Relation* Relations::find(std::string_view className, std::string_view name,
                                           std::string_view destination) const {
    for (const Relation& relation : m_relations) {
        if (relation.name == name && relation.className == className && relation.destination == destination) return &relation;
    }
    return nullptr;
}

void Relations::pairUp() {
    if (m_arePaired) return;
    m_arePaired = true;
    struct Between {
        std::size_t count = 0, place = 0;  // the place of the last one
    };
    std::map<std::pair<std::string_view, std::string_view>, Between> between;
    for (std::size_t place = 0; place < m_relations.size(); ++place) {
        Between& same = between[{m_relations[place].className, m_relations[place].destination}];
        ++same.count;
        same.place = place;
    }
    for (std::size_t place = 0; place < m_relations.size(); ++place) {
        Relation& relation = m_relations[place];
        relation.end = RelationEnd{.key = static_cast<std::uint32_t>(place * 2)};
        if (relation.className == relation.destination || between[{relation.className, relation.destination}].count != 1)
            continue;
        const auto back = between.find({relation.destination, relation.className});
        if (back != between.end() && back->second.count > 1) continue;
        relation.end.kept = true;
        if (back == between.end()) continue;
        const std::size_t inverse = back->second.place;
        relation.end.paired = true;
        relation.end.inverseToMany = m_relations[inverse].toMany;
        if (inverse < place) relation.end.key = static_cast<std::uint32_t>(inverse * 2 + 1);
    }
}

}  // namespace velkor::service
