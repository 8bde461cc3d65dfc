#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "PelmoLib/encodings/NSData+Digests.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "Sync/VLKBlobStore.h"
#include "Sync/VLKS3Deleter.h"
#include "Sync/VLKS3Downloader.h"
#include "platform/base/Format.h"
#include "platform/concurrency/RunLoop.h"
#include "platform/url/URLConnection.h"
#include "tests/support/FakeService.h"
#include "tests/support/LogCapture.h"

namespace velkor::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::string_view endpoints = "/client_apps/org.example.Notes/blobs/G-1/picture/";

/// The sync service and the blob store ("/store") on one scripted server.
class BlobStoreTransfersTest : public testing::Test {
protected:
    BlobStoreTransfersTest() {
        NS::RunLoop::main();
        presign("write.json", R"(,"signature":{"key":"u/G-1/picture","policy":"cG9saWN5","signature":"c2ln"})");
        presign("read.json");
        presign("delete.json");
        answer("wrote.json", FakeAnswer::json(R"({"stored":true})"));
        service.script("", "/client_apps/settle",
                       {FakeAnswer::json(NS::format("{\"url\":\"%@/client_apps/settle\"}", service.url()))});
        service.script("GET", "/store", {FakeAnswer::text("blob")});
        service.script("POST", "/store", {FakeAnswer::text("", 204)});
        service.script("DELETE", "/store", {FakeAnswer::text("deleted")});
    }

    void answer(std::string_view endpoint, FakeAnswer with) {
        service.script("", std::string(endpoints) + std::string(endpoint), {std::move(with)});
    }
    /// The endpoint names the blob store's URL.
    void presign(std::string_view endpoint, std::string_view more = "") {
        answer(endpoint, FakeAnswer::json(NS::format("{\"url\":\"%@/store\"%@}", service.url(), more)));
    }
    template <class Transfer>
    std::shared_ptr<Transfer> prepared(std::shared_ptr<Transfer> made) {
        made->setEmail("ann@example.org");
        made->setPassword("secret");
        made->setFailureBlock([this](const NS::Error& error) {
            note("failed " + std::to_string(error.code()));
            lastError = error;
        });
        if constexpr (std::is_same_v<Transfer, VLKS3Downloader>) {
            made->setCompletionBlock([this](const NS::Data& data) { note("got " + std::string(data.view())); });
        } else {
            made->setCompletionBlock([this](const NS::Value& value) {
                note("done");
                lastAnswer = value;
            });
        }
        return made;
    }
    std::shared_ptr<VLKS3Uploader> uploader(std::string_view bytes = "blob") {
        const auto made =
            prepared(std::make_shared<VLKS3Uploader>(service.url(), vlk_blobStoreURL(), "org.example.Notes", "G-1", "picture"));
        made->setData(NS::Data::copyOf(bytes));
        return made;
    }
    std::shared_ptr<VLKS3Downloader> downloader() {
        return prepared(std::make_shared<VLKS3Downloader>(service.url(), "org.example.Notes", "G-1", "picture"));
    }
    std::shared_ptr<VLKS3Deleter> deleter() {
        return prepared(std::make_shared<VLKS3Deleter>(service.url(), "org.example.Notes", "G-1", "picture"));
    }
    void note(std::string text) {
        EXPECT_TRUE(NS::RunLoop::isMainThread());
        notes.push_back(std::move(text));
    }
    /// Starts the transfer; what it reports.
    std::vector<std::string> run(VLKS3Transfer& transfer) {
        transfer.start();
        return awaitNotes(1);
    }
    std::vector<std::string> awaitNotes(std::size_t count) {
        NS::RunLoop::main().runUntil([&] { return notes.size() >= count; }, FakeService::patience);
        settle();
        return std::exchange(notes, {});
    }
    /// A whole download: what was posted or sent before it has been dealt with by then.
    void settle() {
        bool done = false;
        const auto last = std::make_shared<VLKS3Downloader>(service.url(), "settle", "G", "c");
        last->setCompletionBlock([&](const NS::Data&) { done = true; });
        last->start();
        NS::RunLoop::main().runUntil([&] { return done; }, FakeService::patience);
    }
    static bool awaitEndOf(const std::weak_ptr<VLKS3Transfer>& transfer) {
        return NS::RunLoop::main().runUntil([&] { return transfer.expired(); }, FakeService::patience);
    }
    /// The requests so far as "METHOD target", without those of settle.
    std::vector<std::string> traffic() const {
        std::vector<std::string> all;
        for (const auto& request : service.requests()) {
            const auto name = request.target.substr(request.target.rfind('/') + 1);
            if (!request.target.starts_with("/client_apps/settle")) all.push_back(request.method + " " + name);
        }
        return all;
    }

    FakeService service;
    std::vector<std::string> notes;
    std::optional<NS::Error> lastError;
    NS::Value lastAnswer;
};

TEST_F(BlobStoreTransfersTest, anUploadAsksWritesAndConfirms) {
    const auto transfer = uploader("abc");
    EXPECT_THAT(run(*transfer), ElementsAre("done"));
    EXPECT_EQ(lastAnswer, NS::Value(NS::Dictionary{{"stored", true}}));
    const auto requests = service.requests();
    ASSERT_GE(requests.size(), 3U);
    const std::string basic = "Basic " + base64Encoding(std::string_view("ann@example.org:secret"));
    EXPECT_EQ(requests[0].method, "GET");
    EXPECT_EQ(requests[0].target, std::string(endpoints) + "write.json");
    EXPECT_EQ(requests[0].header("Authorization"), basic);
    EXPECT_EQ(requests[0].header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(requests[0].body, "");
    EXPECT_EQ(requests[1].target, "/store");
    EXPECT_EQ(requests[1].header("Authorization"), std::nullopt);
    EXPECT_THAT(requests[1].body, HasSubstr("name=\"signature\"\r\n\r\nc2ln\r\n"));
    EXPECT_THAT(requests[1].body, HasSubstr("\r\n\r\nabc\r\n--0xKhTmLbOuNdArY--"));
    EXPECT_EQ(requests[2].method, "POST");
    EXPECT_EQ(requests[2].target, std::string(endpoints) + "wrote.json");
    EXPECT_EQ(requests[2].body, "hash=a9993e364706816aba3e25717850c26c9cd0d89d&");
    EXPECT_EQ(requests[2].header("Authorization"), std::nullopt);
    for (const auto& request : requests) EXPECT_EQ(request.connection, 1U) << "connections are used again";
    EXPECT_EQ(transfer->signatureData(),
              (NS::Dictionary{{"key", "u/G-1/picture"}, {"policy", "cG9saWN5"}, {"signature", "c2ln"}}));

    // Without a value: a blob of no bytes.
    EXPECT_THAT(run(*uploader("")), ElementsAre("done"));
    EXPECT_EQ(service.requests(std::string(endpoints) + "wrote.json").back().body, "hash=" + sha1HexHash({}) + "&");
}

TEST_F(BlobStoreTransfersTest, missingCredentialsAreSentAsTheTextOfMissingValues) {
    const auto transfers = std::vector<std::shared_ptr<VLKS3Transfer>>{uploader(), downloader(), deleter()};
    for (const auto& transfer : transfers) {
        transfer->setEmail(std::nullopt);
        transfer->setPassword(std::nullopt);
        const auto before = service.requestCount();
        EXPECT_EQ(run(*transfer).size(), 1U);
        EXPECT_EQ(service.requests()[before].header("Authorization"),
                  "Basic " + base64Encoding(std::string_view("(null):(null)")));
    }
}

TEST_F(BlobStoreTransfersTest, aSpoiledSignatureIsRefused) {
    service.route("POST", "/store", [](const FakeRequest& request) {
        const bool spoiled = request.body.find("name=\"signature\"\r\n\r\nFUXORS\r\n") != std::string::npos;
        return FakeAnswer::text("", spoiled ? 403 : 204);
    });
    const auto transfer = uploader();
    transfer->setSimulateFailure(true);
    LogCapture log(100);
    EXPECT_THAT(run(*transfer), ElementsAre("failed 403"));
    EXPECT_THAT(traffic(), ElementsAre("GET write.json", "POST store"));
    EXPECT_THAT(log.entries(), ElementsAre(NS::format("Error verifying blob upload for G-1 - picture: %@",
                                                      NS::localizedStringForStatusCode(403))));
    transfer->setSimulateFailure(false);
    EXPECT_THAT(run(*transfer), ElementsAre("done"));
}

TEST_F(BlobStoreTransfersTest, downloadsAndDeletionsTakeTwoSteps) {
    EXPECT_THAT(run(*downloader()), ElementsAre("got blob"));
    EXPECT_THAT(traffic(), ElementsAre("GET read.json", "GET store"));
    // A deletion is told like an upload, with the store's answer.
    const std::shared_ptr<VLKS3Uploader> deletions[] = {
        deleter(), prepared(std::make_shared<VLKS3Deleter>(service.url(), "https://store.example/VelkorSync", "org.example.Notes",
                                                           "G-1", "picture"))};
    for (const auto& deletion : deletions) {
        lastAnswer = {};
        EXPECT_THAT(run(*deletion), ElementsAre("done"));
        EXPECT_EQ(lastAnswer, NS::Value(NS::Data::copyOf("deleted")));
    }
    EXPECT_THAT(traffic(),
                ElementsAre("GET read.json", "GET store", "GET delete.json", "DELETE store", "GET delete.json", "DELETE store"));
}

TEST_F(BlobStoreTransfersTest, theFailureOfAnyStepEndsTheTransfer) {
    const auto upload = [this] { return std::shared_ptr<VLKS3Transfer>(uploader()); };
    const auto download = [this] { return std::shared_ptr<VLKS3Transfer>(downloader()); };
    const auto deletion = [this] { return std::shared_ptr<VLKS3Transfer>(deleter()); };
    const struct {
        std::string name;
        std::function<std::shared_ptr<VLKS3Transfer>()> make;
        std::string endpoint;  // or "/store"
        FakeAnswer answer;
        std::pair<std::string_view, std::int64_t> error;
        std::vector<std::string> traffic;
    } cases[] = {
        {"unauthorised", upload, "write.json", FakeAnswer::json("{}", 401), {NS::NetworkErrorDomain, 401}, {"GET write.json"}},
        {"created", upload, "write.json", FakeAnswer::json("{}", 201), {NS::NetworkErrorDomain, 201}, {"GET write.json"}},
        {"no JSON", upload, "write.json", FakeAnswer::notJson(), {"CJSONScannerErrorDomain", -1}, {"GET write.json"}},
        {"no URL",
         upload,
         "write.json",
         FakeAnswer::json("{}"),
         {NS::NetworkErrorDomain, NS::URLError::badURL},
         {"GET write.json"}},
        {"a URL that is none",
         upload,
         "write.json",
         FakeAnswer::json(R"({"url":7,"signature":[]})"),
         {NS::NetworkErrorDomain, NS::URLError::badURL},
         {"GET write.json"}},
        {"store", upload, "/store", FakeAnswer::text("", 500), {NS::VelkorErrorDomain, 500}, {"GET write.json", "POST store"}},
        {"lost store",
         upload,
         "/store",
         FakeAnswer::text("").withoutLength().cutOff(0),
         {NS::NetworkErrorDomain, NS::URLError::connectionLost},
         {"GET write.json", "POST store"}},
        {"unconfirmed",
         upload,
         "wrote.json",
         FakeAnswer::json("{}", 409),
         {NS::NetworkErrorDomain, 409},
         {"GET write.json", "POST store", "POST wrote.json"}},
        {"unreadable", download, "read.json", FakeAnswer::json("{}", 403), {NS::NetworkErrorDomain, 403}, {"GET read.json"}},
        {"no download URL",
         download,
         "read.json",
         FakeAnswer::json("{}"),
         {NS::NetworkErrorDomain, NS::URLError::badURL},
         {"GET read.json"}},
        {"missing key", download, "/store", FakeAnswer::text("<Error/>", 404), {"Error", 404}, {"GET read.json", "GET store"}},
        {"not to be deleted",
         deletion,
         "delete.json",
         FakeAnswer::json("{}", 403),
         {NS::NetworkErrorDomain, 403},
         {"GET delete.json"}},
        {"refused deletion", deletion, "/store", FakeAnswer::text("", 403), {"Error", 403}, {"GET delete.json", "DELETE store"}},
    };
    for (const auto& [name, make, endpoint, refusal, error, expected] : cases) {
        SCOPED_TRACE(name);
        const auto place = endpoint.starts_with("/") ? endpoint : std::string(endpoints) + endpoint;
        service.script("", place, {refusal, FakeAnswer::text("", 500)});
        const auto before = traffic().size();
        const auto transfer = make();
        ASSERT_EQ(run(*transfer).size(), 1U);
        EXPECT_EQ(lastError->domain(), error.first);
        EXPECT_EQ(lastError->code(), error.second);
        auto seen = traffic();
        seen.erase(seen.begin(), seen.begin() + static_cast<std::ptrdiff_t>(before));
        EXPECT_EQ(seen, expected);
        // The next case finds the usual answers again.
        if (endpoint == "/store") {
            service.script("", "/store", {FakeAnswer::text("ok")});
        } else if (endpoint == "wrote.json") {
            answer("wrote.json", FakeAnswer::json("{}"));
        } else {
            presign(endpoint, R"(,"signature":{})");
        }
    }
}

TEST_F(BlobStoreTransfersTest, anUploadWithoutSignatureTakesThePlainForm) {
    presign("write.json", R"(,"signature":null)");
    const auto transfer = uploader("abc");
    transfer->setSimulateFailure(true);
    run(*transfer);
    EXPECT_EQ(transfer->signatureData(), std::nullopt);
    EXPECT_EQ(service.requests("/store").back().body,
              "Content-Disposition: form-data; name=\"upload\"; filename=\"(null).png\"; guid=\"(null)\"\r\n\r\nabc\r\n"
              "--0xKhTmLbOuNdArY--\r\n");
}

TEST_F(BlobStoreTransfersTest, aTransferKeepsItselfAliveUntilItsEnd) {
    const std::function<std::shared_ptr<VLKS3Transfer>()> kinds[] = {
        [this] { return uploader(); }, [this] { return downloader(); }, [this] { return deleter(); }};
    for (const bool fails : {false, true}) {
        if (fails) service.script("", "/store", {FakeAnswer::text("", 500)});
        for (const auto& make : kinds) {
            std::weak_ptr<VLKS3Transfer> watch;
            {
                const auto transfer = make();
                watch = transfer;
                transfer->start();
            }
            EXPECT_EQ(awaitNotes(1).size(), 1U);
            EXPECT_TRUE(awaitEndOf(watch));
        }
    }
}

TEST_F(BlobStoreTransfersTest, aCancelledTransferIsSilentAtEveryStep) {
    const std::function<std::shared_ptr<VLKS3Transfer>()> upload = [this] { return uploader(); };
    const std::function<std::shared_ptr<VLKS3Transfer>()> download = [this] { return downloader(); };
    for (const bool elsewhere : {false, true}) {
        for (const auto& [make, place] : {std::pair(upload, std::string(endpoints) + "write.json"),
                                          {upload, "/store"},
                                          {upload, std::string(endpoints) + "wrote.json"},
                                          {download, std::string(endpoints) + "read.json"},
                                          {download, "/store"}}) {
            service.script("", place, {FakeAnswer::json("{}").heldUntilReleased(), FakeAnswer::json("{}")});
            auto transfer = make();
            const std::weak_ptr<VLKS3Transfer> watch = transfer;
            const auto before = service.requestCount(place);
            transfer->start();
            ASSERT_TRUE(service.awaitRequests(before + 1, place));
            if (elsewhere) {
                std::thread([&] { transfer->cancel(); }).join();
            } else {
                transfer->cancel();
            }
            transfer.reset();
            service.release();
            EXPECT_THAT(awaitNotes(0), IsEmpty()) << place;
            EXPECT_TRUE(awaitEndOf(watch)) << place;
            presign("write.json", R"(,"signature":{})");
            presign("read.json");
            service.script("", "/store", {FakeAnswer::text("blob")});
        }
    }
}

TEST_F(BlobStoreTransfersTest, aTransferMayBeStartedAgain) {
    // By its own failure block, as often as it takes.
    service.script("POST", "/store", {FakeAnswer::text("", 503), FakeAnswer::text("", 503), FakeAnswer::text("", 204)});
    auto transfer = uploader();
    transfer->setFailureBlock([&](const NS::Error&) {
        note("failed");
        transfer->start();
    });
    transfer->start();
    EXPECT_THAT(awaitNotes(3), ElementsAre("failed", "failed", "done"));
    transfer->setFailureBlock(nullptr);

    // From any thread, while an earlier start still runs.
    service.script("GET", "/store", {FakeAnswer::text("first").heldUntilReleased(), FakeAnswer::text("second")});
    const auto download = downloader();
    download->start();
    ASSERT_TRUE(service.awaitRequests(4, "/store"));
    std::thread([&] { download->start(); }).join();
    EXPECT_THAT(awaitNotes(1), ElementsAre("got second"));
    service.release();
    EXPECT_THAT(awaitNotes(0), IsEmpty());
    std::thread([&] {
        download->start();
        download->cancel();
    }).join();
    EXPECT_THAT(awaitNotes(0), IsEmpty());
}

TEST_F(BlobStoreTransfersTest, theStoresHostCanBeChanged) {
    EXPECT_EQ(vlk_blobStoreURL(), "https://s3.amazonaws.com/VelkorSync");
    setenv("VELKORSYNC_BLOB_STORE", "http://127.0.0.1:8000", 1);
    EXPECT_EQ(vlk_blobStoreURL(), "http://127.0.0.1:8000/VelkorSync");
    unsetenv("VELKORSYNC_BLOB_STORE");
}

TEST_F(BlobStoreTransfersTest, logsItsMessages) {
    const auto upload = [this] { run(*uploader()); };
    const auto download = [this] { run(*downloader()); };
    const auto deletion = [this] { run(*deleter()); };
    const auto attempt = [this](std::string_view endpoint) {
        return NS::format("Attempting to get presigned url from: %@%@%@", service.url(), endpoints, endpoint);
    };
    const auto got = NS::format("Got presigned url... %@/store", service.url());
    checkLogCases({
        {"an upload", 300, upload, {"Uploading blob for: G-1 - picture", "Uploading blob data...", "Hash size: 40"}},
        {"a download", 300, download, {attempt("read.json"), got, "Amazon S3 operation completed."}},
        {"a deletion", 300, deletion, {attempt("delete.json"), got, "Amazon S3 operation completed."}},
    });
    answer("read.json", FakeAnswer::json("{}"));
    checkLogCases({{"a download without a URL", 300, download, {"Got presigned url... (null)"}}});

    const auto entriesOf = [](int level, const std::function<void()>& action) {
        LogCapture log(level);
        action();
        return log.entries();
    };
    const auto text = NS::localizedStringForStatusCode(403);
    const auto refuse = [this](std::string_view endpoint) { answer(endpoint, FakeAnswer::text("", 403)); };
    for (const char* endpoint : {"wrote.json", "write.json", "read.json", "delete.json"}) refuse(endpoint);
    service.script("", "/store", {FakeAnswer::text("", 403)});
    EXPECT_THAT(entriesOf(99, upload), IsEmpty());
    EXPECT_THAT(entriesOf(100, upload), ElementsAre("Error occurred uploading blob for G-1 - picture: " + text));
    EXPECT_THAT(entriesOf(99, download), IsEmpty());
    EXPECT_THAT(entriesOf(100, download), Contains("Amazon S3 Error in downloading: " + text));
    EXPECT_THAT(entriesOf(99, deletion), IsEmpty());
    EXPECT_THAT(entriesOf(100, deletion), Contains("Amazon S3 Error in deleting: " + text));
    presign("write.json", R"(,"signature":{})");
    EXPECT_THAT(entriesOf(99, upload), IsEmpty());
    EXPECT_THAT(entriesOf(100, upload), ElementsAre("Error verifying blob upload for G-1 - picture: " + text));
    service.script("POST", "/store", {FakeAnswer::text("", 204)});
    EXPECT_THAT(entriesOf(100, upload), IsEmpty()) << "a refused confirmation has no message of its own";
}

}  // namespace
}  // namespace velkor::test
