#include "tests/soak/Walk.h"

#include <signal.h>

#include <chrono>
#include <fstream>
#include <numeric>
#include <thread>

#include "PelmoLib/encodings/NSData+Digests.h"

namespace velkor::soak {

namespace {

constexpr const char* walkerEmail = "walker@example.org";
constexpr const char* walkerPassword = "one step at a time";
/// Of a file that a step attaches; most are small.
constexpr std::size_t smallFile = 3000, largeFile = 700'000;
const std::vector<std::string> textEnds = {"", "", "", "", " \xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", " \"a\\b\"\t/", " %41&b=c+d"};

}  // namespace

const std::vector<Walk::Choice>& Walk::choices() {
    static const std::vector<Choice> all = {
        {24, &Walk::syncOne},      {14, &Walk::addNote},       {16, &Walk::editNote},          {8, &Walk::tagNote},
        {8, &Walk::moveNote},      {6, &Walk::attachFile},     {6, &Walk::removeObject},       {2, &Walk::addNotebook},
        {1, &Walk::importFiles},   {1, &Walk::addDraft},       {1, &Walk::addPrivateNotebook}, {2, &Walk::changePreferences},
        {3, &Walk::expireNote},    {3, &Walk::expireByHand},   {4, &Walk::killChange},         {3, &Walk::killSync},
        {4, &Walk::syncWithFault}, {1, &Walk::restartService}, {1, &Walk::killServiceInSync},  {1, &Walk::outliveLease},
        {1, &Walk::rest},
    };
    return all;
}

Walk::Walk(const WalkOptions& options, const std::filesystem::path& directory)
    : m_options(options), m_directory(directory), m_random(options.seed), m_privateNotebooks(options.hosts) {
    std::filesystem::create_directories(m_directory / "files");
    m_service = std::make_unique<test::Service>(m_directory / "service", test::Environment{},
                                                std::vector<std::string>{"--lease", "1", "--page", "20"});
    if (m_service->url().empty()) throw Failure{"the service does not start"};
    for (HostNumber number = 0; number < options.hosts; ++number) {
        m_hosts.push_back(std::make_unique<test::Host>(m_directory / ("host" + std::to_string(number)), m_service->url()));
        const test::Outcome outcome = host(number).run({number == 0 ? "signup" : "login", walkerEmail, walkerPassword});
        if (outcome.status != 0) throw Failure{"no account: " + outcome.err};
    }
}

void Walk::run() {
    const int sum = std::accumulate(choices().begin(), choices().end(), 0,
                                    [](int weights, const Choice& one) { return weights + one.weight; });
    for (m_step = 1; m_step <= m_options.steps; ++m_step) {
        int place = static_cast<int>(pick(static_cast<std::size_t>(sum)));
        for (const Choice& one : choices()) {
            place -= one.weight;
            if (place >= 0) continue;
            (this->*one.step)();
            break;
        }
    }
    rest();
}

bool Walk::change(HostNumber number, const std::vector<std::string>& arguments) {
    const test::Outcome outcome = host(number).run(arguments);
    std::string line = "host" + std::to_string(number);
    for (const std::string& argument : arguments) line += " " + argument;
    record(line + (outcome.status == 0 ? "" : ": " + outcome.err.substr(0, outcome.err.find('\n'))));
    if (outcome.status == 0) return true;
    if (outcome.status == 1 && outcome.err.find("velkor-notes: there is no ") != std::string::npos) return false;
    throw Failure{line + " ended with status " + std::to_string(outcome.status) + ": " + outcome.err};
}

StoreDump Walk::dumpOf(HostNumber number) const {
    const test::Outcome outcome = host(number).run({"dump"});
    if (outcome.status != 0) throw Failure{"dump of host" + std::to_string(number) + " failed: " + outcome.err};
    return StoreDump(outcome.out);
}

NS::Dictionary Walk::newAttributes(std::vector<std::string>& arguments) {
    NS::Dictionary attributes;
    const auto set = [&](const std::string& name, const NS::Value& value, const std::string& text) {
        attributes.set(name, value);
        arguments.insert(arguments.end(), {"--" + name, text});
    };
    const std::string body = fresh("body") + pickFrom(textEnds), title = fresh("title") + pickFrom(textEnds);
    const int number = static_cast<int>(pick(1000));
    set("body", body, body);
    if (chance(4)) set("title", title, title);
    if (chance(4)) set("rating", number, std::to_string(number));
    if (chance(4)) set("score", number + 0.25, std::to_string(number) + ".25");
    if (chance(4)) set("pinned", number % 2 == 0, number % 2 == 0 ? "on" : "off");
    return attributes;
}

void Walk::requireAttributes(const DumpedObject& note, const NS::Dictionary& attributes) const {
    for (const auto& [name, value] : attributes) {
        if (note.attributes[name] != value)
            throw Failure{"a note was changed, but its " + std::string(name) + " is not: " + note.state()};
    }
}

void Walk::touched(HostNumber number, const std::string& guid, const NS::Dictionary& attributes) {
    const test::Outcome outcome = host(number).run({"--json", "show", guid});
    if (outcome.status != 0) throw Failure{"host" + std::to_string(number) + " does not show " + guid + ": " + outcome.err};
    const StoreDump shown(outcome.out);
    const DumpedObject* note = shown.find(guid);
    if (!note) throw Failure{"show printed another note than " + guid + ": " + outcome.out};
    requireAttributes(*note, attributes);
    m_expectations.touched(number, guid, *note);
}

void Walk::kill(test::Program& program) const {
    program.signal(SIGKILL);
    const test::Outcome& outcome = program.wait();
    if (outcome.status > 1 && outcome.status != 128 + SIGKILL)
        throw Failure{"it had ended with status " + std::to_string(outcome.status) + " before: " + outcome.err};
}

void Walk::waitRandomly(int milliseconds) {
    // The moment is the walk's input.
    std::this_thread::sleep_for(std::chrono::microseconds(pick(static_cast<std::size_t>(milliseconds) * 1000)));
}

Walk::File Walk::makeFile() {
    File file{fresh("file") + ".bin", {}, {}};
    file.path = m_directory / "files" / file.name;
    std::string bytes(chance(12) ? 0 : pick(chance(8) ? largeFile : smallFile), '\0');
    for (char& byte : bytes) byte = static_cast<char>(m_random());
    std::ofstream(file.path, std::ios::binary) << bytes;
    if (!bytes.empty()) file.sha1 = sha1HexHash(NS::Data(std::move(bytes)));
    return file;
}

}  // namespace velkor::soak
