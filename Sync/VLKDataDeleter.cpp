#include "Sync/VLKDataDeleter.h"

#include <utility>

namespace velkor {

std::shared_ptr<VLKDataDeleter> VLKDataDeleter::downloadUrl(std::string url) {
    return std::shared_ptr<VLKDataDeleter>(new VLKDataDeleter(std::move(url)));
}

void VLKDataDeleter::start() { startWithMethod("DELETE"); }

}  // namespace velkor
