// The archive of the pending changes in the sync state: what a damaged one restores can be looked at, sent and archived.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKTransaction.h"
#include "fuzz/SealedArchive.h"
#include "platform/base/Exception.h"
#include "platform/base/SystemLog.h"

using namespace velkor;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    [[maybe_unused]] static const bool ready = [] {
        NS::setSystemLogHandler([](std::string_view) {});
        VLKLog::sharedInstance().setLogLevel(400);
        VLKTransaction::registerArchivableClasses();
        return true;
    }();
    const auto root = NS::unarchiveObjectWithData(sealedArchive({reinterpret_cast<const char*>(bytes), size}));
    const NS::Dictionary* queue = root ? root.value().asDictionary() : nullptr;
    if (!queue) return 0;
    NS::Dictionary restored;
    for (const auto& entry : *queue) {
        const auto transaction = entry.value().as<VLKTransaction>();
        if (!transaction) continue;
        restored.set(entry.key(), transaction);
        if (transaction->obj()) std::abort();  // there is no store
        if (transaction->isGenericValue()) continue;
        try {
            (void)transaction->objectAsJson();
        } catch (const NS::AssertionFailure&) {
            std::abort();
        } catch (const NS::Exception&) {
            // A part is missing.
        }
    }
    const NS::Data archive = NS::archivedDataWithRootObject(restored);
    const auto again = NS::unarchiveObjectWithData(archive.view());
    if (!again || !(NS::archivedDataWithRootObject(again.value()) == archive)) std::abort();
    return 0;
}
