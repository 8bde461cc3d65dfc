// Keeps the installation in step until it is told to stop.
#include <VelkorSync/RunLoop.h>
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <iostream>
#include <string>
#include <thread>

#include "examples/notes/Command.h"
#include "examples/notes/Cycle.h"

namespace notes {

using namespace velkor;

namespace {

/// Turns SIGINT and SIGTERM into a block on the main run loop. The handler may run on any thread, so it only writes to a pipe.
class StopSignals {
public:
    explicit StopSignals(std::function<void()> stop) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) throw CommandError(std::string("cannot make a pipe: ") + std::strerror(errno));
        s_writeEnd = ends[1];
        struct sigaction action {};
        action.sa_handler = [](int) { (void)!::write(s_writeEnd, "", 1); };
        ::sigaction(SIGINT, &action, nullptr);
        ::sigaction(SIGTERM, &action, nullptr);
        // Waits for as long as the process lives.
        std::thread([readEnd = ends[0], stop = std::move(stop)] {
            char byte = 0;
            while (::read(readEnd, &byte, 1) < 0 && errno == EINTR) {
            }
            NS::RunLoop::main().post(stop);
        }).detach();
    }

private:
    static inline int s_writeEnd = -1;
};

/// Holds the directory during a cycle only, so that other runs can change things in between.
class Watch {
public:
    explicit Watch(Installation& installation) : m_installation(installation), m_controller(installation.controller()) {}

    void run(double interval) {
        StopSignals signals([this] { m_stopped = true; });
        m_controller.setRefreshInterval(interval);
        m_controller.setCycleGuard([this] { return begin(); });
        m_controller.save();
        m_installation.lock().release();
        m_controller.start();
        while (!m_stopped) {
            NS::RunLoop::main().runUntil([this] { return m_stopped || (m_running && cycleIsOver(m_controller)); }, -1);
            if (m_running && cycleIsOver(m_controller)) end();
        }
        stop();
    }

private:
    /// Asked before each tick: takes the directory and what other runs saved since.
    bool begin() {
        if (m_running || !m_installation.lock().tryAcquire()) return false;
        m_controller.setLastError(std::nullopt);
        m_controller.dropPendingTransactions();  // they are in the state file
        m_installation.reload();
        m_running = true;
        return true;
    }

    void end() {
        m_running = false;
        m_controller.save();
        m_installation.lock().release();
        if (auto error = cycleError(m_controller)) {
            std::cout << "sync failed: " << error->localizedDescription() << std::endl;
        } else {
            std::cout << cycleLine(m_controller) << std::endl;
        }
    }

    void stop() {
        m_controller.cancel();
        if (!m_running) return;  // everything was saved when the last cycle ended
        m_controller.resetBatch();
        m_controller.save();
        // Others shall not wait for the lease to end, nor we for a service that does not answer.
        m_controller.unlock();
        NS::RunLoop::main().runUntil([this] { return m_controller.cycleReport().unlockAnswered; }, 0.5);
    }

    Installation& m_installation;
    VLKSyncController& m_controller;
    bool m_running = false;
    bool m_stopped = false;
};

void watch(Installation& installation, const Arguments& arguments) {
    double interval = 60;
    if (auto text = arguments.value("--interval")) {
        interval = parseNumber(*text, "--interval");
        if (interval <= 0) throw UsageError("--interval must be above 0");
    }
    installation.useAccount();
    Watch(installation).run(interval);
}

}  // namespace

std::vector<Command> watchCommands() {
    return {{"watch",
             "[--interval SECONDS]",
             "keeps this installation in step until it is interrupted",
             {{"--interval", true}},
             0,
             0,
             watch}};
}

}  // namespace notes
