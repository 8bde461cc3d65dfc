#include "Sync/VLKCycleReport.h"

#include "platform/base/Value.h"

namespace velkor {

NS::Dictionary VLKCycleReport::dictionary() const {
    NS::Dictionary result{{"sent", sent},   {"received", received}, {"listings", listings},
                          {"pages", pages}, {"blobsUp", blobsUp},   {"blobsDown", blobsDown}};
    if (lockError) result.set("lockError", lockError->localizedDescription());
    result.set("unlockAnswered", unlockAnswered);
    return result;
}

}  // namespace velkor
