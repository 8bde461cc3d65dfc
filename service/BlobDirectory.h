#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "PelmoLib/encodings/NSData+Digests.h"
#include "platform/base/Result.h"
#include "platform/persistence/FileDescriptor.h"
#include "service/HttpMessage.h"

namespace velkor::service {

/// A blob on its way into the directory. Gone without a trace unless it is published. One thread at a time.
class IncomingBlob {
public:
    ~IncomingBlob();
    IncomingBlob(const IncomingBlob&) = delete;
    IncomingBlob& operator=(const IncomingBlob&) = delete;

    /// Raises BlobStoreFailure, as when the disk is full.
    void write(std::string_view bytes);
    std::uint64_t size() const { return m_written; }
    /// The lower-case SHA-1 of everything; ends the writing. What was published is there after a power cut.
    std::string publish();

private:
    friend class BlobDirectory;
    IncomingBlob(std::filesystem::path root, std::string name);
    [[noreturn]] void fail(const char* what) const;

    const std::filesystem::path m_root, m_file;
    const std::string m_name;
    NS::FileDescriptor m_descriptor;
    SHA1Digest m_digest;
    std::uint64_t m_written = 0, m_pushed = 0;
    bool m_published = false;
};

/// The files of the embedded blob store: one a blob, called NAME-SHA1, in 256 directories by the start of the name. A blob that
/// is there is there whole. Several processes may share the directory. Any thread.
class BlobDirectory {
public:
    /// Opens the directory, which is made when missing, and removes what dead processes left half written.
    static NS::Result<std::unique_ptr<BlobDirectory>> open(const std::filesystem::path& root);

    std::unique_ptr<IncomingBlob> add(const std::string& name) const;
    /// The file's content; null when there is none.
    std::shared_ptr<BodyFile> read(std::string_view fileName) const;
    bool holds(std::string_view fileName) const;
    /// Removes all files of these names. Raises BlobStoreFailure.
    void remove(std::span<const std::string> names) const;

    static std::string fileName(std::string_view name, std::string_view hash);
    /// Whether the text is a UUID, as every name is.
    static bool isName(std::string_view text);
    static bool isFileName(std::string_view text);

private:
    explicit BlobDirectory(std::filesystem::path root) : m_root(std::move(root)) {}
    const std::filesystem::path m_root;
};

}  // namespace velkor::service
