// Received transactions replayed into a store. The input is the JSON text of "new_xactions"; in it "xaction_object" may be an
// object, which is then encoded as a payload, so that the fuzzer reaches what lies behind the compression.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "PelmoLib/VLKSyncableObject.h"
#include "PelmoLib/encodings/NSData+Compression.h"
#include "PelmoLib/encodings/NSData_Base64.h"
#include "PelmoLib/encodings/VLKLog.h"
#include "Sync/VLKChangeWriteOperation.h"
#include "json/CJSONDeserializer.h"
#include "json/CJSONSerializer.h"
#include "objectstore/ManagedObjectModel.h"
#include "objectstore/ObjectClass.h"
#include "platform/base/SystemLog.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

using namespace velkor;
using namespace velkor::NS;

class Item : public ManagedObject {};
class Label : public ManagedObject {};

std::shared_ptr<PersistentStoreCoordinator> openStore(const std::string& file) {
    ObjectClass::registerClass<Item>("Item").adopt(VLKSyncableObject).answersWithAttribute("expired");
    ObjectClass::registerClass<Label>("Label").adopt(VLKSyncableObject);
    ModelBuilder builder;
    builder.entity("Item")
        .attribute("guid", AttributeType::string)
        .attribute("title", AttributeType::string)
        .attribute("at", AttributeType::date)
        .attribute("count", AttributeType::integer16)
        .attribute("price", AttributeType::decimal)
        .attribute("score", AttributeType::doubleType)
        .attribute("expired", AttributeType::boolean)
        .attribute("any", AttributeType::transformable)
        .toOne("label", "Label", "items")
        .toMany("related", "Item", "related");
    builder.entity("Label")
        .attribute("guid", AttributeType::string)
        .attribute("name", AttributeType::string, false, "none")
        .toMany("items", "Item", "label", DeleteRule::cascade);
    auto store = PersistentStoreCoordinator::open(builder.build().value(), file);
    if (!store) std::abort();
    return std::move(store).value();
}

/// The entries with payloads that were given as objects encoded.
Array withPayloads(const Array& entries) {
    Array result;
    for (const Value& entry : entries) {
        const Dictionary* transaction = entry.asDictionary();
        if (!transaction) {
            result.push_back(entry);
            continue;
        }
        Dictionary encoded = *transaction;
        if (const Dictionary* object = (*transaction)["xaction_object"].asDictionary()) {
            const auto json = CJSONSerializer::serializer().serializeDictionary(*object, nullptr);
            if (json) encoded.set("xaction_object", "\"" + base64Encoding(*zlibDeflate(Data::copyOf(*json))) + "\"");
        }
        result.push_back(Dictionary{{"transaction", encoded}});
    }
    return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    static const test::TemporaryDirectory directory;
    static const auto store = [] {
        setSystemLogHandler([](std::string_view) {});
        VLKLog::sharedInstance().setLogLevel(400);
        return openStore(directory / "fuzz.sqlite");
    }();
    const auto entries = CJSONDeserializer::deserializer().deserializeAsArray(
        std::string_view(reinterpret_cast<const char*>(bytes), size), nullptr);
    if (!entries) return 0;
    std::shared_ptr<ManagedObjectContext> context;
    const auto operation = std::make_shared<VLKChangeWriteOperation>(
        Dictionary{{"new_xactions", withPayloads(*entries)}}, [&] { return context = ManagedObjectContext::create(store); }, "",
        "", "", "");
    operation->main();
    // The store stays small: what was written is removed again.
    const auto cleaner = ManagedObjectContext::create(store);
    for (const auto& entity : cleaner->managedObjectModel().entities()) {
        const auto objects = cleaner->executeFetchRequest(FetchRequest(entity.get()));
        if (!objects) std::abort();
        for (const auto& object : objects.value()) cleaner->deleteObject(object);
    }
    if (!cleaner->save()) std::abort();
    return 0;
}
