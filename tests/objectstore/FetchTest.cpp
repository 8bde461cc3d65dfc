#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "objectstore/ManagedObjectID.h"
#include "tests/objectstore/ContextFixture.h"

namespace velkor::test {

using namespace NS;

namespace {

using Comparison = Predicate::Comparison;

class FetchTest : public ContextFixture {
protected:
    /// The guids in the request's order.
    static std::string run(const ContextRef& context, const FetchRequest& request) {
        std::string text;
        const auto found = context->executeFetchRequest(request);
        if (!found) return "error " + std::to_string(found.error().code());
        for (const ObjectRef& object : found.value())
            text += (text.empty() ? "" : " ") + object->valueForKey("guid").stringOr("nil");
        return text;
    }

    ContextRef m_context = newContext();
};

TEST_F(FetchTest, ValuesThatCannotBeSavedHaveTheirPlaceInTheOrder) {
    for (int i = 0; i < 200; ++i)
        set(insert(m_context, "Note", std::to_string(1000 - i)), "score", i % 3 == 0 ? std::nan("") : double(1000 - i));
    FetchRequest request(&entity("Note"));
    request.sortDescriptors = {{"score", true}};
    const auto found = m_context->executeFetchRequest(request);
    ASSERT_TRUE(found.ok());
    ASSERT_EQ(found.value().size(), 200u);
    const auto isNumber = [](const ObjectRef& note) { return !std::isnan(*get(note, "score").asDouble()); };
    const auto first = std::ranges::find_if(found.value(), isNumber);
    EXPECT_EQ(first - found.value().begin(), 67);
    EXPECT_TRUE(std::is_sorted(first, found.value().end(), [](const ObjectRef& a, const ObjectRef& b) {
        return *get(a, "score").asDouble() < *get(b, "score").asDouble();
    }));
}

TEST_F(FetchTest, DecimalsAreSortedByAllTheirDigits) {
    const ObjectRef ledger = insert(m_context, "Ledger", "l");
    const char* const amounts[] = {"12345678901234567890.07", "-3", "12345678901234567890.05", "0.5", "12345678901234567890.060"};
    FetchRequest request(&entity("Entry"));
    request.sortDescriptors = {{"amount", true}};
    for (const char* amount : amounts) {
        const ObjectRef entry = insert(m_context, "Entry", amount);
        set(entry, "amount", Value::decimal(amount));
        set(entry, "ledger", ledger);
    }
    const std::string sorted = "-3 0.5 12345678901234567890.05 12345678901234567890.060 12345678901234567890.07";
    EXPECT_EQ(run(m_context, request), sorted) << "unsaved";
    save(m_context);
    EXPECT_EQ(run(m_context, request), sorted);
}

TEST_F(FetchTest, MemoryJudgesAsTheStoreDoes) {
    const ObjectRef f = insert(m_context, "Folder", "f");
    const Value titles[] = {Value(), "", "a", "b", "Ä"};
    const Value ratings[] = {Value(), -1, 0, 7};
    const Value scores[] = {Value(), 0.5, 7.0};
    int number = 0;
    for (const Value& title : titles) {
        for (const Value& rating : ratings) {
            for (const Value& score : scores) {
                const ObjectRef note = insert(m_context, "Note", std::to_string(number));
                set(note, "title", title);
                set(note, "rating", rating);
                set(note, "score", score);
                if (number % 2) set(note, "flag", number % 4 == 1);
                if (number++ % 3 == 0) set(note, "folder", f);
            }
        }
    }
    save(m_context);

    std::vector<Predicate> predicates;
    for (Comparison comparison : {Comparison::equal, Comparison::notEqual, Comparison::less, Comparison::lessOrEqual,
                                  Comparison::greater, Comparison::greaterOrEqual}) {
        for (const Value& title : titles) predicates.push_back(Predicate::compare("title", comparison, title));
        for (const Value& rating : ratings) predicates.push_back(Predicate::compare("rating", comparison, rating));
        predicates.push_back(Predicate::compare("rating", comparison, 0.5));
        predicates.push_back(Predicate::compare("score", comparison, 7));
        predicates.push_back(Predicate::compare("flag", comparison, true));
    }
    for (const Value& operand : {Value(), Value(f), Value(std::const_pointer_cast<ManagedObjectID>(f->objectID()))}) {
        predicates.push_back(Predicate::equal("folder", operand));
        predicates.push_back(Predicate::compare("folder", Comparison::notEqual, operand));
    }
    predicates.push_back(Predicate::in("folder", Array{Value(f)}));
    predicates.push_back(Predicate::in("title", Array{"a", "x", ""}));
    predicates.push_back(Predicate::in("rating", Array{7, -1, 100000}));
    predicates.push_back(Predicate::in("title", Array{}));
    const std::size_t simple = predicates.size();
    for (std::size_t i = 0; i + 7 < simple; ++i) {
        predicates.push_back(Predicate::negation(predicates[i]));
        predicates.push_back(Predicate::all({predicates[i], predicates[i + 7]}));
        predicates.push_back(Predicate::any({predicates[i], Predicate::negation(predicates[i + 7])}));
    }

    const auto notes = fetch(m_context, "Note");
    for (const Predicate& predicate : predicates) {
        std::vector<ObjectRef> expected;
        std::copy_if(notes.begin(), notes.end(), std::back_inserter(expected),
                     [&](const ObjectRef& note) { return predicate.evaluate(*note); });
        EXPECT_EQ(guids(fetch(m_context, "Note", predicate)), guids(expected)) << predicate.description();
    }
    // The same once more, all of it unsaved.
    std::vector<std::string> fromStore;
    for (const Predicate& predicate : predicates) fromStore.push_back(guids(fetch(m_context, "Note", predicate)));
    for (const ObjectRef& note : notes) set(note, "body", "changed");
    for (std::size_t i = 0; i < predicates.size(); ++i) {
        EXPECT_EQ(guids(fetch(m_context, "Note", predicates[i])), fromStore[i]) << predicates[i].description();
        FetchRequest request(&entity("Note"));
        request.predicate = predicates[i];
        EXPECT_EQ(guids(fetch(m_context, "Note", predicates[i])).empty(), m_context->countForFetchRequest(request).value() == 0);
    }
}

TEST_F(FetchTest, SeesUnsavedWorkInOrderAndWithinTheLimit) {
    for (int i = 0; i < 6; ++i) set(insert(m_context, "Note", std::to_string(i)), "rating", i);
    save(m_context);
    const auto held = fetch(m_context, "Note");
    set(held[0], "rating", 9);
    set(held[4], "rating", -1);
    m_context->deleteObject(held[2]);
    set(insert(m_context, "Note", "new"), "rating", 4);
    insert(m_context, "Note", "none");

    FetchRequest request(&entity("Note"));
    request.sortDescriptors = {{"rating", true}};
    EXPECT_EQ(run(m_context, request), "none 4 1 3 new 5 0");
    request.sortDescriptors = {{"rating", false}};
    EXPECT_EQ(run(m_context, request), "0 5 new 3 1 4 none");
    request.limit = 2;
    EXPECT_EQ(run(m_context, request), "0 5");
    request.predicate = Predicate::compare("rating", Comparison::less, 5);
    EXPECT_EQ(run(m_context, request), "new 3");
    EXPECT_EQ(m_context->countForFetchRequest(request).value(), 2u);
    request.limit.reset();
    EXPECT_EQ(m_context->countForFetchRequest(request).value(), 4u);
    save(m_context);
    EXPECT_EQ(run(m_context, request), "new 3 1 4");
    EXPECT_EQ(m_context->countForFetchRequest(request).value(), 4u);
}

TEST_F(FetchTest, BringsUnchangedObjectsUpToDate) {
    set(insert(m_context, "Note", "n"), "title", "old");
    set(insert(m_context, "Note", "m"), "title", "old");
    save(m_context);
    const ObjectRef n = object(m_context, "Note", "n"), m = object(m_context, "Note", "m");
    set(m, "body", "mine");
    EXPECT_EQ(guids(n, "tags"), "");
    const ContextRef other = newContext();
    for (const char* guid : {"n", "m"}) set(object(other, "Note", guid), "title", "new");
    add(object(other, "Note", "n"), "tags", insert(other, "Tag", "t"));
    save(other);
    EXPECT_EQ(text(n, "title") + guids(n, "tags"), "old") << "not before it is fetched";
    EXPECT_EQ(fetch(m_context, "Note").size(), 2u);
    EXPECT_EQ(text(n, "title") + guids(n, "tags"), "newt");
    EXPECT_EQ(text(m, "title") + text(m, "body"), "oldmine");
}

TEST_F(FetchTest, RequestsThatMakeNoSenseFail) {
    const std::string badRequest = "error " + std::to_string(StoreError::badRequest);
    EXPECT_EQ(run(m_context, FetchRequest(nullptr)), badRequest);
    FetchRequest request(&entity("Note"));
    request.predicate = Predicate::equal("colour", "red");
    EXPECT_EQ(run(m_context, request), badRequest);
    insert(m_context, "Note", "unsaved");
    EXPECT_EQ(run(m_context, request), badRequest);
    EXPECT_EQ(m_context->countForFetchRequest(request).error().code(), StoreError::badRequest);
    request.predicate = Predicate::always();
    request.relationshipsToPrefetch = {"colours"};
    EXPECT_EQ(run(m_context, request), badRequest);
}

TEST_F(FetchTest, PreloadedObjectsAreFoundWithoutTheStore) {
    for (const char* guid : {"a", "b", "twin", "twin"}) insert(m_context, "Note", guid);
    save(m_context);
    const auto preload = [&] {
        auto loaded =
            m_context->preloadObjects(entity("Note"), *entity("Note").attributeNamed("guid"), {"a", "b", "c", "d", "twin"});
        return std::move(loaded).value();
    };
    const auto found = [&](std::string_view guid) { return guids(fetch(m_context, "Note", Predicate::equal("guid", guid))); };
    ObjectSet held = preload();
    EXPECT_EQ(guids(held), "a b twin twin");
    const ContextRef other = newContext();
    insert(other, "Note", "c");
    insert(other, "Note", "e");
    save(other);
    EXPECT_EQ(found("a") + found("c"), "a") << "what was remembered holds until the next save";
    EXPECT_EQ(found("twin"), "twin twin");
    EXPECT_EQ(found("e"), "e") << "what was not asked for is looked up";
    insert(m_context, "Note", "d");
    set(held.allObjects()[0], "guid", "c");
    m_context->deleteObject(held.allObjects()[1]);
    EXPECT_EQ(found("a") + found("b") + found("c") + found("d"), "cd");
    m_context->rollback();
    EXPECT_EQ(found("a") + found("b") + found("c") + found("d"), "abc");
    held = preload();
    insert(m_context, "Note", "d");
    save(m_context);
    EXPECT_EQ(found("d"), "d");
    held = preload();
    held = {};
    EXPECT_EQ(found("a"), "a") << "found even when nobody held it";

    held = preload();
    const ContextRef third = newContext();
    third->deleteObject(fetch(third, "Note", Predicate::equal("guid", "c")).at(0));
    save(third);
    EXPECT_EQ(found("c"), "c");
    m_context->forgetPreloaded();
    EXPECT_EQ(found("c"), "") << "the store is asked again";
}

TEST_F(FetchTest, PrefetchedDestinationsAreThere) {
    std::vector<ObjectRef> folders, tags;
    for (int i = 0; i < 5; ++i) {
        folders.push_back(insert(m_context, "Folder", "f" + std::to_string(i)));
        tags.push_back(insert(m_context, "Tag", "t" + std::to_string(i)));
    }
    for (int i = 0; i < 40; ++i) {
        const ObjectRef note = insert(m_context, "Note", "n" + std::to_string(i));
        if (i % 4) set(note, "folder", folders[i % 4]);
        if (i % 2) add(note, "tags", tags[i % 5]);
    }
    save(m_context);
    const ContextRef other = newContext();
    FetchRequest request(&entity("Note"));
    request.relationshipsToPrefetch = {"folder", "tags"};
    const auto notes = other->executeFetchRequest(request).value();
    m_store.reset();
    for (const ObjectRef& note : notes) {
        const int i = std::stoi(text(note, "guid").substr(1));
        const auto folder = get(note, "folder").as<ManagedObject>();
        EXPECT_EQ(folder ? folder->isFault() : false, false);
        EXPECT_EQ(guids(note, "folder"), i % 4 ? "f" + std::to_string(i % 4) : "");
        const auto tagged = get(note, "tags").as<ObjectSet>();
        for (const ObjectRef& tag : *tagged) EXPECT_FALSE(tag->isFault());
        EXPECT_EQ(guids(note, "tags"), i % 2 ? "t" + std::to_string(i % 5) : "");
    }
}

TEST_F(FetchTest, ValuesWithoutObjects) {
    const ObjectRef f = insert(m_context, "Folder", "f");
    for (int i = 0; i < 3; ++i) {
        const ObjectRef note = insert(m_context, "Note", std::to_string(i));
        set(note, "rating", i);
        if (i) set(note, "folder", f);
    }
    save(m_context);
    FetchRequest request(&entity("Note"));
    request.predicate = Predicate::equal("folder", f);
    request.sortDescriptors = {{"rating", false}};
    const std::vector<std::string> names{"guid", "rating"};
    std::string text;
    ASSERT_TRUE(m_context
                    ->enumerateValues(request, names,
                                      [&](std::span<const Value> values) {
                                          text += values[0].stringOr("") + ":" + values[1].description() + " ";
                                      })
                    .ok());
    EXPECT_EQ(text, "2:2 1:1 ");
}

TEST_F(FetchTest, FaultsFireTogether) {
    std::vector<std::shared_ptr<const ManagedObjectID>> identifiers;
    for (int i = 0; i < 5; ++i) insert(m_context, "Note", std::to_string(i));
    save(m_context);
    for (const ObjectRef& note : fetch(m_context, "Note")) identifiers.push_back(note->objectID());
    const ContextRef other = newContext();
    std::vector<ObjectRef> faults;
    for (const auto& identifier : identifiers) faults.push_back(other->objectWithID(*identifier));
    faults.push_back(other->objectWithID(ManagedObjectID(entity("Note"), 4711)));
    for (const ObjectRef& fault : faults) EXPECT_TRUE(fault->isFault());
    EXPECT_EQ(text(faults[2], "guid"), "2");
    for (const ObjectRef& fault : faults) EXPECT_FALSE(fault->isFault());
    EXPECT_EQ(text(faults[5], "guid"), "nil");
    EXPECT_TRUE(faults[5]->isDeleted()) << "there is no such row";
    other->refreshObject(faults[0], false);
    EXPECT_TRUE(faults[0]->isFault());
    EXPECT_EQ(text(faults[0], "guid"), "0");
}

}  // namespace

}  // namespace velkor::test
