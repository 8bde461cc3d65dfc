#include "Sync/VLKBlobStore.h"

#include <cstdlib>

namespace velkor {

std::string vlk_blobStoreURL() {
    const char* host = std::getenv("VELKORSYNC_BLOB_STORE");
    return std::string(host && *host ? host : VELKOR_BLOB_STORE) + "/VelkorSync";
}

}  // namespace velkor
