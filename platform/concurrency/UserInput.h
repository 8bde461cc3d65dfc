#pragma once

#include "platform/base/Export.h"

namespace velkor::NS {

/// Seconds since the user's last input of any kind, as the desktop tells (X11 screen saver extension or the session bus, loaded
/// only when asked); 0 where neither answers. Cached for a second; asking anew takes the caller up to a quarter of a second on
/// the bus, and as long as the X server takes. Any thread.
VELKOR_EXPORT double secondsSinceLastUserInput();

}  // namespace velkor::NS
