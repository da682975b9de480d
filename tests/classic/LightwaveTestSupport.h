#pragma once
// Test helpers for the Lightwave formats: a big-endian IFF builder (U4 chunks, U2 sub-chunks,
// even padding) and shortcuts that read object bytes and find nodes.
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "formats/classic/CLightwaveIo.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"

namespace lwtest {

class IffBuilder {
public:
    // FORM <type> ... ; close with End().
    IffBuilder& Form(const char* type) {
        Chunk("FORM");
        return Id(type);
    }
    // A chunk with a U4 length, or a sub-chunk with a U2 length; End() patches the length and pads.
    IffBuilder& Chunk(const char* id) {
        Id(id);
        m_open.push_back({m_b.size(), 4});
        return U32(0);
    }
    IffBuilder& Sub(const char* id) {
        Id(id);
        m_open.push_back({m_b.size(), 2});
        return U16(0);
    }
    IffBuilder& End() {
        const Open o = m_open.back();
        m_open.pop_back();
        const size_t len = m_b.size() - o.at - o.width;
        for (size_t i = 0; i < o.width; ++i) m_b[o.at + i] = static_cast<char>(len >> (8 * (o.width - 1 - i)));
        if (len & 1) m_b.push_back('\0');
        return *this;
    }
    IffBuilder& Id(const char* id) {
        m_b.append(id, 4);
        return *this;
    }
    IffBuilder& U8(uint8_t v) {
        m_b.push_back(static_cast<char>(v));
        return *this;
    }
    IffBuilder& U16(uint16_t v) { return U8(uint8_t(v >> 8)).U8(uint8_t(v)); }
    IffBuilder& I16(int16_t v) { return U16(static_cast<uint16_t>(v)); }
    IffBuilder& U32(uint32_t v) { return U16(uint16_t(v >> 16)).U16(uint16_t(v)); }
    IffBuilder& F32(float f) {
        uint32_t u;
        std::memcpy(&u, &f, 4);
        return U32(u);
    }
    IffBuilder& Vec(float x, float y, float z) { return F32(x).F32(y).F32(z); }
    IffBuilder& S0(const std::string& s) {
        m_b += s;
        m_b.push_back('\0');
        if ((s.size() + 1) & 1) m_b.push_back('\0');
        return *this;
    }
    IffBuilder& VX(uint32_t i) { return i < 0xFF00 ? U16(uint16_t(i)) : U32(i | 0xFF000000u); }
    const std::string& Bytes() const { return m_b; }
    std::string& Mutable() { return m_b; }

private:
    struct Open {
        size_t at, width;
    };
    std::string m_b;
    std::vector<Open> m_open;
};

struct ReadResult {
    std::unique_ptr<C3DScene> scene;
    int error = 0;
    std::vector<std::wstring> log;
    bool Logged(const std::wstring& part) const {
        for (const std::wstring& l : log)
            if (l.find(part) != std::wstring::npos) return true;
        return false;
    }
};

inline ReadResult ReadObjectBytes(const std::string& bytes, const std::wstring& folder = L"") {
    CFileIo io;
    CLightwaveIo parser(io);
    CSceneImportOptions options;
    parser.LoadDefaultOptions(options);
    ReadResult r;
    r.scene.reset(
        parser.ReadMemory({reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()}, options, CXStringW(folder)));
    r.error = io.GetIoError();
    for (const auto& l : options.GetLog()) r.log.push_back(l.text.str());
    return r;
}

inline C3DSceneNode* FindNode(const C3DScene& s, const wchar_t* name) { return s.FindNodeByName(CXStringW(name)); }

inline C3DObject* MeshOf(C3DSceneNode* n) {
    return n && n->GetBaseObject() && n->GetBaseObject()->GetKindOf() == KINDOF_MESH
               ? static_cast<C3DObject*>(n->GetBaseObject())
               : nullptr;
}

} // namespace lwtest
