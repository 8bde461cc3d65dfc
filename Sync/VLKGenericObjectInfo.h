#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "platform/base/Export.h"
#include "platform/observation/Observable.h"

namespace velkor {

/// One registration of a generic value: a key path of an observed object under the host's identifier of that object. Any thread.
class VELKOR_EXPORT VLKGenericObjectInfo {
public:
    static std::shared_ptr<VLKGenericObjectInfo> infoWithKeyPath(std::string keyPath, std::shared_ptr<NS::Observable> object,
                                                                 std::string objectId) {
        return std::make_shared<VLKGenericObjectInfo>(std::move(keyPath), std::move(object), std::move(objectId));
    }
    VLKGenericObjectInfo(std::string keyPath, std::shared_ptr<NS::Observable> object, std::string objectId)
        : m_keyPath(std::move(keyPath)), m_genericId(std::move(objectId)), m_obj(std::move(object)) {}

    const std::string& keyPath() const noexcept { return m_keyPath; }
    const std::string& genericId() const noexcept { return m_genericId; }
    const std::shared_ptr<NS::Observable>& obj() const noexcept { return m_obj; }
    /// While true, changes of the value are not recorded. False at creation; only the host sets it.
    bool setting() const noexcept { return m_setting; }
    void setSetting(bool setting) noexcept { m_setting = setting; }

private:
    const std::string m_keyPath;
    const std::string m_genericId;
    const std::shared_ptr<NS::Observable> m_obj;
    std::atomic<bool> m_setting = false;
};

}  // namespace velkor
