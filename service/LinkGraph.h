#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstdint>
#include <deque>
#include <span>
#include <string>

#include "service/LinkText.h"
#include "service/ObjectSet.h"
#include "service/Relations.h"

namespace velkor::service {

/// Whose request changes the graph.
struct Sender {
    std::int64_t instance = 0;
    std::int64_t highest = 0;  // its HIGHEST_XACTION, or 0
    bool alone = false;        // nobody else has written since then: its lists are taken as they are
};

/// The part of a partition's link graph that one writing transaction touches. Each link knows the number and the instance of its
/// last change, removed ones included. Links are read with the rows of their objects; a changed link is written to both.
class LinkGraph {
public:
    LinkGraph(ObjectSet& objects, const GuidDirectory& directory, const Relations& relations)
        : m_objects(objects), m_directory(directory), m_relations(relations) {}

    /// Whose changes the next calls make.
    void actFor(const Sender& sender) { m_sender = sender; }

    /// A to-many list: what it lacks is removed, what it has is added, except where another instance changed the link, or moved
    /// the child of a one-to-many relationship, after the sender's HIGHEST_XACTION: there the graph stays.
    void setList(std::uint32_t object, const RelationEnd& end, std::span<const std::uint32_t> destinations, std::int64_t number);
    /// A to-one that names a destination.
    void setDestination(std::uint32_t object, const RelationEnd& end, std::uint32_t destination, std::int64_t number);
    /// Everything that links the object, which was deleted.
    void removeLinks(std::uint32_t object, std::int64_t number);

    /// Whether the object's links of the relationship are exactly these.
    bool agrees(std::uint32_t object, const RelationEnd& end, std::span<const std::uint32_t> destinations);
    /// Brings `links` of the rows up to date.
    void pack();

private:
    struct Edge {
        std::uint32_t ends[2];  // by side
        Edge* next[2];          // further edges of that end
        std::uint32_t relation;
        std::uint32_t mark = 0;
        std::int64_t number = 0;  // never changed
        std::int64_t instance = 0;
        bool present = false;
    };
    struct Node {
        Edge* first = nullptr;
        bool loaded = false;
    };
    struct EdgeKey {
        std::uint32_t first, second, relation;
        bool operator==(const EdgeKey&) const = default;
    };
    struct EdgeHash {
        std::size_t operator()(const EdgeKey& key) const noexcept;
    };

    void load(std::uint32_t object);
    Edge& obtain(std::uint32_t object, std::uint32_t key, std::uint32_t other);
    bool mayLink(std::uint32_t object, std::uint32_t destination) const;
    bool changedByOther(const Edge& edge) const;
    /// Whether another instance moved the object at its to-one end.
    bool movedByOther(std::uint32_t object, std::uint32_t key);
    void set(Edge& edge, bool present, std::int64_t number);
    void removeAll(std::uint32_t object, std::uint32_t key, std::int64_t number);
    /// Calls the function for every edge of the object, or of one of its relationships.
    template <class F>
    void forEach(std::uint32_t object, F&& function);
    template <class F>
    void forEach(std::uint32_t object, std::uint32_t key, F&& function);

    ObjectSet& m_objects;
    const GuidDirectory& m_directory;
    const Relations& m_relations;
    Sender m_sender;
    std::deque<Edge> m_edges;  // references stay valid
    boost::unordered_flat_map<EdgeKey, Edge*, EdgeHash> m_places;
    boost::unordered_flat_map<std::uint32_t, Node> m_nodes;  // by object
    std::uint32_t m_mark = 0;
};

}  // namespace velkor::service
