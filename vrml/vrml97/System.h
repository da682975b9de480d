#pragma once
// The engine's one services object: diagnostics to the standard error stream,
// time, and URL helpers. This build makes no network connections: URLs resolve
// to local files only, so connectTo and openInBrowser always fail.
#include <cstddef>

class System {
public:
    virtual ~System();
    virtual double time();
    virtual void error(const char* fmt, ...);
    virtual void warn(const char* fmt, ...);
    // Prints only when the text differs from the previous inform text.
    virtual void inform(const char* fmt, ...);
    virtual void debug(const char* fmt, ...);
    virtual bool openInBrowser(const char* url, int parameterCount, char** parameters);
    virtual int connectTo(const char* host, int port);
    // Host part of a URL in a static buffer (truncated to fit); port set when given.
    virtual const char* hostOf(const char* url, int* port);
    // Local copy of a URL: only local files are fetched; returns false otherwise.
    virtual bool fetch(const char* url, char* localName, size_t size);
    virtual void deleteFile(const char* fileName);
};

// The process-wide instance; tests may point it at a subclass.
extern System* theSystem;
