#include "tests/Sync/FakeBlobStore.h"

#include <algorithm>

namespace velkor::test {

namespace {

constexpr std::string_view endpointPrefix = "/client_apps/org.velkor.test/blobs/";
constexpr std::string_view storePrefix = "/store/";

/// The bytes of a form's last part.
std::string fileOf(const std::string& form) {
    constexpr std::string_view type = "application/octet-stream\r\n\r\n";
    const auto begin = form.find(type) + type.size();
    return form.substr(begin, form.rfind("\r\n--") - begin);
}

}  // namespace

FakeBlobStore::FakeBlobStore(FakeService& service) : m_service(service) {
    service.route("", endpointPrefix, [this](const FakeRequest& request) { return endpoint(request); });
    service.route("", storePrefix, [this](const FakeRequest& request) { return store(request); });
}

FakeAnswer FakeBlobStore::endpoint(const FakeRequest& request) {
    const auto path = request.target.substr(endpointPrefix.size());
    const auto slash = path.rfind('/');
    return answerTo(path.substr(slash + 1, path.rfind('.') - slash - 1), path.substr(0, slash), request);
}

FakeAnswer FakeBlobStore::store(const FakeRequest& request) {
    const auto verb = request.method == "POST" ? "upload" : request.method == "GET" ? "download" : "remove";
    return answerTo(verb, request.target.substr(storePrefix.size()), request);
}

FakeAnswer FakeBlobStore::answerTo(const std::string& verb, const std::string& name, const FakeRequest& request) {
    const std::lock_guard lock(m_mutex);
    m_steps.push_back(verb + " " + name);
    if (m_intercept) {
        if (auto answer = m_intercept(m_steps.back())) return std::move(*answer);
    }
    if (verb == "upload") {
        m_blobs[name] = fileOf(request.body);
        return FakeAnswer::text("", 204);
    }
    if (verb == "download") return m_blobs.contains(name) ? FakeAnswer::text(m_blobs[name]) : FakeAnswer::text("none", 404);
    if (verb == "remove") {
        m_blobs.erase(name);
        return FakeAnswer::text("", 204);
    }
    if (verb == "wrote") return FakeAnswer::json("{}");
    return FakeAnswer::json("{\"url\":\"" + m_service.url() + std::string(storePrefix) + name +
                            "\",\"signature\":{\"key\":\"k\"}}");
}

std::vector<std::string> FakeBlobStore::steps() const {
    const std::lock_guard lock(m_mutex);
    return m_steps;
}

std::size_t FakeBlobStore::countOf(std::string_view step) const {
    const auto all = steps();
    return static_cast<std::size_t>(std::count(all.begin(), all.end(), step));
}

std::optional<std::string> FakeBlobStore::blob(const std::string& name) const {
    const std::lock_guard lock(m_mutex);
    const auto found = m_blobs.find(name);
    return found == m_blobs.end() ? std::nullopt : std::optional(found->second);
}

void FakeBlobStore::keep(const std::string& name, std::string_view bytes) {
    const std::lock_guard lock(m_mutex);
    m_blobs[name] = bytes;
}

void FakeBlobStore::intercept(std::function<std::optional<FakeAnswer>(const std::string& step)> answer) {
    const std::lock_guard lock(m_mutex);
    m_intercept = std::move(answer);
}

void FakeBlobStore::refuse(std::string_view steps, std::size_t times) {
    intercept([prefix = std::string(steps), left = times](const std::string& step) mutable -> std::optional<FakeAnswer> {
        if (!step.starts_with(prefix) || left == 0) return std::nullopt;
        --left;
        return FakeAnswer::json(R"({"error":"refused"})", 503);
    });
}

}  // namespace velkor::test
