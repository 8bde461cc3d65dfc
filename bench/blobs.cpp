// What the service's embedded blob store costs beside the bare disk and the bare loopback interface, for one blob of 200 MB.
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "PelmoLib/encodings/NSData+Digests.h"
#include "PelmoLib/encodings/NSString+UUID.h"
#include "bench/CannedServer.h"
#include "service/DiskBlobStore.h"
#include "service/HttpServer.h"
#include "service/Locks.h"
#include "tests/support/TemporaryDirectory.h"

using namespace velkor;
using namespace velkor::service;

namespace {

constexpr std::size_t blobSize = 200'000'000;
constexpr std::size_t bufferSize = 1 << 18;

const std::string& content() {
    static const std::string bytes = [] {
        std::string made(blobSize, '\0');
        std::uint32_t seed = 1;
        for (char& c : made) c = static_cast<char>((seed = seed * 1664525 + 1013904223) >> 24);
        return made;
    }();
    return bytes;
}

/// A blob store behind a server of its own, in a directory that goes with it.
class Store : public HttpHandler {
public:
    Store() {
        m_store = DiskBlobStore::open(m_directory / "blobs",
                                      {.now = Locks::systemMilliseconds, .isWanted = [](const std::string&) { return true; }})
                      .value();
        m_server = std::make_unique<HttpServer>(*this, HttpServer::Settings{});
        origin = "http://127.0.0.1:" + std::to_string(m_server->listen().value());
        m_thread = std::thread([this] { m_server->run(); });
    }
    ~Store() override {
        m_server->stop();
        m_thread.join();
    }
    std::optional<Response> admit(Request&, std::size_t) override { return std::nullopt; }
    std::shared_ptr<BodyReceiver> receiver(const Request& head) override { return m_store->receiver(head); }
    Response handle(Request& request) override { return m_store->serve(request).value(); }

    DiskBlobStore& operator*() { return *m_store; }
    const test::TemporaryDirectory& directory() const { return m_directory; }
    std::string origin;

private:
    const test::TemporaryDirectory m_directory;
    std::unique_ptr<DiskBlobStore> m_store;
    std::unique_ptr<HttpServer> m_server;
    std::thread m_thread;
};

Store& store() {
    static Store made;
    return made;
}

void perform(benchmark::State& state, CURL* curl, long expected) {
    curl_easy_setopt(curl, CURLOPT_PROXY, "");
    curl_easy_setopt(curl, CURLOPT_BUFFERSIZE, static_cast<long>(bufferSize));
    curl_easy_setopt(curl, CURLOPT_UPLOAD_BUFFERSIZE, static_cast<long>(bufferSize));
    curl_easy_setopt(
        curl, CURLOPT_WRITEFUNCTION, +[](char*, std::size_t size, std::size_t count, void*) { return size * count; });
    long status = 0;
    if (curl_easy_perform(curl) == CURLE_OK) curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    if (status != expected) state.SkipWithError("the request failed");
}

void diskWrite(benchmark::State& state) {
    const std::string file = store().directory() / "plain";
    for (auto _ : state) {
        const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        for (std::size_t at = 0; at < blobSize; at += bufferSize) {
            const auto size = std::min(bufferSize, blobSize - at);
            if (write(descriptor, content().data() + at, size) != static_cast<ssize_t>(size)) state.SkipWithError("disk");
        }
        fsync(descriptor);
        close(descriptor);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(blobSize));
}

void loopback(benchmark::State& state) {
    sockaddr_in address;
    const int listener = listenOnLoopback(address);
    std::vector<char> buffer(bufferSize);
    for (auto _ : state) {
        std::thread sender([&] {
            const int peer = accept(listener, nullptr, nullptr);
            for (std::size_t at = 0; at < blobSize;) {
                const ssize_t sent = send(peer, content().data() + at, std::min(bufferSize, blobSize - at), 0);
                if (sent <= 0) break;
                at += static_cast<std::size_t>(sent);
            }
            close(peer);
        });
        const int receiver = socket(AF_INET, SOCK_STREAM, 0);
        connect(receiver, reinterpret_cast<sockaddr*>(&address), sizeof address);
        while (recv(receiver, buffer.data(), buffer.size(), 0) > 0) {
        }
        close(receiver);
        sender.join();
    }
    close(listener);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(blobSize));
}

void upload(benchmark::State& state) {
    const std::string name = stringWithUUID();
    const BlobForm form = (*store()).uploadForm(name, store().origin);
    std::string body;
    body.reserve(blobSize + 4096);
    for (const auto& [key, value] : form.fields) {
        body += "--b\r\nContent-Disposition: form-data; name=\"" + key + "\"\r\n\r\n" + value + "\r\n";
    }
    body += "--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\"filename\"\r\n\r\n" + content() + "\r\n--b--";
    curl_slist* headers = curl_slist_append(nullptr, "Content-Type: multipart/form-data; boundary=b");
    headers = curl_slist_append(headers, "Expect:");
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, form.url.c_str());
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
    for (auto _ : state) perform(state, curl, 204);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
    (*store()).remove(std::span(&name, 1));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(blobSize));
}

void download(benchmark::State& state) {
    const std::string name = stringWithUUID();
    const auto files = BlobDirectory::open(store().directory() / "blobs").value()->add(name);
    files->write(content());
    const std::string hash = files->publish(), url = (*store()).readURL(name, hash, store().origin);
    CURL* curl = curl_easy_init();
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    for (auto _ : state) perform(state, curl, 200);
    curl_easy_cleanup(curl);
    (*store()).remove(std::span(&name, 1));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(blobSize));
}

BENCHMARK(diskWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(loopback)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(upload)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(download)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
