#pragma once
// Helpers for the VRML97 import tests: read a world given as text (or a file)
// through CVrml97Io::Read, find nodes, and capture the engine's diagnostics.
#include <gtest/gtest.h>

#include <cstdarg>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "plugin/host/FileIo.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "tests/support/TestSupport.h"
#include "vrml/vrml97/CVrml97Io.h"
#include "vrml/vrml97/System.h"

namespace importtest {

struct ReadResult {
    std::unique_ptr<C3DScene> scene;
    int error = 0;
    int level = 0;
    std::vector<std::wstring> log;
    bool LogHas(const std::wstring& part) const {
        for (auto& l : log)
            if (l.find(part) != std::wstring::npos) return true;
        return false;
    }
};

inline ReadResult ReadPath(const std::filesystem::path& p) {
    CFileIo io(CXStringW(p.wstring()));
    CVrml97Io parser(io);
    CSceneImportOptions options;
    parser.LoadDefaultOptions(options);
    ReadResult r;
    r.scene.reset(parser.Read(CXStringW(p.wstring()), options));
    r.error = io.GetIoError();
    r.level = io.GetIoErrorLevel();
    for (auto& l : options.GetLog()) r.log.push_back(l.text.str());
    return r;
}

// Writes the text as world.wrl (or `name`) into a fresh folder and reads it.
inline ReadResult ReadWorld(const std::string& text, const std::string& name = "world.wrl") {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / name, text);
    return ReadPath(dir / name);
}

inline std::string World(const std::string& body) { return "#VRML V2.0 utf8\n" + body + "\n"; }

// Top-level nodes and children, in order.
inline std::vector<C3DSceneNode*> Children(const C3DScene& s, const C3DSceneNode* parent = nullptr) {
    std::vector<C3DSceneNode*> out;
    for (C3DSceneNode* c = (parent ? parent : s.GetRoot())->GetChildNode(); c; c = c->GetRightNode()) out.push_back(c);
    return out;
}

inline std::vector<C3DSceneNode*> AllNodes(const C3DScene& s, uint32_t kinds = KINDOF_ALL) {
    std::vector<C3DSceneNode*> out;
    C3DNodePos pos = s.GetFirstNode(kinds);
    while (C3DSceneNode* n = s.GetNextNode(pos)) out.push_back(n);
    return out;
}

inline std::string Name(const C3DSceneNode* n) { return WideToUtf8(n->GetName().str()); }

// Number after the given prefix in a name ("t12" -> 12), -1 when the name does not start so.
inline long NumberAfter(const std::string& name, const std::string& prefix) {
    if (name.compare(0, prefix.size(), prefix) != 0 || name.size() == prefix.size()) return -1;
    for (size_t i = prefix.size(); i < name.size(); ++i)
        if (name[i] < '0' || name[i] > '9') return -1;
    return std::stol(name.substr(prefix.size()));
}

inline C4x4Matrix MatrixKey(const C3DSceneNode* n) {
    C3DKey* k = n->GetKeyByIndex(KEY_MATRIX, 0);
    EXPECT_NE(k, nullptr);
    return k ? static_cast<C3DMatrixKey*>(k)->matrix : C4x4Matrix();
}

// Collects what the engine's System object writes while alive.
class CaptureSystem : public System {
public:
    CaptureSystem() : m_prev(theSystem) { theSystem = this; }
    ~CaptureSystem() override { theSystem = m_prev; }
    void error(const char* fmt, ...) override {
        va_list ap;
        va_start(ap, fmt);
        append(fmt, ap);
        va_end(ap);
    }
    void warn(const char* fmt, ...) override {
        va_list ap;
        va_start(ap, fmt);
        append(fmt, ap);
        va_end(ap);
    }
    void inform(const char*, ...) override {}
    std::string text;

private:
    void append(const char* fmt, va_list ap) {
        char buf[1024];
        std::vsnprintf(buf, sizeof buf, fmt, ap);
        text += buf;
    }
    System* m_prev;
};

} // namespace importtest
