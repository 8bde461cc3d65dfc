#include "Sync/VLKRunningCommands.h"

#include <utility>

namespace velkor {

void VLKRunningCommands::start(const std::shared_ptr<JSONWebCommand>& command) {
    std::erase_if(m_commands, [](const auto& known) { return known.expired(); });
    m_commands.push_back(command);
    command->start();
}

void VLKRunningCommands::cancelAll() {
    for (const auto& known : std::exchange(m_commands, {})) {
        const auto command = known.lock();
        if (!command) continue;
        command->setDelegate(nullptr);
        command->setCompletionBlock({});
        command->setFailureBlock({});
        command->setFinallyBlock({});
        command->cancel();
    }
}

}  // namespace velkor
