#pragma once

#include <functional>

namespace velkor {

/// Runs a step that calls members of the host's objects, of which nobody hears the outcome: what it raises goes to the system
/// log. Returns whether it came to its end. Any thread.
bool runGuarded(const std::function<void()>& step);

}  // namespace velkor
