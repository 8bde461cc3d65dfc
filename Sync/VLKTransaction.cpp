#include "Sync/VLKTransaction.h"

#include "PelmoLib/NSEntityDescription+VLK.h"
#include "PelmoLib/NSManagedObject+JSON.h"
#include "PelmoLib/VLKMocCreator.h"
#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/NSData+Compression.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKGenericValueTransaction.h"
#include "Sync/VLKReceivedPayload.h"
#include "Sync/VLKTransactionKeys.h"
#include "Sync/VLKTransactionWriter.h"
#include "json/CJSONDeserializer.h"
#include "platform/base/Exception.h"

namespace velkor {

using namespace NS;

namespace {

Value textOrNil(std::optional<std::string_view> text) { return text ? Value(*text) : Value(); }

/// Archives written by earlier versions lack this key, and so do transactions that stand for no row.
constexpr std::string_view historySequenceKey = "historySequence";

}  // namespace

Value textUnderKey(const Dictionary& dictionary, std::string_view key) {
    const Value& value = dictionary[key];
    if (value.isNil() || value.isString()) return value;
    VLKLog::sharedInstance().logMessageAtLevel(100, "Ignoring %@ of a received transaction: it is of type %@, not a text.", key,
                                               value.className());
    return {};
}

const ObjectClass* classNamed(const Value& name) {
    const auto text = name.asString();
    return text ? ObjectClass::forName(*text) : nullptr;
}

VLKTransaction::VLKTransaction() noexcept = default;
VLKTransaction::~VLKTransaction() = default;

VLKTransaction::VLKTransaction(std::string_view type, const std::shared_ptr<ManagedObject>& object)
    : m_date(Date::now()), m_type(type), m_obj(object), m_kind(kindOf(type)) {
    VLKLog::sharedInstance().logMessageAtLevel(300, "%s", "-[VLKTransaction initWithType:forObject:]");
    m_objType = object->entity().managedObjectClassName();
    if (respondsToGuid(*object)) m_objGuid = guidOfObject(*object);
    if (ManagedObjectContext* context = object->managedObjectContext())
        m_ctx = std::static_pointer_cast<ManagedObjectContext>(context->shared_from_this());
}

VLKTransaction::VLKTransaction(std::string_view type, std::string_view className, Value guid,
                               std::shared_ptr<ManagedObjectContext> context)
    : m_date(Date::now()),
      m_type(type),
      m_objGuid(std::move(guid)),
      m_objType(className),
      m_ctx(std::move(context)),
      m_kind(kindOf(type)) {
    VLKLog::sharedInstance().logMessageAtLevel(300, "%s", "-[VLKTransaction initWithType:forObject:]");
}

VLKTransaction::VLKTransaction(std::string_view className, std::string_view guid, std::shared_ptr<ManagedObjectContext> context)
    : m_date(Date::now()),
      m_type(VLKTransactionType::deleteXaction),
      m_objGuid(guid),
      m_objType(className),
      m_ctx(std::move(context)),
      m_kind(Kind::remove) {
    VLKLog::sharedInstance().logMessageAtLevel(300, "%s",
                                               "-[VLKTransaction initDeleteTransactionForObjectOfType:withGuid:inContext:]");
}

VLKTransaction::VLKTransaction(const Dictionary& dictionary, std::shared_ptr<ManagedObjectContext> context)
    : m_type(textUnderKey(dictionary, WireKey::type)),
      m_objGuid(textUnderKey(dictionary, WireKey::objectGuid)),
      m_objType(textUnderKey(dictionary, WireKey::objectType)),
      m_ctx(std::move(context)),
      m_jsonData(dictionary),
      m_kind(kindOf(m_type.asString())),
      m_replayable(true) {}

VLKTransaction::VLKTransaction(const Coder& coder) {
    m_date = coder.decodeObject("date").asDate();
    setType(coder.decodeObject("type").asString());
    setObjGuid(coder.decodeObject("objGuid").asString());
    setObjType(coder.decodeObject("objType").asString());
    m_replayable = coder.decodeBool("replayableTransaction");
    m_historySequence = coder.decodeInt64(historySequenceKey);
    if (const auto creator = VLKMocCreator::sharedInstance()) m_ctx = creator->ctx();
}

std::shared_ptr<VLKTransaction> VLKTransaction::transactionOfType(std::string_view type,
                                                                  const std::shared_ptr<ManagedObject>& object) {
    return std::shared_ptr<VLKTransaction>(new VLKTransaction(type, object));
}

std::shared_ptr<VLKTransaction> VLKTransaction::transactionOfType(std::string_view type, std::string_view className, Value guid,
                                                                  std::shared_ptr<ManagedObjectContext> context) {
    return std::shared_ptr<VLKTransaction>(new VLKTransaction(type, className, std::move(guid), std::move(context)));
}

std::shared_ptr<VLKTransaction> VLKTransaction::deleteTransactionForObjectOfType(std::string_view className,
                                                                                 std::string_view guid,
                                                                                 std::shared_ptr<ManagedObjectContext> context) {
    return std::shared_ptr<VLKTransaction>(new VLKTransaction(className, guid, std::move(context)));
}

std::shared_ptr<VLKTransaction> VLKTransaction::transactionFromJSONDictionary(const Dictionary& dictionary,
                                                                              std::shared_ptr<ManagedObjectContext> context) {
    if (dictionary[WireKey::objectType].asString() == VLKGenericObjectType) {
        return std::shared_ptr<VLKTransaction>(new VLKGenericValueTransaction(dictionary, std::move(context)));
    }
    return std::shared_ptr<VLKTransaction>(new VLKTransaction(dictionary, std::move(context)));
}

void VLKTransaction::registerArchivableClasses() {
    registerArchivableClass("VLKTransaction",
                            [](const Coder& coder) { return std::shared_ptr<Archivable>(new VLKTransaction(coder)); });
    registerArchivableClass("VLKGenericValueTransaction", [](const Coder& coder) {
        return std::shared_ptr<Archivable>(new VLKGenericValueTransaction(coder));
    });
}

void VLKTransaction::encodeWithCoder(Coder& coder) const {
    assertThat(coder.allowsKeyedCoding(), "[aCoder allowsKeyedCoding]");
    coder.encodeObject(m_date ? Value(*m_date) : Value(), "date");
    coder.encodeObject(m_type, "type");
    coder.encodeObject(m_objGuid, "objGuid");
    coder.encodeObject(m_objType, "objType");
    coder.encodeBool(m_replayable, "replayableTransaction");
    if (m_historySequence != 0) coder.encodeInt64(m_historySequence, historySequenceKey);
}

VLKTransaction::Kind VLKTransaction::kindOf(std::optional<std::string_view> type) noexcept {
    if (type == VLKTransactionType::insertXaction) return Kind::insert;
    if (type == VLKTransactionType::updateXaction) return Kind::update;
    if (type == VLKTransactionType::deleteXaction) return Kind::remove;
    if (type == VLKTransactionType::expiredXaction) return Kind::expired;
    return Kind::other;
}

void VLKTransaction::setType(std::optional<std::string_view> type) {
    m_kind = kindOf(type);
    m_type = textOrNil(type);
}

void VLKTransaction::setObjGuid(std::optional<std::string_view> guid) { m_objGuid = textOrNil(guid); }

void VLKTransaction::setObjType(std::optional<std::string_view> className) { m_objType = textOrNil(className); }

std::shared_ptr<ManagedObject> VLKTransaction::obj() {
    if (!m_obj && m_kind != Kind::remove && m_objType.isString() && m_objGuid.isString()) {
        const ObjectClass* objectClass = ObjectClass::forName(*m_objType.asString());
        if (objectClass && !m_ctx) {
            if (const auto creator = VLKMocCreator::sharedInstance()) m_ctx = creator->ctx();
        }
        if (objectClass && m_ctx) m_obj = objectForGuid(*objectClass, *m_objGuid.asString(), *m_ctx);
    }
    const bool gone = m_obj && (m_obj->isDeleted() || !m_obj->managedObjectContext());
    return gone ? nullptr : m_obj;
}

std::optional<Data> VLKTransaction::objectAsJson() {
    std::string wire, json;
    VLKTransactionWriter writer;
    const auto progress = writer.begin(wire, json, *this);
    if (progress == VLKTransactionWriter::Progress::unwritable) return std::nullopt;
    if (progress == VLKTransactionWriter::Progress::awaitsPayload) {
        const std::size_t head = wire.size();
        const bool encoded = VLKTransactionWriter::appendPayload(wire, json);
        VLKTransactionWriter::logPayload(*this, encoded ? std::optional(std::string_view(wire).substr(head)) : std::nullopt);
        VLKTransactionWriter::end(wire);
    }
    return Data(std::move(wire));
}

std::string VLKTransaction::description() const {
    const auto json = const_cast<VLKTransaction*>(this)->objectAsJson();  // resolves the object, as reading it would
    return json ? std::string(json->view()) : std::string();
}

bool VLKTransaction::objectHasBlobs() const {
    VLKLog::sharedInstance().logMessageAtLevel(300, "(VLKTransaction) Checking if object has blobs...");
    const EntityDescription* entity = entityDescriptionForClassNamed(m_objType.stringOr("(null)"), m_ctx.get());
    return entity && vlk_hasBlobs(*entity);
}

std::optional<Data> VLKTransaction::dataFromCompressedTransactionObjectData(std::optional<std::string_view> text) {
    if (!text) return dataWithBase64EncodedString(std::nullopt);  // raises
    const auto base64 = withoutWrappingCharacters(*text);
    const auto deflated = base64 ? dataWithBase64EncodedString(*base64) : std::nullopt;
    return deflated ? zlibInflate(*deflated) : std::nullopt;
}

std::optional<Dictionary> VLKTransaction::dictionaryFromCompressedTransactionObjectData(std::optional<std::string_view> text) {
    return VLKReceivedPayload::decode(text).object;
}

}  // namespace velkor
