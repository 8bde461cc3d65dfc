#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/base/Dictionary.h"
#include "platform/base/Export.h"
#include "platform/base/Object.h"

namespace velkor::NS {

class OperationQueue;

struct Notification {
    std::string name;
    /// The sender; none for an anonymous one. Compared by address, never owned.
    const Object* object = nullptr;
    Dictionary userInfo;
};

/// Delivers notifications to observers by name and sender. Any thread; observers without a queue are called on the posting
/// thread, before `post` returns, in the order of their registration. When observers raise, the others are still called, then
/// `post` raises the first exception.
class VELKOR_EXPORT NotificationCenter {
public:
    /// A registration; it stays until `removeObserver`.
    class Observer;
    using Token = std::shared_ptr<Observer>;

    static NotificationCenter& defaultCenter();

    /// `object` null: any sender. `queue` null: the posting thread; else the block is added to the queue (which must outlive the
    /// registration).
    Token addObserver(std::string_view name, const Object* object, OperationQueue* queue,
                      std::function<void(const Notification&)> block);
    /// After it returns the block is not called by later posts, blocks still queued for it are dropped, and its queue is not used
    /// any more. A call under way on another thread may still begin or go on.
    void removeObserver(const Token& token);
    void post(std::string_view name, const Object* object, Dictionary userInfo = {});
    void post(const Notification& notification);

    NotificationCenter();
    ~NotificationCenter();

private:
    struct State;
    std::shared_ptr<State> m_state;
};

}  // namespace velkor::NS
