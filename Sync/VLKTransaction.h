#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "json/JSONRepresentable.h"
#include "objectstore/ManagedObject.h"
#include "objectstore/ManagedObjectContext.h"
#include "objectstore/ObjectClass.h"
#include "platform/base/Data.h"
#include "platform/base/Date.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Error.h"
#include "platform/base/Export.h"
#include "platform/base/Value.h"
#include "platform/persistence/KeyedArchiver.h"

namespace velkor {

struct VLKReceivedPayload;

/// The values of a transaction's `type`, as the wire and the archive carry them.
namespace VLKTransactionType {
inline constexpr std::string_view insertXaction = "INSERT_XACTION";
inline constexpr std::string_view updateXaction = "UPDATE_XACTION";
inline constexpr std::string_view deleteXaction = "DELETE_XACTION";
inline constexpr std::string_view expiredXaction = "EXPIRED_XACTION";
}  // namespace VLKTransactionType

/// The `objType` of a generic value transaction.
inline constexpr std::string_view VLKGenericObjectType = "GENERIC_OBJECT";

/// One insert, update, delete or expiry of one syncable object. Local ones are made when a save is captured and wait, archived
/// with the sync state, until the service has them; received ones are replayed into a store and dropped. Confined to the thread
/// of its context, except where a member says otherwise. Made through the factories.
class VELKOR_EXPORT VLKTransaction : public NS::Archivable, public JSONRepresentable {
public:
    /// A local transaction about the object as it is now, in the object's own context.
    static std::shared_ptr<VLKTransaction> transactionOfType(std::string_view type,
                                                             const std::shared_ptr<NS::ManagedObject>& object);
    /// A local transaction about an object that is looked up by its class and guid when it is needed.
    static std::shared_ptr<VLKTransaction> transactionOfType(std::string_view type, std::string_view className, NS::Value guid,
                                                             std::shared_ptr<NS::ManagedObjectContext> context);
    /// A local deletion of an object that the store no longer has.
    static std::shared_ptr<VLKTransaction> deleteTransactionForObjectOfType(std::string_view className, std::string_view guid,
                                                                            std::shared_ptr<NS::ManagedObjectContext> context);
    /// A received transaction from its wire form, a VLKGenericValueTransaction where that says "GENERIC_OBJECT". Nothing is
    /// checked: a missing key leaves its field nil; a value of a wrong type too, with a line at level 100.
    static std::shared_ptr<VLKTransaction> transactionFromJSONDictionary(const NS::Dictionary& dictionary,
                                                                         std::shared_ptr<NS::ManagedObjectContext> context);
    /// Makes both transaction classes known to the unarchiver; once at start is enough.
    static void registerArchivableClasses();
    ~VLKTransaction() override;

    /// When it was made locally; none for a received one.
    std::optional<NS::Date> date() const noexcept { return m_date; }
    void setDate(std::optional<NS::Date> date) noexcept { m_date = date; }
    /// One of VLKTransactionType; none (or any text) when received so.
    std::optional<std::string_view> type() const noexcept { return m_type.asString(); }
    void setType(std::optional<std::string_view> type);
    bool isDelete() const noexcept { return m_kind == Kind::remove; }
    /// The object's guid; none when its class has none. The view is valid until the guid is set.
    std::optional<std::string_view> objGuid() const noexcept { return m_objGuid.asString(); }
    void setObjGuid(std::optional<std::string_view> guid);
    /// Name of the object's class, or "GENERIC_OBJECT".
    std::optional<std::string_view> objType() const noexcept { return m_objType.asString(); }
    void setObjType(std::optional<std::string_view> className);
    /// The object; looked up by guid while there is none, except for a deletion. Null when the store has none, and once it is
    /// deleted.
    std::shared_ptr<NS::ManagedObject> obj();
    void setObj(std::shared_ptr<NS::ManagedObject> object) noexcept { m_obj = std::move(object); }
    /// Where `obj` is looked up and what replay writes into.
    const std::shared_ptr<NS::ManagedObjectContext>& ctx() const noexcept { return m_ctx; }
    void setCtx(std::shared_ptr<NS::ManagedObjectContext> context) noexcept { m_ctx = std::move(context); }
    /// True only for received transactions.
    bool replayableTransaction() const noexcept { return m_replayable; }
    void setReplayableTransaction(bool replayable) noexcept { m_replayable = replayable; }
    virtual bool isGenericValue() const noexcept { return false; }

    /// The row of the store's history that this transaction stands for; 0: none. Archived.
    std::int64_t historySequence() const noexcept { return m_historySequence; }
    void setHistorySequence(std::int64_t sequence) noexcept { m_historySequence = sequence; }

    /// The wire form as UTF-8 JSON text; none when a text in it is no UTF-8. Raises the invalid-argument exception when the
    /// object (or its JSON form), the date, the type or the class name is missing.
    std::optional<NS::Data> objectAsJson() override;
    /// The wire form as text; raises as `objectAsJson` does.
    std::string description() const override;
    std::string_view className() const noexcept override { return "VLKTransaction"; }
    /// Whether the object's entity has an attribute of binary data.
    bool objectHasBlobs() const;

    /// Decodes a received object payload: drops its first and last character, decodes base64, inflates. None when that fails. A
    /// text of less than two characters raises the range exception, nil the invalid-argument exception. Any thread.
    static std::optional<NS::Data> dataFromCompressedTransactionObjectData(std::optional<std::string_view> text);
    /// The same, parsed; none also when it is no JSON object.
    static std::optional<NS::Dictionary> dictionaryFromCompressedTransactionObjectData(std::optional<std::string_view> text);
    /// Decodes the payload that the replay will need, so that it need not. Any thread, once, before the replay; raises nothing.
    void decodePayloadAhead();

    /// Writes the object (not its relationships) into the context. Does not save. Received transactions only (assertion).
    virtual void replayIntoMOC(NS::ManagedObjectContext& context);
    /// Rebuilds the relationships of an inserted or updated object; after every transaction of a page was replayed.
    virtual void replayRelationshipsIntoMOC(NS::ManagedObjectContext& context);

    /// Requires a keyed coder (assertion).
    void encodeWithCoder(NS::Coder& coder) const override;

protected:
    VLKTransaction(std::string_view type, const std::shared_ptr<NS::ManagedObject>& object);
    VLKTransaction(std::string_view type, std::string_view className, NS::Value guid,
                   std::shared_ptr<NS::ManagedObjectContext> context);
    VLKTransaction(std::string_view className, std::string_view guid, std::shared_ptr<NS::ManagedObjectContext> context);
    VLKTransaction(const NS::Dictionary& dictionary, std::shared_ptr<NS::ManagedObjectContext> context);
    explicit VLKTransaction(const NS::Coder& coder);
    VLKTransaction() noexcept;

private:
    friend class VLKBatchWriter;
    friend class VLKPageReplay;
    friend class VLKTransactionWriter;
    enum class Kind : std::uint8_t { other, insert, update, remove, expired };
    /// Finds a relationship's destination; null and an error when there is none.
    using DestinationLookup =
        std::function<std::shared_ptr<NS::ManagedObject>(const NS::ObjectClass&, std::string_view guid, NS::ErrorOut)>;

    static Kind kindOf(std::optional<std::string_view> type) noexcept;
    bool carriesObject() const noexcept { return m_kind == Kind::insert || m_kind == Kind::update; }
    VLKReceivedPayload& payload();
    std::shared_ptr<NS::ManagedObject> find(const NS::ObjectClass& objectClass, NS::ManagedObjectContext& context) const;
    void writeObject(const NS::ObjectClass& objectClass, NS::ManagedObjectContext& context);
    /// The received descriptions by name; null when there are none to replay.
    const NS::Dictionary* receivedRelationships();
    void replayRelationships(const DestinationLookup& lookup);

    std::optional<NS::Date> m_date;
    NS::Value m_type;  // texts are shared with the objects and dictionaries that they come from
    NS::Value m_objGuid;
    NS::Value m_objType;
    std::shared_ptr<NS::ManagedObject> m_obj;
    std::shared_ptr<NS::ManagedObjectContext> m_ctx;
    NS::Dictionary m_jsonData;
    std::unique_ptr<VLKReceivedPayload> m_payload;
    std::int64_t m_historySequence = 0;
    Kind m_kind = Kind::other;
    bool m_replayable = false;
};

}  // namespace velkor
