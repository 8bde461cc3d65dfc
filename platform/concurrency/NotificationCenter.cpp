#include "platform/concurrency/NotificationCenter.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/base/FirstException.h"
#include "platform/concurrency/OperationQueue.h"

namespace velkor::NS {

using Block = std::function<void(const Notification&)>;

class NotificationCenter::Observer : public std::enable_shared_from_this<Observer> {
public:
    Observer(std::string_view name, const Object* object, OperationQueue* queue, Block block)
        : m_name(name), m_object(object), m_queue(queue), m_block(std::make_shared<const Block>(std::move(block))) {}

    const std::string& name() const noexcept { return m_name; }
    bool wants(const Notification& notification) const noexcept { return !m_object || m_object == notification.object; }
    void end() {
        std::unique_lock lock(m_mutex);
        auto dropped = std::exchange(m_block, nullptr);
        lock.unlock();  // what the block holds is destroyed outside of the lock
    }
    void deliver(const Notification& notification) const {
        if (!m_queue) return call(notification);
        const std::lock_guard lock(m_mutex);  // the queue need not outlive the registration
        if (m_block) m_queue->addOperation([self = shared_from_this(), notification] { self->call(notification); });
    }

private:
    void call(const Notification& notification) const {
        std::unique_lock lock(m_mutex);
        const auto block = m_block;
        lock.unlock();
        if (block) (*block)(notification);
    }

    const std::string m_name;
    const Object* const m_object;
    OperationQueue* const m_queue;
    mutable std::mutex m_mutex;
    std::shared_ptr<const Block> m_block;  // guarded by the mutex; none once the registration has ended
};

struct NotificationCenter::State {
    using Observers = std::vector<Token>;

    std::mutex mutex;
    // Guarded by the mutex. The lists are never changed in place, so that a post goes through the one it found.
    std::map<std::string, std::shared_ptr<const Observers>, std::less<>> observers;

    std::shared_ptr<const Observers> observersFor(std::string_view name) {
        std::unique_lock lock(mutex);
        auto found = observers.find(name);
        return found == observers.end() ? nullptr : found->second;
    }
};

NotificationCenter::NotificationCenter() : m_state(std::make_shared<State>()) {}
NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
    static auto* center = new NotificationCenter;
    return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string_view name, const Object* object, OperationQueue* queue,
                                                          std::function<void(const Notification&)> block) {
    auto observer = std::make_shared<Observer>(name, object, queue, std::move(block));
    std::unique_lock lock(m_state->mutex);
    auto& list = m_state->observers[observer->name()];
    auto longer = list ? std::make_shared<State::Observers>(*list) : std::make_shared<State::Observers>();
    longer->push_back(observer);
    list = std::move(longer);
    return observer;
}

void NotificationCenter::removeObserver(const Token& token) {
    if (!token) return;
    {
        std::unique_lock lock(m_state->mutex);
        auto found = m_state->observers.find(token->name());
        if (found != m_state->observers.end()) {
            auto shorter = std::make_shared<State::Observers>(*found->second);
            std::erase(*shorter, token);
            if (shorter->empty()) {
                m_state->observers.erase(found);
            } else {
                found->second = std::move(shorter);
            }
        }
    }
    token->end();
}

void NotificationCenter::post(std::string_view name, const Object* object, Dictionary userInfo) {
    post(Notification{std::string(name), object, std::move(userInfo)});
}

void NotificationCenter::post(const Notification& notification) {
    auto observers = m_state->observersFor(notification.name);
    if (!observers) return;
    FirstException raised;
    for (const auto& observer : *observers) {
        if (observer->wants(notification)) raised.attempt([&] { observer->deliver(notification); });
    }
    raised.raise();
}

}  // namespace velkor::NS
