// The programs die at every durable step of import, edit and sync, and at random moments: nothing may be lost or half written.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <thread>

#include "json/CJSONDeserializer.h"
#include "tests/system/Hosts.h"

namespace velkor::test {
namespace {

namespace fs = std::filesystem;

void copyTree(const fs::path& from, const fs::path& to) {
    fs::remove_all(to);
    fs::copy(from, to, fs::copy_options::recursive);
}

int stepsOf(const std::function<Outcome(const Environment&)>& command, const fs::path& countFile) {
    Outcome outcome = command({{"VELKOR_STEP_COUNT_FILE", countFile.string()}});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    int count = 0;
    std::ifstream(countFile) >> count;
    return count;
}

Environment dieAt(int step) { return {{"VELKOR_DIE_AT_STEP", std::to_string(step)}}; }

std::set<std::string> guidsIn(const std::string& dump) {
    std::set<std::string> guids;
    const std::string key = "\"guid\":\"";
    for (std::size_t line = 0; line < dump.size();) {
        std::size_t end = std::min(dump.find('\n', line), dump.size());
        std::size_t begin = dump.find(key, line);
        if (begin < end) guids.insert(dump.substr(begin + key.size(), dump.find('"', begin + key.size()) - begin - key.size()));
        line = end + 1;
    }
    return guids;
}

std::set<std::string> pendingGuids(const Host& host) {
    std::set<std::string> guids;
    auto rows = CJSONDeserializer::deserializer().deserializeAsArray(host.must({"pending"}), nullptr);
    if (!rows) return guids;
    for (const auto& row : *rows) guids.insert((*row.asDictionary())["guid"].stringOr(""));
    return guids;
}

/// A service with one account, a host A that has synced some notes and a host B in step with it, kept as a template on disk.
class DeathTest : public testing::Test {
protected:
    void SetUp() override {
        for (int i = 0; i < 5; ++i) {
            fs::create_directories(directory / "tree/sub");
            std::ofstream(directory.path() / "tree/sub" / ("file" + std::to_string(i))) << "content " << i;
        }
        Service service(directory / "template/service");
        Host a(directory / "template/A", service.url()), b(directory / "template/B", service.url());
        a.must({"signup", "u@example.org", "pw"});
        a.must({"notebook", "Shared", "--guid", "NB"});
        a.must({"add", "One", "--guid", "N1", "--notebook", "NB", "--tag", "old"});
        a.must({"add", "Two", "--guid", "N2"});
        b.must({"login", "u@example.org", "pw"});
        syncToRest({&a, &b});
        service.program().signal(SIGTERM);
        EXPECT_EQ(service.program().wait().status, 0);
    }

    void fresh() { copyTree(directory / "template", directory / "run"); }

    /// What must hold after A or the service died: A's store opens, and syncing brings both hosts to the same state.
    void expectConvergence(Service& service, const std::string& what) {
        SCOPED_TRACE(what);
        Host a(directory / "run/A", service.url()), b(directory / "run/B", service.url());
        auto before = guidsIn(a.must({"dump"}));
        syncToRest({&a, &b});
        expectEqual(a, b);
        for (const auto& guid : before) EXPECT_TRUE(guidsIn(a.must({"dump"})).contains(guid)) << guid << " was lost";
    }

    TemporaryDirectory directory;
};

TEST_F(DeathTest, HostDiesAtEveryStepOfALocalCommand) {
    const std::vector<std::vector<std::string>> commands = {
        {"import", (directory / "tree").string()},
        {"edit", "N1", "--title", "Changed", "--tag", "new", "--untag", "old"},
        {"rm", "N2"},
    };
    for (const auto& command : commands) {
        fresh();
        int steps = stepsOf(
            [&](const Environment& environment) {
                return Host(directory / "run/A", "http://127.0.0.1:9").run(command, environment);
            },
            directory / "count");
        ASSERT_GT(steps, 2) << command[0];
        for (int step = 1; step <= steps; ++step) {
            fresh();
            Service service(directory / "run/service");
            Host a(directory / "run/A", service.url());
            auto old = guidsIn(a.must({"dump"}));
            EXPECT_NE(a.run(command, dieAt(step)).status, 0) << "step " << step << " was not reached";
            // What the store took in is pending, even though the sync state was not saved.
            auto now = guidsIn(a.must({"dump"})), pending = pendingGuids(a);
            for (const auto& guid : now) {
                EXPECT_TRUE(old.contains(guid) || pending.contains(guid)) << guid << " is neither pending nor acknowledged";
            }
            for (const auto& guid : old) {
                EXPECT_TRUE(now.contains(guid) || pending.contains(guid)) << "the deletion of " << guid << " is lost";
            }
            bool changed = a.must({"show", "N1", "--json"}).find("\"title\":\"Changed\"") != std::string::npos;
            EXPECT_TRUE(!changed || pending.contains("N1")) << "the edit is lost";
            expectConvergence(service, command[0] + " died at step " + std::to_string(step));
            if (HasFailure()) return;
        }
    }
}

TEST_F(DeathTest, APreferenceIsChangedAndPendingOrNeither) {
    const std::string guid = "u@example.org_preferences_theme";
    fresh();
    Host a(directory / "run/A", "http://127.0.0.1:9");
    int steps = stepsOf(
        [&](const Environment& environment) {
            return a.run({"set", "theme", "dark"}, environment);
        },
        directory / "count");
    ASSERT_GT(steps, 4);
    int changed = 0;
    for (int step = 1; step <= steps; ++step) {
        fresh();
        EXPECT_NE(a.run({"set", "theme", "dark"}, dieAt(step)).status, 0) << "step " << step << " was not reached";
        bool isSet = a.run({"get", "theme"}).status == 0;
        EXPECT_EQ(pendingGuids(a).contains(guid), isSet) << "died at step " << step;
        changed += isSet;
    }
    EXPECT_GT(changed, 0);
    EXPECT_LT(changed, steps);
}

TEST_F(DeathTest, HostDiesAtEveryStepOfASync) {
    auto prepare = [this](Service& service) {
        Host a(directory / "run/A", service.url()), b(directory / "run/B", service.url());
        b.must({"add", "From B", "--guid", "B1", "--notebook", "NB", "--tag", "old"});
        b.must({"edit", "N2", "--title", "Edited on B"});
        b.must({"sync"});
        a.must({"add", "From A", "--guid", "A1", "--notebook", "NB"});
        a.must({"edit", "N1", "--title", "Edited on A"});
        a.must({"edit", "N2", "--body", "Body from A"});
    };
    fresh();
    int steps = 0;
    {
        Service service(directory / "run/service");
        prepare(service);
        steps = stepsOf(
            [&](const Environment& environment) { return Host(directory / "run/A", service.url()).run({"sync"}, environment); },
            directory / "count");
    }
    ASSERT_GT(steps, 4);
    for (int step = 1; step <= steps && !HasFailure(); ++step) {
        fresh();
        Service service(directory / "run/service", {}, {"--lease", "1"});
        prepare(service);
        EXPECT_NE(Host(directory / "run/A", service.url()).run({"sync"}, dieAt(step)).status, 0)
            << "step " << step << " was not reached";
        expectConvergence(service, "sync died at step " + std::to_string(step));
        EXPECT_NE(Host(directory / "run/B", service.url()).must({"dump"}).find("Edited on A"), std::string::npos);
    }
}

TEST_F(DeathTest, ServiceDiesAtEveryStepOfASync) {
    auto change = [this] {
        Host a(directory / "run/A", "http://127.0.0.1:1");
        a.must({"add", "From A", "--guid", "A1", "--notebook", "NB", "--tag", "old"});
        a.must({"edit", "N1", "--title", "Edited on A"});
        a.must({"rm", "N2"});
    };
    bool died = true;
    for (int step = 1; died && step < 200 && !HasFailure(); ++step) {
        fresh();
        change();
        Service service(directory / "run/service", dieAt(step));
        // The first steps are those of its start, which then ends without an address.
        const bool started = !service.url().empty();
        if (started) Host(directory / "run/A", service.url()).run({"sync"});
        died = !started || !service.isRunning();
        EXPECT_TRUE(died || step > 1) << "the service counts no durable steps";
        service.restart();
        expectConvergence(service, "the service died at step " + std::to_string(step));
        EXPECT_NE(Host(directory / "run/B", service.url()).must({"dump"}).find("Edited on A"), std::string::npos);
    }
    EXPECT_FALSE(died) << "there are more steps";
}

TEST_F(DeathTest, KillAtRandomMomentsLosesNothing) {
    fresh();
    auto service = std::make_unique<Service>(directory / "run/service", Environment{}, std::vector<std::string>{"--lease", "1"});
    Host a(directory / "run/A", service->url()), b(directory / "run/B", service->url());
    std::mt19937 random(7);
    std::set<std::string> kept;
    for (int round = 0; round < 12 && !HasFailure(); ++round) {
        std::string guid = "R" + std::to_string(round);
        a.must({"add", "Round " + std::to_string(round), "--guid", guid, "--notebook", "NB"});
        kept.insert(guid);
        auto syncing = a.start({"sync"});
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 60));  // the moment of death is the test's input
        Program& victim = round % 3 == 2 ? service->program() : *syncing;
        victim.signal(SIGKILL);
        syncing->wait();
        if (round % 3 == 2) service->restart();
    }
    expectConvergence(*service, "after random kills");
    auto found = guidsIn(b.must({"dump"}));
    for (const auto& guid : kept) EXPECT_TRUE(found.contains(guid)) << guid;
}

}  // namespace
}  // namespace velkor::test
