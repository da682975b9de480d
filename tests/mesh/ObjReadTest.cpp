#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>

#include <gtest/gtest.h>

#include "formats/mesh/ObjReader.h"
#include "plugin/host/Cancel.h"
#include "tests/mesh/MeshTestUtil.h"

using namespace meshtest;

namespace {

const char* kQuadV = "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n";

ReadOutcome ReadObjText(const std::string& obj, const std::string& mtl = "", const std::string& mtlName = "m.mtl",
                        uint32_t wven = 0) {
    testsupport::TempDir dir;
    if (!mtl.empty()) testsupport::WriteFile(dir / mtlName, mtl);
    testsupport::WriteFile(dir / "in.obj", obj);
    return ReadPath<CWavefrontIo>(dir / "in.obj", wven);
}

} // namespace

TEST(ObjRead, FaceFormsAllRead) {
    const std::string common = std::string(kQuadV) + "vt 0 0\nvt 1 0\nvt 1 1\nvn 0 0 1\nvn 0 0 -1\n";
    struct Case {
        const char* face;
        bool uv, normals;
    } cases[] = {{"f 1 2 3\n", false, false},
                 {"f 1/1 2/2 3/3\n", true, false},
                 {"f 1//1 2//1 3//2\n", false, true},
                 {"f 1/1/1 2/2/1 3/3/2\n", true, true},
                 {"f -4 -3 -2\n", false, false}};
    for (const auto& c : cases) {
        auto r = ReadObjText(common + c.face);
        ASSERT_TRUE(r.scene) << c.face;
        C3DGeomObject* obj = FirstMesh(*r.scene);
        ASSERT_TRUE(obj);
        const C3DFaceList& fl = *obj->GetFaceList();
        ASSERT_EQ(fl.GetNumberOfFaces(), 1) << c.face;
        EXPECT_EQ(FaceOf(fl, 0), (std::vector<uint32_t>{0, 1, 2})) << c.face;
        EXPECT_EQ(obj->GetPointList()->GetSize(), 3) << c.face; // only the positions used
        EXPECT_EQ(obj->GetGlobalUVWChannel() != nullptr, c.uv) << c.face;
        auto* sn = static_cast<CSpecNormalChannel*>(obj->GetChannelByIndex(0, CHANNEL_SPEC_NORMAL));
        EXPECT_EQ(sn != nullptr, c.normals) << c.face;
        if (c.normals) {
            EXPECT_EQ(FaceOf(*sn->GetNormalFaceList(), 0), (std::vector<uint32_t>{0, 0, 1}));
            EXPECT_EQ(sn->GetNormalVectorList()->GetPoint(1).z, -1.0f);
        }
        if (c.uv) {
            const CUVWPointList& uv = *obj->GetGlobalUVWChannel()->GetUVWPointList();
            ASSERT_EQ(uv.GetSize(), 3);
            EXPECT_EQ(uv.GetPoint(2).y, 1.0f); // read as it stands: no flip on reading
        }
    }
    // -1 is the latest position read so far, not the last in the file.
    auto r = ReadObjText("v 0 0 0\nv 1 0 0\nv 2 0 0\nf -3 -2 -1\nv 9 9 9\n");
    ASSERT_TRUE(r.scene);
    C3DGeomObject* obj = FirstMesh(*r.scene);
    EXPECT_EQ(obj->GetPointList()->GetPoint(2).x, 2.0f);
}

TEST(ObjRead, NumbersFollowScanfRules) {
    auto r = ReadObjText("v +1 -.5 1e2\nv 1.5E-1 -inf 0x10\nv 3.1+e2 2 3\nv 7 8\nf 1 2 3 4\n");
    ASSERT_TRUE(r.scene);
    const C3DPointList& p = *FirstMesh(*r.scene)->GetPointList();
    EXPECT_EQ(p.GetPoint(0).x, 1.0f);
    EXPECT_EQ(p.GetPoint(0).y, -0.5f);
    EXPECT_EQ(p.GetPoint(0).z, 100.0f);
    EXPECT_EQ(p.GetPoint(1).x, 0.15f);
    EXPECT_TRUE(std::isinf(p.GetPoint(1).y) && p.GetPoint(1).y < 0);
    EXPECT_EQ(p.GetPoint(1).z, 16.0f);
    EXPECT_EQ(p.GetPoint(2).x, 3.1f); // "3.1+e2": the field ends at '+', the rest does not scan
    EXPECT_EQ(p.GetPoint(2).y, 0.0f);
    EXPECT_EQ(p.GetPoint(3).x, 7.0f); // a missing z stays 0
    EXPECT_EQ(p.GetPoint(3).z, 0.0f);
}

TEST(ObjRead, GroupsRenumberPointsByFirstUse) {
    const std::string obj = std::string(kQuadV) + "g first\nf 3 4 1\n"
                                                  "o second extra words\nf 2 3 4\n"
                                                  "g first\nf 1 2 3\n"
                                                  "g empty\n";
    auto r = ReadObjText(obj);
    ASSERT_TRUE(r.scene);
    auto nodes = Nodes(*r.scene);
    ASSERT_EQ(nodes.size(), 2u); // groups without faces (and "default") make no node
    EXPECT_EQ(nodes[0]->GetName(), L"first");
    EXPECT_EQ(nodes[1]->GetName(), L"second");
    auto* a = nodes[0]->GetGeomObject();
    ASSERT_EQ(a->GetFaceList()->GetNumberOfFaces(), 2);
    EXPECT_EQ(FaceOf(*a->GetFaceList(), 0), (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(FaceOf(*a->GetFaceList(), 1), (std::vector<uint32_t>{2, 3, 0}));
    EXPECT_EQ(a->GetPointList()->GetPoint(0).x, 1.0f); // file vertex 3 came first
    EXPECT_EQ(a->GetPointList()->GetSize(), 4);
    EXPECT_EQ(nodes[1]->GetGeomObject()->GetPointList()->GetSize(), 3);
}

TEST(ObjRead, MaterialsFromMtl) {
    const std::string mtl = "# lib\nnewmtl red one\n  Ka 0.1 0.2 0.3\n  Kd 1 0 0\n  Ks 0 0 1\n  Ns 500\n  d 0.25\n"
                            "  map_Kd -o 0.5 0.25 0 -s 2 3 1 tex/red.png\n  bump -bm 1 bump.png\n  map_norm nrm.png\n"
                            "newmtl clear\nTr 0.75\nKd 0 1\n";
    const std::string obj = "mtllib  m.mtl \n" + std::string(kQuadV) +
                            "usemtl red one\nf 1 2 3\nusemtl nosuch\nf 1 3 4\nusemtl clear\nf 2 3 4\n";
    auto r = ReadObjText(obj, mtl);
    ASSERT_TRUE(r.scene);
    ASSERT_EQ(r.scene->GetMaterialNumber(), 2);
    const uint32_t redID = r.scene->GetMaterialID(L"red one");
    ASSERT_NE(redID, NO_MATERIAL);
    auto* red = static_cast<C3DStandardMaterial*>(r.scene->GetMaterialByID(redID));
    EXPECT_EQ(red->diffuse, CRGBColor(255, 0, 0));
    EXPECT_EQ(red->ambient.g, 51);
    EXPECT_EQ(red->specular.b, 255);
    EXPECT_FLOAT_EQ(red->specularFactor, 0.5f);
    EXPECT_FLOAT_EQ(red->transparency, 0.75f);
    CMaterialMap* map = red->GetMaterialMap(MAP_DIFFUSE);
    ASSERT_TRUE(map);
    EXPECT_EQ(map->GetFileName(), L"tex/red.png");
    EXPECT_FLOAT_EQ(map->translateU, 0.5f);
    EXPECT_FLOAT_EQ(map->scaleV, 3.0f);
    EXPECT_EQ(map->channel, 0);
    ASSERT_TRUE(red->GetMaterialMap(MAP_BUMP));
    EXPECT_EQ(red->GetMaterialMap(MAP_BUMP)->GetFileName(), L"bump.png");
    ASSERT_TRUE(red->GetMaterialMap(MAP_NORMAL));
    EXPECT_EQ(r.scene->GetRequiredFiles().size(), 3u);

    auto* clear = r.scene->GetMaterialByID(r.scene->GetMaterialID(L"clear"));
    EXPECT_FLOAT_EQ(clear->transparency, 0.25f); // Tr is read as the dissolve
    EXPECT_EQ(clear->diffuse.g, 255);            // missing blue keeps its default

    const C3DFaceList& fl = *FirstMesh(*r.scene)->GetFaceList();
    EXPECT_EQ(fl.GetMaterialID(0), redID);
    EXPECT_EQ(fl.GetMaterialID(1), NO_MATERIAL); // unknown name: no material
    EXPECT_EQ(fl.GetMaterialID(2), r.scene->GetMaterialID(L"clear"));
}

TEST(ObjRead, MissingOrOddMaterialLibraries) {
    const std::string body = std::string(kQuadV) + "usemtl a\nf 1 2 3\n";
    for (const char* lib : {"mtllib nothere.mtl\n", "mtllib .\n", "mtllib ../../../../etc/none.mtl\n", "mtllib\n"}) {
        auto r = ReadObjText(lib + body);
        ASSERT_TRUE(r.scene) << lib;
        EXPECT_EQ(r.scene->GetMaterialNumber(), 0) << lib;
        EXPECT_EQ(FirstMesh(*r.scene)->GetFaceList()->GetMaterialID(0), NO_MATERIAL);
    }
    // A library in a sub-folder and one with Windows separators.
    testsupport::TempDir dir;
    std::filesystem::create_directories(dir / "sub");
    testsupport::WriteFile(dir / "sub" / "x.mtl", "newmtl a\nKd 0 0 1\n");
    testsupport::WriteFile(dir / "in.obj", "mtllib sub\\x.mtl\n" + body);
    auto r = ReadPath<CWavefrontIo>(dir / "in.obj");
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(r.scene->GetMaterialNumber(), 1);
}

TEST(ObjRead, BadIndicesWarnAndKeepValidOnes) {
    auto r = ReadObjText(std::string(kQuadV) + "f 1 0 2 9 3\nf -9 1 2 4\nf 7 8 9\n");
    ASSERT_TRUE(r.scene);
    EXPECT_EQ(r.level, LOG_INFO); // a warning, not an error
    C3DGeomObject* obj = FirstMesh(*r.scene);
    ASSERT_TRUE(obj);
    const C3DFaceList& fl = *obj->GetFaceList();
    ASSERT_EQ(fl.GetNumberOfFaces(), 2); // a face with no valid index is dropped
    EXPECT_EQ(fl.GetFaceSize(0), 3);
    EXPECT_EQ(fl.GetFaceSize(1), 3);
    bool warned = false;
    for (auto& l : r.log) warned = warned || l.level == LOG_INFO;
    EXPECT_TRUE(warned);

    // A bad UV index keeps the vertex but leaves the face's UVs unusable.
    auto u = ReadObjText(std::string(kQuadV) + "vt 0 0\nf 1/1 2/5 3/1\nf 1/1 2/1 3/1\n");
    ASSERT_TRUE(u.scene);
    CUVWChannel* uv = FirstMesh(*u.scene)->GetGlobalUVWChannel();
    ASSERT_TRUE(uv);
    EXPECT_TRUE(uv->GetUVWFaceList()->IsFaceFlagSet(0, FACE_SKIP));
    EXPECT_FALSE(uv->GetUVWFaceList()->IsFaceFlagSet(1, FACE_SKIP));
    EXPECT_EQ(uv->GetUVWPointList()->GetSize(), 1);
}

TEST(ObjRead, EmptyAndNotObj) {
    for (const std::string& bad : {std::string(""), std::string("# only a comment\n"), std::string(kQuadV),
                                   std::string("f 1 2 3\n"), std::string(1025, 'x') + "\n" + kQuadV + "f 1 2 3\n"}) {
        auto r = ReadObjText(bad);
        EXPECT_FALSE(r.scene);
        EXPECT_EQ(r.error, IO_ERR_EMPTY);
        EXPECT_EQ(r.level, LOG_ERROR);
    }
    // 1024 characters are fine, and so is a long line after the first vertex.
    auto ok =
        ReadObjText("#" + std::string(1023, 'x') + "\n" + kQuadV + "#" + std::string(100000, 'y') + "\nf 1 2 3\n");
    EXPECT_TRUE(ok.scene);
    // The limit counts characters as the text mode decodes them, not bytes.
    std::string e600, e1025;
    for (int i = 0; i < 600; ++i) e600 += "\xC3\xA9"; // U+00E9, two bytes in UTF-8
    for (int i = 0; i < 1025; ++i) e1025 += "\xC3\xA9";
    const std::string rest = std::string("\n") + kQuadV + "f 1 2 3\n";
    EXPECT_TRUE(ReadObjText("#" + e600 + rest).scene);                 // auto: UTF-8
    EXPECT_TRUE(ReadObjText("#" + e600 + rest, "", "m.mtl", 1).scene); // UTF-8
    EXPECT_TRUE(ReadObjText("\xEF\xBB\xBF#" + e600 + rest).scene);     // UTF-8 with its mark
    EXPECT_FALSE(ReadObjText("#" + e1025 + rest).scene);
    EXPECT_FALSE(ReadObjText("#" + e600 + rest, "", "m.mtl", 2).scene); // ANSI: 1201 characters
    EXPECT_FALSE(ReadObjText("#" + e600 + rest + "# \xE9\n").scene);    // auto, not UTF-8: Latin-1
    std::string four;                                                   // a four-byte sequence is one character
    for (int i = 0; i < 1000; ++i) four += "\xF0\x9F\x98\x80";
    EXPECT_TRUE(ReadObjText("g " + four + rest).scene);
    // Faces before any vertex: positive indices still reach the positions read later.
    auto early = ReadObjText(std::string("f 1 2 3\n") + kQuadV);
    ASSERT_TRUE(early.scene);
    EXPECT_EQ(FirstMesh(*early.scene)->GetPointList()->GetPoint(1).x, 1.0f);
    EXPECT_EQ(ReadPath<CWavefrontIo>(testsupport::TempDir().path() / "no.obj").error, IO_ERR_OPEN);
    EXPECT_EQ(ReadPath<CWavefrontIo>(testsupport::TempDir().path()).error, IO_ERR_OPEN);
}

TEST(ObjRead, LineEndsNulsAndByteOrderMarks) {
    const std::string lf = std::string(kQuadV) + "g grp\nf 1 2 3 4\n";
    std::string crlf, cr;
    for (char c : lf) {
        if (c == '\n') {
            crlf += "\r\n";
            cr += '\r';
        } else {
            crlf += c;
            cr += c;
        }
    }
    std::string nul = lf;
    nul.insert(nul.find("g grp"), std::string("#\0x\n", 4));
    for (const std::string& text : {crlf, cr, "\xEF\xBB\xBF" + lf, nul,
                                    std::string("v 0 0 0\r\nv 1 0 0\nv 1 1 0\rv 0 1 0\ng grp\r\nf 1 2 3 4")}) {
        auto r = ReadObjText(text);
        ASSERT_TRUE(r.scene);
        C3DSceneNode* node = nullptr;
        C3DGeomObject* obj = FirstMesh(*r.scene, &node);
        EXPECT_EQ(node->GetName(), L"grp");
        EXPECT_EQ(obj->GetFaceList()->GetFaceSize(0), 4);
    }
    // UTF-16 with its BOM (auto mode), little and big endian, with a non-ASCII group name.
    const std::wstring wide = L"v 0 0 0\nv 1 0 0\nv 1 1 0\ng gr\u00fcn\nf 1 2 3\n";
    for (bool big : {false, true}) {
        std::string bytes = big ? "\xFE\xFF" : "\xFF\xFE";
        for (wchar_t c : wide) {
            char hi = char(c >> 8), lo = char(c & 0xFF);
            if (big) {
                bytes += hi;
                bytes += lo;
            } else {
                bytes += lo;
                bytes += hi;
            }
        }
        auto r = ReadObjText(bytes);
        ASSERT_TRUE(r.scene) << big;
        C3DSceneNode* node = nullptr;
        FirstMesh(*r.scene, &node);
        EXPECT_EQ(node->GetName(), L"gr\u00fcn");
    }
    // WVEN 2 reads bytes as Latin-1; WVEN 1 as UTF-8.
    const std::string utf8 = std::string(kQuadV) + "g gr\xC3\xBCn\nf 1 2 3\n";
    C3DSceneNode* node = nullptr;
    auto latin = ReadObjText(utf8, "", "m.mtl", 2);
    FirstMesh(*latin.scene, &node);
    EXPECT_EQ(node->GetName(), L"gr\u00c3\u00bcn");
    auto u8 = ReadObjText(utf8, "", "m.mtl", 1);
    FirstMesh(*u8.scene, &node);
    EXPECT_EQ(node->GetName(), L"gr\u00fcn");
}

TEST(ObjRead, NodeIdCommentGoesToNextGroup) {
    const std::string obj = std::string(kQuadV) + "# TVL:NODEID:18446744073709551615\ng a\nf 1 2 3\n"
                                                  "g b\nf 2 3 4\n# TVL:NODEID:42\no c\nf 1 3 4\n";
    auto r = ReadObjText(obj);
    ASSERT_TRUE(r.scene);
    auto nodes = Nodes(*r.scene);
    ASSERT_EQ(nodes.size(), 3u);
    EXPECT_EQ(nodes[0]->GetNodeID(), 18446744073709551615ull);
    EXPECT_EQ(nodes[1]->GetNodeID(), 0u); // taken once, then cleared
    EXPECT_EQ(nodes[2]->GetNodeID(), 42u);
}

TEST(ObjRead, EveryPrefixAndCancel) {
    const std::string obj =
        "mtllib m.mtl\n" + std::string(kQuadV) + "vt 0 0\nvn 0 0 1\ng a\nusemtl x\nf 1/1/1 2/1/1 3/1/1 4/1/1\n";
    const std::string mtl = "newmtl x\nKd 1 1 1\nmap_Kd -s 1 1 1 a.png\n";
    for (size_t n = 0; n <= obj.size(); ++n) {
        auto r = ReadObjText(obj.substr(0, n), mtl.substr(0, n % (mtl.size() + 1)));
        if (!r.scene) { EXPECT_EQ(r.error, IO_ERR_EMPTY) << n; }
    }
    std::atomic<bool> cancel{true};
    SetThreadCancelToken(&cancel);
    std::string big;
    for (int i = 0; i < 200; ++i) big += kQuadV;
    big += "f 1 2 3\n";
    auto r = ReadObjText(big);
    SetThreadCancelToken(nullptr);
    EXPECT_FALSE(r.scene);
    EXPECT_EQ(r.error, IO_ERR_CANCELLED);
    EXPECT_EQ(r.level, LOG_INFO);
}

namespace {

// Everything a read produced, as text: names, node IDs, points bit for bit, faces with
// flags and materials, and the UV and normal channels.
std::string Describe(C3DScene& s) {
    std::string out;
    for (C3DSceneNode* n : Nodes(s)) {
        out += "node " + WideToUtf8(n->GetName().view()) + " id " + std::to_string(n->GetNodeID()) + "\n";
        auto* g = static_cast<C3DGeomObject*>(n->GetBaseObject());
        if (!g || !g->GetFaceList()) continue;
        out += DumpPoints("points", *g->GetPointList());
        out += DumpFaces("faces", *g->GetFaceList());
        auto* fl = static_cast<const C3DFaceList*>(g->GetFaceList());
        out += "materials";
        for (int f = 0; f < fl->GetNumberOfFaces(); ++f) out += " " + std::to_string(fl->GetMaterialID(f));
        out += "\n";
        if (auto* uv = g->GetGlobalUVWChannel()) {
            EXPECT_EQ(uv->GetUVWFaceList()->GetNumberOfFaces(), fl->GetNumberOfFaces()) << "UV faces not parallel";
            out += DumpPoints("uv", *uv->GetUVWPointList());
            out += DumpFaces("uvfaces", *uv->GetUVWFaceList());
        }
        if (auto* sn = static_cast<CSpecNormalChannel*>(g->GetChannelByIndex(0, CHANNEL_SPEC_NORMAL))) {
            EXPECT_EQ(sn->GetNormalFaceList()->GetNumberOfFaces(), fl->GetNumberOfFaces()) << "normals not parallel";
            out += DumpPoints("normals", *sn->GetNormalVectorList());
            out += DumpFaces("nfaces", *sn->GetNormalFaceList());
        }
    }
    return out;
}

} // namespace

// Plain lines take a quick path and everything else the general scanner. A vertical tab
// before a line's first number is a space to the scanner but sends the line down the
// general path, so each random file is read both ways and the scenes must be the same.
TEST(ObjRead, QuickAndGeneralPathsAgree) {
    std::mt19937 rng(77);
    auto num = [&] { return RandomDecimal(rng); };
    for (int round = 0; round < 40; ++round) {
        std::vector<std::string> lines = {"mtllib m.mtl"};
        const int nv = 3 + static_cast<int>(rng() % 30);
        for (int i = 0; i < nv; ++i) {
            lines.push_back("v " + num() + " " + num() + " " + num() + (rng() % 6 == 0 ? " 1.0" : ""));
            lines.push_back("vt " + num() + " " + num() + (rng() % 6 == 0 ? " 0" : ""));
            if (rng() % 3) lines.push_back("vn " + num() + " " + num() + " " + num());
            if (rng() % 9 == 0) lines.push_back("v " + num()); // short vertex line: the rest stay zero
        }
        for (int f = 0; f < 60; ++f) {
            if (rng() % 15 == 0) lines.push_back(rng() % 2 ? "g part" + std::to_string(rng() % 3) : "o obj x");
            if (rng() % 15 == 0) lines.push_back(rng() % 2 ? "usemtl red" : "usemtl nothing");
            if (rng() % 20 == 0) lines.push_back("# TVL:NODEID:" + std::to_string(rng()));
            const int form = static_cast<int>(rng() % 4);
            const int n = 3 + static_cast<int>(rng() % 3);
            std::string line = "f";
            for (int k = 0; k < n; ++k) {
                auto idx = [&]() {
                    const int r = static_cast<int>(rng() % 40);
                    if (r == 4) return std::string(6 + rng() % 3, '0') + std::to_string(1 + r % nv); // 8-10 digits
                    return std::to_string(r < 2 ? -1 - r : r == 2 ? 0 : r == 3 ? nv + 5 : 1 + r % nv);
                };
                std::string v = idx();
                if (form == 1) v += "/" + idx();
                if (form == 2) v += "/" + idx() + "/" + idx();
                if (form == 3) v += "//" + idx();
                line += (rng() % 8 == 0 ? "\t" : " ") + v;
            }
            if (rng() % 12 == 0) line += " # note";
            if (rng() % 12 == 0) line += " 1//2"; // a late "//" changes how the whole line reads
            if (rng() % 12 == 0) line += " 7/x";
            lines.push_back(line);
        }
        const char* ends[] = {"\n", "\r\n", "\r"};
        const std::string eol = ends[round % 3];
        std::string quick, general;
        for (const std::string& l : lines) {
            quick += l + eol;
            const size_t sp = l.find(' ');
            const bool data = l.rfind("v", 0) == 0 || l.rfind("f", 0) == 0;
            general += (data && sp != std::string::npos ? l.substr(0, sp + 1) + "\v" + l.substr(sp + 1) : l) + eol;
        }
        const std::string mtl = "newmtl red\nKd 1 0 0\n";
        auto a = ReadObjText(quick, mtl);
        auto b = ReadObjText(general, mtl);
        ASSERT_EQ(a.scene != nullptr, b.scene != nullptr) << round;
        if (a.scene) { ASSERT_EQ(Describe(*a.scene), Describe(*b.scene)) << "round " << round << "\n" << quick; }
    }
}

// Files whose faces give positions, UVs and normals one shared index ("7/7/7") are read
// with fewer steps: the index text is compared rather than read again, and the positions'
// renumbering serves the channels. Each random file is read against a twin whose UV and
// normal lists are stored in another order (so no index stream is shared), with the
// faces' indices mapped to match: the two scenes must be the same. Near misses
// ("12/12/123", "12/1/12", "12/12/1") and faces with a bad UV or normal index are mixed in.
TEST(ObjRead, SharedIndexStreamsReadLikeSeparateOnes) {
    std::mt19937 rng(2026);
    for (int round = 0; round < 30; ++round) {
        const int nv = 5 + static_cast<int>(rng() % (round < 10 ? 40 : 3000));
        // Every third round has fewer UVs or normals than positions, so that an "a/a/a"
        // index can be in range for one list and not for another.
        const int nt = round % 3 == 1 ? nv - 2 : nv, nn = round % 3 == 2 ? nv - 3 : nv;
        std::string head, twinHead, faces, twinFaces;
        // The twin's UV list is reversed, and its normal list turned by one: position p
        // holds normal p % nn + 1. Indices out of range stay as they are.
        auto twinUv = [&](int j) { return j < 1 || j > nt ? j : nt + 1 - j; };
        auto twinNormalAt = [&](int j) { return j < 1 || j > nn ? j : (j == 1 ? nn : j - 1); };
        std::vector<std::string> vt(static_cast<size_t>(nv) + 1), vn(static_cast<size_t>(nv) + 1);
        for (int i = 1; i <= nv; ++i) {
            vt[static_cast<size_t>(i)] = "vt " + std::to_string(i) + " " + std::to_string(-i) + "\n";
            vn[static_cast<size_t>(i)] = "vn 0 " + std::to_string(i) + " 1\n";
        }
        for (int i = 1; i <= nv; ++i) {
            const std::string v = "v " + std::to_string(i) + " " + std::to_string(i % 7) + " 0\n";
            head += v;
            twinHead += v;
            if (i <= nt) {
                head += vt[static_cast<size_t>(i)];
                twinHead += vt[static_cast<size_t>(twinUv(i))];
            }
            if (i <= nn) {
                head += vn[static_cast<size_t>(i)];
                twinHead += vn[static_cast<size_t>(i % nn + 1)];
            }
        }
        auto near = [&](int i) { // an index whose text shares a prefix with i's; 0 and too large are bad
            switch (rng() % 4) {
            case 0: return i * 10 + static_cast<int>(rng() % 10);
            case 1: return i / 10;
            case 2: return 0;
            default: return 1 + static_cast<int>(rng() % nv);
            }
        };
        const int groups = 1 + static_cast<int>(rng() % 3);
        for (int g = 0; g < groups; ++g) {
            const std::string gl = "g part" + std::to_string(g) + "\n";
            faces += gl;
            twinFaces += gl;
            // Styles: all shared, UVs apart, normals apart, mixed; a bad UV on a face whose
            // positions are all the first one, so the flagged face's zeros still equal the
            // position stream (a flagged face must not decide the UVs' order); and UVs or
            // normals apart now and then with every index in range, so that no face falls
            // back to the general rules.
            const int style = static_cast<int>(rng() % 7);
            const int nf = 1 + static_cast<int>(rng() % 40);
            for (int f = 0; f < nf; ++f) {
                std::string line = "f", twin = "f";
                const int n = 3 + static_cast<int>(rng() % 3);
                for (int k = 0; k < n; ++k) {
                    const int range = style >= 5 ? std::min(nt, nn) : nv;
                    const int i = style == 4 && f == 0 ? 1 : 1 + static_cast<int>(rng() % range);
                    int t = i, m = i;
                    if (style == 5 && rng() % 8 == 0) t = 1 + static_cast<int>(rng() % nt);
                    if (style == 6 && rng() % 8 == 0) m = 1 + static_cast<int>(rng() % nn);
                    if ((style == 1 || style == 3) && rng() % 4 == 0) t = near(i);
                    if ((style == 2 || style == 3) && rng() % 4 == 0) m = near(i);
                    if (style == 4 && f == 0 && k == 0) t = 0;
                    line += " " + std::to_string(i) + "/" + std::to_string(t) + "/" + std::to_string(m);
                    twin += " " + std::to_string(i) + "/" + std::to_string(twinUv(t)) + "/" +
                            std::to_string(twinNormalAt(m));
                }
                faces += line + "\n";
                twinFaces += twin + "\n";
            }
        }
        auto a = ReadObjText(head + faces);
        auto b = ReadObjText(twinHead + twinFaces);
        ASSERT_TRUE(a.scene && b.scene) << round;
        ASSERT_EQ(Describe(*a.scene), Describe(*b.scene)) << "round " << round << "\n" << faces;
    }
}

namespace {

// Line counts the plain way: split into lines, look at each one's first bytes.
const char* CountLinesByHand(const char* p, const char* end, meshio::ObjLineCounts& c) {
    auto lower = [](char ch) { return (ch >= 'A' && ch <= 'Z') ? static_cast<char>(ch + 32) : ch; };
    auto space = [](char ch) { return ch == ' ' || (ch >= '\t' && ch <= '\r'); };
    while (p < end) {
        if (*p == '\n' || *p == '\r') {
            ++p;
            continue;
        }
        const char* le = p;
        while (le < end && *le != '\n' && *le != '\r') ++le;
        const char c0 = lower(*p);
        if (c0 == 'g' || c0 == 'o' || c0 == 'm') return p;
        if (c0 == 'f') {
            ++c.faces;
            bool prev = true;
            for (const char* q = p + 1; q < le; ++q) {
                c.faceTokens += !space(*q) && prev;
                prev = space(*q);
            }
        } else if (c0 == 'v' && le - p >= 2) {
            const char c2 = lower(p[1]);
            c.v += c2 == ' ' || c2 == '\t';
            c.vn += c2 == 'n';
            c.vt += c2 == 't';
        }
        p = le;
    }
    return end;
}

} // namespace

// The bulk line counter works on 64-byte blocks with carries between them; lines and
// tokens that straddle block edges, the padded tail and the stopping lines are where it
// can go wrong, so random texts of short pieces put every piece at every offset. Rounds
// alternate between the processor's widest path and the portable one.
TEST(ObjRead, BulkLineCountsMatchCountingByHand) {
    std::mt19937 rng(4242);
    const std::string pieces[] = {"v 1 2 3",
                                  "V\t1 2",
                                  "vt 0 0",
                                  "VN 1 0 0",
                                  "vT",
                                  "v",
                                  "vx 1",
                                  "f 1 2 3",
                                  "F1/2 3//4  5",
                                  "f",
                                  "f   ",
                                  " f 1 2",
                                  "\tv 1",
                                  "f\v1\f2 3",
                                  "ff 1",
                                  "g grp",
                                  "G",
                                  "o x",
                                  "mtllib a.mtl",
                                  "M",
                                  "usemtl m",
                                  "# v f",
                                  "s 1",
                                  "f 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20 21",
                                  "v 0.000001 -2.5e+03 123456789.0 this line is long enough to cross a block edge",
                                  "\x80\xff f",
                                  std::string(70, 'f')};
    // The text sits in a block of its own size, so that a read past its end shows under
    // the address sanitizer.
    auto check = [&](const std::string& text, bool portable, int round) {
        const auto copy = std::make_unique<char[]>(text.size());
        std::memcpy(copy.get(), text.data(), text.size());
        // Resume after each stop the way the reader does: past the stopping line.
        const char* p = copy.get();
        const char* const end = p + text.size();
        while (p < end) {
            meshio::ObjLineCounts got, want;
            const char* stopGot = meshio::CountObjLines(p, end, got, nullptr, nullptr, portable);
            const char* stopWant = CountLinesByHand(p, end, want);
            ASSERT_EQ(stopGot - copy.get(), stopWant - copy.get()) << round << " [" << text << "]";
            ASSERT_EQ(got.v, want.v) << round << " [" << text << "]";
            ASSERT_EQ(got.vt, want.vt) << round;
            ASSERT_EQ(got.vn, want.vn) << round;
            ASSERT_EQ(got.faces, want.faces) << round << " [" << text << "]";
            ASSERT_EQ(got.faceTokens, want.faceTokens) << round << " [" << text << "]";
            p = stopGot;
            while (p < end && *p != '\n' && *p != '\r') ++p;
        }
    };
    const char* ends[] = {"\n", "\r\n", "\r", "\n\n", "\r\r\n"};
    for (int round = 0; round < 6000; ++round) {
        std::string text;
        if (rng() % 4 == 0) text += ends[rng() % 5];
        const int n = 1 + static_cast<int>(rng() % 40);
        for (int i = 0; i < n; ++i) {
            text += pieces[rng() % std::size(pieces)];
            if (rng() % 3 == 0) text += std::string(rng() % 7, ' ');
            if (i + 1 < n || rng() % 2) text += ends[rng() % 5];
        }
        // The AVX2 path (where there is one) and the SSE2 one.
        ASSERT_NO_FATAL_FAILURE(check(text, round % 2 == 1, round));
    }
    // A line that starts on the last byte of a block, with nothing or more text after it.
    for (size_t blocks = 1; blocks <= 3; ++blocks) {
        for (const char* last : {"v", "f", "vn", "v "}) {
            for (const char* tail : {"", "\n", "t 1 2\nf 1 2"}) {
                std::string text = std::string(64 * blocks - 1, '\n') + last + tail;
                for (bool portable : {false, true}) ASSERT_NO_FATAL_FAILURE(check(text, portable, -1));
            }
        }
    }
    // A poll that asks to stop ends the count at once.
    const std::string big(100000, '\n');
    meshio::ObjLineCounts c;
    int calls = 0;
    const char* r = meshio::CountObjLines(
        big.data(), big.data() + big.size(), c, [](void* n, const char*) { return ++*static_cast<int*>(n) == 2; },
        &calls);
    EXPECT_EQ(r, big.data() + big.size());
    EXPECT_EQ(calls, 2);
}
