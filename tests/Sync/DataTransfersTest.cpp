#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "Sync/VLKDataDeleter.h"
#include "Sync/VLKDataUploader.h"
#include "Sync/VLKTransferProgress.h"
#include "platform/base/Exception.h"
#include "platform/base/Format.h"
#include "platform/base/Value.h"
#include "platform/concurrency/NotificationCenter.h"
#include "platform/concurrency/RunLoop.h"
#include "tests/support/FakeService.h"
#include "tests/support/LogCapture.h"

namespace velkor::test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// Transfers whose every word is written down.
class DataTransfersTest : public testing::Test, public VLKDataUploaderDelegate {
protected:
    DataTransfersTest() { NS::RunLoop::main(); }

    std::string url(std::string_view path) const { return service.url() + std::string(path); }

    std::shared_ptr<VLKDataUploader> uploader(std::string_view path, std::string_view bytes = "bytes") {
        const auto made = std::make_shared<VLKDataUploader>(url(path), NS::Data::copyOf(bytes));
        made->setFormFields(NS::Dictionary{{"key", "v"}});
        made->setDelegate(this);
        made->setCompletionBlock([this, watch = std::weak_ptr(made)] {
            const auto running = watch.lock();
            note("completed" + std::string(running->connection() ? "" : " without a connection"));
        });
        made->setFailureBlock([this](const NS::Error& error) { noteFailure(error); });
        return made;
    }
    template <class Transfer = VLKDataDownloader>
    std::shared_ptr<Transfer> downloader(std::string_view path) {
        const auto made = Transfer::downloadUrl(url(path));
        made->setCompletionBlock([this](const NS::Data& data) { note("got " + std::string(data.view())); });
        made->setFailureBlock([this](const NS::Error& error) { noteFailure(error); });
        return made;
    }
    void imageUploaderUploadedFileToUrl(VLKDataUploader&, const std::optional<std::string>& body) override {
        note("delegate uploaded " + NS::describe(body));
    }
    void imageUploaderFailed(VLKDataUploader&) override { note("delegate failed"); }
    void note(std::string text) { notes.push_back(std::move(text)); }
    void noteFailure(const NS::Error& error) {
        note("failed " + std::to_string(error.code()));
        lastError = error;
    }
    /// What was noted once so many notes are there and everything else on its way has come.
    std::vector<std::string> awaitNotes(std::size_t count) {
        NS::RunLoop::current().runUntil([&] { return notes.size() >= count; }, FakeService::patience);
        settle();
        return std::exchange(notes, {});
    }
    /// A whole exchange on a connection of its own: whatever was sent before it has been told by then.
    void settle() {
        bool done = false;
        service.script("", "/settle", {FakeAnswer::text("")});
        const auto last = VLKDataDownloader::downloadUrl(url("/settle"));
        last->setCompletionBlock([&](const NS::Data&) { done = true; });
        last->start();
        NS::RunLoop::current().runUntil([&] { return done; }, FakeService::patience);
    }

    FakeService service;
    std::vector<std::string> notes;
    std::optional<NS::Error> lastError;
};

TEST_F(DataTransfersTest, theFormIsBuiltByteForByte) {
    const std::string bytes("\r\n--0xKhTmLbOuNdArY\0\xff\x01", 22);
    const std::string file =
        "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"file\"; filename=\"filename\"\r\n"
        "Content-Type: application/octet-stream\r\n\r\n";
    const struct {
        std::optional<NS::Dictionary> fields;
        std::optional<std::string> guid;
        std::string data;
        std::string body;
    } cases[] = {
        {NS::Dictionary{{"key", "v"}}, "G", bytes,
         "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"key\"\r\n\r\nv\r\n" + file + bytes +
             "\r\n--0xKhTmLbOuNdArY--"},
        {NS::Dictionary{{"b", "2\"&ä"}, {"a", ""}}, std::nullopt, "",
         "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"b\"\r\n\r\n2\"&ä\r\n"
         "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n\r\n" +
             file + "\r\n--0xKhTmLbOuNdArY--"},
        {NS::Dictionary{}, "G", "B", file + "B\r\n--0xKhTmLbOuNdArY--"},
        {std::nullopt, "G-1", bytes,
         "Content-Disposition: form-data; name=\"upload\"; filename=\"G-1.png\"; guid=\"G-1\"\r\n\r\n" + bytes +
             "\r\n--0xKhTmLbOuNdArY--\r\n"},
        {std::nullopt, std::nullopt, "",
         "Content-Disposition: form-data; name=\"upload\"; filename=\"(null).png\"; guid=\"(null)\"\r\n\r\n"
         "\r\n--0xKhTmLbOuNdArY--\r\n"},
    };
    service.script("", "/", {FakeAnswer::text("", 204)});
    for (const auto& [fields, guid, data, body] : cases) {
        const auto running = uploader("/store", data);
        running->setFormFields(fields);
        running->setGuid(guid);
        running->start();
        EXPECT_EQ(running->connection()->request().timeoutInterval(), 240);
        EXPECT_THAT(awaitNotes(2), ElementsAre("delegate uploaded ", "completed"));
        const auto came = service.requests("/store").back();
        EXPECT_EQ(came.body, body);
        EXPECT_EQ(came.method, "POST");
        EXPECT_EQ(came.header("Content-Type"), "multipart/form-data; boundary=0xKhTmLbOuNdArY");
        EXPECT_EQ(came.header("Accept"), "application/json");
        EXPECT_EQ(came.header("Content-Length"), std::to_string(body.size()));
    }
}

TEST_F(DataTransfersTest, anUploadBelow400Succeeds) {
    for (const int status : {200, 201, 204, 304, 399}) {
        service.script("", "/store", {FakeAnswer::text(status == 204 || status == 304 ? "" : "<Post/>", status)});
        const auto running = uploader("/store");
        running->start();
        EXPECT_THAT(awaitNotes(2), Contains("completed")) << status;
        EXPECT_EQ(running->statusCode(), status);
        EXPECT_EQ(running->connection(), nullptr);
        EXPECT_TRUE(running->data().empty());
        EXPECT_EQ(running->bytesUploaded(), running->bytesToUpload());
        EXPECT_GT(running->bytesUploaded(), 5);
    }
    service.script("", "/store", {FakeAnswer::text("\xff")});
    uploader("/store")->start();
    EXPECT_THAT(awaitNotes(0), IsEmpty()) << "nobody kept the uploader";
    const auto running = uploader("/store");
    running->start();
    EXPECT_THAT(awaitNotes(2), ElementsAre("delegate uploaded (null)", "completed")) << "an answer that is no text";
}

TEST_F(DataTransfersTest, anUploadsFailureIsToldOnce) {
    service.script("", "/denied", {FakeAnswer::text("<Error/>", 403)});
    service.script("", "/denied/cut", {FakeAnswer::text("<Error/>", 403).cutOff(3)});
    service.script("", "/error", {FakeAnswer::text("", 500)});
    service.script("", "/gone", {FakeAnswer::closeAtOnce()});
    service.script("", "/long", {FakeAnswer::text("ok").cutOff(1)});
    const struct {
        std::string address;
        std::string_view domain;
        std::int64_t code;
    } cases[] = {
        {url("/denied"), NS::VelkorErrorDomain, 403},
        {url("/denied/cut"), NS::VelkorErrorDomain, 403},
        {url("/error"), NS::VelkorErrorDomain, 500},
        {url("/gone"), NS::NetworkErrorDomain, NS::URLError::connectionLost},
        {url("/long"), NS::NetworkErrorDomain, NS::URLError::connectionLost},
        {"", NS::NetworkErrorDomain, NS::URLError::badURL},
    };
    for (const auto& [address, domain, code] : cases) {
        const auto running = uploader("");
        running->setUrl(address);
        running->start();
        EXPECT_THAT(awaitNotes(2), ElementsAre("delegate failed", "failed " + std::to_string(code))) << address;
        EXPECT_EQ(lastError->domain(), domain);
        EXPECT_EQ(running->connection(), nullptr);
        if (code > 0) {
            EXPECT_EQ(lastError->localizedDescription(), NS::localizedStringForStatusCode(code));
        }
    }
    // A refusal is read to its end, so that its connection serves again.
    const auto refused = uploader("/denied");
    refused->start();
    ASSERT_TRUE(NS::RunLoop::main().runUntil([&] { return refused->data().view() == "<Error/>"; }, FakeService::patience));
    awaitNotes(2);
    EXPECT_EQ(service.requests("/denied").back().connection, service.requests("/settle").back().connection);
}

TEST_F(DataTransfersTest, anUploadNeedsBothBlocks) {
    const auto reasonOf = [](VLKDataUploader& running) {
        try {
            running.start();
        } catch (const NS::AssertionFailure& failure) {
            return failure.reason();
        }
        return std::string();
    };
    VLKDataUploader running(url("/"), {});
    EXPECT_EQ(reasonOf(running), "self.failureBlock");
    running.setFailureBlock([](const NS::Error&) {});
    EXPECT_EQ(reasonOf(running), "self.completionBlock");
}

TEST_F(DataTransfersTest, everyChunkOfAnUploadIsAnnounced) {
    service.script("", "/store", {FakeAnswer::text("")});
    const auto running = uploader("/store", std::string(2'500'000, 'b'));
    std::vector<std::int64_t> written;
    const auto token = NS::NotificationCenter::defaultCenter().addObserver(
        VLKDataUploaderDidUploadData, running.get(), nullptr, [&](const NS::Notification& progress) {
            EXPECT_EQ(progress.userInfo["VLKBytesUploaded"].asInteger(), running->bytesUploaded());
            EXPECT_EQ(progress.userInfo["VLKTotalBytes"].asInteger(), running->bytesToUpload());
            EXPECT_EQ(running->progress(), running->bytesUploaded() / 1'000'000);
            written.push_back(running->bytesUploaded());
        });
    LogCapture log(400);
    running->start();
    awaitNotes(2);
    NS::NotificationCenter::defaultCenter().removeObserver(token);
    const auto entries = log.entries();
    std::vector<std::string> steps;
    std::copy_if(entries.begin(), entries.end(), std::back_inserter(steps),
                 [](auto& entry) { return entry.starts_with("Wrote"); });
    EXPECT_THAT(steps, ElementsAre("Wrote blob data: 1MB of 2 MB", "Wrote blob data: 2MB of 2 MB"));
    EXPECT_GT(written.size(), 3U);
    EXPECT_TRUE(std::is_sorted(written.begin(), written.end()));
    EXPECT_EQ(written.back(), static_cast<std::int64_t>(service.requests("/store").back().body.size()));
}

TEST_F(DataTransfersTest, aDownloadHandsOnTheBytesOfA2xxAnswer) {
    const std::string bytes(1'000'000, 'd');
    std::vector<std::pair<std::int64_t, std::int64_t>> steps;
    const auto token = NS::NotificationCenter::defaultCenter().addObserver(
        VLKDataDownloaderDidDownloadData, nullptr, nullptr, [&](const NS::Notification& progress) {
            steps.emplace_back(*progress.userInfo["VLKBytesDownloaded"].asInteger(),
                               *progress.userInfo["VLKTotalBytes"].asInteger());
        });
    for (const bool announced : {true, false}) {
        steps.clear();
        auto answer = FakeAnswer::text(bytes, 206).heldAfterBytes(400'000);
        answer.unannounced = !announced;
        service.script("", "/blob", {std::move(answer)});
        const auto running = downloader("/blob");
        running->start();
        EXPECT_EQ(running->connection()->request().timeoutInterval(), 180);
        EXPECT_EQ(running->statusCode(), 0);
        NS::RunLoop::main().runUntil([&] { return running->data().size() == 400'000; }, FakeService::patience);
        EXPECT_THAT(steps, Contains(std::pair(std::int64_t(400'000), running->expectedBytes())));
        service.release();
        EXPECT_EQ(awaitNotes(1), std::vector{"got " + bytes});
        EXPECT_EQ(service.requests("/blob").back().method, "GET");
        EXPECT_EQ(running->statusCode(), 206);
        EXPECT_EQ(running->expectedBytes(), announced ? 1'000'000 : -1);
        EXPECT_EQ(running->connection(), nullptr);
        EXPECT_TRUE(running->data().empty());
        EXPECT_EQ(steps.back(), std::pair(std::int64_t(1'000'000), running->expectedBytes()));
        EXPECT_TRUE(std::is_sorted(steps.begin(), steps.end()));
    }
    NS::NotificationCenter::defaultCenter().removeObserver(token);
}

TEST_F(DataTransfersTest, downloadsAndDeletionsFailOutside2xx) {
    service.script("GET", "/", {FakeAnswer::text("<Error/>", 404)});
    service.script("DELETE", "/", {FakeAnswer::text("", 204)});
    service.script("", "/cut", {FakeAnswer::text("0123456789").cutOff(4)});
    service.script("", "/kept", {FakeAnswer::text("", 304)});
    const auto missing = downloader("/x");
    missing->start();
    EXPECT_THAT(awaitNotes(1), ElementsAre("failed 404"));
    EXPECT_EQ(lastError, NS::Error::withDescription("Error", 404, "Server side error: 404 accessing: " + url("/x")));
    const auto cut = downloader("/cut");
    cut->start();
    EXPECT_THAT(awaitNotes(1), ElementsAre(NS::format("failed %ld", NS::URLError::connectionLost)));
    EXPECT_EQ(lastError->domain(), NS::NetworkErrorDomain);
    EXPECT_TRUE(cut->data().empty());
    const auto deleter = downloader<VLKDataDeleter>("/x");
    deleter->start();
    EXPECT_EQ(deleter->connection()->request().timeoutInterval(), 180);
    EXPECT_THAT(awaitNotes(1), ElementsAre("got "));
    EXPECT_EQ(service.requests("/x").back().method, "DELETE");
    const auto unchanged = downloader<VLKDataDeleter>("/kept");
    unchanged->start();
    EXPECT_THAT(awaitNotes(1), ElementsAre("failed 304"));
}

TEST_F(DataTransfersTest, everythingIsToldOnTheStartingThread) {
    service.script("POST", "/", {FakeAnswer::text("")});
    service.script("GET", "/", {FakeAnswer::text("blob")});
    std::vector<std::thread::id> threads;
    const auto noteThread = [&](const NS::Notification&) { threads.push_back(std::this_thread::get_id()); };
    auto& center = NS::NotificationCenter::defaultCenter();
    const auto tokens = {center.addObserver(VLKDataUploaderDidUploadData, nullptr, nullptr, noteThread),
                         center.addObserver(VLKDataDownloaderDidDownloadData, nullptr, nullptr, noteThread)};
    std::thread other([&] {
        const auto up = uploader("/x");
        up->setCompletionBlock([&] { noteThread({}); });
        const auto down = downloader("/x");
        down->setCompletionBlock([&](const NS::Data&) { noteThread({}); });
        up->start();
        down->start();
        EXPECT_TRUE(NS::RunLoop::current().runUntil([&] { return threads.size() >= 4; }, FakeService::patience));
    });
    const auto id = other.get_id();
    other.join();
    for (const auto& token : tokens) center.removeObserver(token);
    EXPECT_THAT(threads, ElementsAre(id, id, id, id));
}

TEST_F(DataTransfersTest, aCancelledTransferIsSilent) {
    service.script("", "/hang", {FakeAnswer::hang()});
    service.script("", "/half", {FakeAnswer::text("0123456789").heldAfterBytes(5)});
    service.script("", "/denied", {FakeAnswer::text("<Error/>", 403).heldAfterBytes(3)});
    const auto waiting = uploader("/hang");
    waiting->start();
    auto forgotten = uploader("/hang");
    forgotten->start();
    auto half = downloader("/half");
    half->start();
    ASSERT_TRUE(service.awaitRequests(3));
    ASSERT_TRUE(NS::RunLoop::main().runUntil([&] { return half->data().size() == 5; }, FakeService::patience));
    waiting->cancel();
    EXPECT_EQ(waiting->connection(), nullptr);
    forgotten.reset();
    half.reset();
    const auto refused = uploader("/denied");
    refused->start();
    ASSERT_TRUE(NS::RunLoop::main().runUntil([&] { return notes.size() == 2; }, FakeService::patience));
    refused->cancel();
    EXPECT_THAT(std::exchange(notes, {}), ElementsAre("delegate failed", "failed 403"));
    service.release(4);
    EXPECT_THAT(awaitNotes(0), IsEmpty());
}

TEST_F(DataTransfersTest, aRestartDropsWhatBelongedToTheEarlierStart) {
    // While the first answer is still to come.
    service.script("", "/x", {FakeAnswer::text("first").heldUntilReleased(), FakeAnswer::text("second")});
    const auto upload = uploader("/x");
    upload->start();
    ASSERT_TRUE(service.awaitRequests(1, "/x"));
    upload->start();
    service.release();
    EXPECT_THAT(awaitNotes(2), ElementsAre("delegate uploaded second", "completed"));
    service.script("", "/y", {FakeAnswer::text("first").heldUntilReleased(), FakeAnswer::text("second")});
    const auto download = downloader("/y");
    download->start();
    ASSERT_TRUE(service.awaitRequests(1, "/y"));
    download->start();
    service.release();
    EXPECT_THAT(awaitNotes(1), ElementsAre("got second"));

    // By its own block, while the rest of a refusal is on its way.
    service.script("", "/z", {FakeAnswer::text("<Error/>", 403).heldAfterBytes(2), FakeAnswer::text("ok")});
    const auto again = uploader("/z");
    again->setFailureBlock([&](const NS::Error&) {
        note("failed");
        again->start();
    });
    again->start();
    ASSERT_TRUE(service.awaitRequests(2, "/z"));
    service.release();
    EXPECT_THAT(awaitNotes(4), ElementsAre("delegate failed", "failed", "delegate uploaded ok", "completed"));
    again->setFailureBlock([](const NS::Error&) {});

    service.script("", "/d", {FakeAnswer::text("1", 500), FakeAnswer::text("2"), FakeAnswer::text("3")});
    const auto repeated = downloader("/d");
    repeated->setFailureBlock([&](const NS::Error&) { repeated->start(); });
    repeated->setCompletionBlock([&](const NS::Data& data) {
        note(std::string(data.view()));
        if (data.view() == "2") repeated->start();
    });
    repeated->start();
    EXPECT_THAT(awaitNotes(2), ElementsAre("2", "3"));
    repeated->setFailureBlock(nullptr);
    repeated->setCompletionBlock(nullptr);
}

TEST_F(DataTransfersTest, aBlockMayLetGoOfItsTransfer) {
    service.script("", "/ok", {FakeAnswer::text("ok")});
    service.script("", "/no", {FakeAnswer::text("no", 500)});
    for (const char* path : {"/ok", "/no"}) {
        auto upload = uploader(path);
        upload->setCompletionBlock([&] { upload.reset(), note("let go"); });
        upload->setFailureBlock([&](const NS::Error&) { upload.reset(), note("let go"); });
        upload->start();
        EXPECT_THAT(awaitNotes(2), Contains("let go")) << path;
        auto download = downloader(path);
        download->setCompletionBlock([&](const NS::Data&) { download.reset(), note("let go"); });
        download->setFailureBlock([&](const NS::Error&) { download.reset(), note("let go"); });
        download->start();
        EXPECT_THAT(awaitNotes(1), ElementsAre("let go")) << path;
    }
}

TEST_F(DataTransfersTest, logsItsMessages) {
    service.script("", "/ok", {FakeAnswer::text("<Post/>", 201)});
    service.script("", "/no", {FakeAnswer::text("<Error/>", 403)});
    service.script("", "/cut", {FakeAnswer::text("<Error/>").cutOff(4)});
    service.script("", "/closed", {FakeAnswer::closeAtOnce()});
    const auto upload = [this](std::string_view path, std::size_t size, bool silent = false) {
        return [this, path, size, silent] {
            const auto running = uploader(path, std::string(size, 'b'));
            running->start();
            if (silent) running->setFailureBlock(nullptr);
            awaitNotes(silent ? 1 : 2);
        };
    };
    const auto download = [this](std::string_view path) {
        return [this, path] {
            const auto running = downloader(path);
            running->start();
            awaitNotes(1);
        };
    };
    const auto refusal = NS::Error::withDescription(NS::VelkorErrorDomain, 403, NS::localizedStringForStatusCode(403));
    const auto signature = "S3 Signature data: " + NS::Dictionary{{"key", "v"}}.description();
    checkLogCases({
        {"an upload", 300, upload("/ok", 5), {"Uploading blob data...", "ResponseStatus: 201\n", "Blob upload completed."}},
        {"an upload's detail", 400, upload("/ok", 1'000'000), {"Wrote blob data: 1MB of 1 MB", "DATA RECEIVED: <Post/>"}},
        {"a refused upload",
         300,
         upload("/no", 5),
         {"ResponseStatus: 403\n", "Blob upload failed. " + refusal.description(), "DATA RECEIVED: ", signature}},
        {"a broken upload", 300, upload("/cut", 5), {"DATA RECEIVED: <Err", signature}},
        {"an upload without a failure block", 100, upload("/no", 5, true), {"Blob upload failed but no failure block exists!?"}},
        {"a download", 300, download("/ok"), {"Amazon S3 operation completed."}},
        {"a missing blob", 300, download("/no"), {"Amazon S3 operation completed."}},
    });
    const auto entriesOfABrokenDownload = [&](int level) {
        LogCapture log(level);
        download("/closed")();
        return log.entries();
    };
    EXPECT_THAT(entriesOfABrokenDownload(99), IsEmpty());
    EXPECT_THAT(entriesOfABrokenDownload(100),
                ElementsAre("Amazon S3 operation failed with error: " + lastError->localizedDescription()));
}

}  // namespace
}  // namespace velkor::test
