// Generic values: values at key paths of observed objects outside the store.
#include <utility>

#include "Sync/VLKGenericObjectInfo.h"
#include "Sync/VLKGenericValueTransaction.h"
#include "Sync/VLKSyncController+Internal.h"
#include "platform/concurrency/RunLoop.h"

namespace velkor {

std::string VLKSyncController::genericObjectKeyForKeyPath(std::string_view keyPath, std::string_view genericObjectId) const {
    return NS::format("%@_%@", genericObjectId, keyPath);
}

std::string VLKSyncController::guidForGenericObjectKeyPath(std::string_view keyPath, std::string_view genericObjectId) const {
    return NS::format("%@_%@_%@", m_emailAddress, genericObjectId, keyPath);
}

std::shared_ptr<NS::Observable> VLKSyncController::observedObjectWithGenericObjectIdAndKeyPath(
    std::string_view genericObjectKey) const {
    const auto found = m_observedGenericObjects.find(genericObjectKey);
    return found == m_observedGenericObjects.end() ? nullptr : found->second;
}

void VLKSyncController::registerObservationOfKeyPath(std::string_view keyPath, std::shared_ptr<NS::Observable> object,
                                                     std::string_view genericObjectId) {
    // The value may change on any thread, and an observation that a second registration has replaced goes on: so the task touches
    // the controller on the main thread only, and only while it lives.
    const auto record = [this, watch = std::weak_ptr(m_internals->alive), path = std::string(keyPath),
                         identifier = std::string(genericObjectId), observed = std::weak_ptr(object)] {
        const auto changed = observed.lock();
        if (changed && !watch.expired()) m_internals->recordGenericValue(path, *changed, identifier);
    };
    const std::string token = object->addObserverForKeyPath(keyPath, [record](NS::Observable&, const NS::Dictionary&) {
        if (NS::RunLoop::isMainThread()) return record();
        NS::OperationQueue::mainQueue().addOperation(record);
    });
    const std::string key = genericObjectKeyForKeyPath(keyPath, genericObjectId);
    m_observedGenericObjects.set(key, object);
    m_genericObservationTokens.set(key, token);
    m_genericObjectGuids.set(
        guidForGenericObjectKeyPath(keyPath, genericObjectId),
        VLKGenericObjectInfo::infoWithKeyPath(std::string(keyPath), std::move(object), std::string(genericObjectId)));
}

void VLKSyncController::Internals::recordGenericValue(const std::string& keyPath, const NS::Observable& object,
                                                      const std::string& genericId) {
    if (!self.m_emailAddress) return;
    const auto info = self.m_genericObjectGuids.find(self.guidForGenericObjectKeyPath(keyPath, genericId));
    if (info != self.m_genericObjectGuids.end() && info->second->setting()) return;
    self.addGenericObjectTransactionForKeyPath(keyPath, object, genericId);
}

void VLKSyncController::unregisterObservationOfKeyPath(std::string_view keyPath, std::string_view genericObjectId) {
    const std::string key = genericObjectKeyForKeyPath(keyPath, genericObjectId);
    const auto token = m_genericObservationTokens.find(key);
    const std::string knownToken = token == m_genericObservationTokens.end() ? std::string() : token->second;
    if (const auto object = observedObjectWithGenericObjectIdAndKeyPath(key)) {
        object->removeObserverWithBlockToken(knownToken);
    } else {
        removeObserverWithBlockToken(knownToken);  // says that there is none
    }
    m_observedGenericObjects.erase(key);
    m_genericObservationTokens.erase(key);
    m_genericObjectGuids.erase(guidForGenericObjectKeyPath(keyPath, genericObjectId));
}

void VLKSyncController::addGenericObjectTransactionForKeyPath(std::string_view keyPath, const NS::Observable& object,
                                                              std::string_view genericId) {
    const auto type = object.valueForKeyPath(keyPath) ? VLKTransactionType::updateXaction : VLKTransactionType::deleteXaction;
    m_internals->fileTransaction(VLKGenericValueTransaction::genericValueTransactionOfType(
        type, keyPath, genericId, guidForGenericObjectKeyPath(keyPath, genericId)));
}

void VLKSyncController::addTransactionsForGenericObjectsInSet(const NS::Array& guids) {
    if (m_genericObjectGuids.empty()) return;
    for (const NS::Value& guid : guids) {
        const auto info = m_genericObjectGuids.find(guid.stringOr(""));
        if (info == m_genericObjectGuids.end()) continue;
        addGenericObjectTransactionForKeyPath(info->second->keyPath(), *info->second->obj(), info->second->genericId());
    }
}

std::vector<std::string> VLKSyncController::guidsOfGenericValues() {
    std::vector<std::string> guids;
    const bool answered = m_internals->questions.ask([&] {
        for (const auto& [guid, info] : m_genericObjectGuids) {
            if (info->obj()->valueForKeyPath(info->keyPath())) guids.push_back(guid);
        }
    });
    if (!answered) guids.clear();
    return guids;
}

}  // namespace velkor
