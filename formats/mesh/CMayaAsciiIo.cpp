// Maya ASCII writer. Coordinates go out as the scene holds them ("%f "), integers
// as "%d ", with ten edges per line and the index ranges written as "[0:N ]".
#include "formats/mesh/CMayaAsciiIo.h"

#include "formats/mesh/MeshText.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/SwitchLocale.h"

namespace {
constexpr uint64_t kMayaPrepFlags =
    PREP_SPLIT_LARGE | PREP_DROP_EMPTY | PREP_WORLD_SPACE | PREP_CURVE_POLYLINES | PREP_CURVES | PREP_MESHES;
constexpr uint32_t kMayaIndentUnit = 4;
constexpr int kEdgesPerLine = 10;

// "https://host" becomes "https:\\host": the two slashes behind the scheme turn into backslashes.
std::string ConnectAddress() {
    std::string s = meshio::kMakerUrl;
    const size_t p = s.find("//");
    if (p != std::string::npos) s.replace(p, 2, "\\\\");
    return s;
}
} // namespace

CMayaAsciiIo::CMayaAsciiIo(CFileIo& io) : C3DParser(io) {}
CMayaAsciiIo::~CMayaAsciiIo() {}

void CMayaAsciiIo::SaveDefaultOptions(CSceneExportOptions& options) const {
    options.prepFlags = kMayaPrepFlags;
    options.writerExtra = kMayaIndentUnit;
}

void CMayaAsciiIo::Line(meshio::COutText& out) { out.Tabs(m_state); }

bool CMayaAsciiIo::Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) {
    CSwitchLocale locale(LC_NUMERIC, "English");
    IoFile file(IsSilentMode(), TEXT_MODE_ANSI);
    if (!file.OpenFile(path, false)) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    m_state = 0;
    bool ok = true;
    if (scene && scene->GetChildCount(nullptr, KINDOF_EXPORTABLE, true) != 0) {
        meshio::COutText out(file);
        const CXStringW name = CFileInfo(path).GetName();
        out.Put("//Maya ASCII 2.0 scene\n//Name : ");
        out.Wide(name);
        out.Put("\n//Write by Orbiscope.\n//Connect ");
        out.Put(ConnectAddress());
        out.Put("\nrequires maya \"2.0\";\ncurrentUnit -l centimeter -a degree -t film;\n");

        C3DNodePos pos = scene->GetFirstNode(KINDOF_ALL, 0, nullptr, nullptr);
        C3DBaseObject* o = nullptr;
        while (C3DSceneNode* node = scene->GetNextNode(o, pos)) {
            if (!o || o->IsFlagSet(OBJF_HIDDEN) || o->GetKindOf() == KINDOF_GROUP || !o->IsGeomObject()) continue;
            auto* g = static_cast<C3DGeomObject*>(o);
            const CXStringW nodeName = meshio::SanitizeName(node->GetName());
            if (g->GetKindOf() == KINDOF_CURVE && g->GetPointList()) WriteCurve(out, nodeName, *g);
            else WriteMesh(out, nodeName, *g);
        }
        out.Put("// End of file ");
        out.Wide(name);
        out.Put('\n');
        ok = out.Flush();
    }
    if (!file.CloseFile() || !ok) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    return true;
}

void CMayaAsciiIo::WriteCurve(meshio::COutText& out, const CXStringW& name, const C3DGeomObject& obj) {
    const C3DPointList& pts = *obj.GetPointList();
    const int n = pts.GetSize();
    if (n == 0) return;
    Line(out);
    out.Put("curve -n \"");
    out.Wide(name);
    out.Put("\" -d 1\n");
    ++m_state;
    const float* p = pts.GetData();
    for (int i = 0; i < n; ++i, p += 3) {
        Line(out);
        out.Put("-p ");
        out.F6(p[0]);
        out.Put(' ');
        out.F6(p[1]);
        out.Put(' ');
        out.F6(p[2]);
        out.Put(' ');
        out.Put(i + 1 < n ? "\n" : ";\n");
    }
    --m_state;
}

void CMayaAsciiIo::WriteMesh(meshio::COutText& out, const CXStringW& name, C3DGeomObject& obj) {
    const C3DPointList* points = obj.GetPointList();
    C3DFaceList* faces = obj.GetFaceList();
    if (!points || !faces || points->GetSize() == 0 || faces->GetNumberOfFaces() == 0) return;
    const int P = points->GetSize();
    const int F = faces->GetNumberOfFaces();

    faces->InitEdgeToFaceGraph();
    const CEdgeGraph* graph = faces->GetEdgeGraph();
    if (!graph) return;
    const int E = static_cast<int>(graph->edges.size());

    Line(out);
    out.Put("createNode \"mesh\" -n \"");
    out.Wide(name);
    out.Put("\";\n");
    ++m_state;
    Line(out);
    out.Put("setAttr -k off \".v\";\n");

    Line(out);
    out.Put("setAttr -s ");
    out.Int(P);
    out.Put(" \".vt\";\n");
    Line(out);
    out.Put("setAttr \".vt[0:");
    out.Int(P - 1);
    out.Put(" ]\" -type \"float3\"\n");
    ++m_state;
    const float* p = points->GetData();
    for (int i = 0; i < P; ++i, p += 3) {
        Line(out);
        out.F6(p[0]);
        out.Put(' ');
        out.F6(p[1]);
        out.Put(' ');
        out.F6(p[2]);
        out.Put(' ');
        out.Put(i + 1 < P ? "\n" : ";\n");
    }
    --m_state;

    Line(out);
    out.Put("setAttr -s ");
    out.Int(E);
    out.Put(" \".ed\";\n");
    Line(out);
    out.Put("setAttr \".ed[0:");
    out.Int(E - 1);
    out.Put(" ]\"\n");
    ++m_state;
    for (int e = 0; e < E; ++e) {
        if (e % kEdgesPerLine == 0) Line(out);
        out.Int(graph->edges[static_cast<size_t>(e)].first);
        out.Put(' ');
        out.Int(graph->edges[static_cast<size_t>(e)].second);
        out.Put(" 0 ");
        if (e + 1 == E) out.Put(";\n");
        else if (e % kEdgesPerLine == kEdgesPerLine - 1) out.Put('\n');
        out.Check();
    }
    --m_state;

    Line(out);
    out.Put("setAttr -s ");
    out.Int(F);
    out.Put(" \".fc\";\n");
    Line(out);
    out.Put("setAttr \".fc[0:");
    out.Int(F - 1);
    out.Put(" ]\" -type \"polyFaces\"\n");
    ++m_state;
    const auto& offsets = faces->GetOffsets();
    for (int f = 0; f < F; ++f) {
        const int n = faces->GetFaceSize(f);
        const uint32_t* idx = faces->GetFaceIndices(f);
        const uint32_t base = offsets[static_cast<size_t>(f)];
        Line(out);
        out.Put("f ");
        out.Int(n);
        out.Put(' ');
        for (int k = 0; k < n; ++k) {
            const uint32_t a = idx[k], b = idx[k + 1 < n ? k + 1 : 0];
            const int64_t edge = graph->cornerEdge[base + static_cast<uint32_t>(k)];
            out.Int(a <= b ? edge : ~edge);
            out.Put(' ');
        }
        out.Put(f + 1 < F ? "\n" : ";\n");
        out.Check();
    }
    m_state -= 2;
    faces->DeleteEdgeToFaceGraph();
}
