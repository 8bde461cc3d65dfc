#pragma once

#include <memory>

#include "objectstore/ManagedObjectContext.h"
#include "platform/base/Export.h"

namespace velkor {

/// One context of the PersistentStoreSingleton's store for the whole process. Main thread only.
class VELKOR_EXPORT CoreDataSingleton {
public:
    /// Made on first use with a fresh context.
    static CoreDataSingleton& sharedInstance();
    /// The shared instance's context.
    static const std::shared_ptr<NS::ManagedObjectContext>& ctx() { return sharedInstance().context(); }

    /// An instance around a given context, not the shared one.
    explicit CoreDataSingleton(std::shared_ptr<NS::ManagedObjectContext> context) : m_context(std::move(context)) {}
    const std::shared_ptr<NS::ManagedObjectContext>& context() const noexcept { return m_context; }

private:
    std::shared_ptr<NS::ManagedObjectContext> m_context;
};

}  // namespace velkor
