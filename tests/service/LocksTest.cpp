#include "service/Locks.h"

#include <thread>

#include "tests/service/ServiceFixture.h"

namespace velkor::service {
namespace {

class LocksTest : public ServiceFixture {
protected:
    std::int64_t activityOfLock() {
        return m_database->read([](Connection& connection) { return Locks::find(connection, 1)->active; });
    }
};

TEST_F(LocksTest, oneInstanceAUser) {
    TestClient a = client("A"), b = client("B"), otherApp = client("C", "other");
    const auto granted = parsed(a.lock().body);
    EXPECT_EQ(granted["user_id"].asInteger(), 1);
    m_time += 5000;
    const Response busy = b.lock();
    EXPECT_EQ(busy.status, 409);
    const auto answer = parsed(busy.body);
    EXPECT_EQ(answer["locked_by"].stringOr(""), "A");
    EXPECT_FALSE(answer["locked_since"].stringOr("").empty());
    EXPECT_TRUE(answer["error"].isString());
    EXPECT_EQ(otherApp.lock().status, 409);
    EXPECT_EQ(a.lock().status, 200);
    EXPECT_EQ(b.unlock().status, 200);  // not B's: nothing happens
    EXPECT_EQ(b.lock().status, 409);
    EXPECT_EQ(a.unlock().status, 200);
    EXPECT_EQ(a.unlock().status, 200);
    EXPECT_EQ(b.lock().status, 200);
}

TEST_F(LocksTest, theLeaseEndsOnlyForAnotherOneAndOnlyAfterSilence) {
    start({.leaseSeconds = 160});
    TestClient a = client("A"), b = client("B");
    a.lock();
    for (int i = 0; i < 5; ++i) {
        m_time += 100'000;
        EXPECT_EQ(a.changes({}).status, 200);
    }
    m_time += 160'000;
    EXPECT_EQ(b.lock().status, 409);
    m_time += 10'000;
    start({.leaseSeconds = 160});  // locks are durable
    EXPECT_EQ(a.changes({}).status, 200);
    m_time += 170'000;
    EXPECT_EQ(b.lock().status, 200);
    EXPECT_EQ(a.changes({}).status, 409);
    EXPECT_EQ(a.lock().status, 409);
}

TEST_F(LocksTest, pagesAndArrivingRequestsKeepTheLease) {
    start({.leaseSeconds = 16, .page = 1});
    TestClient a = client("A"), b = client("B");
    a.cycle({insertOf("n1"), insertOf("n2")});
    b.lock();
    const auto identifier = parsed(b.changes({}).body)["batched_download_identifier"].stringOr("");
    m_time += 15'000;
    EXPECT_EQ(b.page(1, identifier).status, 200);
    m_time += 15'000;
    EXPECT_EQ(a.lock().status, 409);
    Request upload;
    upload.method = "POST";
    upload.target = "/users/1/transactions.json";
    upload.authorization = basic("u@example.org", "secret");
    EXPECT_FALSE(m_router->admit(upload, 1'000'000));
    m_time += 50'000;
    // The process that takes the request in knows of it at once, others are reminded once in a while.
    while (activityOfLock() < m_time) std::this_thread::yield();
    EXPECT_EQ(a.lock().status, 409);
    EXPECT_EQ(a.lock().status, 409);
    upload.hold.reset();
    m_time += 50'000;
    EXPECT_EQ(a.lock().status, 200);
}

}  // namespace
}  // namespace velkor::service
