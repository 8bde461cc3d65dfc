#pragma once

#include <string>

#include "platform/base/Export.h"

namespace velkor {

/// The blob store's base URL with the library's bucket: "https://s3.amazonaws.com/VelkorSync", unless the library was built for
/// another host (VELKOR_BLOB_STORE) or the environment names one (VELKORSYNC_BLOB_STORE, such as "http://127.0.0.1:8000").
/// Transfers go where the sync service's presigned requests lead; this only tells their owner.
VELKOR_EXPORT std::string vlk_blobStoreURL();

}  // namespace velkor
