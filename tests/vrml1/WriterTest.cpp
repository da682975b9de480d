// The VRML 1.0 writer: the exact text for a small scene, names, and a read back.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include "plugin/host/FileIo.h"
#include "plugin/host/Object.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "tests/support/TestSupport.h"
#include "vrml/vrml1/CVrmlIo.h"

namespace {

// A quad split in two faces with two materials (the second face first), and below it a
// curve whose node name has no letters.
std::unique_ptr<C3DScene> SmallScene() {
    auto scene = std::make_unique<C3DScene>();
    auto* red = static_cast<C3DStandardMaterial*>(scene->CreateNewMaterial(MATERIAL_STANDARD));
    red->SetDiffuseColor(CRGBColor(255, 0, 0));
    red->SetSpecularFactor(0.5f);
    red->SetSpecularColor(CRGBColor(0, 128, 0));
    auto* blue = static_cast<C3DStandardMaterial*>(scene->CreateNewMaterial(MATERIAL_STANDARD));
    blue->SetDiffuseColor(CRGBColor(0, 0, 255));
    blue->SetAmbientColor(CRGBColor(102, 102, 102));
    blue->SetTransparency(0.25f);
    blue->SetSpecularFactor(2.0f);

    auto* mesh = new C3DObject();
    auto* pts = new C3DPointList();
    pts->Add(0, 0, 0);
    pts->Add(1, 0, 0);
    pts->Add(1, 1, 0);
    pts->Add(0, 1, 0.5f);
    auto* faces = new C3DFaceList();
    faces->SetCurrentMaterial(blue->GetID());
    faces->AddTriangle(0, 2, 3);
    faces->SetCurrentMaterial(red->GetID());
    faces->AddTriangle(0, 1, 2);
    mesh->SetPointList(pts);
    mesh->SetFaceList(faces);
    mesh->SetSmoothAngle(30);
    auto* box = new C3DSceneNode(mesh);
    box->SetName(L"Box-01 (copy)");
    scene->AddNode(nullptr, box);

    auto* curve = new C3DCurve();
    auto* cp = new C3DPointList();
    cp->Add(0, 0, 0);
    cp->Add(2, 0, 0);
    cp->Add(2, 2, 0);
    auto* cf = new C3DFaceList();
    uint32_t line[3] = {0, 1, 2};
    cf->AddFace(line, 3);
    curve->SetPointList(cp);
    curve->SetFaceList(cf);
    auto* n = new C3DSceneNode(curve);
    n->SetName(L"123");
    scene->AddNode(box, n);
    return scene;
}

TEST(Vrml1Writer, WritesTheFixedLayout) {
    auto scene = SmallScene();
    const std::string expected = "#VRML V1.0 ascii\n"
                                 "DEF Scene Separator { # Scene beginning\n"
                                 "\tInfo {\n"
                                 "\tstring \"Scene created by Orbiscope (https://orbiscope.org)\"\n"
                                 "\t}\n"
                                 "\tDEF Boxcopy Separator { # Boxcopy beginning\n"
                                 "\t\tShapeHints {\n"
                                 "\t\tcreaseAngle 30.00\n"
                                 "\t\tvertexOrdering UNKNOWN_ORDERING\n"
                                 "\t\t}\n"
                                 "\t\tCoordinate3 {\n"
                                 "\t\tpoint [\n"
                                 "\t\t0.0000 0.0000 0.0000,\n"
                                 "\t\t1.0000 0.0000 0.0000,\n"
                                 "\t\t1.0000 1.0000 0.0000,\n"
                                 "\t\t0.0000 1.0000 0.5000,\n"
                                 "\t\t]\n"
                                 "\t\t}\n"
                                 "\t\tMaterial {\n"
                                 "\t\tdiffuseColor [\n"
                                 "\t\t1.00 0.00 0.00,\n"
                                 "\t\t0.00 0.00 1.00,\n"
                                 "\t\t]\n"
                                 "\t\tambientColor [\n"
                                 "\t\t0.20 0.20 0.20,\n"
                                 "\t\t0.40 0.40 0.40,\n"
                                 "\t\t]\n"
                                 "\t\tspecularColor [\n"
                                 "\t\t0.00 0.50 0.00,\n"
                                 "\t\t1.00 1.00 1.00,\n"
                                 "\t\t]\n"
                                 "\t\ttransparency [\n"
                                 "\t\t0.00,\n"
                                 "\t\t0.25,\n"
                                 "\t\t]\n"
                                 "\t\tshininess [\n"
                                 "\t\t0.50,\n"
                                 "\t\t1.00,\n"
                                 "\t\t]\n"
                                 "\t\t}\n"
                                 "\t\tMaterialBinding {\n"
                                 "\t\tvalue PER_FACE_INDEXED\n"
                                 "\t\t}\n"
                                 "\t\tIndexedFaceSet {\n"
                                 "\t\tcoordIndex [\n"
                                 "\t\t0, 1, 2, -1,\n"
                                 "\t\t0, 2, 3, -1,\n"
                                 "\t\t]\n"
                                 "\t\tmaterialIndex [\n"
                                 "0, 1, \n"
                                 "\t\t]\n"
                                 "\t\t}\n"
                                 "\t\tDEF Object Separator { # Object beginning\n"
                                 "\t\t\tIndexedLineSet {\n"
                                 "\t\t\t\tcoordIndex [\n"
                                 "\t\t\t\t0, 1, 2, -1,\n"
                                 "\t\t\t\t]\n"
                                 "\t\t\t}\n"
                                 "\t\t\tCoordinate3 {\n"
                                 "\t\t\tpoint [\n"
                                 "\t\t\t0.0000 0.0000 0.0000,\n"
                                 "\t\t\t2.0000 0.0000 0.0000,\n"
                                 "\t\t\t2.0000 2.0000 0.0000,\n"
                                 "\t\t\t]\n"
                                 "\t\t\t}\n"
                                 "\t\t} # Object end\n"
                                 "\t} # Boxcopy end\n"
                                 "} # Scene end\n";
    EXPECT_EQ(CVrmlIo::FormatScene(*scene), expected);
}

TEST(Vrml1Writer, PointsPrintAsPrintfDoes) {
    // Exact ties (k/32 steps) round to even, values that are not floats, huge values,
    // negative zero and tiny negatives, and points deep in the hierarchy.
    std::vector<float> values = {1.03125f, 1.09375f, -2.40625f, 0.99995f, 123456.78f, -0.0f,    -0.00001f,
                                 4.0e9f,   5.0e9f,   -3.0e12f,  1e-7f,    0.5f,       2.00015f, 65535.99999f};
    for (int i = 0; i < 300; ++i) values.push_back(static_cast<float>(i * 7919 % 20011) / 32.0f - 300.0f);
    for (int i = 0; i < 300; ++i) values.push_back(static_cast<float>(std::ldexp(1.0 + i / 301.0, i % 40 - 20)));
    while (values.size() % 3) values.push_back(0.125f);
    auto scene = std::make_unique<C3DScene>();
    C3DSceneNode* parent = nullptr;
    for (int depth = 0; depth < 40; ++depth) { // past any one block of spare room
        auto* g = new C3DSceneNode(new C3DGroup());
        g->SetName(L"g");
        scene->AddNode(parent, g);
        parent = g;
    }
    auto* mesh = new C3DObject();
    auto* pts = new C3DPointList();
    for (size_t i = 0; i < values.size(); i += 3) pts->Add(values[i], values[i + 1], values[i + 2]);
    auto* faces = new C3DFaceList();
    faces->AddTriangle(0, 1, 2);
    mesh->SetPointList(pts);
    mesh->SetFaceList(faces);
    auto* n = new C3DSceneNode(mesh);
    n->SetName(L"deep");
    scene->AddNode(parent, n);

    const std::string indent(42, '\t'); // the Scene, 40 groups, the mesh's own Separator
    std::string expected = indent + "point [\n";
    char buf[512];
    for (size_t i = 0; i < values.size(); i += 3) {
        std::snprintf(buf, sizeof(buf), "%.4f %.4f %.4f,\n", values[i], values[i + 1], values[i + 2]);
        expected += indent + buf;
    }
    expected += indent + "]\n";
    const std::string text = CVrmlIo::FormatScene(*scene);
    const size_t at = text.find("\n" + indent + "point [\n");
    ASSERT_NE(at, std::string::npos);
    EXPECT_EQ(text.substr(at + 1, expected.size()), expected);
    EXPECT_NE(text.find("\n" + indent + "0, 1, 2, -1,\n" + indent + "]\n"), std::string::npos);
}

TEST(Vrml1Writer, NamesKeepTheirLettersOnly) {
    EXPECT_EQ(CVrmlIo::SeparatorName(L"Box-01 (copy)"), "Boxcopy");
    EXPECT_EQ(CVrmlIo::SeparatorName(L"123"), "Object");
    EXPECT_EQ(CVrmlIo::SeparatorName(L""), "Object");
    EXPECT_EQ(CVrmlIo::SeparatorName(L"Stra\u00dfe_2"), "Stra\xC3\x9F"
                                                        "e");
}

TEST(Vrml1Writer, OneMaterialIsBoundOverallAndHiddenObjectsAreLeftOut) {
    auto scene = SmallScene();
    C3DSceneNode* box = scene->GetRoot()->GetChildNode();
    box->GetGeomObject()->GetFaceList()->SetAllMaterialIDs(box->GetGeomObject()->GetFaceList()->GetMaterialID(1));
    box->GetChildNode()->GetBaseObject()->SetFlag(OBJF_HIDDEN);
    std::string text = CVrmlIo::FormatScene(*scene);
    EXPECT_NE(text.find("\t\tvalue OVERALL\n"), std::string::npos);
    EXPECT_EQ(text.find("materialIndex"), std::string::npos);
    EXPECT_EQ(text.find("IndexedLineSet"), std::string::npos);
    EXPECT_EQ(text.find("DEF Object"), std::string::npos);
}

TEST(Vrml1Writer, WhatIsWrittenReadsBack) {
    testsupport::TempDir dir;
    auto scene = SmallScene();
    const CXStringW path(Utf8ToWide((dir / "small.wrl").string()));
    {
        CFileIo io;
        CSceneExportOptions opt;
        CVrmlIo writer(io);
        writer.SaveDefaultOptions(opt);
        ASSERT_TRUE(writer.Save(path, scene.get(), opt));
    }
    CFileIo io;
    CSceneImportOptions opt;
    CVrmlIo reader(io);
    std::unique_ptr<C3DScene> back(reader.Read(path, opt));
    ASSERT_TRUE(back) << io.GetIoError();
    int meshes = 0, curves = 0, points = 0, faces = 0;
    C3DNodePos pos = back->GetFirstNode(KINDOF_ALL);
    C3DBaseObject* obj = nullptr;
    while (back->GetNextNode(obj, pos)) {
        if (!obj || !obj->IsGeomObject()) continue;
        const auto* g = static_cast<const C3DGeomObject*>(obj);
        meshes += obj->GetKindOf() == KINDOF_MESH;
        curves += obj->GetKindOf() == KINDOF_CURVE;
        points += g->GetPointList()->GetSize();
        faces += g->GetFaceList()->GetNumberOfFaces();
    }
    EXPECT_EQ(meshes, 1);
    EXPECT_EQ(curves, 1);
    EXPECT_EQ(points, 7);
    EXPECT_EQ(faces, 3);
    EXPECT_EQ(back->GetMaterialNumber(), 2);
}

} // namespace
