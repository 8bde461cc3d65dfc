#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "platform/base/Export.h"
#include "platform/base/Dictionary.h"
#include "platform/base/Object.h"
#include "platform/base/Value.h"

namespace velkor::NS {

class OperationQueue;

/// An object whose values can be read, written and observed by key path ("editor.fontSize": the value under "fontSize" of the
/// Observable under "editor"). Subclasses answer `valueForKey` and bracket their changes with willChangeValueForKey and
/// didChangeValueForKey (or use `setValueForKey` of the default implementation, which keeps values in a dictionary and announces
/// them). Observers of a nested path follow the objects on the way, also when one is replaced. Any thread; the object's values are as
/// thread-safe as its class makes them.
class VELKOR_EXPORT Observable : public Object {
public:
    Observable();
    ~Observable() override;

    /// nil when there is no value.
    virtual Value valueForKey(std::string_view key) const;
    virtual void setValueForKey(Value value, std::string_view key);
    Value valueForKeyPath(std::string_view keyPath) const;
    void setValueForKeyPath(Value value, std::string_view keyPath);

    void willChangeValueForKey(std::string_view key);
    void didChangeValueForKey(std::string_view key);

    using Task = std::function<void(Observable& object, const Dictionary& change)>;
    /// Runs the task after each change of the value at the key path, on the thread that changed it; returns the token.
    std::string addObserverForKeyPath(std::string_view keyPath, Task task);
    /// The same, with the task added to the queue (which must outlive the observation).
    std::string addObserverForKeyPath(std::string_view keyPath, OperationQueue* queue, Task task);
    /// An unknown token writes one line to the system log and is ignored.
    void removeObserverWithBlockToken(std::string_view token);
    /// Removes every observation of this object that was added with a token.
    void removeAllObservationsWithSavedTokens();

private:
    struct Observations;
    std::shared_ptr<Observations> m_observations;
};

}  // namespace velkor::NS
