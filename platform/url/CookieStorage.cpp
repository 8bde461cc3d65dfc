#include "platform/url/CookieStorage.h"

#include <array>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <utility>

#include "platform/base/Exception.h"
#include "platform/url/Curl.h"
#include "platform/url/HeaderName.h"

namespace velkor::NS {

namespace {

/// What of a URL decides about its cookies.
struct Place {
    std::string host;
    std::string path;
    bool secure = false;
};

/// One line of libcurl's cookie list, its fields parted by tabs.
struct CookieLine {
    enum Field : std::size_t { domain, tailMatch, path, secure, expiry, name, value, count };
    std::array<std::string, count> fields;

    explicit CookieLine(std::string_view line) {
        constexpr std::string_view hidden = "#HttpOnly_";
        if (line.starts_with(hidden)) line.remove_prefix(hidden.size());
        for (auto& field : fields) {
            const auto tab = line.find('\t');
            field = line.substr(0, tab);
            line.remove_prefix(tab == std::string_view::npos ? line.size() : tab + 1);
        }
    }

    const std::string& operator[](Field field) const noexcept { return fields[field]; }
    bool sessionOnly() const { return fields[expiry] == "0"; }
    /// An expired one may still be listed until the next exchange.
    bool hasExpired() const { return !sessionOnly() && std::strtoll(fields[expiry].c_str(), nullptr, 10) <= std::time(nullptr); }
    std::string expired() const {
        std::string line;
        for (std::size_t field = 0; field < count; ++field) {
            if (field > 0) line += '\t';
            line += field == expiry ? "1" : fields[field];
        }
        return line;
    }
    bool isSentTo(const Place& place) const {
        return !hasExpired() && matchesHost(place.host) && matchesPath(place.path) && (place.secure || fields[secure] != "TRUE");
    }

private:
    bool matchesHost(std::string_view host) const {
        std::string_view own = fields[domain];
        if (own.starts_with('.')) own.remove_prefix(1);
        if (detail::sameHeaderName(own, host)) return true;
        if (fields[tailMatch] != "TRUE" || host.size() <= own.size()) return false;
        const auto tail = host.substr(host.size() - own.size());
        return host[host.size() - own.size() - 1] == '.' && detail::sameHeaderName(own, tail);
    }
    bool matchesPath(std::string_view requested) const {
        const std::string& own = fields[path];
        if (!requested.starts_with(own)) return false;
        return own.ends_with('/') || requested.size() == own.size() || requested[own.size()] == '/';
    }
};

std::string partOf(CURLU* url, CURLUPart part) {
    char* text = nullptr;
    if (curl_url_get(url, part, &text, 0) != CURLUE_OK) return {};
    return detail::CurlText(text).get();
}

Place placeOf(std::string_view text) {
    detail::CurlURL url(curl_url());
    if (!url || curl_url_set(url.get(), CURLUPART_URL, std::string(text).c_str(), 0) != CURLUE_OK) return {};
    return {partOf(url.get(), CURLUPART_HOST), partOf(url.get(), CURLUPART_PATH), partOf(url.get(), CURLUPART_SCHEME) == "https"};
}

}  // namespace

struct CookieStorage::State {
    CURLSH* share = nullptr;
    std::array<std::mutex, CURL_LOCK_DATA_LAST> shareLocks;
    std::mutex mutex;
    detail::CurlEasy scratch;  // reads and writes the shared cookies; guarded by the mutex

    State() {
        detail::initializeCurl();
        share = curl_share_init();
        assertThat(share, "The shared cookies cannot be made");
        curl_share_setopt(share, CURLSHOPT_USERDATA, this);
        curl_share_setopt(
            share, CURLSHOPT_LOCKFUNC, +[](CURL*, curl_lock_data data, curl_lock_access, void* self) {
                static_cast<State*>(self)->shareLocks[data].lock();
            });
        curl_share_setopt(
            share, CURLSHOPT_UNLOCKFUNC,
            +[](CURL*, curl_lock_data data, void* self) { static_cast<State*>(self)->shareLocks[data].unlock(); });
        curl_share_setopt(share, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
        scratch.reset(curl_easy_init());
        curl_easy_setopt(scratch.get(), CURLOPT_SHARE, share);
        curl_easy_setopt(scratch.get(), CURLOPT_COOKIEFILE, "");
    }

    /// The cookies that would be sent to the URL; the mutex is held.
    std::vector<CookieLine> linesForURL(std::string_view url) {
        const Place place = placeOf(url);
        if (place.host.empty()) return {};
        curl_slist* list = nullptr;
        curl_easy_getinfo(scratch.get(), CURLINFO_COOKIELIST, &list);
        const detail::CurlList owned(list);
        std::vector<CookieLine> lines;
        for (auto* item = list; item; item = item->next) {
            CookieLine line(item->data);
            if (line.isSentTo(place)) lines.push_back(std::move(line));
        }
        return lines;
    }
};

CookieStorage::CookieStorage() : m_state(new State) {}

CookieStorage& CookieStorage::sharedStorage() {
    static auto* storage = new CookieStorage;
    return *storage;
}

std::vector<Cookie> CookieStorage::cookiesForURL(std::string_view url) const {
    std::unique_lock lock(m_state->mutex);
    std::vector<Cookie> cookies;
    for (const auto& line : m_state->linesForURL(url)) {
        cookies.push_back({line[CookieLine::name], line[CookieLine::value], line[CookieLine::domain], line[CookieLine::path],
                           line[CookieLine::secure] == "TRUE", line.sessionOnly()});
    }
    return cookies;
}

void CookieStorage::deleteSessionCookiesForURL(std::string_view url) {
    std::unique_lock lock(m_state->mutex);
    for (const auto& line : m_state->linesForURL(url)) {
        // There is no deletion but an expiry in the past.
        if (line.sessionOnly()) curl_easy_setopt(m_state->scratch.get(), CURLOPT_COOKIELIST, line.expired().c_str());
    }
}

void* CookieStorage::shareHandle() noexcept { return m_state->share; }

}  // namespace velkor::NS
