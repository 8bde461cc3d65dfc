#include "objectstore/sqlite/StoreFile.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "objectstore/sqlite/Migration.h"
#include "objectstore/sqlite/StoreFailure.h"
#include "objectstore/sqlite/Transaction.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"
#include "platform/persistence/PropertyList.h"

namespace velkor::NS::sqlite {

namespace {

constexpr std::size_t mostIdleConnections = 4;

std::string randomName() {
    std::uint64_t number = 0;
    assertThat(::getrandom(&number, sizeof number, 0) == sizeof number, "No random numbers from the system");
    return format("%016llx", number);
}

Error systemFailure(const std::filesystem::path& path, int error) {
    if (error == EACCES || error == EPERM || error == EROFS) {
        return storeFileError(StoreError::readOnly, path,
                              "cannot be opened for writing (" + std::generic_category().message(error) + ')');
    }
    const auto code = error == ENOSPC || error == EDQUOT ? StoreError::diskFull : StoreError::ioFailure;
    return storeFileError(code, path, "cannot be opened (" + std::generic_category().message(error) + ')');
}

/// Makes an empty file that only its owner can read, unless there is a file. Whether it is new.
Result<bool> makeFile(const std::filesystem::path& path) {
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file < 0) return errno == EEXIST ? Result<bool>(false) : Result<bool>(systemFailure(path, errno));
    ::close(file);
    return true;
}

/// A new file's name must be as durable as what will be written to it.
Result<void> syncDirectory(const std::filesystem::path& path) {
    const std::filesystem::path directory = path.has_parent_path() ? path.parent_path() : ".";
    const int handle = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (handle < 0) return systemFailure(path, errno);
    durableStep("store directory");
    const int failure = ::fsync(handle) == 0 || errno == EINVAL ? 0 : errno;
    ::close(handle);
    if (failure != 0) return systemFailure(path, failure);
    return {};
}

}  // namespace

StoreFile::StoreFile(std::shared_ptr<const ManagedObjectModel> model, std::filesystem::path path, StoreOptions options)
    : m_model(std::move(model)),
      m_path(std::move(path)),
      m_options(std::move(options)),
      m_schema(m_model),
      m_process(randomName()) {}

Result<std::shared_ptr<StoreFile>> StoreFile::open(std::shared_ptr<const ManagedObjectModel> model,
                                                   const std::filesystem::path& path, const StoreOptions& options) {
    assertThat(model != nullptr, "A store needs an object model");
    auto wantedModel = modelText(*model);
    if (!wantedModel) return wantedModel.error();
    std::error_code failure;
    const std::filesystem::path absolute = std::filesystem::absolute(path, failure);  // connections are opened later, too
    std::shared_ptr<StoreFile> store(new StoreFile(std::move(model), failure ? path : absolute, options));
    auto made = makeFile(path);
    if (!made) return made.error();
    auto connection = store->connect();
    if (!connection) return connection.error();
    if (auto prepared = store->prepareFile(*connection.value(), wantedModel.value()); !prepared) return prepared.error();
    if (made.value()) {
        if (auto synced = syncDirectory(path); !synced) return synced.error();
    }
    auto layout = StoreLayout::read(*connection.value(), *store->m_model);
    if (!layout) return layout.error();
    if (layout.value()->modelText != wantedModel.value()) return store->migratedByAnother();
    store->m_layout = std::move(layout).value();
    store->giveBack(std::move(connection).value());
    return store;
}

Error StoreFile::migratedByAnother() const {
    return storeFileError(StoreError::incompatibleModel, m_path, "was migrated to another object model by another process");
}

Result<std::unique_ptr<Connection>> StoreFile::connect() const {
    return Connection::open(m_path, {m_options.busyTimeoutSeconds, m_options.fullSync});
}

Result<void> StoreFile::prepareFile(Connection& connection, const std::string& wantedModel) {
    auto found = holdsStore(connection);
    if (!found) return found.error();
    if (connection.readOnly()) return storeFileError(StoreError::readOnly, m_path, "cannot be written: it is read-only");
    // Only now is it certain that the file is ours to change.
    if (auto set = connection.execute("PRAGMA journal_mode=WAL"); !set) return set;
    if (!found.value()) {
        auto created = inTransaction(connection, [&]() -> Result<void> {
            auto already = holdsStore(connection);  // another process may have been quicker
            if (!already) return already.error();
            return already.value() ? Result<void>() : createStore(connection, wantedModel);
        });
        if (!created) return created;
    }
    return bringUpToDate(connection, wantedModel);
}

/// Whether the file is a store; false when it is still empty; an error when it is something else.
Result<bool> StoreFile::holdsStore(Connection& connection) const {
    auto application = connection.integer("PRAGMA application_id");
    if (!application) return application.error();
    if (application.value() == applicationID) return true;
    auto tables = connection.integer("SELECT count(*) FROM sqlite_master");
    if (!tables) return tables.error();
    if (application.value() == 0 && tables.value() == 0) return false;
    // Between the two questions another process may have made the store.
    application = connection.integer("PRAGMA application_id");
    if (!application) return application.error();
    if (application.value() == applicationID) return true;
    return storeFileError(StoreError::notAStore, m_path, "is no object store, but a database of another program");
}

Result<void> StoreFile::createStore(Connection& connection, const std::string& wantedModel) {
    if (auto made = createOwnTables(connection); !made) return made;
    for (std::size_t i = 0; i < m_schema.tableCount(); ++i) {
        if (auto made = connection.execute(m_schema.table(i).creationSQL()); !made) return made;
    }
    for (const auto& [name, sql] : m_schema.joinTables()) {
        if (auto made = connection.execute(sql); !made) return made;
    }
    if (auto made = reconcileIndices(connection, m_schema); !made) return made;
    if (auto written = writeModelText(connection, wantedModel); !written) return written;
    return raiseGeneration(connection);
}

/// Migrates to the model and turns history on, as far as the file is not there yet.
Result<void> StoreFile::bringUpToDate(Connection& connection, const std::string& wantedModel) {
    const auto isUpToDate = [&](const StoreLayout& layout) {
        return layout.modelText == wantedModel &&
               (!m_options.history || (layout.keepsHistory && layout.keptAttributes == m_options.historyKeptAttributes));
    };
    auto found = StoreLayout::read(connection, *m_model);
    if (!found) return found.error();
    if (isUpToDate(*found.value())) return {};
    return inTransaction(connection, [&]() -> Result<void> {
        auto layout = StoreLayout::read(connection, *m_model);
        if (!layout) return layout.error();
        if (isUpToDate(*layout.value())) return {};
        if (layout.value()->modelText != wantedModel) {
            if (!m_options.migrateAutomatically) {
                return storeFileError(StoreError::incompatibleModel, m_path, "was made with another object model");
            }
            if (auto migrated = migrateStore(connection, layout.value()->modelText, m_schema, wantedModel); !migrated)
                return migrated;
        }
        if (m_options.history) {
            if (auto set = writeHistorySettings(connection, m_options.historyKeptAttributes); !set) return set;
        }
        return raiseGeneration(connection);
    });
}

std::shared_ptr<const StoreLayout> StoreFile::layout() const {
    const std::lock_guard lock(m_mutex);
    return m_layout;
}

Result<std::shared_ptr<const StoreLayout>> StoreFile::currentLayout(Connection& connection) {
    std::shared_ptr<const StoreLayout> known = layout();
    auto generation = connection.integer("PRAGMA user_version");
    if (!generation) return generation.error();
    if (generation.value() == known->generation) return known;
    auto fresh = StoreLayout::read(connection, *m_model);
    if (!fresh) return fresh.error();
    if (fresh.value()->modelText != known->modelText) return migratedByAnother();
    const std::lock_guard lock(m_mutex);
    // A transaction that is slower to come here must not bring an older state back.
    if (fresh.value()->generation > m_layout->generation) m_layout = fresh.value();
    return fresh;
}

/// Changes one of the file's settings in a transaction and takes the new layout over.
Result<void> StoreFile::changeLayout(const std::function<Result<void>(Connection&)>& change) {
    auto connection = takeConnection();
    if (!connection) return connection.error();
    auto changed = inTransaction(*connection.value(), [&]() -> Result<void> {
        if (auto current = currentLayout(*connection.value()); !current) return current.error();
        if (auto made = change(*connection.value()); !made) return made;
        return raiseGeneration(*connection.value());
    });
    if (changed) {
        if (auto current = currentLayout(*connection.value()); !current) changed = current.error();
    }
    giveBack(std::move(connection).value());
    return changed;
}

Result<void> StoreFile::keepHistory(const std::vector<std::string>& keptAttributes) {
    const auto known = layout();
    if (known->keepsHistory && known->keptAttributes == keptAttributes) return {};
    return changeLayout([&](Connection& connection) { return writeHistorySettings(connection, keptAttributes); });
}

Result<void> StoreFile::declareWatch(std::string_view name, const std::vector<PersistentStoreCoordinator::Watched>& watched) {
    for (const auto& each : watched) {
        const EntityDescription* entity = m_model->entityNamed(each.entity);
        if (!entity) return storeError(StoreError::badRequest, "There is no entity " + each.entity + " to watch.");
        for (const std::string& attribute : each.attributes) {
            if (entity->attributeNamed(attribute)) continue;
            return storeError(StoreError::badRequest, each.entity + " has no attribute " + attribute + " to watch.");
        }
    }
    const Watch wanted(std::string(name), watched, *m_model);
    const auto known = layout();
    for (const Watch& watch : known->watches) {
        if (watch == wanted) return {};
    }
    return changeLayout([&](Connection& connection) { return writeWatch(connection, name, watched); });
}

Result<std::unique_ptr<Connection>> StoreFile::takeConnection() {
    {
        const std::lock_guard lock(m_mutex);
        if (!m_idle.empty()) {
            std::unique_ptr<Connection> connection = std::move(m_idle.back());
            m_idle.pop_back();
            return connection;
        }
    }
    return connect();
}

void StoreFile::giveBack(std::unique_ptr<Connection> connection) noexcept {
    const std::lock_guard lock(m_mutex);
    if (m_idle.size() < mostIdleConnections) m_idle.push_back(std::move(connection));
}

}  // namespace velkor::NS::sqlite
