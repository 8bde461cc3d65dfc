// The codec on an answer of 10,000 transactions (about 5.5 MB), beside nlohmann-json and, where it is installed, simdjson.
#include <benchmark/benchmark.h>

#include <nlohmann/json.hpp>
#include <random>
#include <string>

#if defined(VELKOR_HAS_SIMDJSON)
#include <simdjson.h>
#endif

#include "PelmoLib/encodings/NSString+UUID.h"
#include "json/CJSONDataSerializer.h"
#include "json/CJSONDeserializer.h"
#include "json/JSONWriter.h"

namespace {

using namespace velkor;

const std::string& answer() {
    static const std::string text = [] {
        constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::mt19937 random(1);
        std::string json;
        JSONWriter writer(json);
        writer.beginObject();
        writer.member("HIGHEST_XACTION", 10000);
        writer.key("new_xactions");
        writer.beginArray();
        for (int i = 0; i < 10000; ++i) {
            std::string payload;
            for (auto length = 330 + random() % 370; length > 0; --length) payload += alphabet[random() % 64];
            writer.beginObject();
            writer.key("transaction");
            writer.beginObject();
            writer.member("xaction_time", "2013-03-05T10:00:00+0100");
            writer.member("xaction_type", "UPDATE_XACTION");
            writer.member("xaction_object_type", "Note");
            writer.member("xaction_object_guid", stringWithUUID());
            writer.member("xaction_object", payload);
            writer.member("computed_relationships", NS::Dictionary());
            writer.endObject();
            writer.endObject();
        }
        writer.endArray();
        writer.endObject();
        return json;
    }();
    return text;
}

void countBytes(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * answer().size()));
}

void parse(benchmark::State& state) {
    answer();
    for (auto _ : state) benchmark::DoNotOptimize(dictionaryWithJSONData(std::string_view(answer()), nullptr));
    countBytes(state);
}
BENCHMARK(parse)->Unit(benchmark::kMillisecond);

void parseNlohmann(benchmark::State& state) {
    answer();
    for (auto _ : state) benchmark::DoNotOptimize(nlohmann::json::parse(answer()));
    countBytes(state);
}
BENCHMARK(parseNlohmann)->Unit(benchmark::kMillisecond);

#if defined(VELKOR_HAS_SIMDJSON)
void parseSimdjson(benchmark::State& state) {
    const simdjson::padded_string padded(answer());
    simdjson::dom::parser parser;
    for (auto _ : state) benchmark::DoNotOptimize(parser.parse(padded).error());
    countBytes(state);
}
BENCHMARK(parseSimdjson)->Unit(benchmark::kMillisecond);
#endif

void write(benchmark::State& state) {
    const NS::Value value = *dictionaryWithJSONData(std::string_view(answer()), nullptr);
    for (auto _ : state) benchmark::DoNotOptimize(CJSONDataSerializer::serializer().serializeObject(value, nullptr));
    countBytes(state);
}
BENCHMARK(write)->Unit(benchmark::kMillisecond);

void writeNlohmann(benchmark::State& state) {
    const auto value = nlohmann::json::parse(answer());
    for (auto _ : state) benchmark::DoNotOptimize(value.dump());
    countBytes(state);
}
BENCHMARK(writeNlohmann)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
