#include "formats/classic/CDxfIo.h"

#include <new>

#include "formats/classic/DxfReader.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/NumberFormat.h"
#include "plugin/host/Object.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/SwitchLocale.h"
#include "plugin/host/TextHelpers.h"

namespace {

// Pairs of "code\nvalue\n" lines; text is 8-bit (Latin-1, '?' beyond).
class CDxfOut {
public:
    explicit CDxfOut(std::string& s) : m_s(s) {}
    void Pair(const char* code, const char* value) {
        m_s += code;
        m_s += '\n';
        m_s += value;
        m_s += '\n';
    }
    void Pair(const char* code, const CXStringW& value) {
        m_s += code;
        m_s += '\n';
        AppendLatin1(m_s, value.view());
        m_s += '\n';
    }
    void PairInt(const char* code, long long value) {
        m_s += code;
        m_s += '\n';
        numfmt::AppendInt(m_s, value);
        m_s += '\n';
    }
    void Point(float x, float y, float z) {
        m_s += "10\n";
        numfmt::AppendFixed(m_s, x);
        m_s += "\n20\n";
        numfmt::AppendFixed(m_s, y);
        m_s += "\n30\n";
        numfmt::AppendFixed(m_s, z);
        m_s += '\n';
    }
    void Raw(const char* text) { m_s += text; }

private:
    std::string& m_s;
};

void WritePolyline(CDxfOut& out, const C3DSceneNode& node, const C3DGeomObject* geom) {
    const CXStringW& name = node.GetName();
    out.Pair("0", "POLYLINE");
    out.Pair("8", name);
    out.PairInt("66", 1);
    // No closed flag, even for a closed curve.
    if (const C3DPointList* pts = geom ? geom->GetPointList() : nullptr) {
        const float* d = pts->GetData();
        for (size_t i = 0; i < pts->size(); ++i) {
            out.Pair("0", "VERTEX");
            out.Pair("8", name);
            out.Point(d[i * 3], d[i * 3 + 1], d[i * 3 + 2]);
        }
    }
    out.Pair("0", "SEQEND");
}

void WritePolyface(CDxfOut& out, const C3DSceneNode& node, const C3DGeomObject& geom) {
    const CXStringW& name = node.GetName();
    const C3DPointList* pts = geom.GetPointList();
    const C3DFaceList* faces = geom.GetFaceList();
    const size_t np = pts ? pts->size() : 0;
    const int nf = faces ? faces->GetNumberOfFaces() : 0;
    out.Pair("0", "POLYLINE");
    out.Pair("8", name);
    out.PairInt("70", 64);
    out.PairInt("66", 1);
    out.PairInt("71", static_cast<long long>(np));
    out.PairInt("72", nf);
    for (size_t i = 0; i < np; ++i) {
        const float* d = pts->GetData() + i * 3;
        out.Pair("0", "VERTEX");
        out.Pair("8", name);
        out.PairInt("70", 192);
        out.Point(d[0], d[1], d[2]);
    }
    for (int f = 0; f < nf; ++f) {
        std::span<const uint32_t> ix = faces->Face(f);
        out.Pair("0", "VERTEX");
        out.Pair("8", name);
        out.PairInt("70", 128);
        out.Raw("10\n0\n20\n0\n30\n0\n");
        // 1-based; a face of fewer than three corners repeats its last one, and a
        // face of more than four keeps its first three (it is not triangulated).
        long long v[3];
        for (size_t k = 0; k < 3; ++k) {
            if (k < ix.size()) v[k] = static_cast<long long>(ix[k]) + 1;
            else v[k] = k > 0 ? v[k - 1] : 0;
        }
        out.PairInt("71", v[0]);
        out.PairInt("72", v[1]);
        out.PairInt("73", v[2]);
        if (ix.size() == 4) out.PairInt("74", static_cast<long long>(ix[3]) + 1);
    }
    out.Pair("0", "SEQEND");
}

} // namespace

CDxfIo::CDxfIo(CFileIo& io) : C3DParser(io) {}
CDxfIo::~CDxfIo() {}

C3DScene* CDxfIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    return ReadThroughFile(*this, path, options, [this](std::span<const uint8_t> data, CReadContext& ctx) {
        SetFile(ctx.File());
        C3DScene* scene = ReadBytes(data, ctx);
        SetFile(nullptr);
        return scene;
    });
}

C3DScene* CDxfIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options) {
    return ReadThroughMemory(*this, data, options, [this](std::span<const uint8_t> bytes, CReadContext& ctx) {
        return ReadBytes(bytes, ctx);
    });
}

C3DScene* CDxfIo::ReadBytes(std::span<const uint8_t> data, CReadContext& ctx) {
    dxf::ReadOutcome r = dxf::ReadDxf(data, ctx.Options(), [&ctx] { return ctx.Cancelled(); });
    if (!r.scene) return ctx.Fail(r.error, r.error == IO_ERR_FORMAT ? LOG_ERROR : LOG_INFO);
    return r.scene.release();
}

void CDxfIo::SaveDefaultOptions(CSceneExportOptions& options) const {
    // Curves stay curves, as poly-lines through their points, one line per node since the
    // writer walks the point list; points are written raw, so node placements are baked in
    // first. A face record holds at most four corners, so larger faces come as triangles.
    options.prepFlags =
        PREP_CURVES | PREP_CURVE_POLYLINES | PREP_SPLIT_CURVES | PREP_WORLD_SPACE | PREP_TRIANGULATE_POLYGONS;
}

std::string CDxfIo::FormatScene(const C3DScene& scene) {
    std::string s;
    CDxfOut out(s);
    out.Pair("0", "SECTION");
    out.Pair("2", "TABLES");
    out.Pair("0", "TABLE");
    C3DBaseObject* obj = nullptr;
    C3DNodePos pos = scene.GetFirstNode(KINDOF_ALL);
    while (C3DSceneNode* node = scene.GetNextNode(obj, pos)) {
        if (node->GetKindOf() == KINDOF_GROUP || (obj && obj->IsFlagSet(OBJF_HIDDEN))) continue;
        // "LAYER" comes again before every entry, deliberately.
        out.Pair("2", "LAYER");
        out.Pair("2", node->GetName());
        out.PairInt("70", 0);
    }
    out.Pair("0", "ENDTAB");
    out.Pair("0", "ENDSEC");
    out.Pair("0", "SECTION");
    out.Pair("2", "ENTITIES");
    pos = scene.GetFirstNode(KINDOF_ALL);
    while (C3DSceneNode* node = scene.GetNextNode(obj, pos)) {
        // Flag 16 is not looked at here: a flagged mesh keeps its entity without a layer.
        const uint32_t kind = node->GetKindOf();
        if (kind == KINDOF_CURVE) {
            WritePolyline(out, *node, node->GetGeomObject());
        } else if (kind == KINDOF_MESH || kind == KINDOF_PATCH) {
            if (const C3DGeomObject* g = node->GetGeomObject()) WritePolyface(out, *node, *g);
        }
    }
    out.Pair("0", "ENDSEC");
    out.Pair("0", "EOF");
    return s;
}

bool CDxfIo::Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) {
    CSwitchLocale locale(LC_NUMERIC, "English");
    IoFile file(IsSilentMode(), TEXT_MODE_ANSI);
    if (!file.OpenFile(path, false)) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    SetFile(&file);
    if (scene) {
        m_scene = scene;
        file.WriteString(FormatScene(*scene));
    } else {
        file.WriteString(FormatScene(C3DScene()));
    }
    file.CloseFile();
    SetFile(nullptr);
    return true;
}
