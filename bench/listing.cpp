// The guids of a full listing, gathered from a store of a million notes, against the SELECT of the same columns: run as a pair.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKSyncController.h"
#include "Sync/VLKSyncableObjectHasher.h"
#include "objectstore/ManagedObjectContext.h"
#include "objectstore/ManagedObjectModel.h"
#include "objectstore/ObjectClass.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using namespace velkor;
using namespace velkor::NS;

constexpr int noteCount = 1'000'000;

void require(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "%s failed\n", what);
    std::abort();
}

class Note : public ManagedObject {};

class Controller : public VLKSyncController {
public:
    explicit Controller(VLKContextCreator creator) : VLKSyncController("http://localhost", std::move(creator)) {}
};

std::shared_ptr<const ManagedObjectModel> model() {
    ObjectClass::registerClass<Note>("Note").adopt(VLKSyncableObject).answersWithAttribute("expired");
    ModelBuilder builder;
    builder.entity("Note")
        .attribute("guid", AttributeType::string)
        .attribute("title", AttributeType::string)
        .attribute("body", AttributeType::string)
        .attribute("expired", AttributeType::boolean);
    return builder.build().value();
}

/// A store of notes that goes with the object, filled behind its back.
struct Store {
    Store() {
        require(sqlite3_open(coordinator->file().c_str(), &raw) == SQLITE_OK, "open");
        fill();
    }
    ~Store() { sqlite3_close(raw); }
    sqlite3_stmt* prepare(const char* sql) {
        sqlite3_stmt* statement = nullptr;
        require(sqlite3_prepare_v2(raw, sql, -1, &statement, nullptr) == SQLITE_OK, sql);
        return statement;
    }
    void fill() {
        sqlite3_exec(raw, "PRAGMA synchronous=OFF; BEGIN", nullptr, nullptr, nullptr);
        sqlite3_stmt* insert = prepare("INSERT INTO e_Note(id,v,a_guid,a_title,a_body,a_expired) VALUES(NULL,1,?,?,?,?)");
        const std::string body(120, 'x');
        std::uint64_t random = 88172645463325252ull;
        for (int i = 0; i < noteCount; ++i) {
            random ^= random << 13, random ^= random >> 7, random ^= random << 17;
            char guid[40];
            std::snprintf(guid, sizeof guid, "%08X-%04X-4%03X-8%03X-%012llX", static_cast<unsigned>(random >> 32),
                          static_cast<unsigned>(random >> 16 & 0xFFFF), static_cast<unsigned>(random & 0xFFF), i & 0xFFF,
                          static_cast<unsigned long long>(i));
            const std::string title = "Title of note " + std::to_string(i);
            sqlite3_bind_text(insert, 1, guid, -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(insert, 2, title.c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_bind_text(insert, 3, body.c_str(), -1, SQLITE_STATIC);
            sqlite3_bind_int(insert, 4, i % 50 == 0);
            require(sqlite3_step(insert) == SQLITE_DONE, "insert");
            sqlite3_reset(insert);
        }
        sqlite3_finalize(insert);
        sqlite3_exec(raw, "COMMIT", nullptr, nullptr, nullptr);
    }

    const test::TemporaryDirectory directory;
    const std::shared_ptr<PersistentStoreCoordinator> coordinator =
        PersistentStoreCoordinator::open(model(), directory / "Notes.sqlite").value();
    sqlite3* raw = nullptr;
};

Store& store() {
    static Store made;
    return made;
}

constexpr std::size_t listed = noteCount - noteCount / 50;

void rawSelect(benchmark::State& state) {
    store();
    for (auto _ : state) {
        std::vector<std::string> guids;
        sqlite3_stmt* select = store().prepare("SELECT a_guid,a_expired FROM e_Note");
        while (sqlite3_step(select) == SQLITE_ROW) {
            if (sqlite3_column_int(select, 1) != 0) continue;
            guids.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(select, 0)),
                               static_cast<std::size_t>(sqlite3_column_bytes(select, 0)));
        }
        sqlite3_finalize(select);
        require(guids.size() == listed, "select");
    }
}

void gatherListing(benchmark::State& state) {
    store();
    VLKLog::sharedInstance().setLogLevel(0);
    const auto newContext = [] { return ManagedObjectContext::create(store().coordinator); };
    Controller controller(newContext);
    for (auto _ : state) {
        const auto ctx = newContext();
        const auto guids = VLKSyncableObjectHasher(ctx, controller).guidsForAllKnownObjectsInContext(*ctx);
        require(guids && guids->size() == listed, "listing");
    }
}

BENCHMARK(rawSelect)->Unit(benchmark::kMillisecond);
BENCHMARK(gatherListing)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
