// STL reader and writer. Binary files are parsed straight from the mapped bytes;
// ASCII files line by line from the same bytes. The writer emits the first mesh
// as binary with the 15-bit colour word (bit 15 set, red in the low bits).
#include "formats/mesh/CStlIo.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <memory>
#include <mutex>
#include <vector>

#include "formats/mesh/MeshText.h"
#include "plugin/host/BinaryCursor.h"
#include "plugin/host/Cancel.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/LargeArray.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/SwitchLocale.h"
#include "plugin/host/TextHelpers.h"
#include "plugin/host/TextScanner.h"

namespace {

constexpr uint64_t kStlPrepFlags = PREP_SPLIT_LARGE | PREP_DROP_EMPTY | PREP_FACE_NORMALS | PREP_WORLD_SPACE |
                                   PREP_MERGE | PREP_TRIANGULATE | PREP_MATERIALS | PREP_MESHES;
constexpr size_t kHeader = 80;
constexpr size_t kRecord = 50;
constexpr int kMaxWord = 1024;

constexpr size_t kBlock = 1024; // binary records converted per step
// From this many records a binary read is worth a second thread (about 8 MB of arrays).
constexpr size_t kPairFrom = 65536;

inline float LoadF32le(const uint8_t* p) {
    return std::bit_cast<float>(uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24);
}

// Spaces that do not end a line.
inline bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\v' || c == '\f'; }

// Skips spaces and line ends alike, sixteen bytes per step where SSE2 is there:
// indentation and line ends are a third of a typical file.
inline const char* SkipSpaces(const char* p, const char* end) {
#if defined(__SSE2__)
    while (end - p >= 16) {
        const unsigned s = textscan::SpaceMask16(textscan::Load16(p));
        if (s != 0xFFFFu) return p + std::countr_zero(~s);
        p += 16;
    }
#endif
    while (p < end && textscan::IsSpace(*p)) ++p;
    return p;
}

// True when the left-trimmed line at p is "endsolid" (any case) and nothing else.
bool IsEndSolidAt(const char* p, const char* end) {
    static constexpr char kWord[] = "endsolid";
    if (end - p < 8) return false;
    for (int i = 0; i < 8; ++i) // | 0x20 folds exactly the upper-case twin onto each letter
        if ((p[i] | 0x20) != kWord[i]) return false;
    p += 8;
    while (p < end && IsBlank(*p)) ++p;
    return p == end || *p == '\n' || *p == '\r';
}

// "%*s %f %f %f" on the vertex line starting at `line` (left-trimmed), into `xyz`.
// As with scanf, the numbers before the first mismatch are assigned and the rest of
// `xyz` is left as it was; the line is consumed either way. Returns where the line
// ends; `complete` tells whether all three numbers were there.
const char* ScanVertex(const char* line, const char* end, float* xyz, bool& complete) {
    const char* p = line;
    while (p < end && !textscan::IsSpace(*p)) ++p;
    for (int k = 0; k < 3 && p; ++k) {
        while (p < end && (*p == ' ' || *p == '\t')) ++p; // rarer spaces take the scanner
        p = textscan::ParsePlainFloat(p, end, xyz[k]);
    }
    complete = true;
    if (p) return textscan::FindLineBreak(p, end);
    // Not three plain decimals: the general scanner, on this line alone.
    const char* le = textscan::FindLineBreak(line, end);
    textscan::TextCursor s(std::string_view(line, static_cast<size_t>(le - line)));
    s.SkipWord();
    for (int k = 0; k < 3 && complete; ++k) {
        float v;
        complete = s.ReadFloat(v);
        if (complete) xyz[k] = v;
    }
    return le;
}

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
    return ReadThroughFile(*this, path, options, [this](std::span<const uint8_t> data, CReadContext& ctx) {
        m_file = ctx.File();
        C3DScene* scene = ReadData(data, ctx.Options());
        m_file = nullptr;
        return scene;
    });
}

C3DScene* CStlIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options) {
    return ReadThroughMemory(*this, data, options, [this](std::span<const uint8_t> bytes, CReadContext& ctx) {
        return ReadData(bytes, ctx.Options());
    });
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
    C3DScene* scene = nullptr;
    m_shortVertexLines = 0;
    if (binary) {
        scene = ReadBinary(data);
    } else {
        // Read as text: a UTF-8 byte order mark is passed over and UTF-16 is decoded.
        std::string decoded;
        const std::string_view text = meshio::PrepareText(data, TEXT_MODE_AUTO, decoded);
        scene = ReadAscii(std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(text.data()), text.size()));
        if (scene && m_shortVertexLines)
            options.AddLogInfo(LOG_INFO, CXStringW(std::to_wstring(m_shortVertexLines) +
                                                   L" vertex line(s) with fewer than three numbers; the missing "
                                                   L"coordinates read as 0"));
    }
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
        // The marker counts wherever its colour bytes are still inside the header; the
        // transparency byte behind them may not be, and is then left alone.
        const size_t p = lower.find("color=");
        if (p != std::string::npos && p + 9 < kHeader) {
            C3DMaterial* m = scene->GetMaterialByID(0, true, MATERIAL_STANDARD);
            m->diffuse.SetColor(header[p + 7], header[p + 8], header[p + 9], m->diffuse.a);
            if (m->GetClass() == MATERIAL_STANDARD && p + 10 < kHeader)
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

    // The arrays are built here and handed to the lists whole. They are sized up front,
    // which writes nothing (see ZeroedArray), and every entry that is not zero is written
    // once, in place; the face flags stay zero and their pages are never touched. Most of
    // the read is the kernel handing out the arrays' pages, so two threads share it: one
    // builds the points and the vertex indices, the other the normals, the face offsets, the
    // colours and the materials, and they take turns at the normal indices; each asks for
    // its pages a slice at a time just before writing them (still in cache).
    const size_t count = n > INT32_MAX / 3 ? INT32_MAX / 3 : n;
    const uint8_t* const records = c.current();
    hostmem::ZeroedArray<float> pts, nvec;
    CFaceList::IndexArray offsets, noffsets, coffsets, fidx, nidx, materials, cidx;
    CFaceList::FlagArray cflags, fflags, nflags;
    std::vector<CRGBColor> cpts;
    // Everything is sized here, before the second thread starts: taking address space
    // while the other thread has pages populated would wait for it. The normal list holds
    // three entries per triangle; those behind the first `count` stay zero, in pages nobody
    // touches (a fifth of the read's memory). The colour arrays are used from the first
    // coloured face on, and dropped when there is none.
    auto sized = [](auto& v, size_t size) {
        hostmem::ReserveLarge(v, size);
        v.resize(size);
    };
    sized(pts, count * 9);
    sized(fidx, count * 3);
    sized(nidx, count * 3);
    sized(offsets, count + 1);
    sized(noffsets, count + 1);
    sized(materials, count);
    sized(fflags, count);
    sized(nflags, count);
    sized(nvec, count * 9);
    sized(coffsets, count + 1);
    sized(cidx, count * 3);
    sized(cflags, count);
    hostmem::ReserveLarge(cpts, count);
    std::atomic<bool>* cancel = GetThreadCancelToken(); // ShouldCancelThread, minus the lookup
    std::atomic<bool> stop{false};
    // Both sides read every record: the file's pages are given back behind the slower one.
    std::atomic<size_t> doneA{0}, doneB{0};
    std::mutex releaseLock;
    auto releaseBehind = [&] {
        const std::lock_guard<std::mutex> hold(releaseLock);
        release.At(reinterpret_cast<const char*>(
            records +
            std::min(doneA.load(std::memory_order_relaxed), doneB.load(std::memory_order_relaxed)) * kRecord));
    };
    auto stopNow = [&] {
        if (cancel && cancel->load(std::memory_order_relaxed)) stop.store(true, std::memory_order_relaxed);
        return stop.load(std::memory_order_relaxed);
    };
    auto populate = [](auto& v, size_t from, size_t to) {
        using T = typename std::decay_t<decltype(v)>::value_type;
        to = std::min(to, v.size());
        if (from < to) hostmem::PopulateNow(v.data() + from, (to - from) * sizeof(T));
    };
    constexpr size_t kSlice = 131072; // records whose pages are asked for at once (a few MB a side)
    // Each side walks all records a block at a time, asking for the pages of a slice as it
    // enters it, until the read is cancelled.
    auto eachBlock = [&](auto&& onSlice, auto&& onBlock) {
        for (size_t first = 0; first < count; first += kBlock) {
            if (stopNow()) return;
            if (first % kSlice == 0) onSlice(first);
            onBlock(first, std::min(kBlock, count - first), records + first * kRecord);
        }
    };

    // The normal indices (i, i, i) need no record: each side writes them for every other
    // slice, which evens out the two sides' pages.
    uint32_t* const normalIndexAt = nidx.data();
    auto ownsNormalIndices = [](size_t first, size_t side) { return first / kSlice % 2 == side; };
    auto normalIndices = [&](size_t first, size_t b) {
        for (size_t i = first; i < first + b; ++i)
            normalIndexAt[i * 3] = normalIndexAt[i * 3 + 1] = normalIndexAt[i * 3 + 2] = static_cast<uint32_t>(i);
    };

    auto geometry = [&] {
        float* const pointAt = pts.data();
        uint32_t* const vertexAt = fidx.data();
        eachBlock(
            [&](size_t first) {
                populate(pts, first * 9, (first + kSlice) * 9);
                populate(fidx, first * 3, (first + kSlice) * 3);
                if (ownsNormalIndices(first, 0)) populate(nidx, first * 3, (first + kSlice) * 3);
            },
            [&](size_t first, size_t b, const uint8_t* rec) {
                for (size_t i = first; i < first + b; ++i, rec += kRecord) {
                    for (int q = 0; q < 9; ++q) pointAt[i * 9 + q] = LoadF32le(rec + 12 + 4 * q);
                    const uint32_t base = static_cast<uint32_t>(i) * 3;
                    vertexAt[base] = base;
                    vertexAt[base + 1] = base + 1;
                    vertexAt[base + 2] = base + 2;
                }
                if (ownsNormalIndices(first, 0)) normalIndices(first, b);
                doneA.store(first + b, std::memory_order_relaxed);
                releaseBehind();
            });
    };

    auto normalsAndColours = [&] {
        float* const normalAt = nvec.data();
        uint32_t* const offsetAt = offsets.data();
        uint32_t* const normalOffsetAt = noffsets.data();
        uint32_t k = 0;
        bool coloured = false;
        auto populateColours = [&](size_t from, size_t to) {
            populate(coffsets, from, to + 1);
            populate(cidx, from * 3, to * 3);
            populate(cflags, from, to);
        };
        // Faces before the first coloured one are uncoloured: indices 0 (as sized), flagged.
        auto startColours = [&](size_t face) {
            populateColours(0, (face / kSlice + 1) * kSlice); // up to the slice the others are in
            for (size_t f = 0; f < face; ++f) {
                coffsets[f + 1] = static_cast<uint32_t>(f * 3 + 3);
                cflags[f] = FACE_SKIP;
            }
            coloured = true;
        };
        eachBlock(
            [&](size_t first) {
                populate(nvec, first * 3, (first + kSlice) * 3);
                populate(noffsets, first, first + kSlice + 1);
                populate(offsets, first, first + kSlice + 1);
                if (coloured) populateColours(first, first + kSlice);
                if (ownsNormalIndices(first, 1)) populate(nidx, first * 3, (first + kSlice) * 3);
            },
            [&](size_t first, size_t b, const uint8_t* rec) {
                for (size_t i = first; i < first + b; ++i, rec += kRecord) {
                    for (int q = 0; q < 3; ++q) normalAt[i * 3 + q] = LoadF32le(rec + 4 * q);
                    const uint32_t end = static_cast<uint32_t>(i) * 3 + 3;
                    offsetAt[i + 1] = end;
                    normalOffsetAt[i + 1] = end;
                    const uint16_t attr = static_cast<uint16_t>(rec[48] | (rec[49] << 8));
                    if (attr >= 0x8000 && !coloured) startColours(i);
                    if (!coloured) continue;
                    coffsets[i + 1] = end;
                    if (attr >= 0x8000) {
                        cidx[i * 3] = cidx[i * 3 + 1] = cidx[i * 3 + 2] = k++;
                        cpts.emplace_back(static_cast<uint8_t>(attr * 8), static_cast<uint8_t>((attr >> 5) * 8),
                                          static_cast<uint8_t>((attr >> 7) & 0x1F8));
                    } else {
                        cflags[i] = FACE_SKIP;
                    }
                }
                if (ownsNormalIndices(first, 1)) normalIndices(first, b);
                doneB.store(first + b, std::memory_order_relaxed);
                releaseBehind();
            });
        if (stop.load(std::memory_order_relaxed)) return;
        populate(materials, 0, count);
        std::fill(materials.begin(), materials.end(), NO_MATERIAL);
    };
    hostmem::RunPair(geometry, normalsAndColours, count >= kPairFrom);
    if (stop.load() || ShouldCancelThread(0)) {
        m_scene = nullptr;
        return nullptr;
    }
    obj->GetPointList()->Raw() = std::move(pts);
    normals->GetNormalVectorList()->Raw() = std::move(nvec);
    obj->GetFaceList()->Adopt(std::move(offsets), std::move(fidx), std::move(fflags), std::move(materials));
    normals->GetNormalFaceList()->Adopt(std::move(noffsets), std::move(nidx), std::move(nflags));
    obj->GetFaceList()->FreeExtra();
    normals->GetNormalFaceList()->FreeExtra();
    obj->GetPointList()->FreeExtra();
    normals->GetNormalVectorList()->FreeExtra();
    if (!cpts.empty()) {
        auto* colors = new CVCChannel();
        const int32_t id = obj->AddChannel(colors, -1);
        obj->SetGlobalVCChannel(id);
        colors->SetWeight(1.0f);
        colors->GetVCFaceList()->Adopt(std::move(coffsets), std::move(cidx), std::move(cflags));
        colors->GetVCFaceList()->FreeExtra();
        colors->GetVCPointList()->Raw() = std::move(cpts);
        colors->GetVCPointList()->FreeExtra();
    }
    return scene.release();
}

C3DScene* CStlIo::ReadAscii(std::span<const uint8_t> data) {
    const char* const begin = reinterpret_cast<const char*>(data.data());
    const char* const end = begin + data.size();
    meshio::CPageReleaser release(m_file, std::string_view(begin, data.size()));

    // Lines end at '\n' or '\r', and an empty line holds only spaces, so skipping
    // spaces and line ends together lands on the first byte of the next non-empty
    // line, already left-trimmed: that is all the line walking this format needs.
    const char* p = SkipSpaces(begin, end);
    if (p == end) return nullptr;
    const char* const afterFirst = textscan::FindLineBreak(p, end);

    textscan::TextCursor first(std::string_view(p, static_cast<size_t>(afterFirst - p)));
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
    for (p = afterFirst;;) {
        p = SkipSpaces(p, end);
        if (p == end || IsEndSolidAt(p, end)) break;
        ++counted;
        p = textscan::FindLineBreak(p, end);
        release.At(p);
    }
    const uint64_t facetsCounted = counted / 7;
    if (facetsCounted == 0) return nullptr;
    if (facetsCounted > INT32_MAX / 3) return nullptr;
    const int V = static_cast<int>(facetsCounted * 3);

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
    std::atomic<bool>* cancel = GetThreadCancelToken(); // ShouldCancelThread, minus the lookup
    auto cancelled = [cancel] { return cancel && cancel->load(std::memory_order_relaxed); };
    if (cancelled()) return nullptr;

    float* pts = points->GetData();
    uint32_t* fidx = faces->GetIndexes().data();
    uint32_t* nidx = nfaces->GetIndexes().data();
    int facets = 0, npts = 0;
    bool stop = false;
    // The next non-empty line: its first byte, or null at the end of the data.
    auto next = [&]() -> const char* {
        p = SkipSpaces(p, end);
        if (p == end) return nullptr;
        const char* line = p;
        p = textscan::FindLineBreak(p, end);
        return line;
    };
    p = afterFirst;
    while (facets < V / 3) {
        p = SkipSpaces(p, end);
        if (p == end || IsEndSolidAt(p, end)) break;
        release.At(p);
        if (facets == 0) {
            // Only the first facet line is validated; no facet's normal is kept.
            const char* w = p;
            while (p < end && !textscan::IsSpace(*p) && p - w < kMaxWord) ++p;
            const std::string_view word(w, static_cast<size_t>(p - w));
            if (!EqualsNoCase(word, "facet") && !EqualsNoCase(word, "normal")) break;
        }
        p = textscan::FindLineBreak(p, end);
        if (!next()) break; // outer loop
        for (int v = 0; v < 3 && !stop; ++v) {
            p = SkipSpaces(p, end);
            if (p == end) {
                stop = true;
                break;
            }
            // A vertex line short of numbers keeps zeros where they are missing (the
            // list was sized, zeroed, up front) and the facets after it are still read.
            bool complete;
            p = ScanVertex(p, end, pts + size_t(npts + v) * 3, complete);
            if (!complete) ++m_shortVertexLines;
        }
        if (stop) break;
        uint32_t* f = fidx + size_t(facets) * 3;
        f[0] = static_cast<uint32_t>(npts + 2);
        f[1] = static_cast<uint32_t>(npts + 1);
        f[2] = static_cast<uint32_t>(npts);
        uint32_t* nf = nidx + size_t(facets) * 3;
        nf[0] = nf[1] = nf[2] = static_cast<uint32_t>(facets);
        npts += 3;
        ++facets;
        next(); // end loop
        next(); // end facet
        if (cancelled()) {
            m_scene = nullptr;
            return nullptr;
        }
    }
    if (facets == 0) {
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
    CSwitchLocale locale(LC_NUMERIC, "English");
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
                    sum[0] += c4[0];
                    sum[1] += c4[1];
                    sum[2] += c4[2];
                }
                for (int k = 0; k < 3; ++k) col[k] = static_cast<float>(sum[k] / 3.0);
                fromChannel = true;
            }
        }
        if (!fromChannel) {
            if (const C3DMaterial* m = scene->GetMaterialByID(faces->GetMaterialID(i))) {
                float c4[4];
                m->diffuse.GetColor4f(c4, 255.0f);
                col[0] = c4[0];
                col[1] = c4[1];
                col[2] = c4[2];
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
