#include "service/DiskBlobStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <charconv>

#include "PelmoLib/encodings/NSString+UUID.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "platform/persistence/AtomicFile.h"
#include "service/Forms.h"
#include "service/MultipartForm.h"
#include "service/Signing.h"

namespace velkor::service {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view uploadPath = "/blobs";
constexpr std::string_view blobPath = "/blobs/";
constexpr std::size_t keyLength = 72;

Response forbidden() { return Response::error(403, "This address is not signed, not any more, or for something else."); }
Response tooLarge() { return Response::error(413, "The blob is too large."); }

/// The key that the processes sharing the directory sign with. It is made once: whoever is first links it into place.
NS::Result<std::string> obtainKey(const fs::path& file) {
    std::error_code error;
    if (!fs::exists(file, error)) {
        const fs::path made = file.string() + "." + stringWithUUID();
        if (auto written = NS::writeFileAtomically(made, stringWithUUID() + stringWithUUID()); !written) return written.error();
        const bool linked = ::link(made.c_str(), file.c_str()) == 0 || errno == EEXIST;
        const NS::Error failure = NS::fileError("make", file);
        ::unlink(made.c_str());
        if (!linked) return failure;
    }
    auto key = NS::readFile(file, keyLength + 1);
    if (!key) return key.error();
    if (key.value().size() != keyLength) return NS::fileError("use", file, EINVAL);
    return std::string(key.value().view());
}

}  // namespace

/// One upload under way: the form's fields are checked before the first byte of the file is kept.
class DiskBlobStore::Upload : public BodyReceiver {
public:
    Upload(const DiskBlobStore& store, const Request& head) : m_store(store), m_form(head.contentType, head.length) {}

    std::optional<Response> take(std::string_view bytes) override {
        return guarded([&]() -> std::optional<Response> {
            std::string_view content;
            if (!m_form.take(bytes, content)) return Response::error(400, "The request is no upload form.");
            if (!m_blob && m_form.isAtFile()) {
                if (auto refusal = begin()) return refusal;
            }
            if (m_blob) m_blob->write(content);
            return std::nullopt;
        });
    }

    Response finish() {
        return *guarded([&]() -> std::optional<Response> {
            const auto rest = m_form.finish();
            if (!m_blob || !rest) return Response::error(400, "The request is no upload form.");
            m_blob->write(*rest);
            if (m_blob->size() > m_store.m_settings.maximumBlob) return tooLarge();
            if (!m_store.m_settings.isWanted(m_name)) return forbidden();
            m_blob->publish();
            return Response::empty(204);
        });
    }

private:
    std::optional<Response> begin() {
        m_name = m_form.field("key").value_or("");
        if (!m_store.isGood("POST", m_name, m_form.field("expires").value_or(""), m_form.field("signature").value_or("")) ||
            !BlobDirectory::isName(m_name) || !m_store.m_settings.isWanted(m_name)) {
            return forbidden();
        }
        // The closing line's own ending may make it two bytes less.
        if (m_form.fileSize() > m_store.m_settings.maximumBlob + 2) return tooLarge();
        m_blob = m_store.m_directory->add(m_name);
        return std::nullopt;
    }

    std::optional<Response> guarded(const std::function<std::optional<Response>()>& body) {
        try {
            return body();
        } catch (const std::exception& failure) {
            VLKLog::sharedInstance().logMessageAtLevel(100, "A blob was not taken: %@", failure.what());
            return Response::error(503, "The service cannot store the blob.");
        }
    }

    const DiskBlobStore& m_store;
    MultipartForm m_form;
    std::string m_name;
    std::unique_ptr<IncomingBlob> m_blob;
};

NS::Result<std::unique_ptr<DiskBlobStore>> DiskBlobStore::open(const fs::path& directory, Settings settings) {
    auto files = BlobDirectory::open(directory);
    if (!files) return files.error();
    auto key = obtainKey(directory / "signing-key");
    if (!key) return key.error();
    return std::unique_ptr<DiskBlobStore>(
        new DiskBlobStore(std::move(files).value(), std::move(key).value(), std::move(settings)));
}

BlobForm DiskBlobStore::uploadForm(const std::string& name, const std::string& origin) {
    const std::string expires = expiry();
    return {origin + std::string(uploadPath),
            {{"key", name}, {"expires", expires}, {"signature", signature("POST", name, expires)}}};
}

std::string DiskBlobStore::readURL(const std::string& name, const std::string& hash, const std::string& origin) {
    return signedURL("GET", BlobDirectory::fileName(name, hash), origin);
}

std::string DiskBlobStore::deleteURL(const std::string& name, const std::string& origin) {
    return signedURL("DELETE", name, origin);
}

bool DiskBlobStore::holds(const std::string& name, const std::string& hash) {
    return m_directory->holds(BlobDirectory::fileName(name, hash));
}

void DiskBlobStore::remove(std::span<const std::string> names) { m_directory->remove(names); }

std::shared_ptr<BodyReceiver> DiskBlobStore::receiver(const Request& head) {
    if (head.method != "POST" || head.target != uploadPath) return nullptr;
    return std::make_shared<Upload>(*this, head);
}

std::optional<Response> DiskBlobStore::serve(const Request& request) {
    const std::string_view target = request.target;
    if (target == uploadPath) {
        if (request.method != "POST") return Response::error(405, "This method is not for this path.");
        auto upload = std::dynamic_pointer_cast<Upload>(request.receiver);
        return upload ? upload->finish() : Response::error(411, "An upload says how long it is.");
    }
    if (!target.starts_with(blobPath)) return std::nullopt;
    const auto question = std::min(target.find('?'), target.size());
    const std::string name(target.substr(blobPath.size(), question - blobPath.size()));
    constexpr std::array<FormField, 2> fields{FormField{"expires"}, FormField{"signature"}};
    const auto values = readForm(target.substr(std::min(question + 1, target.size())), fields);
    if (!isGood(request.method, name, values[0].value_or(""), values[1].value_or(""))) return forbidden();
    if (request.method == "DELETE" && BlobDirectory::isName(name)) {
        m_directory->remove(std::span(&name, 1));
        return Response::empty(204);
    }
    if (request.method != "GET" || !BlobDirectory::isFileName(name)) return forbidden();
    auto file = m_directory->read(name);
    return file ? Response::bytes(std::move(file)) : Response::error(404, "There is no such blob.");
}

std::string DiskBlobStore::expiry() const { return std::to_string(m_settings.now() / 1000 + blobURLSeconds); }

std::string DiskBlobStore::signature(std::string_view method, std::string_view name, std::string_view expires) const {
    std::string text(method);
    for (const auto part : {name, expires}) {
        text += '\n';
        text += part;
    }
    return hexadecimal(hmacSHA256(m_key, text));
}

std::string DiskBlobStore::signedURL(std::string_view method, std::string_view name, const std::string& origin) const {
    const std::string expires = expiry();
    return origin + std::string(blobPath) + std::string(name) + "?expires=" + expires +
           "&signature=" + signature(method, name, expires);
}

bool DiskBlobStore::isGood(std::string_view method, std::string_view name, std::string_view expires,
                           std::string_view given) const {
    if (!equalsInConstantTime(given, signature(method, name, expires))) return false;
    std::int64_t seconds = 0;
    const auto [end, code] = std::from_chars(expires.data(), expires.data() + expires.size(), seconds);
    return code == std::errc() && end == expires.data() + expires.size() && m_settings.now() < seconds * 1000;
}

}  // namespace velkor::service
