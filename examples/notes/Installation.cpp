#include "examples/notes/Installation.h"

#include <VelkorSync/AtomicFile.h>
#include <VelkorSync/OperationQueue.h>
#include <VelkorSync/PropertyList.h>
#include <VelkorSync/RunLoop.h>
#include <VelkorSync/UserDefaults.h>
#include <VelkorSync/VLKLog.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <system_error>
#include <utility>

#include "examples/notes/Model.h"
#include "examples/notes/Text.h"

namespace notes {

using namespace velkor;
namespace fs = std::filesystem;

namespace {

constexpr const char* defaultServer = "http://127.0.0.1:8330";
constexpr double lockSeconds = 5;

const fs::path& madeDirectory(const fs::path& directory) {
    std::error_code error;
    if (!fs::is_directory(directory, error)) {
        fs::path name = directory.lexically_normal();
        if (!name.has_filename()) name = name.parent_path();  // "x/" is x, no directory without a name in x
        fs::create_directories(name.parent_path(), error);
        if (::mkdir(name.c_str(), 0700) != 0 && errno != EEXIST) {
            throw CommandError("cannot make " + directory.string() + ": " + std::strerror(errno));
        }
    }
    return directory;
}

void setAside(const fs::path& file) {
    fs::path damaged = file;
    damaged += ".damaged";
    std::error_code error;
    fs::rename(file, damaged, error);
    if (error) throw CommandError(file.string() + " is damaged and cannot be set aside: " + error.message());
    std::cerr << "velkor-notes: " << printable(file.string()) << " is damaged; it was set aside as "
              << damaged.filename().string() << '\n';
}

/// Whether the file holds a property list that is a dictionary. Raises CommandError when it cannot be read, which tells nothing.
bool holdsDictionary(const fs::path& file) {
    auto bytes = NS::readFile(file);
    if (!bytes.ok()) throw CommandError(bytes.error().localizedDescription());
    auto value = NS::propertyListFromBytes(bytes.value().view());
    return value.ok() && value.value().asDictionary();
}

}  // namespace

Installation::Installation(const Options& options) : m_options(options), m_lock(madeDirectory(options.data)) {
    if (!m_lock.acquire(lockSeconds)) throw CommandError(m_options.data.string() + " is in use by another process");
    m_account = readAccount(path("account.json"));
    openStore();
    makeController();
}

Installation::~Installation() = default;

std::string Installation::serverURL() const {
    std::string url = m_options.server ? *m_options.server : m_account ? m_account->server : defaultServer;
    while (url.ends_with('/')) url.pop_back();
    return url;
}

std::optional<std::string> Installation::apiKey() const {
    if (m_options.apiKey) return m_options.apiKey;
    return m_account ? m_account->apiKey : std::nullopt;
}

void Installation::openStore() {
    NS::StoreOptions storeOptions;
    storeOptions.history = true;
    storeOptions.historyKeptAttributes = {"guid", "expired", "doNotSynchronize"};
    auto opened = NS::PersistentStoreCoordinator::open(makeModel(), path("Notes.sqlite"), storeOptions);
    if (!opened.ok()) throw CommandError(opened.error().localizedDescription());
    m_coordinator = std::move(opened).value();
    m_context = NS::ManagedObjectContext::create(m_coordinator, NS::ConcurrencyType::mainQueue);
    m_context->setAuthor("velkor-notes");
}

void Installation::makeController() {
    NS::UserDefaults::standardUserDefaults().setDirectory(m_options.data);
    VLKLog::sharedInstance().setLogLevel(m_options.logLevel);
    m_controller = VLKSyncController::globalInstanceWithServerURL(serverURL(), [coordinator = m_coordinator] {
        return NS::ManagedObjectContext::create(coordinator, NS::ConcurrencyType::privateQueue);
    });
    m_controller->setAppId(appId);
    m_controller->setApiKey(apiKey());
    m_controller->setEnableChunking(m_options.chunking);
    m_controller->setRequestTimeout(m_options.timeout);
    m_controller->setLatestModelVersion(m_options.modelVersion);
    m_controller->setStateSavePath(path("SyncState.plist").string());
    m_controller->setKeepsEveryChange(true);
    m_preferences.emplace(path("preferences.json"), *m_controller);
    loadState();
    if (!m_preferences->changeWaits()) return;
    if (m_account) useAccount();
    m_preferences->finishChange();
}

void Installation::loadState() {
    fs::path file = path("SyncState.plist");
    std::error_code error;
    if (fs::exists(file, error) && !holdsDictionary(file)) setAside(file);
    m_controller->load();
    if (!fs::exists(file, error)) m_controller->save();  // the service knows this installation by the identifier in it
    if (m_preferences->load()) return;
    setAside(path("preferences.json"));
    m_preferences->write();
}

void Installation::reload() {
    const std::optional<Account> former = std::exchange(m_account, readAccount(path("account.json")));
    const Account& account = requireAccount();
    if (former && (former->email != account.email || former->server != account.server)) {
        // They were given for the other account, and its service shall not learn this one's password.
        m_options.server.reset();
        m_options.apiKey.reset();
    }
    m_preferences->disregard();  // known under the former user's name
    m_controller->setServerUrl(serverURL());
    m_controller->setApiKey(apiKey());
    loadState();
    useAccount();
}

const Account& Installation::requireAccount() const {
    if (!m_account) throw CommandError("no account: use signup or login first");
    return *m_account;
}

void Installation::useAccount() {
    const Account& account = requireAccount();
    m_controller->setEmailAddress(account.email);
    m_controller->setUserPassword(account.password);
    m_preferences->observe();
}

void Installation::keepAccount(std::string email, std::string password) {
    Account account{std::move(email), std::move(password), m_controller->serverUrl(), m_controller->apiKey()};
    writeAccount(account, path("account.json"));
    m_account = std::move(account);
}

void Installation::forgetAccount() {
    removeAccount(path("account.json"));
    m_account.reset();
}

void Installation::saveStore() {
    auto saved = m_context->save();
    if (!saved.ok()) {
        m_context->rollback();
        throw CommandError(saved.error().localizedDescription());
    }
    drainMainQueue();
    m_controller->save();
}

void drainMainQueue() {
    bool drained = false;
    NS::OperationQueue::mainQueue().addOperation([&drained] { drained = true; });
    NS::RunLoop::main().runUntil([&drained] { return drained; }, -1);
}

}  // namespace notes
