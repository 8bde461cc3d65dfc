#include "PelmoLib/PersistentStoreSingleton.h"

#include <cstdlib>
#include <system_error>
#include <utility>

#include "objectstore/ManagedObjectModel.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"
#include "platform/base/SystemLog.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/persistence/Bundle.h"

namespace velkor {

using namespace NS;
namespace fs = std::filesystem;

namespace {

PersistentStoreSingleton*& keptInstance() {
    static PersistentStoreSingleton* instance = nullptr;  // lives until the process ends
    return instance;
}

std::shared_ptr<const ManagedObjectModel> firstModel() {
    const auto models = Bundle::libraryBundle().pathsForResourcesOfType("momd");
    if (models.empty()) {
        systemLog("Error: No object model found.");
        return nullptr;
    }
    auto model = ManagedObjectModel::modelWithContentsOfFile(models.front());
    if (!model) {
        systemLog(format("Error: The object model at %@ cannot be read: %@", models.front().string(),
                         model.error().localizedDescription()));
        return nullptr;
    }
    return std::move(model).value();
}

void makeDirectory(const fs::path& directory) {
    std::error_code failure;
    if (directory.empty() || fs::exists(directory, failure)) return;
    if (!failure) fs::create_directory(directory, failure);
    if (!failure) return;
    systemLog(format("Error creating application support directory at %@ : %@", directory.string(), failure.message()));
    failAssertion(format("Failed to create App Support directory %@ : %@", directory.string(), failure.message()));
}

}  // namespace

PersistentStoreSingleton* PersistentStoreSingleton::globalInstanceForDataAtPath(const fs::path& path) {
    if (!keptInstance()) keptInstance() = initWithDatabasePath(path).release();
    return keptInstance();
}

PersistentStoreSingleton* PersistentStoreSingleton::globalInstance() {
    return keptInstance() ? keptInstance() : globalInstanceForDataAtPath(dataDirectoryPath() / "Data.sqlite");
}

fs::path PersistentStoreSingleton::dataDirectoryPath() {
    failAssertion("There's no good default for the mac for data directory");
}

std::shared_ptr<ManagedObjectContext> PersistentStoreSingleton::globalNewContext() {
    PersistentStoreSingleton* instance = globalInstance();
    return instance ? instance->newContext() : nullptr;
}

std::shared_ptr<ManagedObjectContext> PersistentStoreSingleton::globalMainThreadContext() {
    PersistentStoreSingleton* instance = globalInstance();
    return instance ? instance->mainThreadContext() : nullptr;
}

std::unique_ptr<PersistentStoreSingleton> PersistentStoreSingleton::initWithDatabasePath(const fs::path& path) {
    assertThat(RunLoop::isMainThread(), "Must be initialized from the main thread");
    auto model = firstModel();
    if (!model) return nullptr;
    makeDirectory(path.parent_path());
    auto coordinator = PersistentStoreCoordinator::open(std::move(model), path);
    if (!coordinator) {
        systemLog(format("Error adding the persistent store: %@", coordinator.error().description()));
        systemLog("Your object model may have changed.");
        failAssertion(format("The persistent store at %@ could not be added.", path.string()));
    }
    return std::unique_ptr<PersistentStoreSingleton>(new PersistentStoreSingleton(std::move(coordinator).value()));
}

PersistentStoreSingleton::PersistentStoreSingleton(std::shared_ptr<PersistentStoreCoordinator> coordinator)
    : m_coordinator(std::move(coordinator)), m_mainThreadContext(newContext()) {}

std::shared_ptr<ManagedObjectContext> PersistentStoreSingleton::newContext() const {
    return ManagedObjectContext::create(m_coordinator);
}

std::shared_ptr<ManagedObjectContext> PersistentStoreSingleton::newcontextWithConcurrencyType(ConcurrencyType type) const {
    return ManagedObjectContext::create(m_coordinator, type);
}

void PersistentStoreSingleton::setMainThreadContextConcurrencyType(ConcurrencyType type) {
    assertThat(!m_mainThreadContext->hasChanges(), "Cannot change the main thread context if there are changes pending.");
    assertThat(RunLoop::isMainThread(), "Must make changes from the main thread");
    m_mainThreadContext = newcontextWithConcurrencyType(type);
}

fs::path PersistentStoreSingleton::externalRecordsDirectory() const {
    const char* caches = std::getenv("XDG_CACHE_HOME");
    const char* home = std::getenv("HOME");
    fs::path base = caches && *caches ? fs::path(caches) : home && *home ? fs::path(home) / ".cache" : fs::temp_directory_path();
    return base / "Metadata/CoreData/Velkor";
}

}  // namespace velkor
