// How a sync cycle looks from outside; shared by `sync` and `watch`. Main thread.
#pragma once

#include <VelkorSync/Error.h>
#include <VelkorSync/VLKSyncController.h>

#include <optional>
#include <string>

namespace notes {

/// Why the latest cycle failed: the refused lock or the controller's last error.
std::optional<velkor::NS::Error> cycleError(const velkor::VLKSyncController& controller);
/// "synced: N sent, N received".
std::string cycleLine(const velkor::VLKSyncController& controller);
/// Nothing of the cycle is on its way any more, the unlock included.
bool cycleIsOver(const velkor::VLKSyncController& controller);
std::string progressLine(const velkor::VLKSyncController& controller);

}  // namespace notes
