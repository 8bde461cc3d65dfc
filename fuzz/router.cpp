// Requests of any kind to the service on its embedded database. The input: a line "METHOD TARGET", a line with the value of the
// "Authorization" header, the body. Whatever can be read as credentials stands for those of the one user.
#include <cstdlib>
#include <string>
#include <string_view>

#include "PelmoLib/encodings/NSData_Base64.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "json/CJSONDeserializer.h"
#include "platform/base/SystemLog.h"
#include "platform/persistence/AtomicFile.h"
#include "service/DiskBlobStore.h"
#include "service/Passwords.h"
#include "service/Router.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using namespace velkor;
using namespace velkor::service;

constexpr std::int64_t now() { return 1'700'000'000'000; }

template <class T>
T opened(NS::Result<T> result) {
    if (!result) std::abort();
    return std::move(result).value();
}

/// The blobs' signing key is a known one, so that a seed can hold addresses that are signed.
std::unique_ptr<DiskBlobStore> openBlobStore(const std::filesystem::path& directory) {
    std::filesystem::create_directories(directory);
    if (!NS::writeFileAtomically(directory / "signing-key", std::string(72, 'k'))) std::abort();
    return opened(DiskBlobStore::open(directory, {.now = now, .isWanted = [](const std::string&) { return true; }}));
}

class Service {
public:
    Service() {
        if (!signUp()) std::abort();
    }
    Response answer(std::string_view method, std::string_view target, std::string_view authorization, std::string_view body) {
        Request request;
        request.method = method;
        request.target = target;
        request.authorization = authorization;
        request.origin = "http://service";
        request.length = body.size();
        if (!body.empty()) {
            if (auto refusal = m_router.admit(request, body.size())) return *std::move(refusal);
            request.body = Body(body);
        }
        return m_router.handle(request);
    }
    bool signUp() {
        constexpr std::string_view user = R"({"user":{"email":"u@example.org","password":"secret"}})";
        return answer("POST", "/users.json", "", user).status == 200;
    }
    bool knowsUser() { return answer("GET", "/transactions/verify.json", m_authorization, "").status == 200; }
    const std::string& authorization() const { return m_authorization; }

private:
    const test::TemporaryDirectory m_directory;
    const std::string m_authorization = "Basic " + base64Encoding(std::string_view("u@example.org:secret"));
    const std::unique_ptr<Database> m_database = opened(Database::open(m_directory / "data"));
    const std::unique_ptr<DiskBlobStore> m_blobs = openBlobStore(m_directory / "blobs");
    Router m_router{*m_database, *m_blobs, {.page = 2, .now = now}};
};

std::string_view takeUntil(std::string_view& rest, char end) {
    const auto text = rest.substr(0, rest.find(end));
    rest.remove_prefix(std::min(text.size() + 1, rest.size()));
    return text;
}

}  // namespace

// No request is answered by an internal failure, and every answer but those that are bytes is JSON.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    static std::unique_ptr<Service> service;
    if (!service) {
        NS::setSystemLogHandler([](std::string_view) {});
        VLKLog::sharedInstance().setLogLevel(0);
        service = std::make_unique<Service>();
    }
    std::string_view body(reinterpret_cast<const char*>(data), size);
    std::string_view target = takeUntil(body, '\n');
    const std::string_view method = takeUntil(target, ' '), header = takeUntil(body, '\n');
    const auto credentials = credentialsFromHeader(header);
    if (credentials && credentials->email.size() + credentials->password.size() > header.size()) std::abort();

    const Response response = service->answer(method, target, credentials ? service->authorization() : header, body);
    if (response.status < 200 || response.status >= 500) std::abort();
    if (!response.isBytes && !response.body.empty() &&
        CJSONDeserializer::deserializer().deserialize(std::string_view(response.body), nullptr).isNil()) {
        std::abort();
    }
    // The request may have removed the account, or changed its password.
    if (!service->knowsUser() && !service->signUp()) service = nullptr;
    return 0;
}
