#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "fuzz/SealedArchive.h"
#include "platform/persistence/KeyedArchiver.h"

using namespace velkor;

namespace {

struct Item : NS::Archivable {
    NS::Value content;
    std::string_view className() const noexcept override { return "Item"; }
    void encodeWithCoder(NS::Coder& coder) const override { coder.encodeObject(content, "content"); }
};

const bool registered = [] {
    NS::registerArchivableClass("Item", [](const NS::Coder& coder) {
        auto item = std::make_shared<Item>();
        item->content = coder.decodeObject("content");
        return item;
    });
    return true;
}();

}  // namespace

// Whatever is restored can be archived, and what that gives is restored to an archive of the same bytes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const std::string_view body(reinterpret_cast<const char*>(bytes), size);
    (void)NS::unarchiveObjectWithData(body);
    const auto value = NS::unarchiveObjectWithData(sealedArchive(body));
    if (!registered || !value) return 0;
    const NS::Data archive = NS::archivedDataWithRootObject(value.value());
    const auto again = NS::unarchiveObjectWithData(archive.view());
    if (!again || !(NS::archivedDataWithRootObject(again.value()) == archive)) std::abort();
    return 0;
}
