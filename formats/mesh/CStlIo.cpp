// STL reader and writer. Binary files are parsed straight from the mapped bytes;
// ASCII files line by line from the same bytes. The writer emits the first mesh
// as binary with the 15-bit colour word (bit 15 set, red in the low bits).
#include "formats/mesh/CStlIo.h"

#include <cstring>
#include <memory>

#include "formats/mesh/MeshText.h"
#include "plugin/host/BinaryCursor.h"
#include "plugin/host/Cancel.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/SwitchLocale.h"
#include "plugin/host/TextScanner.h"

namespace {

constexpr uint64_t kStlPrepFlags = 0x00000004000C6403ull;
constexpr size_t kHeader = 80;
constexpr size_t kRecord = 50;
constexpr int kMaxWord = 1024;

// Case-insensitive compare of a whole word.
bool EqualsNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x + 32);
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y + 32);
        if (x != y) return false;
    }
    return true;
}

bool IsEndSolid(std::string_view line) { return EqualsNoCase(textscan::TrimRight(line), "endsolid"); }

} // namespace

CStlIo::CStlIo(CFileIo& io) : C3DParser(io) {}
CStlIo::~CStlIo() {}

void CStlIo::LoadDefaultOptions(CSceneImportOptions& options) const {
    options.readerFlags = 2;
    options.readerScale = 0;
}

void CStlIo::SaveDefaultOptions(CSceneExportOptions& options) const {
    options.prepFlags = kStlPrepFlags;
    options.prepFlags2 = 0;
}

C3DScene* CStlIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    CSwitchLocale locale(0, "English");
    IoFile file(IsSilentMode());
    if (fileIsDirectory(path) || !file.OpenFile(path, true)) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return nullptr;
    }
    m_file = &file;
    C3DScene* scene = ReadData(file.GetData(), options);
    m_file = nullptr;
    file.CloseFile();
    return scene;
}

C3DScene* CStlIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options) {
    CSwitchLocale locale(0, "English");
    return ReadData(data, options);
}

C3DScene* CStlIo::ReadData(std::span<const uint8_t> data, CSceneImportOptions& options) {
    bool binary = false;
    const uint64_t len = data.size();
    if (len >= kHeader + 4) { // a short read of the count means "not binary"
        CBinaryCursor c(data);
        c.seek(kHeader);
        const uint64_t n = c.u32le();
        binary = n != 0 && len == n * kRecord + kHeader + 4;
    }
    C3DScene* scene = binary ? ReadBinary(data) : ReadAscii(data);
    m_scene = nullptr;
    if (!scene) {
        if (ShouldCancelThread(0)) m_fileIo.SetIoError(IO_ERR_CANCELLED, &options, LOG_INFO);
        else m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
    }
    return scene;
}

C3DScene* CStlIo::ReadBinary(std::span<const uint8_t> data) {
    CBinaryCursor c(data);
    meshio::CPageReleaser release(m_file, std::string_view(reinterpret_cast<const char*>(data.data()), data.size()));
    const uint8_t* header = c.current();
    c.skip(kHeader);
    const uint32_t n = c.u32le();
    // The caller checked the exact length, so n records fit in what remains.
    if (!c.canRead(n, kRecord)) return nullptr;

    auto scene = std::make_unique<C3DScene>();
    m_scene = scene.get();

    // Default object colour in the header: "COLOR=" then colour bytes, searched in the
    // lower-cased text up to the first zero. The colour starts one byte after the '='.
    {
        size_t textLen = 0;
        while (textLen < kHeader && header[textLen] != 0) ++textLen;
        std::string lower(reinterpret_cast<const char*>(header), textLen);
        for (auto& ch : lower)
            if (ch >= 'A' && ch <= 'Z') ch = static_cast<char>(ch + 32);
        const size_t p = lower.find("color=");
        if (p != std::string::npos && p + 10 <= 79) {
            C3DMaterial* m = scene->GetMaterialByID(0, true, MATERIAL_STANDARD);
            m->diffuse.SetColor(header[p + 7], header[p + 8], header[p + 9], m->diffuse.a);
            if (m->GetClass() == MATERIAL_STANDARD)
                m->transparency = static_cast<float>(static_cast<int8_t>(header[p + 10]) / 255.0);
        }
    }

    auto* obj = new C3DObject();
    auto* node = new C3DSceneNode(obj);
    scene->AddNode(nullptr, node);
    auto* normals = new CSpecNormalChannel();
    obj->AddChannel(normals, -1);
    obj->SetPointList(new C3DPointList(), true);
    obj->SetFaceList(new C3DFaceList(), true);
    C3DPointList* points = obj->GetPointList();
    C3DFaceList* faces = obj->GetFaceList();
    CNormalFaceList* nfaces = normals->GetNormalFaceList();
    C3DVectorList* nvec = normals->GetNormalVectorList();

    const int count = static_cast<int>(n > INT32_MAX / 3 ? INT32_MAX / 3 : n);
    faces->SetSize(count, 3);
    nfaces->SetSize(count, 3);
    points->SetSize(count * 3);
    nvec->SetSize(count * 3);
    uint32_t* fidx = faces->GetIndexes().data();
    uint32_t* nidx = nfaces->GetIndexes().data();
    float* pts = points->GetData();
    float* nv = nvec->GetData();

    CVCChannel* colors = nullptr;
    uint32_t* cidx = nullptr;
    CRGBColor* cpts = nullptr;
    int k = 0;
    int read = 0;
    for (int i = 0; i < count; ++i) {
        if (ShouldCancelThread(0)) break;
        if (!c.canRead(kRecord)) break;
        release.At(reinterpret_cast<const char*>(c.current()));
        float v[12];
        for (float& f : v) f = c.f32le();
        const uint16_t attr = c.u16le();
        std::memcpy(nv + size_t(i) * 3, v, 12);
        std::memcpy(pts + size_t(i) * 9, v + 3, 36);
        const uint32_t base = static_cast<uint32_t>(i) * 3;
        uint32_t* f = fidx + size_t(i) * 3;
        f[0] = base; f[1] = base + 1; f[2] = base + 2;
        uint32_t* nf = nidx + size_t(i) * 3;
        nf[0] = nf[1] = nf[2] = static_cast<uint32_t>(i);
        if (attr >= 0x8000) {
            if (!colors) {
                colors = new CVCChannel();
                CVCFaceList* cf = colors->GetVCFaceList();
                cf->SetSize(count, 3);
                cf->SetFacesFlags(FACE_SKIP, true);
                colors->GetVCPointList()->SetSize(count);
                const int32_t id = obj->AddChannel(colors, -1);
                obj->SetGlobalVCChannel(id);
                colors->SetWeight(1.0f);
                cidx = cf->GetIndexes().data();
                cpts = colors->GetVCPointList()->Raw().data();
            }
            CVCFaceList* cf = colors->GetVCFaceList();
            cf->SetFaceFlag(i, FACE_SKIP, false);
            uint32_t* ci = cidx + size_t(i) * 3;
            ci[0] = ci[1] = ci[2] = static_cast<uint32_t>(k);
            cpts[k].SetColor(static_cast<uint8_t>(attr * 8), static_cast<uint8_t>((attr >> 5) * 8),
                             static_cast<uint8_t>((attr >> 7) & 0x1F8));
            ++k;
        }
        ++read;
    }
    if (read == 0 || ShouldCancelThread(0)) {
        m_scene = nullptr;
        return nullptr;
    }
    if (read < count) {
        faces->SetSize(read, 3, SETSIZE_TRUNCATE);
        nfaces->SetSize(read, 3, SETSIZE_TRUNCATE);
        points->SetSize(read * 3);
        nvec->SetSize(read * 3);
    }
    faces->FreeExtra();
    nfaces->FreeExtra();
    points->FreeExtra();
    nvec->FreeExtra();
    if (colors) {
        colors->GetVCPointList()->SetSize(k);
        colors->GetVCPointList()->FreeExtra();
        colors->GetVCFaceList()->SetSize(read, 4, SETSIZE_TRUNCATE);
    }
    return scene.release();
}

C3DScene* CStlIo::ReadAscii(std::span<const uint8_t> data) {
    const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
    textscan::LineSplitter lines(text);
    meshio::CPageReleaser release(m_file, text);
    std::string_view line;
    auto nextNonEmpty = [&](std::string_view& out) {
        while (lines.Next(out)) {
            release.At(out.data());
            out = textscan::TrimLeft(out);
            if (!textscan::TrimRight(out).empty()) return true;
        }
        return false;
    };
    if (!nextNonEmpty(line)) return nullptr;
    const textscan::LineSplitter afterFirst = lines;

    textscan::TextCursor first(line);
    std::string_view keyword, name;
    int words = 0;
    if (first.ReadWord(keyword, kMaxWord)) {
        ++words;
        if (first.ReadWord(name, kMaxWord)) ++words;
    }
    if (words == 0 || !EqualsNoCase(keyword, "solid")) return nullptr;
    CXStringW objectName = words < 2 ? CXStringW(L"Object") : CXStringW(Utf8ToWide(name));

    // Counting pass: complete groups of seven non-empty lines up to a bare "endsolid".
    uint64_t counted = 0;
    while (nextNonEmpty(line)) {
        if (IsEndSolid(line)) break;
        ++counted;
    }
    const uint64_t facetsCounted = counted / 7;
    if (facetsCounted == 0) return nullptr;
    if (facetsCounted > INT32_MAX / 3) return nullptr;
    const int V = static_cast<int>(facetsCounted * 3);

    lines = afterFirst;
    release.Reset();
    auto scene = std::make_unique<C3DScene>();
    m_scene = scene.get();
    auto* obj = new C3DObject();
    auto* node = new C3DSceneNode(obj);
    node->SetName(objectName);
    scene->AddNode(nullptr, node);
    auto* normals = new CSpecNormalChannel();
    obj->AddChannel(normals, -1);
    obj->SetPointList(new C3DPointList(), true);
    obj->SetFaceList(new C3DFaceList(), true);
    C3DPointList* points = obj->GetPointList();
    C3DFaceList* faces = obj->GetFaceList();
    CNormalFaceList* nfaces = normals->GetNormalFaceList();
    C3DVectorList* nvec = normals->GetNormalVectorList();
    points->SetSize(V);
    nvec->SetSize(V);
    faces->SetSize(V / 3, 3);
    nfaces->SetSize(V / 3, 3);
    if (ShouldCancelThread(0)) return nullptr;

    float* pts = points->GetData();
    uint32_t* fidx = faces->GetIndexes().data();
    uint32_t* nidx = nfaces->GetIndexes().data();
    int facets = 0, npts = 0;
    bool cancelled = false;
    while (facets < V / 3) {
        if (!nextNonEmpty(line) || IsEndSolid(line)) break;
        if (facets == 0) {
            textscan::TextCursor s(line);
            std::string_view w;
            // Only the first facet line is validated; the normal itself is not kept.
            if (!s.ReadWord(w, kMaxWord) || !(EqualsNoCase(w, "facet") || EqualsNoCase(w, "normal"))) break;
        }
        if (!nextNonEmpty(line)) break; // outer loop
        bool ok = true;
        for (int v = 0; v < 3 && ok; ++v) {
            if (!nextNonEmpty(line)) { ok = false; break; }
            textscan::TextCursor s(line);
            float xyz[3];
            if (!s.SkipWord() || !meshio::ReadCoord(s, xyz[0]) || !meshio::ReadCoord(s, xyz[1]) || !meshio::ReadCoord(s, xyz[2])) { ok = false; break; }
            std::memcpy(pts + size_t(npts + v) * 3, xyz, 12);
        }
        if (!ok) break;
        uint32_t* f = fidx + size_t(facets) * 3;
        f[0] = static_cast<uint32_t>(npts + 2);
        f[1] = static_cast<uint32_t>(npts + 1);
        f[2] = static_cast<uint32_t>(npts);
        uint32_t* nf = nidx + size_t(facets) * 3;
        nf[0] = nf[1] = nf[2] = static_cast<uint32_t>(facets);
        npts += 3;
        ++facets;
        nextNonEmpty(line); // end loop
        nextNonEmpty(line); // end facet
        if (ShouldCancelThread(0)) { cancelled = true; break; }
    }
    if (cancelled || facets == 0) {
        m_scene = nullptr;
        return nullptr;
    }
    if (facets < V / 3) {
        faces->SetSize(facets, 3, SETSIZE_TRUNCATE);
        nfaces->SetSize(facets, 3, SETSIZE_TRUNCATE);
        points->SetSize(npts);
        nvec->SetSize(npts);
    }
    faces->FreeExtra();
    nfaces->FreeExtra();
    points->FreeExtra();
    nvec->FreeExtra();
    return scene.release();
}

uint16_t CStlIo::PackColor(float r, float g, float b) {
    const int ri = static_cast<int>(r * 31.0);
    const int gi = static_cast<int>(g * 31.0);
    const int bi = static_cast<int>(b * 31.0);
    // 16-bit arithmetic throughout: out-of-range components spill into their neighbours.
    uint16_t v = static_cast<uint16_t>(bi << 5);
    v = static_cast<uint16_t>(v | static_cast<uint16_t>(gi));
    v = static_cast<uint16_t>(v << 5);
    v = static_cast<uint16_t>(v | static_cast<uint16_t>(ri));
    return static_cast<uint16_t>(v | 0x8000);
}

bool CStlIo::Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) {
    CSwitchLocale locale(0, "English");
    IoFile file(IsSilentMode());
    if (!file.OpenFile(path, false)) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    uint8_t header[kHeader] = {};
    {
        std::string text = std::string("Created by Orbiscope (") + meshio::kMakerUrl + ")";
        std::memcpy(header, text.data(), std::min(text.size(), kHeader - 1));
    }
    file.FileWrite(header, kHeader);

    // The first polygon mesh in tree order.
    const C3DGeomObject* obj = nullptr;
    if (scene) {
        C3DNodePos pos = scene->GetFirstNode(KINDOF_ALL, 0, nullptr, nullptr);
        C3DBaseObject* o = nullptr;
        while (scene->GetNextNode(o, pos)) {
            if (o && o->GetKindOf() == KINDOF_MESH) {
                obj = static_cast<const C3DGeomObject*>(o);
                break;
            }
        }
    }
    const C3DPointList* points = obj ? obj->GetPointList() : nullptr;
    const C3DFaceList* faces = obj ? obj->GetFaceList() : nullptr;
    if (!points || !faces) {
        const bool ok = file.CloseFile();
        if (!ok) m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return ok;
    }

    const CFaceNormalChannel* fn = obj->GetFaceNormalChannel();
    const C3DVectorList* fnv = fn ? fn->GetNormalVectorList() : nullptr;
    const CVCChannel* vc = obj->GetGlobalVCChannel();
    if (!vc) vc = static_cast<const CVCChannel*>(obj->GetChannelByIndex(0, CHANNEL_VC));
    const CVCFaceList* vcf = vc ? vc->GetVCFaceList() : nullptr;
    const CVCPointList* vcp = vc ? vc->GetVCPointList() : nullptr;

    const int nf = faces->GetNumberOfFaces();
    const int npts = points->GetSize();
    auto writable = [&](int i) {
        if (faces->IsFaceFlagSet(i, FACE_SKIP) || faces->GetFaceSize(i) != 3) return false;
        const uint32_t* f = faces->GetFaceIndices(i);
        for (int k = 0; k < 3; ++k)
            if (f[k] >= static_cast<uint32_t>(npts)) return false;
        return true;
    };
    uint32_t written = 0;
    for (int i = 0; i < nf; ++i)
        if (writable(i)) ++written;
    file.WriteUInt(written);

    const float* pts = points->GetData();
    std::vector<uint8_t> out;
    out.reserve(size_t(1) << 16);
    for (int i = 0; i < nf; ++i) {
        if (!writable(i)) continue;
        const uint32_t* f = faces->GetFaceIndices(i);
        uint8_t rec[kRecord];
        C3DVector n = (fnv && i < fnv->GetSize()) ? fnv->GetPoint(i) : FaceNormal(*points, faces->Face(i));
        PutF32le(rec, n.x);
        PutF32le(rec + 4, n.y);
        PutF32le(rec + 8, n.z);
        for (int k = 0; k < 3; ++k) {
            const float* p = pts + size_t(f[k]) * 3;
            PutF32le(rec + 12 + 12 * k, p[0]);
            PutF32le(rec + 16 + 12 * k, p[1]);
            PutF32le(rec + 20 + 12 * k, p[2]);
        }
        float col[3] = {192.0f, 192.0f, 192.0f};
        bool fromChannel = false;
        if (vcf && vcp && i < vcf->GetNumberOfFaces() && !vcf->IsFaceFlagSet(i, FACE_SKIP) &&
            vcf->GetFaceSize(i) >= 3) {
            const uint32_t* cf = vcf->GetFaceIndices(i);
            if (cf[0] < static_cast<uint32_t>(vcp->GetSize()) && cf[1] < static_cast<uint32_t>(vcp->GetSize()) &&
                cf[2] < static_cast<uint32_t>(vcp->GetSize())) {
                double sum[3] = {0, 0, 0};
                for (int k = 0; k < 3; ++k) {
                    float c4[4];
                    (*vcp)[static_cast<int>(cf[k])].GetColor4f(c4, 255.0f);
                    sum[0] += c4[0]; sum[1] += c4[1]; sum[2] += c4[2];
                }
                for (int k = 0; k < 3; ++k) col[k] = static_cast<float>(sum[k] / 3.0);
                fromChannel = true;
            }
        }
        if (!fromChannel) {
            if (const C3DMaterial* m = scene->GetMaterialByID(faces->GetMaterialID(i))) {
                float c4[4];
                m->diffuse.GetColor4f(c4, 255.0f);
                col[0] = c4[0]; col[1] = c4[1]; col[2] = c4[2];
            }
        }
        PutU16le(rec + 48, PackColor(col[0], col[1], col[2]));
        out.insert(out.end(), rec, rec + kRecord);
        if (out.size() >= (size_t(1) << 16)) {
            file.FileWrite(out.data(), out.size());
            out.clear();
        }
    }
    if (!out.empty()) file.FileWrite(out.data(), out.size());
    if (!file.CloseFile()) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    return true;
}
