// The stage of the sync controller's tests: a store of notes, a scripted service, a host's context and a controller.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Sync/VLKSyncController.h"
#include "Sync/VLKTransaction.h"
#include "platform/base/Dictionary.h"
#include "tests/support/FakeService.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NotesModel.h"

namespace velkor::test {

/// A controller that a test makes and takes down itself.
class TestController : public VLKSyncController {
public:
    TestController(std::string serverURL, VLKContextCreator creator)
        : VLKSyncController(std::move(serverURL), std::move(creator)) {}
};

class ControllerTest : public testing::Test {
protected:
    explicit ControllerTest(const NS::StoreOptions& options = {});
    ~ControllerTest() override;

    /// A controller over `store`, with credentials, a state file and an application identifier.
    std::unique_ptr<TestController> newController();
    /// The service grants locks, knows the user as 7, and finds everything in sync.
    void scriptService();
    /// Answers changes requests, one after another; the last one repeats.
    void answerChanges(const std::vector<std::string>& answers);

    /// Runs the main queue until nothing is left that is due.
    static void settle();
    static bool runUntil(const std::function<bool()>& condition);
    /// Saves the host's context and lets the controller take the save in.
    void save();
    /// Runs one whole cycle: until its unlock was answered, or its lock refused.
    void sync();

    ObjectPointer addNote(std::string_view guid, const NS::Dictionary& values = {}) {
        return insertObject(*host, "Note", guid, values);
    }
    /// The pending changes as "GUID TYPE" (without "_XACTION"), in their order.
    std::vector<std::string> pending() const { return described(controller->changes()); }
    static std::vector<std::string> described(const VLKTransactionMap& transactions);
    std::string statePath() const { return (store.directory() / "SyncState.plist").string(); }
    /// The body of the n-th (from 0) request whose target begins so, as JSON.
    NS::Dictionary body(std::string_view prefix, std::size_t index) const;
    NS::Dictionary changesRequest(std::size_t index) const { return body("/users/7/transactions.json", index); }
    static std::vector<std::string> keysOf(const NS::Dictionary& dictionary);
    /// The requests' methods and targets, in order.
    std::vector<std::string> traffic() const;

    FakeService service;
    NotesStore store;
    std::unique_ptr<TestController> controller;
    std::shared_ptr<NS::ManagedObjectContext> host;
};

/// A transaction as the service sends it in "new_xactions".
std::string receivedInsert(std::string_view entity, std::string_view guid, std::string_view attributes = "");
std::string receivedDelete(std::string_view entity, std::string_view guid);

}  // namespace velkor::test
