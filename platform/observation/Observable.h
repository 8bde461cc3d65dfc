#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "platform/base/Dictionary.h"
#include "platform/base/Export.h"
#include "platform/base/Object.h"
#include "platform/base/Value.h"

namespace velkor::NS {

class KeyPathObserver;
class OperationQueue;

/// An object whose values can be read, written and observed by key path ("editor.fontSize": the value under "fontSize" of the
/// Observable under "editor"). Subclasses answer `valueForKey` and bracket their changes with willChangeValueForKey and
/// didChangeValueForKey (or use `setValueForKey` of the default implementation, which keeps values in a dictionary and announces
/// them). Observers of a nested path follow the objects on the way, also when one is replaced. Any thread; the object's values
/// are as thread-safe as its class makes them (those of the default implementation are).
class VELKOR_EXPORT Observable : public Object {
public:
    Observable();
    /// Ends all observations. An object that other threads change or observe must be held by shared pointers.
    ~Observable() override;

    /// nil when there is no value.
    virtual Value valueForKey(std::string_view key) const;
    /// nil removes the value.
    virtual void setValueForKey(Value value, std::string_view key);
    /// nil when a value on the way is missing or no Observable.
    Value valueForKeyPath(std::string_view keyPath) const;
    /// Does nothing when a value on the way is missing; one that is no Observable raises the invalid-argument exception.
    void setValueForKeyPath(Value value, std::string_view keyPath);

    /// The object under the key may be about to leave the paths that lead through it: until didChangeValueForKey they end here.
    void willChangeValueForKey(std::string_view key);
    /// Runs the tasks of the observers whose path has the key; when some raise, all others run before the first exception is
    /// raised.
    void didChangeValueForKey(std::string_view key);

    /// The change holds "kind" = 1 (a value was set); the task reads the value itself.
    using Task = std::function<void(Observable& object, const Dictionary& change)>;
    /// Runs the task after each change of the value at the key path, on the thread that changed it; returns the token. An empty
    /// path or key raises the invalid-argument exception.
    std::string addObserverForKeyPath(std::string_view keyPath, Task task);
    /// The same, with the task added to the queue (which must outlive the observation); without a queue (null) as above. A task
    /// still waiting there when its observer is removed does not run; one under way on another thread may still begin or go on.
    std::string addObserverForKeyPath(std::string_view keyPath, OperationQueue* queue, Task task);
    /// An unknown token writes one line to the system log and is ignored.
    void removeObserverWithBlockToken(std::string_view token);
    /// Removes every observation of this object that was added with a token.
    void removeAllObservationsWithSavedTokens();

private:
    friend class KeyPathObserver;
    struct Observations;
    std::shared_ptr<Observations> m_observations;
};

}  // namespace velkor::NS
