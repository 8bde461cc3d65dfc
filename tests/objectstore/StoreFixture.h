// What the tests of the store's disk half share: a directory of their own, a model of a library, short forms of the session's
// calls.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "objectstore/PersistentStoreCoordinator.h"
#include "objectstore/StoreSession.h"
#include "tests/support/TemporaryDirectory.h"

namespace velkor::test {

using namespace NS;

/// Whether a result is no error; the error's text is the message.
template <class T>
::testing::AssertionResult succeeded(const Result<T>& result) {
    if (result) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << result.error().localizedDescription();
}
#define ASSERT_OK(expression) ASSERT_TRUE(succeeded(expression))
#define EXPECT_OK(expression) EXPECT_TRUE(succeeded(expression))

/// The value of a result that must be one.
template <class T>
T must(Result<T> result) {
    if (!result) {
        ADD_FAILURE() << result.error().localizedDescription();
        throw std::runtime_error("no result");
    }
    return std::move(result).value();
}

/// The code of a result that must be an error; 0 when it is none.
template <class T>
std::int64_t codeOf(const Result<T>& result) {
    return result ? 0 : result.error().code();
}

/// Books by authors with tags and related books, and readers without inverse; every type of attribute.
std::shared_ptr<const ManagedObjectModel> libraryModel();

class StoreFixture : public ::testing::Test {
protected:
    /// Opens the test's file.
    std::shared_ptr<PersistentStoreCoordinator> open(const StoreOptions& options = {});
    Result<std::shared_ptr<PersistentStoreCoordinator>> tryOpen(std::shared_ptr<const ManagedObjectModel> model,
                                                                const StoreOptions& options = {});

    /// A row of the entity with these values, nil for the others.
    static std::vector<Value> row(const EntityDescription& entity, const std::map<std::string, Value>& values);
    static std::size_t column(const EntityDescription& entity, std::string_view property);
    /// Inserts one row in a transaction of its own.
    static RowKey insert(StoreSession& session, const EntityDescription& entity, const std::map<std::string, Value>& values);
    static std::vector<StoredRow> fetch(StoreSession& session, const FetchRequest& request);
    static std::vector<StoredRow> rows(StoreSession& session, const EntityDescription& entity, const std::vector<RowKey>& keys);
    /// The values of one column, in the fetch's order.
    static std::vector<Value> column(StoreSession& session, const FetchRequest& request, std::string_view property);

    const EntityDescription& entity(std::string_view name) const { return *m_model->entityNamed(name); }

    const TemporaryDirectory m_directory;
    const std::filesystem::path m_file = m_directory / "Data.sqlite";
    const std::shared_ptr<const ManagedObjectModel> m_model = libraryModel();
};

}  // namespace velkor::test
