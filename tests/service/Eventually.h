#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace velkor::service {

/// Waits for what another thread or process does; false when it is not done within a minute.
inline bool eventually(const std::function<bool()>& isDone) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!isDone()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

}  // namespace velkor::service
