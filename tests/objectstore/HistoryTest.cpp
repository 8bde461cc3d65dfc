#include "objectstore/History.h"

#include "tests/objectstore/StoreFixture.h"

namespace velkor::test {

namespace {

class HistoryTest : public StoreFixture {
protected:
    static StoreOptions keeping(std::vector<std::string> attributes) {
        StoreOptions options;
        options.history = true;
        options.historyKeptAttributes = std::move(attributes);
        return options;
    }
    std::int64_t append(StoreSession& session, std::string_view name, RowKey key, ChangeKind kind,
                        const std::map<std::string, Value>& values) {
        EXPECT_OK(session.begin());
        const std::int64_t sequence =
            must(session.appendHistory({Date(100.5), "writer"}, entity(name), key, kind, row(entity(name), values)));
        EXPECT_OK(session.commit());
        return sequence;
    }
    static std::vector<HistoryRow> after(const PersistentStoreCoordinator& coordinator, std::int64_t sequence) {
        std::vector<HistoryRow> found;
        EXPECT_OK(coordinator.historyAfter(sequence, [&](HistoryRow&& row) { found.push_back(std::move(row)); }));
        return found;
    }
};

TEST_F(HistoryTest, RowsComeBackAsTheyWereWritten) {
    const auto store = open(keeping({"guid", "lent", "printed"}));
    auto session = must(store->session());
    EXPECT_TRUE(store->keepsHistory());
    EXPECT_EQ(append(*session, "Book", 7, ChangeKind::inserted,
                     {{"guid", "g"}, {"lent", true}, {"printed", Date(2.5)}, {"title", "not kept"}}),
              1);
    store->setHistoryMark(false);
    EXPECT_EQ(append(*session, "Author", 8, ChangeKind::deleted, {{"guid", "h"}}), 2);

    const auto found = after(*store, 0);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].sequence, 1);
    EXPECT_EQ(found[0].time, Date(100.5));
    EXPECT_EQ(found[0].entityName, "Book");
    EXPECT_EQ(found[0].key, 7);
    EXPECT_EQ(found[0].kind, ChangeKind::inserted);
    EXPECT_EQ(found[0].author, "writer");
    EXPECT_EQ(found[0].process, store->historyProcess());
    EXPECT_TRUE(found[0].marked);
    EXPECT_EQ(found[0].kept, (Dictionary{{"guid", "g"}, {"lent", true}, {"printed", Date(2.5)}}));
    EXPECT_EQ(found[0].kept["lent"].kind(), Value::Kind::boolean);
    EXPECT_EQ(found[1].kind, ChangeKind::deleted);
    EXPECT_FALSE(found[1].marked);
    EXPECT_EQ(found[1].kept, (Dictionary{{"guid", "h"}}));
    EXPECT_EQ(after(*store, 1).size(), 1u);

    const auto second = open(keeping({"guid", "lent", "printed"}));
    EXPECT_NE(second->historyProcess(), store->historyProcess());
    EXPECT_EQ(after(*second, 0).size(), 2u);
}

TEST_F(HistoryTest, SequencesAreNeverUsedTwice) {
    auto store = open(keeping({}));
    auto session = must(store->session());
    for (int i = 0; i < 3; ++i) append(*session, "Book", 1, ChangeKind::updated, {});
    ASSERT_OK(store->purgeHistory(2));
    EXPECT_EQ(after(*store, 0).size(), 1u);
    ASSERT_OK(store->purgeHistory(1000));
    EXPECT_TRUE(after(*store, 0).empty());
    EXPECT_EQ(must(store->newestHistorySequence()), 3);
    session.reset();
    store = open(keeping({}));
    session = must(store->session());
    EXPECT_EQ(append(*session, "Book", 1, ChangeKind::updated, {}), 4);

    ASSERT_OK(session->begin());
    EXPECT_EQ(must(session->appendHistory({}, entity("Book"), 1, ChangeKind::updated, {})), 5);
    session->rollback();
    EXPECT_EQ(must(store->newestHistorySequence()), 4);
    EXPECT_EQ(append(*session, "Book", 1, ChangeKind::updated, {}), 5);  // its first bearer never was
}

TEST_F(HistoryTest, ALargeSaveIsReadAndPurgedChangeByChange) {
    const auto store = open(keeping({"guid"}));
    auto session = must(store->session());
    constexpr int changes = 600;
    ASSERT_OK(session->begin());
    for (int i = 1; i <= changes; ++i) {
        const auto values = row(entity("Book"), {{"guid", "g" + std::to_string(i)}});
        // The author changes in the middle of the transaction.
        const SaveStamp save{Date(100), i <= 400 ? "one" : "two"};
        EXPECT_EQ(must(session->appendHistory(save, entity("Book"), i, ChangeKind::inserted, values)), i);
    }
    ASSERT_OK(session->commit());
    for (const int purged : {0, 1, 300, 400, 599}) {
        ASSERT_OK(store->purgeHistory(purged));
        const auto found = after(*store, 0);
        ASSERT_EQ(found.size(), static_cast<std::size_t>(changes - purged));
        for (const HistoryRow& each : found) {
            EXPECT_EQ(each.sequence, each.key);
            EXPECT_EQ(each.kept["guid"], Value("g" + std::to_string(each.key)));
            EXPECT_EQ(each.author, each.key <= 400 ? "one" : "two");
        }
        EXPECT_EQ(after(*store, 500).size(), static_cast<std::size_t>(changes - std::max(purged, 500)));
    }
}

TEST_F(HistoryTest, RowsThatNobodyWantsAreNotRead) {
    const auto store = open(keeping({}));
    auto session = must(store->session());
    for (RowKey key = 1; key <= 3; ++key) append(*session, "Book", key, ChangeKind::updated, {});
    std::vector<std::int64_t> offered, read;
    EXPECT_OK(store->historyAfter(
        1, [&](HistoryRow&& row) { read.push_back(row.sequence); },
        [&](const HistoryHead& head) {
            EXPECT_EQ(head.first, head.last);
            EXPECT_EQ(head.author, "writer");
            offered.push_back(head.last);
            return head.last != 2;
        }));
    EXPECT_EQ(offered, (std::vector<std::int64_t>{2, 3}));
    EXPECT_EQ(read, std::vector<std::int64_t>{3});
}

TEST_F(HistoryTest, WhatAConnectionRemembersYieldsToOtherWriters) {
    const auto store = open(keeping({})), elsewhere = open(keeping({}));
    auto here = must(store->session()), there = must(elsewhere->session());
    std::vector<RowKey> keys;
    std::vector<std::int64_t> sequences;
    const auto write = [&](StoreSession& session, bool kept) {
        ASSERT_OK(session.begin());
        const RowKey key = must(session.insert(entity("Author"), 0, row(entity("Author"), {{"guid", "a"}, {"name", "n"}})));
        const auto sequence = must(session.appendHistory({}, entity("Author"), key, ChangeKind::inserted, {}));
        if (!kept) return session.rollback();
        ASSERT_OK(session.commit());
        keys.push_back(key);
        sequences.push_back(sequence);
    };
    for (StoreSession* session : {here.get(), here.get(), there.get(), here.get(), there.get()}) {
        write(*session, false);
        write(*session, true);
    }
    EXPECT_EQ(keys, (std::vector<RowKey>{1, 2, 3, 4, 5}));
    EXPECT_EQ(sequences, (std::vector<std::int64_t>{1, 2, 3, 4, 5}));
    ASSERT_OK(elsewhere->enableHistory({"guid"}));  // a setting that the next save has to heed
    append(*here, "Author", 1, ChangeKind::updated, {{"guid", "x"}});
    EXPECT_EQ(after(*store, 5).at(0).kept, (Dictionary{{"guid", "x"}}));
}

TEST_F(HistoryTest, WithoutTheOptionThereAreNoRowsUntilItIsEnabled) {
    auto store = open();
    auto session = must(store->session());
    EXPECT_FALSE(store->keepsHistory());
    EXPECT_EQ(append(*session, "Book", 1, ChangeKind::updated, {}), 0);
    EXPECT_EQ(must(store->newestHistorySequence()), 0);

    const auto other = open();
    ASSERT_OK(other->enableHistory({"guid"}));
    EXPECT_TRUE(other->keepsHistory());
    EXPECT_EQ(append(*session, "Book", 1, ChangeKind::updated, {{"guid", "x"}}), 1);  // the other session heeds it too
    EXPECT_TRUE(store->keepsHistory());
    EXPECT_EQ(after(*store, 0).at(0).kept, (Dictionary{{"guid", "x"}}));
    session.reset();
    store = open();  // stays on for the file
    EXPECT_TRUE(store->keepsHistory());
    ASSERT_OK(store->enableHistory({"guid", "title"}));
    session = must(store->session());
    append(*session, "Book", 1, ChangeKind::updated, {{"guid", "x"}, {"title", "t"}});
    const auto found = after(*store, 0);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[0].kept, (Dictionary{{"guid", "x"}}));
    EXPECT_EQ(found[1].kept, (Dictionary{{"guid", "x"}, {"title", "t"}}));
}

class WatchTest : public HistoryTest {
protected:
    void touch(StoreSession& session, std::string_view name, ChangeKind kind, std::vector<std::size_t> attributes = {}) {
        ASSERT_OK(session.begin());
        session.touched(entity(name), kind, attributes);
        ASSERT_OK(session.commit());
    }
};

TEST_F(WatchTest, StampsMoveWithWhatIsWatchedOnly) {
    const auto store = open(), elsewhere = open();
    EXPECT_EQ(must(store->watchStamp("mine")), std::nullopt);
    ASSERT_OK(store->watch("mine", {{"Book", {"guid", "lent"}}}));
    const std::size_t guid = column(entity("Book"), "guid"), lent = column(entity("Book"), "lent"),
                      title = column(entity("Book"), "title");
    auto here = must(store->session());
    auto there = must(elsewhere->session());
    auto stamp = must(store->watchStamp("mine"));
    ASSERT_TRUE(stamp);
    const auto moved = [&] {
        const auto before = std::exchange(stamp, must(store->watchStamp("mine")));
        EXPECT_EQ(stamp, must(elsewhere->watchStamp("mine")));
        return before != stamp;
    };
    touch(*here, "Book", ChangeKind::updated, {title});
    touch(*here, "Author", ChangeKind::inserted);
    EXPECT_FALSE(moved());
    touch(*here, "Book", ChangeKind::updated, {title, lent});
    EXPECT_TRUE(moved());
    touch(*there, "Book", ChangeKind::updated, {guid});
    EXPECT_TRUE(moved());
    touch(*there, "Book", ChangeKind::deleted);
    EXPECT_TRUE(moved());
    touch(*here, "Book", ChangeKind::inserted);
    EXPECT_TRUE(moved());
    ASSERT_OK(here->begin());
    here->touched(entity("Book"), ChangeKind::inserted, {});
    here->rollback();
    EXPECT_FALSE(moved());
    ASSERT_OK(elsewhere->watch("mine", {{"Book", {"guid", "lent"}}}));
    EXPECT_FALSE(moved());  // declared before
    ASSERT_OK(elsewhere->watch("mine", {{"Book", {"title"}}}));
    EXPECT_TRUE(moved());
    touch(*here, "Book", ChangeKind::updated, {title});  // and the first process heeds it
    EXPECT_TRUE(moved());
    EXPECT_EQ(codeOf(store->watch("mine", {{"Nothing", {}}})), StoreError::badRequest);
    EXPECT_EQ(codeOf(store->watch("mine", {{"Book", {"nothing"}}})), StoreError::badRequest);
}

TEST_F(WatchTest, RememberedValuesLiveAsLongAsTheStamp) {
    const auto store = open();
    EXPECT_TRUE(store->rememberedValue("mine").isNil());
    ASSERT_OK(store->watch("mine", {{"Book", {}}}));
    const auto stamp = must(store->watchStamp("mine"));
    store->rememberValue("mine", *stamp, "value");
    EXPECT_EQ(store->rememberedValue("mine"), Value("value"));
    auto session = must(store->session());
    touch(*session, "Author", ChangeKind::inserted);
    EXPECT_EQ(store->rememberedValue("mine"), Value("value"));
    touch(*session, "Book", ChangeKind::inserted);
    EXPECT_TRUE(store->rememberedValue("mine").isNil());
    store->rememberValue("mine", *stamp, "late");  // computed from what was before
    EXPECT_TRUE(store->rememberedValue("mine").isNil());
}

}  // namespace

}  // namespace velkor::test
