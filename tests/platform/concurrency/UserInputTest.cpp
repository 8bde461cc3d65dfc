#include "platform/concurrency/UserInput.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/concurrency/RunLoop.h"
#include "platform/concurrency/Timer.h"

using namespace velkor::NS;

namespace {

/// An X server without a screen, on a display number of its own choice.
class VirtualScreen {
public:
    VirtualScreen() {
        int ends[2];
        if (pipe(ends) != 0) return;
        m_process = fork();
        if (m_process == 0) {
            execlp("Xvfb", "Xvfb", "-displayfd", std::to_string(ends[1]).c_str(), "-nolisten", "tcp", nullptr);
            _exit(1);
        }
        close(ends[1]);
        for (char c; read(ends[0], &c, 1) == 1 && c != '\n';) m_display += c;
        close(ends[0]);
    }
    ~VirtualScreen() {
        if (m_process <= 0) return;
        kill(m_process, SIGTERM);
        waitpid(m_process, nullptr, 0);
    }
    /// Empty when the X server does not start.
    const std::string& display() const noexcept { return m_display; }

private:
    pid_t m_process = -1;
    std::string m_display;
};

}  // namespace

TEST(UserInputTest, IsZeroWithoutADesktop) {
    for (const char* variable : {"DISPLAY", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "XDG_RUNTIME_DIR"}) unsetenv(variable);
    EXPECT_EQ(secondsSinceLastUserInput(), 0);
}

TEST(UserInputTest, RisesOnAnIdleScreen) {
    VirtualScreen screen;
    ASSERT_FALSE(screen.display().empty()) << "Xvfb does not start";
    for (const char* variable : {"WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "XDG_RUNTIME_DIR"}) unsetenv(variable);
    setenv("DISPLAY", (":" + screen.display()).c_str(), 1);
    auto& loop = RunLoop::main();
    auto asksAgain = Timer::scheduledTimer(loop, 0.1, true, [](Timer&) {});
    EXPECT_TRUE(loop.runUntil([] { return secondsSinceLastUserInput() > 0.1; }, 30));
    asksAgain->invalidate();
    unsetenv("DISPLAY");
}
