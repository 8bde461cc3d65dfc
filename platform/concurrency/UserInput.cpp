#include "platform/concurrency/UserInput.h"

#include <dlfcn.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>

namespace velkor::NS {

namespace {

/// A library loaded on demand; it stays loaded, as libraries with threads and connections of their own must.
class OptionalLibrary {
public:
    explicit OptionalLibrary(const char* name) : m_handle(dlopen(name, RTLD_LAZY | RTLD_LOCAL)) {}
    explicit operator bool() const noexcept { return m_handle != nullptr; }
    /// Stores the function's address in `place`; whether there is one.
    template <class Function>
    bool find(const char* name, Function*& place) const {
        place = m_handle ? reinterpret_cast<Function*>(dlsym(m_handle, name)) : nullptr;
        return place != nullptr;
    }

private:
    void* m_handle;
};

bool isSet(const char* variable) {
    const char* value = std::getenv(variable);
    return value && *value;
}

/// GNOME's idle monitor on the session bus.
std::optional<double> secondsFromSessionBus() {
    struct Bus;
    struct Message;
    if (!isSet("DBUS_SESSION_BUS_ADDRESS") && !isSet("XDG_RUNTIME_DIR")) return std::nullopt;
    static const OptionalLibrary library("libsystemd.so.0");
    int (*openUser)(Bus**) = nullptr;
    Bus* (*closeBus)(Bus*) = nullptr;
    int (*setTimeout)(Bus*, std::uint64_t) = nullptr;
    int (*call)(Bus*, const char*, const char*, const char*, const char*, void*, Message**, const char*, ...) = nullptr;
    int (*read)(Message*, const char*, ...) = nullptr;
    Message* (*drop)(Message*) = nullptr;
    if (!library.find("sd_bus_open_user", openUser) || !library.find("sd_bus_close_unref", closeBus) ||
        !library.find("sd_bus_set_method_call_timeout", setTimeout) || !library.find("sd_bus_call_method", call) ||
        !library.find("sd_bus_message_read", read) || !library.find("sd_bus_message_unref", drop)) {
        return std::nullopt;
    }
    Bus* opened = nullptr;
    if (openUser(&opened) < 0) return std::nullopt;
    const std::unique_ptr<Bus, Bus* (*)(Bus*)> bus(opened, closeBus);
    setTimeout(opened, 250'000);  // microseconds: the caller may be the main thread
    Message* answered = nullptr;
    if (call(opened, "org.gnome.Mutter.IdleMonitor", "/org/gnome/Mutter/IdleMonitor/Core", "org.gnome.Mutter.IdleMonitor",
             "GetIdletime", nullptr, &answered, "") < 0) {
        return std::nullopt;
    }
    const std::unique_ptr<Message, Message* (*)(Message*)> answer(answered, drop);
    std::uint64_t milliseconds = 0;
    if (read(answered, "t", &milliseconds) <= 0) return std::nullopt;
    return static_cast<double>(milliseconds) / 1000;
}

/// The X server's screen saver extension. Under Wayland it would see the input of X programs only.
std::optional<double> secondsFromX11() {
    struct Display;
    struct Info {
        unsigned long window;
        int state;
        int kind;
        unsigned long since;
        unsigned long idle;  // milliseconds
        unsigned long mask;
    };
    if (!isSet("DISPLAY") || isSet("WAYLAND_DISPLAY")) return std::nullopt;
    static const OptionalLibrary x11("libX11.so.6");
    static const OptionalLibrary saver("libXss.so.1");
    Display* (*open)(const char*) = nullptr;
    int (*close)(Display*) = nullptr;
    unsigned long (*rootWindow)(Display*) = nullptr;
    int (*queryExtension)(Display*, int*, int*) = nullptr;
    int (*query)(Display*, unsigned long, Info*) = nullptr;
    if (!x11.find("XOpenDisplay", open) || !x11.find("XCloseDisplay", close) || !x11.find("XDefaultRootWindow", rootWindow) ||
        !saver.find("XScreenSaverQueryExtension", queryExtension) || !saver.find("XScreenSaverQueryInfo", query)) {
        return std::nullopt;
    }
    const std::unique_ptr<Display, int (*)(Display*)> display(open(nullptr), close);
    int eventBase = 0;
    int errorBase = 0;
    Info info{};
    if (!display || !queryExtension(display.get(), &eventBase, &errorBase)) return std::nullopt;
    if (!query(display.get(), rootWindow(display.get()), &info)) return std::nullopt;
    return static_cast<double>(info.idle) / 1000;
}

}  // namespace

double secondsSinceLastUserInput() {
    using Clock = std::chrono::steady_clock;
    static std::mutex mutex;
    static std::optional<Clock::time_point> asked;
    static double answer = 0;
    std::unique_lock lock(mutex);
    if (!asked || Clock::now() - *asked >= std::chrono::seconds(1)) {
        auto seconds = secondsFromSessionBus();
        if (!seconds) seconds = secondsFromX11();
        answer = seconds.value_or(0);
        asked = Clock::now();
    }
    return answer;
}

}  // namespace velkor::NS
