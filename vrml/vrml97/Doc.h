#pragma once
// One document of a world: its URL, the local file it maps to (local files only:
// "file:" URLs and plain paths; http and urn do not resolve), the document it was
// resolved against, and an open stream.
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

class Doc {
public:
    explicit Doc(const char* url = nullptr, const Doc* relative = nullptr);
    ~Doc();
    Doc(const Doc&) = delete;
    Doc& operator=(const Doc&) = delete;

    void setUrl(const char* url, const Doc* relative = nullptr);
    const char* url() const { return d_url.c_str(); }
    // "#name" part of the URL including the '#', or empty.
    std::string fragment() const;
    // Local file path (without fragment), empty when the URL is not local.
    const std::string& localName() const { return d_localName; }
    const Doc* relative() const { return d_relative; }

    // Opens regular files only (a URL naming a device or a pipe never reads).
    FILE* fopen(const char* mode);
    // Turns every file open off or on (the fuzzer reads from memory only).
    static void setFileAccess(bool allowed);
    static bool fileAccess();
    void fclose();
    std::ostream* outputStream();
    void closeOutput();

private:
    std::string d_url;
    std::string d_localName;
    const Doc* d_relative = nullptr;
    FILE* d_fp = nullptr;
    std::unique_ptr<std::ofstream> d_out;
};
