// The connections' part of a run loop: one libcurl multi handle driven by libuv.
#pragma once

#include <uv.h>

#include <cstdint>
#include <memory>
#include <unordered_set>
#include <vector>

#include "platform/concurrency/RunLoopCore.h"
#include "platform/url/Curl.h"

namespace velkor::NS::detail {

class Transfer;

/// Drives the transfers of one run loop; connections to a host are kept and used again. It also ends transfers that have been
/// idle for too long: libcurl's low-speed limit looks at seconds and averages, and so hits some that were not. Belongs to the
/// loop's core, made by the first transfer; when the loop ends, running transfers end without a word. All calls on the loop's
/// thread.
class TransferLoop {
public:
    static TransferLoop& of(RunLoopCore& core);
    explicit TransferLoop(RunLoopCore& core);
    ~TransferLoop();

    /// A handle without options.
    CurlEasy takeHandle();
    /// For the next transfer; its caches are worth keeping.
    void giveBack(CurlEasy handle);

    /// Starts the transfer whose handle this is; it is told its end (`Transfer::ended`) unless it is removed before.
    void add(Transfer& transfer, CURL* handle);
    void remove(Transfer& transfer, CURL* handle);

private:
    /// One socket that libcurl wants to have watched.
    struct Watcher;

    static int socketChanged(CURL*, curl_socket_t socket, int what, void* self, void* watcher);
    static int timeChanged(CURLM*, long milliseconds, void* self);
    static void socketReady(uv_poll_t* poll, int status, int events);
    static void timeReached(uv_timer_t* timer);
    static void idleTimeReached(uv_timer_t* timer);
    void announceDue();
    void startIdleTimer(std::uint64_t deadline);
    void act(curl_socket_t socket, int events);
    void end(Transfer& transfer, CURL* handle, CURLcode result);
    uv_timer_t* makeTimer();

    RunLoopCore& m_core;
    CURLM* m_multi;
    // libuv wants them until they are closed.
    uv_timer_t* m_timer;
    uv_timer_t* m_idleTimer;  // runs while a transfer does
    bool m_isDue = false;     // libcurl wants to act at once
    bool m_dueIsAnnounced = false;
    std::unordered_set<Transfer*> m_running;
    std::vector<CurlEasy> m_spareHandles;
};

}  // namespace velkor::NS::detail
