#include "Sync/VLKChangeWriteOperation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "objectstore/History.h"
#include "platform/base/Format.h"
#include "platform/concurrency/NotificationCenter.h"
#include "platform/concurrency/OperationQueue.h"
#include "platform/concurrency/RunLoop.h"
#include "tests/Sync/ReceivedTransactions.h"
#include "tests/support/LogCapture.h"
#include "tests/support/NotesModel.h"

namespace velkor::test {
namespace {

using namespace NS;
using testing::ElementsAre;
using testing::IsEmpty;

struct Delegate : VLKChangeWriteOperationDelegate {
    void changeWriteOperationFinishedWritingData(VLKChangeWriteOperation& operation) override {
        EXPECT_TRUE(RunLoop::isMainThread());
        calls.push_back(&operation);
    }
    std::vector<VLKChangeWriteOperation*> calls;
};

class VLKChangeWriteOperationTest : public testing::Test {
protected:
    VLKChangeWriteOperationTest() { RunLoop::main(); }
    std::shared_ptr<VLKChangeWriteOperation> operationFor(const Dictionary& answer) {
        auto creator = [this] {
            ++contexts;
            return store.newContext();
        };
        auto operation = std::make_shared<VLKChangeWriteOperation>(answer, creator, "http://localhost", "u@x.y", "p", "app");
        operation->setDelegate(&delegate);
        operation->setCompletionBlock([this] { RunLoop::main().post([this] { finished = true; }); });
        return operation;
    }
    /// Runs the operation on a background queue to its end, the main queue's work included.
    void run(const std::shared_ptr<VLKChangeWriteOperation>& operation) {
        finished = false;
        queue.addOperation(operation);
        ASSERT_TRUE(RunLoop::main().runUntil([this] { return finished; }, 60));
    }
    static Dictionary insertOfTag(std::string_view guid) {
        return received("INSERT_XACTION", "Tag", guid, format(R"({"attributes":{"guid":"%@"}})", guid));
    }
    std::vector<std::string> tags() { return guidsOf(*store.newContext(), "Tag"); }

    static StoreOptions keepingHistory() {
        StoreOptions options;
        options.history = true;
        return options;
    }

    NotesStore store{keepingHistory()};
    Delegate delegate;
    OperationQueue queue;
    std::atomic<int> contexts = 0;
    bool finished = false;
};

TEST_F(VLKChangeWriteOperationTest, AnAnswerIsWrittenSavedAndReported) {
    const auto operation =
        operationFor(answerWith(Array{insertOfTag("t1"), insertOfTag("t2"), received("DELETE_XACTION", "Tag", "t1")}));
    EXPECT_FALSE(operation->ctx());
    run(operation);
    EXPECT_THAT(tags(), ElementsAre("t2"));
    EXPECT_THAT(delegate.calls, ElementsAre(operation.get()));
    EXPECT_EQ(contexts, 1);
    EXPECT_FALSE(operation->failed());
    EXPECT_THAT(operation->errors(), IsEmpty());
    EXPECT_EQ(operation->totalDownloadCount(), 0);
    EXPECT_EQ(operation->progress().valueForKey("downloadCount"), 0);
    ASSERT_TRUE(operation->ctx());
    EXPECT_EQ(operation->ctx()->author(), VLKSyncAuthor);
    std::vector<std::string> authors;
    ASSERT_TRUE(store.coordinator()->historyAfter(0, [&](HistoryRow&& row) { authors.push_back(row.author); }).ok());
    EXPECT_THAT(authors, ElementsAre(std::string(VLKSyncAuthor))) << "its own writes can be told apart";
}

TEST_F(VLKChangeWriteOperationTest, WithoutTransactionsNothingHappens) {
    LogCapture quiet;
    for (const Dictionary& answer : {Dictionary(), Dictionary{{"new_xactions", Array()}}, Dictionary{{"new_xactions", "text"}}}) {
        const auto operation = operationFor(answer);
        run(operation);
        EXPECT_FALSE(operation->ctx());
        EXPECT_FALSE(operation->failed());
    }
    EXPECT_EQ(contexts, 0);
    EXPECT_THAT(delegate.calls, IsEmpty());
}

TEST_F(VLKChangeWriteOperationTest, ADelegateThatLeftIsNotCalled) {
    const auto operation = operationFor(answerWith(Array{insertOfTag("t1")}));
    std::thread([&] { operation->main(); }).join();
    operation->setDelegate(nullptr);
    bool reached = false;
    RunLoop::main().post([&] { reached = true; });
    ASSERT_TRUE(RunLoop::main().runUntil([&] { return reached; }, 60));
    EXPECT_THAT(delegate.calls, IsEmpty());
    EXPECT_THAT(tags(), ElementsAre("t1"));
}

TEST_F(VLKChangeWriteOperationTest, AnExceptionEndsItWithAReportOnly) {
    struct Case {
        const char* what;
        Dictionary answer;
        std::string name;
    };
    Dictionary generic = received("UPDATE_XACTION", "GENERIC_OBJECT", "u_prefs_a");
    Dictionary tooShort = received("INSERT_XACTION", "Tag", "t2");
    tooShort.set("xaction_object", "x");
    const Case cases[] = {
        {"failed assertion", answerWith(Array{insertOfTag("t1"), generic}), ""},
        {"payload of one character", answerWith(Array{insertOfTag("t1"), tooShort}), "NSRangeException"},
        {"no payload", answerWith(Array{insertOfTag("t1"), received("INSERT_XACTION", "Tag", "t2")}),
         "NSInvalidArgumentException"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        LogCapture log;
        const auto operation = operationFor(c.answer);
        run(operation);
        EXPECT_THAT(tags(), IsEmpty()) << "nothing is saved";
        EXPECT_TRUE(operation->ctx()->hasChanges()) << "nor rolled back";
        EXPECT_THAT(delegate.calls, IsEmpty());
        EXPECT_FALSE(operation->failed());
        auto entries = log.entries();
        ASSERT_GE(entries.size(), 6u);
        entries.erase(entries.begin(), entries.end() - 6);
        EXPECT_THAT(entries, ElementsAre("Exception occurred in a background thread.", testing::StartsWith("Name: " + c.name),
                                         testing::StartsWith("Reason: "), testing::_, "User Info: {\n}",
                                         format("The JSON Data being converted: %@", c.answer)));
    }
}

TEST_F(VLKChangeWriteOperationTest, WithoutAContextItFails) {
    const auto contextless = std::make_shared<VLKChangeWriteOperation>(
        answerWith(Array{insertOfTag("t1")}), [] { return nullptr; }, "", "", "", "");
    LogCapture log;
    contextless->main();
    EXPECT_TRUE(contextless->failed());
    EXPECT_THAT(log.entries(), ElementsAre("There is no context to write the changes of the server with."));
}

TEST_F(VLKChangeWriteOperationTest, AFailedSaveCountsOnlyForThoseWhoKeepEveryChange) {
    const Dictionary unsavable =
        answerWith(Array{received("INSERT_XACTION", "Tag", "t1", R"({"attributes":{"guid":"t1","name":"a\u0000b"}})")});
    for (bool keeps : {false, true}) {
        const auto operation = operationFor(unsavable);
        operation->setKeepsEveryChange(keeps);
        LogCapture log;
        run(operation);
        EXPECT_THAT(log.entries(), ElementsAre(testing::StartsWith("Unable to save the changes of the server: ")));
        EXPECT_THAT(tags(), IsEmpty());
        EXPECT_EQ(operation->failed(), keeps);
        ASSERT_EQ(operation->errors().size(), keeps ? 1u : 0u);
        for (const Error& error : operation->errors()) EXPECT_EQ(error.code(), StoreError::validation);
    }
    EXPECT_EQ(delegate.calls.size(), 2u);
}

TEST_F(VLKChangeWriteOperationTest, WhatCannotBeLookedUpIsNotTakenForAbsent) {
    const Dictionary note = received("INSERT_XACTION", "Note", "n1", R"({"attributes":{"guid":"n1"}})");
    run(operationFor(answerWith(Array{insertOfTag("t1"), note})));
    struct Case {
        const char* table;
        Array page;
    };
    for (const auto& [table, page] : {Case{"e_Tag", {insertOfTag("t1"), insertOfTag("t2")}},
                                      Case{"j_Note.tags", {insertOfTag("t2"), received("DELETE_XACTION", "Note", "n1")}}}) {
        SCOPED_TRACE(table);
        delegate.calls.clear();
        LogCapture log;
        const auto again = operationFor(answerWith(page));
        store.renameTable(table, "elsewhere");
        run(again);
        store.renameTable("elsewhere", table);
        EXPECT_TRUE(again->failed());
        EXPECT_EQ(again->errors().size(), 1u);
        EXPECT_FALSE(again->ctx()->hasChanges()) << "rolled back";
        EXPECT_THAT(delegate.calls, ElementsAre(again.get()));
        EXPECT_THAT(tags(), ElementsAre("t1"));
    }
}

TEST_F(VLKChangeWriteOperationTest, EntriesBecomeTransactionsInOrder) {
    LogCapture log;
    const auto operation = operationFor({});
    const auto transactions =
        operation->convertJSONToTransactions(Array{Dictionary{{"transaction", insertOfTag("t1")}}, "text",
                                                   Dictionary{{"transaction", received("DELETE_XACTION", "Note", "n1")}}});
    ASSERT_EQ(transactions.size(), 3u);
    EXPECT_EQ(transactions[0]->objGuid(), "t1");
    EXPECT_FALSE(transactions[1]->objGuid());
    EXPECT_EQ(transactions[2]->type(), "DELETE_XACTION");
    EXPECT_EQ(log.entries().size(), 1u);

    const auto odd = operationFor(Dictionary{{"new_xactions", Array{"text", Dictionary{{"transaction", insertOfTag("t1")}}}}});
    run(odd);
    EXPECT_TRUE(log.contains("Unknown object type from server: (null)"));
    EXPECT_THAT(tags(), ElementsAre("t1")) << "one odd entry does not stop the others";
}

TEST_F(VLKChangeWriteOperationTest, APageLargerThanManySlicesIsWrittenWhole) {
    Array page;
    for (int i = 0; i < 3000; ++i) page.push_back(insertOfTag("t" + std::to_string(i)));
    run(operationFor(answerWith(page)));
    EXPECT_EQ(tags().size(), 3000u);
}

TEST_F(VLKChangeWriteOperationTest, Logs) {
    auto page = [&] { operationFor(answerWith(Array{insertOfTag("t1"), insertOfTag("t2")}))->main(); };
    checkLogCases({
        {"progress",
         300,
         page,
         {"Processing 2 transactions.", "Attempting to download blobs...", "Finished processing transactions"}},
    });
}

}  // namespace
}  // namespace velkor::test
