#include "examples/notes/Progress.h"

#include <unistd.h>

#include <iostream>

#include "examples/notes/Text.h"

namespace notes {

Progress::Progress(bool quiet) : m_enabled(!quiet && ::isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() { clear(); }

void Progress::show(std::string_view text) {
    if (!m_enabled || text == m_last) return;
    auto now = std::chrono::steady_clock::now();
    if (m_drawn && now - m_time < std::chrono::milliseconds(100)) return;
    m_time = now;
    m_last = text;
    m_drawn = true;
    std::cerr << '\r' << printable(text) << "\x1b[K" << std::flush;
}

void Progress::clear() {
    if (m_drawn) std::cerr << "\r\x1b[K" << std::flush;
    m_drawn = false;
}

}  // namespace notes
