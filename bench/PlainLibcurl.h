#pragma once

#include <curl/curl.h>

#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

/// One connection of libcurl, with the curl tool's buffer size. A request that fails ends the program.
class PlainLibcurl {
public:
    /// `header` goes out with every request.
    explicit PlainLibcurl(const std::string& header = {}) {
        if (!header.empty()) m_headers = curl_slist_append(m_headers, header.c_str());
        curl_easy_setopt(m_easy, CURLOPT_PROXY, "");
        curl_easy_setopt(m_easy, CURLOPT_FAILONERROR, 1L);
        curl_easy_setopt(m_easy, CURLOPT_BUFFERSIZE, 102'400L);
        curl_easy_setopt(m_easy, CURLOPT_HTTPHEADER, m_headers);
        curl_easy_setopt(m_easy, CURLOPT_READDATA, this);
        curl_easy_setopt(
            m_easy, CURLOPT_READFUNCTION, +[](char* room, std::size_t, std::size_t size, void* self) {
                return static_cast<PlainLibcurl*>(self)->give(room, size);
            });
        curl_easy_setopt(m_easy, CURLOPT_WRITEDATA, this);
        curl_easy_setopt(
            m_easy, CURLOPT_WRITEFUNCTION, +[](char* bytes, std::size_t, std::size_t length, void* self) {
                static_cast<PlainLibcurl*>(self)->m_answer.append(bytes, length);
                return length;
            });
    }
    ~PlainLibcurl() {
        curl_slist_free_all(m_headers);
        curl_easy_cleanup(m_easy);
    }
    PlainLibcurl(const PlainLibcurl&) = delete;
    PlainLibcurl& operator=(const PlainLibcurl&) = delete;

    /// Each gives the answer's body, which stays until the next request.
    const std::string& get(const std::string& url, std::size_t expected = 0) {
        curl_easy_setopt(m_easy, CURLOPT_HTTPGET, 1L);
        return send(url, expected);
    }
    const std::string& post(const std::string& url, std::string_view body) {
        curl_easy_setopt(m_easy, CURLOPT_POST, 1L);
        curl_easy_setopt(m_easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        curl_easy_setopt(m_easy, CURLOPT_POSTFIELDS, body.data());
        return send(url, 0);
    }
    /// The body is the parts, one after another; none is copied as a whole.
    const std::string& post(const std::string& url, std::vector<std::string_view> parts) {
        std::size_t size = 0;
        for (const auto part : parts) size += part.size();
        m_parts = std::move(parts);
        curl_easy_setopt(m_easy, CURLOPT_POST, 1L);
        curl_easy_setopt(m_easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(size));
        curl_easy_setopt(m_easy, CURLOPT_POSTFIELDS, nullptr);
        return send(url, 0);
    }

private:
    const std::string& send(const std::string& url, std::size_t expected) {
        m_answer = {};
        m_answer.reserve(expected);
        curl_easy_setopt(m_easy, CURLOPT_URL, url.c_str());
        if (curl_easy_perform(m_easy) != CURLE_OK) std::abort();
        return m_answer;
    }
    std::size_t give(char* room, std::size_t size) {
        while (!m_parts.empty() && m_parts.front().empty()) m_parts.erase(m_parts.begin());
        if (m_parts.empty()) return 0;
        const std::size_t given = m_parts.front().copy(room, size);
        m_parts.front().remove_prefix(given);
        return given;
    }

    CURL* m_easy = curl_easy_init();
    curl_slist* m_headers = curl_slist_append(nullptr, "Expect:");
    std::vector<std::string_view> m_parts;  // of the body, not yet sent
    std::string m_answer;
};
