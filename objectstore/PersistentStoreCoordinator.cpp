#include "objectstore/PersistentStoreCoordinator.h"

#include "objectstore/sqlite/CommitMonitor.h"
#include "objectstore/sqlite/HistoryTable.h"
#include "objectstore/sqlite/SQLiteStoreSession.h"
#include "objectstore/sqlite/StoreFailure.h"
#include "objectstore/sqlite/Transaction.h"
#include "platform/base/Exception.h"

namespace velkor::NS {

using sqlite::Connection;

struct PersistentStoreCoordinator::State {
    explicit State(std::shared_ptr<sqlite::StoreFile> opened) : store(std::move(opened)), monitor(store) {}

    /// Borrows a connection of the pool for one piece of work.
    template <class Work>
    auto withConnection(Work&& work) -> decltype(work(std::declval<Connection&>())) {
        auto connection = store->takeConnection();
        if (!connection) return connection.error();
        struct Loan {
            sqlite::StoreFile& store;
            std::unique_ptr<Connection> connection;
            ~Loan() { store.giveBack(std::move(connection)); }
        } loan{*store, std::move(connection).value()};
        return work(*loan.connection);
    }

    std::shared_ptr<sqlite::StoreFile> store;
    sqlite::CommitMonitor monitor;
};

PersistentStoreCoordinator::PersistentStoreCoordinator() = default;
PersistentStoreCoordinator::~PersistentStoreCoordinator() = default;

Result<std::shared_ptr<PersistentStoreCoordinator>> PersistentStoreCoordinator::open(
    std::shared_ptr<const ManagedObjectModel> model, const std::filesystem::path& file, const StoreOptions& options) {
    auto opened = sqlite::StoreFile::open(std::move(model), file, options);
    if (!opened) return opened.error();
    std::shared_ptr<PersistentStoreCoordinator> coordinator(new PersistentStoreCoordinator);
    coordinator->m_state = std::make_unique<State>(std::move(opened).value());
    return coordinator;
}

const ManagedObjectModel& PersistentStoreCoordinator::managedObjectModel() const noexcept { return *m_state->store->model(); }
const std::filesystem::path& PersistentStoreCoordinator::file() const noexcept { return m_state->store->path(); }
const StoreOptions& PersistentStoreCoordinator::options() const noexcept { return m_state->store->options(); }

Result<std::unique_ptr<StoreSession>> PersistentStoreCoordinator::session() const {
    auto connection = m_state->store->takeConnection();
    if (!connection) return connection.error();
    return std::unique_ptr<StoreSession>(new sqlite::SQLiteStoreSession(m_state->store, std::move(connection).value()));
}

Result<void> PersistentStoreCoordinator::makeDurable() { return m_state->monitor.makeDurable(); }

bool PersistentStoreCoordinator::keepsHistory() const noexcept { return m_state->store->layout()->keepsHistory; }
void PersistentStoreCoordinator::setHistoryMark(bool marked) noexcept { m_state->store->setHistoryMark(marked); }
const std::string& PersistentStoreCoordinator::historyProcess() const noexcept { return m_state->store->process(); }

Result<void> PersistentStoreCoordinator::enableHistory(std::vector<std::string> keptAttributes) {
    return m_state->store->keepHistory(keptAttributes);
}

Result<std::int64_t> PersistentStoreCoordinator::newestHistorySequence() const {
    return m_state->withConnection([](Connection& connection) -> Result<std::int64_t> {
        auto next = sqlite::historyCounter().next(connection);
        if (!next) return next;
        return next.value() - 1;
    });
}

Result<void> PersistentStoreCoordinator::historyAfter(std::int64_t sequence, const std::function<void(HistoryRow&&)>& handle,
                                                      const std::function<bool(const HistoryHead&)>& wanted) const {
    return m_state->withConnection(
        [&](Connection& connection) { return sqlite::readHistory(connection, managedObjectModel(), sequence, handle, wanted); });
}

Result<void> PersistentStoreCoordinator::purgeHistory(std::int64_t sequence) {
    return m_state->withConnection([&](Connection& connection) {
        return sqlite::inTransaction(connection, [&] { return sqlite::purgeHistoryRows(connection, sequence); });
    });
}

Result<void> PersistentStoreCoordinator::watch(std::string_view name, const std::vector<Watched>& watched) {
    return m_state->store->declareWatch(name, watched);
}

Result<std::optional<std::int64_t>> PersistentStoreCoordinator::watchStamp(std::string_view name) const {
    return m_state->monitor.watchStamp(name);
}

void PersistentStoreCoordinator::rememberValue(std::string_view name, std::int64_t stamp, Value value) {
    m_state->monitor.rememberValue(name, stamp, std::move(value));
}

Value PersistentStoreCoordinator::rememberedValue(std::string_view name) const { return m_state->monitor.rememberedValue(name); }

}  // namespace velkor::NS
