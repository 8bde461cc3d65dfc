#include "Sync/VLKBlobDeletion.h"

#include <utility>

#include "Sync/VLKS3Deleter.h"

namespace velkor {

VLKBlobDeletion::VLKBlobDeletion(std::vector<std::shared_ptr<VLKS3Deleter>> deleters, VLKResultCallback callback)
    : m_deleters(std::move(deleters)), m_callback(std::move(callback)) {}

VLKBlobDeletion::~VLKBlobDeletion() = default;

void VLKBlobDeletion::start() {
    if (m_deleters.empty()) return tell(true, std::nullopt);
    const auto deleter = m_deleters.back();
    deleter->setCompletionBlock([self = shared_from_this()](const NS::Value&) {
        if (self->m_deleters.empty()) return;
        self->m_deleters.pop_back();
        self->start();
    });
    deleter->setFailureBlock([self = shared_from_this()](const NS::Error& error) {
        self->m_deleters.clear();
        self->tell(false, error);
    });
    deleter->start();
}

void VLKBlobDeletion::cancel() {
    m_callback = nullptr;
    if (!m_deleters.empty()) m_deleters.back()->cancel();
    m_deleters.clear();
}

void VLKBlobDeletion::tell(bool success, const std::optional<NS::Error>& error) {
    if (const auto callback = std::exchange(m_callback, nullptr)) callback(success, error);
}

}  // namespace velkor
