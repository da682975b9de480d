// Diagnostics of the VRML97 engine. Everything goes to stderr; inform keeps the
// last text so that a message repeated on every frame prints once.
#include "vrml/vrml97/System.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {
System g_system;
char g_lastInform[1024];
char g_host[256];
} // namespace

System* theSystem = &g_system;

System::~System() = default;

double System::time() {
    using namespace std::chrono;
    auto ms = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    return static_cast<double>(ms) / 1000.0;
}

void System::error(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
}

void System::warn(const char* fmt, ...) {
    std::fputs("Warning: ", stderr);
    va_list ap;
    va_start(ap, fmt);
    std::vfprintf(stderr, fmt, ap);
    va_end(ap);
}

void System::inform(const char* fmt, ...) {
    char buf[sizeof g_lastInform];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    if (std::strcmp(buf, g_lastInform) == 0) return;
    std::memcpy(g_lastInform, buf, sizeof buf);
    std::fprintf(stderr, "%s\n", buf);
}

void System::debug(const char*, ...) {}

bool System::openInBrowser(const char*, int, char**) { return false; }

int System::connectTo(const char*, int) { return -1; }

const char* System::hostOf(const char* url, int* port) {
    g_host[0] = 0;
    const char* s = url ? std::strstr(url, "//") : nullptr;
    if (!s) return g_host;
    s += 2;
    size_t n = 0;
    while (s[n] && s[n] != '/' && s[n] != ':') ++n;
    size_t keep = n < sizeof g_host - 1 ? n : sizeof g_host - 1;
    std::memcpy(g_host, s, keep);
    g_host[keep] = 0;
    if (s[n] == ':' && s[n + 1] >= '0' && s[n + 1] <= '9' && port) {
        long v = 0;
        for (const char* d = s + n + 1; *d >= '0' && *d <= '9' && v < 1000000; ++d) v = v * 10 + (*d - '0');
        *port = static_cast<int>(v);
    }
    return g_host;
}

bool System::fetch(const char*, char*, size_t) { return false; }

void System::deleteFile(const char* fileName) {
    if (fileName) std::remove(fileName);
}
