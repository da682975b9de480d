#pragma once
// Switches the calling thread's number locale for its lifetime (uselocale), so a
// reader never sees a comma decimal separator whatever the process locale is.
// Our own parsing and formatting never consult the locale; this guards anything
// that still goes through the C library.
#include <clocale>
#include <locale.h>

class CSwitchLocale {
public:
    // `name` "English" (the host's name) or "C" select the C locale's numbers.
    CSwitchLocale(int category, const char* name);
    ~CSwitchLocale();
    CSwitchLocale(const CSwitchLocale&) = delete;
    CSwitchLocale& operator=(const CSwitchLocale&) = delete;
private:
    locale_t m_new = nullptr;
    locale_t m_old = nullptr;
};
