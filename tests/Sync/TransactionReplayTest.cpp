#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "PelmoLib/NSManagedObject+JSON.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "Sync/VLKPageReplay.h"
#include "Sync/VLKTransaction.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"
#include "tests/Sync/ReceivedTransactions.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NotesModel.h"

namespace velkor::test {
namespace {

using namespace NS;
using testing::ElementsAre;
using testing::IsEmpty;

using Transactions = std::vector<std::shared_ptr<VLKTransaction>>;

Transactions convert(const std::vector<Dictionary>& page, const std::shared_ptr<ManagedObjectContext>& context) {
    Transactions transactions;
    for (const Dictionary& entry : page) transactions.push_back(VLKTransaction::transactionFromJSONDictionary(entry, context));
    return transactions;
}

/// Every scenario runs twice: transaction by transaction, and as a page.
class TransactionReplayTest : public testing::TestWithParam<bool> {
protected:
    TransactionReplayTest() : context(store.newContext()) {}
    void replay(const std::vector<Dictionary>& page) {
        const Transactions transactions = convert(page, context);
        if (GetParam()) {
            ASSERT_TRUE(VLKPageReplay(*context, transactions).run().ok());
            return;
        }
        for (const auto& transaction : transactions) transaction->replayIntoMOC(*context);
        for (const auto& transaction : transactions) transaction->replayRelationshipsIntoMOC(*context);
    }
    /// What another context sees after a save.
    void saveAndReopen() {
        const auto saved = context->save();
        ASSERT_TRUE(saved.ok()) << saved.error().description();
        context = store.newContext();
    }
    ObjectPointer fetch(std::string_view entity, std::string_view guid) { return fetchObject(*context, entity, guid); }

    NotesStore store;
    std::shared_ptr<ManagedObjectContext> context;
};

INSTANTIATE_TEST_SUITE_P(, TransactionReplayTest, testing::Bool(),
                         [](const auto& test) { return test.param ? "AsPage" : "OneByOne"; });

std::string toOne(std::string_view name, std::string_view type, std::string_view guid) {
    return format(R"("%@":{"name":"%@","destination_type":"%@","to_many":false,"destination_object":"%@"})", name, name, type,
                  guid);
}
std::string toMany(std::string_view name, std::string_view type, const std::vector<std::string>& guids) {
    std::string list;
    for (const std::string& guid : guids) list += (list.empty() ? "\"" : ",\"") + guid + "\"";
    return format(R"("%@":{"name":"%@","destination_type":"%@","to_many":true,"destination_objects":[%@]})", name, name, type,
                  list);
}
std::string object(std::string_view guid, std::string_view attributes = {}, std::string_view relationships = {}) {
    return format(R"({"attributes":{"guid":"%@"%@},"relationships":{%@}})", guid, attributes, relationships);
}

TEST_P(TransactionReplayTest, ObjectsComeFirstThenRelationships) {
    replay({
        received("INSERT_XACTION", "Note", "n1",
                 object("n1", R"(,"title":"one","rating":4)",
                        toOne("notebook", "Notebook", "k1") + "," + toMany("tags", "Tag", {"t1", "t2"}))),
        received("UPDATE_XACTION", "Notebook", "k1", object("k1", R"(,"title":"book")")),
        received("INSERT_XACTION", "Tag", "t1", object("t1")),
        received("INSERT_XACTION", "Tag", "t2", object("t2")),
    });
    saveAndReopen();
    const auto note = fetch("Note", "n1");
    EXPECT_EQ(note->valueForKey("title"), "one");
    EXPECT_EQ(note->valueForKey("rating"), 4);
    EXPECT_THAT(linked(note, "notebook"), ElementsAre("k1"));
    EXPECT_THAT(linked(note, "tags"), ElementsAre("t1", "t2"));
    EXPECT_EQ(fetch("Notebook", "k1")->valueForKey("title"), "book") << "an update of an unknown object creates it";

    replay({received("INSERT_XACTION", "Note", "n1",
                     object("n1", R"(,"title":"two")",
                            R"("notebook":{"to_many":false,"destination_type":"Notebook"},)" + toMany("tags", "Tag", {"t2"})))});
    saveAndReopen();
    EXPECT_THAT(guidsOf(*context, "Note"), ElementsAre("n1")) << "an insert of a known object is an update";
    EXPECT_EQ(fetch("Note", "n1")->valueForKey("title"), "two");
    EXPECT_THAT(linked(fetch("Note", "n1"), "notebook"), ElementsAre("k1")) << "without destination_object it stays";
    EXPECT_THAT(linked(fetch("Note", "n1"), "tags"), ElementsAre("t2"));

    replay({received("UPDATE_XACTION", "Note", "n1", object("n1", "", toMany("tags", "Tag", {"unknown"})))});
    saveAndReopen();
    EXPECT_THAT(linked(fetch("Note", "n1"), "tags"), IsEmpty()) << "a list of unknown objects empties it";
}

TEST_P(TransactionReplayTest, DeletionsAndExpiries) {
    replay({received("INSERT_XACTION", "Note", "n1", object("n1")), received("INSERT_XACTION", "Note", "n2", object("n2")),
            received("INSERT_XACTION", "Tag", "t1", object("t1"))});
    saveAndReopen();
    replay({
        received("DELETE_XACTION", "Note", "n1"),
        received("DELETE_XACTION", "Note", "unknown"),
        received("EXPIRED_XACTION", "Note", "n2"),
        received("EXPIRED_XACTION", "Note", "unknown"),
        received("EXPIRED_XACTION", "Tag", "t1"),
        received("OTHER_XACTION", "Tag", "t2", object("t2")),
    });
    saveAndReopen();
    EXPECT_THAT(guidsOf(*context, "Note"), ElementsAre("n2"));
    EXPECT_THAT(guidsOf(*context, "Tag"), ElementsAre("t1"));
    EXPECT_EQ(fetch("Note", "n2")->valueForKey("expired"), true);
}

TEST_P(TransactionReplayTest, LaterTransactionsOfAPageSeeEarlierOnes) {
    replay({
        received("INSERT_XACTION", "Tag", "t1", object("t1", R"(,"name":"first")")),
        received("UPDATE_XACTION", "Tag", "t1", object("t1", R"(,"name":"second")")),
        received("INSERT_XACTION", "Tag", "t2", object("t2")),
        received("DELETE_XACTION", "Tag", "t2"),
        received("INSERT_XACTION", "Tag", "t3", object("t3", "", toMany("notes", "Note", {"n1"}))),
        received("DELETE_XACTION", "Tag", "t3"),
        received("INSERT_XACTION", "Tag", "t3", object("t3", R"(,"name":"again")")),
        received("INSERT_XACTION", "Note", "n1", object("n1", "", toMany("tags", "Tag", {"t1", "t2", "t3"}))),
    });
    saveAndReopen();
    EXPECT_THAT(guidsOf(*context, "Tag"), ElementsAre("t1", "t3"));
    EXPECT_EQ(fetch("Tag", "t1")->valueForKey("name"), "second");
    EXPECT_EQ(fetch("Tag", "t3")->valueForKey("name"), "again");
    EXPECT_THAT(linked(fetch("Note", "n1"), "tags"), ElementsAre("t1", "t3"));
}

TEST_P(TransactionReplayTest, ComputedRelationshipsWinUnlessTheyAreEmpty) {
    Dictionary computed = received("INSERT_XACTION", "Note", "n1", object("n1", "", toMany("tags", "Tag", {"t1"})));
    computed.set(
        "computed_relationships",
        Dictionary{{"tags", Dictionary{{"to_many", true}, {"destination_type", "Tag"}, {"destination_objects", Array{"t2"}}}}});
    Dictionary empty = received("INSERT_XACTION", "Note", "n2", object("n2", "", toMany("tags", "Tag", {"t1"})));
    empty.set("computed_relationships", Dictionary());
    Dictionary odd = received("INSERT_XACTION", "Note", "n3", object("n3", "", toMany("tags", "Tag", {"t1"})));
    odd.set("computed_relationships", Array{"tags"});
    LogCapture log;
    replay({computed, empty, odd, received("INSERT_XACTION", "Tag", "t1", object("t1")),
            received("INSERT_XACTION", "Tag", "t2", object("t2"))});
    saveAndReopen();
    EXPECT_THAT(linked(fetch("Note", "n1"), "tags"), ElementsAre("t2"));
    EXPECT_THAT(linked(fetch("Note", "n2"), "tags"), ElementsAre("t1"));
    EXPECT_THAT(linked(fetch("Note", "n3"), "tags"), ElementsAre("t1"));
    EXPECT_THAT(log.entries(), ElementsAre("Ignoring received relationship computed_relationships: they are no dictionary."));
}

TEST_P(TransactionReplayTest, PayloadsThatGiveNoGuidLeaveNoObject) {
    replay({received("INSERT_XACTION", "Note", "kept", object("kept", R"(,"title":"t")"))});
    saveAndReopen();
    Dictionary damaged = received("UPDATE_XACTION", "Note", "kept"), undecodable = received("INSERT_XACTION", "Note", "n1");
    damaged.set("xaction_object", "\"damaged\"");
    undecodable.set("xaction_object", "\"damaged\"");
    replay({damaged, undecodable, received("INSERT_XACTION", "Note", "n2", "[1]"),
            received("INSERT_XACTION", "Note", "n3", R"({"attributes":{"title":"x"}})"),
            received("INSERT_XACTION", "LocalDraft", "d1", R"({"attributes":{"text":"x"}})")});
    saveAndReopen();
    EXPECT_THAT(guidsOf(*context, "Note"), ElementsAre("kept"));
    EXPECT_EQ(fetch("Note", "kept")->valueForKey("title"), "t") << "a damaged payload changes nothing";
    EXPECT_EQ(context->countForFetchRequest(FetchRequest(context->managedObjectModel().entityNamed("LocalDraft"))).value(), 0u);

    for (const char* text : {"", "x"}) {
        Dictionary tooShort = received("UPDATE_XACTION", "Note", "kept");
        tooShort.set("xaction_object", text);
        EXPECT_THROW(replay({tooShort}), Exception);
    }
    EXPECT_THROW(replay({received("UPDATE_XACTION", "Note", "kept")}), Exception) << "no payload at all";
}

TEST_P(TransactionReplayTest, TheClassKeepsRelationshipsToItself) {
    ObjectClass::registerClass<Note>("Note")
        .adopt(VLKSyncableObject)
        .answers("relationshipsToNotSerialize", [](const ManagedObject&) { return Value(Array{"notebook"}); })
        .answers("relationshipsToNotDeSerialize", [](const ManagedObject& note) {
            return note.valueForKey("pinned") == Value(true) ? Value(Array{"tags"}) : Value();
        });
    const std::string relationships = toOne("notebook", "Notebook", "k1") + "," + toMany("tags", "Tag", {"t1"});
    replay({received("INSERT_XACTION", "Notebook", "k1", object("k1")), received("INSERT_XACTION", "Tag", "t1", object("t1")),
            received("INSERT_XACTION", "Note", "n1", object("n1", R"(,"pinned":true)", relationships)),
            received("INSERT_XACTION", "Note", "n2", object("n2", "", relationships))});
    EXPECT_THAT(linked(fetch("Note", "n1"), "notebook"), IsEmpty());
    EXPECT_THAT(linked(fetch("Note", "n1"), "tags"), IsEmpty());
    EXPECT_THAT(linked(fetch("Note", "n2"), "tags"), ElementsAre("t1"));
}

TEST_P(TransactionReplayTest, Logs) {
    const std::string notFound = Error(VelkorErrorDomain, 404).localizedDescription();
    const auto page = [&](std::vector<Dictionary> transactions) {
        return [this, transactions] { replay(transactions), context->rollback(); };
    };
    const auto note = [](const std::string& relationships) {
        return received("UPDATE_XACTION", "Note", "n1", object("n1", "", relationships));
    };
    checkLogCases({
        {"unknown class",
         LogCase::always,
         page({received("INSERT_XACTION", "Nothing", "g", object("g"))}),
         {"Unknown object type from server: Nothing", "Object will be dropped!"}},
        {"payload", 400, page({received("INSERT_XACTION", "Note", "n1", object("n1"))}), {object("n1")}},
        {"missing destinations",
         100,
         page({note(toMany("tags", "Tag", {"t1", "t2"}) + "," + toOne("notebook", "Notebook", "k1"))}),
         {"Unable to find object for destination object of type: Tag with guid: t1 error: " + notFound,
          "Unable to find object for destination object of type: Tag with guid: t2 error: " + notFound,
          "Unable to find object for destination object of type: Notebook with guid: k1 error: " + notFound}},
        {"destinations of an unknown class",
         100,
         page({note(toMany("tags", "Nothing", {"t1"}))}),
         {"Unable to find object for destination object of type: Nothing with guid: t1 error: (null)"}},
        {"to-many that the entity lacks",
         100,
         page({note(toMany("labels", "Tag", {}))}),
         {"Ignoring received relationship labels: the entity has no to-many relationship of that name."}},
    });
    LogCapture log;
    replay({received("INSERT_XACTION", "Tag", "t1", object("t1")),
            note(toOne("label", "Tag", "t1") + "," + toOne("notebook", "Tag", "t1") + "," + toMany("tags", "Tag", {"t1"}))});
    EXPECT_THAT(log.entries(), ElementsAre(testing::StartsWith("Failed to inflate object t1 due to error: "),
                                           testing::StartsWith("Failed to inflate object t1 due to error: ")));
    EXPECT_THAT(linked(fetch("Note", "n1"), "tags"), ElementsAre("t1")) << "the next relationship follows";
}

TEST_P(TransactionReplayTest, OnlyReceivedTransactionsAreReplayed) {
    const auto local = VLKTransaction::deleteTransactionForObjectOfType("Note", "n1", context);
    for (const auto& step : std::vector<std::function<void()>>{[&] { local->replayIntoMOC(*context); },
                                                               [&] { local->replayRelationshipsIntoMOC(*context); }}) {
        try {
            step();
            ADD_FAILURE();
        } catch (const AssertionFailure& failure) {
            EXPECT_EQ(failure.reason(), "replayableTransaction");
        }
    }
}

/// Random pages over few guids, so that they collide in every way.
class RandomPages {
public:
    explicit RandomPages(unsigned seed) : m_random(seed) {}
    std::vector<Dictionary> next() {
        std::vector<Dictionary> page;
        for (int i = 0, size = roll(40); i < size; ++i) page.push_back(transaction());
        return page;
    }

private:
    int roll(int sides) { return static_cast<int>(m_random() % static_cast<unsigned>(sides)); }
    std::string guid(std::string_view type) { return std::string(type.substr(0, 2)) + std::to_string(roll(6)); }
    std::string type() {
        static const char* const types[] = {"Note", "Note", "Notebook", "Tag", "Attachment", "Nothing"};
        return types[roll(6)];
    }
    std::string destinations(const std::string& name, const std::string& destinationType, bool many) {
        if (!many) return toOne(name, destinationType, guid(destinationType));
        std::vector<std::string> guids;
        for (int i = roll(4); i > 0; --i) guids.push_back(guid(destinationType));
        return toMany(name, destinationType, guids);
    }
    Dictionary transaction() {
        const std::string className = type(), id = guid(className);
        switch (roll(8)) {
            case 0:
                return received("DELETE_XACTION", className, id);
            case 1:
                return received("EXPIRED_XACTION", className, id);
            case 2: {
                Dictionary damaged = received("UPDATE_XACTION", className, id);
                damaged.set("xaction_object", "\"no base64!\"");
                return damaged;
            }
            default:
                break;
        }
        std::string relationships;
        if (className == "Note")
            relationships =
                destinations("notebook", "Notebook", false) + "," + destinations("tags", roll(9) ? "Tag" : "Nothing", true);
        if (className == "Notebook")
            relationships = destinations("notes", "Note", true) + "," + destinations("unknown", "Note", roll(2));
        if (className == "Tag") relationships = destinations("notes", "Note", true);
        if (className == "Attachment") relationships = destinations("note", "Note", roll(6) == 0);
        // Sometimes the payload carries another guid: a new one, since of equal guids any may be found.
        const std::string own = roll(12) ? id : "own" + std::to_string(m_own++);
        return received(roll(2) ? "INSERT_XACTION" : "UPDATE_XACTION", className, id,
                        object(own, format(R"(,"title":"%d","name":"%d")", roll(100), roll(100)), relationships));
    }
    std::mt19937 m_random;
    int m_own = 0;
};

std::vector<std::string> dump(ManagedObjectContext& context) {
    std::vector<std::string> lines;
    for (const auto& entity : context.managedObjectModel().entities()) {
        const auto found = context.executeFetchRequest(FetchRequest(entity.get()));
        for (const auto& object : found.value()) {
            std::string line = entity->name();
            for (const auto& attribute : entity->attributes()) line += " " + object->primitiveValue(attribute).description();
            for (const auto& relationship : entity->relationships()) line += " " + describe(linked(object, relationship.name));
            lines.push_back(std::move(line));
        }
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

TEST(PageReplayTest, APageEqualsItsTransactionsOneByOne) {
    for (unsigned seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        NotesStore one, other;
        RandomPages pages(seed);
        for (int i = 0; i < 4; ++i) {
            const auto page = pages.next();
            const auto singly = one.newContext(), whole = other.newContext();
            std::vector<std::string> singleLog, wholeLog;
            {
                LogCapture log;
                const Transactions transactions = convert(page, singly);
                for (const auto& transaction : transactions) transaction->replayIntoMOC(*singly);
                for (const auto& transaction : transactions) transaction->replayRelationshipsIntoMOC(*singly);
                singleLog = log.entries();
            }
            {
                LogCapture log;
                const Transactions transactions = convert(page, whole);
                ASSERT_TRUE(VLKPageReplay(*whole, transactions).run().ok());
                wholeLog = log.entries();
            }
            EXPECT_EQ(singleLog, wholeLog);
            ASSERT_TRUE(singly->save().ok());
            ASSERT_TRUE(whole->save().ok());
            ASSERT_EQ(dump(*one.newContext()), dump(*other.newContext()));
        }
    }
}

}  // namespace
}  // namespace velkor::test
