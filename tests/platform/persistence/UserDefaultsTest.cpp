#include "platform/persistence/UserDefaults.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/base/Exception.h"
#include "platform/base/SystemLog.h"
#include "platform/persistence/AtomicFile.h"
#include "platform/persistence/Bundle.h"
#include "platform/persistence/PropertyList.h"
#include "tests/support/TemporaryDirectory.h"

namespace velkor::NS {
namespace {

class UserDefaultsTest : public testing::Test {
protected:
    void SetUp() override { m_defaults.setDirectory(m_directory / "host"); }
    Dictionary onDisk() const { return dictionaryWithContentsOfFile(m_file).value(); }

    test::TemporaryDirectory m_directory;
    std::filesystem::path m_file = m_directory / "host" / "defaults.plist";
    UserDefaults& m_defaults = UserDefaults::standardUserDefaults();
};

TEST_F(UserDefaultsTest, writesEachChangeAndReadsItBack) {
    EXPECT_TRUE(m_defaults.objectForKey("state").isNil());
    ASSERT_TRUE(m_defaults.setObject(Dictionary{{"HIGHEST_XACTION", -1}}, "state"));
    ASSERT_TRUE(m_defaults.setObject(1, "old"));
    ASSERT_TRUE(m_defaults.removeObjectForKey("old"));
    ASSERT_TRUE(m_defaults.removeObjectForKey("never there"));
    EXPECT_EQ(onDisk(), (Dictionary{{"state", Dictionary{{"HIGHEST_XACTION", -1}}}}));
    m_defaults.setDirectory(m_directory / "host");  // as at the next start
    EXPECT_EQ(m_defaults.objectForKey("state"), (Value(Dictionary{{"HIGHEST_XACTION", -1}})));
}

TEST_F(UserDefaultsTest, takesInWhatOthersWroteBeforeItChangesSomething) {
    ASSERT_TRUE(m_defaults.setObject(1, "mine"));
    ASSERT_TRUE(writeDictionaryToFile({{"theirs", 2}, {"mine", 0}}, m_file));
    ASSERT_TRUE(m_defaults.setObject(3, "more"));
    EXPECT_EQ(onDisk(), (Dictionary{{"theirs", 2}, {"mine", 0}, {"more", 3}}));
    EXPECT_EQ(m_defaults.objectForKey("theirs"), Value(2));
}

TEST_F(UserDefaultsTest, severalProcessesLoseNothing) {
    std::vector<pid_t> children;
    for (int process = 0; process < 4; ++process) {
        const pid_t child = fork();
        if (child == 0) {
            bool good = true;
            for (int i = 0; i < 20; ++i)
                good = good && m_defaults.setObject(i, std::to_string(process) + "/" + std::to_string(i)).ok();
            _exit(good ? 0 : 1);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(onDisk().size(), 80u);
}

TEST_F(UserDefaultsTest, aValueThatFitsNoPropertyListRaisesAndChangesNothing) {
    ASSERT_TRUE(m_defaults.setObject(1, "kept"));
    EXPECT_THROW((void)m_defaults.setObject(Null(), "kept"), Exception);
    EXPECT_THROW((void)m_defaults.setObject(Value(), "kept"), Exception);
    EXPECT_EQ(m_defaults.objectForKey("kept"), Value(1));
    EXPECT_EQ(onDisk(), (Dictionary{{"kept", 1}}));
}

TEST_F(UserDefaultsTest, aFailedWriteIsReportedAndChangesNothing) {
    ASSERT_TRUE(writeFileAtomically(m_directory / "host", "a file where the directory should be"));
    EXPECT_FALSE(m_defaults.setObject(1, "key"));
    EXPECT_TRUE(m_defaults.objectForKey("key").isNil());
}

TEST_F(UserDefaultsTest, damagedDefaultsAreSetAside) {
    std::filesystem::create_directory(m_file.parent_path());
    ASSERT_TRUE(writeFileAtomically(m_file, "no property list"));
    int lines = 0;
    setSystemLogHandler([&](std::string_view) {
        ++lines;
        m_defaults.objectForKey("how to log");
    });
    EXPECT_TRUE(m_defaults.objectForKey("key").isNil());
    ASSERT_TRUE(m_defaults.setObject(1, "key"));
    EXPECT_EQ(lines, 2);
    EXPECT_EQ(onDisk(), (Dictionary{{"key", 1}}));
    EXPECT_EQ(readFile(m_file.string() + ".damaged").value().view(), "no property list");
    ASSERT_TRUE(writeFileAtomically(m_file, "damaged again"));
    ASSERT_TRUE(m_defaults.setObject(2, "more"));
    setSystemLogHandler({});
    EXPECT_EQ(readFile(m_file.string() + ".damaged").value().view(), "no property list");
    EXPECT_EQ(readFile(m_file.string() + ".damaged2").value().view(), "damaged again");
}

TEST_F(UserDefaultsTest, aFileThatCannotBeReadIsNotTakenForAnEmptyOne) {
    std::filesystem::create_directories(m_file);
    int lines = 0;
    setSystemLogHandler([&](std::string_view) { ++lines; });
    EXPECT_FALSE(m_defaults.readObjectForKey("key"));
    EXPECT_TRUE(m_defaults.objectForKey("key").isNil());
    EXPECT_TRUE(m_defaults.objectForKey("key").isNil());
    setSystemLogHandler({});
    EXPECT_EQ(lines, 1);
    EXPECT_FALSE(m_defaults.setObject(2, "key"));
    std::filesystem::remove(m_file);
    ASSERT_TRUE(writeDictionaryToFile({{"key", 1}}, m_file));
    EXPECT_EQ(m_defaults.objectForKey("key"), Value(1));
}

TEST_F(UserDefaultsTest, standUnderTheBundleIdentifierByDefault) {
    m_defaults.setDirectory({});
    setenv("XDG_CONFIG_HOME", m_directory.path().c_str(), 1);
    Bundle::mainBundle().setInfoDictionary({{"CFBundleIdentifier", "org.example.host"}});
    ASSERT_TRUE(m_defaults.setObject("x", "key"));
    EXPECT_TRUE(std::filesystem::exists(m_directory / "org.example.host" / "defaults.plist"));
}

TEST_F(UserDefaultsTest, liveInMemoryWithoutAnyPlace) {
    m_defaults.setDirectory({});
    setenv("XDG_CONFIG_HOME", m_directory.path().c_str(), 1);
    Bundle::mainBundle().setInfoDictionary({});
    ASSERT_TRUE(m_defaults.setObject("x", "key"));
    EXPECT_EQ(m_defaults.objectForKey("key"), Value("x"));
    EXPECT_EQ(m_directory.fileCount(), 0);
}

TEST(BundleTest, listsResourcesDirectoryByDirectory) {
    const test::TemporaryDirectory environment, added;
    setenv("VELKORSYNC_RESOURCES", (":" + environment.path().string() + ":/nowhere").c_str(), 1);
    for (const char* name : {"b.momd", "a.momd", "c.other"}) ASSERT_TRUE(writeFileAtomically(environment / name, "x"));
    ASSERT_TRUE(writeFileAtomically(added / "0.momd", "x"));
    Bundle::libraryBundle().addResourceDirectory(added.path());
    const auto found = Bundle::libraryBundle().pathsForResourcesOfType("momd");
    ASSERT_GE(found.size(), 3u);
    EXPECT_EQ(found[0], environment / "a.momd");
    EXPECT_EQ(found[1], environment / "b.momd");
    EXPECT_EQ(found[2], added / "0.momd");
}

TEST(BundleTest, readsTheInformationBesideTheExecutable) {
    const test::TemporaryDirectory directory;
    const auto program = directory / "program";
    std::filesystem::copy_file("/proc/self/exe", program);
    ASSERT_TRUE(writeDictionaryToFile({{"CFBundleIdentifier", "org.example.test"}}, directory / "Info.plist"));
    setenv("VELKOR_TEST_IDENTIFIER", "org.example.test", 1);
    const std::string child = program.string() + " --gtest_brief=1 --gtest_filter=BundleTest.isAskedByItsParent";
    EXPECT_EQ(std::system(child.c_str()), 0);
    ASSERT_TRUE(writeFileAtomically(directory.path() / "Info.plist", "no property list"));
    setenv("VELKOR_TEST_IDENTIFIER", "", 1);
    EXPECT_EQ(std::system(child.c_str()), 0);
    unsetenv("VELKOR_TEST_IDENTIFIER");
}

TEST(BundleTest, isAskedByItsParent) {
    const char* identifier = std::getenv("VELKOR_TEST_IDENTIFIER");
    if (!identifier) return;
    setSystemLogHandler([](std::string_view) { EXPECT_FALSE(Bundle::mainBundle().bundleIdentifier()); });
    EXPECT_EQ(Bundle::mainBundle().bundleIdentifier().value_or(""), identifier);
}

TEST(BundleTest, localizesByTheHostsTable) {
    Bundle::mainBundle().setLocalizedStrings({{"key", "a text"}});
    EXPECT_EQ(Bundle::mainBundle().localizedString("key"), "a text");
    EXPECT_EQ(Bundle::mainBundle().localizedString("other"), "other");
}

}  // namespace
}  // namespace velkor::NS
