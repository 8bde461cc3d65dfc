// The store's sessions and contexts against hand-written SQLite over the same tables: run as groups, raw, session, context.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "objectstore/ManagedObjectContext.h"
#include "objectstore/PersistentStoreCoordinator.h"
#include "objectstore/StoreSession.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using namespace velkor::NS;

constexpr int rowCount = 100'000;

struct Note {
    std::int64_t key = 0, version = 0;
    std::string guid, title, body;
    double created = 0, modified = 0, score = 0;
    bool pinned = false;
    std::int64_t rating = 0, notebook = 0;
};

void require(bool condition, const char* what) {
    if (condition) return;
    std::fprintf(stderr, "%s failed\n", what);
    std::abort();
}

template <class T>
T must(Result<T> result) {
    if (!result) require(false, result.error().localizedDescription().c_str());
    return std::move(result).value();
}
void must(const Result<void>& result) {
    if (!result) require(false, result.error().localizedDescription().c_str());
}

std::vector<Note> makeNotes() {
    std::vector<Note> notes(rowCount);
    std::uint64_t random = 88172645463325252ull;
    for (int i = 0; i < rowCount; ++i) {
        char guid[40];
        random ^= random << 13, random ^= random >> 7, random ^= random << 17;
        std::snprintf(guid, sizeof guid, "%016llX-%08X-%010X", static_cast<unsigned long long>(random), static_cast<unsigned>(i),
                      static_cast<unsigned>(random >> 11));
        notes[static_cast<std::size_t>(i)] = {
            0,          0,     guid,      "Title of note " + std::to_string(i), std::string(120, 'x'), 1.7e9 + i, 1.7e9, i / 3.0,
            i % 2 == 0, i % 6, 1 + i % 50};
    }
    return notes;
}
const std::vector<Note>& notes() {
    static const std::vector<Note> made = makeNotes();
    return made;
}

std::shared_ptr<const ManagedObjectModel> model() {
    ModelBuilder builder;
    builder.entity("Notebook").attribute("guid", AttributeType::string).toMany("notes", "Note", "notebook");
    builder.entity("Note")
        .attribute("guid", AttributeType::string)
        .attribute("title", AttributeType::string)
        .attribute("body", AttributeType::string)
        .attribute("created", AttributeType::date)
        .attribute("modified", AttributeType::date)
        .attribute("score", AttributeType::doubleType)
        .attribute("pinned", AttributeType::boolean)
        .attribute("rating", AttributeType::integer32)
        .toOne("notebook", "Notebook", "notes");
    return must(builder.build());
}

std::vector<std::vector<Value>> makeRows() {
    std::vector<std::vector<Value>> rows;
    for (const Note& note : notes()) {
        rows.push_back({note.guid, note.title, note.body, Date(note.created), Date(note.modified), note.score, note.pinned,
                        note.rating, note.notebook});
    }
    return rows;
}

/// A file in memory-backed or other temporary storage with the store's own tables.
struct File {
    File() {
        coordinator = must(PersistentStoreCoordinator::open(shared, directory / "Data.sqlite"));
        require(
            sqlite3_open_v2(coordinator->file().c_str(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr) == SQLITE_OK,
            "open");
        execute("PRAGMA synchronous=NORMAL; PRAGMA cache_size=-32768");
        session = must(coordinator->session());
        entity = shared->entityNamed("Note");
    }
    ~File() {
        session.reset();
        coordinator.reset();
        sqlite3_close(raw);
    }
    void execute(const char* sql) { require(sqlite3_exec(raw, sql, nullptr, nullptr, nullptr) == SQLITE_OK, sql); }
    sqlite3_stmt* prepare(const char* sql) {
        sqlite3_stmt* statement = nullptr;
        require(sqlite3_prepare_v3(raw, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) == SQLITE_OK, sql);
        return statement;
    }
    sqlite3_stmt* prepareInsert() {
        return prepare(
            "INSERT INTO e_Note(id,v,a_guid,a_title,a_body,a_created,a_modified,a_score,a_pinned,a_rating,r_notebook) "
            "VALUES(NULL,1,?,?,?,?,?,?,?,?,?)");
    }
    static void insert(sqlite3_stmt* statement, const Note& note) {
        const auto text = [&](int place, const std::string& value) {
            sqlite3_bind_text(statement, place, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
        };
        text(1, note.guid), text(2, note.title), text(3, note.body);
        sqlite3_bind_double(statement, 4, note.created);
        sqlite3_bind_double(statement, 5, note.modified);
        sqlite3_bind_double(statement, 6, note.score);
        sqlite3_bind_int64(statement, 7, note.pinned);
        sqlite3_bind_int64(statement, 8, note.rating);
        sqlite3_bind_int64(statement, 9, note.notebook);
        require(sqlite3_step(statement) == SQLITE_DONE, "insert");
        sqlite3_reset(statement);
    }
    void fill() {
        execute("BEGIN");
        sqlite3_stmt* statement = prepareInsert();
        for (const Note& note : notes()) insert(statement, note);
        sqlite3_finalize(statement);
        execute("COMMIT");
    }

    const std::shared_ptr<const ManagedObjectModel> shared = model();
    const velkor::test::TemporaryDirectory directory;
    std::shared_ptr<PersistentStoreCoordinator> coordinator;
    std::unique_ptr<StoreSession> session;
    const EntityDescription* entity = nullptr;
    sqlite3* raw = nullptr;
};

void rawInsert(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto file = std::make_unique<File>();
        state.ResumeTiming();
        file->fill();
        state.PauseTiming();
        file.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * rowCount);
}

void sessionInsert(benchmark::State& state) {
    const auto rows = makeRows();
    for (auto _ : state) {
        state.PauseTiming();
        auto file = std::make_unique<File>();
        state.ResumeTiming();
        must(file->session->begin());
        for (const auto& row : rows) (void)must(file->session->insert(*file->entity, 0, row));
        must(file->session->commit());
        state.PauseTiming();
        file.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * rowCount);
}

void contextInsert(benchmark::State& state) {
    const auto rows = makeRows();
    for (auto _ : state) {
        state.PauseTiming();
        auto file = std::make_unique<File>();
        file->session.reset();
        const auto attributes = file->entity->attributes();
        state.ResumeTiming();
        {
            const auto context = ManagedObjectContext::create(file->coordinator);
            for (const auto& row : rows) {
                const auto note = context->insertNewObject(*file->entity);
                for (const auto& attribute : attributes) note->setPrimitiveValue(attribute, row[attribute.index]);
            }
            must(context->save());
        }
        state.PauseTiming();
        file.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * rowCount);
}

std::vector<Note> readNotes(sqlite3_stmt* statement) {
    std::vector<Note> found;
    const auto text = [&](int place) {
        return std::string(reinterpret_cast<const char*>(sqlite3_column_text(statement, place)),
                           static_cast<std::size_t>(sqlite3_column_bytes(statement, place)));
    };
    while (sqlite3_step(statement) == SQLITE_ROW) {
        found.push_back({sqlite3_column_int64(statement, 0), sqlite3_column_int64(statement, 1), text(2), text(3), text(4),
                         sqlite3_column_double(statement, 5), sqlite3_column_double(statement, 6),
                         sqlite3_column_double(statement, 7), sqlite3_column_int(statement, 8) != 0,
                         sqlite3_column_int64(statement, 9), sqlite3_column_int64(statement, 10)});
    }
    return found;
}

void rawFetch(benchmark::State& state) {
    File file;
    file.fill();
    for (auto _ : state) {
        sqlite3_stmt* statement = file.prepare(
            "SELECT id,v,a_guid,a_title,a_body,a_created,a_modified,a_score,a_pinned,a_rating,r_notebook FROM e_Note");
        const auto found = readNotes(statement);
        sqlite3_finalize(statement);
        require(found.size() == rowCount, "fetch");
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(state.iterations() * rowCount);
}

void sessionFetch(benchmark::State& state) {
    File file;
    file.fill();
    for (auto _ : state) {
        std::vector<StoredRow> found;
        must(file.session->fetch(FetchRequest(file.entity), [&](StoredRow&& row) { found.push_back(std::move(row)); }));
        require(found.size() == rowCount, "fetch");
        benchmark::DoNotOptimize(found);
    }
    state.SetItemsProcessed(state.iterations() * rowCount);
}

void contextFetch(benchmark::State& state) {
    File file;
    file.fill();
    for (auto _ : state) {
        const auto context = ManagedObjectContext::create(file.coordinator);
        const auto found = must(context->executeFetchRequest(FetchRequest(file.entity)));
        require(found.size() == rowCount, "fetch");
    }
    state.SetItemsProcessed(state.iterations() * rowCount);
}

void rawSingleSaves(benchmark::State& state) {
    File file;
    std::size_t next = 0;
    sqlite3_stmt* begin = file.prepare("BEGIN IMMEDIATE");
    sqlite3_stmt* commit = file.prepare("COMMIT");
    sqlite3_stmt* insert = file.prepareInsert();
    const auto run = [](sqlite3_stmt* statement) {
        require(sqlite3_step(statement) == SQLITE_DONE, "step");
        sqlite3_reset(statement);
    };
    for (auto _ : state) {
        run(begin);
        File::insert(insert, notes()[next++ % rowCount]);
        run(commit);
    }
    for (sqlite3_stmt* statement : {begin, commit, insert}) sqlite3_finalize(statement);
}

void sessionSingleSaves(benchmark::State& state) {
    File file;
    const auto rows = makeRows();
    std::size_t next = 0;
    file.session.reset();
    if (state.range(0) >= 1) must(file.coordinator->watch("known", {{"Note", {"guid"}}}));
    if (state.range(0) >= 2) must(file.coordinator->enableHistory({"guid"}));
    SaveStamp save;
    for (auto _ : state) {
        auto session = must(file.coordinator->session());
        must(session->begin());
        const auto& row = rows[next++ % rowCount];
        const RowKey key = must(session->insert(*file.entity, 0, row));
        session->touched(*file.entity, ChangeKind::inserted, {});
        save.time = Date::now();
        (void)must(session->appendHistory(save, *file.entity, key, ChangeKind::inserted, row));
        must(session->commit());
    }
}

void rawGuids(benchmark::State& state) {
    File file;
    file.fill();
    for (auto _ : state) {
        sqlite3_stmt* statement = file.prepare("SELECT a_guid FROM e_Note ORDER BY a_guid");
        std::size_t bytes = 0;
        while (sqlite3_step(statement) == SQLITE_ROW) {
            std::string guid(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)),
                             static_cast<std::size_t>(sqlite3_column_bytes(statement, 0)));
            bytes += guid.size();
        }
        sqlite3_finalize(statement);
        benchmark::DoNotOptimize(bytes);
    }
}

void sessionGuids(benchmark::State& state) {
    File file;
    file.fill();
    FetchRequest request(file.entity);
    request.sortDescriptors = {{"guid", true}};
    const std::vector<std::string> names{"guid"};
    for (auto _ : state) {
        std::size_t bytes = 0;
        must(file.session->project(request, names,
                                   [&](RowKey, std::span<const Value> values) { bytes += values[0].asString()->size(); }));
        benchmark::DoNotOptimize(bytes);
    }
}

constexpr std::size_t listLength = 10'000;
const std::string& listedGuid(std::size_t i) { return notes()[i * (rowCount / listLength)].guid; }

void rawInList(benchmark::State& state) {
    File file;
    file.fill();
    for (auto _ : state) {
        std::string json = "[";
        for (std::size_t i = 0; i < listLength; ++i) json += (i ? ",\"" : "\"") + listedGuid(i) + '"';
        json += ']';
        sqlite3_stmt* statement = file.prepare(
            "SELECT id,v,a_guid,a_title,a_body,a_created,a_modified,a_score,a_pinned,a_rating,r_notebook FROM e_Note "
            "WHERE a_guid IN (SELECT value FROM json_each(?))");
        sqlite3_bind_text(statement, 1, json.data(), static_cast<int>(json.size()), SQLITE_STATIC);
        const auto found = readNotes(statement);
        sqlite3_finalize(statement);
        require(found.size() == listLength, "list");
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(listLength));
}

void contextInList(benchmark::State& state) {
    File file;
    file.fill();
    Array guids;
    for (std::size_t i = 0; i < listLength; ++i) guids.push_back(listedGuid(i));
    FetchRequest request(file.entity);
    request.predicate = Predicate::in("guid", guids);
    for (auto _ : state) {
        const auto context = ManagedObjectContext::create(file.coordinator);
        require(must(context->executeFetchRequest(request)).size() == listLength, "list");
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(listLength));
}

void sessionInList(benchmark::State& state) {
    File file;
    file.fill();
    Array guids;
    for (int i = 0; i < state.range(0); ++i)
        guids.push_back(notes()[static_cast<std::size_t>(i) * (rowCount / static_cast<std::size_t>(state.range(0)))].guid);
    FetchRequest request(file.entity);
    request.predicate = Predicate::in("guid", guids);
    for (auto _ : state) {
        std::size_t found = 0;
        must(file.session->fetch(request, [&](StoredRow&&) { ++found; }));
        require(found == static_cast<std::size_t>(state.range(0)), "list");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void sessionRows(benchmark::State& state) {
    File file;
    file.fill();
    std::vector<RowKey> keys;
    for (RowKey key = 1; key <= rowCount; key += state.range(0)) keys.push_back(key);
    for (auto _ : state) {
        std::size_t found = 0;
        must(file.session->rows(*file.entity, keys, [&](StoredRow&&) { ++found; }));
        require(found == keys.size(), "rows");
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(keys.size()));
}

BENCHMARK(rawInsert)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(sessionInsert)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(contextInsert)->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(rawFetch)->Unit(benchmark::kMillisecond);
BENCHMARK(sessionFetch)->Unit(benchmark::kMillisecond);
BENCHMARK(contextFetch)->Unit(benchmark::kMillisecond);
BENCHMARK(rawSingleSaves)->Unit(benchmark::kMicrosecond)->Iterations(20000);
BENCHMARK(sessionSingleSaves)
    ->ArgName("0 plain, 1 watch, 2 history")
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Unit(benchmark::kMicrosecond)
    ->Iterations(20000);
BENCHMARK(rawGuids)->Unit(benchmark::kMillisecond);
BENCHMARK(sessionGuids)->Unit(benchmark::kMillisecond);
BENCHMARK(rawInList)->Unit(benchmark::kMillisecond);
BENCHMARK(contextInList)->Unit(benchmark::kMillisecond);
BENCHMARK(sessionInList)->Arg(1)->Arg(40)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(sessionRows)->ArgName("every")->Arg(1)->Arg(3)->Arg(20)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
