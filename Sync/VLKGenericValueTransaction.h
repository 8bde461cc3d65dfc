#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "Sync/VLKTransaction.h"
#include "platform/base/Export.h"

namespace velkor {

/// A change of the value at a key path of an observed object outside the store. It has no wire form and cannot be replayed: both
/// fail an assertion.
class VELKOR_EXPORT VLKGenericValueTransaction : public VLKTransaction {
public:
    static std::shared_ptr<VLKGenericValueTransaction> genericValueTransactionOfType(std::string_view type,
                                                                                     std::string_view keyPath,
                                                                                     std::string_view genericObjectId,
                                                                                     std::string_view guid);

    std::optional<std::string_view> keyPath() const noexcept { return m_keyPath.asString(); }
    void setKeyPath(std::optional<std::string_view> keyPath);
    std::optional<std::string_view> genericObjectId() const noexcept { return m_genericObjectId.asString(); }
    void setGenericObjectId(std::optional<std::string_view> identifier);

    bool isGenericValue() const noexcept override { return true; }
    std::string_view className() const noexcept override { return "VLKGenericValueTransaction"; }
    std::optional<NS::Data> objectAsJson() override;
    void replayIntoMOC(NS::ManagedObjectContext& context) override;
    /// Does nothing. Received transactions only (assertion).
    void replayRelationshipsIntoMOC(NS::ManagedObjectContext& context) override;
    void encodeWithCoder(NS::Coder& coder) const override;

private:
    friend class VLKTransaction;
    VLKGenericValueTransaction() noexcept = default;
    VLKGenericValueTransaction(const NS::Dictionary& dictionary, std::shared_ptr<NS::ManagedObjectContext> context);
    explicit VLKGenericValueTransaction(const NS::Coder& coder);

    NS::Value m_keyPath;
    NS::Value m_genericObjectId;
};

}  // namespace velkor
