#pragma once

#include <stdlib.h>

#include <filesystem>
#include <string>

namespace velkor::NS {

/// A directory of the test's own, removed with everything in it.
class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "velkor-test-XXXXXX").string();
        m_path = mkdtemp(name.data());
    }
    ~TemporaryDirectory() {
        std::error_code error;
        std::filesystem::permissions(m_path, std::filesystem::perms::owner_all, error);
        std::filesystem::remove_all(m_path, error);
    }
    const std::filesystem::path& path() const { return m_path; }
    std::size_t fileCount() const {
        return static_cast<std::size_t>(
            std::distance(std::filesystem::directory_iterator(m_path), std::filesystem::directory_iterator()));
    }

private:
    std::filesystem::path m_path;
};

}  // namespace velkor::NS
