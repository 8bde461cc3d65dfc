// What a client does with the service's blob endpoints and a blob store, over any way to send requests.
#pragma once

#include <curl/curl.h>

#include "PelmoLib/encodings/NSData+Digests.h"
#include "tests/service/ServiceFixture.h"

namespace velkor::service {

inline constexpr const char* missingCredentials = "Basic KG51bGwpOihudWxsKQ==";  // "(null):(null)"
inline constexpr const char* formType = "multipart/form-data; boundary=0xKhTmLbOuNdArY";

/// The body of an upload as clients send it.
inline std::string uploadBody(const std::vector<std::pair<std::string, std::string>>& fields, const std::string& content) {
    std::string body;
    for (const auto& [name, value] : fields) {
        body += "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + value + "\r\n";
    }
    return body +
           "--0xKhTmLbOuNdArY\r\nContent-Disposition: form-data; name=\"file\"; filename=\"filename\"\r\n"
           "Content-Type: application/octet-stream\r\n\r\n" +
           content + "\r\n--0xKhTmLbOuNdArY--";
}

/// The calls about one blob, with the authorization that the client sends.
class BlobCalls {
public:
    BlobCalls(Exchange exchange, std::string authorization, const std::string& guid, const std::string& attribute = "content",
              const std::string& app = "app")
        : m_exchange(std::move(exchange)),
          m_authorization(std::move(authorization)),
          m_path("/client_apps/" + app + "/blobs/" + guid + "/" + attribute + "/") {}

    Response call(const std::string& name) const {
        if (name == "wrote") return wrote(sha1HexHash(NS::Data("")));
        return m_exchange("GET", m_path + name + ".json", m_authorization, "");
    }
    Response wrote(const std::string& hash) const { return m_exchange("POST", m_path + "wrote.json", "", "hash=" + hash + "&"); }
    /// The URL that a call issues; empty when it is refused.
    std::string url(const std::string& name) const {
        const Response response = call(name);
        return response.status == 200 ? parsed(response.body)["url"].stringOr("") : "";
    }
    /// The form that "write.json" issues.
    BlobForm form() const {
        const NS::Dictionary answer = parsed(call("write").body);
        BlobForm form{answer["url"].stringOr(""), {}};
        if (const NS::Dictionary* fields = answer["signature"].asDictionary()) {
            for (const auto& field : *fields) form.fields.emplace_back(field.key(), field.value().stringOr(""));
        }
        return form;
    }

private:
    Exchange m_exchange;
    std::string m_authorization, m_path;
};

/// Requests to a blob store over one kept connection.
class HttpClient {
public:
    struct Answer {
        long status = 0;  // 0 when the connection breaks
        std::string body;
    };

    Answer send(const std::string& method, const std::string& url, const std::string& body = "", const std::string& type = "") {
        CURL* curl = m_curl.get();
        curl_easy_reset(curl);
        Answer answer;
        const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(
            curl_slist_append(nullptr, ("Content-Type: " + type).c_str()), curl_slist_free_all);
        curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
        curl_easy_setopt(curl, CURLOPT_PROXY, "");
        curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method.c_str());
        curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(curl, CURLOPT_TIMEOUT, 120L);
        if (!body.empty()) {
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.data());
        }
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer.body);
        curl_easy_setopt(
            curl, CURLOPT_WRITEFUNCTION, +[](char* bytes, std::size_t size, std::size_t count, void* out) {
                static_cast<std::string*>(out)->append(bytes, size * count);
                return size * count;
            });
        // A refusal may come before the body was sent, and end the connection.
        curl_easy_perform(curl);
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &answer.status);
        curl_easy_getinfo(curl, CURLINFO_NUM_CONNECTS, &m_newConnections);
        return answer;
    }
    /// Posts the file with the form as clients do; the status.
    long post(const BlobForm& form, const std::string& content) {
        return send("POST", form.url, uploadBody(form.fields, content), formType).status;
    }
    /// Whether the latest request went over the connection of the one before.
    bool keptConnection() const { return m_newConnections == 0; }

private:
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> m_curl{curl_easy_init(), curl_easy_cleanup};
    long m_newConnections = 0;
};

}  // namespace velkor::service
