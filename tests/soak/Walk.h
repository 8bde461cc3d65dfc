#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "tests/soak/Expectations.h"
#include "tests/system/Hosts.h"

namespace velkor::soak {

/// How long a walk is and who walks.
struct WalkOptions {
    std::uint64_t seed = 1;
    int steps = 500;
    std::size_t hosts = 2;
};

/// One seed: some hosts of one user and a service, driven through random steps. Now and then all sync until nothing moves; then
/// their stores must be equal and hold what the steps lead to expect.
class Walk {
public:
    /// The directory is empty and stays.
    Walk(const WalkOptions& options, const std::filesystem::path& directory);
    /// Raises Failure for what should not be.
    void run();
    /// What was done, a line a step.
    const std::vector<std::string>& log() const noexcept { return m_log; }

private:
    using HostNumber = Expectations::HostNumber;
    using Step = void (Walk::*)();
    struct Choice {
        int weight;
        Step step;
    };
    static const std::vector<Choice>& choices();

    // Changes on one host (Walk+Changes.cpp).
    void addNote();
    void editNote();
    void tagNote();
    void moveNote();
    void attachFile();
    void removeObject();
    void importFiles();
    void addNotebook();
    void addPrivateNotebook();
    void addDraft();
    void changePreferences();
    void expireByHand();
    void killChange();

    // Syncs and what goes wrong with them (Walk+Syncs.cpp).
    void syncOne();
    void killSync();
    void syncWithFault();
    void restartService();
    void killServiceInSync();
    void outliveLease();
    void expireNote();
    void rest();

    struct SyncResult {
        bool ok = false;
        bool moved = false;
        std::int64_t errorCode = 0;
        std::string told;
    };
    std::vector<std::string> syncArguments();
    SyncResult sync(HostNumber host, const std::string& url = {});
    /// Raises Failure for a sync that crashed, hung or told nothing.
    static SyncResult resultOf(const test::Outcome& outcome);
    SyncResult syncWhenFree(HostNumber host);
    void syncToRest();
    void checkStores();
    void checkPreferences(HostNumber host, std::vector<std::string>& complaints);

    // Small change.
    std::size_t pick(std::size_t below) { return std::uniform_int_distribution<std::size_t>(0, below - 1)(m_random); }
    bool chance(std::size_t outOf) { return pick(outOf) == 0; }
    HostNumber pickHost() { return pick(m_hosts.size()); }
    const std::string& pickFrom(const std::vector<std::string>& list) { return list[pick(list.size())]; }
    std::string fresh(const std::string& prefix) { return prefix + std::to_string(++m_count); }
    const test::Host& host(HostNumber number) const { return *m_hosts[number]; }
    void record(const std::string& line) { m_log.push_back(std::to_string(m_step) + " " + line); }
    /// Runs a command that must succeed, or fail because the object is not (or no longer) on that host: then false.
    bool change(HostNumber host, const std::vector<std::string>& arguments);
    /// Some attributes of a note with new values, and the options that say so.
    NS::Dictionary newAttributes(std::vector<std::string>& arguments);
    /// The note was changed on that host, these attributes among others, and must have them there.
    void touched(HostNumber host, const std::string& guid, const NS::Dictionary& attributes = {});
    void requireAttributes(const DumpedObject& note, const NS::Dictionary& attributes) const;
    StoreDump dumpOf(HostNumber host) const;
    /// Kills the program; raises Failure when it had crashed before.
    void kill(test::Program& program) const;
    void waitRandomly(int milliseconds);
    struct File {
        std::string name, path, sha1;
    };
    File makeFile();

    const WalkOptions m_options;
    const std::filesystem::path m_directory;
    std::mt19937_64 m_random;
    std::unique_ptr<test::Service> m_service;
    std::vector<std::unique_ptr<test::Host>> m_hosts;
    Expectations m_expectations;
    std::vector<std::string> m_notes, m_notebooks;             // guids of all that are there or were since the last rest
    std::vector<std::vector<std::string>> m_privateNotebooks;  // by host
    std::set<std::pair<HostNumber, std::string>> m_expiredByHand;
    std::map<std::string, std::optional<std::string>> m_preferences;  // the same on all hosts
    int m_step = 0;
    int m_count = 0;
    std::vector<std::string> m_log;
};

}  // namespace velkor::soak
