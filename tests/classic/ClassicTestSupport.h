#pragma once
// Test helpers for the classic formats: a little-endian 3DS chunk builder, and
// shortcuts that run a parser on bytes or files and look nodes up.
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "formats/classic/C3DStudioIo.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"

namespace classictest {

// Builds 3DS bytes; Begin/End nest chunks and patch their lengths.
class StudioBuilder {
public:
    StudioBuilder& Begin(uint16_t id) {
        m_open.push_back(m_b.size());
        U16(id);
        U32(0);
        return *this;
    }
    StudioBuilder& End() {
        size_t start = m_open.back();
        m_open.pop_back();
        uint32_t len = static_cast<uint32_t>(m_b.size() - start);
        std::memcpy(&m_b[start + 2], &len, 4);
        return *this;
    }
    StudioBuilder& U8(uint8_t v) {
        m_b.push_back(static_cast<char>(v));
        return *this;
    }
    StudioBuilder& U16(uint16_t v) { return Raw(&v, 2); }
    StudioBuilder& U32(uint32_t v) { return Raw(&v, 4); }
    StudioBuilder& I32(int32_t v) { return Raw(&v, 4); }
    StudioBuilder& F32(float v) { return Raw(&v, 4); }
    StudioBuilder& Str(const std::string& s) {
        m_b += s;
        m_b.push_back('\0');
        return *this;
    }
    StudioBuilder& Raw(const void* p, size_t n) {
        m_b.append(static_cast<const char*>(p), n);
        return *this;
    }
    // A chunk header with an explicit (possibly wrong) length.
    StudioBuilder& Header(uint16_t id, uint32_t len) { return U16(id).U32(len); }
    const std::string& Bytes() const { return m_b; }
    size_t Size() const { return m_b.size(); }

    // Common pieces.
    StudioBuilder& Points(const std::vector<float>& xyz) {
        Begin(0x4110).U16(static_cast<uint16_t>(xyz.size() / 3));
        for (float f : xyz) F32(f);
        return End();
    }
    // Faces (a, b, c) without the closing End(), so 0x4130 chunks can follow.
    StudioBuilder& FacesOpen(const std::vector<uint16_t>& abc) {
        Begin(0x4120).U16(static_cast<uint16_t>(abc.size() / 3));
        for (size_t i = 0; i < abc.size(); i += 3) U16(abc[i]).U16(abc[i + 1]).U16(abc[i + 2]).U16(7);
        return *this;
    }
    StudioBuilder& Matrix(const float m[12]) {
        Begin(0x4160);
        for (int i = 0; i < 12; ++i) F32(m[i]);
        return End();
    }
    StudioBuilder& NodeHeader(const std::string& name, uint16_t parent) {
        return Begin(0xB010).Str(name).U16(0x4000).U16(0).U16(parent).End();
    }

private:
    std::string m_b;
    std::vector<size_t> m_open;
};

struct ReadResult {
    std::unique_ptr<C3DScene> scene;
    int error = 0;
    int level = 0;
    std::vector<IoLogInfo> log;
    bool Logged(const std::wstring& part) const {
        for (const IoLogInfo& l : log)
            if (l.text.str().find(part) != std::wstring::npos) return true;
        return false;
    }
};

inline CXStringW WidePath(const std::filesystem::path& p) { return CXStringW(Utf8ToWide(p.string())); }

// Reads a file through `Parser`: the scene, the result code and level, and the log.
template <typename Parser> ReadResult ReadFileWith(const std::filesystem::path& p) {
    CFileIo io;
    CSceneImportOptions opt;
    Parser parser(io);
    ReadResult r;
    r.scene.reset(parser.Read(WidePath(p), opt));
    r.error = io.GetIoError();
    r.level = io.GetIoErrorLevel();
    r.log = opt.GetLog();
    return r;
}

inline ReadResult ReadStudio(const std::string& bytes, bool shapes = false,
                             uint64_t copyAllowance = C3DStudioIo::kCopyAllowance) {
    CFileIo io;
    CSceneImportOptions opt;
    C3DStudioIo parser(io);
    parser.SetReadShapes(shapes);
    parser.SetCopyAllowance(copyAllowance);
    ReadResult r;
    r.scene.reset(parser.ReadMemory(bytes.data(), bytes.size(), opt));
    r.error = io.GetIoError();
    r.level = io.GetIoErrorLevel();
    r.log = opt.GetLog();
    return r;
}

// Every node of the scene in traversal order.
inline std::vector<C3DSceneNode*> AllNodes(const C3DScene& s) {
    std::vector<C3DSceneNode*> out;
    C3DNodePos pos = s.GetFirstNode(KINDOF_ALL);
    while (C3DSceneNode* n = s.GetNextNode(pos)) out.push_back(n);
    return out;
}

// A chunk found in written bytes: id, header offset, whole length.
struct RawChunk {
    uint16_t id = 0;
    size_t start = 0;
    uint32_t length = 0;
    size_t Data() const { return start + 6; }
    size_t End() const { return start + length; }
};
// Chunks lying one after another in [from, to) (a container's children).
inline std::vector<RawChunk> ChunksIn(const std::string& b, size_t from, size_t to) {
    std::vector<RawChunk> out;
    while (from + 6 <= to) {
        RawChunk c;
        c.start = from;
        std::memcpy(&c.id, &b[from], 2);
        std::memcpy(&c.length, &b[from + 2], 4);
        if (c.length < 6 || c.End() > to) break;
        out.push_back(c);
        from = c.End();
    }
    return out;
}
inline std::vector<RawChunk> ChunksIn(const std::string& b, const RawChunk& parent, size_t skip = 0) {
    return ChunksIn(b, parent.Data() + skip, parent.End());
}
// The first chunk of `id` (by value: the list is often a temporary).
inline std::optional<RawChunk> FindChunk(const std::vector<RawChunk>& v, uint16_t id) {
    for (const RawChunk& c : v)
        if (c.id == id) return c;
    return std::nullopt;
}

inline C3DSceneNode* Named(const C3DScene& s, const wchar_t* name) { return s.FindNodeByName(CXStringW(name)); }

} // namespace classictest
