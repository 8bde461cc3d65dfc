#include "service/LinkGraph.h"

namespace velkor::service {

std::size_t LinkGraph::EdgeHash::operator()(const EdgeKey& key) const noexcept {
    std::uint64_t h = (std::uint64_t(key.first) << 32 | key.second) * 0x9E3779B97F4A7C15ULL;
    h ^= h >> 29;
    h = (h + key.relation) * 0xBF58476D1CE4E5B9ULL;
    return static_cast<std::size_t>(h ^ h >> 32);
}

template <class F>
void LinkGraph::forEach(std::uint32_t object, F&& function) {
    for (Edge* edge = m_nodes[object].first; edge;) {
        const int side = edge->ends[0] == object ? 0 : 1;
        Edge* next = edge->next[side];
        function(*edge, side);
        edge = next;
    }
}

template <class F>
void LinkGraph::forEach(std::uint32_t object, std::uint32_t key, F&& function) {
    forEach(object, [&](Edge& edge, int side) {
        if (edge.relation == key / 2 && side == static_cast<int>(key % 2)) function(edge);
    });
}

void LinkGraph::load(std::uint32_t object) {
    Node& node = m_nodes[object];
    if (node.loaded) return;
    node.loaded = true;
    std::string_view text = m_objects.row(object).links;
    for (Link link; takeLink(text, link);) {
        Edge& edge = obtain(object, link.key, link.other);
        if (edge.number > 0) continue;  // it came with the other end, and may have changed since
        edge.number = link.number;
        edge.instance = link.instance;
        edge.present = link.present;
    }
}

LinkGraph::Edge& LinkGraph::obtain(std::uint32_t object, std::uint32_t key, std::uint32_t other) {
    const EdgeKey place = key % 2 == 0 ? EdgeKey{object, other, key / 2} : EdgeKey{other, object, key / 2};
    auto [found, isNew] = m_places.try_emplace(place, nullptr);
    if (!isNew) return *found->second;
    Edge& edge = m_edges.emplace_back();
    found->second = &edge;
    edge.relation = place.relation;
    edge.ends[0] = place.first;
    edge.ends[1] = place.second;
    for (int side : {0, 1}) {
        Node& node = m_nodes[edge.ends[side]];
        edge.next[side] = node.first;
        node.first = &edge;
    }
    return edge;
}

bool LinkGraph::mayLink(std::uint32_t object, std::uint32_t destination) const {
    return destination != object && m_directory.kind(destination) != ObjectKind::deleted;
}

bool LinkGraph::changedByOther(const Edge& edge) const {
    return edge.instance != m_sender.instance && edge.number > m_sender.highest;
}

bool LinkGraph::movedByOther(std::uint32_t object, std::uint32_t key) {
    load(object);
    bool moved = false;
    forEach(object, key, [&](const Edge& edge) { moved = moved || changedByOther(edge); });
    return moved;
}

void LinkGraph::set(Edge& edge, bool present, std::int64_t number) {
    for (std::uint32_t object : edge.ends) load(object);
    const bool paired = m_relations.isPaired(edge.relation);
    edge.present = present;
    edge.number = number;
    edge.instance = m_sender.instance;
    for (std::uint32_t object : edge.ends) {
        ObjectRow& row = m_objects.row(object);
        row.changed = row.linksChanged = true;
        // An object that does not send its end has nothing to correct; one whose link is gone has.
        row.state.computed = row.state.computed || paired || !present;
        if (paired) row.noteLinkChange(number, m_sender.instance);
    }
}

void LinkGraph::removeAll(std::uint32_t object, std::uint32_t key, std::int64_t number) {
    load(object);
    forEach(object, key, [&](Edge& edge) {
        if (edge.present) set(edge, false, number);
    });
}

void LinkGraph::setList(std::uint32_t object, const RelationEnd& end, std::span<const std::uint32_t> destinations,
                        std::int64_t number) {
    const bool contested = end.paired && !m_sender.alone;
    const std::uint32_t mark = ++m_mark;
    load(object);
    for (std::uint32_t destination : destinations) {
        if (!mayLink(object, destination)) continue;
        Edge& edge = obtain(object, end.key, destination);
        edge.mark = mark;
        if (edge.present || (contested && changedByOther(edge))) continue;
        if (!end.inverseToMany) {
            if (contested && movedByOther(destination, end.otherKey())) continue;
            removeAll(destination, end.otherKey(), number);
        }
        set(edge, true, number);
    }
    forEach(object, end.key, [&](Edge& edge) {
        if (!edge.present || edge.mark == mark || (contested && changedByOther(edge))) return;
        set(edge, false, number);
    });
}

void LinkGraph::setDestination(std::uint32_t object, const RelationEnd& end, std::uint32_t destination, std::int64_t number) {
    if (!mayLink(object, destination)) return;
    load(object);
    Edge& edge = obtain(object, end.key, destination);
    if (edge.present) return;
    forEach(object, end.key, [&](Edge& other) {
        if (other.present) set(other, false, number);
    });
    if (!end.inverseToMany) removeAll(destination, end.otherKey(), number);
    set(edge, true, number);
}

void LinkGraph::removeLinks(std::uint32_t object, std::int64_t number) {
    load(object);
    forEach(object, [&](Edge& edge, int) {
        if (edge.present) set(edge, false, number);
    });
}

bool LinkGraph::agrees(std::uint32_t object, const RelationEnd& end, std::span<const std::uint32_t> destinations) {
    load(object);
    const std::uint32_t mark = ++m_mark;
    std::size_t wanted = 0, present = 0;
    for (std::uint32_t destination : destinations) {
        if (!mayLink(object, destination)) return false;
        Edge& edge = obtain(object, end.key, destination);
        if (!edge.present) return false;
        if (edge.mark != mark) ++wanted;
        edge.mark = mark;
    }
    forEach(object, end.key, [&](const Edge& edge) { present += edge.present; });
    return wanted == present;
}

void LinkGraph::pack() {
    for (ObjectRow& row : m_objects.rows()) {
        if (!row.linksChanged) continue;
        row.linksChanged = false;
        row.links.clear();
        forEach(row.object, [&](const Edge& edge, int side) {
            if (edge.number == 0) return;
            appendLink(row.links, {edge.relation * 2 + static_cast<std::uint32_t>(side), edge.ends[1 - side], edge.number,
                                   edge.instance, edge.present});
        });
    }
}

}  // namespace velkor::service
