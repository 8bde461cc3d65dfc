#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "service/Database.h"

namespace velkor::service {

/// A blob that was uploaded and confirmed.
struct StoredBlob {
    std::string name;  // in the blob store
    std::string hash;  // SHA-1, 40 lower-case digits
};

/// What the database knows of one attribute's blob. Each upload goes to a name of its own in the blob store, and takes the place
/// of the blob before it when it is confirmed: what was issued for an older name can neither spoil nor remove a newer blob. Names
/// that are not needed any more are removed from the store some time later (BlobSweeper). One transaction's thread.
class BlobTable {
public:
    BlobTable(Connection& connection, std::int64_t partition, std::string_view guid, std::string_view attribute)
        : m_connection(connection), m_partition(partition), m_guid(guid), m_attribute(attribute) {}

    std::optional<StoredBlob> current() const;
    /// A new name for an upload; times are milliseconds since 1970.
    std::string addUpload(std::int64_t now);
    /// The names for which nothing was confirmed yet, the latest first.
    std::vector<std::string> uploads() const;
    /// Makes the upload the current blob; false when it is no upload any more.
    bool confirm(const std::string& name, const std::string& hash, std::int64_t now);
    /// Takes the blob and all uploads out; the name that is to be deleted, or was so before and may still be there.
    std::optional<std::string> takeOut(std::int64_t now);

    /// Whether the name was given for an upload that is not confirmed yet.
    static bool isUpload(Connection& connection, const std::string& name);

private:
    Connection& m_connection;
    const std::int64_t m_partition;
    const std::string_view m_guid, m_attribute;
};

}  // namespace velkor::service
