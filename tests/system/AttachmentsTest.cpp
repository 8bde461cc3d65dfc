// Attachments of notes travel with their contents, whatever happens to the notes meanwhile.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/support/FaultyService.h"
#include "tests/system/Hosts.h"

namespace velkor::test {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t contentSize = 200'000;

std::string bytesOf(std::size_t count, unsigned seed) {
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>((seed = seed * 1664525 + 1013904223) >> 24);
    return bytes;
}

std::ptrdiff_t contentsBelow(const fs::path& directory) {
    return std::count_if(fs::recursive_directory_iterator(directory), {},
                         [](const auto& entry) { return entry.is_regular_file() && entry.file_size() == contentSize; });
}

class AttachmentsTest : public testing::Test {
protected:
    void SetUp() override {
        a.must({"signup", "u@example.org", "pw"});
        b.must({"login", "u@example.org", "pw"});
    }

    std::string file(const std::string& name, const std::string& bytes) {
        std::ofstream(directory / name, std::ios::binary) << bytes;
        return directory / name;
    }

    void expectSameExports() {
        a.must({"export", directory / "outA"});
        b.must({"export", directory / "outB"});
        EXPECT_EQ(run("/usr/bin/diff", {"-r", directory / "outA", directory / "outB"}).out, "");
    }

    TemporaryDirectory directory;
    Service service{directory / "service", {}, {"--page", "50"}};
    Host a{directory / "A", service.url()}, b{directory / "B", service.url()};
};

TEST_F(AttachmentsTest, ContentsArriveByteForByte) {
    a.must(
        {"add", "Pictures", "--guid", "N1", "--attach", file("small.png", bytesOf(700, 1)), "--attach", file("empty.bin", "")});
    a.must({"add", "Archive", "--guid", "N2", "--body", "text too", "--attach", file("large.zip", bytesOf(3'000'000, 2))});
    EXPECT_EQ(a.must({"sync"}), "synced: 5 sent, 0 received");
    EXPECT_EQ(b.must({"sync"}), "synced: 0 sent, 5 received");
    expectEqual(a, b);
    b.must({"edit", "N1", "--attach", file("fromB.gz", bytesOf(50'000, 3))});
    b.must({"rm", "N2"});
    syncToRest({&a, &b});
    expectEqual(a, b);
    expectSameExports();
    EXPECT_EQ(fs::file_size(directory / "outA/fromB.gz"), 50'000u);
    EXPECT_FALSE(fs::exists(directory / "outA/large.zip"));
}

TEST_F(AttachmentsTest, ChunksAndPagesCarryContents) {
    for (int i = 0; i < 130; ++i) file("f" + std::to_string(i) + ".bin", bytesOf(40, static_cast<unsigned>(i)) + '\0');
    fs::create_directories(directory / "tree");
    for (int i = 0; i < 130; ++i)
        fs::rename(directory / ("f" + std::to_string(i) + ".bin"), directory / "tree" / ("f" + std::to_string(i) + ".bin"));
    EXPECT_EQ(a.must({"import", directory / "tree"}), "imported 1 notebooks, 130 notes, 130 attachments");
    EXPECT_EQ(a.must({"--chunking", "sync"}), "synced: 261 sent, 0 received");
    EXPECT_EQ(b.must({"sync"}), "synced: 0 sent, 261 received");
    expectEqual(a, b);
    expectSameExports();
}

TEST_F(AttachmentsTest, ASyncKilledBetweenContentsIsMadeUp) {
    a.must({"add", "Many", "--guid", "N1"});
    for (int i = 0; i < 6; ++i) a.must({"edit", "N1", "--attach", file("f" + std::to_string(i), bytesOf(contentSize, 9))});
    constexpr std::size_t amongContents = 20;
    FaultyService holding(service.url(), amongContents, Fault::held);
    auto syncing = Host(a.directory(), holding.url()).start({"sync"});
    ASSERT_TRUE(holding.awaitFault());
    syncing->signal(SIGKILL);
    EXPECT_EQ(syncing->wait().status, 128 + SIGKILL);
    EXPECT_GT(contentsBelow(directory / "service/blobs"), 0);
    EXPECT_LT(contentsBelow(directory / "service/blobs"), 6);
    syncToRest({&a, &b});
    expectEqual(a, b);
    expectSameExports();
}

TEST_F(AttachmentsTest, DeletedBlobsLeaveTheNotesAlone) {
    a.must({"add", "Pictures", "--guid", "N1", "--attach", file("small.png", bytesOf(700, 1))});
    a.must({"sync"});
    std::string dump = a.must({"dump"});
    EXPECT_EQ(a.must({"delete-blobs"}), "");
    EXPECT_EQ(a.must({"dump"}), dump);
    EXPECT_EQ(a.must({"pending"}), "[]");
    b.must({"sync"});
    EXPECT_NE(b.must({"dump"}).find(R"("fileName":"small.png")"), std::string::npos);
    EXPECT_EQ(b.must({"dump"}).find("sha1"), std::string::npos) << "the service has no contents any more";
    a.must({"edit", "N1", "--title", "Again"});
    syncToRest({&a, &b});
    EXPECT_NE(b.must({"dump"}).find("Again"), std::string::npos);
}

}  // namespace
}  // namespace velkor::test
