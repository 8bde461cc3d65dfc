#include "Sync/VLKGuardedStep.h"

#include "platform/base/Exception.h"
#include "platform/base/Format.h"
#include "platform/base/SystemLog.h"

namespace velkor {

bool runGuarded(const std::function<void()>& step) {
    try {
        step();
        return true;
    } catch (const NS::Exception& exception) {
        NS::systemLog(NS::format("%@: %@", exception.name(), exception.reason()));
    } catch (const std::exception& exception) {
        NS::systemLog(exception.what());
    }
    return false;
}

}  // namespace velkor
