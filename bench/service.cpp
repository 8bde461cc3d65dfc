// Many users who sync at once: what a request to velkord costs then.
//   bench_service [OPTION...]    options for velkord, such as --database; without any, an embedded database in a new directory
// Every cycle of a client takes the lock, brings ten changes, gets the ten of the user's other client, and gives the lock back.
// The status is 1 when a request failed, or when the slowest hundredth took 20 times as long as the median.
#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "PelmoLib/encodings/NSData+Compression.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "bench/Velkord.h"
#include "json/CJSONDeserializer.h"

namespace {

using namespace velkor;

constexpr int users = 200, cycles = 10, changesPerCycle = 10;
constexpr double mostTimesTheMedian = 20;

/// The changes request of one side's cycle; the payloads are the same for all users.
std::string changesOf(char side, int cycle, std::int64_t highest) {
    std::string payload, packed;
    appendZlibDeflate(packed, R"({"attributes":{"title":"in cycle )" + std::to_string(cycle) + R"("},"relationships":{}})");
    payload = base64Encoding(packed);
    std::string body = R"({"xactions":{)";
    for (int i = 0; i < changesPerCycle; ++i) {
        const std::string guid = side + std::to_string(i);
        body += (i > 0 ? ",\"" : "\"") + guid +
                R"(":{"xaction_time":"2024-05-06T07:08:09+0000","xaction_type":"UPDATE_XACTION",)" +
                R"("xaction_object_type":"Note","xaction_object_guid":")" + guid + R"(","xaction_object":")" + payload + "\"}";
    }
    return body + R"(},"HIGHEST_XACTION":)" + std::to_string(highest) + R"(,"app_id":"app","instance_id":")" + side +
           R"(","multi_part":false})";
}

/// One user with two clients, A and B, which sync in turn over one connection, a request at a time.
class User {
public:
    User(CURLM* multi, const std::string& url, int number)
        : m_multi(multi), m_url(url), m_email("u" + std::to_string(number) + "@example.org"), m_curl(curl_easy_init()) {
        m_headers = curl_slist_append(nullptr, ("Authorization: Basic " + base64Encoding(m_email + ":secret")).c_str());
        m_headers = curl_slist_append(m_headers, "Expect:");
        start("/users.json", R"({"user":{"email":")" + m_email + R"(","password":"secret"}})");
    }
    ~User() {
        curl_easy_cleanup(m_curl);
        curl_slist_free_all(m_headers);
    }
    User(const User&) = delete;
    User& operator=(const User&) = delete;

    /// Starts the first of so many further cycles.
    void run(int count) {
        m_last = m_cycle + count;
        startLock();
    }
    /// Takes the answer to the request at hand and starts the next one.
    void finish(CURLcode code) {
        curl_multi_remove_handle(m_multi, m_curl);
        curl_off_t time = 0;
        long status = 0;
        curl_easy_getinfo(m_curl, CURLINFO_TOTAL_TIME_T, &time);
        curl_easy_getinfo(m_curl, CURLINFO_RESPONSE_CODE, &status);
        times.push_back(static_cast<double>(time) / 1000);
        const bool failed = code != CURLE_OK || status != 200;
        errors += failed;
        if (failed) return;
        switch (m_step) {
            case Step::signUp:
                return;
            case Step::lock:
                m_id = *answer()["user_id"].asInteger();
                return startChanges();
            case Step::changes:
                takeChanges();
                return startUnlock();
            case Step::unlock:
                return ++m_cycle < m_last ? startLock() : void();
        }
    }

    std::vector<double> times;  // of the requests, in milliseconds
    int errors = 0;

private:
    enum class Step { signUp, lock, changes, unlock };

    char side() const { return m_cycle % 2 == 0 ? 'A' : 'B'; }
    NS::Dictionary answer() const { return CJSONDeserializer::deserializer().deserializeAsDictionary(m_answer, nullptr).value(); }

    void startLock() {
        m_step = Step::lock;
        start(std::string("/client/v1.5/app/") + side() + "/lock.json", "");
    }
    void startChanges() {
        m_step = Step::changes;
        start("/users/" + std::to_string(m_id) + "/transactions.json", changesOf(side(), m_cycle, m_highest[m_cycle % 2]));
    }
    void takeChanges() {
        const auto members = answer();
        m_highest[m_cycle % 2] = *members["HIGHEST_XACTION"].asInteger();
        const auto count = members["new_xactions"].asArray()->size();
        errors += m_cycle > 0 && count != static_cast<std::size_t>(changesPerCycle);
    }
    void startUnlock() {
        m_step = Step::unlock;
        start(std::string("/client/app/") + side() + "/unlock.json", "");
    }
    void start(const std::string& path, std::string body) {
        m_body = std::move(body);
        m_answer.clear();
        curl_easy_reset(m_curl);
        curl_easy_setopt(m_curl, CURLOPT_URL, (m_url + path).c_str());
        curl_easy_setopt(m_curl, CURLOPT_PROXY, "");
        curl_easy_setopt(m_curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(m_curl, CURLOPT_HTTPHEADER, m_headers);
        curl_easy_setopt(m_curl, CURLOPT_PRIVATE, this);
        curl_easy_setopt(m_curl, CURLOPT_WRITEDATA, &m_answer);
        curl_easy_setopt(
            m_curl, CURLOPT_WRITEFUNCTION, +[](char* bytes, std::size_t size, std::size_t count, void* out) {
                static_cast<std::string*>(out)->append(bytes, size * count);
                return size * count;
            });
        if (!m_body.empty()) {
            curl_easy_setopt(m_curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(m_body.size()));
            curl_easy_setopt(m_curl, CURLOPT_POSTFIELDS, m_body.data());
        }
        curl_multi_add_handle(m_multi, m_curl);
    }

    CURLM* const m_multi;
    const std::string m_url, m_email;
    CURL* const m_curl;
    curl_slist* m_headers = nullptr;
    Step m_step = Step::signUp;
    std::string m_body, m_answer;
    std::int64_t m_id = 0;
    std::array<std::int64_t, 2> m_highest{-1, -1};
    int m_cycle = 0, m_last = 0;
};

/// Runs all requests, and those that they lead to, to their end.
void exchange(CURLM* multi) {
    for (int running = 1; running > 0;) {
        curl_multi_perform(multi, &running);
        int left = 0;
        while (const CURLMsg* message = curl_multi_info_read(multi, &left)) {
            User* user = nullptr;
            curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &user);
            user->finish(message->data.result);
            running = 1;
        }
        curl_multi_poll(multi, nullptr, 0, running > 0 ? 100 : 0, nullptr);
    }
}

}  // namespace

int main(int count, char** arguments) {
    curl_global_init(CURL_GLOBAL_ALL);
    const Velkord server(std::vector<std::string>(arguments + 1, arguments + count));
    CURLM* multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_MAXCONNECTS, static_cast<long>(users));
    std::vector<double> times;
    int errors = 0;
    double seconds = 0;
    {
        std::vector<std::unique_ptr<User>> everybody;
        for (int i = 0; i < users; ++i) everybody.push_back(std::make_unique<User>(multi, server.url(), i));
        exchange(multi);
        // Both clients of each user have synced once, and the passwords are proven, when the measurement begins.
        for (auto& user : everybody) user->run(2);
        exchange(multi);
        for (auto& user : everybody) user->times.clear();
        const auto begin = std::chrono::steady_clock::now();
        for (auto& user : everybody) user->run(cycles);
        exchange(multi);
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        for (auto& user : everybody) {
            errors += user->errors;
            times.insert(times.end(), user->times.begin(), user->times.end());
        }
    }
    curl_multi_cleanup(multi);
    if (times.empty()) throw std::runtime_error("no request was answered");
    std::sort(times.begin(), times.end());
    const double median = times[times.size() / 2], p99 = times[times.size() * 99 / 100];
    const bool good = errors == 0 && times.size() == users * cycles * 3u && p99 < mostTimesTheMedian * median;
    std::printf(
        "%d users at once: %zu requests in %.1f s, %d errors, median %.1f ms, p99 %.1f ms (%.1f x), slowest %.1f ms: %s\n", users,
        times.size(), seconds, errors, median, p99, p99 / median, times.back(), good ? "good" : "NOT GOOD");
    return good ? 0 : 1;
}
