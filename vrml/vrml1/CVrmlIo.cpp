#include "vrml/vrml1/CVrmlIo.h"

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "plugin/host/Channel.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/LargeArray.h"
#include "plugin/host/NumberFormat.h"
#include "plugin/host/Object.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/SwitchLocale.h"
#include "vrml/vrml1/QvIn.h"
#include "vrml/vrml1/QvNode.h"
#include "vrml/vrml1/Vrml1Import.h"

using numfmt::AppendFormat;

namespace {

constexpr const char* kInfoText = "\"Scene created by Orbiscope (https://orbiscope.org)\"";
// The host's resource string 9474: the name of a node whose name has no letters.
constexpr const char* kDefaultObjectName = "Object";

bool IsLetter(wchar_t c) {
    if ((c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z')) return true;
    if (c < 0xC0 || c == 0xD7 || c == 0xF7) return false;
    // Punctuation, symbols and spaces of the higher planes are not letters.
    if ((c >= 0x2000 && c <= 0x2BFF) || (c >= 0x3000 && c <= 0x303F) || (c >= 0xFE30 && c <= 0xFE4F) ||
        (c >= 0xFF00 && c <= 0xFF20))
        return false;
    return true;
}

float Unit(uint8_t v) { return static_cast<float>(v) / 255.0f; }

// "%.4f" of a float widened to double. A float below 2^32 times 10^4 is exact in a double
// (24 mantissa bits times 625 * 2^4), so rounding that product to an integer, ties to
// even as printf does, gives every digit; anything else takes the general formatter.
constexpr size_t kMaxFixed4 = 340;
char* WriteFixed4(char* p, double v) {
    const double a = std::fabs(v);
    if (!(a < 4294967296.0) || static_cast<double>(static_cast<float>(a)) != a)
        return p + numfmt::FormatFixed(p, kMaxFixed4, v, 4);
    *p = '-';
    p += std::signbit(v) ? 1 : 0;
    const double t = a * 1e4;
    uint64_t u = static_cast<uint64_t>(t);
    const double rest = t - static_cast<double>(u);
    u += (rest > 0.5 || (rest == 0.5 && (u & 1))) ? 1 : 0;
    p = numfmt::WriteUInt(p, u / 10000u);
    *p++ = '.';
    const uint32_t fp = static_cast<uint32_t>(u % 10000u);
    *p++ = static_cast<char>('0' + fp / 1000u);
    *p++ = static_cast<char>('0' + fp / 100u % 10u);
    *p++ = static_cast<char>('0' + fp / 10u % 10u);
    *p++ = static_cast<char>('0' + fp % 10u);
    return p;
}

// Lines of numbers written straight into the text's spare room (grown ahead a block at a
// time and trimmed at the end) instead of one append per number.
class LineWriter {
public:
    LineWriter(std::string& out, size_t maxLine) : m_out(out), m_max(maxLine), m_len(out.size()) {}
    ~LineWriter() { m_out.resize(m_len); }
    LineWriter(const LineWriter&) = delete;
    LineWriter& operator=(const LineWriter&) = delete;
    // Room for one line of at most maxLine bytes, the indentation already written.
    char* line(const std::string& indent) {
        // Grown a block at a time (the string's own capacity grows geometrically).
        if (m_out.size() - m_len < m_max) m_out.resize(m_len + std::max<size_t>(m_max, 1u << 16));
        char* p = m_out.data() + m_len;
        std::memcpy(p, indent.data(), indent.size());
        return p + indent.size();
    }
    void done(const char* end) { m_len = static_cast<size_t>(end - m_out.data()); }

private:
    std::string& m_out;
    size_t m_max;
    size_t m_len;
};

struct Writer {
    std::string out;
    std::string indent;

    void open(const std::string& name) {
        out += indent;
        AppendFormat(out, "DEF %s ", name.c_str());
        AppendFormat(out, "%s { # %s beginning\n", "Separator", name.c_str());
        indent += '\t';
    }
    void close(const std::string& name) {
        if (!indent.empty()) indent.pop_back();
        AppendFormat(out, "%s} # %s end\n", indent.c_str(), name.c_str());
    }
    void node(const char* type) { AppendFormat(out, "%s%s {\n", indent.c_str(), type); }
    void end() { AppendFormat(out, "%s}\n", indent.c_str()); }
    void line(const char* text) { AppendFormat(out, "%s%s\n", indent.c_str(), text); }

    // One line per point: its first `dims` coordinates of `stride`, "%.4f" each.
    void points(const float* p, int count, int dims, int stride = 3) {
        LineWriter buf(out, indent.size() + 3 * kMaxFixed4 + 4);
        for (int i = 0; i < count; ++i, p += stride) {
            char* q = buf.line(indent);
            for (int k = 0; k < dims; ++k) {
                if (k) *q++ = ' ';
                q = WriteFixed4(q, p[k]);
            }
            *q++ = ',';
            *q++ = '\n';
            buf.done(q);
        }
    }

    void coordinates(const C3DPointList& pts) {
        node("Coordinate3");
        line("point [");
        points(pts.GetData(), pts.GetSize(), 3);
        line("]");
        end();
    }
};

bool IsWrittenMesh(uint32_t kind) { return kind == KINDOF_MESH || kind == KINDOF_PATCH; }

void WriteMesh(Writer& w, const C3DScene& scene, const C3DGeomObject& obj) {
    const C3DPointList* pts = obj.GetPointList();
    const C3DFaceList* faces = obj.GetFaceList();
    if (!pts || !faces) return;

    w.node("ShapeHints");
    AppendFormat(w.out, "%screaseAngle %.2f\n", w.indent.c_str(), obj.GetSmoothAngle());
    AppendFormat(w.out, "%svertexOrdering UNKNOWN_ORDERING\n", w.indent.c_str());
    w.end();
    w.coordinates(*pts);

    // Faces in material order (stable), leaving out the ones writers skip.
    std::vector<int> order;
    order.reserve(static_cast<size_t>(faces->GetNumberOfFaces()));
    for (int f = 0; f < faces->GetNumberOfFaces(); ++f)
        if (!faces->IsFaceFlagSet(f, FACE_SKIP)) order.push_back(f);
    auto byMaterial = [&](int a, int b) { return faces->GetMaterialID(a) < faces->GetMaterialID(b); };
    if (!std::is_sorted(order.begin(), order.end(), byMaterial))
        std::stable_sort(order.begin(), order.end(), byMaterial);

    // The materials the faces use, in ascending ID order; a face's index is its material's place.
    std::vector<uint32_t> ids;
    for (size_t k = 0; k < order.size(); ++k) {
        uint32_t id = faces->GetMaterialID(order[k]);
        if (k > 0 && id == faces->GetMaterialID(order[k - 1])) continue; // one look-up per run
        if (scene.GetMaterialByID(id) && (ids.empty() || ids.back() != id)) ids.push_back(id);
    }
    if (!ids.empty()) {
        std::vector<const C3DMaterial*> mats;
        for (uint32_t id : ids) mats.push_back(scene.GetMaterialByID(id));
        w.node("Material");
        auto colors = [&](const char* field, auto get) {
            AppendFormat(w.out, "%s%s [\n", w.indent.c_str(), field);
            for (const C3DMaterial* m : mats) {
                CRGBColor c = get(*m);
                AppendFormat(w.out, "%s%.2f %.2f %.2f,\n", w.indent.c_str(), Unit(c.r), Unit(c.g), Unit(c.b));
            }
            w.line("]");
        };
        auto standard = [](const C3DMaterial& m) -> const C3DStandardMaterial* {
            return m.GetClass() == MATERIAL_STANDARD ? static_cast<const C3DStandardMaterial*>(&m) : nullptr;
        };
        colors("diffuseColor", [](const C3DMaterial& m) { return m.GetDiffuseColor(); });
        colors("ambientColor", [&](const C3DMaterial& m) {
            const C3DStandardMaterial* s = standard(m);
            return s ? s->GetAmbientColor() : CRGBColor(0, 0, 0);
        });
        colors("specularColor", [&](const C3DMaterial& m) {
            const C3DStandardMaterial* s = standard(m);
            return s ? s->GetSpecularColor() : CRGBColor(0, 0, 0);
        });
        w.line("transparency [");
        for (const C3DMaterial* m : mats) AppendFormat(w.out, "%s%.2f,\n", w.indent.c_str(), m->GetTransparency());
        w.line("]");
        w.line("shininess [");
        for (const C3DMaterial* m : mats) {
            const C3DStandardMaterial* s = standard(*m);
            float shine = std::clamp(s ? s->GetSpecularFactor() : 0.0f, 0.0f, 1.0f);
            AppendFormat(w.out, "%s%.2f,\n", w.indent.c_str(), shine);
        }
        w.line("]");
        w.end();
        w.node("MaterialBinding");
        w.line(ids.size() > 1 ? "value PER_FACE_INDEXED" : "value OVERALL");
        w.end();
        for (const C3DMaterial* m : mats) {
            if (const CMaterialMap* map = m->GetMaterialMap(MAP_DIFFUSE)) {
                w.node("Texture2");
                AppendFormat(w.out, "%sfilename \"%s\"\n", w.indent.c_str(), PathToUtf8(map->GetFileName()).c_str());
                w.end();
                break;
            }
        }
    }
    const CUVWChannel* uv = obj.GetGlobalUVWChannel();
    if (uv && uv->GetUVWFaceList()->GetNumberOfFaces() != faces->GetNumberOfFaces()) uv = nullptr;
    if (uv) {
        w.node("TextureCoordinate2");
        w.line("point [");
        const CUVWPointList& up = *uv->GetUVWPointList();
        w.points(up.GetData(), up.GetSize(), 2);
        w.line("]");
        w.end();
    }

    w.node("IndexedFaceSet");
    auto indices = [&](const char* field, const CFaceList& list) {
        AppendFormat(w.out, "%s%s [\n", w.indent.c_str(), field);
        size_t widest = 0;
        for (int f : order) widest = std::max(widest, list.Face(f).size());
        {
            LineWriter buf(w.out, w.indent.size() + widest * 13 + 5);
            for (int f : order) {
                char* q = buf.line(w.indent);
                for (uint32_t i : list.Face(f)) {
                    q = numfmt::WriteInt(q, static_cast<int>(i));
                    *q++ = ',';
                    *q++ = ' ';
                }
                std::memcpy(q, "-1,\n", 4);
                buf.done(q + 4);
            }
        }
        w.line("]");
    };
    indices("coordIndex", *faces);
    if (uv) indices("textureCoordIndex", *uv->GetUVWFaceList());
    if (ids.size() > 1) {
        AppendFormat(w.out, "%smaterialIndex [\n", w.indent.c_str());
        for (int f : order) {
            size_t k = std::lower_bound(ids.begin(), ids.end(), faces->GetMaterialID(f)) - ids.begin();
            if (k >= ids.size() || ids[k] != faces->GetMaterialID(f)) k = 0;
            numfmt::AppendInt(w.out, static_cast<long long>(k));
            w.out += ", ";
        }
        AppendFormat(w.out, "\n%s]\n", w.indent.c_str());
    }
    w.end();
}

void WriteCurve(Writer& w, const C3DGeomObject& obj) {
    const C3DPointList* pts = obj.GetPointList();
    if (!pts) return;
    w.node("IndexedLineSet");
    w.indent += '\t';
    w.line("coordIndex [");
    w.out += w.indent;
    for (int i = 0; i < pts->GetSize(); ++i) AppendFormat(w.out, "%i, ", i);
    w.out += "-1,\n";
    w.line("]");
    w.indent.pop_back();
    w.end();
    w.coordinates(*pts);
}

bool IsHidden(const C3DSceneNode* n) {
    for (; n; n = n->GetParent()) {
        const C3DBaseObject* o = n->GetBaseObject();
        if (o && o->IsFlagSet(OBJF_HIDDEN)) return true;
    }
    return false;
}

} // namespace

CVrmlIo::CVrmlIo(CFileIo& io) : C3DParser(io) { m_aux = new (std::nothrow) Aux(); }
CVrmlIo::~CVrmlIo() { delete m_aux; }

C3DScene* CVrmlIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    m_path = path;
    return ReadThroughFile(*this, path, options, [this, &path](std::span<const uint8_t> data, CReadContext& ctx) {
        return ReadBytes(data, ctx.Options(), path, ctx.File());
    });
}

C3DScene* CVrmlIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& path) {
    return ReadThroughMemory(*this, data, options, [this, &path](std::span<const uint8_t> bytes, CReadContext& ctx) {
        return ReadBytes(bytes, ctx.Options(), path, nullptr);
    });
}

C3DScene* CVrmlIo::ReadBytes(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& path,
                             const IoFile* file) {
    QvFileContents contents;
    {
        // The input (and its DEF names' references) goes before the walk, which then
        // frees the parts it is done with.
        QvIn in(data);
        in.setSink([&](const std::string& message) {
            std::fputs(message.c_str(), stderr);
            options.AddLogInfo(LOG_INFO, CXStringW(Utf8ToWide(message)));
        });
        // The text behind the reading position is not read again: a mapped file gives those
        // pages back as the parse goes.
        if (file)
            in.setProgress([file](size_t pos) {
                file->ReportProgress(static_cast<int64_t>(pos));
                file->ReleaseBefore(static_cast<int64_t>(pos));
            });
        if (!QvReadFile(in, contents)) {
            m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
            return nullptr;
        }
    }
    auto scene = std::make_unique<C3DScene>();
    vrml1import::CVrml1Converter conv(*scene, *this, options, PathToUtf8(path), data.size());
    conv.Convert(contents);
    if (conv.WasCancelled()) {
        m_fileIo.SetIoError(IO_ERR_CANCELLED, &options, LOG_INFO);
        return nullptr;
    }
    if (scene->GetNodeCount() == 0) {
        m_fileIo.SetIoError(IO_ERR_EMPTY, &options, LOG_INFO);
        return nullptr;
    }
    SetScene(scene.get());
    return scene.release();
}

void CVrmlIo::SaveDefaultOptions(CSceneExportOptions& options) const {
    // Polygons of any size, the material table, curves as poly-lines; the hierarchy stays.
    options.prepFlags = PREP_MESHES | PREP_MATERIALS | PREP_CURVES | PREP_CURVE_POLYLINES;
}

std::string CVrmlIo::SeparatorName(const CXStringW& name) {
    std::wstring letters;
    for (wchar_t c : std::wstring_view(name.GetString()))
        if (IsLetter(c)) letters += c;
    if (letters.empty()) return kDefaultObjectName;
    return WideToUtf8(letters);
}

std::string CVrmlIo::FormatScene(const C3DScene& scene) {
    Writer w;
    {
        // Room for the whole text up front, backed at once: growing a string of hundreds of
        // megabytes by doubling copies it and takes its page faults one by one.
        size_t estimate = 4096;
        C3DNodePos pos = scene.GetFirstNode(KINDOF_MESH | KINDOF_PATCH | KINDOF_CURVE);
        C3DBaseObject* obj = nullptr;
        while (scene.GetNextNode(obj, pos)) {
            if (!obj || !obj->IsGeomObject()) continue;
            const auto& g = static_cast<const C3DGeomObject&>(*obj);
            if (g.GetPointList()) estimate += g.GetPointList()->size() * 34;
            if (g.GetFaceList())
                estimate += g.GetFaceList()->GetNumberOfIndices() * 6 + g.GetFaceList()->GetNumberOfFaces() * 6;
            estimate += 1024;
        }
        w.out.reserve(estimate);
        hostmem::PopulateNow(w.out.data(), w.out.capacity());
    }
    w.out = "#VRML V1.0 ascii\n";
    w.open("Scene");
    w.node("Info");
    AppendFormat(w.out, "%sstring %s\n", w.indent.c_str(), kInfoText);
    w.end();

    struct Open {
        const C3DSceneNode* node;
        std::string name;
    };
    std::vector<Open> open;
    C3DNodePos pos = scene.GetFirstNode(KINDOF_ALL);
    C3DBaseObject* obj = nullptr;
    while (C3DSceneNode* n = scene.GetNextNode(obj, pos)) {
        if (IsHidden(n)) continue;
        // Close the Separators of the nodes this one is not inside.
        while (!open.empty()) {
            const C3DSceneNode* p = n->GetParent();
            while (p && p != open.back().node) p = p->GetParent();
            if (p) break;
            w.close(open.back().name);
            open.pop_back();
        }
        std::string name = SeparatorName(n->GetName());
        w.open(name);
        if (obj) {
            CXStringW link = obj->GetCustomData().GetString(vrml1import::kLinkID);
            if (!link.IsEmpty()) {
                w.node("WWWAnchor");
                AppendFormat(w.out, "%s\tname \"%s\"\n", w.indent.c_str(), PathToUtf8(link).c_str());
                w.end();
            }
        }
        open.push_back({n, name});
        if (!obj || !obj->IsGeomObject()) continue;
        const auto& g = static_cast<const C3DGeomObject&>(*obj);
        if (IsWrittenMesh(obj->GetKindOf())) WriteMesh(w, scene, g);
        else if (obj->GetKindOf() == KINDOF_CURVE) WriteCurve(w, g);
    }
    while (!open.empty()) {
        w.close(open.back().name);
        open.pop_back();
    }
    w.close("Scene");
    return w.out;
}

bool CVrmlIo::Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) {
    CSwitchLocale locale(LC_NUMERIC, "English");
    if (!scene || scene->GetChildCount(nullptr, KINDOF_EXPORTABLE) == 0) {
        m_fileIo.SetIoError(IO_ERR_NOTHING_TO_WRITE, &options, LOG_ERROR);
        return false;
    }
    IoFile file(IsSilentMode(), TEXT_MODE_UTF8);
    if (!file.OpenFile(path, false)) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    SetFile(&file);
    m_scene = scene;
    bool ok = file.WriteString(std::string_view(FormatScene(*scene)));
    ok = file.CloseFile() && ok;
    SetFile(nullptr);
    if (!ok) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    return true;
}
