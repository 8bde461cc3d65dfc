#include "PelmoLib/CoreDataSingleton.h"

#include "PelmoLib/PersistentStoreSingleton.h"
#include "platform/base/Exception.h"
#include "platform/concurrency/RunLoop.h"

namespace velkor {

CoreDataSingleton& CoreDataSingleton::sharedInstance() {
    NS::assertThat(NS::RunLoop::isMainThread(), "[NSThread isMainThread]");
    static CoreDataSingleton* const instance =
        new CoreDataSingleton(PersistentStoreSingleton::globalNewContext());  // never released
    return *instance;
}

}  // namespace velkor
