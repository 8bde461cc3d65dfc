#pragma once

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <string>

namespace velkor::test {

/// A directory of its own, which goes with the object and takes everything in it along.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "velkor-test-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) std::abort();
        m_path = pattern;
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::permissions(m_path, std::filesystem::perms::owner_all, ignored);
        std::filesystem::remove_all(m_path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const std::filesystem::path& path() const noexcept { return m_path; }
    std::filesystem::path operator/(const std::string& name) const { return m_path / name; }
    std::ptrdiff_t fileCount() const {
        return std::distance(std::filesystem::directory_iterator(m_path), std::filesystem::directory_iterator());
    }

private:
    std::filesystem::path m_path;
};

}  // namespace velkor::test
