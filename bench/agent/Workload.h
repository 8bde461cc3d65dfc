#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace agent {

/// The notes of one run: generated data of fixed shape, the same for every run of the same size.
class Workload {
public:
    struct Note {
        std::string guid, title, body;
        bool pinned;
        int rating;
        double score;
        std::size_t notebook;           // index into notebooks()
        std::vector<std::size_t> tags;  // indices into tags()
    };

    explicit Workload(std::size_t notes);

    const std::vector<std::string>& notebooks() const noexcept { return m_notebooks; }
    const std::vector<std::string>& tags() const noexcept { return m_tags; }
    const std::vector<Note>& notes() const noexcept { return m_notes; }

private:
    std::string makeGuid();
    std::string makeText(std::size_t length);
    std::string hexDigits(int count);

    std::mt19937_64 m_random{42};
    std::vector<std::string> m_notebooks;
    std::vector<std::string> m_tags;
    std::vector<Note> m_notes;
};

}  // namespace agent
