#include <gtest/gtest.h>

#include "tests/objectstore/ContextFixture.h"

namespace velkor::test {

using namespace NS;

namespace {

class RelationshipTest : public ContextFixture {
protected:
    /// Saves, forgets everything, and reads the named objects anew.
    void saveAndForget() {
        save(m_context);
        m_context = newContext();
    }
    ObjectRef folder(std::string_view guid) { return object(m_context, "Folder", guid); }
    ObjectRef note(std::string_view guid) { return object(m_context, "Note", guid); }
    ObjectRef tag(std::string_view guid) { return object(m_context, "Tag", guid); }

    ContextRef m_context = newContext();
};

TEST_F(RelationshipTest, BothSidesOfAOneToManyKeepStep) {
    const ObjectRef a = insert(m_context, "Folder", "a"), b = insert(m_context, "Folder", "b");
    const ObjectRef n = insert(m_context, "Note", "n"), m = insert(m_context, "Note", "m");
    set(n, "folder", a);
    add(a, "notes", m);
    EXPECT_EQ(guids(a, "notes"), "m n");
    EXPECT_EQ(guids(m, "folder"), "a");
    set(b, "notes", std::make_shared<ObjectSet>(ObjectSet{n}));
    EXPECT_EQ(guids(a, "notes") + "/" + guids(b, "notes") + "/" + guids(n, "folder"), "m/n/b");
    remove(a, "notes", n);  // is not there
    EXPECT_EQ(guids(n, "folder"), "b");
    saveAndForget();
    EXPECT_EQ(guids(folder("a"), "notes") + "/" + guids(folder("b"), "notes"), "m/n");
    set(folder("b"), "notes", Value());
    saveAndForget();
    EXPECT_EQ(guids(folder("b"), "notes") + guids(note("n"), "folder"), "");
}

TEST_F(RelationshipTest, ChangesBeforeTheLinksAreLoaded) {
    const ObjectRef a = insert(m_context, "Folder", "a"), b = insert(m_context, "Folder", "b"),
                    n = insert(m_context, "Note", "n");
    set(n, "folder", a);
    add(n, "tags", insert(m_context, "Tag", "t"));
    add(n, "tags", insert(m_context, "Tag", "u"));
    saveAndForget();
    set(note("n"), "folder", folder("b"));
    set(insert(m_context, "Note", "m"), "folder", folder("a"));
    EXPECT_EQ(guids(folder("a"), "notes") + "/" + guids(folder("b"), "notes"), "m/n");
    remove(tag("t"), "notes", note("n"));
    add(note("m"), "tags", tag("u"));
    EXPECT_EQ(guids(note("n"), "tags") + "/" + guids(tag("u"), "notes"), "u/m n");
    saveAndForget();
    EXPECT_EQ(guids(folder("a"), "notes") + "/" + guids(folder("b"), "notes"), "m/n");
    EXPECT_EQ(guids(note("n"), "tags") + "/" + guids(tag("u"), "notes") + "/" + guids(tag("t"), "notes"), "u/m n/");
}

TEST_F(RelationshipTest, OneToOnePartnersLeaveTheirFormerOnes) {
    const ObjectRef n = insert(m_context, "Note", "n"), m = insert(m_context, "Note", "m");
    const ObjectRef s = insert(m_context, "Summary", "s"), t = insert(m_context, "Summary", "t");
    const auto state = [&] { return guids(n, "summary") + guids(m, "summary") + "/" + guids(s, "note") + guids(t, "note"); };
    set(n, "summary", s);
    set(t, "note", m);
    EXPECT_EQ(state(), "st/nm");
    set(n, "summary", t);
    EXPECT_EQ(state(), "t/n");
    set(s, "note", n);
    EXPECT_EQ(state(), "s/n");
    set(s, "note", Value());
    EXPECT_EQ(state(), "/");
}

TEST_F(RelationshipTest, ItsOwnInverseAndNoInverse) {
    const ObjectRef n = insert(m_context, "Note", "n"), m = insert(m_context, "Note", "m"), t = insert(m_context, "Tag", "t");
    add(n, "related", m);
    add(n, "related", n);
    add(n, "readers", t);
    EXPECT_EQ(guids(n, "related") + "/" + guids(m, "related"), "m n/n");
    saveAndForget();
    EXPECT_EQ(guids(note("n"), "related") + "/" + guids(note("m"), "related") + "/" + guids(note("n"), "readers"), "m n/n/t");
    remove(note("m"), "related", note("n"));
    remove(note("n"), "related", note("n"));
    remove(note("n"), "readers", tag("t"));
    saveAndForget();
    EXPECT_EQ(guids(note("n"), "related") + guids(note("m"), "related") + guids(note("n"), "readers"), "");
}

TEST_F(RelationshipTest, LinksToObjectsGivenUpLeadNowhere) {
    const ObjectRef n = insert(m_context, "Note", "n"), kept = insert(m_context, "Tag", "kept");
    save(m_context);
    const ObjectRef t = insert(m_context, "Tag", "t");
    add(n, "readers", t);
    m_context->deleteObject(t);
    const ObjectRef other = insert(m_context, "Folder", "other");
    EXPECT_EQ(guids(n, "readers"), "");
    m_context->refreshObject(n, false);
    EXPECT_FALSE(n->hasChanges());
    const ObjectRef u = insert(m_context, "Tag", "u");
    add(n, "readers", u);
    add(n, "readers", kept);
    m_context->deleteObject(u);
    const ContextRef theirs = newContext();
    SaveLog log(theirs);
    theirs->deleteObject(object(theirs, "Tag", "kept"));
    save(theirs);
    m_context->setMergePolicy(MergePolicy::storeWins);
    m_context->mergeChanges(*log.last().record);
    save(m_context);
    EXPECT_EQ(tamper("SELECT count(*) FROM \"j_Note.readers\""), "0");
    EXPECT_EQ(guids(n, "readers"), "");
}

TEST_F(RelationshipTest, AssignmentMarksBothSidesAndUndoingItNone) {
    const ObjectRef a = insert(m_context, "Folder", "a"), b = insert(m_context, "Folder", "b"),
                    n = insert(m_context, "Note", "n");
    const ObjectRef t = insert(m_context, "Tag", "t");
    set(n, "folder", a);
    save(m_context);
    SaveLog log(m_context);
    set(n, "folder", b);
    set(n, "folder", a);
    add(n, "tags", t);
    remove(t, "notes", n);
    save(m_context);
    EXPECT_TRUE(log.saves().empty());
    set(n, "folder", b);
    EXPECT_TRUE(a->isUpdated() && b->isUpdated() && n->isUpdated());
    save(m_context);
    EXPECT_EQ(guids(log.last().updated), "a b n");
    add(n, "tags", t);
    save(m_context);
    EXPECT_EQ(guids(log.last().updated), "n t");
    set(n, "tags", std::make_shared<ObjectSet>(ObjectSet{t}));
    set(n, "folder", b);
    EXPECT_FALSE(m_context->hasChanges());
}

TEST_F(RelationshipTest, DeleteRules) {
    const ObjectRef outer = insert(m_context, "Folder", "outer"), inner = insert(m_context, "Folder", "inner");
    const ObjectRef n = insert(m_context, "Note", "n"), s = insert(m_context, "Summary", "s"), t = insert(m_context, "Tag", "t");
    set(inner, "parent", outer);
    set(n, "folder", inner);
    set(n, "summary", s);
    add(n, "tags", t);
    saveAndForget();
    SaveLog log(m_context);
    m_context->deleteObject(folder("outer"));
    EXPECT_FALSE(folder("inner"));
    save(m_context);
    EXPECT_EQ(guids(log.last().deleted), "inner outer");
    EXPECT_EQ(guids(log.last().updated), "") << "what a rule nullifies is not told";
    EXPECT_EQ(guids(note("n"), "folder"), "");
    EXPECT_EQ(guids(stored("Note", "n"), "folder"), "");
    m_context->deleteObject(note("n"));
    save(m_context);
    EXPECT_EQ(guids(log.last().deleted), "n s");
    EXPECT_EQ(guids(stored("Tag", "t"), "notes"), "");
}

TEST_F(RelationshipTest, WhatTheUserChangedBesideARuleIsTold) {
    const ObjectRef a = insert(m_context, "Folder", "a"), b = insert(m_context, "Folder", "b");
    const ObjectRef n = insert(m_context, "Note", "n"), m = insert(m_context, "Note", "m"), o = insert(m_context, "Note", "o");
    for (const ObjectRef& each : {n, m, o}) set(each, "folder", a);
    save(m_context);
    SaveLog log(m_context);
    set(n, "title", "edited");
    set(m, "folder", b);
    m_context->deleteObject(a);
    m_context->deleteObject(b);
    save(m_context);
    EXPECT_EQ(guids(log.last().deleted), "a b");
    EXPECT_EQ(guids(log.last().updated), "m n");
    for (const char* guid : {"n", "m", "o"}) EXPECT_EQ(guids(stored("Note", guid), "folder"), "");
}

TEST_F(RelationshipTest, DenialsFailTheSaveUntilNothingIsLeft) {
    const ObjectRef ledger = insert(m_context, "Ledger", "l"), other = insert(m_context, "Ledger", "other");
    const ObjectRef e = insert(m_context, "Entry", "e"), f = insert(m_context, "Entry", "f");
    add(ledger, "entries", e);
    add(ledger, "entries", f);
    save(m_context);
    m_context->deleteObject(ledger);
    EXPECT_EQ(m_context->save().error().code(), StoreError::deleteDenied);
    EXPECT_TRUE(ledger->isDeleted());
    m_context->deleteObject(e);
    EXPECT_EQ(m_context->save().error().code(), StoreError::deleteDenied);
    EXPECT_EQ(fetch(newContext(), "Ledger").size(), 2u);
    m_context->deleteObject(f);
    save(m_context);
    EXPECT_EQ(guids(fetch(newContext(), "Ledger")) + guids(fetch(newContext(), "Entry")), "other");
}

TEST_F(RelationshipTest, ManyObjectsAskedOneByOneTakeFewQueries) {
    const ObjectRef t = insert(m_context, "Tag", "t");
    for (int i = 0; i < 600; ++i) {
        const ObjectRef each = insert(m_context, "Note", std::to_string(i));
        if (i % 3 == 0) add(each, "tags", t);
    }
    saveAndForget();
    const auto notes = fetch(m_context, "Note");
    int tagged = 0;
    for (const ObjectRef& each : notes) {
        const auto names = guids(each, "tags");
        EXPECT_EQ(names, std::stoi(text(each, "guid")) % 3 == 0 ? "t" : "");
        tagged += !names.empty();
    }
    EXPECT_EQ(tagged, 200);
    for (const ObjectRef& each : notes) m_context->deleteObject(each);
    saveAndForget();
    EXPECT_TRUE(fetch(m_context, "Note").empty());
    EXPECT_EQ(guids(tag("t"), "notes"), "");
}

}  // namespace

}  // namespace velkor::test
