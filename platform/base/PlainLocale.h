#pragma once

#include <locale.h>

namespace velkor::NS {

/// While it lives, the calling thread reads and writes numbers as the "C" locale does, whatever locale the program has set.
class PlainLocale {
public:
    PlainLocale() noexcept : m_former(uselocale(plain())) {}
    ~PlainLocale() { uselocale(m_former); }
    PlainLocale(const PlainLocale&) = delete;
    PlainLocale& operator=(const PlainLocale&) = delete;

private:
    static locale_t plain() noexcept {
        static const locale_t locale = newlocale(LC_ALL_MASK, "C", nullptr);
        return locale;
    }
    const locale_t m_former;
};

}  // namespace velkor::NS
