// compare-trees INPUT EXPORT [--except PATH]...: whether EXPORT holds every file of INPUT, byte for byte, and nothing else. Its
// walk is its own, so that it can judge the program that wrote EXPORT.
#include <iconv.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <string>

namespace fs = std::filesystem;

namespace {

std::string contentOf(const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

bool isUtf8(std::string text) {
    iconv_t converter = iconv_open("UTF-32LE", "UTF-8");
    char* in = text.data();
    std::size_t left = text.size();
    bool good = true;
    char buffer[4096];
    while (good && left > 0) {
        char* out = buffer;
        std::size_t room = sizeof buffer;
        good = iconv(converter, &in, &left, &out, &room) != static_cast<std::size_t>(-1) || errno == E2BIG;
    }
    iconv_close(converter);
    return good;
}

/// The paths of the files below the directory; symbolic links, names that are no UTF-8 and files that cannot be read do not
/// count.
std::set<std::string> filesBelow(const fs::path& root) {
    std::set<std::string> found;
    std::error_code error;
    fs::recursive_directory_iterator entry(root, fs::directory_options::skip_permission_denied, error);
    for (; !error && entry != fs::recursive_directory_iterator(); entry.increment(error)) {
        if (!entry->is_regular_file(error) || entry->is_symlink(error)) continue;
        std::string path = fs::relative(entry->path(), root).string();
        if (isUtf8(path) && std::ifstream(entry->path())) found.insert(path);
    }
    return found;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::cerr << "usage: compare-trees INPUT EXPORT [--except PATH]...\n";
        return 2;
    }
    fs::path input = argv[1], output = argv[2];
    std::set<std::string> excepted;
    for (int i = 3; i + 1 < argc; i += 2) excepted.insert(argv[i + 1]);

    std::set<std::string> inFiles = filesBelow(input), outFiles = filesBelow(output);
    std::size_t equal = 0, touched = 0, wrong = 0;
    std::uintmax_t bytes = 0;
    auto complain = [&](const char* what, const std::string& path) {
        if (++wrong <= 10) std::cerr << what << ": " << path << '\n';
    };
    for (const std::string& path : inFiles) {
        if (excepted.contains(path)) {
            ++touched;
        } else if (!outFiles.contains(path)) {
            complain("missing", path);
        } else if (std::string content = contentOf(input / path); content != contentOf(output / path)) {
            complain("different", path);
        } else {
            ++equal;
            bytes += content.size();
        }
    }
    for (const std::string& path : outFiles) {
        if (!inFiles.contains(path) && !excepted.contains(path)) complain("unexpected", path);
    }
    std::cout << equal << " files equal (" << bytes << " bytes), " << touched << " changed on purpose, " << wrong << " wrong\n";
    return wrong == 0 ? 0 : 1;
}
