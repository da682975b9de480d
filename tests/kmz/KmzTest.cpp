// KMZ packages: doc.kml references, aliases, the temporary folder's life, unsafe
// archives and the real sample packages.
#include <gtest/gtest.h>
#include <zip.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "formats/kmz/CKmzIo.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/Object.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "plugin/host/Zip.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;

void MakeZip(const fs::path& path, const std::map<std::string, std::string>& entries) {
    int err = 0;
    zip_t* z = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &err);
    ASSERT_TRUE(z);
    for (const auto& [name, data] : entries) {
        zip_source_t* src = zip_source_buffer(z, data.data(), data.size(), 0);
        ASSERT_GE(zip_file_add(z, name.c_str(), src, ZIP_FL_OVERWRITE), 0) << name;
    }
    ASSERT_EQ(zip_close(z), 0);
}

std::string Dae(const std::string& image, float x) {
    return R"(<?xml version="1.0"?>
<COLLADA xmlns="http://www.collada.org/2005/11/COLLADASchema" version="1.4.1">
 <library_images><image id="img"><init_from>)" +
           image + R"(</init_from></image></library_images>
 <library_effects><effect id="fx"><profile_COMMON>
  <newparam sid="surf"><surface type="2D"><init_from>img</init_from></surface></newparam>
  <newparam sid="samp"><sampler2D><source>surf</source></sampler2D></newparam>
  <technique sid="t"><lambert><diffuse><texture texture="samp" texcoord="UV"/></diffuse></lambert></technique>
 </profile_COMMON></effect></library_effects>
 <library_materials><material id="mat"><instance_effect url="#fx"/></material></library_materials>
 <library_geometries><geometry id="g"><mesh>
  <source id="p"><float_array id="pa" count="9">)" +
           std::to_string(x) + R"( 0 0 1 0 0 0 1 0</float_array>
   <technique_common><accessor source="#pa" count="3" stride="3"/></technique_common></source>
  <vertices id="v"><input semantic="POSITION" source="#p"/></vertices>
  <triangles material="m" count="1"><input semantic="VERTEX" source="#v" offset="0"/><p>0 1 2</p></triangles>
 </mesh></geometry></library_geometries>
 <library_visual_scenes><visual_scene id="s"><node id="n" name="part">
  <instance_geometry url="#g"><bind_material><technique_common>
   <instance_material symbol="m" target="#mat"/></technique_common></bind_material></instance_geometry>
 </node></visual_scene></library_visual_scenes>
 <scene><instance_visual_scene url="#s"/></scene>
</COLLADA>
)";
}

struct Result {
    std::unique_ptr<C3DScene> scene;
    int error = 0, level = 0;
    std::vector<IoLogInfo> log;
};

Result Read(const fs::path& p) {
    CFileIo io;
    CSceneImportOptions opt;
    CKmzIo parser(io);
    Result r;
    r.scene.reset(parser.Read(CXStringW(Utf8ToWide(p.string())), opt));
    r.error = io.GetIoError();
    r.level = io.GetIoErrorLevel();
    r.log = opt.GetLog();
    return r;
}

int Meshes(const C3DScene& s) { return s.GetChildCount(nullptr, KINDOF_MESH); }

// Temporary folders of reads of `stem`.kmz that are still on disk (each test its own stem:
// the tests may run side by side).
int TmpFolders(const std::string& stem) {
    int n = 0;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(PathToUtf8(fileGetTempDirectory()), ec)) {
        const std::string name = e.path().filename().string();
        n += name.rfind("tmpzip-" + stem, 0) == 0;
    }
    return n;
}

TEST(Kmz, TwoModelsMergeWithTheirFoldersAsTexturePaths) {
    testsupport::TempDir dir;
    MakeZip(dir / "kmztwo.kmz", {{"doc.kml", "<kml><Model><Link><href>a/one.dae</href></Link></Model>\n"
                                             "<Model><Link><HREF>B/Two.DAE</HREF></Link></Model></kml>"},
                                 {"a/one.dae", Dae("one.png", 0)},
                                 {"a/one.png", "png"},
                                 {"B/Two.DAE", Dae("two.png", 5)},
                                 {"B/two.png", "png"}});
    const int before = TmpFolders("kmztwo");
    {
        auto r = Read(dir / "kmztwo.kmz");
        ASSERT_TRUE(r.scene) << r.error;
        EXPECT_EQ(Meshes(*r.scene), 2); // the upper-case reference found its entry too
        EXPECT_EQ(r.scene->GetMaterialNumber(), 2);
        ASSERT_EQ(r.scene->GetTexturePaths().size(), 2u);
        // Every texture the models name resolves inside the unpacked folder.
        CMaterialPos pos;
        for (C3DMaterial* m = r.scene->GetFirstMaterial(pos); m; m = r.scene->GetNextMaterial(pos))
            EXPECT_TRUE(fileExists(m->GetMaterialMap(MAP_DIFFUSE)->GetFileName()));
        EXPECT_EQ(TmpFolders("kmztwo"), before + 1);
        // The references merged, as the KML gave them, for the info listing.
        EXPECT_EQ(r.scene->GetCustomData().GetString(CKmzIo::kMergedModels), CXStringW(L"a\\one.dae\nb\\two.dae\n"));
    }
    EXPECT_EQ(TmpFolders("kmztwo"), before); // gone with the scene
}

TEST(Kmz, AliasesRestoreSourceNamesAndCarryOver) {
    testsupport::TempDir dir;
    MakeZip(dir / "kmzalias.kmz",
            {{"doc.kml",
              "<Model><Link><href>models/m.dae</href></Link><ResourceMap>"
              "<Alias><targetHref>../images/real.jpg</targetHref><sourceHref>../tex/first.jpg</sourceHref></Alias>"
              "<Alias><sourceHref>second.jpg</sourceHref></Alias>"
              "<Alias><targetHref>same.jpg</targetHref><sourceHref>SAME.jpg</sourceHref></Alias>"
              "</ResourceMap></Model>"},
             {"models/m.dae", Dae("../tex/first.jpg", 0)},
             {"images/real.jpg", "jpeg bytes"},
             {"same.jpg", "x"}});
    auto r = Read(dir / "kmzalias.kmz");
    ASSERT_TRUE(r.scene) << r.error;
    const auto& paths = r.scene->GetTexturePaths();
    ASSERT_EQ(paths.size(), 2u); // the model's folder, then the unpacked folder itself
    const fs::path tmp(PathToUtf8(paths[1]));
    EXPECT_EQ(testsupport::ReadFile(tmp / "first.jpg"), "jpeg bytes");
    // The second alias had no target: it took the first one's.
    EXPECT_EQ(testsupport::ReadFile(tmp / "second.jpg"), "jpeg bytes");
    // The model's "../tex/first.jpg" does not exist; the map now names the restored file.
    CMaterialPos pos;
    const C3DMaterial* m = r.scene->GetFirstMaterial(pos);
    ASSERT_TRUE(m);
    EXPECT_EQ(fs::path(PathToUtf8(m->GetMaterialMap(MAP_DIFFUSE)->GetFileName())), tmp / "first.jpg");
}

TEST(Kmz, ModelsSharingAFolderUnpackItOnceAndFindTheirEntries) {
    testsupport::TempDir dir;
    // Entries go in name order: "A/One.dae" comes before "a/one.dae", "images/" before "other/".
    MakeZip(dir / "kmzshared.kmz",
            {{"doc.kml", "<Model><Link><href>A/One.dae</href></Link><ResourceMap>"
                         "<Alias><targetHref>Real.JPG</targetHref><sourceHref>tex.jpg</sourceHref></Alias>"
                         "</ResourceMap></Model><href>a/one.dae</href><href>a/sub/two.dae</href>"},
             {"A/One.dae", Dae("tex.jpg", 0)},
             {"a/one.dae", "not a model"},
             {"a/sub/two.dae", Dae("tex.jpg", 1)},
             {"a/sub/../x", "refused"},
             {"images/real.jpg", "first"},
             {"other/REAL.jpg", "second"}});
    auto r = Read(dir / "kmzshared.kmz");
    ASSERT_TRUE(r.scene) << r.error;
    // A name found without regard to case reaches the first entry spelt that way.
    EXPECT_EQ(Meshes(*r.scene), 3);
    EXPECT_EQ(r.scene->GetCustomData().GetString(CKmzIo::kMergedModels),
              CXStringW(L"a\\one.dae\na\\one.dae\na\\sub\\two.dae\n"));
    const auto& paths = r.scene->GetTexturePaths();
    ASSERT_FALSE(paths.empty());
    const fs::path tmp(PathToUtf8(paths.back()));
    EXPECT_EQ(testsupport::ReadFile(tmp / "a" / "one.dae"), "not a model");
    // Every entry the alias names was restored in turn: the last one stays.
    EXPECT_EQ(testsupport::ReadFile(tmp / "tex.jpg"), "second");
    // The refused entry lies in the folders of all three models: tried, and said, once.
    int refusals = 0;
    for (const IoLogInfo& l : r.log) refusals += l.text.Find(L"\"a/sub/../x\" has an unsafe name") >= 0;
    EXPECT_EQ(refusals, 1);
}

TEST(Kmz, AliasesNamingOneTargetEachTakeTheLastEntryOfItsName) {
    testsupport::TempDir dir;
    const char* sources[] = {"a.jpg", "b.jpg", "c.jpg", "d.jpg", "e.jpg", "f.jpg", "g.jpg", "h.jpg"};
    std::string kml = "<Model><Link><href>models/m.dae</href></Link><ResourceMap>";
    // The fifth alias's source is spelt like an entry of the others' target: each of them that
    // comes after it unpacks that entry over it and moves it away.
    CHashMap<CXStringW, CXStringW> order(23); // the aliases run in the order of their table
    for (int i = 0; i < 8; ++i) {
        if (i == 4) {
            kml += "<Alias><targetHref>q.jpg</targetHref><sourceHref>T.jpg</sourceHref></Alias>";
            order.SetAt(L"t.jpg", L"q.jpg"); // the KML is read lower-cased
        }
        kml += std::string("<Alias><targetHref>T.JPG</targetHref><sourceHref>") + sources[i] + "</sourceHref></Alias>";
        order.SetAt(CXStringW(Utf8ToWide(sources[i])), L"t.jpg");
    }
    kml += "</ResourceMap></Model>";
    MakeZip(dir / "kmzsame.kmz", {{"doc.kml", kml},
                                  {"models/m.dae", Dae("a.jpg", 0)},
                                  {"d1/t.jpg", "1"},
                                  {"d2/T.jpg", "2"},
                                  {"d3/../t.jpg", "refused"},
                                  {"e/q.jpg", "Q"}});
    int at = 0, odd = -1;
    for (const auto& [src, dst] : order) {
        if (src == CXStringW(L"t.jpg")) odd = at;
        ++at;
    }
    ASSERT_TRUE(odd > 0 && odd < at - 1) << "the case needs aliases of the target before and after the odd one: " << odd
                                         << " of " << at;
    auto r = Read(dir / "kmzsame.kmz");
    ASSERT_TRUE(r.scene) << r.error;
    const fs::path tmp(PathToUtf8(r.scene->GetTexturePaths().back()));
    for (const char* s : sources) EXPECT_EQ(testsupport::ReadFile(tmp / s), "2") << s;
    EXPECT_FALSE(fs::exists(tmp / "T.jpg"));
    EXPECT_FALSE(fs::exists(tmp / "t.jpg"));
    int refusals = 0;
    for (const IoLogInfo& l : r.log) refusals += l.text.Find(L"\"d3/../t.jpg\" has an unsafe name") >= 0;
    EXPECT_EQ(refusals, 1);
}

TEST(Kmz, MissingPiecesGiveTheirResults) {
    testsupport::TempDir dir;
    const int before = TmpFolders("kmzmissing");
    MakeZip(dir / "kmzmissing-nokml.kmz", {{"model.dae", Dae("x.png", 0)}});
    auto r = Read(dir / "kmzmissing-nokml.kmz");
    EXPECT_FALSE(r.scene);
    EXPECT_EQ(r.error, 0); // nothing reported
    MakeZip(dir / "kmzmissing-nomodel.kmz", {{"doc.kml", "<kml><Placemark><name>x</name></Placemark></kml>"}});
    r = Read(dir / "kmzmissing-nomodel.kmz");
    EXPECT_FALSE(r.scene);
    EXPECT_EQ(r.error, IO_ERR_EMPTY);
    EXPECT_EQ(r.level, LOG_ERROR);
    MakeZip(dir / "kmzmissing-gone.kmz", {{"doc.kml", "<href>gone.dae</href>"}});
    r = Read(dir / "kmzmissing-gone.kmz");
    EXPECT_EQ(r.error, IO_ERR_OPEN);
    testsupport::WriteFile(dir / "kmzmissing-notzip.kmz", "PK but not really a zip");
    EXPECT_EQ(Read(dir / "kmzmissing-notzip.kmz").error, IO_ERR_FORMAT);
    EXPECT_EQ(Read(dir / "kmzmissing-absent.kmz").error, IO_ERR_OPEN);
    int left = 0;
    for (const char* stem : {"kmzmissing-nokml", "kmzmissing-nomodel", "kmzmissing-gone"}) left += TmpFolders(stem);
    EXPECT_EQ(left, before);
}

TEST(Kmz, UnsafeNamesNeverReachTheDisk) {
    testsupport::TempDir dir;
    MakeZip(dir / "kmzevil.kmz",
            {{"doc.kml", "<href>../../evil.dae</href><href>c:\\evil.dae</href><href>ok/fine.dae</href>"},
             {"../../evil.dae", Dae("x.png", 0)},
             {"ok/fine.dae", Dae("x.png", 1)},
             {"ok/../../escape.txt", "out"}});
    auto r = Read(dir / "kmzevil.kmz");
    ASSERT_TRUE(r.scene) << r.error;
    EXPECT_EQ(Meshes(*r.scene), 1);
    EXPECT_FALSE(fs::exists(dir.path().parent_path() / "evil.dae"));
    EXPECT_FALSE(fs::exists(fs::path(PathToUtf8(fileGetTempDirectory())).parent_path() / "escape.txt"));
    for (const char* bad : {"../x", "a/../../x", "/etc/x", "\\x", "c:x", "a\\..\\..\\x"})
        EXPECT_FALSE(CZip::IsSafeName(bad)) << bad;
    for (const char* good : {"a/b.dae", "doc.kml", "a..b/c", "x..y"}) EXPECT_TRUE(CZip::IsSafeName(good)) << good;
}

class CancelOnSecondModel : public CKmzIo {
public:
    using CKmzIo::CKmzIo;
    bool ShouldCancelParser() const override { return ++m_calls > 1; }
private:
    mutable int m_calls = 0;
};

TEST(Kmz, CancelDuringTheSecondModelDiscardsEverything) {
    testsupport::TempDir dir;
    MakeZip(dir / "kmzcancel.kmz", {{"doc.kml", "<href>one.dae</href><href>two.dae</href>"},
                                    {"one.dae", Dae("x.png", 0)},
                                    {"two.dae", Dae("y.png", 1)}});
    const int before = TmpFolders("kmzcancel");
    CFileIo io;
    CSceneImportOptions opt;
    CancelOnSecondModel parser(io);
    std::unique_ptr<C3DScene> scene(parser.Read(CXStringW(Utf8ToWide((dir / "kmzcancel.kmz").string())), opt));
    EXPECT_FALSE(scene);
    EXPECT_EQ(io.GetIoError(), IO_ERR_CANCELLED);
    EXPECT_EQ(io.GetIoErrorLevel(), LOG_INFO);
    EXPECT_EQ(TmpFolders("kmzcancel"), before);
}

TEST(Zip, WildcardsAndBombLimits) {
    EXPECT_TRUE(WildcardMatch("photos/*", "photos/a.jpg", true));
    EXPECT_TRUE(WildcardMatch("*.JPG", "x.jpg", true));
    EXPECT_FALSE(WildcardMatch("*.JPG", "x.jpg", false));
    EXPECT_TRUE(WildcardMatch("a\\*b", "a*b", false));
    EXPECT_FALSE(WildcardMatch("a\\*b", "axb", false));
    EXPECT_TRUE(WildcardMatch("?x*", "ax", false));
    // A long run of stars against a long name stays linear.
    EXPECT_FALSE(WildcardMatch(std::string(2000, '*') + "z", std::string(100000, 'a'), false));

    testsupport::TempDir dir;
    MakeZip(dir / "bomb.zip", {{"zeros.bin", std::string(8 << 20, '\0')}});
    CZip zip;
    CSceneImportOptions log;
    ASSERT_TRUE(zip.Open(CXStringW(Utf8ToWide((dir / "bomb.zip").string())), CZip::OPEN_READ, &log));
    zip.SetLimits(1 << 20, 4); // 1 MiB in all
    EXPECT_NE(zip.ExtractFile(0, CXStringW(Utf8ToWide(dir.path().string())), false), CZip::EXTRACT_OK);
    EXPECT_FALSE(fs::exists(dir / "zeros.bin"));
    EXPECT_FALSE(log.GetLog().empty());
}

TEST(KmzCorpus, SamplePackages) {
    SKIP_WITHOUT_CORPUS();
    const fs::path d = testsupport::CorpusDir() / "kmz";
    auto macky = Read(d / "macky-alt.kmz");
    ASSERT_TRUE(macky.scene) << macky.error;
    EXPECT_GE(Meshes(*macky.scene), 1);
    int resolved = 0, maps = 0;
    CMaterialPos pos;
    for (C3DMaterial* m = macky.scene->GetFirstMaterial(pos); m; m = macky.scene->GetNextMaterial(pos))
        if (const CMaterialMap* map = m->GetMaterialMap(MAP_DIFFUSE)) {
            ++maps;
            resolved += fileExists(map->GetFileName());
        }
    EXPECT_GT(maps, 0);
    EXPECT_EQ(resolved, maps);
    // The scene's list of needed files names the restored textures, not the model's missing paths.
    for (const CXStringW& f : macky.scene->GetRequiredFiles()) EXPECT_TRUE(fileExists(f)) << PathToUtf8(f);
    auto shared = Read(d / "shared-textures.kmz");
    ASSERT_TRUE(shared.scene) << shared.error;
    EXPECT_GE(Meshes(*shared.scene), 2); // two models from one folder, plus the aliases' folder
    EXPECT_EQ(shared.scene->GetTexturePaths().size(), 2u);
    for (const char* none : {"no-model-big.kmz", "no-model-placemark.kmz"})
        EXPECT_EQ(Read(d / none).error, IO_ERR_EMPTY) << none;
}

} // namespace
