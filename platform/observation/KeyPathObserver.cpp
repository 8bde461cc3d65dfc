#include "platform/observation/KeyPathObserver.h"

#include <algorithm>
#include <utility>

#include "platform/base/Exception.h"
#include "platform/concurrency/OperationQueue.h"

namespace velkor::NS {
namespace {

std::vector<std::string> keysOf(std::string_view path) {
    std::vector<std::string> keys;
    for (;;) {
        const std::size_t end = std::min(path.find('.'), path.size());
        if (end == 0) throw Exception(InvalidArgumentException, "A key path has an empty key.");
        keys.emplace_back(path.substr(0, end));
        if (end == path.size()) return keys;
        path.remove_prefix(end + 1);
    }
}

}  // namespace

SerialQueue& observationQueue() {
    static auto& queue = *new SerialQueue;  // objects may go while the process exits
    return queue;
}

std::vector<std::pair<std::shared_ptr<KeyPathObserver>, std::size_t>> Observable::Observations::observersOf(
    std::string_view key) {
    std::vector<std::pair<std::shared_ptr<KeyPathObserver>, std::size_t>> found;
    observationQueue().sync([&] {
        for (const Link& link : links) {
            if (link.key == key) found.emplace_back(link.observer.lock(), link.depth);
        }
    });
    std::erase_if(found, [](const auto& candidate) { return !candidate.first; });
    return found;
}

void Observable::Observations::endAll() {
    ObserverMap ended;
    observationQueue().sync([&] { ended.swap(observers); });
    for (const auto& [token, observer] : ended) {
        observer->cancel();
        observer->unfollow(0);
    }
}

KeyPathObserver::KeyPathObserver(const std::shared_ptr<Observations>& object, std::string_view keyPath, OperationQueue* queue,
                                 Observable::Task task)
    : m_object(object), m_keys(keysOf(keyPath)), m_queue(queue), m_task(std::move(task)), m_way(m_keys.size()) {}

void KeyPathObserver::follow(Observable& object, std::size_t depth) {
    link(object.m_observations, depth);
    if (isLastKey(depth)) return;
    // Another thread may replace the value while its keys are being linked, so it is read again afterwards. A value that is made
    // anew at each reading never settles; hence the limit.
    auto next = object.valueForKey(m_keys[depth]).as<Observable>();
    for (int attempt = 0; attempt < 4; ++attempt) {
        unfollow(depth + 1);
        if (next) follow(*next, depth + 1);
        auto current = object.valueForKey(m_keys[depth]).as<Observable>();
        if (current == next) return;
        next = std::move(current);
    }
}

void KeyPathObserver::link(const std::shared_ptr<Observations>& object, std::size_t depth) {
    std::shared_ptr<Observations> released;  // let go only outside of the queue
    observationQueue().sync([&] {
        released = unlink(depth);
        if (m_cancelled) return;
        m_way[depth] = object;
        object->links.push_back({m_keys[depth], weak_from_this(), depth});
    });
}

void KeyPathObserver::unfollow(std::size_t depth) {
    std::vector<std::shared_ptr<Observations>> released;  // let go only outside of the queue
    observationQueue().sync([&] {
        for (std::size_t i = depth; i < m_way.size(); ++i) released.push_back(unlink(i));
    });
}

// On the observation queue. Returns the object that had the key, if it is still there.
std::shared_ptr<KeyPathObserver::Observations> KeyPathObserver::unlink(std::size_t depth) {
    auto object = std::exchange(m_way[depth], {}).lock();
    if (object) {
        const auto self = weak_from_this();
        std::erase_if(object->links, [&](const Observations::Link& link) {
            return link.depth == depth && !link.observer.owner_before(self) && !self.owner_before(link.observer);
        });
    }
    return object;
}

void KeyPathObserver::cancel() {
    const std::lock_guard lock(m_queueMutex);
    m_cancelled = true;
}

void KeyPathObserver::notify() {
    if (!m_queue) return runTask();
    // The object is kept until the task has run.
    std::shared_ptr<Object> kept;
    if (const auto object = m_object.lock()) {
        observationQueue().sync([&] {
            if (object->owner) kept = object->owner->weak_from_this().lock();
        });
    }
    const std::lock_guard lock(m_queueMutex);
    if (!m_cancelled) m_queue->addOperation([self = shared_from_this(), kept] { self->runTask(); });
}

void KeyPathObserver::runTask() {
    const auto object = m_object.lock();
    if (!object || m_cancelled) return;
    Observable* owner = nullptr;
    std::shared_ptr<Object> kept;
    observationQueue().sync([&] {
        if (!object->owner) return;
        const auto managed = object->owner->weak_from_this();
        const std::weak_ptr<Object> none;
        kept = managed.lock();
        const bool wasNeverShared = !managed.owner_before(none) && !none.owner_before(managed);
        if (kept || wasNeverShared) owner = object->owner;
    });
    static const auto& change = *new Dictionary{{"kind", 1}};  // threads may run tasks while the process exits
    if (owner && !m_cancelled) m_task(*owner, change);
}

}  // namespace velkor::NS
