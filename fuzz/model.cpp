#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "objectstore/ManagedObjectModel.h"
#include "objectstore/sqlite/StoreSchema.h"
#include "platform/persistence/PropertyList.h"

using namespace velkor;

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

}  // namespace

// Whatever is taken as a model describes itself as the same model and has tables that SQLite can make.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
    const auto plist = NS::propertyListFromBytes({reinterpret_cast<const char*>(bytes), size});
    if (!plist) return 0;
    const auto model = NS::ManagedObjectModel::modelFromPropertyList(plist.value());
    if (!model) {
        require(!model.error().localizedDescription().empty());
        return 0;
    }
    const NS::Value description = model.value()->propertyList();
    const auto again = NS::ManagedObjectModel::modelFromPropertyList(description);
    require(again && again.value()->propertyList() == description);
    // A store file keeps the model as text.
    const auto text = NS::propertyListXML(description);
    require(text.ok());
    const auto read = NS::propertyListFromBytes(text.value());
    require(read && NS::ManagedObjectModel::modelFromPropertyList(read.value()).ok());

    const NS::sqlite::StoreSchema schema(model.value());
    sqlite3* database = nullptr;
    require(sqlite3_open(":memory:", &database) == SQLITE_OK);
    const auto run = [&](const std::string& sql) {
        require(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK);
    };
    for (std::size_t i = 0; i < schema.tableCount(); ++i) run(schema.table(i).creationSQL());
    for (const auto& [name, sql] : schema.joinTables()) run(sql);
    for (const auto& [name, sql] : schema.indices()) run(sql);
    for (std::size_t i = 0; i < schema.tableCount(); ++i) {
        run(schema.table(i).rowSQL);
        for (const std::string& sql : schema.detachSQL(*schema.table(i).entity)) run(sql);
    }
    sqlite3_close(database);
    return 0;
}
