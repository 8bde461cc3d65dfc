#include "service/Fingerprints.h"

#include "PelmoLib/encodings/NSData+Digests.h"
#include "PelmoLib/encodings/NSData_Base64.h"

namespace velkor::service {
namespace {

constexpr Sql findFingerprint{"SELECT fingerprint FROM superseded WHERE object_id = :object AND instance = :instance", "ii:t"};
constexpr Sql storeFingerprint{
    "INSERT INTO superseded (object_id, instance, fingerprint) VALUES (:object, :instance, :fingerprint) "
    "ON CONFLICT (object_id, instance) DO UPDATE SET fingerprint = excluded.fingerprint",
    "iit:"};

std::string fingerprintOf(std::string_view body) {
    SHA256Digest digest;
    digest.update(body);
    const auto bytes = digest.finish();
    return base64Encoding(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

}  // namespace

void keepFingerprint(Connection& connection, std::int64_t objectRow, std::int64_t instance, std::string_view body) {
    connection.run(storeFingerprint, objectRow, instance, fingerprintOf(body));
}

bool isKeptFingerprint(Connection& connection, std::int64_t objectRow, std::int64_t instance, std::string_view body) {
    auto rows = connection.query(findFingerprint, objectRow, instance);
    return rows.next() && rows.text(0) == fingerprintOf(body);
}

}  // namespace velkor::service
