// One observation: the object, the key path, the queue and the task. Internal.
#pragma once

#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/observation/Observable.h"
#include "platform/observation/SerialQueue.h"

namespace velkor::NS {

/// The serial queue on which every change of the observations' bookkeeping runs, of all objects.
SerialQueue& observationQueue();

/// What an Observable knows of its observers. It is shared so that observers can outlive the object.
struct Observable::Observations {
    /// A key of this object is the one at `depth` of the observer's path.
    struct Link {
        std::string key;
        std::weak_ptr<KeyPathObserver> observer;
        std::size_t depth;
    };

    using ObserverMap = std::map<std::string, std::shared_ptr<KeyPathObserver>, std::less<>>;

    /// The observers whose path has the key of this object, and at which depth.
    std::vector<std::pair<std::shared_ptr<KeyPathObserver>, std::size_t>> observersOf(std::string_view key);
    /// Ends the observations of this object.
    void endAll();

    // On the observation queue only.
    Observable* owner = nullptr;  // null when it is gone
    ObserverMap observers;        // by token; without storage while it is empty
    std::vector<Link> links;

    // The values of the default implementation, guarded by the mutex.
    std::mutex valuesMutex;
    Dictionary values;
};

/// Follows a key path from its object and runs the task when a value on it changes. Shared by the object's map of tokens and by
/// the notifications under way.
class KeyPathObserver : public std::enable_shared_from_this<KeyPathObserver> {
public:
    KeyPathObserver(const std::shared_ptr<Observable::Observations>& object, std::string_view keyPath, OperationQueue* queue,
                    Observable::Task task);

    /// Observes the path from the key at `depth` on; `object` is the one that has this key.
    void follow(Observable& object, std::size_t depth);
    /// Stops observing the keys from `depth` on.
    void unfollow(std::size_t depth);
    bool isLastKey(std::size_t depth) const noexcept { return depth + 1 == m_keys.size(); }
    /// Runs the task, or adds it to the queue.
    void notify();
    /// Afterwards the queue is not used any more, and no task starts but one that another thread is about to call.
    void cancel();

private:
    using Observations = Observable::Observations;
    void link(const std::shared_ptr<Observations>& object, std::size_t depth);
    std::shared_ptr<Observations> unlink(std::size_t depth);
    void runTask();

    const std::weak_ptr<Observations> m_object;
    std::vector<std::string> m_keys;
    OperationQueue* const m_queue;
    const Observable::Task m_task;
    std::mutex m_queueMutex;  // held while the queue is used
    std::atomic<bool> m_cancelled = false;
    /// The objects that have the keys, as far as they are there; on the observation queue only.
    std::vector<std::weak_ptr<Observations>> m_way;
};

}  // namespace velkor::NS
