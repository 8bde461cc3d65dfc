#include "platform/url/TransferLoop.h"

#include <utility>

#include "platform/base/Exception.h"
#include "platform/url/Transfer.h"

namespace velkor::NS::detail {

namespace {

constexpr std::size_t mostSpareHandles = 8;

template <class Handle>
void closeAndDelete(Handle* handle) {
    uv_close(reinterpret_cast<uv_handle_t*>(handle), [](uv_handle_t* closed) { delete reinterpret_cast<Handle*>(closed); });
}

}  // namespace

void initializeCurl() {
    static const bool done = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    assertThat(done, "libcurl cannot be initialised");
}

struct TransferLoop::Watcher {
    uv_poll_t poll;
    curl_socket_t socket;
    TransferLoop& loop;
};

TransferLoop& TransferLoop::of(RunLoopCore& core) {
    if (!core.transfers) core.transfers = std::make_shared<TransferLoop>(core);
    return *core.transfers;
}

TransferLoop::TransferLoop(RunLoopCore& core) : m_core(core) {
    initializeCurl();
    m_multi = curl_multi_init();
    assertThat(m_multi, "The connections' handle cannot be made");
    m_timer = makeTimer();
    m_idleTimer = makeTimer();
    curl_multi_setopt(m_multi, CURLMOPT_SOCKETFUNCTION, &TransferLoop::socketChanged);
    curl_multi_setopt(m_multi, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(m_multi, CURLMOPT_TIMERFUNCTION, &TransferLoop::timeChanged);
    curl_multi_setopt(m_multi, CURLMOPT_TIMERDATA, this);
}

TransferLoop::~TransferLoop() {
    for (auto* transfer : std::exchange(m_running, {})) transfer->abandon(m_multi);
    m_spareHandles.clear();
    curl_multi_cleanup(m_multi);
    closeAndDelete(m_timer);
    closeAndDelete(m_idleTimer);
}

uv_timer_t* TransferLoop::makeTimer() {
    auto* timer = new uv_timer_t;
    uv_timer_init(m_core.uvLoop(), timer);
    timer->data = this;
    return timer;
}

CurlEasy TransferLoop::takeHandle() {
    if (m_spareHandles.empty()) return CurlEasy(curl_easy_init());
    CurlEasy handle = std::move(m_spareHandles.back());
    m_spareHandles.pop_back();
    return handle;
}

void TransferLoop::giveBack(CurlEasy handle) {
    if (m_spareHandles.size() >= mostSpareHandles) return;
    curl_easy_setopt(handle.get(), CURLOPT_COOKIEFILE, nullptr);  // the reset would forget to free it
    curl_easy_reset(handle.get());
    m_spareHandles.push_back(std::move(handle));
}

void TransferLoop::add(Transfer& transfer, CURL* handle) {
    curl_easy_setopt(handle, CURLOPT_PRIVATE, &transfer);
    assertThat(curl_multi_add_handle(m_multi, handle) == CURLM_OK, "A transfer cannot be started");
    m_running.insert(&transfer);
    startIdleTimer(transfer.idleDeadline());
    m_core.noteChange();
}

void TransferLoop::remove(Transfer& transfer, CURL* handle) {
    m_running.erase(&transfer);
    if (m_running.empty()) uv_timer_stop(m_idleTimer);
    curl_multi_remove_handle(m_multi, handle);
    m_core.noteChange();
}

int TransferLoop::socketChanged(CURL*, curl_socket_t socket, int what, void* self, void* assigned) {
    auto& loop = *static_cast<TransferLoop*>(self);
    auto* watcher = static_cast<Watcher*>(assigned);
    if (what == CURL_POLL_REMOVE) {
        if (!watcher) return 0;
        uv_poll_stop(&watcher->poll);
        uv_close(reinterpret_cast<uv_handle_t*>(&watcher->poll),
                 [](uv_handle_t* closed) { delete static_cast<Watcher*>(closed->data); });
        curl_multi_assign(loop.m_multi, socket, nullptr);
        return 0;
    }
    if (!watcher) {
        watcher = new Watcher{{}, socket, loop};
        if (uv_poll_init_socket(loop.m_core.uvLoop(), &watcher->poll, socket) != 0) {
            delete watcher;
            return -1;
        }
        watcher->poll.data = watcher;
        curl_multi_assign(loop.m_multi, socket, watcher);
    }
    const int events = (what & CURL_POLL_IN ? UV_READABLE : 0) | (what & CURL_POLL_OUT ? UV_WRITABLE : 0);
    uv_poll_start(&watcher->poll, events, &TransferLoop::socketReady);
    return 0;
}

int TransferLoop::timeChanged(CURLM*, long milliseconds, void* self) {
    auto& loop = *static_cast<TransferLoop*>(self);
    loop.m_isDue = milliseconds == 0;
    if (milliseconds <= 0) {
        uv_timer_stop(loop.m_timer);
        if (loop.m_isDue) loop.announceDue();
    } else {
        uv_update_time(loop.m_core.uvLoop());
        uv_timer_start(loop.m_timer, &TransferLoop::timeReached, static_cast<std::uint64_t>(milliseconds), 0);
    }
    return 0;
}

/// What is due at once waits for the ready list: a timer of libuv would run again and again in one turn, and a fast answer would
/// come whole before any of it is told.
void TransferLoop::announceDue() {
    if (std::exchange(m_dueIsAnnounced, true)) return;
    m_core.addReady([weak = std::weak_ptr(m_core.transfers)] {
        const auto loop = weak.lock();
        if (!loop) return;
        loop->m_dueIsAnnounced = false;
        if (std::exchange(loop->m_isDue, false)) loop->act(CURL_SOCKET_TIMEOUT, 0);
    });
}

/// Lets the idle timer fire at this time, unless it does so earlier.
void TransferLoop::startIdleTimer(std::uint64_t deadline) {
    const auto now = Transfer::now();
    const std::uint64_t wait = deadline > now ? deadline - now : 1;
    uv_update_time(m_core.uvLoop());
    if (uv_is_active(reinterpret_cast<uv_handle_t*>(m_idleTimer)) && uv_timer_get_due_in(m_idleTimer) <= wait) return;
    uv_timer_start(m_idleTimer, &TransferLoop::idleTimeReached, wait, 0);
}

void TransferLoop::idleTimeReached(uv_timer_t* timer) {
    auto& loop = *static_cast<TransferLoop*>(timer->data);
    const std::vector<Transfer*> running(loop.m_running.begin(), loop.m_running.end());
    for (auto* transfer : running) {
        if (transfer->isIdleAgain()) loop.end(*transfer, transfer->handle(), CURLE_OPERATION_TIMEDOUT);
    }
    for (auto* transfer : loop.m_running) loop.startIdleTimer(transfer->idleDeadline());
}

void TransferLoop::end(Transfer& transfer, CURL* handle, CURLcode result) {
    remove(transfer, handle);
    transfer.ended(result);
}

void TransferLoop::timeReached(uv_timer_t* timer) { static_cast<TransferLoop*>(timer->data)->act(CURL_SOCKET_TIMEOUT, 0); }

void TransferLoop::socketReady(uv_poll_t* poll, int status, int events) {
    auto* watcher = static_cast<Watcher*>(poll->data);
    int seen = 0;
    if (status < 0) seen = CURL_CSELECT_ERR;
    if (events & UV_READABLE) seen |= CURL_CSELECT_IN;
    if (events & UV_WRITABLE) seen |= CURL_CSELECT_OUT;
    watcher->loop.act(watcher->socket, seen);
}

void TransferLoop::act(curl_socket_t socket, int events) {
    int running = 0;
    curl_multi_socket_action(m_multi, socket, events, &running);
    int left = 0;
    while (auto* message = curl_multi_info_read(m_multi, &left)) {
        if (message->msg != CURLMSG_DONE) continue;
        CURL* handle = message->easy_handle;
        const CURLcode result = message->data.result;  // the message does not outlive the removal
        char* transfer = nullptr;
        curl_easy_getinfo(handle, CURLINFO_PRIVATE, &transfer);
        end(*reinterpret_cast<Transfer*>(transfer), handle, result);
    }
}

}  // namespace velkor::NS::detail
