// The steps of a walk that sync, and all that can go wrong with a sync.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <thread>

#include "json/CJSONDeserializer.h"
#include "tests/soak/Walk.h"
#include "tests/support/FaultyService.h"

namespace velkor::soak {

namespace {

constexpr std::int64_t userBusy = 409;
constexpr int syncWithin = 120;                     // milliseconds: about as long as a sync takes
constexpr std::size_t requestsOfSync = 12;          // about as many as one makes
constexpr auto busyFor = std::chrono::seconds(10);  // at most; the service's lease is one second
constexpr auto busyPause = std::chrono::milliseconds(50);
constexpr int mostRounds = 20;

std::vector<std::string> linesOnlyIn(const std::vector<std::string>& lines, const std::vector<std::string>& others) {
    std::vector<std::string> only;
    std::set_difference(lines.begin(), lines.end(), others.begin(), others.end(), std::back_inserter(only));
    return only;
}

}  // namespace

Walk::SyncResult Walk::resultOf(const test::Outcome& outcome) {
    SyncResult result;
    const auto told = dictionaryWithJSONData(outcome.out, nullptr);
    if (outcome.status > 1 || !told)
        throw Failure{"a sync ended with status " + std::to_string(outcome.status) + ": " + outcome.out + outcome.err};
    result.told = outcome.out.substr(0, outcome.out.find('\n'));
    result.ok = (*told)["ok"].asBoolean().value_or(false) && outcome.status == 0;
    result.moved = (*told)["sent"].asInteger() != 0 || (*told)["received"].asInteger() != 0;
    if (const NS::Dictionary* error = (*told)["error"].asDictionary())
        result.errorCode = (*error)["code"].asInteger().value_or(0);
    return result;
}

std::vector<std::string> Walk::syncArguments() {
    return chance(3) ? std::vector<std::string>{"--json", "--chunking", "sync"} : std::vector<std::string>{"--json", "sync"};
}

Walk::SyncResult Walk::sync(HostNumber number, const std::string& url) {
    const test::Host& syncing = host(number);
    const std::vector<std::string> arguments = syncArguments();
    SyncResult result = resultOf(url.empty() ? syncing.run(arguments) : test::Host(syncing.directory(), url).run(arguments));
    record("host" + std::to_string(number) + " sync: " + result.told);
    return result;
}

void Walk::syncOne() {
    const HostNumber number = pickHost();
    const SyncResult result = sync(number);
    if (!result.ok && result.errorCode != userBusy)
        throw Failure{"host" + std::to_string(number) + " cannot sync: " + result.told};
}

void Walk::killSync() {
    const HostNumber number = pickHost();
    auto program = host(number).start(syncArguments());
    waitRandomly(syncWithin);
    record("host" + std::to_string(number) + " killed while it syncs");
    kill(*program);
}

void Walk::syncWithFault() {
    const auto fault = static_cast<test::Fault>(pick(test::survivableFaults));
    const std::size_t request = pick(requestsOfSync);
    const test::FaultyService faulty(m_service->url(), request, fault);
    record("fault " + std::to_string(static_cast<int>(fault)) + " at request " + std::to_string(request));
    sync(pickHost(), faulty.url());
}

void Walk::restartService() {
    record("service restarts");
    m_service->program().signal(SIGTERM);
    if (const test::Outcome& outcome = m_service->program().wait(); outcome.status != 0)
        throw Failure{"the service ended with status " + std::to_string(outcome.status) + ": " + outcome.err};
    m_service->restart();
}

void Walk::killServiceInSync() {
    const HostNumber number = pickHost();
    auto program = host(number).start({"--json", "sync"});
    waitRandomly(syncWithin);
    m_service->program().signal(SIGKILL);
    m_service->restart();
    record("service killed while host" + std::to_string(number) + " syncs: " + resultOf(program->wait()).told);
}

void Walk::outliveLease() {
    const HostNumber sleeper = pickHost(), other = (sleeper + 1) % m_hosts.size();
    auto program = host(sleeper).start({"--json", "sync"});
    waitRandomly(syncWithin);
    program->signal(SIGSTOP);
    record("host" + std::to_string(sleeper) + " sleeps while it syncs");
    if (const SyncResult result = syncWhenFree(other); !result.ok)
        throw Failure{"host" + std::to_string(other) + " cannot sync: " + result.told};
    program->signal(SIGCONT);
    record("host" + std::to_string(sleeper) + " wakes up: " + resultOf(program->wait()).told);
}

void Walk::expireNote() {
    const auto quiet = m_expectations.quietNotes();
    const auto& notes = chance(2) ? quiet : m_notes;
    if (notes.empty()) return;
    const std::string guid = pickFrom(notes);
    const test::Outcome outcome = test::run("velkord", {"expire", "--user", "walker@example.org", "--app", "org.velkor.notes",
                                                        "--guid", guid, "--data", m_directory / "service"});
    record("service expires " + guid + (outcome.status == 0 ? "" : ": " + outcome.err));
    if (outcome.status == 0) {
        m_expectations.expiredByService(guid);
        return;
    }
    // It may not have reached the service, or nothing at all may have.
    const bool isUnknown = outcome.err.find("there is no such object") != std::string::npos ||
                           outcome.err.find("the user has no data of this app") != std::string::npos;
    if (outcome.status != 1 || !isUnknown) {
        throw Failure{"the service cannot expire " + guid + ": " + outcome.err};
    }
}

Walk::SyncResult Walk::syncWhenFree(HostNumber number) {
    const auto end = std::chrono::steady_clock::now() + busyFor;
    for (;;) {
        const SyncResult result = sync(number);
        if (result.ok || result.errorCode != userBusy || std::chrono::steady_clock::now() > end) return result;
        std::this_thread::sleep_for(busyPause);  // until a dead host's lease has ended
    }
}

void Walk::syncToRest() {
    for (int round = 0; round < mostRounds; ++round) {
        bool moved = false;
        for (HostNumber number = 0; number < m_hosts.size(); ++number) {
            const SyncResult result = syncWhenFree(number);
            if (!result.ok) throw Failure{"host" + std::to_string(number) + " cannot sync: " + result.told};
            moved |= result.moved;
        }
        if (!moved) return;
    }
    throw Failure{"the hosts do not come to rest"};
}

void Walk::rest() {
    record("all sync to rest");
    syncToRest();
    checkStores();
}

void Walk::checkStores() {
    std::vector<StoreDump> dumps;
    std::set<std::string> hidden;
    std::vector<std::string> complaints, hashes;
    for (HostNumber number = 0; number < m_hosts.size(); ++number) {
        dumps.push_back(dumpOf(number));
        hidden.merge(dumps.back().guidsOfItsOwn());
        const test::Outcome hash = host(number).run({"hash"});
        if (hash.status != 0 || hash.out.size() < 2) throw Failure{"host" + std::to_string(number) + " has no hash: " + hash.err};
        hashes.push_back(hash.out);
        checkPreferences(number, complaints);
        const auto own = m_expectations.complaintsAboutPrivateObjects(number, dumps.back());
        complaints.insert(complaints.end(), own.begin(), own.end());
    }
    const auto first = dumps[0].sharedLines(hidden, m_expectations.looseNotes());
    for (HostNumber number = 1; number < m_hosts.size(); ++number) {
        const auto lines = dumps[number].sharedLines(hidden, m_expectations.looseNotes());
        for (const auto& line : linesOnlyIn(first, lines)) complaints.push_back("host0 only: " + line);
        for (const auto& line : linesOnlyIn(lines, first))
            complaints.push_back("host" + std::to_string(number) + " only: " + line);
        if (hashes[number] != hashes[0]) complaints.push_back("host" + std::to_string(number) + " has another hash than host0");
    }
    const auto lost = m_expectations.complaints(dumps);
    complaints.insert(complaints.end(), lost.begin(), lost.end());
    if (!complaints.empty()) {
        std::string all = "at rest:";
        for (const auto& complaint : complaints) all += "\n    " + complaint;
        throw Failure{all};
    }
    m_expectations.settle(dumps);
    for (auto* guids : {&m_notes, &m_notebooks}) {
        std::erase_if(*guids, [&dumps](const std::string& guid) {
            return std::none_of(dumps.begin(), dumps.end(), [&guid](const StoreDump& dump) { return dump.find(guid); });
        });
    }
}

void Walk::checkPreferences(HostNumber number, std::vector<std::string>& complaints) {
    for (const auto& [keyPath, value] : m_preferences) {
        const test::Outcome outcome = host(number).run({"get", keyPath});
        const bool right = value ? outcome.status == 0 && outcome.out == *value + "\n" : outcome.status == 1;
        if (!right)
            complaints.push_back("host" + std::to_string(number) + " has another " + keyPath + ": " + outcome.out + outcome.err);
    }
}

}  // namespace velkor::soak
