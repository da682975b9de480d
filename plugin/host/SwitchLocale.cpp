// Thread-local locale switch. uselocale leaves other threads alone, unlike setlocale.
#include "plugin/host/SwitchLocale.h"

#include <cstring>

namespace {
int CategoryMask(int category) {
    switch (category) {
    case LC_ALL: return LC_ALL_MASK;
    case LC_NUMERIC: return LC_NUMERIC_MASK;
    case LC_CTYPE: return LC_CTYPE_MASK;
    case LC_COLLATE: return LC_COLLATE_MASK;
    case LC_MONETARY: return LC_MONETARY_MASK;
    case LC_TIME: return LC_TIME_MASK;
    default: return LC_NUMERIC_MASK;
    }
}
} // namespace

CSwitchLocale::CSwitchLocale(int category, const char* name) {
    // The host says "English"; its numbers are the C locale's numbers.
    const char* sys = "C";
    if (name && *name && std::strcmp(name, "English") != 0) sys = name;
    locale_t base = uselocale(nullptr);
    locale_t copy = duplocale(base);
    if (!copy) return;
    m_new = newlocale(CategoryMask(category), sys, copy);
    if (!m_new) {
        // Unknown name: fall back to the C locale's numbers, which is what every caller wants.
        m_new = newlocale(CategoryMask(category), "C", copy);
        if (!m_new) {
            freelocale(copy);
            return;
        }
    }
    m_old = uselocale(m_new);
}

CSwitchLocale::~CSwitchLocale() {
    if (!m_new) return;
    uselocale(m_old);
    freelocale(m_new);
}
