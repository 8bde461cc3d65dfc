// soak [--quick] [--steps N] [--hosts N] [--jobs N] SEEDS | --seed SEED: drives two or three real hosts and a real
// service through random steps and checks that they come to rest with equal stores and without loss.
#include <sys/wait.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <map>
#include <thread>

#include "tests/soak/Walk.h"

namespace {

using namespace velkor;
using namespace velkor::soak;

constexpr int quickSteps = 70;
constexpr std::size_t linesShown = 40;

struct Request {
    std::uint64_t first = 1, last = 0;
    int steps = 500;
    std::size_t hosts = 0;  // 0: two and three in turn
    std::size_t jobs = std::max(1u, std::thread::hardware_concurrency());
};

const char* usage = "usage: soak [--quick] [--steps N] [--hosts N] [--jobs N] [SEEDS | --seed SEED]\n";

template <class Number>
bool readNumber(const char* text, Number low, Number& number) {
    const char* end = text ? text + std::strlen(text) : nullptr;
    if (!text) return false;
    const auto [stop, error] = std::from_chars(text, end, number);
    return error == std::errc() && stop == end && number >= low;
}

bool readRequest(char** argument, Request& request) {
    for (; *argument; ++argument) {
        const std::string_view name = *argument;
        if (name == "--quick") {
            request.steps = quickSteps;
            request.last = std::max<std::uint64_t>(request.last, 3);
            continue;
        }
        bool good = true;
        if (name == "--steps") {
            good = readNumber(*++argument, 1, request.steps);
        } else if (name == "--hosts") {
            good = readNumber<std::size_t>(*++argument, 2, request.hosts);
        } else if (name == "--jobs") {
            good = readNumber<std::size_t>(*++argument, 1, request.jobs);
        } else if (name == "--seed") {
            good = readNumber<std::uint64_t>(*++argument, 1, request.first);
            request.last = request.first;
        } else {
            good = readNumber<std::uint64_t>(*argument, 1, request.last);
        }
        if (!good) return false;
    }
    return request.last >= request.first;
}

/// Walks one seed; false, and a report on standard output, when it fails.
bool walk(const WalkOptions& options) {
    std::string pattern = (std::filesystem::temp_directory_path() / "velkor-soak-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) {
        std::cout << "soak: cannot make a directory: " << std::strerror(errno) << '\n';
        return false;
    }
    const auto begin = std::chrono::steady_clock::now();
    std::vector<std::string> log;
    std::string failure;
    try {
        Walk walk(options, pattern);
        try {
            walk.run();
        } catch (const Failure& what) {
            failure = what.what;
        }
        log = walk.log();
    } catch (const Failure& what) {
        failure = what.what;
    }
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count();
    if (failure.empty()) {
        std::error_code ignored;
        std::filesystem::remove_all(pattern, ignored);
        std::cout << "seed " << options.seed << ": " << options.hosts << " hosts, " << options.steps
                  << " steps, equal and complete, " << seconds << " s\n";
        return true;
    }
    for (std::size_t i = log.size() > linesShown ? log.size() - linesShown : 0; i < log.size(); ++i) std::cout << log[i] << '\n';
    std::cout << "seed " << options.seed << " FAILED with " << options.hosts << " hosts: " << failure << "\nits files are in "
              << pattern << "; run it again with: ./dev soak --seed " << options.seed << " --steps " << options.steps
              << " --hosts " << options.hosts << '\n';
    return false;
}

}  // namespace

int main(int, char** arguments) {
    Request request;
    if (!readRequest(arguments + 1, request)) {
        std::cerr << usage;
        return 2;
    }
    // A process a seed: one that goes wrong leaves the others alone.
    int failed = 0;
    std::size_t running = 0;
    const auto awaitOne = [&] {
        int status = 0;
        if (::wait(&status) > 0) failed += status != 0;
        --running;
    };
    for (std::uint64_t seed = request.first; seed <= request.last; ++seed) {
        if (running == request.jobs) awaitOne();
        std::cout.flush();
        if (::fork() == 0) {
            const bool good = walk({seed, request.steps, request.hosts ? request.hosts : 2 + seed % 2});
            std::cout.flush();
            ::_exit(good ? 0 : 1);
        }
        ++running;
    }
    while (running > 0) awaitOne();
    std::cout << "soak: " << (request.last - request.first + 1) << " seeds, " << failed << " failed\n";
    return failed == 0 ? 0 : 1;
}
