// Loads the built module the way the host does and checks its exported ABI.
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <dlfcn.h>
#include <memory>
#include <set>
#include <string>

#include "plugin/host/FileIo.h"
#include "plugin/host/GenericIo.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "tests/support/TestSupport.h"

namespace {
struct Module {
    void* handle = nullptr;
    bool (*init)(int, void*) = nullptr;
    uint32_t (*version)() = nullptr;
    Module() {
        std::string path = (testsupport::BinaryDir() / "lib" / "orbiscope-formats.so").string();
        handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!handle) return;
        init = reinterpret_cast<bool (*)(int, void*)>(dlsym(handle, "Init3DParser"));
        version = reinterpret_cast<uint32_t (*)()>(dlsym(handle, "TarnvaleGetPluginVersion"));
    }
};
Module& M() {
    static Module m;
    return m;
}

struct Expected {
    const wchar_t* desc;
    const wchar_t* ext;
    uint32_t id;
    uint32_t flags;
    bool read, write;
};
const Expected kTable[14] = {
    {L"3D Studio files", L".3ds", 0x33445354, 0x40013, true, true},
    {L"Lightwave Object files", L".lwo|.lwb|.lw|.lwm", 0x4C494754, 0x40013, true, true},
    {L"Lightwave Scene files", L".lws", 0x4C494753, 0x40011, true, false},
    {L"Amapi files", L".a3d", 0x414D4150, 0x40011, true, false},
    {L"Maya ASCII files", L".ma", 0x4D594153, 0x40012, false, true},
    {L"Dxf 14 files", L".dxf", 0x44584634, 0x40013, true, true},
    {L"Wavefront files", L".obj", 0x57415646, 0x40013, true, true},
    {L"Truespace files", L".cob|.scn", 0x54525545, 0x40013, true, true},
    {L"VRML files", L".wrl|.iv", 0x56524D4C, 0x40013, true, true},
    {L"VRML97 files", L".wrl|.wrl97|.wrz|.vrml", 0x56523937, 0x40811, true, false},
    {L"STL files", L".stl", 0x53544C20, 0x40013, true, true},
    {L"PLY files", L".ply", 0x504C5959, 0x40012, false, true},
    {L"KMZ files", L".kmz", 0x4B4D5A49, 0x40011, true, false},
    {L"Luxology Modo files", L".lxo", 0x4C584F49, 0x40013, true, true},
};
} // namespace

TEST(PluginModule, ExportsExactlyTheTwoEntryPoints) {
    std::string cmd =
        "nm -D --defined-only '" + (testsupport::BinaryDir() / "lib" / "orbiscope-formats.so").string() + "'";
    std::unique_ptr<FILE, int (*)(FILE*)> p(popen(cmd.c_str(), "r"), pclose);
    ASSERT_TRUE(p);
    std::set<std::string> names;
    char line[512];
    while (std::fgets(line, sizeof line, p.get())) {
        std::string s(line);
        if (s.size() < 20) continue;
        char type = s[17];
        std::string name = s.substr(19);
        while (!name.empty() && (name.back() == '\n' || name.back() == '\r')) name.pop_back();
        if (type == 'T' || type == 'D' || type == 'B' || type == 'W' || type == 'V' || type == 'R' || type == 'u' ||
            type == 'i')
            names.insert(name);
    }
    EXPECT_EQ(names, (std::set<std::string>{"Init3DParser", "TarnvaleGetPluginVersion"}));
}

TEST(PluginModule, FormatTableAppendedInOrderBehindExistingRecords) {
    ASSERT_TRUE(M().init) << dlerror();
    EXPECT_EQ(M().version(), 0x00050000u);
    CXArray<CFileExt> list;
    CFileExt existing;
    existing.description = L"host's own";
    existing.typeID = 0x12345678;
    list.Add(existing);
    EXPECT_TRUE(M().init(0, &list));
    ASSERT_EQ(list.GetSize(), 15);
    EXPECT_EQ(list[0].description, CXStringW(L"host's own"));
    int withWrl = 0;
    for (int i = 0; i < 14; ++i) {
        const CFileExt& r = list[i + 1];
        const Expected& e = kTable[i];
        SCOPED_TRACE(i);
        EXPECT_EQ(r.description, CXStringW(e.desc));
        EXPECT_EQ(r.extensions, CXStringW(e.ext));
        EXPECT_EQ(r.typeID, e.id);
        EXPECT_EQ(r.flags, e.flags);
        EXPECT_EQ(r.readProvider, e.read ? 0x504C4750u : 0x554E4B4Eu);
        EXPECT_EQ(r.writeProvider, e.write ? 0x504C4750u : 0x554E4B4Eu);
        EXPECT_EQ(r.reserved, 0u);
        // Read and write bits follow the providers; 0x10 and 0x40000 are on every record.
        EXPECT_EQ((r.flags & 1) != 0, e.read);
        EXPECT_EQ((r.flags & 2) != 0, e.write);
        EXPECT_EQ(r.flags & 0x40010u, 0x40010u);
        if (r.extensions.Find(L".wrl") >= 0) ++withWrl;
        EXPECT_EQ((r.flags & 0x800) != 0, r.typeID == 0x56523937u);
    }
    EXPECT_EQ(withWrl, 2);
    EXPECT_EQ(list[11].typeID, 0x53544C20u); // "STL " ends in a blank
}

TEST(PluginModule, ParserCreationAndUnknownRequests) {
    ASSERT_TRUE(M().init);
    CFileIo io;
    for (const Expected& e : kTable) {
        C3DParserRequest req;
        req.fileIo = &io;
        req.typeID = e.id;
        EXPECT_TRUE(M().init(1, &req));
        ASSERT_NE(req.parser, nullptr) << std::hex << e.id;
        EXPECT_EQ(&req.parser->GetFileIo(), &io);
        EXPECT_TRUE(req.parser->ReleaseParser(false, nullptr));
    }
    C3DParserRequest req;
    req.fileIo = &io;
    req.typeID = 0;
    auto* sentinel = reinterpret_cast<C3DParser*>(0x1234);
    req.parser = sentinel;
    EXPECT_TRUE(M().init(1, &req));
    EXPECT_EQ(req.parser, sentinel); // unknown ID: untouched
    req.typeID = 0x53544C00u;        // "STL" without the blank
    EXPECT_TRUE(M().init(1, &req));
    EXPECT_EQ(req.parser, sentinel);
    int junk = 7;
    EXPECT_TRUE(M().init(2, &junk));
    EXPECT_TRUE(M().init(-1, &junk));
    EXPECT_EQ(junk, 7);
}

TEST(HostContainers, AppendGrowthRuleOfTheHostArray) {
    // grow step 0: a quarter of the count, clamped to [4, 1024]
    EXPECT_EQ(CXArray<int>::NextCapacity(0, 0, 0, 1), 4);
    EXPECT_EQ(CXArray<int>::NextCapacity(4, 4, 0, 5), 8);
    EXPECT_EQ(CXArray<int>::NextCapacity(100, 100, 0, 101), 125);
    EXPECT_EQ(CXArray<int>::NextCapacity(8000, 8000, 0, 8001), 9024);
    // grow step -2: double; a sum below the need takes the need
    EXPECT_EQ(CXArray<int>::NextCapacity(16, 16, -2, 17), 32);
    EXPECT_EQ(CXArray<int>::NextCapacity(0, 0, -2, 1), 1);
    EXPECT_EQ(CXArray<int>::NextCapacity(4, 4, 2, 50), 50);
    EXPECT_THROW(CXArray<int>::NextCapacity(0x7FFFFFF0, 0x7FFFFFF0, -2, 0x7FFFFFF1), CXInvalidArgException);
    CXArray<int> a;
    for (int i = 0; i < 9; ++i) EXPECT_EQ(a.Add(i), i);
    EXPECT_EQ(a.GetCapacity(), 12);
    EXPECT_THROW(a.SetAtGrow(-1, 0), CXInvalidArgException);
}

TEST(HostRegistry, GenericReaderPicksTheFormatByExtensionOrID) {
    ASSERT_TRUE(M().init);
    auto& reg = CParserRegistry::Instance();
    reg.Clear();
    EXPECT_EQ(reg.AddModule(M().init), 14);
    EXPECT_EQ(reg.FindByExtension(L".STL", true)->ext.typeID, 0x53544C20u);
    EXPECT_EQ(reg.FindByExtension(L".ply", true), nullptr); // write only
    EXPECT_EQ(reg.FindByExtension(L".ply", false)->ext.typeID, FourCC("PLYY"));
    EXPECT_EQ(reg.FindByExtension(L".lwb", true)->ext.typeID, FourCC("LIGT"));
    EXPECT_EQ(reg.FindByExtension(L".lw", true)->ext.typeID, FourCC("LIGT")); // not a prefix match of .lws
    EXPECT_EQ(reg.FindByExtension(L".lws", true)->ext.typeID, FourCC("LIGS"));
    EXPECT_EQ(reg.FindByExtension(L".wr", true), nullptr);
    EXPECT_EQ(TypeIDToString(0x53544C20), CXStringW(L"STL "));
    EXPECT_EQ(TypeIDFromString(L"STL"), 0x53544C20u);

    CXStringW house(Utf8ToWide((testsupport::SourceDir() / "examples" / "house.obj").string()));
    CFileIo io(house);
    auto scene = C3DIo::ReadScene(house, io);
    ASSERT_NE(scene, nullptr) << io.GetIoError();
    EXPECT_EQ(scene->GetChildCount(nullptr, KINDOF_MESH), 2);
    EXPECT_EQ(scene->GetMaterialNumber(), 2);
    CFileIo io2;
    EXPECT_EQ(C3DIo::ReadScene(L"/nowhere/x.unknownext", io2), nullptr);
    EXPECT_EQ(io2.GetIoError(), IO_ERR_NOT_AVAILABLE);
    reg.Clear();
}
