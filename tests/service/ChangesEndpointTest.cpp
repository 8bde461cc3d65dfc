#include "service/ChangesEndpoint.h"

#include "PelmoLib/encodings/GuidOrder.h"
#include "service/Expiry.h"
#include "tests/service/ServiceFixture.h"

namespace velkor::service {
namespace {

using Lines = std::vector<std::string>;

std::string hashOf(std::vector<std::string> guids) {
    sortUniqueGuids(guids);
    return syncHashOfSortedGuids(std::span<const std::string>(guids));
}

class ChangesEndpointTest : public ServiceFixture {};

TEST_F(ChangesEndpointTest, sendsEachTransactionOnceToEveryOtherInstance) {
    TestClient a = client("A"), b = client("B");
    EXPECT_EQ(summary(a.cycle({insertOf("n1", "one"), insertOf("n2", "two")})), Lines{});
    EXPECT_EQ(a.highest, 2);
    EXPECT_EQ(summary(b.cycle({insertOf("n3", "three")})), (Lines{"n1:one", "n2:two"}));
    EXPECT_EQ(b.highest, 3);
    EXPECT_EQ(summary(b.cycle()), Lines{});
    EXPECT_EQ(summary(a.cycle({deletionOf("n2")})), Lines{"n3:three"});
    EXPECT_EQ(summary(b.cycle()), Lines{"n2:-"});
    EXPECT_EQ(a.hash, hashOf({"n1", "n3"}));
    EXPECT_EQ(b.hash, a.hash);
    // Of each guid only the latest transaction is kept.
    a.cycle({transaction("UPDATE_XACTION", "Note", "n1", "uno")});
    TestClient c = client("C");
    EXPECT_EQ(summary(c.cycle()), (Lines{"n3:three", "n2:-", "n1:uno"}));
}

TEST_F(ChangesEndpointTest, keepsAppsAndUsersApart) {
    ASSERT_EQ(signUp("v@example.org", "secret").status, 200);
    TestClient a = client("A"), otherApp = client("A", "org.other/x y+z"), otherUser(exchange(), "v@example.org", "secret", "A");
    a.cycle({insertOf("n1", "one")});
    EXPECT_EQ(summary(otherApp.cycle()), Lines{});
    EXPECT_EQ(summary(otherUser.cycle()), Lines{});
    EXPECT_EQ(otherUser.highest, 0);
    // Somebody else's path is not ours.
    ASSERT_EQ(a.lock().status, 200);
    const auto path = "/users/" + std::to_string(otherUser.user()) + "/transactions.json";
    EXPECT_EQ(a.send("POST", path, jsonText(a.envelope({}))).status, 403);
}

TEST_F(ChangesEndpointTest, payloadsComeBackByteForByteBetweenTwoCharacters) {
    TestClient a = client("A"), b = client("B");
    const NS::Dictionary sent = insertOf("n1", "ümlaut \"quoted\" \\ \n");
    a.cycle({sent});
    const auto got = b.cycle().at(0);
    const auto wrapped = *got["xaction_object"].asString();
    EXPECT_EQ(wrapped.substr(1, wrapped.size() - 2), *sent["xaction_object"].asString());
    for (const char* key : {"xaction_time", "xaction_type", "xaction_object_type", "xaction_object_guid"}) {
        EXPECT_EQ(got[key], sent[key]) << key;
    }
    EXPECT_FALSE(got.contains("computed_relationships"));
}

TEST_F(ChangesEndpointTest, oneBadRecordNeverStopsAQueue) {
    TestClient a = client("A"), b = client("B");
    NS::Dictionary noClass = insertOf("bad1");
    noClass.remove("xaction_object_type");
    NS::Dictionary noGuid = insertOf("bad2");
    noGuid.remove("xaction_object_guid");
    NS::Dictionary wrongType = insertOf("bad3");
    wrongType.set("xaction_type", "EXPIRED_XACTION");
    NS::Dictionary generic = insertOf("bad4");
    generic.set("xaction_object_type", "GENERIC_OBJECT");
    NS::Dictionary nul =
        insertOf(std::string("bad\0"
                             "5",
                             5));
    NS::Dictionary garbled = insertOf("garbled");
    garbled.set("xaction_object", "!no base64 \" at all");
    NS::Dictionary truncated = insertOf("truncated", "some title");
    truncated.set("xaction_object", truncated["xaction_object"].asString()->substr(0, 20));
    NS::Dictionary envelope = a.envelope({noClass, wrongType, generic, nul, garbled, truncated, insertOf("good", "fine")});
    NS::Dictionary members = *envelope["xactions"].asDictionary();
    members.set("bad2", noGuid);
    members.set("bad6", 17);
    envelope.set("xactions", members);
    a.lock();
    const Response response = a.post(envelope);
    ASSERT_EQ(response.status, 200);
    a.accept(response);
    a.unlock();

    const auto news = b.cycle();
    ASSERT_EQ(news.size(), 3u);
    EXPECT_EQ(*news[0]["xaction_object"].asString(), "<!no base64 \" at all>");
    EXPECT_EQ(*news[1]["xaction_object_guid"].asString(), "truncated");
    EXPECT_EQ(summary({news[2]}), Lines{"good:fine"});
    EXPECT_EQ(b.hash, hashOf({"garbled", "truncated", "good"}));
}

TEST_F(ChangesEndpointTest, requestsThatAreNoneAreRefused) {
    TestClient a = client("A");
    a.lock();
    auto status = [&](const std::string& body) {
        const Response response = a.send("POST", "/users/1/transactions.json", body);
        EXPECT_TRUE(parsed(response.body).contains("error")) << body;
        return response.status;
    };
    NS::Dictionary noInstance = a.envelope({}), badHighest = a.envelope({}), badXactions = a.envelope({});
    noInstance.remove("instance_id");
    badHighest.set("HIGHEST_XACTION", "12");
    badXactions.set("xactions", NS::Array());
    for (const std::string& body : {std::string(""), std::string("{"), std::string("[]"), jsonText(noInstance),
                                    jsonText(badHighest), jsonText(badXactions), std::string(100'000, '[')}) {
        EXPECT_EQ(status(body), 400) << body.substr(0, 100);
    }
}

TEST_F(ChangesEndpointTest, needTheLockOfThisInstance) {
    TestClient a = client("A"), b = client("B");
    a.cycle();
    Response response = a.changes({insertOf("n1")});
    EXPECT_EQ(response.status, 409);
    b.lock();
    response = a.changes({insertOf("n1")});
    EXPECT_EQ(response.status, 409);
    EXPECT_EQ(parsed(response.body)["locked_by"].stringOr(""), "B");
    EXPECT_EQ(b.highest, -1);
    EXPECT_EQ(summary(b.accept(b.changes({}))), Lines{});
}

TEST_F(ChangesEndpointTest, partsAreAnsweredWithTheLastOne) {
    TestClient a = client("A"), b = client("B");
    a.cycle({insertOf("n1", "one")});
    b.lock();
    const auto first = parsed(b.changes({insertOf("n2", "two")}, true).body);
    EXPECT_EQ(first["HIGHEST_XACTION"].asInteger(), -1);
    EXPECT_TRUE(TestClient::transactionsOf(first).empty());
    EXPECT_EQ(summary(b.accept(b.changes({insertOf("n3", "three")}))), Lines{"n1:one"});
    EXPECT_EQ(b.highest, 3);
    b.unlock();
    EXPECT_EQ(summary(a.cycle()), (Lines{"n2:two", "n3:three"}));
}

TEST_F(ChangesEndpointTest, aStateFromElsewhereCountsAsNone) {
    TestClient a = client("A"), b = client("B");
    a.cycle({insertOf("n1", "one"), insertOf("n2", "two")});
    b.highest = 2;  // an instance that is not known
    EXPECT_EQ(summary(b.cycle()), (Lines{"n1:one", "n2:two"}));
    b.highest = 77;  // higher than any number given out
    EXPECT_EQ(summary(b.cycle()), (Lines{"n1:one", "n2:two"}));
    EXPECT_EQ(b.highest, 2);
}

TEST_F(ChangesEndpointTest, twiceIsOnce) {
    TestClient a = client("A"), b = client("B");
    a.cycle({insertOf("n1", "one")});
    b.cycle();
    a.cycle({insertOf("n1", "one")});
    EXPECT_EQ(a.highest, 1);
    EXPECT_EQ(summary(b.cycle()), Lines{});

    // Somebody else wrote in between, unknown to the sender: the repeat is still the first request, arriving late.
    const auto before = a.highest;
    a.cycle({transaction("UPDATE_XACTION", "Note", "n1", "a's")});
    b.cycle({transaction("UPDATE_XACTION", "Note", "n1", "b's")});
    a.highest = before;
    EXPECT_EQ(summary(a.cycle({transaction("UPDATE_XACTION", "Note", "n1", "a's")})), Lines{"n1:b's"});
    // Known to the sender: it is a new edit.
    EXPECT_EQ(summary(a.cycle({transaction("UPDATE_XACTION", "Note", "n1", "a's")})), Lines{});
    EXPECT_EQ(summary(b.cycle()), Lines{"n1:a's"});
}

TEST_F(ChangesEndpointTest, expiryLastsUntilTheNextEdit) {
    TestClient a = client("A"), b = client("B");
    a.cycle({insertOf("n1", "one"), insertOf("n2", "two")});
    EXPECT_FALSE(expire(*m_database, "nobody@example.org", "app", "n1"));
    EXPECT_FALSE(expire(*m_database, "u@example.org", "no app", "n1"));
    EXPECT_FALSE(expire(*m_database, "u@example.org", "app", "n9"));
    ASSERT_TRUE(expire(*m_database, "u@example.org", "app", "n1"));
    EXPECT_EQ(summary(a.cycle()), Lines{"n1:expired"});
    EXPECT_EQ(a.hash, hashOf({"n2"}));
    EXPECT_EQ(summary(b.cycle()), (Lines{"n2:two", "n1:expired"}));
    b.cycle({transaction("UPDATE_XACTION", "Note", "n1", "again")});
    EXPECT_EQ(summary(a.cycle()), Lines{"n1:again"});
    EXPECT_EQ(a.hash, hashOf({"n1", "n2"}));
}

TEST_F(ChangesEndpointTest, largeAnswersComeInPages) {
    start({.page = 3});
    TestClient a = client("A"), b = client("B");
    std::vector<NS::Dictionary> many;
    Lines expected;
    for (int i = 0; i < 10; ++i) {
        many.push_back(insertOf("n" + std::to_string(i), "t"));
        expected.push_back("n" + std::to_string(i) + ":t");
    }
    a.cycle(many);
    EXPECT_EQ(summary(b.cycle()), expected);

    TestClient c = client("C"), d = client("D");
    c.lock();
    const auto answer = parsed(c.changes({}).body);
    const std::string identifier = answer["batched_download_identifier"].stringOr("");
    EXPECT_EQ(identifier.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_.~"),
              identifier.npos);
    auto lines = [&](std::int64_t page) { return summary(TestClient::transactionsOf(parsed(c.page(page, identifier).body))); };
    // In any order, by any process.
    EXPECT_EQ(lines(4), Lines{"n9:t"});
    EXPECT_EQ(lines(2), (Lines{"n3:t", "n4:t", "n5:t"}));
    start({.page = 3});
    EXPECT_EQ(lines(3), (Lines{"n6:t", "n7:t", "n8:t"}));
    EXPECT_EQ(lines(5), Lines{});
    EXPECT_EQ(c.page(0, identifier).status, 400);
    EXPECT_EQ(c.page(1, "changes-1-3-0-9-0-3").status, 409);
    EXPECT_EQ(c.page(1, "changes-9-9-0-10-0-3").status, 404);
    EXPECT_EQ(c.page(1, "nonsense").status, 400);
    // When the numbers move, the pages are none any more.
    ASSERT_TRUE(expire(*m_database, "u@example.org", "app", "n5"));
    EXPECT_EQ(c.page(1, identifier).status, 409);
}

TEST_F(ChangesEndpointTest, exactlyOnePageNeedsNoDownload) {
    start({.page = 3});
    TestClient a = client("A"), b = client("B");
    a.cycle({insertOf("n1"), insertOf("n2"), insertOf("n3")});
    b.lock();
    EXPECT_FALSE(parsed(b.changes({}).body).contains("batched_download_identifier"));
}

TEST_F(ChangesEndpointTest, theHashCoversManyGuidsInTheSharedOrderAndOutlivesARestart) {
    TestClient a = client("A");
    std::vector<NS::Dictionary> some;
    std::vector<std::string> guids;
    for (int i = 0; i < 200; ++i) {
        guids.push_back((i % 2 ? "aB" : "Ab") + std::to_string(i * 7919 % 1000) + (i % 3 ? "ä" : "Ä"));
        some.push_back(insertOf(guids.back()));
    }
    a.cycle({some.begin(), some.begin() + 150});
    a.cycle({some.begin() + 150, some.end()});
    EXPECT_EQ(a.hash, hashOf(guids));
    start();
    a.cycle();
    EXPECT_EQ(a.hash, hashOf(guids));
    a.cycle({deletionOf(guids.back())});
    guids.pop_back();
    EXPECT_EQ(a.hash, hashOf(guids));
}

TEST_F(ChangesEndpointTest, aThousandTransactionsAreReadBySeveralThreads) {
    TestClient a = client("A"), b = client("B");
    std::vector<NS::Dictionary> many;
    for (int i = 0; i < 3000; ++i) {
        many.push_back(insertOf("n" + std::to_string(i), std::to_string(i),
                                {{"tags", toMany("tags", "Tag", {"t" + std::to_string(i % 7)})}}));
    }
    a.cycle(many);
    const auto news = summary(b.cycle());
    ASSERT_EQ(news.size(), 3000u);
    for (int i = 0; i < 3000; ++i) ASSERT_EQ(news[i], "n" + std::to_string(i) + ":" + std::to_string(i));
}

TEST_F(ChangesEndpointTest, aLinkThatWentWithAnObjectStaysGoneWhenTheObjectComesAgain) {
    auto tag = [](const NS::Dictionary& relationships = {}) {
        return transaction("INSERT_XACTION", "Tag", "t", "t", relationships);
    };
    TestClient a = client("A");
    a.cycle({insertOf("n", "one", {{"tags", toMany("tags", "Tag", {"t"})}}), tag()});
    a.cycle({transaction("DELETE_XACTION", "Tag", "t")});
    a.cycle({tag()});
    a.cycle({tag({{"notes", toMany("notes", "Note", {})}})});  // the other end is known from now on
    for (const auto& member : client("B").cycle()) {
        if (*member["xaction_object_guid"].asString() != "n") continue;
        const NS::Dictionary* computed = member["computed_relationships"].asDictionary();
        ASSERT_TRUE(computed);
        EXPECT_EQ((*(*computed)["tags"].asDictionary())["destination_objects"], NS::Value(NS::Array()));
    }
}

}  // namespace
}  // namespace velkor::service
