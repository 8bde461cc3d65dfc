#include "PelmoLib/JSONWebCommand.h"

#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <thread>

#include "PelmoLib/NSMutableURLRequest+Posts.h"
#include "platform/base/Exception.h"
#include "platform/base/Value.h"
#include "platform/concurrency/RunLoop.h"
#include "tests/support/FakeService.h"

namespace velkor {
namespace {

using test::FakeAnswer;

/// A command whose every message is written down, with the thread it came on.
class JSONWebCommandTest : public testing::Test, public JSONWebCommandDelegate {
protected:
    JSONWebCommandTest() { NS::RunLoop::main(); }

    std::shared_ptr<JSONWebCommand> command(std::string_view path) {
        auto result = std::make_shared<JSONWebCommand>(NS::MutableURLRequest(service.url() + std::string(path)));
        result->setDelegate(this);
        result->setCompletionBlock([this](const NS::Dictionary& dictionary) { note("completion " + dictionary.description()); });
        result->setFailureBlock([this](const NS::Error& error) {
            note("failure");
            lastError = error;
        });
        result->setFinallyBlock([this] { note("finally"); });
        return result;
    }
    void webCommandCompletedWithResult(JSONWebCommand& sender, const NS::Dictionary&) override {
        note("delegate completed", sender);
    }
    void webCommandFailedWithError(JSONWebCommand& sender, const NS::Error& error) override {
        EXPECT_EQ(error, lastError);
        note("delegate failed", sender);
    }
    void note(std::string text) {
        const std::lock_guard lock(mutex);
        if (!NS::RunLoop::main().isCurrentThread()) text += " elsewhere";
        notes.push_back(std::move(text));
    }
    void note(const std::string& text, JSONWebCommand& sender) { note(text + " " + std::string(sender.commandStatus())); }
    std::vector<std::string> awaitNotes(std::size_t count) {
        NS::RunLoop::main().runUntil(
            [&] {
                const std::lock_guard lock(mutex);
                return notes.size() >= count;
            },
            30);
        settle();
        const std::lock_guard lock(mutex);
        return notes;
    }
    /// Lets everything that was posted so far run, so that a message too many would be seen.
    static void settle() {
        bool done = false;
        NS::RunLoop::main().post([&] { NS::RunLoop::main().post([&] { done = true; }); });
        NS::RunLoop::main().runUntil([&] { return done; }, 30);
    }

    test::FakeService service;
    std::mutex mutex;
    std::vector<std::string> notes;
    std::optional<NS::Error> lastError;
};

using Notes = std::vector<std::string>;

TEST_F(JSONWebCommandTest, deliversASuccessOnTheMainThread) {
    service.script("", "/", {FakeAnswer::json(R"({"a":1})")});
    const auto running = command("/x");
    EXPECT_EQ(running->commandStatus(), "COMMAND_PENDING");
    EXPECT_TRUE(running->showsNetworkActivity());
    running->start();
    EXPECT_EQ(running->commandStatus(), "COMMAND_RUNNING");
    EXPECT_EQ(awaitNotes(3),
              (Notes{"completion " + NS::Dictionary{{"a", 1}}.description(), "delegate completed FAILED_COMMAND", "finally"}));
    EXPECT_EQ(running->commandStatus(), "COMMAND_FINISHED");
    EXPECT_EQ(running->statusCode(), 200);
    EXPECT_EQ(running->data().view(), R"({"a":1})");
    EXPECT_EQ(running->resultDict(), (NS::Dictionary{{"a", 1}}));
    EXPECT_EQ(running->connection(), nullptr);
}

TEST_F(JSONWebCommandTest, runsAThreadedCompletionOnTheParseQueueAndTheFinalBlockBeforeTheDelegate) {
    service.script("", "/", {FakeAnswer::json("{}")});
    const auto running = command("/x");
    running->setCompletionBlock(nullptr);
    running->setThreadedCompletionBlock([this](const NS::Dictionary&) { note("threaded"); });
    running->setFinallyBlock([this] {
        note("finally");
        NS::OperationQueue::mainQueue().addOperation([this] { note("added by finally"); });
    });
    running->start();
    EXPECT_EQ(awaitNotes(4), (Notes{"threaded elsewhere", "finally", "added by finally", "delegate completed COMMAND_FINISHED"}));
}

TEST_F(JSONWebCommandTest, refusesTwoCompletionBlocks) {
    const auto running = command("/x");
    running->setThreadedCompletionBlock([](const NS::Dictionary&) {});
    try {
        running->start();
        FAIL();
    } catch (const NS::AssertionFailure& failure) {
        EXPECT_EQ(failure.reason(), "!(completionBlock && threadedCompletionBlock)");
    }
}

TEST_F(JSONWebCommandTest, reportsEveryOtherStatusAsAFailure) {
    const struct {
        int status;
        std::string_view body;
        NS::Dictionary userInfo;
    } cases[] = {
        {500, R"({"error":"x"})", {{"error", "x"}}},
        {201, "{}", {}},
        {204, "", {{NS::LocalizedDescriptionKey, NS::localizedStringForStatusCode(204)}}},
        {404, "<html>", {{NS::LocalizedDescriptionKey, NS::localizedStringForStatusCode(404)}}},
        {409, "[1]", {{NS::LocalizedDescriptionKey, NS::localizedStringForStatusCode(409)}}},
    };
    for (const auto& [status, body, userInfo] : cases) {
        service.script("", "/", {FakeAnswer::text(body, status)});
        const auto running = command("/x");
        running->start();
        EXPECT_EQ(awaitNotes(3), (Notes{"failure", "delegate failed FAILED_COMMAND", "finally"})) << status;
        EXPECT_EQ(lastError, NS::Error(NS::NetworkErrorDomain, status, userInfo)) << status;
        EXPECT_EQ(running->resultDict().has_value(), body.starts_with("{"));
        EXPECT_EQ(running->commandStatus(), "COMMAND_FINISHED");
        notes.clear();
    }
}

TEST_F(JSONWebCommandTest, failsWhenASuccessIsNoJSONObject) {
    for (const auto& [body, domain] :
         {std::pair("", "CJSONDeserializerErrorDomain"), {"[1]", "CJSONScannerErrorDomain"}, {"{", "CJSONScannerErrorDomain"}}) {
        service.script("", "/", {FakeAnswer::json(body)});
        const auto running = command("/x");
        running->start();
        EXPECT_EQ(awaitNotes(3), (Notes{"failure", "delegate failed FAILED_COMMAND", "finally"})) << body;
        EXPECT_EQ(lastError->domain(), domain);
        EXPECT_EQ(running->resultDict(), std::nullopt);
        notes.clear();
    }
}

TEST_F(JSONWebCommandTest, handsOnTheConnectionsError) {
    service.script("", "/", {FakeAnswer::closeAtOnce()});
    const auto running = command("/x");
    running->start();
    EXPECT_EQ(awaitNotes(3), (Notes{"failure", "delegate failed COMMAND_RUNNING", "finally"}));
    EXPECT_EQ(lastError->domain(), NS::NetworkErrorDomain);
    EXPECT_LT(lastError->code(), 0);
    EXPECT_EQ(running->commandStatus(), "COMMAND_FINISHED");
}

TEST_F(JSONWebCommandTest, tellsOnlyTheFinalBlockOfACancellation) {
    service.script("", "/hang", {FakeAnswer::hang()});
    const auto running = command("/hang");
    running->start();
    ASSERT_TRUE(service.awaitRequests(1));
    running->cancel();
    EXPECT_EQ(notes, Notes{"finally"});
    EXPECT_EQ(running->commandStatus(), "FAILED_COMMAND");
    EXPECT_EQ(running->connection(), nullptr);
    service.release();
    EXPECT_EQ(awaitNotes(1), Notes{"finally"});
}

TEST_F(JSONWebCommandTest, ignoresWhatBelongedToAnEarlierStart) {
    service.script(
        "", "/",
        {FakeAnswer::json(R"({"n":1})").heldUntilReleased(), FakeAnswer::json(R"({"n":2})"), FakeAnswer::json("{}", 500)});
    const auto running = command("/x");
    running->start();
    ASSERT_TRUE(service.awaitRequests(1));
    running->start();
    service.release();
    EXPECT_EQ(awaitNotes(3),
              (Notes{"completion " + NS::Dictionary{{"n", 2}}.description(), "delegate completed FAILED_COMMAND", "finally"}));
    notes.clear();
    // Cancelled by its own failure block: nothing else of that start is delivered.
    running->setFailureBlock([&](const NS::Error&) { running->cancel(); });
    running->start();
    EXPECT_EQ(awaitNotes(1), Notes{"finally"});
    // Cancelled while the answer waits to be parsed.
    notes.clear();
    service.script("", "/", {FakeAnswer::json("{}")});
    std::promise<void> blockade;
    running->parseOpQueue().addOperation([&] { blockade.get_future().wait(); });
    running->start();
    ASSERT_TRUE(NS::RunLoop::main().runUntil([&] { return running->commandStatus() == "FAILED_COMMAND"; }, 30));
    running->cancel();
    blockade.set_value();
    running->parseOpQueue().waitUntilAllOperationsAreFinished();
    EXPECT_EQ(awaitNotes(1), Notes{"finally"});
}

TEST_F(JSONWebCommandTest, startsAndCancelsFromAnyThread) {
    service.script("", "/hang", {FakeAnswer::hang()});
    service.script("", "/x", {FakeAnswer::json("{}")});
    const auto hanging = command("/hang");
    std::thread([&] { hanging->start(); }).join();
    ASSERT_TRUE(service.awaitRequests(1));
    std::thread([&] { hanging->cancel(); }).join();
    EXPECT_EQ(awaitNotes(1), Notes{"finally"});
    notes.clear();
    const auto restarted = command("/x");
    std::thread([&] {
        restarted->start();
        restarted->cancel();
        restarted->start();
    }).join();
    EXPECT_EQ(awaitNotes(4), (Notes{"finally", "completion {\n}", "delegate completed FAILED_COMMAND", "finally"}));
}

TEST_F(JSONWebCommandTest, aCancellationFromElsewhereDoesNotReachALaterStart) {
    service.script("", "/", {FakeAnswer::hang(), FakeAnswer::json("{}")});
    const auto running = command("/x");
    running->start();
    ASSERT_TRUE(service.awaitRequests(1));
    std::thread([&] { running->cancel(); }).join();
    running->start();
    EXPECT_EQ(running->statusCode(), 0);
    EXPECT_EQ(awaitNotes(4), (Notes{"finally", "completion {\n}", "delegate completed FAILED_COMMAND", "finally"}));
}

TEST_F(JSONWebCommandTest, keepsItselfAliveUntilTheOutcome) {
    service.script("", "/", {FakeAnswer::json("{}")});
    std::weak_ptr<JSONWebCommand> weak;
    {
        const auto running = command("/x");
        weak = running;
        running->setCompletionBlock([this, token = std::make_shared<int>(1)](const NS::Dictionary&) { note("completion"); });
        running->start();
    }
    EXPECT_EQ(awaitNotes(3).size(), 3U);
    NS::RunLoop::main().runUntil([&] { return weak.expired(); }, 30);
    EXPECT_TRUE(weak.expired());
}

TEST_F(JSONWebCommandTest, letsABlockReplaceItself) {
    service.script("", "/", {FakeAnswer::json("{}")});
    const auto running = command("/x");
    running->setCompletionBlock([&, kept = std::string("kept")](const NS::Dictionary&) {
        running->setCompletionBlock(nullptr);
        note(kept);
    });
    running->start();
    EXPECT_EQ(awaitNotes(3).front(), "kept");
}

TEST_F(JSONWebCommandTest, postsParametersAsJSON) {
    service.script("", "/", {FakeAnswer::json("{}")});
    const auto running = std::make_shared<JSONWebCommand>(service.url() + "/p", NS::Dictionary{{"name", "ä"}});
    running->setFinallyBlock([this] { note("finally"); });
    running->start();
    awaitNotes(1);
    const auto request = service.requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.body, "{\"name\":\"ä\"}");
    EXPECT_EQ(request.header("Content-Length"), "13");  // bytes on the wire, characters in the request object
    EXPECT_EQ(running->request().valueForHTTPHeaderField("Content-Length"), "12");
    EXPECT_EQ(request.header("Accept"), std::nullopt);
}

}  // namespace
}  // namespace velkor
