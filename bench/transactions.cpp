// Push and pull without a network: many notes become one text of transactions, and a page of them is written into a store.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "PelmoLib/encodings/NSString+UUID.h"
#include "Sync/VLKBatchWriter.h"
#include "Sync/VLKChangeWriteOperation.h"
#include "Sync/VLKTransaction.h"
#include "bench/NotesModel.h"
#include "json/CJSONDeserializer.h"
#include "json/JSONWriter.h"
#include "objectstore/PersistentStoreCoordinator.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using namespace velkor;
using namespace velkor::NS;

/// A store that goes with the object.
struct Store {
    std::shared_ptr<ManagedObjectContext> newContext() const { return ManagedObjectContext::create(coordinator); }

    const test::TemporaryDirectory directory;
    const std::shared_ptr<PersistentStoreCoordinator> coordinator =
        PersistentStoreCoordinator::open(bench::notesModel(), directory / "store.sqlite").value();
};

std::string words(std::mt19937& random, std::size_t length) {
    static const char* const vocabulary[] = {"sync", "note",   "market", "about", "river", "quick", "letter", "of",
                                             "the",  "winter", "garden", "seven", "plan",  "to",    "meet",   "again"};
    std::string text;
    while (text.size() < length) (text += vocabulary[random() % 16]) += ' ';
    text.resize(length);
    return text;
}

/// Fills the store and files an insert for each object, as capture does.
VLKTransactionMap fill(const Store& store, const std::shared_ptr<ManagedObjectContext>& pending, std::size_t count) {
    std::mt19937 random(7);
    VLKTransactionMap batch;
    const auto context = store.newContext();
    auto insert = [&](const char* entity) {
        auto object = context->insertNewObjectForEntityForName(entity);
        const std::string guid = stringWithUUID();
        object->setValueForKey(guid, "guid");
        batch.set(guid, VLKTransaction::transactionOfType("INSERT_XACTION", entity, Value(guid), pending));
        return object;
    };
    std::vector<std::shared_ptr<ManagedObject>> books, tags;
    for (std::size_t i = 0; i < count / 100 + 1; ++i)
        (books.push_back(insert("Notebook")), books.back()->setValueForKey("Notebook " + std::to_string(i), "name"));
    for (std::size_t i = 0; i < 50; ++i)
        (tags.push_back(insert("Tag")), tags.back()->setValueForKey("tag " + std::to_string(i), "name"));
    for (std::size_t i = 0; i < count; ++i) {
        const auto note = insert("Note");
        note->setValueForKey(words(random, 40), "title");
        note->setValueForKey(words(random, 200), "body");
        note->setValueForKey(Date(1.7e9 + static_cast<double>(i)), "createdAt");
        note->setValueForKey(random() % 10 == 0, "pinned");
        note->setValueForKey(random() % 6, "rating");
        note->setValueForKey(static_cast<double>(random() % 1000000) / 1e4, "score");
        note->setValueForKey(books[random() % books.size()], "notebook");
        ObjectSet labels;
        for (std::size_t k = random() % 4; k > 0; --k) labels.insert(tags[random() % 50]);
        note->setDestinations(*note->entity().relationshipNamed("tags"), labels);
    }
    if (!context->save()) std::abort();
    return batch;
}

std::string write(const VLKTransactionMap& batch) {
    std::string text;
    JSONWriter writer(text);
    if (!VLKBatchWriter().writeTransactions(writer, batch).empty()) std::abort();
    return text;
}

void loadBatch(benchmark::State& state) {
    const Store store;
    for (auto _ : state) {
        state.PauseTiming();
        const auto context = store.newContext();
        const VLKTransactionMap batch = fill(store, context, static_cast<std::size_t>(state.range(0)));
        state.ResumeTiming();
        if (!VLKBatchWriter::loadObjects(batch)) std::abort();
    }
}

void writeBatch(benchmark::State& state) {
    const Store store;
    const auto context = store.newContext();
    const VLKTransactionMap batch = fill(store, context, static_cast<std::size_t>(state.range(0)));
    if (!VLKBatchWriter::loadObjects(batch)) std::abort();
    for (auto _ : state) benchmark::DoNotOptimize(write(batch));
}

/// The batch as the answer that another client gets.
Dictionary answer(std::size_t count) {
    const Store store;
    const auto context = store.newContext();
    const VLKTransactionMap batch = fill(store, context, count);
    if (!VLKBatchWriter::loadObjects(batch)) std::abort();
    const std::string text = write(batch);
    const auto transactions = CJSONDeserializer::deserializer().deserializeAsDictionary(std::string_view(text), nullptr);
    Array entries;
    for (const auto& entry : *transactions) {
        Dictionary transaction = *entry.value().asDictionary();
        transaction.set("xaction_object", "\"" + transaction["xaction_object"].stringOr("") + "\"");
        entries.push_back(Dictionary{{"transaction", transaction}});
    }
    return Dictionary{{"new_xactions", entries}};
}

void replay(benchmark::State& state, bool known) {
    const Dictionary page = answer(static_cast<std::size_t>(state.range(0)));
    auto run = [&](const Store& store) {
        VLKChangeWriteOperation operation(
            page, [&] { return store.newContext(); }, "", "", "", "");
        operation.setKeepsEveryChange(true);
        operation.main();
        if (operation.failed()) std::abort();
    };
    for (auto _ : state) {
        state.PauseTiming();
        {
            const Store store;
            if (known) run(store);
            state.ResumeTiming();
            run(store);
            state.PauseTiming();
        }
        state.ResumeTiming();
    }
}

void replayNew(benchmark::State& state) { replay(state, false); }
void replayKnown(benchmark::State& state) { replay(state, true); }

}  // namespace

BENCHMARK(loadBatch)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(writeBatch)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(replayNew)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(replayKnown)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)->UseRealTime();

BENCHMARK_MAIN();
