#include "objectstore/StoreSession.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "objectstore/ManagedObjectID.h"
#include "platform/base/Exception.h"
#include "tests/objectstore/StoreFixture.h"

namespace velkor::test {

namespace {

using Comparison = Predicate::Comparison;

class StoreSessionTest : public StoreFixture {
protected:
    std::shared_ptr<PersistentStoreCoordinator> m_store = open();
    std::unique_ptr<StoreSession> m_session = must(m_store->session());
    const EntityDescription& m_book = entity("Book");
    const EntityDescription& m_author = entity("Author");

    FetchRequest books(Predicate predicate) const {
        FetchRequest request(&m_book);
        request.predicate = std::move(predicate);
        return request;
    }
};

TEST_F(StoreSessionTest, KeepsEveryTypeExactly) {
    const RowKey author = insert(*m_session, m_author, {{"name", "A"}});
    const std::map<std::string, Value> values{
        {"guid", "8B1F"},
        {"title", "Zürich \xF0\x9F\x93\x9A\n\x01"},
        {"volume", -32768},
        {"pages", 2147483647},
        {"copies", INT64_MIN},
        {"price", Value::decimal("12345678901234567890.050")},
        {"rating", 0.1},
        {"weight", 2.5},
        {"lent", true},
        {"printed", Date(-12345678.123456)},
        {"cover", Data::copyOf(std::string_view("\0\xFF\x01", 3))},
        {"notes", Dictionary{{"list", Array{1, "two", 3.5}}}},
        {"origin", std::make_shared<ManagedObjectID>(m_author, author)},
        {"author", author},
    };
    const RowKey key = insert(*m_session, m_book, values);
    const RowKey empty = insert(*m_session, m_book, {{"title", ""}, {"cover", Data()}});

    const auto found = rows(*m_session, m_book, {key, empty});
    ASSERT_EQ(found.size(), 2u);
    for (const auto& [name, value] : values) {
        const Value& stored = found[0].values[column(m_book, name)];
        EXPECT_EQ(stored.kind(), value.kind()) << name;
        if (name == "origin") {
            EXPECT_EQ(*stored.as<ManagedObjectID>(), ManagedObjectID(m_author, author));
        } else {
            EXPECT_EQ(stored, value) << name;
        }
    }
    EXPECT_EQ(found[0].values[column(m_book, "price")].asDecimal(), "12345678901234567890.050");
    // Empty is not nil.
    EXPECT_EQ(found[1].values[column(m_book, "title")], Value(""));
    EXPECT_EQ(found[1].values[column(m_book, "cover")], Value(Data()));
    EXPECT_TRUE(found[1].values[column(m_book, "guid")].isNil());
    EXPECT_TRUE(found[1].values[column(m_book, "tags")].isNil());
}

TEST_F(StoreSessionTest, RefusesValuesThatCannotBeKept) {
    const struct {
        const char* attribute;
        Value value;
        const char* text;
    } cases[] = {
        {"title", std::string("a\0b", 3), "Book.title is not valid UTF-8 without NUL bytes."},
        {"title", "\xC3(", "Book.title is not valid UTF-8 without NUL bytes."},
        {"title", "\xED\xA0\x80", "Book.title is not valid UTF-8 without NUL bytes."},
        {"title", 5, "Book.title is not a text."},
        {"title", Null(), "Book.title is not a text."},
        {"rating", NAN, "Book.rating is not a finite number."},
        {"rating", INFINITY, "Book.rating is not a finite number."},
        {"weight", 1e39, "Book.weight is too large a number."},
        {"price", NAN, "Book.price is not a finite number."},
        {"price", Value::decimal("1,5"), "Book.price is not a decimal number."},
        {"volume", 32768, "Book.volume is not a whole number of 16 bits."},
        {"pages", -2147483649, "Book.pages is not a whole number of 32 bits."},
        {"copies", 1.5, "Book.copies is not a whole number of 64 bits."},
        {"lent", 2, "Book.lent is not a boolean."},
        {"printed", Date(NAN), "Book.printed is not a finite point in time."},
        {"cover", "text", "Book.cover is not binary data."},
        {"origin", std::make_shared<ManagedObjectID>(m_author, -1), "Book.origin is a temporary object identifier."},
        {"notes", std::make_shared<ManagedObjectID>(m_author, 1), "Book.notes cannot be archived."},
        {"author", 0, "Book.author leads to no row."},
    };
    for (const auto& each : cases) {
        ASSERT_OK(m_session->begin());
        auto outcome = m_session->insert(m_book, 0, row(m_book, {{each.attribute, each.value}}));
        ASSERT_EQ(codeOf(outcome), StoreError::validation) << each.text;
        EXPECT_EQ(outcome.error().localizedDescription(), each.text);
        // Whoever goes on after a failure writes nothing.
        EXPECT_EQ(codeOf(m_session->insert(m_book, 0, row(m_book, {}))), StoreError::validation);
        EXPECT_EQ(codeOf(m_session->commit()), StoreError::validation);
        m_session->rollback();
    }
    ASSERT_OK(m_session->begin());
    auto outcome = m_session->insert(m_author, 0, row(m_author, {}));
    ASSERT_FALSE(outcome);
    EXPECT_EQ(outcome.error().localizedDescription(), "Author.name needs a value.");
    m_session->rollback();
    EXPECT_EQ(must(m_session->count(FetchRequest(&m_book))), 0u);
}

TEST_F(StoreSessionTest, PredicatesFindWhatTheySay) {
    insert(*m_session, m_book,
           {{"title", "a"}, {"pages", 10}, {"price", Value::decimal("9.50")}, {"lent", true}, {"printed", Date(1.5)}});
    insert(*m_session, m_book,
           {{"title", "B"}, {"pages", 20}, {"price", Value::decimal("10")}, {"lent", false}, {"rating", 3.0}});
    insert(*m_session, m_book,
           {{"title", "c'\"\\\n"}, {"pages", 30}, {"price", Value::decimal("-1e2")}, {"cover", Data::copyOf("x")}});
    insert(*m_session, m_book, {});

    const struct {
        Predicate predicate;
        std::set<RowKey> keys;
    } cases[] = {
        {Predicate::always(), {1, 2, 3, 4}},
        {Predicate::equal("title", "a"), {1}},
        {Predicate::equal("title", "A"), {}},
        {Predicate::equal("title", Value()), {4}},
        {Predicate::compare("title", Comparison::notEqual, "a"), {2, 3, 4}},
        {Predicate::compare("title", Comparison::notEqual, Value()), {1, 2, 3}},
        {Predicate::compare("title", Comparison::less, "a"), {2}},
        {Predicate::compare("title", Comparison::less, Value()), {}},
        {Predicate::equal("title", 5), {}},
        {Predicate::compare("title", Comparison::notEqual, 5), {1, 2, 3, 4}},
        {Predicate::equal("title", std::string("a\0", 2)), {}},
        {Predicate::compare("pages", Comparison::greaterOrEqual, 20), {2, 3}},
        {Predicate::compare("pages", Comparison::greater, 19.5), {2, 3}},
        {Predicate::compare("pages", Comparison::less, INT64_MAX), {1, 2, 3}},
        {Predicate::compare("pages", Comparison::lessOrEqual, NAN), {}},
        {Predicate::compare("price", Comparison::greater, Value::decimal("9.5")), {2}},
        {Predicate::equal("price", 9.5), {1}},
        {Predicate::in("price", {Value::decimal("10.00"), -100}), {2, 3}},
        {Predicate::equal("lent", true), {1}},
        {Predicate::equal("lent", 0), {2}},
        {Predicate::equal("rating", 3), {2}},
        {Predicate::equal("printed", Date(1.5)), {1}},
        {Predicate::equal("cover", Data::copyOf("x")), {3}},
        {Predicate::in("title", {"a", "c'\"\\\n", "z"}), {1, 3}},
        {Predicate::in("title", {"a", Value()}), {1, 4}},
        {Predicate::in("title", {}), {}},
        {Predicate::negation(Predicate::in("title", {})), {1, 2, 3, 4}},
        {Predicate::negation(Predicate::compare("pages", Comparison::less, 20)), {2, 3, 4}},
        {Predicate::all({Predicate::equal("lent", true), Predicate::equal("pages", 10)}), {1}},
        {Predicate::any({Predicate::equal("title", "a"), Predicate::equal("pages", 30), Predicate::equal("pages", 20)}),
         {1, 2, 3}},
        {Predicate::all({}), {1, 2, 3, 4}},
        {Predicate::any({}), {}},
        {Predicate::any(std::vector<Predicate>(3000, Predicate::equal("title", "a"))), {1}},
    };
    for (const auto& each : cases) {
        std::set<RowKey> found;
        ASSERT_OK(m_session->fetch(books(each.predicate), [&](StoredRow&& row) { found.insert(row.key); }));
        EXPECT_EQ(found, each.keys) << each.predicate.description().substr(0, 200);
        EXPECT_EQ(must(m_session->count(books(each.predicate))), each.keys.size());
    }
    Predicate deep = Predicate::equal("pages", 1);
    for (int i = 0; i < 200; ++i) deep = Predicate::negation(deep);
    for (const Predicate& bad :
         {Predicate::equal("nothing", 1), Predicate::equal("tags", 1), Predicate::equal("notes", "x"),
          Predicate::equal("author", "x"), deep, Predicate::any(std::vector<Predicate>(40000, Predicate::equal("title", "a")))}) {
        EXPECT_EQ(codeOf(m_session->count(books(bad))), StoreError::badRequest) << bad.description().substr(0, 200);
    }
    EXPECT_EQ(codeOf(m_session->count(FetchRequest(nullptr))), StoreError::badRequest);
    const auto other = libraryModel();
    EXPECT_EQ(codeOf(m_session->count(FetchRequest(other->entityNamed("Book")))), StoreError::badRequest);
}

TEST_F(StoreSessionTest, LongListsFindWhatShortOnesFind) {
    ASSERT_OK(m_session->begin());
    std::vector<RowKey> keys;
    for (int i = 0; i < 3000; ++i) {
        const std::string title = "\"\\\t" + std::to_string(i) + "\xC3\xA4";
        keys.push_back(must(m_session->insert(m_book, 0, row(m_book, {{"guid", title}, {"pages", i}, {"rating", i / 7.0}}))));
    }
    ASSERT_OK(m_session->commit());
    for (const std::size_t count : {std::size_t(1), std::size_t(3), std::size_t(48), std::size_t(49), std::size_t(2000)}) {
        Array guids, pages, ratings;
        std::vector<RowKey> close, scattered;
        for (std::size_t i = 0; i < count; ++i) {
            const auto number = static_cast<std::int64_t>(i * 3000 / count);
            guids.push_back("\"\\\t" + std::to_string(number) + "\xC3\xA4");
            pages.push_back(number);
            ratings.push_back(static_cast<double>(number) / 7.0);
            close.push_back(keys[keys.size() - 1 - i]);
            scattered.push_back(keys[i] + static_cast<RowKey>(i % 2) * 1'000'000);
        }
        EXPECT_EQ(must(m_session->count(books(Predicate::in("guid", guids)))), count);
        EXPECT_EQ(must(m_session->count(books(Predicate::in("pages", pages)))), count);
        EXPECT_EQ(must(m_session->count(books(Predicate::in("rating", ratings)))), count);
        EXPECT_EQ(rows(*m_session, m_book, close).size(), count);
        EXPECT_EQ(rows(*m_session, m_book, scattered).size(), count - count / 2);
    }
}

TEST_F(StoreSessionTest, SortsLimitsAndProjects) {
    for (const char* price : {"10", "9.5", "-3", "1e1"})
        insert(*m_session, m_book, {{"price", Value::decimal(price)}, {"title", price}});
    insert(*m_session, m_book, {{"title", "none"}});
    FetchRequest request(&m_book);
    request.sortDescriptors = {{"price", true}};
    EXPECT_EQ(column(*m_session, request, "title"), (std::vector<Value>{"none", "-3", "9.5", "10", "1e1"}));
    request.sortDescriptors = {{"price", false}, {"title", false}};
    request.limit = 3;
    EXPECT_EQ(column(*m_session, request, "title"), (std::vector<Value>{"1e1", "10", "9.5"}));
    EXPECT_EQ(must(m_session->count(request)), 3u);
    request.limit = 0;
    EXPECT_TRUE(fetch(*m_session, request).empty());

    request.limit.reset();
    request.sortDescriptors = {{"title", true}};
    std::vector<std::string> seen;
    const std::vector<std::string> names{"price", "author"};
    ASSERT_OK(m_session->project(request, names, [&](RowKey key, std::span<const Value> values) {
        seen.push_back(std::to_string(key) + values[0].description() + (values[1].isNil() ? "" : "!"));
    }));
    EXPECT_EQ(seen, (std::vector<std::string>{"3-3", "110", "41e1", "29.5", "5(null)"}));

    request.sortDescriptors = {{"author", true}};
    EXPECT_EQ(codeOf(m_session->count(request)), 0);  // a count needs no order
    EXPECT_EQ(codeOf(m_session->fetch(request, [](StoredRow&&) {})), StoreError::badRequest);
    const std::vector<std::string> unknown{"tags"};
    EXPECT_EQ(codeOf(m_session->project(FetchRequest(&m_book), unknown, [](RowKey, std::span<const Value>) {})),
              StoreError::badRequest);
}

TEST_F(StoreSessionTest, LinksAreSeenFromBothSides) {
    ASSERT_OK(m_session->begin());
    const EntityDescription& tag = entity("Tag");
    std::vector<RowKey> authors, books, tags;
    for (int i = 0; i < 3; ++i) {
        authors.push_back(must(m_session->insert(m_author, 0, row(m_author, {{"name", "n"}}))));
        tags.push_back(must(m_session->insert(tag, 0, row(tag, {}))));
    }
    for (int i = 0; i < 6; ++i)
        books.push_back(must(m_session->insert(m_book, 0, row(m_book, {{"author", authors[static_cast<std::size_t>(i % 2)]}}))));
    const RelationshipDescription& bookTags = *m_book.relationshipNamed("tags");
    const RelationshipDescription& tagBooks = *tag.relationshipNamed("books");
    const RelationshipDescription& related = *m_book.relationshipNamed("related");
    const RelationshipDescription& readers = *m_book.relationshipNamed("readers");
    ASSERT_OK(m_session->link(bookTags, books[0], tags[0]));
    ASSERT_OK(m_session->link(bookTags, books[0], tags[0]));
    ASSERT_OK(m_session->link(tagBooks, tags[1], books[0]));
    ASSERT_OK(m_session->link(tagBooks, tags[1], books[1]));
    ASSERT_OK(m_session->link(related, books[2], books[3]));
    ASSERT_OK(m_session->link(related, books[2], books[2]));
    ASSERT_OK(m_session->link(readers, books[4], authors[2]));
    ASSERT_OK(m_session->unlink(readers, books[4], authors[1]));
    ASSERT_OK(m_session->commit());

    const auto links = [&](const RelationshipDescription& relationship, const std::vector<RowKey>& owners) {
        std::vector<std::pair<RowKey, RowKey>> found;
        EXPECT_OK(m_session->destinations(relationship, owners,
                                          [&](RowKey owner, RowKey destination) { found.emplace_back(owner, destination); }));
        return found;
    };
    using Links = std::vector<std::pair<RowKey, RowKey>>;
    EXPECT_EQ(links(*m_author.relationshipNamed("books"), {authors[1], authors[0], authors[2]}),
              (Links{{1, 1}, {1, 3}, {1, 5}, {2, 2}, {2, 4}, {2, 6}}));
    EXPECT_EQ(links(bookTags, books), (Links{{1, 1}, {1, 2}, {2, 2}}));
    EXPECT_EQ(links(tagBooks, tags), (Links{{1, 1}, {2, 1}, {2, 2}}));
    EXPECT_EQ(links(related, books), (Links{{3, 3}, {3, 4}, {4, 3}}));
    EXPECT_EQ(links(readers, books), (Links{{5, 3}}));
    EXPECT_EQ(codeOf(m_session->destinations(*m_book.relationshipNamed("author"), books, [](RowKey, RowKey) {})),
              StoreError::badRequest);

    ASSERT_OK(m_session->begin());
    ASSERT_OK(m_session->unlink(related, books[3], books[2]));
    ASSERT_OK(m_session->unlink(bookTags, books[1], tags[1]));
    ASSERT_OK(m_session->commit());
    EXPECT_EQ(links(related, books), (Links{{3, 3}}));
    EXPECT_EQ(links(tagBooks, tags), (Links{{1, 1}, {2, 1}}));
}

TEST_F(StoreSessionTest, RemovalLeavesNoLinksBehind) {
    const RowKey author = insert(*m_session, m_author, {{"name", "n"}});
    const RowKey book = insert(*m_session, m_book, {{"author", author}});
    const RowKey other = insert(*m_session, m_book, {});
    ASSERT_OK(m_session->begin());
    ASSERT_OK(m_session->link(*m_book.relationshipNamed("readers"), book, author));
    ASSERT_OK(m_session->link(*m_book.relationshipNamed("related"), book, other));
    ASSERT_OK(m_session->commit());

    ASSERT_OK(m_session->begin());
    EXPECT_EQ(must(m_session->remove(m_author, author, -1)), WriteOutcome::written);
    EXPECT_EQ(must(m_session->remove(m_book, other, -1)), WriteOutcome::written);
    ASSERT_OK(m_session->commit());
    const auto left = rows(*m_session, m_book, {book});
    ASSERT_EQ(left.size(), 1u);
    EXPECT_TRUE(left[0].values[column(m_book, "author")].isNil());
    EXPECT_EQ(left[0].version, 1);  // the saving context's own changes must still find the row as they know it
    for (const char* name : {"readers", "related"}) {
        const std::vector<RowKey> owners{book};
        ASSERT_OK(
            m_session->destinations(*m_book.relationshipNamed(name), owners, [&](RowKey, RowKey) { ADD_FAILURE() << name; }));
    }
}

TEST_F(StoreSessionTest, UpdatesTellConflictsFromMissingRows) {
    const RowKey key = insert(*m_session, m_book, {{"title", "old"}, {"pages", 1}});
    const std::size_t title = column(m_book, "title"), pages = column(m_book, "pages");
    const std::vector<std::size_t> changed{title}, both{title, pages}, none, linksOnly{column(m_book, "tags")};
    const auto values = row(m_book, {{"title", "new"}, {"pages", 2}});
    ASSERT_OK(m_session->begin());
    EXPECT_EQ(must(m_session->update(m_book, key, 1, changed, values)), WriteOutcome::written);
    EXPECT_EQ(must(m_session->update(m_book, key, 1, both, values)), WriteOutcome::changedSince);
    EXPECT_EQ(must(m_session->update(m_book, key, 2, none, values)), WriteOutcome::written);
    EXPECT_EQ(must(m_session->update(m_book, key, 3, linksOnly, values)), WriteOutcome::written);
    EXPECT_EQ(must(m_session->update(m_book, key + 1, -1, changed, values)), WriteOutcome::missing);
    EXPECT_EQ(must(m_session->remove(m_book, key, 3)), WriteOutcome::changedSince);
    EXPECT_EQ(must(m_session->remove(m_book, key + 1, 3)), WriteOutcome::missing);
    ASSERT_OK(m_session->commit());
    const auto found = rows(*m_session, m_book, {key});
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].version, 4);
    EXPECT_EQ(found[0].values[title], Value("new"));
    EXPECT_EQ(found[0].values[pages], Value(1));
}

TEST_F(StoreSessionTest, KeysAreNeverUsedTwice) {
    const RowKey first = insert(*m_session, m_book, {});
    const RowKey reserved = must(m_session->reserveKeys(m_book, 10));
    EXPECT_EQ(reserved, first + 1);
    const RowKey second = insert(*m_session, m_book, {});
    EXPECT_EQ(second, reserved + 10);

    ASSERT_OK(m_session->begin());
    const RowKey lost = must(m_session->insert(m_book, 0, row(m_book, {})));
    EXPECT_EQ(must(m_session->insert(m_book, reserved + 3, row(m_book, {}))), reserved + 3);
    for (const RowKey key : {second, lost}) EXPECT_EQ(must(m_session->remove(m_book, key, -1)), WriteOutcome::written);
    ASSERT_OK(m_session->commit());

    m_session.reset();
    m_store.reset();
    m_store = open();
    m_session = must(m_store->session());
    EXPECT_GT(insert(*m_session, m_book, {}), lost);
}

TEST_F(StoreSessionTest, RollbackAndDestructionUndoTheTransaction) {
    ASSERT_OK(m_session->begin());
    must(m_session->insert(m_book, 0, row(m_book, {})));
    m_session->rollback();
    ASSERT_OK(m_session->begin());
    must(m_session->insert(m_book, 0, row(m_book, {})));
    m_session.reset();
    m_session = must(m_store->session());
    EXPECT_EQ(must(m_session->count(FetchRequest(&m_book))), 0u);
    EXPECT_THROW(m_session->insert(m_book, 0, row(m_book, {})).ok(), AssertionFailure);
}

TEST_F(StoreSessionTest, ReadersSeeTheCommittedStateAndMayNest) {
    for (int i = 0; i < 5; ++i) insert(*m_session, m_book, {{"pages", i}});
    auto writer = must(m_store->session());
    ASSERT_OK(writer->begin());
    must(writer->insert(m_book, 0, row(m_book, {})));
    EXPECT_EQ(must(m_session->count(FetchRequest(&m_book))), 5u);  // and does not wait
    ASSERT_OK(writer->commit());
    std::size_t pairs = 0;
    ASSERT_OK(m_session->fetch(FetchRequest(&m_book), [&](StoredRow&&) {
        EXPECT_OK(m_session->fetch(FetchRequest(&m_book), [&](StoredRow&&) { ++pairs; }));
    }));
    EXPECT_EQ(pairs, 36u);
}

}  // namespace

}  // namespace velkor::test
