#include "platform/persistence/AtomicFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

#include "tests/support/TemporaryDirectory.h"

namespace velkor::NS {
namespace {

std::string contentOf(const std::filesystem::path& path) { return readFile(path).value().take(); }

class AtomicFileTest : public testing::Test {
protected:
    test::TemporaryDirectory m_directory;
    std::filesystem::path m_file = m_directory / "state";
};

TEST_F(AtomicFileTest, replacesTheContentForItsOwnerOnly) {
    for (const std::string& content : {std::string("first"), std::string(3'000'000, 'x'), std::string()}) {
        ASSERT_TRUE(writeFileAtomically(m_file, content));
        EXPECT_EQ(contentOf(m_file), content);
    }
    struct stat status {};
    ASSERT_EQ(::stat(m_file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_EQ(m_directory.fileCount(), 1);
}

TEST_F(AtomicFileTest, aFullDiskLeavesTheOldContentAndSaysSo) {
    ASSERT_TRUE(writeFileAtomically(m_file, "old"));
    // A limit on the size of files stands in for the full disk.
    rlimit former{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &former), 0);
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{1000, former.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const auto result = writeFileAtomically(m_file, std::string(100'000, 'n'));
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &former), 0);
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().code(), EFBIG);
    EXPECT_NE(result.error().localizedDescription().find(m_file.string()), std::string::npos);
    EXPECT_EQ(contentOf(m_file), "old");
    EXPECT_EQ(m_directory.fileCount(), 1);
}

TEST_F(AtomicFileTest, reportsWhatCannotBeReadOrWritten) {
    EXPECT_EQ(readFile(m_file).error().code(), ENOENT);
    EXPECT_EQ(readFile(m_directory.path()).error().code(), EISDIR);
    EXPECT_EQ(writeFileAtomically(m_directory / "missing" / "state", "x").error().code(), ENOENT);
    ASSERT_TRUE(writeFileAtomically(m_file, "12345"));
    EXPECT_TRUE(readFile(m_file, 5));
    EXPECT_EQ(readFile(m_file, 4).error().code(), EFBIG);
    EXPECT_FALSE(readFile("/proc/self/status").value().empty());  // a file that does not know its size
}

TEST_F(AtomicFileTest, removesOnlyWhatDeadWritersLeftBehind) {
    const auto touch = [&](const char* name) { std::ofstream(m_directory / name) << "x"; };
    touch(".state.123.tmp");
    touch(".state.456.tmp");
    touch(".state.backup.7.tmp");  // of the file "state.backup"
    touch("state.1.tmp");
    const int writer = ::open((m_directory / ".state.456.tmp").c_str(), O_WRONLY);
    ASSERT_EQ(::flock(writer, LOCK_EX), 0);
    removeStaleTemporaryFiles(m_file);
    EXPECT_FALSE(std::filesystem::exists(m_directory / ".state.123.tmp"));
    EXPECT_EQ(m_directory.fileCount(), 3);
    ::close(writer);
}

#ifdef VELKOR_DURABLE_STEPS
TEST_F(AtomicFileTest, deathAtAnyStepLeavesTheOldContentOrTheNewOneWhole) {
    ASSERT_TRUE(writeFileAtomically(m_file, "old"));
    int died = 0;
    for (int step = 1;; ++step) {
        const pid_t child = fork();
        if (child == 0) {
            // The counter reads its setting at start, so the program starts anew.
            setenv("VELKOR_DIE_AT_STEP", std::to_string(step).c_str(), 1);
            setenv("VELKOR_TEST_WRITES_TO", m_file.c_str(), 1);
            execl("/proc/self/exe", "test_platform", "--gtest_filter=AtomicFileTest.writesForItsParent", "--gtest_brief=1",
                  nullptr);
            _exit(127);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        const std::string content = contentOf(m_file);
        EXPECT_TRUE(content == "old" || content == "new") << content;
        if (WIFEXITED(status)) {
            ASSERT_EQ(WEXITSTATUS(status), 0);
            EXPECT_EQ(content, "new");
            break;
        }
        EXPECT_EQ(WTERMSIG(status), SIGKILL);
        ++died;
    }
    EXPECT_EQ(died, 4);  // write, fsync, rename, fsync of the directory
}

TEST_F(AtomicFileTest, writesForItsParent) {
    if (const char* path = std::getenv("VELKOR_TEST_WRITES_TO")) {
        EXPECT_TRUE(writeFileAtomically(path, "new"));
    }
}
#endif

}  // namespace
}  // namespace velkor::NS
