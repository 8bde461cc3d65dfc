#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "objectstore/EntityDescription.h"
#include "objectstore/ManagedObjectContext.h"
#include "platform/base/Export.h"

namespace velkor {

/// Describes the syncable part of a context's model for the service. Used on the context's thread.
class VELKOR_EXPORT VLKSchemaSerializer {
public:
    /// `context` may be null: then there are no entities.
    explicit VLKSchemaSerializer(std::shared_ptr<NS::ManagedObjectContext> context) : m_ctx(std::move(context)) {}

    /// The syncable entities of the context's model, in the model's order.
    std::vector<const NS::EntityDescription*> syncableEntityTypesInCtx(const NS::ManagedObjectContext* context) const;
    /// [{"name":entity,"attributes":[{"name":attribute,"type":code},...]},...], compact; none when a name is no valid UTF-8.
    std::optional<std::string> asJSON() const;

    const std::shared_ptr<NS::ManagedObjectContext>& ctx() const noexcept { return m_ctx; }
    void setCtx(std::shared_ptr<NS::ManagedObjectContext> context) noexcept { m_ctx = std::move(context); }

private:
    std::shared_ptr<NS::ManagedObjectContext> m_ctx;
};

}  // namespace velkor
