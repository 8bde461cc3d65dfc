// What only the embedded database can do wrong.
#include "service/Database.h"

#include "tests/service/ServiceFixture.h"

namespace velkor::service {
namespace {

using std::filesystem::perms;

TEST(DatabaseTest, nobodyElseReadsTheFiles) {
    const test::TemporaryDirectory directory;
    const std::string made = directory / "made";
    const std::string file = made + "/velkord.sqlite";
    EXPECT_FALSE(Database::isIn(made));
    auto permissionsAre = [](const std::string& path, perms wanted) {
        return std::filesystem::status(path).permissions() == wanted;
    };
    for (int i = 0; i < 2; ++i) {
        const auto database = Database::open(made);
        ASSERT_TRUE(database);
        for (const char* ending : {"", "-wal", "-shm"}) {
            EXPECT_TRUE(permissionsAre(file + ending, perms::owner_read | perms::owner_write)) << ending;
        }
        EXPECT_TRUE(permissionsAre(made, perms::owner_all));
        // An older one that everybody may read is closed to them; its directory is its owner's affair.
        std::filesystem::permissions(file, perms::others_read, std::filesystem::perm_options::add);
    }
    EXPECT_TRUE(Database::isIn(made));
}

TEST(DatabaseTest, aFailureBehindTheRowsThatWereReadUndoesAll) {
    const test::TemporaryDirectory directory;
    const auto opened = Database::open(directory.path());
    ASSERT_TRUE(opened);
    Database& database = *opened.value();
    constexpr static Sql failsLater{"SELECT abs(n) FROM (SELECT 1 AS n UNION ALL SELECT -9223372036854775807 - 1)", ":i"};
    constexpr static Sql addLock{"INSERT INTO locks VALUES (:user, 1, 0, '', '', 0, 0, 0)", "i:"};
    constexpr static Sql countLocks{"SELECT COUNT(*) FROM locks", ":i"};
    int added = 0;
    EXPECT_THROW(database.write(1,
                                [&](Connection& connection) {
                                    EXPECT_EQ(connection.run(addLock, ++added), 1);
                                    EXPECT_TRUE(connection.query(failsLater).next());
                                    return connection.run(addLock, ++added);
                                }),
                 DatabaseFailure);
    EXPECT_EQ(added, 2);
    const auto count = database.read([&](Connection& connection) {
        auto rows = connection.query(countLocks);
        return rows.next() ? rows.integer(0) : -1;
    });
    EXPECT_EQ(count, 0);
}

}  // namespace
}  // namespace velkor::service
