#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <thread>

#include "PelmoLib/CoreDataSingleton.h"
#include "PelmoLib/PersistentStoreSingleton.h"
#include "PelmoLib/VLKMocCreator.h"
#include "platform/base/Exception.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/persistence/Bundle.h"
#include "platform/persistence/PropertyList.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NotesModel.h"

namespace velkor::test {
namespace {

using namespace NS;
namespace fs = std::filesystem;

/// A directory with the notes model among the library's resources.
class StoreSingletonsTest : public testing::Test {
protected:
    StoreSingletonsTest() { RunLoop::main(); }
    void installModel() {
        const fs::path resources = store.directory() / "resources";
        fs::create_directory(resources);
        ASSERT_TRUE(writeDictionaryToFile(*notes::makeModel()->propertyList().asDictionary(), resources / "Notes.momd").ok());
        Bundle::libraryBundle().addResourceDirectory(resources);
    }
    template <class Action>
    static std::string assertionOf(const Action& action) {
        try {
            action();
        } catch (const AssertionFailure& failure) {
            return failure.reason();
        }
        return "none";
    }

    NotesStore store;
};

TEST_F(StoreSingletonsTest, OneInstanceIsKeptForTheProcess) {
    LogCapture log;
    EXPECT_EQ(assertionOf([] { PersistentStoreSingleton::globalInstance(); }),
              "There's no good default for the mac for data directory");
    const fs::path file = store.directory() / "sub" / "A.sqlite";
    EXPECT_EQ(PersistentStoreSingleton::globalInstanceForDataAtPath(file), nullptr);
    EXPECT_TRUE(log.contains("Error: No object model found."));

    installModel();
    PersistentStoreSingleton* instance = PersistentStoreSingleton::globalInstanceForDataAtPath(file);
    ASSERT_NE(instance, nullptr);
    EXPECT_TRUE(fs::exists(file)) << "its directory was made";
    EXPECT_EQ(PersistentStoreSingleton::globalInstanceForDataAtPath(store.directory() / "B.sqlite"), instance);
    EXPECT_FALSE(fs::exists(store.directory() / "B.sqlite"));
    EXPECT_EQ(PersistentStoreSingleton::globalInstance(), instance);
    EXPECT_EQ(PersistentStoreSingleton::sharedInstance(), instance);
    EXPECT_EQ(PersistentStoreSingleton::globalMainThreadContext(), instance->mainThreadContext());
    EXPECT_FALSE(instance->mainContext());
    const auto context = PersistentStoreSingleton::globalNewContext();
    EXPECT_NE(context, instance->mainThreadContext());
    EXPECT_EQ(context->persistentStoreCoordinator(), instance->coordinator());
    EXPECT_EQ(instance->newcontextWithConcurrencyType(ConcurrencyType::privateQueue)->concurrencyType(),
              ConcurrencyType::privateQueue);

    const auto shared = CoreDataSingleton::ctx();
    EXPECT_EQ(shared, CoreDataSingleton::sharedInstance().context());
    EXPECT_EQ(shared->persistentStoreCoordinator(), instance->coordinator());
    EXPECT_NE(CoreDataSingleton(context).context(), shared);
    std::string elsewhere;
    std::thread([&] { elsewhere = assertionOf([] { CoreDataSingleton::sharedInstance(); }); }).join();
    EXPECT_EQ(elsewhere, "[NSThread isMainThread]");
}

TEST_F(StoreSingletonsTest, TheMainThreadContextIsReplacedOnlyWhenNothingIsLost) {
    installModel();
    const auto singleton = PersistentStoreSingleton::initWithDatabasePath(store.directory() / "A.sqlite");
    const auto before = singleton->mainThreadContext();
    insertObject(*before, "Note", "n1");
    LogCapture log;
    EXPECT_EQ(assertionOf([&] { singleton->setMainThreadContextConcurrencyType(ConcurrencyType::mainQueue); }),
              "Cannot change the main thread context if there are changes pending.");
    EXPECT_EQ(singleton->mainThreadContext(), before);
    before->rollback();
    singleton->setMainThreadContextConcurrencyType(ConcurrencyType::mainQueue);
    EXPECT_NE(singleton->mainThreadContext(), before);
    EXPECT_EQ(singleton->mainThreadContext()->concurrencyType(), ConcurrencyType::mainQueue);

    const auto confined = PersistentStoreSingleton::initWithDatabasePath(store.directory() / "C.sqlite");
    std::string changed, opened;
    confined->setMainThreadContextConcurrencyType(ConcurrencyType::privateQueue);
    std::thread([&] {
        changed = assertionOf([&] { confined->setMainThreadContextConcurrencyType(ConcurrencyType::mainQueue); });
        opened = assertionOf([&] { PersistentStoreSingleton::initWithDatabasePath(store.directory() / "D.sqlite"); });
    }).join();
    EXPECT_EQ(changed, "Must make changes from the main thread");
    EXPECT_EQ(opened, "Must be initialized from the main thread");
}

TEST_F(StoreSingletonsTest, AStoreThatCannotBeOpenedStopsTheProcessWithAReason) {
    installModel();
    LogCapture log;
    const fs::path foreign = store.directory() / "foreign.sqlite";
    std::ofstream(foreign) << std::string(4096, 'x');
    EXPECT_NE(assertionOf([&] { PersistentStoreSingleton::initWithDatabasePath(foreign); }), "none");
    ASSERT_GE(log.entries().size(), 2u);
    EXPECT_THAT(log.entries()[0], testing::StartsWith("Error adding the persistent store: "));
    EXPECT_EQ(log.entries()[1], "Your object model may have changed.");

    for (const fs::path& directory : {foreign / "sub", store.directory() / std::string(300, 'n')}) {
        log.clear();
        EXPECT_THAT(assertionOf([&] { PersistentStoreSingleton::initWithDatabasePath(directory / "A.sqlite"); }),
                    testing::StartsWith("Failed to create App Support directory " + directory.string() + " : "));
        EXPECT_THAT(log.entries()[0],
                    testing::StartsWith("Error creating application support directory at " + directory.string() + " : "));
    }
}

TEST_F(StoreSingletonsTest, ExternalRecordsLieBelowTheCaches) {
    installModel();
    const auto singleton = PersistentStoreSingleton::initWithDatabasePath(store.directory() / "A.sqlite");
    ::setenv("XDG_CACHE_HOME", "/caches", 1);
    EXPECT_EQ(singleton->externalRecordsDirectory(), "/caches/Metadata/CoreData/Velkor");
    ::unsetenv("XDG_CACHE_HOME");
    ::setenv("HOME", "/home/u", 1);
    EXPECT_EQ(singleton->externalRecordsDirectory(), "/home/u/.cache/Metadata/CoreData/Velkor");
    ::unsetenv("HOME");
    EXPECT_EQ(singleton->externalRecordsDirectory(), fs::temp_directory_path() / "Metadata/CoreData/Velkor");
}

TEST_F(StoreSingletonsTest, AnotherContextCreatorReplacesTheFirst) {
    EXPECT_FALSE(VLKMocCreator::sharedInstance());
    const auto first = VLKMocCreator::sharedInstanceWithCreatorBlock([this] { return store.newContext(); });
    first->setCtx(first->ctxCreator()());
    EXPECT_EQ(VLKMocCreator::sharedInstance(), first);
    EXPECT_EQ(first->ctx()->persistentStoreCoordinator(), store.coordinator());
    const auto second = VLKMocCreator::sharedInstanceWithCreatorBlock([this] { return store.newContext(); });
    EXPECT_EQ(VLKMocCreator::sharedInstance(), second);
    EXPECT_NE(first, second);
    EXPECT_FALSE(second->ctx());
    VLKMocCreator::dropSharedInstance();
    EXPECT_FALSE(VLKMocCreator::sharedInstance());
}

}  // namespace
}  // namespace velkor::test
