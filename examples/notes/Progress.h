#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace notes {

/// One line on standard error that is drawn again and again; nothing at all when standard error is no terminal or with --quiet.
class Progress {
public:
    explicit Progress(bool quiet);
    ~Progress();  // clears the line
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Draws the text, at most ten times a second.
    void show(std::string_view text);
    void clear();
    bool isShown() const noexcept { return m_enabled; }

private:
    bool m_enabled;
    bool m_drawn = false;
    std::string m_last;
    std::chrono::steady_clock::time_point m_time{};
};

}  // namespace notes
