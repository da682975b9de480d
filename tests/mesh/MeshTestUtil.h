#pragma once
// Helpers for the mesh format tests: reading through the parser classes from
// files or bytes, building small scenes, and byte-level expectations.
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "formats/mesh/CMayaAsciiIo.h"
#include "formats/mesh/CPlyIo.h"
#include "formats/mesh/CStlIo.h"
#include "formats/mesh/CWavefrontIo.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "tests/support/TestSupport.h"

namespace meshtest {

inline CXStringW W(const std::filesystem::path& p) { return CXStringW(Utf8ToWide(p.string())); }

// A decimal as files write them, in one of the forms a reader's quick number path must
// either get exactly right or leave to the general scanner: integers, %g, exponents,
// a leading '+', more digits than a float holds, values beyond float and subnormals.
inline std::string RandomDecimal(std::mt19937& rng) {
    char b[48];
    switch (rng() % 9) {
    case 0: std::snprintf(b, sizeof b, "%d", static_cast<int>(rng() % 2001) - 1000); break;
    case 1: std::snprintf(b, sizeof b, "%.9g", (static_cast<double>(rng()) - 2e9) * 1e-7); break;
    case 2: std::snprintf(b, sizeof b, "%.6e", (static_cast<double>(rng()) - 2e9) * 1e-12); break;
    case 3:
        std::snprintf(b, sizeof b, "+%u.%u", static_cast<unsigned>(rng() % 100), static_cast<unsigned>(rng() % 1000));
        break;
    case 4: std::snprintf(b, sizeof b, "%.20f", static_cast<double>(rng() % 1000) / 7.0); break;
    case 5: std::snprintf(b, sizeof b, "%.3e", (static_cast<double>(rng()) - 2e9) * 1e30); break; // beyond float
    case 6: std::snprintf(b, sizeof b, "%.9e", static_cast<double>(rng() % 1000) * 1e-41); break; // subnormal
    default: std::snprintf(b, sizeof b, "%.6f", (static_cast<double>(rng()) - 2e9) * 1e-9); break;
    }
    return b;
}

struct ReadOutcome {
    std::unique_ptr<C3DScene> scene;
    int error = 0;
    int level = 0;
    std::vector<IoLogInfo> log;
};

template <typename Parser> ReadOutcome ReadPath(const std::filesystem::path& p, uint32_t wven = 0) {
    CFileIo io(W(p));
    Parser parser(io);
    CSceneImportOptions opts;
    parser.LoadDefaultOptions(opts);
    if (wven) opts.GetParserOptions().SetUInt(CWavefrontIo::kWvenKey, wven);
    ReadOutcome r;
    r.scene.reset(parser.Read(W(p), opts));
    r.error = io.GetIoError();
    r.level = io.GetIoErrorLevel();
    r.log = opts.GetLog();
    return r;
}

// Writes `bytes` to a fresh file named `name` and reads it with Parser.
template <typename Parser>
ReadOutcome ReadBytes(const std::string& bytes, const std::string& name = "in.bin", uint32_t wven = 0) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir / name, bytes);
    return ReadPath<Parser>(dir / name, wven);
}

template <typename Parser>
bool SaveScene(C3DScene* scene, const std::filesystem::path& p, int* error = nullptr, uint32_t wven = 0) {
    CFileIo io(W(p));
    Parser parser(io);
    CSceneExportOptions opts;
    if (wven) opts.GetParserOptions().SetUInt(CWavefrontIo::kWvenKey, wven);
    parser.SaveDefaultOptions(opts);
    bool ok = parser.Save(W(p), scene, opts);
    if (error) *error = io.GetIoError();
    return ok;
}

inline C3DGeomObject* FirstMesh(C3DScene& s, C3DSceneNode** node = nullptr) {
    C3DNodePos pos = s.GetFirstNode(KINDOF_MESH);
    C3DBaseObject* o = nullptr;
    C3DSceneNode* n = s.GetNextNode(o, pos);
    if (node) *node = n;
    return n ? static_cast<C3DGeomObject*>(o) : nullptr;
}

// Every node in traversal order.
inline std::vector<C3DSceneNode*> Nodes(C3DScene& s) {
    std::vector<C3DSceneNode*> out;
    C3DNodePos pos = s.GetFirstNode();
    while (C3DSceneNode* n = s.GetNextNode(pos)) out.push_back(n);
    return out;
}

// A mesh node with the given points and faces (all faces get `material`).
inline C3DGeomObject* AddMesh(C3DScene& s, const std::vector<float>& xyz,
                              const std::vector<std::vector<uint32_t>>& faces, const wchar_t* name = L"mesh",
                              uint32_t material = NO_MATERIAL) {
    auto* obj = new C3DObject();
    auto* pts = new C3DPointList();
    for (size_t i = 0; i + 2 < xyz.size(); i += 3) pts->Add(xyz[i], xyz[i + 1], xyz[i + 2]);
    auto* fl = new C3DFaceList();
    fl->SetCurrentMaterial(material);
    for (auto& f : faces) fl->AddFace(f.data(), static_cast<int>(f.size()));
    obj->SetPointList(pts, true);
    obj->SetFaceList(fl, true);
    auto* node = new C3DSceneNode(obj);
    node->SetName(name);
    s.AddNode(nullptr, node);
    return obj;
}

inline std::vector<uint32_t> FaceOf(const CFaceList& fl, int f) {
    auto s = fl.Face(f);
    return std::vector<uint32_t>(s.begin(), s.end());
}

inline void PutF(std::string& s, float f) {
    char b[4];
    std::memcpy(b, &f, 4);
    s.append(b, 4);
}
inline void PutU32(std::string& s, uint32_t v) {
    for (int i = 0; i < 4; ++i) s.push_back(char(v >> (8 * i)));
}
inline void PutU16(std::string& s, uint16_t v) {
    s.push_back(char(v));
    s.push_back(char(v >> 8));
}
inline float GetF(const std::string& s, size_t at) {
    float f;
    std::memcpy(&f, s.data() + at, 4);
    return f;
}
inline uint32_t GetU32(const std::string& s, size_t at) {
    uint32_t v;
    std::memcpy(&v, s.data() + at, 4);
    return v;
}
inline uint16_t GetU16(const std::string& s, size_t at) {
    uint16_t v;
    std::memcpy(&v, s.data() + at, 2);
    return v;
}

// Text dumps for comparing two reads bit for bit: "<tag> [flags: i i i] ..." and
// "<tag> x y z ..." with every float in hexadecimal.
inline std::string DumpFaces(const char* tag, const CFaceList& fl) {
    std::string out = tag;
    for (int f = 0; f < fl.GetNumberOfFaces(); ++f) {
        out += " [" + std::to_string(fl.GetFaceFlags(f)) + ":";
        for (uint32_t i : fl.Face(f)) out += " " + std::to_string(i);
        out += "]";
    }
    return out + "\n";
}
inline std::string DumpPoints(const char* tag, const C3DPointList& pl) {
    std::string out = tag;
    char b[32];
    for (float f : pl.Raw()) {
        std::snprintf(b, sizeof b, " %a", static_cast<double>(f));
        out += b;
    }
    return out + "\n";
}

} // namespace meshtest
