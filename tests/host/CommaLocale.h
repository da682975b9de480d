#pragma once
// A process locale whose decimal point is a comma, for tests proving that our
// number handling ignores the locale. Uses an installed one when there is one;
// otherwise compiles de_DE with localedef into a cache folder when the
// locale sources are present. ok() is false when neither works: callers skip.
#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace testsupport {

class CommaLocaleScope {
public:
    CommaLocaleScope() {
        for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "fr_FR.utf8", "nl_NL.UTF-8", "it_IT.UTF-8",
                                 "ru_RU.UTF-8", "de_DE", "fr_FR"})
            if (Try(name)) return;
        std::string dir = "/tmp/orbiscope-locales-" + std::to_string(getuid());
        std::error_code ec;
        if (!std::filesystem::exists(dir + "/de_DE.UTF-8", ec) &&
            std::filesystem::exists("/usr/share/i18n/locales/de_DE", ec) &&
            std::filesystem::exists("/usr/bin/localedef", ec)) {
            // Build beside the cache and move it in, so parallel test processes never see half a locale.
            std::filesystem::create_directories(dir, ec);
            std::string tmp = dir + "/build-" + std::to_string(getpid());
            std::string cmd = "localedef -i de_DE -f UTF-8 '" + tmp + "' >/dev/null 2>&1";
            if (std::system(cmd.c_str()) == 0 || std::filesystem::exists(tmp, ec))
                std::filesystem::rename(tmp, dir + "/de_DE.UTF-8", ec);
            std::filesystem::remove_all(tmp, ec);
        }
        // LOCPATH only for the one setlocale call: with it set, glibc's newlocale keeps a
        // parsed copy of the path that leak checkers report.
        const char* old = std::getenv("LOCPATH");
        std::string saved = old ? old : "";
        setenv("LOCPATH", dir.c_str(), 1);
        Try("de_DE.UTF-8");
        if (old) setenv("LOCPATH", saved.c_str(), 1);
        else unsetenv("LOCPATH");
    }
    ~CommaLocaleScope() { std::setlocale(LC_ALL, "C"); }
    bool ok() const { return m_ok; }
    const std::string& name() const { return m_name; }

private:
    bool Try(const char* name) {
        if (!std::setlocale(LC_ALL, name)) return false;
        if (std::string(std::localeconv()->decimal_point) != ",") {
            std::setlocale(LC_ALL, "C");
            return false;
        }
        m_ok = true;
        m_name = name;
        return true;
    }
    bool m_ok = false;
    std::string m_name;
};

} // namespace testsupport
