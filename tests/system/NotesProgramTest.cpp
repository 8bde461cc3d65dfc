// velkor-notes as its users' scripts see it: output to the letter, exit statuses, files.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "tests/system/Hosts.h"

namespace velkor::test {
namespace {

namespace fs = std::filesystem;

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void write(const fs::path& file, const std::string& content) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << content;
}

class NotesProgramTest : public testing::Test {
protected:
    TemporaryDirectory directory;
    Host host{directory / "host", "http://127.0.0.1:9"};
};

TEST_F(NotesProgramTest, WrongUseIsStatus2WithTheUsageLine) {
    const std::vector<std::vector<std::string>> wrong = {
        {},
        {"frobnicate"},
        {"--frobnicate", "ls"},
        {"add"},
        {"add", "a", "b"},
        {"show"},
        {"ls", "x"},
        {"add", "t", "--rating", "many"},
        {"add", "t", "--rating", "99999999999"},
        {"add", "t", "--score", "nan"},
        {"--timeout", "0", "ls"},
        {"watch", "--interval", "0"},
        {"add", "t", "--body"},
        {"add", "t", "--attach"},
        {"set", "theme"},
        {"set", "color", "red"},
        {"get", "editor"},
        {"unset", "editor.font"},
        {"register"},
        {"register", "novalue"},
        {"register", "=x"},
        {"passwd", "old"},
    };
    for (const auto& arguments : wrong) {
        Outcome outcome = host.run(arguments);
        EXPECT_EQ(outcome.status, 2) << testing::PrintToString(arguments) << outcome.err;
        EXPECT_NE(outcome.err.find("usage: velkor-notes [OPTION]... COMMAND [ARGUMENT]..."), std::string::npos);
        EXPECT_TRUE(outcome.err.starts_with("velkor-notes: ")) << outcome.err;
        EXPECT_EQ(outcome.out, "");
    }
}

TEST_F(NotesProgramTest, FailuresAreStatus1AndOneLine) {
    const std::vector<std::vector<std::string>> failing = {
        {"show", "nothing"},
        {"rm", "nothing"},
        {"edit", "nothing", "--title", "x"},
        {"sync"},
        {"watch"},
        {"logout"},
        {"rollback"},
        {"add", "x", "--notebook", "nothing"},
        {"import", "/nonexistent/path"},
        {"add", "x", "--attach", "/nonexistent/path"},
        {"add", "x", "--attach", "/tmp"},
        {"passwd", "old", "new"},
        {"delete-data"},
        {"delete-account"},
        {"register", "a=b"},
        {"clients"},
        {"reset-password", "u@example.org"},
        {"get", "theme"},
        {"show", "two\nlines\rand \x1B[31m \xC2\x9B red"},
        {"add", "x", "--attach", directory / "pipe"},
    };
    ASSERT_EQ(::mkfifo((directory / "pipe").c_str(), 0600), 0);
    for (const auto& arguments : failing) {
        Outcome outcome = host.run(arguments);
        EXPECT_EQ(outcome.status, 1) << testing::PrintToString(arguments);
        EXPECT_TRUE(outcome.err.starts_with("velkor-notes: ")) << outcome.err;
        EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
        EXPECT_EQ(outcome.err.find_first_of("\r\x1B\x9B"), std::string::npos) << outcome.err;
    }
    host.must({"add", "x", "--guid", "G"});
    EXPECT_EQ(host.run({"add", "y", "--guid", "G"}).status, 1);
    EXPECT_EQ(host.run({"notebook", "y", "--guid", "G"}).status, 1);
    // A file that cannot be read leaves the rest of the command undone, too.
    EXPECT_EQ(host.run({"edit", "G", "--title", "changed", "--attach", "/nonexistent/path"}).status, 1);
    EXPECT_EQ(host.must({"dump"}).find("changed"), std::string::npos);
}

TEST_F(NotesProgramTest, DumpStatesEveryObjectToTheLetter) {
    Environment utc{{"TZ", "UTC"}};
    EXPECT_EQ(host.must({"notebook", "Work", "--guid", "NB"}), "NB");
    EXPECT_EQ(host.must({"add", "First", "--guid", "N1", "--body", "a \"b\"\n", "--notebook", "NB", "--tag", "red", "--rating",
                         "-3", "--score", "0.1", "--pinned"}),
              "N1");
    host.must({"draft", "only here"});
    std::string dump = host.run({"dump"}, utc).out;
    auto replaceAll = [&dump](const char* key) {
        for (auto at = dump.find(key); at != dump.npos; at = dump.find(key, at + 1)) {
            auto begin = at + std::string(key).size();
            dump.replace(begin, dump.find('"', begin) - begin, "T");
        }
    };
    EXPECT_NE(dump.find("+0000\""), std::string::npos);
    replaceAll("\"createdAt\":\"");
    replaceAll("\"modifiedAt\":\"");
    // The tag's guid is the only one that the test did not choose.
    auto tagAt = dump.find("{\"entity\":\"Tag\",\"guid\":\"") + 24;
    std::string tag = dump.substr(tagAt, 36);
    for (auto at = dump.find(tag); at != dump.npos; at = dump.find(tag)) dump.replace(at, 36, "TAG");
    EXPECT_EQ(
        dump,
        R"({"entity":"LocalDraft","guid":null,"attributes":{"text":"only here"},"relationships":{}})"
        "\n"
        R"({"entity":"Note","guid":"N1","attributes":{"guid":"N1","title":"First","body":"a \"b\"\n","createdAt":"T","modifiedAt":"T","pinned":true,"rating":-3,"score":0.1},"relationships":{"notebook":"NB","tags":["TAG"],"attachments":[]}})"
        "\n"
        R"({"entity":"Notebook","guid":"NB","attributes":{"guid":"NB","title":"Work"},"relationships":{"notes":["N1"]}})"
        "\n"
        R"({"entity":"Tag","guid":"TAG","attributes":{"guid":"TAG","name":"red"},"relationships":{"notes":["N1"]}})"
        "\n");
    EXPECT_EQ(host.must({"show", "N1"}), "a \"b\"");
    EXPECT_EQ(host.run({"--json", "show", "N1"}, utc).out.substr(0, 29), R"({"entity":"Note","guid":"N1",)");
}

TEST_F(NotesProgramTest, LsPrintsALineANoteWhateverIsInIt) {
    const std::string cut = std::string(38, 'x') + "\xC3\xBC";
    host.must({"notebook", "a\x1B[31m\nb", "--guid", "NB"});
    host.must({"add", cut + "yyy", "--guid", "N1", "--notebook", "NB"});
    const std::string table = host.must({"ls"});
    EXPECT_TRUE(table.ends_with("  " + cut + "  a [31m b")) << table;
}

TEST_F(NotesProgramTest, ItsDirectoryIsItsUsersAlone) {
    for (const char* name : {"one", "two/", "three/."}) {
        Host(directory / name, "http://127.0.0.1:9").must({"ls"});
        struct stat info {};
        ASSERT_EQ(::stat((directory / name).c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777, 0700u) << name;
    }
}

TEST_F(NotesProgramTest, PendingAndStateTellWhatWaits) {
    host.must({"add", "One", "--guid", "B"});
    host.must({"notebook", "Two", "--guid", "A"});
    host.must({"notebook", "Secret", "--private", "--guid", "S"});
    host.must({"edit", "B", "--title", "Once"});
    EXPECT_EQ(
        host.must({"pending"}),
        R"([{"guid":"A","type":"INSERT_XACTION","object_type":"Notebook"},{"guid":"B","type":"UPDATE_XACTION","object_type":"Note"}])");
    host.must({"rm", "B"});
    EXPECT_EQ(
        host.must({"pending"}),
        R"([{"guid":"A","type":"INSERT_XACTION","object_type":"Notebook"},{"guid":"B","type":"DELETE_XACTION","object_type":"Note"}])");
    std::string state = host.must({"state"});
    EXPECT_EQ(state.substr(state.find(R"("highest_xaction")")),
              R"("highest_xaction":-1,"last_sync":null,"schema_sent":null,"pending":2,"user":null})");
    EXPECT_EQ(state, host.must({"state"})) << "the instance identifier stays";
}

TEST_F(NotesProgramTest, ExportGivesBackWhatImportTookIn) {
    fs::path tree = directory / "tree";
    write(tree / "a.txt", "text");
    write(tree / "empty", "");
    write(tree / "sub dir/ümlaut \"q\".txt",
          "\xEF\xBB\xBF"
          "bom and \r\n and \x01 control");
    write(tree / "sub dir/deep/b", std::string(300'000, 'x'));
    write(tree / "sub dir/binary", std::string("a\0b", 3));
    write(tree / "sub dir/latin1", "caf\xE9");
    fs::create_directories(tree / "none");
    fs::create_symlink("a.txt", tree / "link");
    write(tree / std::string("bad\xFFname"), "skipped");
    Outcome imported = host.run({"import", tree.string()});
    EXPECT_EQ(imported.out, "imported 4 notebooks, 6 notes, 2 attachments\n");
    EXPECT_NE(imported.err.find("symbolic link"), std::string::npos);
    EXPECT_NE(imported.err.find("bad?name: its name is not UTF-8"), std::string::npos) << imported.err;
    EXPECT_EQ(host.must({"export", directory / "out"}), "exported 4 notebooks, 6 notes, 2 attachments");
    for (const char* file :
         {"a.txt", "empty", "sub dir/ümlaut \"q\".txt", "sub dir/deep/b", "sub dir/binary", "sub dir/latin1"}) {
        EXPECT_EQ(contentOf(directory.path() / "out/tree" / file), contentOf(tree / file)) << file;
    }
    EXPECT_TRUE(fs::is_directory(directory.path() / "out/tree/none"));
    Host second(directory / "second", "http://127.0.0.1:9");
    EXPECT_EQ(second.must({"import", directory / "out/tree"}), "imported 4 notebooks, 6 notes, 2 attachments")
        << "the same tree again";
    EXPECT_EQ(host.run({"export", directory / "out"}).status, 1) << "the directory is not empty";
}

TEST_F(NotesProgramTest, AttachmentsGoWithTheirNote) {
    write(directory / "two.PNG", std::string("\x89PNG\0\r\n", 7));
    write(directory / "empty.bin", "");
    host.must({"add", "With body", "--guid", "N1", "--body", "text", "--attach", directory / "two.PNG"});
    host.must({"edit", "N1", "--attach", directory / "empty.bin", "--attach", directory / "two.PNG"});
    EXPECT_EQ(host.must({"export", directory / "out"}), "exported 0 notebooks, 1 notes, 3 attachments");
    EXPECT_EQ(contentOf(directory / "out/With body"), "text");
    EXPECT_EQ(contentOf(directory / "out/two.PNG"), contentOf(directory / "two.PNG"));
    EXPECT_EQ(contentOf(directory / "out/empty.bin"), "");
    EXPECT_EQ(std::distance(fs::directory_iterator(directory / "out"), {}), 4) << "the second of a name gets another one";

    std::string dump = host.must({"dump"});
    EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 3);
    EXPECT_NE(
        dump.find(
            R"("fileName":"two.PNG","contentType":"image/png","byteCount":7,"content":{"bytes":7,"sha1":"4ea6616f5b47c0aed75f197310d715f9d543eb56"}},"relationships":{"note":"N1"}})"),
        std::string::npos)
        << dump;
    EXPECT_NE(
        dump.find(
            R"("fileName":"empty.bin","contentType":"application/octet-stream","byteCount":0},"relationships":{"note":"N1"}})"),
        std::string::npos)
        << dump;
    host.must({"rm", "N1"});
    EXPECT_EQ(host.must({"dump"}), "") << "a note's attachments are deleted with it";
}

TEST_F(NotesProgramTest, PreferencesAreKeptAndPending) {
    host.must({"set", "theme", "dark"});
    host.must({"set", "editor.fontSize", "14 pt \"big\""});
    EXPECT_EQ(host.must({"get", "theme"}), "dark");
    EXPECT_EQ(host.must({"get", "editor.fontSize"}), "14 pt \"big\"");
    EXPECT_EQ(host.must({"pending"}), "[]") << "nobody is logged in";
    std::string hash = host.must({"hash"});

    write(host.directory() / "account.json", R"({"email":"u@example.org","password":"pw","server":"http://127.0.0.1:9"})");
    EXPECT_NE(host.must({"hash"}), hash) << "set preferences count for a user";
    host.must({"set", "theme", "light"});
    host.must({"unset", "editor.fontSize"});
    EXPECT_EQ(host.run({"get", "editor.fontSize"}).status, 1);
    EXPECT_EQ(host.must({"pending"}),
              R"([{"guid":"u@example.org_preferences_editor.fontSize","type":"DELETE_XACTION","object_type":"GENERIC_OBJECT"},)"
              R"({"guid":"u@example.org_preferences_theme","type":"UPDATE_XACTION","object_type":"GENERIC_OBJECT"}])");

    write(host.directory() / "preferences.json", "[\"no preferences\"]");
    Outcome outcome = host.run({"get", "theme"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.err.find("preferences.json.damaged"), std::string::npos) << outcome.err;
    EXPECT_EQ(contentOf(host.directory() / "preferences.json.damaged"), "[\"no preferences\"]");
    EXPECT_EQ(contentOf(host.directory() / "preferences.json"), "{}\n");
    host.must({"set", "theme", "fresh"});
    EXPECT_EQ(host.must({"get", "theme"}), "fresh");
}

TEST_F(NotesProgramTest, ExportNeverLeavesItsDirectory) {
    host.must({"notebook", "../../up//x", "--guid", "NB"});
    host.must({"add", "../escape", "--notebook", "NB", "--guid", "11111111-1", "--body", "1"});
    host.must({"add", ".._escape", "--notebook", "NB", "--guid", "22222222-2", "--body", "2"});
    host.must({"add", "", "--guid", "33333333-3", "--body", "3"});
    host.must({"add", ".._escape", "--notebook", "NB", "--guid", "ääääääääää", "--body", "4"});
    host.must({"export", directory / "out"});
    fs::path base = directory.path() / "out";
    EXPECT_EQ(contentOf(base / "_/_/up/_/x/.._escape"), "1");
    EXPECT_EQ(contentOf(base / "_/_/up/_/x/.._escape (22222222)"), "2");
    EXPECT_EQ(contentOf(base / "_ (33333333)"), "3");
    EXPECT_EQ(contentOf(base / "_/_/up/_/x/.._escape (ääääääää)"), "4");
}

TEST_F(NotesProgramTest, DamagedAndForeignFilesAreToldAndKept) {
    host.must({"add", "Kept", "--guid", "K"});
    write(host.directory() / "SyncState.plist", "garbage");
    Outcome outcome = host.run({"pending"});
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_NE(outcome.err.find("SyncState.plist.damaged"), std::string::npos);
    EXPECT_EQ(contentOf(host.directory() / "SyncState.plist.damaged"), "garbage");
    EXPECT_EQ(outcome.out, "[{\"guid\":\"K\",\"type\":\"INSERT_XACTION\",\"object_type\":\"Note\"}]\n")
        << "the store's history brings it back";
    // What cannot be read is not damaged.
    fs::remove(host.directory() / "SyncState.plist");
    fs::create_directory(host.directory() / "SyncState.plist");
    EXPECT_EQ(host.run({"pending"}).status, 1);
    EXPECT_TRUE(fs::is_directory(host.directory() / "SyncState.plist"));

    Host other(directory / "other", "http://127.0.0.1:9");
    const std::string foreign = "This is no database, but somebody wants to keep it. " + std::string(5000, '.');
    write(other.directory() / "Notes.sqlite", foreign);
    outcome = other.run({"ls"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_NE(outcome.err.find("Notes.sqlite"), std::string::npos) << outcome.err;
    EXPECT_EQ(contentOf(other.directory() / "Notes.sqlite"), foreign);
}

TEST_F(NotesProgramTest, ASecondProcessWaitsForTheFirst) {
    Service service(directory / "service");
    Host real(directory / "real", service.url());
    real.must({"signup", "u@example.org", "pw"});
    struct stat info {};
    ASSERT_EQ(::stat((real.directory() / "account.json").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    // A service that never answers keeps the first process in its cycle.
    service.program().signal(SIGSTOP);
    auto syncing = real.start({"sync"});
    Outcome second;
    do second = real.run({"ls"});
    while (second.status == 0 && syncing->isRunning());  // until the first one holds the directory
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.err.find("in use by another process"), std::string::npos) << second.err;
    service.program().signal(SIGCONT);
    EXPECT_EQ(syncing->wait().status, 0) << syncing->wait().err;
    EXPECT_EQ(real.run({"ls"}).status, 0);
}

}  // namespace
}  // namespace velkor::test
