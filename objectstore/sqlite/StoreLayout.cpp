#include "objectstore/sqlite/StoreLayout.h"

#include <algorithm>
#include <optional>

#include "objectstore/sqlite/StoreFailure.h"
#include "platform/base/Array.h"
#include "platform/persistence/PropertyList.h"

namespace velkor::NS::sqlite {

namespace {

using Watched = PersistentStoreCoordinator::Watched;

Result<std::optional<std::string>> metaText(Connection& connection, std::string_view name) {
    auto lease = connection.prepare("SELECT value FROM meta WHERE name=?");
    if (!lease) return lease.error();
    lease.value()->bindText(1, name);
    const int code = lease.value()->step();
    if (code == SQLITE_ROW) return std::optional(std::string(lease.value()->text(0)));
    if (code == SQLITE_DONE) return std::optional<std::string>();
    return connection.failure(code);
}

Result<void> writeMetaText(Connection& connection, std::string_view name, std::string_view text) {
    return connection.run("INSERT INTO meta(name,value) VALUES(?,?) ON CONFLICT(name) DO UPDATE SET value=excluded.value",
                          [&](Statement& statement) {
                              statement.bindText(1, name);
                              statement.bindText(2, text);
                          });
}

Array plistOfTexts(const std::vector<std::string>& texts) {
    Array plist;
    for (const std::string& text : texts) plist.push_back(text);
    return plist;
}

std::vector<std::string> textsOfPlist(const Value& plist) {
    std::vector<std::string> texts;
    if (const Array* array = plist.asArray()) {
        for (const Value& text : *array) texts.push_back(text.stringOr(""));
    }
    return texts;
}

Array plistOfWatched(const std::vector<Watched>& watched) {
    Array plist;
    for (const Watched& each : watched) {
        plist.push_back(Dictionary{{"entity", each.entity}, {"attributes", plistOfTexts(each.attributes)}});
    }
    return plist;
}

std::vector<Watched> watchedOfPlist(const Value& plist) {
    std::vector<Watched> watched;
    if (const Array* array = plist.asArray()) {
        for (const Value& each : *array) {
            const Dictionary* members = each.asDictionary();
            if (members) watched.push_back({(*members)["entity"].stringOr(""), textsOfPlist((*members)["attributes"])});
        }
    }
    return watched;
}

StoreLayout::HistoryEntity historyEntity(const EntityDescription& entity, const std::vector<std::string>& keptAttributes) {
    StoreLayout::HistoryEntity described{entity.name(), {}};
    for (const std::string& name : keptAttributes) {
        const AttributeDescription* attribute = entity.attributeNamed(name);
        if (attribute) described.kept.push_back({SharedText(name), attribute->index});
    }
    return described;
}

}  // namespace

Watch::Watch(std::string name, const std::vector<Watched>& watched, const ManagedObjectModel& model)
    : m_name(std::move(name)), m_entities(model.entities().size()) {
    for (const Watched& each : watched) {
        const EntityDescription* entity = model.entityNamed(each.entity);
        if (!entity) continue;  // an earlier or later model's
        Attributes& attributes = m_entities[entity->index()];
        attributes.watched = true;
        attributes.changes.resize(entity->attributes().size());
        for (const std::string& attributeName : each.attributes) {
            const AttributeDescription* attribute = entity->attributeNamed(attributeName);
            if (attribute) attributes.changes[attribute->index] = true;
        }
    }
}

bool Watch::heeds(std::size_t entity, ChangeKind kind, std::span<const std::size_t> changedAttributes) const noexcept {
    const Attributes& attributes = m_entities[entity];
    if (!attributes.watched) return false;
    return kind != ChangeKind::updated || std::any_of(changedAttributes.begin(), changedAttributes.end(), [&](std::size_t place) {
               return place < attributes.changes.size() && attributes.changes[place];
           });
}

Result<std::shared_ptr<const StoreLayout>> StoreLayout::read(Connection& connection, const ManagedObjectModel& model) {
    auto layout = std::make_shared<StoreLayout>();
    auto generation = connection.integer("PRAGMA user_version");
    if (!generation) return generation.error();
    layout->generation = generation.value();
    auto text = metaText(connection, "model");
    if (!text) return text.error();
    if (!text.value()) return storeFileError(StoreError::notAStore, connection.file(), "is damaged: it holds no model");
    layout->modelText = std::move(*text.value());

    auto history = metaText(connection, "history");
    if (!history) return history.error();
    if (history.value()) {
        auto kept = propertyListFromBytes(*history.value());
        if (!kept)
            return storeFileError(StoreError::notAStore, connection.file(), "is damaged: its history settings cannot be read");
        layout->keepsHistory = true;
        layout->keptAttributes = textsOfPlist(kept.value());
        for (const auto& entity : model.entities())
            layout->historyEntities.push_back(historyEntity(*entity, layout->keptAttributes));
    }

    auto lease = connection.prepare("SELECT name,definition FROM watches ORDER BY name");
    if (!lease) return lease.error();
    auto read = connection.eachRow(*lease.value(), [&](Statement& row) -> Result<void> {
        auto definition = propertyListFromBytes(row.text(1));
        if (!definition) return storeFileError(StoreError::notAStore, connection.file(), "is damaged: a watch cannot be read");
        layout->watches.emplace_back(std::string(row.text(0)), watchedOfPlist(definition.value()), model);
        return {};
    });
    if (!read) return read.error();
    return std::shared_ptr<const StoreLayout>(std::move(layout));
}

Result<std::string> modelText(const ManagedObjectModel& model) { return propertyListXML(model.propertyList()); }

Result<void> createOwnTables(Connection& connection) {
    return connection.execute(
        "CREATE TABLE meta(name TEXT PRIMARY KEY,value TEXT NOT NULL) WITHOUT ROWID;"
        "CREATE TABLE counters(name TEXT PRIMARY KEY,next INTEGER NOT NULL) WITHOUT ROWID;"
        "CREATE TABLE watches(name TEXT PRIMARY KEY,stamp INTEGER NOT NULL,seen INTEGER NOT NULL,definition TEXT NOT NULL) "
        "WITHOUT ROWID;"
        "CREATE TABLE history(last INTEGER PRIMARY KEY,first INTEGER NOT NULL,time REAL NOT NULL,author TEXT NOT NULL,"
        "process TEXT NOT NULL,marked INTEGER NOT NULL,changes BLOB NOT NULL);"
        "PRAGMA application_id=" +
        std::to_string(applicationID));
}

Result<void> raiseGeneration(Connection& connection) {
    auto generation = connection.integer("PRAGMA user_version");
    if (!generation) return generation.error();
    return connection.execute("PRAGMA user_version=" + std::to_string(generation.value() + 1));
}

Result<void> writeModelText(Connection& connection, const std::string& text) { return writeMetaText(connection, "model", text); }

Result<void> writeHistorySettings(Connection& connection, const std::vector<std::string>& keptAttributes) {
    auto text = propertyListXML(plistOfTexts(keptAttributes));
    if (!text) return text.error();
    return writeMetaText(connection, "history", text.value());
}

Result<void> writeWatch(Connection& connection, std::string_view name, const std::vector<Watched>& watched) {
    auto text = propertyListXML(plistOfWatched(watched));
    if (!text) return text.error();
    return connection.run(
        "INSERT INTO watches(name,stamp,seen,definition) VALUES(?1,1,0,?2) "
        "ON CONFLICT(name) DO UPDATE SET stamp=stamp+1,definition=excluded.definition",
        [&](Statement& statement) {
            statement.bindText(1, name);
            statement.bindText(2, text.value());
        });
}

}  // namespace velkor::NS::sqlite
