// The steps of a walk that sync, and all that can go wrong with a sync.
#include <signal.h>

#include <chrono>
#include <thread>

#include "json/CJSONDeserializer.h"
#include "tests/soak/FaultyService.h"
#include "tests/soak/Walk.h"

namespace velkor::soak {

namespace {

constexpr std::int64_t userBusy = 409;
constexpr int syncWithin = 120;                              // milliseconds: about as long as a sync takes
constexpr std::size_t requestsOfSync = 12;                   // about as many as one makes
constexpr auto leaseEnds = std::chrono::milliseconds(1200);  // the service's lease is one second
constexpr auto busyFor = std::chrono::seconds(10);
constexpr auto busyPause = std::chrono::milliseconds(50);
constexpr int mostRounds = 20;

std::vector<std::string> linesOnlyIn(const std::vector<std::string>& lines, const std::vector<std::string>& others) {
    std::vector<std::string> only;
    std::set_difference(lines.begin(), lines.end(), others.begin(), others.end(), std::back_inserter(only));
    return only;
}

}  // namespace

Walk::SyncResult Walk::resultOf(const test::Outcome& outcome) const {
    SyncResult result;
    const auto told = dictionaryWithJSONData(outcome.out, nullptr);
    result.told = outcome.out.substr(0, outcome.out.find('\n'));
    if (!told) result.told += " " + outcome.err;
    if (!told) return result;
    result.ok = (*told)["ok"].asBoolean().value_or(false) && outcome.status == 0;
    result.moved = (*told)["sent"].asInteger() != 0 || (*told)["received"].asInteger() != 0;
    if (const NS::Dictionary* error = (*told)["error"].asDictionary())
        result.errorCode = (*error)["code"].asInteger().value_or(0);
    return result;
}

Walk::SyncResult Walk::sync(HostNumber number, const std::string& url) {
    const test::Host& syncing = host(number);
    const std::vector<std::string> arguments{"--json", "sync"};
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
    auto program = host(number).start({"sync"});
    waitRandomly(syncWithin);
    record("host" + std::to_string(number) + " killed while it syncs");
    program->signal(SIGKILL);
    program->wait();
}

void Walk::syncWithFault() {
    const auto fault = static_cast<Fault>(pick(faultCount));
    const std::size_t request = pick(requestsOfSync);
    const FaultyService faulty(m_service->url(), request, fault);
    record("fault " + std::to_string(static_cast<int>(fault)) + " at request " + std::to_string(request));
    sync(pickHost(), faulty.url());
}

void Walk::restartService() {
    record("service restarts");
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
    std::this_thread::sleep_for(leaseEnds);
    sync(other);
    program->signal(SIGCONT);
    record("host" + std::to_string(sleeper) + " wakes up: " + resultOf(program->wait()).told);
}

void Walk::expireNote() {
    if (m_notes.empty()) return;
    const std::string guid = pickFrom(m_notes);
    const test::Outcome outcome = test::run("velkord", {"expire", "--user", "walker@example.org", "--app", "org.velkor.notes",
                                                        "--guid", guid, "--data", m_directory / "service"});
    record("service expires " + guid + (outcome.status == 0 ? "" : ": " + outcome.err));
    if (outcome.status == 0) m_expectations.exempt(guid);
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
        hashes.push_back(host(number).run({"hash"}).out);
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
    const auto lost = m_expectations.complaints(dumps[0]);
    complaints.insert(complaints.end(), lost.begin(), lost.end());
    if (!complaints.empty()) {
        std::string all = "at rest:";
        for (const auto& complaint : complaints) all += "\n    " + complaint;
        throw Failure{all};
    }
    m_expectations.settle(dumps[0]);
}

}  // namespace velkor::soak
