#include "Sync/VLKGenericValueTransaction.h"

#include "Sync/VLKTransactionKeys.h"
#include "platform/base/Exception.h"

namespace velkor {

using namespace NS;

std::shared_ptr<VLKGenericValueTransaction> VLKGenericValueTransaction::genericValueTransactionOfType(
    std::string_view type, std::string_view keyPath, std::string_view genericObjectId, std::string_view guid) {
    std::shared_ptr<VLKGenericValueTransaction> transaction(new VLKGenericValueTransaction());
    transaction->setDate(Date::now());
    transaction->setType(type);
    transaction->setObjType(VLKGenericObjectType);
    transaction->setObjGuid(guid);
    transaction->setKeyPath(keyPath);
    transaction->setGenericObjectId(genericObjectId);
    return transaction;
}

VLKGenericValueTransaction::VLKGenericValueTransaction(const Dictionary& dictionary,
                                                       std::shared_ptr<ManagedObjectContext> context)
    : VLKTransaction(dictionary, std::move(context)),
      m_keyPath(textUnderKey(dictionary, WireKey::keyPath)),
      m_genericObjectId(textUnderKey(dictionary, WireKey::genericObjectId)) {}

VLKGenericValueTransaction::VLKGenericValueTransaction(const Coder& coder) : VLKTransaction(coder) {
    setKeyPath(coder.decodeObject("keyPath").asString());
    setGenericObjectId(coder.decodeObject("genericObjectId").asString());
}

void VLKGenericValueTransaction::encodeWithCoder(Coder& coder) const {
    assertThat(coder.allowsKeyedCoding(), "[aCoder allowsKeyedCoding]");
    coder.encodeObject(m_keyPath, "keyPath");
    coder.encodeObject(m_genericObjectId, "genericObjectId");
    VLKTransaction::encodeWithCoder(coder);
}

void VLKGenericValueTransaction::setKeyPath(std::optional<std::string_view> keyPath) {
    m_keyPath = keyPath ? Value(*keyPath) : Value();
}

void VLKGenericValueTransaction::setGenericObjectId(std::optional<std::string_view> identifier) {
    m_genericObjectId = identifier ? Value(*identifier) : Value();
}

std::optional<Data> VLKGenericValueTransaction::objectAsJson() { failAssertion("false"); }

void VLKGenericValueTransaction::replayIntoMOC(ManagedObjectContext&) { failAssertion("false"); }

void VLKGenericValueTransaction::replayRelationshipsIntoMOC(ManagedObjectContext&) {
    assertThat(replayableTransaction(), "replayableTransaction");
}

}  // namespace velkor
