// Clients with stores of their own, which replay what they get as the library does, must end with equal stores.
#include "service/LinkGraph.h"

#include <map>
#include <random>
#include <set>

#include "PelmoLib/encodings/GuidOrder.h"
#include "tests/service/ServiceFixture.h"

namespace velkor::service {
namespace {

using Guids = std::set<std::string>;

struct RelationModel {
    std::string name, destination, inverse;
    bool toMany;
};
const std::map<std::string, std::vector<RelationModel>> model{
    {"Notebook", {{"notes", "Note", "notebook", true}}},
    {"Note", {{"notebook", "Notebook", "notes", false}, {"tags", "Tag", "notes", true}, {"pictures", "Picture", "note", true}}},
    {"Tag", {{"notes", "Note", "tags", true}}},
    {"Picture", {{"note", "Note", "pictures", false}}},
};

const RelationModel& relationOf(const std::string& className, const std::string& name) {
    for (const auto& relation : model.at(className)) {
        if (relation.name == name) return relation;
    }
    throw std::logic_error("no such relationship");
}

/// A store as the platform's: inverses are kept, deletions nullify.
class ModelStore {
public:
    struct Object {
        std::string className, title;
        std::map<std::string, Guids> links;  // by relationship; a to-one has one at most
        bool operator==(const Object&) const = default;
    };

    Object* find(const std::string& guid) {
        auto found = m_objects.find(guid);
        return found == m_objects.end() ? nullptr : &found->second;
    }
    Object& obtain(const std::string& guid, const std::string& className) {
        auto [place, isNew] = m_objects.try_emplace(guid);
        if (isNew) place->second.className = className;
        return place->second;
    }
    /// The objects that changed, on both sides.
    Guids setLinks(const std::string& guid, const std::string& name, const Guids& destinations) {
        Guids changed;
        Object& object = m_objects.at(guid);
        for (const auto& old : Guids(object.links[name])) {
            if (!destinations.contains(old)) unlink(guid, name, old, changed);
        }
        for (const auto& destination : destinations) {
            if (!object.links[name].contains(destination)) link(guid, name, destination, changed);
        }
        return changed;
    }
    void erase(const std::string& guid) {
        Guids ignored;
        Object* object = find(guid);
        if (!object) return;
        for (const auto& [name, destinations] : std::map(object->links)) {
            for (const auto& destination : destinations) unlink(guid, name, destination, ignored);
        }
        m_objects.erase(guid);
    }
    std::map<std::string, Object>& objects() { return m_objects; }
    std::vector<std::string> guids() const {
        std::vector<std::string> guids;
        for (const auto& [guid, object] : m_objects) guids.push_back(guid);
        sortUniqueGuids(guids);
        return guids;
    }
    std::string hash() const { return syncHashOfSortedGuids(std::span<const std::string>(guids())); }

private:
    void link(const std::string& guid, const std::string& name, const std::string& other, Guids& changed) {
        const auto& relation = relationOf(m_objects.at(guid).className, name);
        const auto& inverse = relationOf(relation.destination, relation.inverse);
        if (!relation.toMany) {
            for (const auto& old : Guids(m_objects.at(guid).links[name])) unlink(guid, name, old, changed);
        }
        if (!inverse.toMany) {
            for (const auto& old : Guids(m_objects.at(other).links[inverse.name])) unlink(other, inverse.name, old, changed);
        }
        m_objects.at(guid).links[name].insert(other);
        m_objects.at(other).links[inverse.name].insert(guid);
        changed.insert(guid), changed.insert(other);
    }
    void unlink(const std::string& guid, const std::string& name, const std::string& other, Guids& changed) {
        const auto& relation = relationOf(m_objects.at(guid).className, name);
        m_objects.at(guid).links[name].erase(other);
        m_objects.at(other).links[relation.inverse].erase(guid);
        changed.insert(guid), changed.insert(other);
    }

    std::map<std::string, Object> m_objects;
};

/// What can go wrong in a cycle.
enum class Mishap { none, answerLost, requestLost, rollbackLostToo };

/// A user's installation: a store, its pending changes, and the sync cycle.
class ModelClient {
public:
    ModelClient(TestClient client, std::mt19937& random) : m_client(std::move(client)), m_random(random) {}

    void edit(int& counter) {
        const auto pick = [&](const std::string& className) -> std::string {
            std::vector<std::string> guids;
            for (const auto& [guid, object] : store.objects()) {
                if (object.className == className) guids.push_back(guid);
            }
            return guids.empty() ? "" : guids[m_random() % guids.size()];
        };
        const std::vector<std::string> classes{"Notebook", "Note", "Note", "Tag", "Picture"};
        const auto className = classes[m_random() % classes.size()];
        const std::string guid = pick(className);
        switch (guid.empty() ? 0 : m_random() % 8) {
            case 0: {
                const std::string fresh = className + std::to_string(++counter);
                store.obtain(fresh, className).title = "new";
                m_pending[fresh] = "INSERT_XACTION";
                break;
            }
            case 1:
                m_pending[guid] = "DELETE_XACTION";
                m_deletedClasses[guid] = className;
                store.erase(guid);
                break;
            case 2:
                store.find(guid)->title = m_client.instance() + std::to_string(++counter);
                touch({guid});
                break;
            default: {
                const auto& relations = model.at(className);
                const auto& relation = relations[m_random() % relations.size()];
                Guids wanted = store.find(guid)->links[relation.name];
                const std::string other = pick(relation.destination);
                if (other.empty()) break;
                if (wanted.contains(other)) {
                    wanted.erase(other);
                } else {
                    if (!relation.toMany) wanted.clear();
                    wanted.insert(other);
                }
                touch(store.setLinks(guid, relation.name, wanted));
            }
        }
    }

    /// One sync cycle, in parts of at most `chunk`; false when it failed.
    bool sync(std::size_t chunk, Mishap mishap, std::size_t mishapAt) {
        EXPECT_EQ(m_client.lock().status, 200);
        bool fine = true;
        for (std::size_t part = 0; fine; ++part) {
            std::map<std::string, std::string> batch;
            while (!m_pending.empty() && batch.size() < chunk) batch.insert(m_pending.extract(m_pending.begin()));
            std::vector<NS::Dictionary> transactions;
            for (const auto& [guid, type] : batch) transactions.push_back(wireForm(guid, type));
            const bool more = !m_pending.empty();
            const auto request = m_client.envelope(transactions, more);
            if (mishap != Mishap::none && part == mishapAt) {
                if (mishap == Mishap::answerLost || (mishap == Mishap::rollbackLostToo && m_random() % 2)) m_client.post(request);
                for (const auto& entry : batch) m_pending.insert(entry);
                if (mishap != Mishap::rollbackLostToo) m_client.rollback();
                fine = false;
                break;
            }
            const Response response = m_client.post(request);
            EXPECT_EQ(response.status, 200) << response.body;
            replayAll(m_client.accept(response));
            if (!more) break;
        }
        if (fine) compare();
        if (mishap != Mishap::rollbackLostToo) m_client.unlock();
        return fine;
    }

    /// Loses an object without a trace, as a store that was damaged does. Each once: what a client misses again right after it
    /// was sent counts as something that it cannot keep, and is withheld from it.
    void lose() {
        const auto guids = store.guids();
        if (guids.empty()) return;
        const auto& guid = guids[m_random() % guids.size()];
        if (!m_lost.insert(guid).second) return;
        store.erase(guid);
        m_pending.erase(guid);
    }

    bool isIdle() const { return m_pending.empty(); }
    const TestClient& client() const { return m_client; }

    ModelStore store;

private:
    /// Lists what it has when the service has something else.
    void compare() {
        for (int listings = 0; m_client.hash != store.hash(); ++listings) {
            ASSERT_LT(listings, 2) << "the cycle does not end";
            const Response response = m_client.listing(store.guids());
            ASSERT_EQ(response.status, 200) << response.body;
            const std::string hash = m_client.hash;
            replayAll(m_client.accept(response));
            m_client.hash = hash;
            const NS::Dictionary answer = parsed(response.body);
            std::vector<NS::Dictionary> inserts;
            for (const auto& guid : *answer["unknown_objects"].asArray()) {
                inserts.push_back(wireForm(guid.stringOr(""), "INSERT_XACTION"));
            }
            if (inserts.empty()) return;
            replayAll(m_client.accept(m_client.changes(inserts)));
        }
    }

    void touch(const Guids& changed) {
        for (const auto& guid : changed) m_pending.try_emplace(guid, "UPDATE_XACTION");
    }

    NS::Dictionary wireForm(const std::string& guid, const std::string& type) {
        if (type == "DELETE_XACTION") return transaction(type, m_deletedClasses[guid], guid);
        const auto& object = *store.find(guid);
        NS::Dictionary relationships;
        for (const auto& relation : model.at(object.className)) {
            const auto found = object.links.find(relation.name);
            const Guids guids = found == object.links.end() ? Guids() : found->second;
            relationships.set(relation.name,
                              relation.toMany ? toMany(relation.name, relation.destination, {guids.begin(), guids.end()})
                                              : toOne(relation.name, relation.destination, guids.empty() ? "" : *guids.begin()));
        }
        return transaction(type, object.className, guid, object.title, relationships);
    }

    void replayAll(const std::vector<NS::Dictionary>& news) {
        for (const auto& member : news) replay(member);
        for (const auto& member : news) replayLinks(member);
    }

    void replay(const NS::Dictionary& member) {
        const auto guid = *member["xaction_object_guid"].asString();
        if (*member["xaction_type"].asString() == "DELETE_XACTION") {
            store.erase(std::string(guid));
            m_pending.erase(std::string(guid));
            return;
        }
        const auto payload = unpacked(*member["xaction_object"].asString());
        store.obtain(std::string(guid), std::string(*member["xaction_object_type"].asString())).title =
            (*payload["attributes"].asDictionary())["title"].stringOr("");
    }

    void replayLinks(const NS::Dictionary& member) {
        const std::string guid(*member["xaction_object_guid"].asString());
        if (*member["xaction_type"].asString() == "DELETE_XACTION") return;
        const auto payload = unpacked(*member["xaction_object"].asString());
        const NS::Dictionary* computed = member["computed_relationships"].asDictionary();
        const NS::Dictionary& lists = computed && !computed->empty() ? *computed : *payload["relationships"].asDictionary();
        for (const auto& entry : lists) {
            const NS::Dictionary& description = *entry.value().asDictionary();
            Guids destinations;
            if (*description["to_many"].asBoolean()) {
                for (const auto& value : *description["destination_objects"].asArray()) {
                    if (store.find(std::string(*value.asString()))) destinations.insert(std::string(*value.asString()));
                }
            } else {
                const auto destination = description["destination_object"].asString();
                if (!destination || !store.find(std::string(*destination))) continue;
                destinations.insert(std::string(*destination));
            }
            store.setLinks(guid, std::string(entry.key()), destinations);
        }
    }

    TestClient m_client;
    std::mt19937& m_random;
    std::map<std::string, std::string> m_pending;  // type by guid
    std::map<std::string, std::string> m_deletedClasses;
    Guids m_lost;
};

/// Runs of each kind; VELKORD_TEST_SEEDS asks for more.
unsigned seedCount() {
    const char* wanted = std::getenv("VELKORD_TEST_SEEDS");
    return wanted ? static_cast<unsigned>(std::atoi(wanted)) : 12;
}

class LinkGraphTest : public ServiceFixture {
protected:
    /// The stores of `count` clients after random edits and cycles; equal at the end.
    void converge(unsigned seed, int count, bool mishaps, bool losses = false) {
        std::mt19937 random(seed);
        const std::string app = "app" + std::to_string(seed);
        std::vector<ModelClient> clients;
        for (int i = 0; i < count; ++i) clients.emplace_back(client(std::string(1, static_cast<char>('A' + i)), app), random);
        int counter = 0;
        for (int step = 0; step < 60; ++step) {
            auto& one = clients[random() % clients.size()];
            for (unsigned edits = random() % 6; edits > 0; --edits) one.edit(counter);
            if (losses && random() % 4 == 0) one.lose();
            if (random() % 2) continue;
            const auto mishap = mishaps && random() % 4 == 0 ? static_cast<Mishap>(1 + random() % 3) : Mishap::none;
            one.sync(random() % 3 ? 1000 : 3, mishap, random() % 2);
            m_time += 1'000'000;  // a lock that was not given back is there for the next one
        }
        for (int round = 0; round < 3; ++round) {
            for (auto& one : clients) {
                one.sync(1000, Mishap::none, 0);
                m_time += 1'000'000;
            }
        }
        for (auto& one : clients) {
            ASSERT_TRUE(one.isIdle()) << seed;
            ASSERT_EQ(describe(one.store), describe(clients[0].store)) << "seed " << seed;
            ASSERT_EQ(one.client().hash, one.store.hash()) << "seed " << seed;
        }
        // A new installation gets the same.
        ModelClient fresh(client("fresh", app), random);
        fresh.sync(1000, Mishap::none, 0);
        ASSERT_EQ(describe(fresh.store), describe(clients[0].store)) << "seed " << seed;
    }

    const unsigned seeds = seedCount();

    static std::string describe(ModelStore& store) {
        std::string text;
        for (const auto& [guid, object] : store.objects()) {
            text += guid + " " + object.title;
            for (const auto& [name, links] : object.links) {
                for (const auto& link : links) text += " " + name + "=" + link;
            }
            text += "\n";
        }
        return text;
    }
};

TEST_F(LinkGraphTest, aLinkThatTheSenderOmitsBecauseItDoesNotKnowItIsSent) {
    TestClient a = client("A"), c = client("C"), d = client("D");
    const auto picture = [](const std::string& title, const std::string& note) {
        return transaction("UPDATE_XACTION", "Picture", "p", title, {{"note", toOne("note", "Note", note)}});
    };
    const auto note = [](const std::vector<std::string>& pictures) {
        return transaction("UPDATE_XACTION", "Note", "n", "t", {{"pictures", toMany("pictures", "Picture", pictures)}});
    };
    a.cycle({picture("one", ""), note({})});
    c.cycle();
    c.cycle({picture("one", "n"), note({"p"})});
    a.cycle({picture("two", "")});
    for (const auto& member : d.cycle()) {
        if (member["xaction_object_guid"].stringOr("") != "p") continue;
        const NS::Dictionary* computed = member["computed_relationships"].asDictionary();
        ASSERT_TRUE(computed);
        EXPECT_EQ((*(*computed)["note"].asDictionary())["destination_object"].stringOr("none"), "n");
    }
}

TEST_F(LinkGraphTest, storesOfTwoClientsConverge) {
    for (unsigned seed = 1; seed <= seeds; ++seed) {
        converge(seed, 2, false);
        if (HasFatalFailure()) return;
    }
}

TEST_F(LinkGraphTest, storesOfThreeClientsConverge) {
    start({.page = 7});
    for (unsigned seed = 1001; seed <= 1000 + seeds; ++seed) {
        converge(seed, 3, false);
        if (HasFatalFailure()) return;
    }
}

TEST_F(LinkGraphTest, storesConvergeThroughLostRequestsAnswersAndRollbacks) {
    for (unsigned seed = 2001; seed <= 2000 + seeds; ++seed) {
        converge(seed, 3, true);
        if (HasFatalFailure()) return;
    }
}

TEST_F(LinkGraphTest, storesThatLoseObjectsAreMendedByListings) {
    start({.page = 7});
    for (unsigned seed = 3001; seed <= 3000 + seeds; ++seed) {
        converge(seed, 3, seed % 2 == 0, true);
        if (HasFailure()) return;
    }
}

}  // namespace
}  // namespace velkor::service
