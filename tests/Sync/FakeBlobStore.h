// The service's blob endpoints and the blob store behind them, on a scripted service.
#pragma once

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/FakeService.h"

namespace velkor::test {

/// Keeps blobs in memory under "GUID/ATTRIBUTE". Any thread.
class FakeBlobStore {
public:
    /// Serves the application "org.velkor.test". The service must outlive it or get no more requests.
    explicit FakeBlobStore(FakeService& service);

    /// What has been asked so far, in order: "write a/content", "upload a/content", "wrote a/content"; "read", "download";
    /// "delete", "remove".
    std::vector<std::string> steps() const;
    std::size_t countOf(std::string_view step) const;
    std::optional<std::string> blob(const std::string& name) const;
    void keep(const std::string& name, std::string_view bytes);
    /// Answers a step otherwise; none: as usual. Called on a thread of the service, one call at a time.
    void intercept(std::function<std::optional<FakeAnswer>(const std::string& step)> answer);
    /// Refuses the next steps that begin so.
    void refuse(std::string_view steps, std::size_t times);

private:
    FakeAnswer answerTo(const std::string& verb, const std::string& name, const FakeRequest& request);
    FakeAnswer endpoint(const FakeRequest& request);
    FakeAnswer store(const FakeRequest& request);

    FakeService& m_service;
    mutable std::mutex m_mutex;
    // Guarded by the mutex.
    std::vector<std::string> m_steps;
    std::map<std::string, std::string> m_blobs;
    std::function<std::optional<FakeAnswer>(const std::string&)> m_intercept;
};

}  // namespace velkor::test
