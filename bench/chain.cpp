// Blobs through the whole chain, the library and velkord with its embedded store together, beside the same requests sent to the
// same velkord by plain libcurl.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "PelmoLib/encodings/NSData+Compression.h"
#include "PelmoLib/encodings/NSData+Digests.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "Sync/VLKS3Downloader.h"
#include "Sync/VLKS3Uploader.h"
#include "bench/BlobTransfer.h"
#include "bench/PlainLibcurl.h"
#include "bench/Velkord.h"
#include "json/CJSONDeserializer.h"

using namespace velkor;

namespace {

NS::Dictionary parsed(const std::string& json) {
    return CJSONDeserializer::deserializer().deserializeAsDictionary(json, nullptr).value();
}

/// A velkord with one user, who holds the lock and has an object with a blob: its transfers are granted.
class Service {
public:
    static Service& running() {
        static Service service;
        return service;
    }
    const std::string& url() const { return m_velkord.url(); }
    std::string endpoint(const std::string& column, const std::string& name) const {
        return url() + "/client_apps/bench/blobs/G/" + column + "/" + name;
    }

private:
    Service() {
        PlainLibcurl curl("Authorization: Basic " + base64Encoding(std::string_view("u@example.org:secret")));
        curl.post(url() + "/users.json", R"({"user":{"email":"u@example.org","password":"secret"}})");
        const auto user = *parsed(curl.get(url() + "/client/v1.5/bench/A/lock.json"))["user_id"].asInteger();
        std::string payload;
        appendZlibDeflate(payload, R"({"attributes":{},"relationships":{}})");
        curl.post(url() + "/users/" + std::to_string(user) + "/transactions.json",
                  R"({"xactions":{"G":{"xaction_time":"2024-05-06T07:08:09+0000","xaction_type":"INSERT_XACTION",)"
                  R"("xaction_object_type":"Attachment","xaction_object_guid":"G","xaction_object":")" +
                      base64Encoding(payload) +
                      R"("}},"HIGHEST_XACTION":-1,"app_id":"bench","instance_id":"A","multi_part":false})");
    }

    Velkord m_velkord;
};

void upload(const std::string& column, const NS::Data& blob) {
    const auto transfer = std::make_shared<VLKS3Uploader>(Service::running().url(), "", "bench", "G", column);
    transfer->setData(blob);
    runTransfer(transfer);
}

NS::Data blobFor(const benchmark::State& state) { return NS::Data(std::string(static_cast<std::size_t>(state.range(0)), 'b')); }
std::string columnFor(const benchmark::State& state) { return "c" + std::to_string(state.range(0)); }

void uploads(benchmark::State& state) {
    const NS::Data blob = blobFor(state);
    measureBlobs(state, [&] { upload(columnFor(state), blob); });
}

void uploadsByPlainLibcurl(benchmark::State& state) {
    const auto& service = Service::running();
    const NS::Data blob = blobFor(state);
    const std::string column = columnFor(state);
    PlainLibcurl curl, form("Content-Type: multipart/form-data; boundary=b");
    measureBlobs(state, [&] {
        const auto presigned = parsed(curl.get(service.endpoint(column, "write.json")));
        std::string fields;
        for (const auto& field : *presigned["signature"].asDictionary()) {
            fields += "--b\r\nContent-Disposition: form-data; name=\"" + std::string(field.key()) + "\"\r\n\r\n" +
                      field.value().stringOr("") + "\r\n";
        }
        fields += "--b\r\nContent-Disposition: form-data; name=\"file\"; filename=\"filename\"\r\n\r\n";
        form.post(presigned["url"].stringOr(""), {fields, blob.view(), "\r\n--b--"});
        curl.post(service.endpoint(column, "wrote.json"), "hash=" + sha1HexHash(blob) + "&");
    });
}

void downloads(benchmark::State& state) {
    const std::string column = columnFor(state);
    upload(column, blobFor(state));
    measureBlobs(state, [&] { runTransfer(std::make_shared<VLKS3Downloader>(Service::running().url(), "bench", "G", column)); });
}

void downloadsByPlainLibcurl(benchmark::State& state) {
    const auto& service = Service::running();
    const std::string column = columnFor(state);
    upload(column, blobFor(state));
    PlainLibcurl curl;
    measureBlobs(state, [&] {
        const auto presigned = parsed(curl.get(service.endpoint(column, "read.json")));
        curl.get(presigned["url"].stringOr(""), static_cast<std::size_t>(state.range(0)));
    });
}

void sizes(benchmark::internal::Benchmark* bench) {
    bench->Args({200'000'000, 1})->Args({10'000, 100})->UseRealTime()->Unit(benchmark::kMillisecond);
}
BENCHMARK(uploads)->Apply(sizes);
BENCHMARK(uploadsByPlainLibcurl)->Apply(sizes);
BENCHMARK(downloads)->Apply(sizes);
BENCHMARK(downloadsByPlainLibcurl)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
