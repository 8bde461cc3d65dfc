#include "platform/concurrency/NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>

#include "platform/base/Value.h"
#include "platform/concurrency/OperationQueue.h"
#include "platform/concurrency/RunLoop.h"

using namespace velkor::NS;

namespace {

struct NotificationCenterTest : testing::Test {
    NotificationCenter center;
    std::string heard;

    NotificationCenter::Token observe(std::string_view name, char mark, const Object* object = nullptr,
                                      OperationQueue* queue = nullptr) {
        return center.addObserver(name, object, queue, [this, mark](const Notification&) { heard += mark; });
    }
};

}  // namespace

TEST_F(NotificationCenterTest, DeliversByNameAndSenderInTheOrderOfRegistration) {
    Object one;
    Object other;
    observe("saved", 'a');
    observe("saved", 'b', &one);
    observe("deleted", 'c');
    observe("saved", 'd', &other);
    Notification received;
    center.addObserver("saved", nullptr, nullptr, [&](const Notification& notification) { received = notification; });
    center.post("saved", &one, {{"count", 3}});
    EXPECT_EQ(heard, "ab");
    EXPECT_EQ(received.name, "saved");
    EXPECT_EQ(received.object, &one);
    EXPECT_EQ(received.userInfo["count"].asInteger(), 3);
    center.post("saved", nullptr);
    EXPECT_EQ(heard, "aba") << "an anonymous notification is not from a certain sender";
    center.post("unknown", &one);
    EXPECT_EQ(heard, "aba");
}

TEST_F(NotificationCenterTest, ARemovedObserverIsNotCalledEvenInThePostThatIsRunning) {
    NotificationCenter::Token second;
    NotificationCenter::Token first = center.addObserver("saved", nullptr, nullptr, [&](const Notification&) {
        heard += 'a';
        center.removeObserver(first);
        center.removeObserver(second);
    });
    second = observe("saved", 'b');
    observe("saved", 'c');
    center.post("saved", nullptr);
    center.post("saved", nullptr);
    EXPECT_EQ(heard, "acc");
    center.removeObserver(second);
    center.removeObserver(nullptr);
}

TEST_F(NotificationCenterTest, ObserversMayBeAddedAndPostsMadeInsideOfAPost) {
    auto token = center.addObserver("saved", nullptr, nullptr, [&](const Notification&) {
        heard += 'a';
        if (heard.size() > 1) return;
        observe("saved", 'n');
        center.post("saved", nullptr);
    });
    center.post("saved", nullptr);
    EXPECT_EQ(heard, "aan") << "the inner post reaches the new one, the outer does not";
}

TEST_F(NotificationCenterTest, WhatABlockHoldsIsLetGoWithTheRegistration) {
    auto held = std::make_shared<int>(0);
    auto token = center.addObserver("saved", nullptr, nullptr, [held](const Notification&) {});
    center.removeObserver(token);
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(NotificationCenterTest, TheFirstExceptionOfAnObserverIsRaisedWhenAllHaveHeard) {
    center.addObserver("saved", nullptr, nullptr, [](const Notification&) { throw std::runtime_error("observer"); });
    observe("saved", 'a');
    center.addObserver("saved", nullptr, nullptr, [](const Notification&) { throw std::logic_error("another"); });
    observe("saved", 'b');
    EXPECT_THROW(center.post("saved", nullptr), std::runtime_error);
    EXPECT_EQ(heard, "ab");
}

TEST_F(NotificationCenterTest, AQueuedDeliveryIsDroppedByTheRemoval) {
    auto& loop = RunLoop::main();
    auto& queue = OperationQueue::mainQueue();
    auto token = observe("saved", 'q', nullptr, &queue);
    std::thread([&] { center.post("saved", nullptr); }).join();
    EXPECT_EQ(heard, "");
    loop.dispatchPending();
    EXPECT_EQ(heard, "q");
    center.post("saved", nullptr);
    center.removeObserver(token);
    loop.dispatchPending();
    EXPECT_EQ(heard, "q");
}

TEST_F(NotificationCenterTest, ThreadsPostAddAndRemoveAtOnce) {
    std::atomic<int> calls = 0;
    auto stays = center.addObserver("saved", nullptr, nullptr, [&](const Notification&) { ++calls; });
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (int i = 0; i < 300; ++i) {
                OperationQueue queue;  // goes right after the registration, whoever is posting
                auto token = center.addObserver("saved", nullptr, i % 2 ? &queue : nullptr, [](const Notification&) {});
                center.post("saved", nullptr);
                center.removeObserver(token);
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(calls, 1200);
}
