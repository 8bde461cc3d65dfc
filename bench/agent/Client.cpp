#include "bench/agent/Client.h"

#include <algorithm>
#include <stdexcept>

#include "PelmoLib/encodings/NSData+Digests.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "Sync/VLKSyncableObjectHasher.h"
#include "bench/NotesModel.h"
#include "platform/concurrency/OperationQueue.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/persistence/UserDefaults.h"

namespace agent {

using namespace velkor;

namespace {

constexpr const char* email = "bench@example.org";
constexpr const char* password = "bench-password";

template <class T>
T require(NS::Result<T> result) {
    if (!result.ok()) throw std::runtime_error(result.error().localizedDescription());
    return std::move(result).value();
}

void require(const NS::Result<void>& result) {
    if (!result.ok()) throw std::runtime_error(result.error().localizedDescription());
}

}  // namespace

Client::Client(const Settings& settings) : m_settings(settings) {
    NS::RunLoop::main();
    NS::UserDefaults::standardUserDefaults().setDirectory(settings.directory);
    NS::StoreOptions options;
    options.fullSync = settings.fullSync;
    options.history = true;
    options.historyKeptAttributes = {"guid", "expired", "doNotSynchronize"};
    m_coordinator =
        require(NS::PersistentStoreCoordinator::open(bench::notesModel(), settings.directory / "Notes.sqlite", options));
    m_context = NS::ManagedObjectContext::create(m_coordinator, NS::ConcurrencyType::mainQueue);
    m_controller = VLKSyncController::globalInstanceWithServerURL(settings.serverURL, [coordinator = m_coordinator] {
        return NS::ManagedObjectContext::create(coordinator, NS::ConcurrencyType::privateQueue);
    });
    m_controller->setAppId("org.velkor.bench");
    m_controller->setEnableChunking(settings.chunking);
    m_controller->setStateSavePath((settings.directory / "SyncState.plist").string());
    m_controller->setKeepsEveryChange(true);
    m_controller->load();
}

void Client::signUp() {
    bool answered = false;
    m_controller->signupWithEmailAddress(email, password, [&](bool, const std::optional<NS::Error>&) { answered = true; });
    NS::RunLoop::main().runUntil([&] { return answered; }, 60);
    m_controller->setEmailAddress(email);
    m_controller->setUserPassword(password);
}

void Client::prepare(std::size_t notes) {
    m_workload = std::make_unique<Workload>(notes);
    m_noteGuids.clear();
    for (const auto& note : m_workload->notes()) m_noteGuids.push_back(note.guid);
}

void Client::save() { require(m_context->save()); }

void Client::captureEverything() {
    bool drained = false;
    NS::OperationQueue::mainQueue().addOperation([&] { drained = true; });
    NS::RunLoop::main().runUntil([&] { return drained; }, -1);
}

void Client::create() {
    const auto& model = m_context->managedObjectModel();
    auto insertNamed = [&](const char* entity, const char* title, const std::vector<std::string>& guids) {
        std::vector<std::shared_ptr<NS::ManagedObject>> objects;
        for (std::size_t i = 0; i < guids.size(); ++i) {
            auto object = m_context->insertNewObject(*model.entityNamed(entity));
            object->setValueForKey(guids[i], "guid");
            object->setValueForKey(title + std::to_string(i), "name");
            objects.push_back(std::move(object));
        }
        return objects;
    };
    auto notebooks = insertNamed("Notebook", "Notebook ", m_workload->notebooks());
    auto tags = insertNamed("Tag", "tag ", m_workload->tags());
    save();

    const auto& entity = *model.entityNamed("Note");
    const auto& notebookOf = *entity.relationshipNamed("notebook");
    const auto& tagsOf = *entity.relationshipNamed("tags");
    const NS::Date created(1714979289);
    long unsaved = 0;
    for (const auto& row : m_workload->notes()) {
        auto note = m_context->insertNewObject(entity);
        note->setValueForKey(row.guid, "guid");
        note->setValueForKey(row.title, "title");
        note->setValueForKey(row.body, "body");
        note->setValueForKey(created, "createdAt");
        note->setValueForKey(row.pinned, "pinned");
        note->setValueForKey(row.rating, "rating");
        note->setValueForKey(row.score, "score");
        note->setDestination(notebookOf, notebooks[row.notebook]);
        NS::ObjectSet chosen;
        for (auto tag : row.tags) chosen.insert(tags[tag]);
        note->setDestinations(tagsOf, chosen);
        if (++unsaved == m_settings.notesPerSave) {
            save();
            unsaved = 0;
        }
    }
    if (unsaved > 0) save();
    m_workload.reset();
    captureEverything();
}

void Client::change(std::size_t notes) {
    const auto& entity = *m_context->managedObjectModel().entityNamed("Note");
    for (std::size_t i = 7; i < notes && i < m_noteGuids.size(); i += 100) {
        NS::FetchRequest request(&entity);
        request.predicate = NS::Predicate::equal("guid", m_noteGuids[i]);
        auto found = require(m_context->executeFetchRequest(request));
        if (found.empty()) throw std::runtime_error("a note is missing");
        found.front()->setValueForKey("Changed " + std::to_string(i), "title");
        found.front()->setValueForKey((found.front()->valueForKey("rating").asInteger().value_or(0) + 1) % 6, "rating");
        save();
    }
    captureEverything();
}

void Client::sync() {
    bool ended = false;
    m_controller->setLastError(std::nullopt);
    m_controller->forceSyncWithContinuation([&] { ended = true; });
    NS::RunLoop::main().runUntil(
        [&] {
            const auto& report = m_controller->cycleReport();
            return ended && (report.unlockAnswered || report.lockError);
        },
        -1);
    auto error = m_controller->cycleReport().lockError ? m_controller->cycleReport().lockError : m_controller->lastError();
    if (error) throw std::runtime_error(error->localizedDescription());
}

NS::Dictionary Client::digest() {
    auto context = NS::ManagedObjectContext::create(m_coordinator, NS::ConcurrencyType::mainQueue);
    NS::FetchRequest request(context->managedObjectModel().entityNamed("Note"));
    request.sortDescriptors = {{"guid", true}};
    request.relationshipsToPrefetch = {"tags"};
    const auto& tagsOf = *request.entity->relationshipNamed("tags");
    SHA256Digest content;
    auto notes = require(context->executeFetchRequest(request));
    for (const auto& note : notes) {
        content.update(note->valueForKey("guid").stringOr(""));
        content.update(note->valueForKey("title").stringOr(""));
        content.update(std::to_string(note->valueForKey("rating").asInteger().value_or(0)));
        content.update(std::to_string(note->destinations(tagsOf).size()));
    }
    auto digest = content.finish();
    VLKSyncableObjectHasher hasher(context, *m_controller);
    return {{"count", notes.size()},
            {"content", base64Encoding(NS::Data(std::span<const std::uint8_t>(digest)))},
            {"guids", hasher.hashOfKnownShareableObjects().value_or("")}};
}

}  // namespace agent
