// Every VRML97 world of the corpus (invalid/ aside, gzip worlds included) goes
// through Read; a few small ones are checked against counts worked out by hand
// from their text. The command-line conversions to OBJ and 3DS run when the CLI
// has been built.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sys/wait.h>

#include "plugin/host/Primitives.h"
#include "tests/vrml97/import/ImportTestUtil.h"

using namespace importtest;
namespace fs = std::filesystem;

namespace {

std::vector<fs::path> Worlds() {
    std::vector<fs::path> out;
    fs::path root = testsupport::CorpusDir();
    if (root.empty()) return out;
    root /= "wrl97";
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, ec); it != fs::recursive_directory_iterator(); ++it) {
        if (it->is_directory() && it->path().filename() == "invalid") {
            it.disable_recursion_pending();
            continue;
        }
        std::string name = it->path().filename().string();
        std::string lower = name;
        for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        if (it->is_regular_file() && (lower.ends_with(".wrl") || lower.ends_with(".wrl.gz") || lower.ends_with(".wrz")))
            out.push_back(it->path());
    }
    std::sort(out.begin(), out.end());
    return out;
}

// Gzip worlds are read from a copy: their temporary file goes beside the world,
// and the shared corpus folder is not ours to write in.
ReadResult ReadCorpusWorld(const fs::path& p, testsupport::TempDir& tmp) {
    if (p.extension() == ".gz" || p.extension() == ".wrz") {
        // The copy keeps the corpus's read-only mode: replace it rather than overwrite it.
        fs::remove(tmp / p.filename());
        fs::copy_file(p, tmp / p.filename());
        return ReadPath(tmp / p.filename());
    }
    return ReadPath(p);
}

struct Counts {
    size_t nodes = 0, meshes = 0, faces = 0, curves = 0, lights = 0, cameras = 0;
    int materials = 0;
};

Counts Count(const C3DScene& s) {
    Counts c;
    c.nodes = AllNodes(s).size();
    for (auto* n : AllNodes(s, KINDOF_MESH)) {
        ++c.meshes;
        c.faces += static_cast<size_t>(n->GetGeomObject()->GetFaceList()->GetNumberOfFaces());
    }
    c.curves = AllNodes(s, KINDOF_CURVE).size();
    c.lights = AllNodes(s, KINDOF_LIGHT).size();
    c.cameras = AllNodes(s, KINDOF_CAMERA).size();
    c.materials = s.GetMaterialNumber();
    return c;
}

// Files that only declare PROTOs for other worlds (no node of their own to convert).
bool IsProtoLibrary(const std::string& name) {
    for (const char* n :
         {"hud_proto.wrl", "roller_proto.wrl", "symmetry_c5.wrl", "symmetry_i.wrl", "texture_manipulator.wrl"})
        if (name == n) return true;
    return false;
}

} // namespace

TEST(Vrml97ImportCorpus, EveryWorldReads) {
    SKIP_WITHOUT_CORPUS();
    auto worlds = Worlds();
    ASSERT_GE(worlds.size(), 40u);
    testsupport::TempDir tmp;
    CaptureSystem quiet;
    for (const auto& w : worlds) {
        ReadResult r = ReadCorpusWorld(w, tmp);
        if (IsProtoLibrary(w.filename().string())) {
            EXPECT_FALSE(r.scene) << w;
            EXPECT_EQ(r.error, -10) << w;
            continue;
        }
        ASSERT_TRUE(r.scene) << w << " error " << r.error;
        EXPECT_GT(r.scene->GetNodeCount(), 0) << w;
    }
}

TEST(Vrml97ImportCorpus, HandCountedWorlds) {
    SKIP_WITHOUT_CORPUS();
    fs::path dir = testsupport::CorpusDir() / "wrl97";
    CaptureSystem quiet;

    // A Transform holding DEF myshape: a 3x2x1 Box with a green material.
    ReadResult simple = ReadPath(dir / "threejs" / "simple.wrl");
    ASSERT_TRUE(simple.scene);
    Counts s = Count(*simple.scene);
    EXPECT_EQ(s.nodes, 2u);
    EXPECT_EQ(s.meshes, 1u);
    EXPECT_EQ(s.faces, 6u);
    EXPECT_EQ(s.materials, 1);
    CMaterialPos pos;
    EXPECT_EQ(simple.scene->GetFirstMaterial(pos)->GetDiffuseColor(), CRGBColor(0, 255, 0));

    // DirectionalLight; two VRML 1.0 camera nodes the engine skips as unknown;
    // Transform > Shape (Sphere 2.3); Transform > Anchor > Shape (Box).
    ReadResult camera = ReadPath(dir / "threejs" / "camera.wrl");
    ASSERT_TRUE(camera.scene);
    Counts c = Count(*camera.scene);
    std::unique_ptr<C3DSceneNode> sphere(CreateSphere(C3DPoint(0, 0, 0), 2.3, 16, 16, false, 0, -1));
    EXPECT_EQ(c.nodes, 6u);
    EXPECT_EQ(c.lights, 1u);
    EXPECT_EQ(c.meshes, 2u);
    EXPECT_EQ(c.faces, 6u + static_cast<size_t>(sphere->GetGeomObject()->GetFaceList()->GetNumberOfFaces()));
    EXPECT_EQ(c.materials, 2);
    EXPECT_EQ(c.cameras, 0u);

    // Group > (WorldInfo, DEF LoRes Transform > Shape): 4 points, 2 triangles, crease 0.5.
    ReadResult crenlo = ReadPath(dir / "coderextreme-X3DJSONLD" / "Compel" / "lowp" / "crenlo.wrl");
    ASSERT_TRUE(crenlo.scene);
    Counts k = Count(*crenlo.scene);
    EXPECT_EQ(k.nodes, 3u);
    EXPECT_EQ(k.meshes, 1u);
    EXPECT_EQ(k.faces, 2u);
    EXPECT_EQ(k.materials, 1);
    C3DSceneNode* lores = Children(*crenlo.scene, Children(*crenlo.scene)[0])[0];
    EXPECT_EQ(Name(lores), "LoRes");
    EXPECT_EQ(MatrixKey(lores).GetTranslation(), C3DPoint(-512.257f, -24.05f, 436.35f));
    C3DGeomObject* g = Children(*crenlo.scene, lores)[0]->GetGeomObject();
    EXPECT_EQ(g->GetPointList()->GetSize(), 4);
    EXPECT_FLOAT_EQ(g->GetSmoothAngle(), 0.5f);
    CMaterialPos kp;
    EXPECT_EQ(crenlo.scene->GetFirstMaterial(kp)->GetDiffuseColor(), CRGBColor(179, 138, 43));

    // Billboard, a PROTO instance (a group around its Shape of Text, no geometry), Group.
    ReadResult trans = ReadPath(dir / "web3d" / "TranslationTestScene.wrl");
    ASSERT_TRUE(trans.scene);
    Counts t = Count(*trans.scene);
    EXPECT_EQ(t.nodes, 4u);
    EXPECT_EQ(t.meshes, 0u);
    EXPECT_EQ(t.materials, 1);
    auto top = Children(*trans.scene);
    ASSERT_EQ(top.size(), 3u);
    EXPECT_EQ(Name(top[0]), "Null1");
    EXPECT_EQ(Name(top[2]), "Null2");
    CMaterialPos tp;
    EXPECT_FLOAT_EQ(trans.scene->GetFirstMaterial(tp)->GetTransparency(), 0.5f);

    // Three two-point lines with per-line colours: one curve, three poly-lines.
    ReadResult lines = ReadPath(dir / "threejs" / "test" / "lines.wrl");
    ASSERT_TRUE(lines.scene);
    Counts l = Count(*lines.scene);
    EXPECT_EQ(l.curves, 1u);
    EXPECT_EQ(AllNodes(*lines.scene, KINDOF_CURVE)[0]->GetGeomObject()->GetFaceList()->GetNumberOfFaces(), 3);
}

TEST(Vrml97ImportCorpus, GzipWorldsMatchTheirInflatedText) {
    SKIP_WITHOUT_CORPUS();
    fs::path dir = testsupport::CorpusDir() / "wrl97";
    testsupport::TempDir tmp;
    CaptureSystem quiet;
    ReadResult dune = ReadCorpusWorld(dir / "dune.wrl.gz", tmp);
    ASSERT_TRUE(dune.scene);
    EXPECT_GT(AllNodes(*dune.scene, KINDOF_MESH).size(), 0u);
    // manta2's surface is a NurbsGroup whose EXTERNPROTO is not in the corpus: the
    // Transform and the (empty) PROTO instance are all that is left.
    ReadResult manta2 = ReadCorpusWorld(dir / "manta2.wrl.gz", tmp);
    ASSERT_TRUE(manta2.scene);
    EXPECT_EQ(manta2.scene->GetNodeCount(), 2);
    EXPECT_EQ(AllNodes(*manta2.scene, KINDOF_MESH).size(), 0u);
    std::vector<std::string> left;
    for (auto& e : fs::directory_iterator(tmp.path())) left.push_back(e.path().filename().string());
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (std::vector<std::string>{"dune.wrl.gz", "manta2.wrl.gz"}));
}

TEST(Vrml97ImportCorpus, CommandLineConvertsEveryWorldToObjAnd3ds) {
    SKIP_WITHOUT_CORPUS();
    fs::path cli = testsupport::BinaryDir() / "bin" / "orbiscope";
    if (!fs::exists(cli)) GTEST_SKIP() << "orbiscope not built";
    testsupport::TempDir tmp;
    CaptureSystem quiet;
    for (const auto& w : Worlds()) {
        // What the command must say follows from the read: nothing to import (5), success
        // with meshes, and for curves, text or point sets only whatever the writer can hold.
        ReadResult r = ReadCorpusWorld(w, tmp);
        bool meshes = r.scene && !AllNodes(*r.scene, KINDOF_MESH).empty();
        // Plain worlds are read where they stand (their Inlines and EXTERNPROTOs are beside them).
        fs::path in = w;
        if (w.extension() == ".gz") {
            in = tmp / w.filename();
            fs::remove(in);
            fs::copy_file(w, in);
        }
        for (const char* ext : {".obj", ".3ds"}) {
            fs::path out = tmp / (w.stem().string() + ext);
            // ".wrl" worlds are routed by their header line; ".wrl.gz" needs the type named.
            std::string from = w.extension() == ".gz" ? " --from VR97" : "";
            const fs::path err = tmp / "stderr.txt";
            std::string cmd = "'" + cli.string() + "' convert '" + in.string() + "' '" + out.string() + "'" + from +
                              " >/dev/null 2>'" + err.string() + "'";
            int status = std::system(cmd.c_str());
            const std::string said = cmd + "\n" + testsupport::ReadFile(err);
            ASSERT_TRUE(WIFEXITED(status)) << said;
            int code = WEXITSTATUS(status);
            if (!r.scene) EXPECT_EQ(code, 5) << said;
            else if (meshes) EXPECT_EQ(code, 0) << said;
            else EXPECT_TRUE(code == 0 || code == 6) << said; // curves: 3DS keeps them, OBJ has nothing
            EXPECT_EQ(fs::exists(out), code == 0) << out;
        }
    }
}
