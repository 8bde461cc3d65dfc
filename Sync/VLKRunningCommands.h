#pragma once

#include <memory>
#include <vector>

#include "PelmoLib/JSONWebCommand.h"

namespace velkor {

/// The web commands that are on their way, so that teardown can end them. Main thread.
class VLKRunningCommands {
public:
    VLKRunningCommands() = default;
    ~VLKRunningCommands() { cancelAll(); }
    VLKRunningCommands(const VLKRunningCommands&) = delete;
    VLKRunningCommands& operator=(const VLKRunningCommands&) = delete;

    void start(const std::shared_ptr<JSONWebCommand>& command);
    /// Ends them without a word: their blocks are taken away first.
    void cancelAll();

private:
    std::vector<std::weak_ptr<JSONWebCommand>> m_commands;  // a running command keeps itself alive
};

}  // namespace velkor
