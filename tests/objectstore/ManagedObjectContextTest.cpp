#include "objectstore/ManagedObjectContext.h"

#include <functional>
#include <thread>

#include "objectstore/ManagedObjectID.h"
#include "objectstore/ObjectClass.h"
#include "objectstore/StoreReadFailure.h"
#include "platform/base/Exception.h"
#include "tests/objectstore/ContextFixture.h"

namespace velkor::test {

using namespace NS;

namespace {

/// A note with accessors of its own.
class CountedNote : public ManagedObject {
public:
    void awakeFromInsert() override { setPrimitiveValue("body", "new"); }
};

class ManagedObjectContextTest : public ContextFixture {
protected:
    ContextRef m_context = newContext();
};

TEST_F(ManagedObjectContextTest, KeepsOneObjectForARow) {
    const ObjectRef note = insert(m_context, "Note", "n");
    EXPECT_TRUE(note->objectID()->isTemporaryID());
    EXPECT_EQ(object(m_context, "Note", "n"), note);
    save(m_context);
    EXPECT_FALSE(note->objectID()->isTemporaryID());
    EXPECT_EQ(object(m_context, "Note", "n"), note);
    EXPECT_EQ(m_context->objectWithID(*note->objectID()), note);
    EXPECT_EQ(m_context->existingObjectWithID(*note->objectID()).value(), note);
    EXPECT_NE(stored("Note", "n"), note);
}

TEST_F(ManagedObjectContextTest, HoldsChangedObjectsOnly) {
    std::weak_ptr<ManagedObject> note = insert(m_context, "Note", "n");
    ASSERT_FALSE(note.expired());
    save(m_context);
    EXPECT_TRUE(note.expired());
    note = object(m_context, "Note", "n");
    EXPECT_TRUE(note.expired());
    ObjectRef held = object(m_context, "Note", "n");
    set(held, "title", "changed");
    note = held;
    held.reset();
    ASSERT_FALSE(note.expired());
    EXPECT_EQ(text(object(m_context, "Note", "n"), "title"), "changed");
    m_context->rollback();
    EXPECT_TRUE(note.expired());
}

TEST_F(ManagedObjectContextTest, RaisesTheErrorOfAReadThatFails) {
    const ObjectRef note = insert(m_context, "Note", "n");
    save(m_context);
    const ContextRef other = newContext();
    const ObjectRef known = object(other, "Note", "n");
    const ContextRef third = newContext();
    const ObjectRef fault = third->objectWithID(*note->objectID());
    set(note, "title", "mine");
    tamper("ALTER TABLE e_Note RENAME TO away; ALTER TABLE \"j_Note.tags\" RENAME TO away_tags");
    ChangeRecord record;
    record.changes.push_back({&note->entity(), note->objectID()->key(), ChangeKind::updated});
    const std::pair<const char*, std::function<void()>> reads[] = {
        {"fault", [&] { fault->primitiveValue("title"); }},
        {"links", [&] { known->destinations(relationship(known, "tags")); }},
        {"refresh", [&] { other->refreshObject(known, true); }},
        {"merge", [&] { m_context->mergeChanges(record); }},
        {"deletion", [&] { other->deleteObject(known); }},
    };
    for (const auto& [name, read] : reads) {
        try {
            read();
            ADD_FAILURE() << name;
        } catch (const StoreReadFailure& failure) {
            EXPECT_EQ(failure.name(), InternalInconsistencyException) << name;
            EXPECT_EQ(failure.reason(), failure.error().localizedDescription()) << name;
            EXPECT_EQ(failure.error().domain(), PlatformErrorDomain) << name;
        }
    }
}

TEST_F(ManagedObjectContextTest, RunsRegisteredAccessors) {
    int reads = 0, writes = 0;
    ObjectClass::registerClass<CountedNote>("Note")
        .getter("title",
                [&](const ManagedObject& object) {
                    ++reads;
                    return object.primitiveValue("title");
                })
        .setter("title", [&](ManagedObject& object, const Value& value) {
            ++writes;
            object.setPrimitiveValue("title", value.stringOr("") + "!");
        });
    const ObjectRef note = insert(m_context, "Note", "n");
    EXPECT_TRUE(std::dynamic_pointer_cast<CountedNote>(note));
    EXPECT_EQ(text(note, "body"), "new");
    set(note, "title", "t");
    EXPECT_EQ(text(note, "title"), "t!");
    EXPECT_EQ(reads, 1);
    EXPECT_EQ(writes, 1);
    EXPECT_THROW(set(note, "colour", 1), Exception);
    EXPECT_THROW(get(note, "colour"), Exception);
    EXPECT_EQ(text(insert(m_context, "Folder", "f"), "name"), "untitled");
}

TEST_F(ManagedObjectContextTest, TellsWhatASaveChanged) {
    const ObjectRef kept = insert(m_context, "Note", "kept");
    const ObjectRef doomed = insert(m_context, "Note", "doomed");
    set(kept, "title", "old");
    set(doomed, "title", "last words");
    save(m_context);

    SaveLog log(m_context);
    set(kept, "title", "new");
    m_context->deleteObject(doomed);
    insert(m_context, "Note", "born");
    m_context->deleteObject(insert(m_context, "Note", "ephemeral"));
    EXPECT_EQ(guids(m_context->insertedObjects()), "born");
    EXPECT_EQ(guids(m_context->updatedObjects()), "kept");
    EXPECT_EQ(guids(m_context->deletedObjects()), "doomed");
    save(m_context);

    ASSERT_EQ(log.saves().size(), 1u);
    EXPECT_EQ(guids(log.last().inserted), "born");
    EXPECT_EQ(guids(log.last().updated), "kept");
    EXPECT_EQ(guids(log.last().deleted), "doomed");
    EXPECT_EQ(text(log.last().deleted.allObjects().front(), "title"), "last words");
    EXPECT_FALSE(doomed->managedObjectContext());
    EXPECT_EQ(log.last().record->changes.size(), 3u);
    EXPECT_FALSE(m_context->hasChanges());
    EXPECT_EQ(guids(fetch(newContext(), "Note")), "born kept");
}

TEST_F(ManagedObjectContextTest, SavesOnlyWhatDiffers) {
    const ObjectRef note = insert(m_context, "Note", "n");
    set(note, "title", "a");
    save(m_context);
    SaveLog log(m_context);
    set(note, "title", "b");
    set(note, "title", "a");
    EXPECT_TRUE(m_context->hasChanges());
    save(m_context);
    EXPECT_FALSE(m_context->hasChanges());
    EXPECT_TRUE(log.saves().empty());
    save(m_context);
    EXPECT_TRUE(log.saves().empty());
}

TEST_F(ManagedObjectContextTest, StateIsFinalWhenObserversHear) {
    const ObjectRef note = insert(m_context, "Note", "n");
    int heard = 0;
    auto token = NotificationCenter::defaultCenter().addObserver(ManagedObjectContextDidSaveNotification, m_context.get(),
                                                                 nullptr, [&](const Notification&) {
                                                                     ++heard;
                                                                     EXPECT_FALSE(m_context->hasChanges());
                                                                     EXPECT_FALSE(note->isInserted());
                                                                     EXPECT_TRUE(stored("Note", "n"));
                                                                     if (heard == 1) {
                                                                         set(note, "title", "from the observer");
                                                                         save(m_context);
                                                                     }
                                                                 });
    save(m_context);
    NotificationCenter::defaultCenter().removeObserver(token);
    EXPECT_EQ(heard, 2);
    EXPECT_EQ(text(stored("Note", "n"), "title"), "from the observer");
}

TEST_F(ManagedObjectContextTest, FailedSavesLeaveEverythingAsItWas) {
    const struct {
        const char* what;
        std::function<void(const ObjectRef& note, const ObjectRef& folder)> spoil;
    } cases[] = {
        {"required value", [&](const ObjectRef&, const ObjectRef& folder) { set(folder, "name", {}); }},
        {"out of range", [&](const ObjectRef& note, const ObjectRef&) { set(note, "rating", 40000); }},
        {"wrong type", [&](const ObjectRef& note, const ObjectRef&) { set(note, "score", "much"); }},
        {"not a number", [&](const ObjectRef& note, const ObjectRef&) { set(note, "score", 0.0 / 0.0); }},
        {"bad UTF-8", [&](const ObjectRef& note, const ObjectRef&) { set(note, "title", "\xC3("); }},
        {"NUL", [&](const ObjectRef& note, const ObjectRef&) { set(note, "title", std::string_view("a\0b", 3)); }},
        {"required relationship",
         [&](const ObjectRef& note, const ObjectRef&) { insert(m_context, "Entry", text(note, "guid")); }},
    };
    const ObjectRef note = insert(m_context, "Note", "n");
    const ObjectRef folder = insert(m_context, "Folder", "f");
    save(m_context);
    for (const auto& [what, spoil] : cases) {
        SaveLog log(m_context);
        const ObjectRef fresh = insert(m_context, "Note", "fresh");
        set(note, "body", "edited");
        set(note, "folder", folder);
        set(fresh, "folder", folder);
        spoil(note, folder);
        const auto saved = m_context->save();
        ASSERT_FALSE(saved.ok()) << what;
        EXPECT_EQ(saved.error().code(), StoreError::validation) << what;
        EXPECT_TRUE(log.saves().empty()) << what;
        EXPECT_TRUE(fresh->isInserted()) << what;
        EXPECT_TRUE(fresh->objectID()->isTemporaryID()) << what;
        EXPECT_EQ(guids(folder, "notes"), "fresh n") << what;
        EXPECT_EQ(text(note, "body"), "edited") << what;
        EXPECT_EQ(fetch(newContext(), "Note").size(), 1u) << what;
        EXPECT_FALSE(get(stored("Note", "n"), "body")) << what;
        m_context->rollback();
        EXPECT_EQ(guids(folder, "notes"), "") << what;
        EXPECT_FALSE(get(note, "body")) << what;
        EXPECT_FALSE(fresh->managedObjectContext()) << what;
    }
    set(note, "body", "works again");
    save(m_context);
    EXPECT_EQ(text(stored("Note", "n"), "body"), "works again");
}

TEST_F(ManagedObjectContextTest, RollbackRestoresEveryKindOfChange) {
    const ObjectRef folder = insert(m_context, "Folder", "f");
    const ObjectRef note = insert(m_context, "Note", "n");
    const ObjectRef tag = insert(m_context, "Tag", "t");
    const ObjectRef summary = insert(m_context, "Summary", "s");
    set(note, "title", "old");
    set(note, "folder", folder);
    set(note, "summary", summary);
    add(note, "tags", tag);
    save(m_context);
    const auto expectAsSaved = [&] {
        EXPECT_EQ(text(note, "title"), "old");
        EXPECT_EQ(guids(note, "folder") + guids(folder, "notes") + guids(note, "tags") + guids(tag, "notes"), "fntn");
        EXPECT_EQ(guids(note, "summary") + guids(summary, "note"), "sn");
        EXPECT_FALSE(m_context->hasChanges() || note->hasChanges() || folder->hasChanges() || tag->hasChanges());
    };
    set(note, "title", "new");
    set(note, "folder", Value());
    remove(tag, "notes", note);
    set(insert(m_context, "Note", "other"), "summary", summary);
    m_context->rollback();
    expectAsSaved();
    m_context->deleteObject(note);
    EXPECT_TRUE(note->isDeleted() && summary->isDeleted());
    EXPECT_EQ(guids(folder, "notes") + guids(tag, "notes"), "");
    m_context->rollback();
    expectAsSaved();
}

TEST_F(ManagedObjectContextTest, DeletedObjectsStillAnswer) {
    const ObjectRef folder = insert(m_context, "Folder", "f");
    const ObjectRef inner = insert(m_context, "Folder", "inner");
    const ObjectRef note = insert(m_context, "Note", "n");
    const ObjectRef tag = insert(m_context, "Tag", "t");
    set(inner, "parent", folder);
    set(note, "folder", inner);
    add(note, "tags", tag);
    save(m_context);
    SaveLog log(m_context);
    m_context->deleteObject(note);
    m_context->deleteObject(folder);
    save(m_context);
    EXPECT_EQ(guids(log.last().deleted), "f inner n");
    EXPECT_EQ(guids(log.last().updated), "");
    EXPECT_EQ(guids(note, "tags"), "t");
    EXPECT_EQ(guids(note, "folder"), "inner");
    EXPECT_EQ(guids(folder, "children"), "inner");
    EXPECT_EQ(guids(tag, "notes"), "");
    EXPECT_TRUE(note->isDeleted());
    set(note, "title", "too late");
    EXPECT_FALSE(m_context->hasChanges());
    EXPECT_EQ(text(note, "title"), "nil");
}

TEST_F(ManagedObjectContextTest, PermanentIdentifiersBeforeTheSave) {
    const ObjectRef folder = insert(m_context, "Folder", "f");
    const ObjectRef note = insert(m_context, "Note", "n");
    const ObjectRef tag = insert(m_context, "Tag", "t");
    set(note, "folder", folder);
    add(note, "tags", tag);
    ASSERT_TRUE(m_context->obtainPermanentIDsForObjects({note, folder, note}).ok());
    const auto promised = note->objectID();
    EXPECT_FALSE(promised->isTemporaryID());
    EXPECT_EQ(guids(note, "folder") + guids(folder, "notes") + guids(tag, "notes"), "fnn");
    EXPECT_EQ(object(m_context, "Note", "n"), note);
    save(m_context);
    EXPECT_EQ(*note->objectID(), *promised);
    const ContextRef other = newContext();
    EXPECT_EQ(guids(other->existingObjectWithID(*promised).value(), "folder"), "f");
    EXPECT_EQ(guids(object(other, "Tag", "t"), "notes"), "n");
    EXPECT_EQ(other->existingObjectWithID(ManagedObjectID(entity("Note"), 999)).error().code(), StoreError::noSuchObject);
}

TEST_F(ManagedObjectContextTest, PermanentIdentifiersOfSomeEntitiesOnly) {
    const ObjectRef folder = insert(m_context, "Folder", "f");
    const ObjectRef note = insert(m_context, "Note", "n");
    const ObjectRef tag = insert(m_context, "Tag", "t");
    set(note, "folder", folder);
    add(note, "tags", tag);
    tamper("ALTER TABLE e_Tag RENAME TO away");
    EXPECT_FALSE(m_context->obtainPermanentIDsForObjects({folder, note, tag}).ok());
    EXPECT_FALSE(folder->objectID()->isTemporaryID());
    tamper("ALTER TABLE away RENAME TO e_Tag");
    EXPECT_EQ(guids(note, "folder") + guids(folder, "notes") + guids(tag, "notes"), "fnn");
    save(m_context);
    EXPECT_EQ(guids(stored("Note", "n"), "folder") + guids(stored("Note", "n"), "tags"), "ft");
}

TEST_F(ManagedObjectContextTest, AFailedSavesKeysAreForgotten) {
    const ObjectRef known = insert(m_context, "Note", "known");
    save(m_context);
    const ObjectRef note = insert(m_context, "Note", "n");
    set(note, "folder", insert(m_context, "Folder", "mine"));
    set(known, "score", "much");
    EXPECT_FALSE(m_context->save().ok());
    const ContextRef other = newContext();
    insert(other, "Folder", "theirs");
    save(other);
    ASSERT_TRUE(m_context->obtainPermanentIDsForObjects({note}).ok());
    set(known, "score", 1);
    save(m_context);
    EXPECT_EQ(guids(stored("Note", "n"), "folder"), "mine");
}

TEST_F(ManagedObjectContextTest, TemporaryIdentifiersMeanNothingElsewhere) {
    const ObjectRef note = insert(m_context, "Note", "n");
    const ContextRef other = newContext();
    insert(other, "Note", "other");
    EXPECT_FALSE(other->objectWithID(*note->objectID()));
}

TEST_F(ManagedObjectContextTest, ObjectsThatLeadToOneAnotherAreInsertedTogether) {
    ObjectRef first = insert(m_context, "Folder", "0"), last = first;
    for (int i = 1; i < 300; ++i) {
        const ObjectRef next = insert(m_context, "Folder", std::to_string(i));
        set(last, "parent", next);  // to the one that comes later
        last = next;
    }
    set(last, "parent", first);
    save(m_context);
    ObjectRef at = stored("Folder", "0");
    const ContextRef other = newContext();
    at = object(other, "Folder", "0");
    for (int i = 1; i < 300; ++i) {
        at = get(at, "parent").as<ManagedObject>();
        ASSERT_TRUE(at);
        ASSERT_EQ(text(at, "guid"), std::to_string(i));
    }
    EXPECT_EQ(guids(at, "parent"), "0");
}

TEST_F(ManagedObjectContextTest, ResetAndTheContextsEndLeaveObjectsAlone) {
    const ObjectRef note = insert(m_context, "Note", "n");
    set(note, "title", "t");
    save(m_context);
    const ObjectRef fresh = insert(m_context, "Note", "fresh");
    m_context->reset();
    EXPECT_FALSE(m_context->hasChanges());
    EXPECT_FALSE(note->managedObjectContext());
    EXPECT_EQ(text(note, "title"), "t");
    EXPECT_NE(object(m_context, "Note", "n"), note);
    ObjectRef survivor = object(m_context, "Note", "n");
    m_context.reset();
    EXPECT_FALSE(survivor->managedObjectContext());
    EXPECT_EQ(text(survivor, "title"), "t");
    set(survivor, "title", "nobody is told");
    EXPECT_EQ(guids(survivor, "tags"), "");
}

TEST_F(ManagedObjectContextTest, SetsAndSavesWhatTheHistoryNeeds) {
    m_context.reset();
    reopen({.history = true, .historyKeptAttributes = {"guid", "name"}});
    m_context = newContext();
    m_context->setAuthor("tester");
    SaveLog log(m_context);
    const ObjectRef folder = insert(m_context, "Folder", "f");
    const ObjectRef note = insert(m_context, "Note", "n");
    set(note, "folder", folder);
    save(m_context);
    m_context->deleteObject(folder);
    save(m_context);

    std::vector<std::string> rows;
    std::vector<std::int64_t> sequences;
    const auto read = m_store->historyAfter(0, [&](HistoryRow&& row) {
        const char* kinds[] = {"inserted", "updated", "deleted"};
        rows.push_back(row.entityName + " " + kinds[int(row.kind)] + " " + row.kept["guid"].stringOr("") + " " +
                       row.kept["name"].stringOr("-") + " " + row.author);
        sequences.push_back(row.sequence);
        EXPECT_EQ(row.time, log.saves()[row.kind == ChangeKind::deleted].record->time);
    });
    ASSERT_TRUE(read.ok());
    EXPECT_EQ(rows, (std::vector<std::string>{"Folder inserted f untitled tester", "Note inserted n - tester",
                                              "Folder deleted f untitled tester"}));
    ASSERT_EQ(log.saves().size(), 2u);
    const auto& first = log.saves()[0].record->changes;
    const auto& second = log.saves()[1].record->changes;
    ASSERT_EQ(first.size(), 2u);
    ASSERT_EQ(second.size(), 2u);  // the folder, then the note that the delete rule rewrote
    EXPECT_EQ((std::vector{first[0].historySequence, first[1].historySequence, second[0].historySequence}), sequences);
    EXPECT_EQ(second[1].historySequence, 0);
    EXPECT_EQ(second[1].kind, ChangeKind::updated);
    EXPECT_EQ(second[1].entity->name(), "Note");
}

TEST_F(ManagedObjectContextTest, AnotherThreadIsRefused) {
#ifndef NDEBUG
    const ObjectRef note = insert(m_context, "Note", "n");
    std::thread([&] {
        EXPECT_THROW(m_context->insertNewObjectForEntityForName("Note"), AssertionFailure);
        EXPECT_THROW(get(note, "title"), AssertionFailure);
    }).join();
#endif
}

TEST_F(ManagedObjectContextTest, ObjectsOfOthersAreRefused) {
    const ContextRef other = newContext();
    const ObjectRef note = insert(m_context, "Note", "n");
    EXPECT_THROW(set(note, "folder", insert(other, "Folder", "f")), Exception);
    EXPECT_THROW(set(note, "folder", insert(m_context, "Tag", "t")), Exception);
    EXPECT_THROW(set(note, "folder", "f"), Exception);
    EXPECT_THROW(set(note, "tags", note), Exception);
    EXPECT_THROW(add(note, "tags", insert(other, "Tag", "t")), Exception);
    EXPECT_EQ(guids(note, "folder") + guids(note, "tags"), "");
}

}  // namespace

}  // namespace velkor::test
