#include <gtest/gtest.h>

#include "tests/objectstore/ContextFixture.h"

namespace velkor::test {

using namespace NS;

namespace {

class MergeTest : public ContextFixture {
protected:
    MergeTest() {
        const ObjectRef f = insert(m_mine, "Folder", "f"), g = insert(m_mine, "Folder", "g");
        const ObjectRef n = insert(m_mine, "Note", "n"), m = insert(m_mine, "Note", "m");
        const ObjectRef t = insert(m_mine, "Tag", "t");
        for (const ObjectRef& note : {n, m}) {
            set(note, "title", "title");
            set(note, "body", "body");
            set(note, "folder", f);
            add(note, "tags", t);
        }
        save(m_mine);
        m_mine = newContext();
    }

    ObjectRef mine(std::string_view name, std::string_view guid) { return object(m_mine, name, guid); }
    ObjectRef theirs(std::string_view name, std::string_view guid) { return object(m_theirs, name, guid); }
    /// Saves theirs and merges it into mine.
    void saveAndMerge() {
        SaveLog log(m_theirs);
        save(m_theirs);
        m_mine->mergeChanges(*log.last().record);
    }

    ContextRef m_mine = newContext();
    ContextRef m_theirs = newContext();
};

TEST_F(MergeTest, RegisteredObjectsFollow) {
    const ObjectRef n = mine("Note", "n"), f = mine("Folder", "f"), g = mine("Folder", "g"), t = mine("Tag", "t");
    EXPECT_EQ(guids(f, "notes") + guids(t, "notes"), "m nm n");
    set(theirs("Note", "n"), "title", "theirs");
    set(theirs("Note", "n"), "folder", theirs("Folder", "g"));
    set(insert(m_theirs, "Note", "new"), "folder", theirs("Folder", "g"));
    remove(theirs("Tag", "t"), "notes", theirs("Note", "n"));
    saveAndMerge();
    EXPECT_EQ(text(n, "title"), "theirs");
    EXPECT_EQ(guids(n, "folder") + guids(n, "tags"), "g");
    EXPECT_EQ(guids(f, "notes") + "/" + guids(g, "notes") + "/" + guids(t, "notes"), "m/n new/m");
    m_theirs->deleteObject(theirs("Note", "n"));
    saveAndMerge();
    EXPECT_TRUE(n->isDeleted());
    EXPECT_FALSE(n->managedObjectContext());
    EXPECT_EQ(text(n, "title"), "theirs") << "its last values";
    EXPECT_EQ(guids(g, "notes"), "new");
}

TEST_F(MergeTest, UnsavedChangesStayOnTop) {
    const ObjectRef n = mine("Note", "n"), f = mine("Folder", "f"), g = mine("Folder", "g"), t = mine("Tag", "t");
    EXPECT_EQ(guids(f, "notes"), "m n");
    set(n, "title", "mine");
    add(n, "tags", insert(m_mine, "Tag", "u"));
    set(theirs("Note", "n"), "title", "theirs");
    set(theirs("Note", "n"), "body", "theirs");
    set(theirs("Note", "n"), "folder", theirs("Folder", "g"));
    set(theirs("Note", "n"), "tags", Value());
    saveAndMerge();
    EXPECT_EQ(text(n, "title") + text(n, "body") + guids(n, "folder") + guids(n, "tags"), "minetheirsgu");
    EXPECT_EQ(guids(f, "notes") + "/" + guids(g, "notes") + "/" + guids(t, "notes"), "m/n/m");
    SaveLog log(m_mine);
    save(m_mine);
    EXPECT_EQ(guids(log.last().updated), "n");
    const ObjectRef after = stored("Note", "n");
    EXPECT_EQ(text(after, "title") + text(after, "body") + guids(after, "folder") + guids(after, "tags"), "minetheirsgu");
    EXPECT_EQ(text(n, "title") + text(n, "body") + guids(n, "folder") + guids(n, "tags"), "minetheirsgu");
}

TEST_F(MergeTest, WhatBothHaveLinkedOrUnlinkedCanBeUndone) {
    for (const bool linked : {true, false}) {
        for (const char* undoneBy : {"note", "tag", "note, read before", "nobody"}) {
            m_mine = newContext();
            m_theirs = newContext();
            const auto link = [&](const ContextRef& context, bool wanted, bool byTag = false) {
                const ObjectRef n = object(context, "Note", "n"), t = object(context, "Tag", "t");
                if (byTag) return wanted ? add(t, "notes", n) : remove(t, "notes", n);
                wanted ? add(n, "tags", t) : remove(n, "tags", t);
            };
            const std::string by = undoneBy;
            link(m_theirs, !linked);
            save(m_theirs);
            const ObjectRef n = mine("Note", "n"), t = mine("Tag", "t");
            link(m_mine, linked);
            link(m_theirs, linked);
            saveAndMerge();
            const bool read = by == "nobody" || by == "note, read before";
            EXPECT_EQ(read ? guids(n, "tags") : "", read && linked ? "t" : "");
            if (by != "nobody") link(m_mine, !linked, by == "tag");
            SaveLog log(m_mine);
            save(m_mine);
            const bool isLinked = linked == (by == "nobody");
            EXPECT_EQ(guids(stored("Note", "n"), "tags"), isLinked ? "t" : "") << undoneBy << linked;
            EXPECT_EQ(guids(n, "tags") + guids(t, "notes"), isLinked ? "tm n" : "m") << undoneBy << linked;
            EXPECT_EQ(log.saves().empty(), by == "nobody") << undoneBy << linked;
        }
    }
}

TEST_F(MergeTest, RowsThatMovedUnnoticedAreReadAgainWithTheirLinks) {
    for (const char* guid : {"1", "2", "3", "4", "5", "6", "p", "q", "c", "k"}) insert(m_theirs, "Folder", guid);
    set(theirs("Folder", "c"), "parent", theirs("Folder", "p"));
    set(theirs("Folder", "k"), "parent", theirs("Folder", "c"));
    save(m_theirs);
    std::vector<ObjectRef> held;
    for (const char* guid : {"1", "2", "3", "4", "5", "6"}) {  // from now on links are read for many owners together
        held.push_back(mine("Folder", guid));
        EXPECT_EQ(guids(held.back(), "children"), "");
    }
    const ObjectRef c = mine("Folder", "c"), q = mine("Folder", "q");
    EXPECT_EQ(guids(c, "parent"), "p");
    set(theirs("Folder", "c"), "parent", theirs("Folder", "q"));
    save(m_theirs);
    EXPECT_EQ(guids(c, "children"), "k");
    EXPECT_EQ(guids(q, "children") + guids(c, "parent"), "cq");
}

TEST_F(MergeTest, MergePoliciesSettleConflicts) {
    const struct {
        MergePolicy policy;
        const char* result;  // title, body, folder
    } cases[] = {{MergePolicy::objectWins, "mine theirs both g"},
                 {MergePolicy::storeWins, "theirs theirs both g"},
                 {MergePolicy::error, ""}};
    for (const auto& [policy, result] : cases) {
        m_mine = newContext();
        m_theirs = newContext();
        m_mine->setMergePolicy(policy);
        const ObjectRef reset = theirs("Note", "n");
        set(reset, "title", "title");
        set(reset, "body", "body");
        set(reset, "score", Value());
        set(reset, "folder", theirs("Folder", "f"));
        save(m_theirs);
        const ObjectRef n = mine("Note", "n"), f = mine("Folder", "f"), g = mine("Folder", "g");
        EXPECT_EQ(guids(f, "notes") + guids(g, "notes"), "m n");
        set(n, "title", "mine");
        set(n, "rating", 5);
        set(theirs("Note", "n"), "title", "theirs");
        set(theirs("Note", "n"), "body", "theirs");
        set(theirs("Note", "n"), "score", 2.5);
        set(theirs("Note", "n"), "folder", theirs("Folder", "g"));
        save(m_theirs);
        const auto saved = m_mine->save();
        const auto describe = [&](const ObjectRef& note) {
            const bool both = get(note, "rating") == Value(5) && get(note, "score") == Value(2.5);
            return text(note, "title") + " " + text(note, "body") + (both ? " both " : " ") + guids(note, "folder");
        };
        if (policy == MergePolicy::error) {
            ASSERT_FALSE(saved.ok());
            EXPECT_EQ(saved.error().code(), StoreError::mergeConflict);
            EXPECT_EQ(text(n, "title") + text(n, "body"), "minebody") << "the context keeps its changes";
            EXPECT_EQ(text(stored("Note", "n"), "title"), "theirs");
            m_mine->refreshObject(n, true);
            EXPECT_EQ(text(n, "title") + text(n, "body"), "minetheirs");
            save(m_mine);
            EXPECT_EQ(text(stored("Note", "n"), "title"), "mine");
        } else {
            ASSERT_TRUE(saved.ok()) << saved.error().localizedDescription();
            EXPECT_EQ(describe(n), result);
            EXPECT_EQ(describe(stored("Note", "n")), result);
            EXPECT_EQ(guids(f, "notes") + "/" + guids(g, "notes"), "m/n");
            set(n, "title", "again");
            save(m_mine);
            EXPECT_EQ(text(stored("Note", "n"), "title"), "again") << "the version was taken over";
        }
    }
}

TEST_F(MergeTest, AnEditedRowThatSomebodyRemoved) {
    const struct {
        MergePolicy policy;
        const char* notes;
    } cases[] = {{MergePolicy::error, "error"}, {MergePolicy::storeWins, "m"}, {MergePolicy::objectWins, "m n"}};
    for (const auto& [policy, notes] : cases) {
        m_mine = newContext();
        m_theirs = newContext();
        m_mine->setMergePolicy(policy);
        if (!theirs("Note", "n")) set(insert(m_theirs, "Note", "n"), "folder", theirs("Folder", "f"));
        save(m_theirs);
        const ObjectRef n = mine("Note", "n");
        const ObjectRef s = insert(m_mine, "Summary", "s");
        set(n, "title", "mine");
        set(n, "summary", s);
        m_theirs->deleteObject(theirs("Note", "n"));
        save(m_theirs);
        const auto saved = m_mine->save();
        if (policy == MergePolicy::error) {
            EXPECT_EQ(saved.error().code(), StoreError::mergeConflict);
            continue;
        }
        ASSERT_TRUE(saved.ok()) << saved.error().localizedDescription();
        EXPECT_EQ(guids(fetch(newContext(), "Note")), notes);
        EXPECT_EQ(n->isDeleted(), policy == MergePolicy::storeWins);
        const bool won = policy == MergePolicy::objectWins;
        EXPECT_EQ(guids(stored("Summary", "s"), "note"), won ? "n" : "");
        EXPECT_EQ(guids(s, "note"), won ? "n" : "");
        const ObjectRef gone = object(m_mine, "Summary", "s");
        m_mine->deleteObject(gone);
        save(m_mine);
    }
}

TEST_F(MergeTest, EditsOutliveARowThatIsFoundMissing) {
    for (const MergePolicy policy : {MergePolicy::error, MergePolicy::storeWins, MergePolicy::objectWins}) {
        for (const bool merged : {true, false}) {
            m_mine = newContext();
            m_theirs = newContext();
            m_mine->setMergePolicy(policy);
            if (!theirs("Note", "n")) insert(m_theirs, "Note", "n");
            save(m_theirs);
            const ObjectRef n = mine("Note", "n");
            const auto id = n->objectID();
            const std::string title = merged ? "merged" : "looked for";
            set(n, "title", title);
            SaveLog log(m_theirs);
            set(theirs("Note", "n"), "body", merged ? "edited" : "again");
            save(m_theirs);
            m_theirs->deleteObject(theirs("Note", "n"));
            save(m_theirs);
            if (merged) {
                for (const auto& each : log.saves()) m_mine->mergeChanges(*each.record);
            } else {
                EXPECT_EQ(m_mine->existingObjectWithID(*id).error().code(), StoreError::noSuchObject);
            }
            EXPECT_EQ(n->isDeleted(), policy == MergePolicy::storeWins) << merged;
            EXPECT_EQ(m_mine->save().ok(), policy != MergePolicy::error) << merged;
            const ObjectRef after = stored("Note", "n");
            EXPECT_EQ(after ? text(after, "title") : "none", policy == MergePolicy::objectWins ? title : "none") << merged;
        }
    }
}

TEST_F(MergeTest, ARowThatCameBackIsNewToItsReaders) {
    const ContextRef reader = newContext();
    insert(m_theirs, "Note", "back");
    save(m_theirs);
    const ObjectRef read = object(reader, "Note", "back");
    EXPECT_EQ(text(read, "title"), "nil");
    set(mine("Note", "back"), "title", "mine");
    m_theirs->deleteObject(theirs("Note", "back"));
    save(m_theirs);
    save(m_mine);
    EXPECT_EQ(object(reader, "Note", "back"), read);
    EXPECT_EQ(text(read, "title"), "mine");
}

TEST_F(MergeTest, LookingForADeletedObjectLeavesItsDeletion) {
    const ObjectRef f = mine("Folder", "f");
    m_mine->deleteObject(f);
    set(insert(m_theirs, "Folder", "child"), "parent", theirs("Folder", "f"));
    save(m_theirs);
    EXPECT_EQ(m_mine->existingObjectWithID(*f->objectID()).error().code(), StoreError::noSuchObject);
    save(m_mine);
    EXPECT_EQ(guids(fetch(newContext(), "Folder")), "g");
}

TEST_F(MergeTest, AStoreThatCannotBeReadFailsTheSave) {
    const ObjectRef f = mine("Folder", "f");
    m_mine->deleteObject(f);
    set(insert(m_theirs, "Note", "late"), "folder", theirs("Folder", "f"));
    save(m_theirs);
    tamper("UPDATE e_Note SET a_rating='no number' WHERE a_guid='late'");
    const auto saved = m_mine->save();
    ASSERT_FALSE(saved.ok());
    EXPECT_EQ(saved.error().code(), StoreError::notAStore);
    EXPECT_TRUE(f->isDeleted() && m_mine->hasChanges());
    EXPECT_TRUE(stored("Folder", "f"));
    tamper("UPDATE e_Note SET a_rating=NULL");
    save(m_mine);
    EXPECT_FALSE(stored("Folder", "f"));
    EXPECT_EQ(guids(stored("Note", "late"), "folder"), "");
}

TEST_F(MergeTest, DeletionsTakeWhatCameMeanwhile) {
    const ObjectRef f = mine("Folder", "f");
    EXPECT_EQ(guids(f, "children") + guids(f, "notes"), "m n");
    m_mine->deleteObject(f);
    set(insert(m_theirs, "Folder", "child"), "parent", theirs("Folder", "f"));
    set(insert(m_theirs, "Note", "late"), "folder", theirs("Folder", "f"));
    save(m_theirs);
    SaveLog log(m_mine);
    save(m_mine);
    EXPECT_EQ(guids(log.last().deleted), "child f");
    EXPECT_EQ(guids(fetch(newContext(), "Folder")), "g");
    EXPECT_EQ(guids(stored("Note", "late"), "folder"), "");
    m_theirs->mergeChanges(*log.last().record);
    EXPECT_EQ(guids(theirs("Note", "late"), "folder"), "");
    // With the error policy the conflict is the caller's.
    m_mine->setMergePolicy(MergePolicy::error);
    const ObjectRef g = mine("Folder", "g");
    m_mine->deleteObject(g);
    set(insert(m_theirs, "Note", "later"), "folder", theirs("Folder", "g"));
    save(m_theirs);
    EXPECT_EQ(m_mine->save().error().code(), StoreError::mergeConflict);
    EXPECT_TRUE(stored("Folder", "g"));
}

TEST_F(MergeTest, OneToOneConflictsLeaveNobodyBetweenTwo) {
    const ObjectRef s = insert(m_theirs, "Summary", "s");
    save(m_theirs);
    set(mine("Note", "n"), "summary", mine("Summary", "s"));
    set(theirs("Note", "m"), "summary", s);
    save(m_theirs);
    save(m_mine);
    EXPECT_EQ(guids(stored("Summary", "s"), "note"), "n");
    EXPECT_EQ(guids(stored("Note", "n"), "summary") + "/" + guids(stored("Note", "m"), "summary"), "s/");
}

TEST_F(MergeTest, RefreshedObjectsAreUpToDateOrGone) {
    const ObjectRef n = mine("Note", "n"), m = mine("Note", "m"), f = mine("Folder", "f"), t = mine("Tag", "t");
    EXPECT_EQ(guids(f, "notes") + guids(n, "tags"), "m nt");
    set(n, "title", "mine");
    set(theirs("Note", "n"), "body", "theirs");
    add(theirs("Note", "n"), "tags", insert(m_theirs, "Tag", "u"));
    m_theirs->deleteObject(theirs("Note", "m"));
    save(m_theirs);
    ASSERT_TRUE(m_mine->refreshObjects({n, m, f, t, n}).ok());
    EXPECT_EQ(text(n, "title") + text(n, "body") + guids(n, "tags"), "minetheirst u");
    EXPECT_TRUE(m->isDeleted());
    EXPECT_EQ(guids(f, "notes"), "n");
    m_mine->refreshObject(n, false);
    EXPECT_FALSE(m_mine->hasChanges());
    EXPECT_EQ(text(n, "title"), "title");
}

TEST_F(MergeTest, DroppedChangesLeaveBothSides) {
    const ObjectRef n = mine("Note", "n"), f = mine("Folder", "f"), g = mine("Folder", "g"), t = mine("Tag", "t");
    set(n, "title", "mine");
    set(n, "folder", g);
    set(n, "tags", Value());
    m_mine->refreshObject(n, false);
    EXPECT_EQ(text(n, "title") + guids(n, "folder") + guids(n, "tags"), "titleft");
    EXPECT_EQ(guids(f, "notes") + "/" + guids(g, "notes") + "/" + guids(t, "notes"), "m n//m n");
    SaveLog log(m_mine);
    save(m_mine);
    EXPECT_TRUE(log.saves().empty());
}

TEST_F(MergeTest, AnotherContextsNotificationAndOnesOwn) {
    const ObjectRef n = mine("Note", "n");
    auto token = NotificationCenter::defaultCenter().addObserver(
        ManagedObjectContextDidSaveNotification, nullptr, nullptr,
        [&](const Notification& notification) { m_mine->mergeChangesFromContextDidSaveNotification(notification); });
    set(theirs("Note", "n"), "title", "theirs");
    save(m_theirs);
    EXPECT_EQ(text(n, "title"), "theirs");
    set(n, "title", "mine");
    save(m_mine);
    EXPECT_FALSE(n->isFault());
    NotificationCenter::defaultCenter().removeObserver(token);
}

}  // namespace

}  // namespace velkor::test
