#include "service/BlobDirectory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>

#include "PelmoLib/encodings/NSString+UUID.h"
#include "platform/base/DurableStep.h"
#include "service/BlobStore.h"
#include "service/Signing.h"

namespace velkor::service {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t nameLength = 36, hashLength = 40;
constexpr std::uint64_t pushedAtOnce = 8 << 20;
constexpr const char* incomingDirectory = "incoming";

bool isHexDigit(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

fs::path shardOf(std::string_view fileName) { return std::string(fileName.substr(0, 2)); }

bool isGone(int error) { return error == ENOENT; }

void makeDurable(const fs::path& directory) {
    const NS::FileDescriptor descriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    NS::durableStep("blob directory");
    // Some file systems cannot synchronise a directory; there a rename is as durable as it gets.
    if (!descriptor || (::fsync(descriptor.number()) != 0 && errno != EINVAL && errno != ENOTSUP)) {
        throw BlobStoreFailure("cannot synchronise a blob directory: " + std::string(std::strerror(errno)));
    }
}

/// While a file is being written its writer holds a lock on it, so one without a lock is a dead process's.
void removeAbandoned(const fs::path& directory) {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(directory, error)) {
        const NS::FileDescriptor descriptor(::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC));
        if (descriptor && ::flock(descriptor.number(), LOCK_EX | LOCK_NB) == 0) ::unlink(entry.path().c_str());
    }
}

}  // namespace

IncomingBlob::IncomingBlob(fs::path root, std::string name)
    : m_root(std::move(root)), m_file(m_root / incomingDirectory / stringWithUUID()), m_name(std::move(name)) {
    m_descriptor = NS::FileDescriptor(::open(m_file.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    struct stat status {};
    // A process that starts may take the file for an abandoned one before the lock is held.
    if (!m_descriptor || ::flock(m_descriptor.number(), LOCK_EX) != 0 || ::fstat(m_descriptor.number(), &status) != 0 ||
        status.st_nlink == 0) {
        fail("make");
    }
}

IncomingBlob::~IncomingBlob() {
    if (!m_published) ::unlink(m_file.c_str());
}

void IncomingBlob::write(std::string_view bytes) {
    m_digest.update(bytes);
    while (!bytes.empty()) {
        const ssize_t written = ::write(m_descriptor.number(), bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written < 0) fail("write");
        bytes.remove_prefix(static_cast<std::size_t>(written));
        m_written += static_cast<std::uint64_t>(written);
    }
    // The disk works while the next bytes come, so that little is left to wait for at the end.
    if (m_written - m_pushed < pushedAtOnce) return;
    ::sync_file_range(m_descriptor.number(), static_cast<off64_t>(m_pushed), static_cast<off64_t>(m_written - m_pushed),
                      SYNC_FILE_RANGE_WRITE);
    m_pushed = m_written;
}

std::string IncomingBlob::publish() {
    const auto digest = m_digest.finish();
    const std::string hash = hexadecimal({reinterpret_cast<const char*>(digest.data()), digest.size()});
    const std::string fileName = BlobDirectory::fileName(m_name, hash);
    const fs::path shard = m_root / shardOf(fileName);
    NS::durableStep("blob content");
    if (::fsync(m_descriptor.number()) != 0) fail("synchronise");
    NS::durableStep("blob rename");
    if (::rename(m_file.c_str(), (shard / fileName).c_str()) != 0) fail("rename");
    m_published = true;
    makeDurable(shard);
    return hash;
}

void IncomingBlob::fail(const char* what) const {
    throw BlobStoreFailure(std::string("cannot ") + what + " a blob: " + std::strerror(errno));
}

NS::Result<std::unique_ptr<BlobDirectory>> BlobDirectory::open(const fs::path& root) {
    std::error_code error;
    fs::create_directories(root / incomingDirectory, error);
    constexpr char digits[] = "0123456789ABCDEF";
    for (int shard = 0; shard < 256 && !error; ++shard) {
        fs::create_directory(root / std::string{digits[shard >> 4], digits[shard & 15]}, error);
    }
    if (!error) fs::permissions(root, fs::perms::owner_all, error);
    if (error) {
        return NS::Error::withDescription(NS::PlatformErrorDomain, error.value(),
                                          "cannot make the blob directory " + root.string() + ": " + error.message());
    }
    try {
        makeDurable(root);
        makeDurable(root.parent_path());
    } catch (const BlobStoreFailure& failure) {
        return NS::Error::withDescription(NS::PlatformErrorDomain, 1, failure.what());
    }
    removeAbandoned(root / incomingDirectory);
    return std::unique_ptr<BlobDirectory>(new BlobDirectory(root));
}

std::unique_ptr<IncomingBlob> BlobDirectory::add(const std::string& name) const {
    return std::unique_ptr<IncomingBlob>(new IncomingBlob(m_root, name));
}

std::shared_ptr<BodyFile> BlobDirectory::read(std::string_view fileName) const {
    NS::FileDescriptor descriptor(::open((m_root / shardOf(fileName) / fileName).c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (!descriptor && isGone(errno)) return nullptr;
    if (!descriptor || ::fstat(descriptor.number(), &status) != 0) {
        throw BlobStoreFailure(std::string("cannot read a blob: ") + std::strerror(errno));
    }
    return std::make_shared<BodyFile>(BodyFile{std::move(descriptor), static_cast<std::uint64_t>(status.st_size)});
}

bool BlobDirectory::holds(std::string_view fileName) const {
    struct stat status {};
    if (::stat((m_root / shardOf(fileName) / fileName).c_str(), &status) == 0) return true;
    if (isGone(errno)) return false;
    throw BlobStoreFailure(std::string("cannot find a blob: ") + std::strerror(errno));
}

void BlobDirectory::remove(std::span<const std::string> names) const {
    // A name that was never confirmed may have any hash, so the directories are looked through, each once.
    std::map<fs::path, std::set<std::string_view>> shards;
    for (const auto& name : names) shards[shardOf(name)].insert(name);
    for (const auto& [shard, wanted] : shards) {
        std::error_code error;
        for (fs::directory_iterator at(m_root / shard, error), end; !error && at != end; at.increment(error)) {
            const std::string file = at->path().filename().string();
            if (!wanted.contains(std::string_view(file).substr(0, nameLength))) continue;
            if (::unlink(at->path().c_str()) != 0 && !isGone(errno)) {
                throw BlobStoreFailure(std::string("cannot remove a blob: ") + std::strerror(errno));
            }
        }
        if (error) throw BlobStoreFailure("cannot look through a blob directory: " + error.message());
    }
}

std::string BlobDirectory::fileName(std::string_view name, std::string_view hash) {
    return std::string(name) + '-' + std::string(hash);
}

bool BlobDirectory::isName(std::string_view text) {
    if (text.size() != nameLength) return false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (i == 8 || i == 13 || i == 18 || i == 23 ? text[i] != '-' : !isHexDigit(text[i])) return false;
    }
    return true;
}

bool BlobDirectory::isFileName(std::string_view text) {
    return text.size() == nameLength + 1 + hashLength && isName(text.substr(0, nameLength)) && text[nameLength] == '-' &&
           std::all_of(text.begin() + nameLength + 1, text.end(), isHexDigit);
}

}  // namespace velkor::service
