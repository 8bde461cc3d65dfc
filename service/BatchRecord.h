#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "service/Database.h"

namespace velkor::service {

// What the latest changes request of a partition named. Clients move their blobs without credentials right after that request,
// so it tells whose they are.

/// Keeps the request: the lock under which it came, its instance, the highest number before it, and the guids that it named
/// without getting a number, being repeats. In the open writing transaction.
void recordBatch(Connection& connection, std::int64_t partition, std::int64_t lockSerial, std::int64_t instance,
                 std::int64_t above, std::span<const std::string_view> repeats);

/// Forgets what was kept of a partition.
void forgetBatch(Connection& connection, std::int64_t partition);

/// A partition and the instance whose latest request, under the lock that it holds, named a guid.
struct BatchHolder {
    std::int64_t user = 0, partition = 0, instance = 0;
};
/// All of them for one app and guid; two at most, since more tell no more.
std::vector<BatchHolder> holdersThatNamed(Connection& connection, std::string_view app, std::string_view guid);

/// The user's instance of which that is true; 0 for none.
std::int64_t instanceThatNamed(Connection& connection, std::int64_t user, std::int64_t partition, std::string_view guid);

/// Who has blobs of a guid.
struct BlobOwner {
    BatchHolder owner;      // its user is 0 when nobody has
    bool isShared = false;  // another user has such an object or blob, too
};
BlobOwner blobOwner(Connection& connection, std::string_view app, std::string_view guid);

}  // namespace velkor::service
