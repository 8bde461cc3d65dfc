// What the tests of contexts and objects share: a store of an office's papers in a directory of its own, and short forms.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "objectstore/ChangeRecord.h"
#include "objectstore/ManagedObjectContext.h"
#include "platform/concurrency/NotificationCenter.h"
#include "tests/support/TemporaryDirectory.h"

namespace velkor::test {

using ObjectRef = std::shared_ptr<NS::ManagedObject>;
using ContextRef = std::shared_ptr<NS::ManagedObjectContext>;

/// Folders in folders, notes in folders with tags, related notes and a summary, ledgers that keep their entries.
std::shared_ptr<const NS::ManagedObjectModel> officeModel();

/// The saves of a context, as its observers see them.
class SaveLog {
public:
    explicit SaveLog(const ContextRef& context);
    ~SaveLog();
    struct Save {
        NS::ObjectSet inserted, updated, deleted;
        std::shared_ptr<NS::ChangeRecord> record;
    };
    const std::vector<Save>& saves() const { return m_saves; }
    const Save& last() const { return m_saves.back(); }

private:
    std::vector<Save> m_saves;
    NS::NotificationCenter::Token m_token;
};

class ContextFixture : public ::testing::Test {
protected:
    ContextFixture() { reopen({}); }

    /// Closes the store, contexts and objects must be gone, and opens it anew.
    void reopen(const NS::StoreOptions& options);
    ContextRef newContext() const { return NS::ManagedObjectContext::create(m_store); }
    const NS::EntityDescription& entity(std::string_view name) const { return *m_store->managedObjectModel().entityNamed(name); }

    static ObjectRef insert(const ContextRef& context, std::string_view entityName, std::string_view guid);
    /// The objects that fulfil the predicate, in the store's order.
    static std::vector<ObjectRef> fetch(const ContextRef& context, std::string_view entityName,
                                        NS::Predicate predicate = NS::Predicate::always());
    /// The object of that guid, or null.
    static ObjectRef object(const ContextRef& context, std::string_view entityName, std::string_view guid);
    /// The object as the store has it now, in a context of its own.
    ObjectRef stored(std::string_view entityName, std::string_view guid);
    static void save(const ContextRef& context);
    /// Runs SQL behind the store's back; the first column of its last row.
    std::string tamper(const std::string& sql) const;

    static void set(const ObjectRef& object, std::string_view name, NS::Value value) { object->setValueForKey(value, name); }
    static NS::Value get(const ObjectRef& object, std::string_view name) { return object->valueForKey(name); }
    static std::string text(const ObjectRef& object, std::string_view name) { return object->valueForKey(name).stringOr("nil"); }
    static const NS::RelationshipDescription& relationship(const ObjectRef& object, std::string_view name);
    static void add(const ObjectRef& owner, std::string_view name, const ObjectRef& member);
    static void remove(const ObjectRef& owner, std::string_view name, const ObjectRef& member);

    const TemporaryDirectory m_directory;
    std::shared_ptr<NS::PersistentStoreCoordinator> m_store;
    std::vector<ContextRef> m_readers;  // of stored()
};

/// The guids of a relationship's destinations or of a set, sorted, with blanks between them.
std::string guids(const ObjectRef& owner, std::string_view relationship);
std::string guids(const std::vector<ObjectRef>& objects);
inline std::string guids(const NS::ObjectSet& objects) { return guids(objects.allObjects()); }

}  // namespace velkor::test
