// What the store does when the file, the disk or another process is not as it should be.
#include <fcntl.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <thread>

#include "tests/objectstore/StoreFixture.h"

namespace velkor::test {

namespace {

std::string contentOf(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void write(const std::filesystem::path& file, std::string_view bytes) {
    std::ofstream(file, std::ios::binary | std::ios::trunc).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

/// A process of its own for `work`, which returns its exit status: 0 when all went well.
class Child {
public:
    explicit Child(const std::function<int()>& work) {
        m_process = ::fork();
        if (m_process == 0) ::_exit(work());
    }
    int status() const {
        int status = -1;
        EXPECT_EQ(::waitpid(m_process, &status, 0), m_process);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t m_process;
};

/// A one-way channel between a process and its child.
class Signal {
public:
    Signal() { EXPECT_EQ(::pipe(m_ends), 0); }
    ~Signal() { ::close(m_ends[0]), ::close(m_ends[1]); }
    void send() const { EXPECT_EQ(::write(m_ends[1], "x", 1), 1); }
    void await() const {
        char byte;
        EXPECT_EQ(::read(m_ends[0], &byte, 1), 1);
    }

private:
    int m_ends[2];
};

class StoreFaultsTest : public StoreFixture {
protected:
    const EntityDescription& m_book = entity("Book");

    static StoreOptions impatient() {
        StoreOptions options;
        options.busyTimeoutSeconds = 0.01;
        return options;
    }
    /// Inserts so many books in one transaction; the error code, 0 when all were written.
    std::int64_t insertBooks(StoreSession& session, int count, const std::string& title = "t") const {
        if (auto begun = session.begin(); !begun) return begun.error().code();
        for (int i = 0; i < count; ++i) {
            auto inserted = session.insert(m_book, 0, row(m_book, {{"guid", std::to_string(i)}, {"title", title}}));
            if (inserted) continue;
            session.rollback();
            return inserted.error().code();
        }
        auto committed = session.commit();
        if (!committed) session.rollback();
        return codeOf(committed);
    }
    std::size_t bookCount(const PersistentStoreCoordinator& store) const {
        return must(must(store.session())->count(FetchRequest(&m_book)));
    }
    /// Writes a store of many pages and closes it.
    void makeStore(int books) {
        const auto store = open();
        EXPECT_EQ(insertBooks(*must(store->session()), books, std::string(200, 'x')), 0);
    }
};

TEST_F(StoreFaultsTest, FilesOfOthersAreRefusedAndLeftAlone) {
    const std::string text = "This is a letter, not a store. " + std::string(5000, '.');
    write(m_file, text);
    auto opened = tryOpen(m_model);
    ASSERT_EQ(codeOf(opened), StoreError::notAStore);
    EXPECT_EQ(opened.error().localizedDescription(), "The store " + m_file.string() + " is damaged or not an object store.");
    EXPECT_EQ(contentOf(m_file), text);

    std::filesystem::remove(m_file);
    sqlite3* raw = nullptr;
    ASSERT_EQ(sqlite3_open(m_file.c_str(), &raw), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(raw, "CREATE TABLE theirs(x); INSERT INTO theirs VALUES(1)", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(raw);
    const std::string database = contentOf(m_file);
    opened = tryOpen(m_model);
    ASSERT_EQ(codeOf(opened), StoreError::notAStore);
    EXPECT_EQ(opened.error().localizedDescription(),
              "The store " + m_file.string() + " is no object store, but a database of another program.");
    EXPECT_EQ(contentOf(m_file), database);

    EXPECT_EQ(codeOf(PersistentStoreCoordinator::open(m_model, m_directory.path())), StoreError::ioFailure);
    EXPECT_EQ(codeOf(PersistentStoreCoordinator::open(m_model, m_directory / "no" / "file")), StoreError::ioFailure);
}

TEST_F(StoreFaultsTest, AnEmptyFileBecomesAStoreThatOnlyItsOwnerReads) {
    write(m_file, "");
    EXPECT_EQ(bookCount(*open()), 0u);
    std::filesystem::remove(m_file);
    const auto store = open();
    for (const char* suffix : {"", "-wal", "-shm"}) {
        struct stat status {};
        ASSERT_EQ(::stat((m_file.string() + suffix).c_str(), &status), 0) << suffix;
        EXPECT_EQ(status.st_mode & 0777, 0600u) << suffix;
    }
}

TEST_F(StoreFaultsTest, DamageIsReportedAndNeverFatal) {
    makeStore(300);
    const std::string good = contentOf(m_file);
    ASSERT_GT(good.size(), 40'000u);
    std::size_t failures = 0;
    std::uint32_t random = 12345;
    const auto next = [&] { return random = random * 1664525u + 1013904223u; };
    const auto use = [&]() -> std::int64_t {
        auto opened = tryOpen(m_model, impatient());
        if (!opened) return opened.error().code();
        auto session = opened.value()->session();
        if (!session) return session.error().code();
        StoreSession& store = *session.value();
        FetchRequest request(&m_book);
        request.predicate = Predicate::in("guid", {"5", "17", "200"});
        if (auto read = store.fetch(FetchRequest(&m_book), [](StoredRow&&) {}); !read) return read.error().code();
        if (auto read = store.fetch(request, [](StoredRow&&) {}); !read) return read.error().code();
        if (const auto code = insertBooks(store, 20)) return code;
        auto committed = store.begin();
        if (auto removed = store.remove(m_book, 7, -1); !removed) return removed.error().code();
        if (committed) committed = store.commit();
        return codeOf(committed);
    };
    for (int round = 0; round < 150; ++round) {
        std::string bad = good;
        if (round % 10 == 0) {
            bad.resize(next() % bad.size());
        } else {
            // Every third round hits the first page, with the header and the schema.
            const std::size_t reach = round % 3 == 0 ? 4096 : bad.size();
            for (int flips = 0; flips < 1 + round % 8; ++flips) bad[next() % reach] = static_cast<char>(next() >> 16);
        }
        for (const char* suffix : {"-wal", "-shm"}) std::filesystem::remove(m_file.string() + suffix);
        write(m_file, bad);
        const std::int64_t code = use();
        failures += code != 0;
        EXPECT_TRUE(code == 0 || code == StoreError::notAStore || code == StoreError::ioFailure ||
                    code == StoreError::incompatibleModel || code == StoreError::diskFull || code == StoreError::badRequest)
            << code << " in round " << round;
    }
    EXPECT_GT(failures, 20u);
}

TEST_F(StoreFaultsTest, FullDiskFailsTheSaveAndKeepsWhatWasThere) {
    makeStore(100);
    const Child child([&] {
        ::signal(SIGXFSZ, SIG_IGN);
        const auto store = open();
        auto session = must(store->session());
        const rlimit limit{500'000, 500'000};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        // Once the commit fails, once an insert that spills to the disk.
        for (const int count : {5000, 50'000}) {
            if (insertBooks(*session, count, std::string(1000, 'y')) != StoreError::diskFull) return 1;
        }
        if (must(session->count(FetchRequest(&m_book))) != 100) return 2;
        if (insertBooks(*session, 1) != 0) return 3;  // a small save has room
        // A migration that finds no room leaves the old model.
        Dictionary plist = *m_model->propertyList().asDictionary();
        plist.set("entities",
                  Array{Dictionary{
                      {"name", "Book"},
                      {"attributes",
                       Array{Dictionary{
                                 {"name", "title"}, {"type", "string"}, {"optional", false}, {"default", std::string(8000, 'z')}},
                             Dictionary{{"name", "more"}, {"type", "string"}, {"default", std::string(8000, 'z')}}}}}});
        if (codeOf(tryOpen(must(ManagedObjectModel::modelFromPropertyList(plist)))) != StoreError::diskFull) return 4;
        return 0;
    });
    EXPECT_EQ(child.status(), 0);
    EXPECT_EQ(bookCount(*open()), 101u);
}

TEST_F(StoreFaultsTest, ReadOnlyFilesAreRefused) {
    makeStore(1);
    std::filesystem::permissions(m_directory.path(), std::filesystem::perms(0555));
    std::filesystem::permissions(m_file, std::filesystem::perms(0444));
    const Child child([&] {
        if (::geteuid() == 0 && (::setegid(65534) != 0 || ::seteuid(65534) != 0)) return 9;
        auto opened = tryOpen(m_model);
        if (codeOf(opened) != StoreError::readOnly) return 1;
        return codeOf(PersistentStoreCoordinator::open(m_model, m_directory / "new")) == StoreError::readOnly ? 0 : 2;
    });
    EXPECT_EQ(child.status(), 0);
    std::filesystem::permissions(m_directory.path(), std::filesystem::perms(0755));
}

TEST_F(StoreFaultsTest, LockedFilesFailTheWriterAfterTheTimeoutButNoReader) {
    const auto store = open(impatient());
    auto session = must(store->session());
    EXPECT_EQ(insertBooks(*session, 3), 0);
    Signal locked, released;
    const Child child([&] {
        const auto other = open();
        auto writer = must(other->session());
        if (!writer->begin()) return 1;
        (void)must(writer->insert(m_book, 0, row(m_book, {})));
        locked.send();
        released.await();
        return writer->commit() ? 0 : 2;
    });
    locked.await();
    auto begun = session->begin();
    ASSERT_EQ(codeOf(begun), StoreError::busy);
    EXPECT_EQ(begun.error().localizedDescription(), "The store " + m_file.string() + " is locked by another process.");
    EXPECT_EQ(must(session->count(FetchRequest(&m_book))), 3u);
    EXPECT_EQ(bookCount(*open(impatient())), 3u);  // opening does not wait either
    released.send();
    EXPECT_EQ(child.status(), 0);
    EXPECT_EQ(must(session->count(FetchRequest(&m_book))), 4u);
}

TEST_F(StoreFaultsTest, WritersOfTwoProcessesWaitForEachOther) {
    StoreOptions patient;
    patient.busyTimeoutSeconds = 120;
    const auto store = open(patient);
    auto session = must(store->session());
    Signal locked, released;
    const Child child([&] {
        const auto other = open();
        auto writer = must(other->session());
        if (!writer->begin()) return 1;
        locked.send();
        released.await();
        // The parent's begin falls into this.
        for (int i = 0; i < 5000; ++i) (void)must(writer->insert(m_book, 0, row(m_book, {{"guid", std::to_string(i)}})));
        return writer->commit() ? 0 : 2;
    });
    locked.await();
    released.send();
    ASSERT_OK(session->begin());
    EXPECT_EQ(must(session->insert(m_book, 0, row(m_book, {}))), 5001);
    ASSERT_OK(session->commit());
    EXPECT_EQ(child.status(), 0);
    EXPECT_EQ(bookCount(*store), 5001u);
}

TEST_F(StoreFaultsTest, AKilledProcessLeavesItsCommitsAndNothingElse) {
    makeStore(10);
    Signal ready;
    const Child child([&] {
        const auto store = open();
        auto session = must(store->session());
        if (insertBooks(*session, 5) != 0 || !session->begin()) return 1;
        for (int i = 0; i < 20'000; ++i) (void)must(session->insert(m_book, 0, row(m_book, {{"title", std::string(500, 'x')}})));
        ready.send();
        ::raise(SIGKILL);
        return 2;
    });
    ready.await();
    EXPECT_EQ(child.status(), -1);
    const auto store = open();
    EXPECT_EQ(bookCount(*store), 15u);
    EXPECT_EQ(insertBooks(*must(store->session()), 1), 0);
}

TEST_F(StoreFaultsTest, ThreadsShareOneStore) {
    const auto store = open();
    constexpr int threads = 4, saves = 25;
    std::vector<std::thread> running;
    std::atomic<int> failures = 0;
    for (int t = 0; t < threads; ++t) {
        running.emplace_back([&] {
            for (int i = 0; i < saves; ++i) {
                auto session = must(store->session());
                if (insertBooks(*session, 3) != 0) ++failures;
                if (!session->fetch(FetchRequest(&m_book), [](StoredRow&&) {})) ++failures;
                if (!store->watchStamp("none") || !store->makeDurable()) ++failures;
            }
        });
    }
    for (auto& thread : running) thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(bookCount(*store), static_cast<std::size_t>(threads * saves * 3));
}

TEST_F(StoreFaultsTest, MakingDurableSyncsOnlyWhatIsNew) {
    const std::filesystem::path counted = m_directory / "steps";
    const auto stepsOf = [&](int saves, int syncs) {
        const Child child([&] {
            ::setenv("VELKOR_STEP_COUNT_FILE", counted.c_str(), 1);
            const auto store = open();
            auto session = must(store->session());
            for (int i = 0; i < saves; ++i) insertBooks(*session, 1);
            for (int i = 0; i < syncs; ++i) must(Result<bool>(store->makeDurable().ok()));
            ::exit(0);
            return 0;
        });
        EXPECT_EQ(child.status(), 0);
        return std::stoi(contentOf(counted));
    };
    makeStore(1);
    const int before = stepsOf(0, 0);
    EXPECT_EQ(stepsOf(3, 0) - before, 3);
    EXPECT_EQ(stepsOf(3, 1) - before, 4);
    EXPECT_EQ(stepsOf(3, 5) - before, 4);
}

}  // namespace

}  // namespace velkor::test
