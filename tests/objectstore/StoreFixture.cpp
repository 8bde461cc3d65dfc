#include "tests/objectstore/StoreFixture.h"

namespace velkor::test {

std::shared_ptr<const ManagedObjectModel> libraryModel() {
    ModelBuilder builder;
    builder.entity("Author")
        .attribute("guid", AttributeType::string)
        .attribute("name", AttributeType::string, false)
        .toMany("books", "Book", "author");
    builder.entity("Book")
        .attribute("guid", AttributeType::string)
        .attribute("title", AttributeType::string)
        .attribute("volume", AttributeType::integer16)
        .attribute("pages", AttributeType::integer32)
        .attribute("copies", AttributeType::integer64)
        .attribute("price", AttributeType::decimal)
        .attribute("rating", AttributeType::doubleType)
        .attribute("weight", AttributeType::floatType)
        .attribute("lent", AttributeType::boolean)
        .attribute("printed", AttributeType::date)
        .attribute("cover", AttributeType::binaryData)
        .attribute("notes", AttributeType::transformable)
        .attribute("origin", AttributeType::objectID)
        .toOne("author", "Author", "books")
        .toMany("tags", "Tag", "books")
        .toMany("related", "Book", "related")
        .toMany("readers", "Author", "");
    builder.entity("Tag").attribute("name", AttributeType::string).toMany("books", "Book", "tags");
    return must(builder.build());
}

std::shared_ptr<PersistentStoreCoordinator> StoreFixture::open(const StoreOptions& options) {
    return must(tryOpen(m_model, options));
}

Result<std::shared_ptr<PersistentStoreCoordinator>> StoreFixture::tryOpen(std::shared_ptr<const ManagedObjectModel> model,
                                                                          const StoreOptions& options) {
    return PersistentStoreCoordinator::open(std::move(model), m_file, options);
}

std::vector<Value> StoreFixture::row(const EntityDescription& entity, const std::map<std::string, Value>& values) {
    std::vector<Value> row(entity.attributes().size() + entity.relationships().size());
    for (const auto& [name, value] : values) row.at(column(entity, name)) = value;
    return row;
}

std::size_t StoreFixture::column(const EntityDescription& entity, std::string_view property) {
    if (const auto* attribute = entity.attributeNamed(property)) return attribute->index;
    return entity.attributes().size() + entity.relationshipNamed(property)->index;
}

RowKey StoreFixture::insert(StoreSession& session, const EntityDescription& entity, const std::map<std::string, Value>& values) {
    EXPECT_OK(session.begin());
    const RowKey key = must(session.insert(entity, 0, row(entity, values)));
    EXPECT_OK(session.commit());
    return key;
}

std::vector<StoredRow> StoreFixture::fetch(StoreSession& session, const FetchRequest& request) {
    std::vector<StoredRow> found;
    EXPECT_OK(session.fetch(request, [&](StoredRow&& row) { found.push_back(std::move(row)); }));
    return found;
}

std::vector<StoredRow> StoreFixture::rows(StoreSession& session, const EntityDescription& entity,
                                          const std::vector<RowKey>& keys) {
    std::vector<StoredRow> found;
    EXPECT_OK(session.rows(entity, keys, [&](StoredRow&& row) { found.push_back(std::move(row)); }));
    return found;
}

std::vector<Value> StoreFixture::column(StoreSession& session, const FetchRequest& request, std::string_view property) {
    std::vector<Value> values;
    for (StoredRow& row : fetch(session, request)) values.push_back(std::move(row.values[column(*request.entity, property)]));
    return values;
}

}  // namespace velkor::test
