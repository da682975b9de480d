// Resolving a world's URLs to local files. Relative URLs are taken against the
// folder of the referring document; both slash kinds separate folders there.
#include "vrml/vrml97/Doc.h"

#include <cstring>
#include <sys/stat.h>

#include "vrml/vrml97/System.h"

namespace {

bool g_fileAccess = true;

bool startsWith(const std::string& s, const char* p) { return s.compare(0, std::strlen(p), p) == 0; }

bool isAbsolute(const std::string& p) {
    if (!p.empty() && (p[0] == '/' || p[0] == '\\')) return true;
    return p.size() > 2 && p[1] == ':' && (p[2] == '/' || p[2] == '\\');
}

bool hasScheme(const std::string& s) {
    size_t c = s.find(':');
    if (c == std::string::npos || c < 2) return false; // a drive letter is no scheme
    for (size_t i = 0; i < c; ++i) {
        char ch = s[i];
        if (!((ch >= 'a' && ch <= 'z') || (ch >= 'A' && ch <= 'Z') || (ch >= '0' && ch <= '9') || ch == '+' ||
              ch == '-' || ch == '.'))
            return false;
    }
    return true;
}

} // namespace

Doc::Doc(const char* url, const Doc* relative) { setUrl(url, relative); }

Doc::~Doc() {
    fclose();
    closeOutput();
}

void Doc::setUrl(const char* url, const Doc* relative) {
    d_relative = relative;
    d_url = url ? url : "";
    d_localName.clear();
    std::string path = d_url;
    size_t hash = path.find('#');
    if (hash != std::string::npos) path.erase(hash);
    if (startsWith(path, "file://")) path.erase(0, 7);
    else if (startsWith(path, "file:")) path.erase(0, 5);
    else if (hasScheme(path)) return; // http, urn and the like: nothing local to open
    if (path.empty()) return;
    if (!isAbsolute(path) && relative && !relative->d_localName.empty()) {
        const std::string& base = relative->d_localName;
        size_t slash = base.find_last_of("/\\");
        if (slash != std::string::npos) path = base.substr(0, slash + 1) + path;
    }
    d_localName = path;
}

std::string Doc::fragment() const {
    size_t hash = d_url.find('#');
    return hash == std::string::npos ? std::string() : d_url.substr(hash);
}

FILE* Doc::fopen(const char* mode) {
    if (d_fp) {
        theSystem->error("Doc::fopen: %s is already open.\n", d_url.c_str());
        return d_fp;
    }
    if (d_localName.empty() || !g_fileAccess) return nullptr;
    if (mode[0] == 'r') {
        struct stat st;
        if (stat(d_localName.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
    }
    d_fp = std::fopen(d_localName.c_str(), mode);
    return d_fp;
}

void Doc::setFileAccess(bool allowed) { g_fileAccess = allowed; }
bool Doc::fileAccess() { return g_fileAccess; }

void Doc::fclose() {
    if (d_fp) std::fclose(d_fp);
    d_fp = nullptr;
}

std::ostream* Doc::outputStream() {
    if (!d_out) {
        if (d_localName.empty()) return nullptr;
        d_out = std::make_unique<std::ofstream>(d_localName, std::ios::binary);
    }
    return d_out.get();
}

void Doc::closeOutput() { d_out.reset(); }
