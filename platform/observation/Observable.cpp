#include "platform/observation/Observable.h"

#include <unistd.h>

#include <atomic>
#include <random>
#include <utility>

#include "platform/base/Exception.h"
#include "platform/base/FirstException.h"
#include "platform/base/Format.h"
#include "platform/base/SystemLog.h"
#include "platform/observation/KeyPathObserver.h"

namespace velkor::NS {
namespace {

// Unique among processes, machines and times: a random part, the process id and a count.
std::string globallyUniqueString() {
    static const std::string& randomPart = *[] {
        std::random_device random;
        return new std::string(format("%08X%08X%08X%08X", random(), random(), random(), random()));
    }();  // threads may add observers while the process exits
    static std::atomic<std::uint64_t> count = 0;
    return format("%@-%d-%016llX", randomPart, getpid(), ++count);
}

}  // namespace

Observable::Observable() : m_observations(std::make_shared<Observations>()) { m_observations->owner = this; }

Observable::~Observable() {
    observationQueue().sync([&] { m_observations->owner = nullptr; });
    m_observations->endAll();
}

Value Observable::valueForKey(std::string_view key) const {
    const std::lock_guard lock(m_observations->valuesMutex);
    return m_observations->values[key];
}

void Observable::setValueForKey(Value value, std::string_view key) {
    willChangeValueForKey(key);
    Value former;  // its end may run anybody's code, so not under the mutex
    {
        const std::lock_guard lock(m_observations->valuesMutex);
        former = m_observations->values[key];
        if (value) {
            m_observations->values.set(key, std::move(value));
        } else {
            m_observations->values.remove(key);
        }
    }
    didChangeValueForKey(key);
}

Value Observable::valueForKeyPath(std::string_view keyPath) const {
    const std::size_t dot = keyPath.find('.');
    if (dot == std::string_view::npos) return valueForKey(keyPath);
    const auto next = valueForKey(keyPath.substr(0, dot)).as<Observable>();
    return next ? next->valueForKeyPath(keyPath.substr(dot + 1)) : Value();
}

void Observable::setValueForKeyPath(Value value, std::string_view keyPath) {
    const std::size_t dot = keyPath.find('.');
    if (dot == std::string_view::npos) return setValueForKey(std::move(value), keyPath);
    const Value onTheWay = valueForKey(keyPath.substr(0, dot));
    if (onTheWay.isNil()) return;
    const auto next = onTheWay.as<Observable>();
    if (!next)
        throw Exception(InvalidArgumentException,
                        format("The value under \"%@\" has no values of its own.", keyPath.substr(0, dot)));
    next->setValueForKeyPath(std::move(value), keyPath.substr(dot + 1));
}

void Observable::willChangeValueForKey(std::string_view key) {
    for (const auto& [observer, depth] : m_observations->observersOf(key)) {
        if (!observer->isLastKey(depth)) observer->unfollow(depth + 1);
    }
}

void Observable::didChangeValueForKey(std::string_view key) {
    FirstException raised;
    for (const auto& link : m_observations->observersOf(key)) {
        raised.attempt([&] {
            const auto& [observer, depth] = link;
            if (!observer->isLastKey(depth)) observer->follow(*this, depth);
            observer->notify();
        });
    }
    raised.raise();
}

std::string Observable::addObserverForKeyPath(std::string_view keyPath, Task task) {
    return addObserverForKeyPath(keyPath, nullptr, std::move(task));
}

std::string Observable::addObserverForKeyPath(std::string_view keyPath, OperationQueue* queue, Task task) {
    const auto observer = std::make_shared<KeyPathObserver>(m_observations, keyPath, queue, std::move(task));
    std::string token = globallyUniqueString();
    try {
        observer->follow(*this, 0);
    } catch (...) {
        observer->unfollow(0);
        throw;
    }
    observationQueue().sync([&] { m_observations->observers.emplace(token, observer); });
    return token;
}

void Observable::removeObserverWithBlockToken(std::string_view token) {
    std::shared_ptr<KeyPathObserver> observer;
    observationQueue().sync([&] {
        if (const auto found = m_observations->observers.find(token); found != m_observations->observers.end()) {
            observer = std::move(found->second);
            m_observations->observers.erase(found);
        }
    });
    if (!observer)
        return systemLog(
            format("Ignoring the attempt to remove a non-existent observer of %@ with token %@", description(), token));
    observer->cancel();
    observer->unfollow(0);
}

void Observable::removeAllObservationsWithSavedTokens() { m_observations->endAll(); }

}  // namespace velkor::NS
