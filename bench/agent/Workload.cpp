#include "bench/agent/Workload.h"

#include <algorithm>
#include <iterator>

namespace agent {

namespace {

constexpr std::size_t tagCount = 50;
constexpr const char* words[] = {"paper",  "river",  "window", "market",  "letter", "garden", "number", "winter",
                                 "stone",  "answer", "bridge", "cloud",   "doctor", "engine", "forest", "glass",
                                 "hammer", "island", "jacket", "kitchen", "lemon",  "mirror", "needle", "office",
                                 "pencil", "queen",  "road",   "silver",  "table",  "village"};

}  // namespace

Workload::Workload(std::size_t notes) {
    for (std::size_t i = 0; i < std::max<std::size_t>(1, notes / 100); ++i) m_notebooks.push_back(makeGuid());
    for (std::size_t i = 0; i < tagCount; ++i) m_tags.push_back(makeGuid());
    m_notes.reserve(notes);
    for (std::size_t i = 0; i < notes; ++i) {
        Note note{makeGuid(),
                  makeText(40),
                  makeText(200),
                  m_random() % 10 == 0,
                  static_cast<int>(m_random() % 6),
                  static_cast<double>(m_random() % 1000000) / 1e4,
                  m_random() % m_notebooks.size(),
                  {}};
        for (auto count = m_random() % 4; note.tags.size() < count;) {
            std::size_t tag = m_random() % tagCount;
            if (std::find(note.tags.begin(), note.tags.end(), tag) == note.tags.end()) note.tags.push_back(tag);
        }
        m_notes.push_back(std::move(note));
    }
}

std::string Workload::hexDigits(int count) {
    std::string text;
    while (count-- > 0) text += "0123456789ABCDEF"[m_random() & 15];
    return text;
}

std::string Workload::makeGuid() {
    return hexDigits(8) + "-" + hexDigits(4) + "-4" + hexDigits(3) + "-A" + hexDigits(3) + "-" + hexDigits(12);
}

std::string Workload::makeText(std::size_t length) {
    std::string text;
    while (text.size() < length) {
        if (!text.empty()) text += ' ';
        text += words[m_random() % std::size(words)];
    }
    text.resize(length);
    return text;
}

}  // namespace agent
