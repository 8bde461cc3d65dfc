#include "platform/observation/Observable.h"

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/base/Exception.h"
#include "platform/base/SystemLog.h"
#include "platform/concurrency/OperationQueue.h"

namespace velkor::NS {
namespace {

struct Preferences : Observable {
    std::string description() const override { return "the preferences"; }
};

class ObservableTest : public testing::Test {
protected:
    void TearDown() override { setSystemLogHandler({}); }
    Observable::Task counting() {
        return [this](Observable&, const Dictionary&) { ++m_calls; };
    }
    std::shared_ptr<Preferences> m_object = std::make_shared<Preferences>();
    std::atomic<int> m_calls = 0;
};

TEST_F(ObservableTest, runsTheTaskAfterEachChangeOnTheChangingThread) {
    Value seen;
    std::thread::id thread;
    m_object->addObserverForKeyPath("size", [&](Observable& object, const Dictionary& change) {
        seen = object.valueForKey("size");
        thread = std::this_thread::get_id();
        EXPECT_EQ(change["kind"], Value(1));
    });
    m_object->setValueForKey(12, "size");
    EXPECT_EQ(seen, Value(12));
    std::thread other([&] { m_object->setValueForKey(Value(), "size"); });
    const auto id = other.get_id();
    other.join();
    EXPECT_TRUE(seen.isNil());
    EXPECT_EQ(thread, id);
    m_object->setValueForKey(1, "colour");
    EXPECT_TRUE(seen.isNil());
}

TEST_F(ObservableTest, followsTheObjectsOnANestedPath) {
    const auto first = std::make_shared<Preferences>(), second = std::make_shared<Preferences>();
    m_object->addObserverForKeyPath("editor.font.size", counting());
    m_object->setValueForKey(first, "editor");  // 1
    const auto font = std::make_shared<Preferences>();
    first->setValueForKey(font, "font");                   // 2
    m_object->setValueForKeyPath(12, "editor.font.size");  // 3
    EXPECT_EQ(m_object->valueForKeyPath("editor.font.size"), Value(12));
    EXPECT_EQ(m_calls, 3);
    m_object->setValueForKey(second, "editor");  // 4
    font->setValueForKey(13, "size");            // no longer on the path
    first->setValueForKey(font, "font");
    EXPECT_EQ(m_calls, 4);
    second->setValueForKey(font, "font");  // 5
    font->setValueForKey(14, "size");      // 6
    EXPECT_EQ(m_calls, 6);
    m_object->setValueForKey(Value(), "editor");  // 7
    font->setValueForKey(15, "size");
    EXPECT_EQ(m_calls, 7);
    EXPECT_TRUE(m_object->valueForKeyPath("editor.font.size").isNil());
    m_object->setValueForKeyPath(1, "editor.font.size");  // nowhere to put it
    m_object->setValueForKey("a text", "editor");
    EXPECT_THROW(m_object->setValueForKeyPath(1, "editor.font"), Exception);
    EXPECT_THROW(m_object->addObserverForKeyPath("editor..size", counting()), Exception);
}

TEST_F(ObservableTest, removedObserversAreNotCalled) {
    std::set<std::string> tokens;
    for (int i = 0; i < 3; ++i) tokens.insert(m_object->addObserverForKeyPath("size", counting()));
    ASSERT_EQ(tokens.size(), 3u);
    m_object->removeObserverWithBlockToken(*tokens.begin());
    m_object->setValueForKey(1, "size");
    EXPECT_EQ(m_calls, 2);
    m_object->removeAllObservationsWithSavedTokens();
    m_object->setValueForKey(2, "size");
    EXPECT_EQ(m_calls, 2);
}

TEST_F(ObservableTest, theFirstExceptionOfATaskIsRaisedWhenAllHaveRun) {
    m_object->addObserverForKeyPath("size", [](Observable&, const Dictionary&) { throw std::runtime_error("task"); });
    m_object->addObserverForKeyPath("size", counting());
    EXPECT_THROW(m_object->setValueForKey(1, "size"), std::runtime_error);
    EXPECT_EQ(m_calls, 1);
}

TEST_F(ObservableTest, anObserverThatCannotFollowItsPathIsNotKept) {
    struct Moody : Preferences {
        bool raises = true;
        Value valueForKey(std::string_view key) const override {
            return raises ? throw std::runtime_error("no value") : Preferences::valueForKey(key);
        }
    };
    Moody moody;
    EXPECT_THROW(moody.addObserverForKeyPath("inner.value", counting()), std::runtime_error);
    moody.raises = false;
    moody.setValueForKey(1, "inner");
    EXPECT_EQ(m_calls, 0);
}

TEST_F(ObservableTest, anUnknownTokenIsLoggedAndIgnored) {
    std::vector<std::string> lines;
    setSystemLogHandler([&](std::string_view line) { lines.emplace_back(line); });
    const std::string token = m_object->addObserverForKeyPath("size", counting());
    m_object->removeObserverWithBlockToken(token);
    EXPECT_TRUE(lines.empty());
    m_object->removeObserverWithBlockToken(token);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("the preferences"), std::string::npos);
    EXPECT_NE(lines[0].find(token), std::string::npos);
}

TEST_F(ObservableTest, submitsTheTaskToTheQueue) {
    OperationQueue queue;
    queue.setMaxConcurrentOperationCount(1);
    std::thread::id thread;
    m_object->addObserverForKeyPath("size", &queue, [&](Observable&, const Dictionary&) { thread = std::this_thread::get_id(); });
    m_object->setValueForKey(1, "size");
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_NE(thread, std::thread::id());
    EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_F(ObservableTest, aTaskMayRemoveItselfAndLetItsObjectGo) {
    auto holder = std::make_shared<Preferences>();
    std::string token;
    token = m_object->addObserverForKeyPath("inner.value", [&](Observable& object, const Dictionary&) {
        ++m_calls;
        object.removeObserverWithBlockToken(token);
        m_object.reset();
    });
    m_object->setValueForKey(holder, "inner");
    EXPECT_FALSE(m_object);
    holder->setValueForKey(1, "value");
    EXPECT_EQ(m_calls, 1);
}

TEST_F(ObservableTest, staysInStepWhileThreadsReplaceTheObjectsOnThePath) {
    std::vector<std::shared_ptr<Preferences>> inner;
    for (int i = 0; i < 4; ++i) inner.push_back(std::make_shared<Preferences>());
    m_object->addObserverForKeyPath("inner.value", counting());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 300; ++i) {
                m_object->setValueForKey(inner[static_cast<std::size_t>((t + i) % 4)], "inner");
                inner[static_cast<std::size_t>(t)]->setValueForKey(i, "value");
                OperationQueue queue;  // goes right after the observation, whoever is changing
                const auto token = m_object->addObserverForKeyPath("inner.value", i % 2 ? &queue : nullptr, counting());
                m_object->removeObserverWithBlockToken(token);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    const auto current = m_object->valueForKey("inner").as<Preferences>();
    for (const auto& object : inner) {
        const int before = m_calls;
        object->setValueForKey("last", "value");
        EXPECT_EQ(m_calls - before, object == current ? 1 : 0);
    }
}

}  // namespace
}  // namespace velkor::NS
