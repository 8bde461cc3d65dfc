#include "PelmoLib/VLKMocCreator.h"

namespace velkor {

namespace {
std::shared_ptr<VLKMocCreator>& current() {
    static std::shared_ptr<VLKMocCreator> creator;
    return creator;
}
}  // namespace

std::shared_ptr<VLKMocCreator> VLKMocCreator::sharedInstanceWithCreatorBlock(VLKContextCreator block) {
    current().reset(new VLKMocCreator(std::move(block)));
    return current();
}

std::shared_ptr<VLKMocCreator> VLKMocCreator::sharedInstance() noexcept { return current(); }

void VLKMocCreator::dropSharedInstance() noexcept { current().reset(); }

}  // namespace velkor
