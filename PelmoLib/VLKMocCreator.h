#pragma once

#include <functional>
#include <memory>

#include "objectstore/ManagedObjectContext.h"
#include "platform/base/Export.h"

namespace velkor {

/// Makes a fresh context of the host's store; called on the thread that will use the context.
using VLKContextCreator = std::function<std::shared_ptr<NS::ManagedObjectContext>()>;

/// The process-wide holder of the host's context creator. Registered, replaced and read on the main thread.
class VELKOR_EXPORT VLKMocCreator {
public:
    /// Replaces the process-wide creator; the context that was handed to the earlier one is dropped with it.
    static std::shared_ptr<VLKMocCreator> sharedInstanceWithCreatorBlock(VLKContextCreator block);
    /// Null before the first registration.
    static std::shared_ptr<VLKMocCreator> sharedInstance() noexcept;
    /// Afterwards there is none, as before the first registration.
    static void dropSharedInstance() noexcept;

    const VLKContextCreator& ctxCreator() const noexcept { return m_ctxCreator; }
    void setCtxCreator(VLKContextCreator block) { m_ctxCreator = std::move(block); }
    /// The context of transactions that come out of an archive; null until set.
    const std::shared_ptr<NS::ManagedObjectContext>& ctx() const noexcept { return m_ctx; }
    void setCtx(std::shared_ptr<NS::ManagedObjectContext> ctx) noexcept { m_ctx = std::move(ctx); }

private:
    explicit VLKMocCreator(VLKContextCreator block) : m_ctxCreator(std::move(block)) {}
    VLKContextCreator m_ctxCreator;
    std::shared_ptr<NS::ManagedObjectContext> m_ctx;
};

}  // namespace velkor
