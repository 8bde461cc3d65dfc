// What the transfers of blobs cost, presigned requests and confirmation included, beside the same requests sent by plain libcurl.
#include <benchmark/benchmark.h>

#include <fstream>
#include <memory>
#include <string>

#include "PelmoLib/encodings/NSData+Digests.h"
#include "Sync/VLKDataUploader.h"
#include "Sync/VLKS3Downloader.h"
#include "Sync/VLKS3Uploader.h"
#include "bench/BlobTransfer.h"
#include "bench/CannedServer.h"
#include "bench/PlainLibcurl.h"

using namespace velkor;

namespace {

constexpr std::size_t large = 200'000'000;
constexpr std::size_t small = 10'000;

std::string columnFor(std::size_t size) { return size == large ? "large" : "small"; }

/// The sync service and the blob store in one, with a large and a small blob to be read.
class Store {
public:
    static Store& running() {
        static auto* store = new Store;
        return *store;
    }
    std::string baseURL() const { return m_server.url.substr(0, m_server.url.size() - 1); }
    std::string blobURL(std::size_t size) const { return m_server.url + columnFor(size); }
    std::string endpoint(std::size_t size, std::string_view name) const {
        return baseURL() + "/client_apps/bench/blobs/G/" + columnFor(size) + "/" + std::string(name);
    }

private:
    Store() : m_server([this](std::string_view head) { return answerTo(head.substr(0, head.find("\r\n"))); }) {
        for (auto* blob : {&m_large, &m_small}) {
            blob->presigned =
                CannedServer::answerWith(R"({"url":")" + blobURL(blob->size) + R"(","signature":{"key":"bench/G"}})");
            blob->bytes = CannedServer::answerWith(std::string(blob->size, 'x'));
        }
    }
    std::string_view answerTo(std::string_view requestLine) const {
        const auto names = [&](std::string_view part) { return requestLine.find(part) != std::string_view::npos; };
        const Blob& blob = names("/large") ? m_large : m_small;
        if (names("/write.json") || names("/read.json")) return blob.presigned;
        return requestLine.starts_with("GET") ? std::string_view(blob.bytes) : std::string_view(m_taken);
    }

    struct Blob {
        std::size_t size;
        std::string presigned;
        std::string bytes;
    };
    Blob m_large{large, {}, {}};
    Blob m_small{small, {}, {}};
    const std::string m_taken = CannedServer::answerWith("{}");
    CannedServer m_server;
};

/// The process's memory now ("VmRSS") or at its highest since `begin` ("VmHWM"), in bytes.
double memory(std::string_view field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with(field)) return 1024 * std::stod(line.substr(field.size() + 1));
    }
    return 0;
}

/// Adds what a benchmark needed at most, as a multiple of the blob.
class PeakMemory {
public:
    PeakMemory() {
        Store::running();
        m_before = memory("VmRSS");
        std::ofstream("/proc/self/clear_refs") << "5";
    }
    void report(benchmark::State& state, std::size_t size) const {
        if (size == large) state.counters["peak/blob"] = (memory("VmHWM") - m_before) / static_cast<double>(size);
    }

private:
    double m_before;
};

void uploads(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const PeakMemory peak;
    const NS::Data blob(std::string(size, 'b'));
    measureBlobs(state, [&] {
        const auto transfer = std::make_shared<VLKS3Uploader>(Store::running().baseURL(), "", "bench", "G", columnFor(size));
        transfer->setData(blob);
        runTransfer(transfer);
    });
    peak.report(state, size);
}

void downloads(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const PeakMemory peak;
    measureBlobs(state, [&] {
        runTransfer(std::make_shared<VLKS3Downloader>(Store::running().baseURL(), "bench", "G", columnFor(size)));
    });
    peak.report(state, size);
}

void uploadsByPlainLibcurl(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& store = Store::running();
    VLKDataUploader form(store.blobURL(size), NS::Data(std::string(size, 'b')));
    form.setFormFields(NS::Dictionary{{"key", "bench/G"}});
    const NS::Data body = form.fileUploadRequestForUrl(form.url(), form.dataToSend()).httpBody();
    const std::string confirmation = "hash=" + sha1HexHash(form.dataToSend()) + "&";
    PlainLibcurl curl;
    measureBlobs(state, [&] {
        curl.get(store.endpoint(size, "write.json"));
        curl.post(form.url(), body.view());
        curl.post(store.endpoint(size, "wrote.json"), confirmation);
    });
}

void downloadsByPlainLibcurl(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const auto& store = Store::running();
    PlainLibcurl curl;
    measureBlobs(state, [&] {
        curl.get(store.endpoint(size, "read.json"));
        curl.get(store.blobURL(size), size);
    });
}

void sizes(benchmark::internal::Benchmark* bench) {
    bench->Args({large, 1})->Args({small, 1000})->UseRealTime()->Unit(benchmark::kMillisecond);
}
BENCHMARK(uploads)->Apply(sizes);
BENCHMARK(uploadsByPlainLibcurl)->Apply(sizes);
BENCHMARK(downloads)->Apply(sizes);
BENCHMARK(downloadsByPlainLibcurl)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
