// Wavefront OBJ reading. The first pass counts records per kind and faces per
// group (and reads MTL libraries); the second fills flat arrays and builds each
// group's face lists with file indices, which are renumbered per group at the end.
// Indices: i > 0 is i-1, i < 0 counts back from the records read so far, 0 is bad.
#include "formats/mesh/ObjReader.h"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cstring>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "formats/mesh/MeshText.h"
#include "plugin/host/Cancel.h"
#include "plugin/host/FileIo.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/LargeArray.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "plugin/host/TextHelpers.h"
#include "plugin/host/TextScanner.h"

namespace meshio {
namespace {

using textscan::TextCursor;

constexpr size_t kMaxFirstLine = 1024; // a longer line before any "v" is not OBJ
constexpr size_t kMaxWord = 1024;
constexpr int kPollEvery = 50;

struct MtlMap {
    std::string file;
    float offset[3] = {0, 0, 0};
    float scale[3] = {1, 1, 1};
};

struct MtlRecord {
    std::string name;
    float ka[3] = {0.2f, 0.2f, 0.2f};
    float kd[3] = {0.8f, 0.8f, 0.8f};
    float ks[3] = {0, 0, 0};
    float ns = 0;
    float dissolve = 1;
    std::unique_ptr<MtlMap> colorMap, bumpMap, normalMap;
};

// "%d" for face indices. Plain face lines never get here (the quick path takes them),
// so the scanner's exact rules are all this needs.
inline bool ReadIndex(TextCursor& c, int& v) { return c.ReadInt(v); }

// A literal '/' of the face patterns (no space skipping, as in scanf).
inline bool Slash(TextCursor& c) {
    if (c.Peek() != '/') return false;
    c.Advance(1);
    return true;
}

// Up to three floats, scanf style: the fields before the first mismatch are assigned.
int ReadFloats(TextCursor& c, float* out, int n) {
    int got = 0;
    while (got < n && c.ReadFloat(out[got])) ++got;
    return got;
}

// "map_Kd [-o u v w] [-s u v w] file": options first, the rest of the line names the file.
std::unique_ptr<MtlMap> ParseMap(std::string_view rest) {
    auto map = std::make_unique<MtlMap>();
    TextCursor c(rest);
    for (;;) {
        c.SkipSpaces();
        std::string_view r = c.Remaining();
        if (r.size() >= 2 && r[0] == '-' && (r.size() == 2 || textscan::IsSpace(r[2]))) {
            if (r[1] == 'o' || r[1] == 's') {
                c.Advance(2);
                ReadFloats(c, r[1] == 'o' ? map->offset : map->scale, 3);
                continue;
            }
        }
        if (!r.empty() && r[0] == '-' && r.size() > 1 && !(r[1] >= '0' && r[1] <= '9')) {
            // Another option: skip it and its numeric arguments.
            c.SkipWord();
            float dummy;
            while (c.ReadFloat(dummy)) {}
            continue;
        }
        break;
    }
    map->file = std::string(textscan::Trim(c.Remaining()));
    if (map->file.empty()) return nullptr;
    return map;
}

void ParseMtl(std::string_view text, std::vector<MtlRecord>& out) {
    textscan::LineSplitter lines(text);
    std::string_view line;
    MtlRecord* cur = nullptr;
    while (lines.Next(line)) {
        line = textscan::TrimLeft(line);
        if (line.empty() || line[0] == '#') continue;
        TextCursor c(line);
        std::string_view key;
        if (!c.ReadWord(key, kMaxWord)) continue;
        if (StartsWithNoCase(key, "newmtl") && key.size() == 6) {
            out.emplace_back();
            cur = &out.back();
            cur->name = std::string(textscan::Trim(c.Remaining()));
            continue;
        }
        if (!cur) continue;
        auto is = [&](std::string_view k) { return key.size() == k.size() && StartsWithNoCase(key, k); };
        if (is("Ka")) ReadFloats(c, cur->ka, 3);
        else if (is("Kd")) ReadFloats(c, cur->kd, 3);
        else if (is("Ks")) ReadFloats(c, cur->ks, 3);
        else if (is("Ns")) ReadFloats(c, &cur->ns, 1);
        else if (is("d") || is("Tr")) ReadFloats(c, &cur->dissolve, 1);
        else if (is("map_Kd")) cur->colorMap = ParseMap(c.Remaining());
        else if (is("map_bump") || is("bump")) cur->bumpMap = ParseMap(c.Remaining());
        else if (is("map_norm")) cur->normalMap = ParseMap(c.Remaining());
    }
}

// Characters of a line as the text mode decodes it: bytes in Latin-1 (ANSI, or AUTO when
// the text is not UTF-8), else one per UTF-8 sequence and one per byte that starts none.
size_t LineChars(std::string_view s, bool latin1) {
    if (latin1) return s.size();
    size_t chars = 0, i = 0;
    while (i < s.size()) {
        const uint8_t c = static_cast<uint8_t>(s[i]);
        size_t n = c < 0x80                   ? 0
                   : (c >= 0xC2 && c <= 0xDF) ? 1
                   : (c >= 0xE0 && c <= 0xEF) ? 2
                   : (c >= 0xF0 && c <= 0xF4) ? 3
                                              : 0;
        bool whole = i + n < s.size();
        for (size_t k = 1; whole && k <= n; ++k) whole = (static_cast<uint8_t>(s[i + k]) & 0xC0) == 0x80;
        i += whole ? n + 1 : 1;
        ++chars;
    }
    return chars;
}

CXStringW NameFromBytes(std::string_view bytes, int textMode) {
    if (textMode == TEXT_MODE_AUTO)
        return IsValidUtf8(bytes) ? CXStringW(Utf8ToWide(bytes)) : CXStringW(WidenBytes(bytes));
    return DecodeName(bytes, textMode);
}

// An array filled front to back into room made ahead: `v` is sized to what the first
// pass counted, and `n` says how much of it holds data. A face writes its indices with no
// capacity check each, and a face given up part way is dropped by not counting it.
template <class T> struct Filling {
    hostmem::ZeroedArray<T> v; // sizing it writes nothing: each entry is written once, by the fill
    size_t n = 0;
    void SizeFor(size_t count) {
        hostmem::ReserveFilled(v, count);
        if (v.size() < count) v.resize(count);
    }
    // Room for k more; only a file whose passes disagree makes it grow here.
    T* Room(size_t k) {
        if (v.size() - n < k) v.resize(n + k);
        return v.data() + n;
    }
    void Push(T x) {
        *Room(1) = x;
        ++n;
    }
    void Trim() { v.resize(n); }
};

// A group's faces as flat arrays, filled in file order and handed to the face lists
// whole. The UV and normal lists share the mesh's offsets; a face without usable data
// there is flagged and its indices are zero.
struct Group {
    std::string_view name; // in the text being read (or a literal)
    uint64_t countedFaces = 0;
    uint64_t countedIndices = 0;
    uint64_t nodeId = 0;
    bool hasNodeId = false;
    Filling<uint32_t> offsets, pos, materials;
    Filling<uint32_t> uv, nrm;
    Filling<uint8_t> uvFlags, nFlags;
    bool hasUv = false, hasN = false;
    // Every face so far gave its UV and normal the position's index: the three index
    // streams are one and the same.
    bool oneStream = true;
    size_t Faces() const { return offsets.n == 0 ? 0 : offsets.n - 1; }
};

// Every group named in the file, in order of first mention: its name and the index of
// its Group, which only a group that has faces gets (files name millions of empty ones).
struct GroupName {
    std::string_view name;
    int32_t body = -1;
};

// Group names to their index in the list of names: open addressing, four bytes a slot.
// The slot comes from the high bits of the name's hash times a multiplier chosen per
// read, so names made to share the low bits of the hash do not share a slot chain.
class CGroupIndex {
public:
    CGroupIndex()
        : m_mix((static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count()) ^
                 reinterpret_cast<uintptr_t>(this)) *
                    0x9E3779B97F4A7C15ull |
                1) {}

    // The index stored for `name`, or `fresh` after storing it there.
    uint32_t FindOrAdd(std::string_view name, uint32_t fresh, const std::vector<GroupName>& names) {
        if ((m_used + 1) * 2 > m_slots.size()) Grow(names);
        const size_t mask = m_slots.size() - 1;
        for (size_t i = Slot(name);; i = (i + 1) & mask) {
            const uint32_t s = m_slots[i];
            if (s == 0) {
                m_slots[i] = fresh + 1;
                ++m_used;
                return fresh;
            }
            if (names[s - 1].name == name) return s - 1;
        }
    }

private:
    void Grow(const std::vector<GroupName>& names) {
        std::vector<uint32_t> old = std::move(m_slots);
        m_slots.assign(old.empty() ? 64 : old.size() * 2, 0);
        m_shift = 64 - std::countr_zero(m_slots.size());
        const size_t mask = m_slots.size() - 1;
        for (uint32_t s : old) {
            if (s == 0) continue;
            size_t i = Slot(names[s - 1].name);
            while (m_slots[i] != 0) i = (i + 1) & mask;
            m_slots[i] = s;
        }
    }
    size_t Slot(std::string_view name) const {
        return static_cast<size_t>((std::hash<std::string_view>()(name) * m_mix) >> m_shift);
    }
    std::vector<uint32_t> m_slots; // 0 empty, else the name's index + 1
    size_t m_used = 0;
    uint64_t m_mix;
    int m_shift = 64;
};

// One face line as read: the form of its vertices and their raw (unresolved) numbers.
enum class FaceForm { kNone, kPos, kPosUv, kPosUvN, kPosN };
struct RawVertex {
    int p, t, n; // as written: 1-based, negative relative, 0 bad
};
// Faces with more vertices than this take the general path (same result, slower).
constexpr size_t kQuickFaceMax = 64;

class CObjParser {
public:
    CObjParser(std::string_view text, int textMode, const MtlLoader& loader, CFileIo& io, CSceneImportOptions& options,
               const IoFile* file)
        : m_text(text), m_end(text.data() + text.size()), m_mode(textMode), m_loader(loader), m_io(io),
          m_options(options), m_release(file, text) {}

    ObjReadResult Run();

private:
    bool CountPass();
    // The limit on lines before the first vertex counts characters, not bytes.
    bool TooLongBeforeVertices(std::string_view line) {
        if (line.size() <= kMaxFirstLine) return false;
        if (m_mode == TEXT_MODE_AUTO && m_textIsUtf8 < 0) m_textIsUtf8 = IsValidUtf8(m_text) ? 1 : 0;
        return LineChars(line, m_mode == TEXT_MODE_ANSI || m_textIsUtf8 == 0) > kMaxFirstLine;
    }
    bool FillPass();
    int GroupFor(std::string_view name);
    // The current group's Group, made when it is first needed.
    Group& Current();
    void ReadMtl(std::string_view name);
    void CreateMaterials();
    template <int N> bool ReadFloatsFast(const char* p, float* out, const char*& lineEnd) const;
    const char* QuickVertex(const char* p, RawVertex& v, FaceForm& form, bool& same) const;
    bool ReadFaceFast(const char* p, const char*& lineEnd);
    void ReadFaceSlow(std::string_view rest);
    void EmitFace(FaceForm form);
    void OtherRecord(std::string_view line);
    bool BuildScene();
    void Warn();
    // Every kPollEvery lines: page release, progress, cancellation. The countdown is
    // inline; the work behind it is not.
    bool Poll(const char* at, bool second) { return --m_pollIn == 0 && PollNow(at, second); }
    bool PollNow(const char* at, bool second);
    template <bool kUv, bool kN, bool kSame = false> bool EmitQuick(const RawVertex* raw, size_t cnt);

    std::string_view m_text;
    const char* m_end = nullptr;
    int m_mode;
    const MtlLoader& m_loader;
    CFileIo& m_io;
    CSceneImportOptions& m_options;

    std::vector<GroupName> m_names;
    CGroupIndex m_groupIndex;
    std::vector<Group> m_groups; // only groups with faces
    int m_current = 0;           // in m_names
    std::vector<MtlRecord> m_mtl;
    std::unordered_set<std::string> m_mtlNames; // "mtllib" names met, as written
    std::unordered_set<std::string> m_mtlKeys;  // the files they led to (each is read once)
    std::unordered_map<std::string, uint32_t> m_materialByName;
    uint32_t m_material = NO_MATERIAL;
    uint64_t m_pendingNodeId = 0;
    bool m_hasPendingNodeId = false;

    uint64_t m_nv = 0, m_nt = 0, m_nn = 0, m_nf = 0;
    uint64_t m_nAll = 0; // the least of m_nv, m_nt and m_nn: "a/a/a" indices below it are in range
    hostmem::ZeroedArray<float> m_v, m_t, m_n; // zero where a line gives fewer numbers
    uint64_t m_readV = 0, m_readT = 0, m_readN = 0;
    bool m_cancelled = false;
    bool m_warned = false;
    int m_textIsUtf8 = -1; // AUTO mode: whether the whole text is UTF-8, once it matters
    int m_pollIn = kPollEvery;

    std::vector<RawVertex> m_raw; // the current face line's vertices
    std::unique_ptr<C3DScene> m_scene;
    CPageReleaser m_release;
};

bool CObjParser::PollNow(const char* at, bool second) {
    m_pollIn = kPollEvery;
    m_release.At(at);
    const int64_t total = static_cast<int64_t>(m_text.size()) * 2;
    const int64_t pos = static_cast<int64_t>(at - m_text.data());
    ReportThreadProgress(pos + (second ? static_cast<int64_t>(m_text.size()) : 0), total);
    if (ShouldCancelThread(0)) {
        m_cancelled = true;
        return true;
    }
    return false;
}

int CObjParser::GroupFor(std::string_view name) {
    const uint32_t fresh = static_cast<uint32_t>(m_names.size());
    const uint32_t idx = m_groupIndex.FindOrAdd(name, fresh, m_names);
    if (idx == fresh) m_names.push_back({name, -1});
    return static_cast<int>(idx);
}

Group& CObjParser::Current() {
    GroupName& n = m_names[static_cast<size_t>(m_current)];
    if (n.body < 0) {
        n.body = static_cast<int32_t>(m_groups.size());
        m_groups.emplace_back();
        m_groups.back().name = n.name;
    }
    return m_groups[static_cast<size_t>(n.body)];
}

void CObjParser::ReadMtl(std::string_view name) {
    if (!m_mtlNames.emplace(name).second) return;
    // Each file once, however it is spelt: another name for a file already read adds
    // nothing, its materials are there.
    std::string key, bytes;
    const bool found = m_loader && m_loader(name, key, nullptr);
    if (found && !m_mtlKeys.insert(key).second) return;
    if (!found || !m_loader(name, key, &bytes)) {
        m_options.AddLogInfo(LOG_INFO, CXStringW(L"Material library not found: ") + NameFromBytes(name, m_mode));
        return;
    }
    std::string storage;
    std::string_view text = PrepareText(
        std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), m_mode, storage);
    ParseMtl(text, m_mtl);
}

inline bool IsBreak(char c) { return c == '\n' || c == '\r'; }
inline bool IsBlank(char c) { return c == ' ' || c == '\t'; }
// IsBlank or IsBreak as one test: where a face vertex ends, the line ends one time in
// three or four, which a pair of branches would mispredict.
inline bool IsBlankOrBreak(char c) {
    const unsigned u = static_cast<unsigned char>(c);
    return (u <= 32u) & static_cast<bool>((0x100002600ull >> (u & 63u)) & 1u);
}

// Lines end at LF or CR; a CRLF pair leaves an empty line behind, and empty lines are
// skipped, so every line-end convention gives the same records. Once a vertex has been
// seen (the first-line limit no longer applies), the lines are counted in bulk and only
// "g", "o" and "m" lines come back here one by one.
bool CObjParser::CountPass() {
    m_current = GroupFor("default");
    const char* p = m_text.data();
    while (p < m_end) {
        if (m_nv != 0) {
            ObjLineCounts c;
            p = CountObjLines(
                p, m_end, c,
                [](void* self, const char* at) { return static_cast<CObjParser*>(self)->PollNow(at, false); }, this);
            m_nv += c.v;
            m_nt += c.vt;
            m_nn += c.vn;
            m_nf += c.faces;
            if (c.faces) {
                Group& g = Current();
                g.countedFaces += c.faces;
                g.countedIndices += c.faceTokens;
            }
            if (m_cancelled) return false;
            if (p >= m_end) break;
        }
        if (IsBreak(*p)) {
            ++p;
            continue;
        }
        const char* const ls = p;
        const char c0 = AsciiLower(*p);
        if (c0 == 'f') {
            // Vertex tokens, to reserve the index arrays exactly.
            const char* q;
            const uint64_t tokens = textscan::CountTokensToLineBreak(p + 1, m_end, q);
            if (m_nv == 0 && TooLongBeforeVertices(std::string_view(ls, static_cast<size_t>(q - ls)))) return false;
            ++m_nf;
            Group& g = Current();
            ++g.countedFaces;
            g.countedIndices += tokens;
            p = q;
        } else {
            p = textscan::FindLineBreak(p, m_end);
            const std::string_view line(ls, static_cast<size_t>(p - ls));
            if (m_nv == 0 && TooLongBeforeVertices(line)) return false;
            switch (c0) {
            case 'v':
                if (line.size() >= 2) {
                    const char c2 = AsciiLower(line[1]);
                    if (c2 == ' ' || c2 == '\t') ++m_nv;
                    else if (c2 == 'n') ++m_nn;
                    else if (c2 == 't') ++m_nt;
                }
                break;
            case 'g': m_current = GroupFor(textscan::Trim(line.substr(1))); break;
            case 'o': {
                TextCursor c(line.substr(1));
                std::string_view w;
                if (!c.ReadWord(w, kMaxWord)) w = {};
                m_current = GroupFor(w);
                break;
            }
            case 'm':
                if (line.size() >= 6 && line.substr(0, 6) == "mtllib") {
                    std::string_view name = textscan::Trim(line.substr(6));
                    if (!name.empty()) ReadMtl(name);
                }
                break;
            default: break;
            }
        }
        if (Poll(p, false)) return false;
    }
    return m_nv != 0 && m_nf != 0;
}

} // namespace

// What the byte after a "v" makes of the line: 1 a position, 2 a normal, 3 a UV, 0 none.
constexpr std::array<uint8_t, 256> kVertexKind = [] {
    std::array<uint8_t, 256> t{};
    t[' '] = t['\t'] = 1;
    t['n'] = t['N'] = 2;
    t['t'] = t['T'] = 3;
    return t;
}();

// 64 bytes per step: line starts and token starts come out of two bit masks, so a line
// costs a few instructions rather than a scan of its own. K gives the masks and counts
// their bits; the body is inlined into each caller so that it takes the caller's target.
template <class K> [[gnu::always_inline]] inline const char*
CountLinesWith(const char* p, const char* end, ObjLineCounts& c, ObjCountPoll poll, void* ctx) {
    constexpr int kPollBlocks = 32;
    uint64_t prevBreak = 1, prevSpace = 1; // p starts a line or is on a break
    uint64_t inFace = 0;                   // 1: the block starts inside an "f" line
    uint64_t kinds[4] = {};                // lines by kVertexKind
    int pollIn = kPollBlocks;
    char pad[65]; // a block and the byte after it
    const char* stop = nullptr;
    while (p < end) {
        const size_t avail = static_cast<size_t>(end - p);
        const char* blk = p;
        if (avail <= 64) { // the tail, padded with line ends
            std::memcpy(pad, p, avail);
            std::memset(pad + avail, '\n', sizeof pad - avail);
            blk = pad;
        }
        uint64_t brk, spc;
        K::Classify(blk, brk, spc);
        const uint64_t starts = ~brk & ((brk << 1) | prevBreak);
        uint64_t fStarts = 0;
        for (uint64_t m = starts; m; m &= m - 1) {
            const unsigned i = static_cast<unsigned>(std::countr_zero(m));
            const char c0 = static_cast<char>(blk[i] | 0x20); // lower case for letters
            if (c0 == 'v') {
                ++kinds[kVertexKind[static_cast<unsigned char>(blk[i + 1])]];
            } else if (c0 == 'f') {
                fStarts |= uint64_t(1) << i;
            } else if (c0 == 'g' || c0 == 'o' || c0 == 'm') {
                stop = p + i; // the lines after it are not looked at
                break;
            }
        }
        c.faces += K::Pop(fStarts);
        // Bits of "f" lines after their "f", up to the line end (so none past a stop):
        // taking a bit below a break from the break mask sets every bit between the two.
        const uint64_t from = (fStarts << 1) | inFace;
        const uint64_t region = ((brk - from) ^ brk) & ~brk;
        // A token starts at a non-space after a space; the "f" itself counts as a space.
        const uint64_t tokens = ~spc & (((spc | fStarts) << 1) | prevSpace);
        c.faceTokens += K::Pop(tokens & region);
        if (stop) break;
        prevBreak = brk >> 63;
        prevSpace = ((spc | fStarts) >> 63) & 1;
        inFace = ((region | fStarts) >> 63) & 1;
        p += avail < 64 ? avail : 64;
        if (--pollIn == 0) {
            pollIn = kPollBlocks;
            if (poll && poll(ctx, p)) {
                stop = end;
                break;
            }
        }
    }
    c.v += kinds[1];
    c.vn += kinds[2];
    c.vt += kinds[3];
    return stop ? stop : end;
}

namespace {
struct PortableCount {
    static void Classify(const char* p, uint64_t& b, uint64_t& s) { textscan::ClassifyBlock64(p, b, s); }
    static unsigned Pop(uint64_t x) { return textscan::PopCount64(x); }
};
#if defined(TEXTSCAN_HAVE_AVX2_PATH)
// Not always_inline: they inline once the body sits in CountAvx2, whose target covers theirs.
struct Avx2Count {
    [[gnu::target("avx2")]] static void Classify(const char* p, uint64_t& b, uint64_t& s) {
        textscan::ClassifyBlock64Avx2(p, b, s);
    }
    [[gnu::target("popcnt")]] static unsigned Pop(uint64_t x) { return textscan::PopCount64Hw(x); }
};
[[gnu::target("avx2,popcnt,bmi")]] const char* CountAvx2(const char* p, const char* end, ObjLineCounts& c,
                                                         ObjCountPoll poll, void* ctx) {
    return CountLinesWith<Avx2Count>(p, end, c, poll, ctx);
}
#endif
} // namespace

const char* CountObjLines(const char* p, const char* end, ObjLineCounts& c, ObjCountPoll poll, void* ctx,
                          bool portable) {
#if defined(TEXTSCAN_HAVE_AVX2_PATH)
    if (!portable && textscan::HaveAvx2()) return CountAvx2(p, end, c, poll, ctx);
#else
    (void)portable;
#endif
    return CountLinesWith<PortableCount>(p, end, c, poll, ctx);
}

namespace {

void CObjParser::CreateMaterials() {
    for (auto& r : m_mtl) {
        auto* m = static_cast<C3DStandardMaterial*>(m_scene->CreateNewMaterial(MATERIAL_STANDARD));
        m->SetName(NameFromBytes(r.name, m_mode));
        m->ambient.SetColor4f(r.ka[0], r.ka[1], r.ka[2]);
        m->diffuse.SetColor4f(r.kd[0], r.kd[1], r.kd[2]);
        m->specular.SetColor4f(r.ks[0], r.ks[1], r.ks[2]);
        m->specularFactor = static_cast<float>(r.ns / 1000.0);
        m->transparency = 1.0f - r.dissolve;
        auto addMap = [&](const std::unique_ptr<MtlMap>& src, uint32_t type) {
            if (!src) return;
            const CXStringW file = NameFromBytes(src->file, m_mode);
            // Maps use the object's first UV channel, which the reader always adds first (ID 0).
            CMaterialMap* map = m->AddMaterialMap(file, 0, type, PROJ_UV);
            map->SetScale(src->scale[0], src->scale[1]);
            map->SetTranslation(src->offset[0], src->offset[1]);
            m_scene->AddRequiredFile(file);
        };
        addMap(r.colorMap, MAP_DIFFUSE);
        addMap(r.bumpMap, MAP_BUMP);
        addMap(r.normalMap, MAP_NORMAL);
        m_materialByName.emplace(r.name, m->GetID());
    }
}

void CObjParser::Warn() {
    if (m_warned) return;
    m_warned = true;
    m_io.SetIoError(CXStringW(L"A face refers to a vertex that does not exist; the index was left out."), &m_options,
                    LOG_INFO);
}

// One index of a face as a 0-based file index: true when it is in range (`out` is
// anything otherwise). Selects rather than branches, for the quick path's sake.
inline bool ResolveInto(int i, uint64_t readSoFar, uint64_t total, uint32_t& out) {
    uint64_t r = readSoFar + static_cast<uint64_t>(static_cast<int64_t>(i)); // i < 0 counts back
    r = i == 0 ? ~uint64_t(0) : r;
    r = i > 0 ? static_cast<uint64_t>(i) - 1 : r;
    out = static_cast<uint32_t>(r);
    return r < total;
}

// The same as a file index, or -1 when out of range.
inline int64_t Resolve(int i, uint64_t readSoFar, uint64_t total) {
    uint32_t r;
    return ResolveInto(i, readSoFar, total, r) ? int64_t(r) : -1;
}

// Up to N floats of a vertex line in the common plain form, straight from the text.
// False sends the line to the general scanner (which gives the same values for what it
// shares with this path). On success `lineEnd` is the end of the line.
template <int N>
[[gnu::always_inline]] inline bool CObjParser::ReadFloatsFast(const char* p, float* out, const char*& lineEnd) const {
    // Unrolled, each number's branches get their own history (one coordinate's sign or
    // digit count follows a pattern that the three together do not).
#pragma GCC unroll 3
    for (int k = 0; k < N; ++k) {
        while (p < m_end && IsBlank(*p)) ++p;
        if (p >= m_end || IsBreak(*p)) {
            lineEnd = p; // fewer numbers: the rest keep their zeros, as with scanf
            return true;
        }
        p = textscan::ParsePlainFloat(p, m_end, out[k]);
        if (!p) return false;
    }
    while (p < m_end && IsBlank(*p)) ++p;
    lineEnd = (p >= m_end || IsBreak(*p)) ? p : textscan::FindLineBreak(p, m_end);
    return true;
}

// Whether the n digits (1-7) just before p, with the "/" at p, come twice more as
// "/<digits>/<digits>": the form of exporters that give positions, UVs and normals one
// shared index. A longer third number is left to the caller's check of the byte after
// it. Reads at most 24 bytes from p - n.
[[gnu::always_inline]] inline bool SameDigitsTwiceMore(const char* p, unsigned n) {
    uint64_t a, b, c;
    std::memcpy(&a, p - n, 8); // the digits and the "/"
    std::memcpy(&b, p + 1, 8);
    const uint64_t digitsAndSlash = ~uint64_t(0) >> (56 - 8 * n);
    if ((a ^ b) & digitsAndSlash) return false; // files with separate indices leave here
    std::memcpy(&c, p + n + 2, 8);
    return ((a ^ c) & (digitsAndSlash >> 8)) == 0;
}

// QuickVertex far from the end of the text (no end checks) for indices of 1-7 digits
// without a sign; nullptr for anything else, which the general path then decides on.
// `same` tells an "a/a/a" vertex.
[[gnu::always_inline]] inline const char* FarVertex(const char* p, RawVertex& v, FaceForm& form, bool& same) {
    unsigned n;
    auto index = [&](int& out) {
        out = static_cast<int>(textscan::DigitRun8(p, n));
        p += n;
        return n - 1u < 7u;
    };
    int a, b = 0, c = 0;
    if (!index(a)) return nullptr;
    form = FaceForm::kPos;
    same = false;
    if (*p == '/') {
        if (p[1] == '/') {
            p += 2;
            if (!index(c)) return nullptr;
            form = FaceForm::kPosN;
        } else if (SameDigitsTwiceMore(p, n)) { // "a/a/a": compared, not read again
            b = c = a;
            p += 2 * n + 2;
            form = FaceForm::kPosUvN;
            same = true;
        } else {
            ++p;
            if (!index(b)) return nullptr;
            form = FaceForm::kPosUv;
            if (*p == '/') {
                ++p;
                if (!index(c)) return nullptr;
                form = FaceForm::kPosUvN;
            }
        }
    }
    if (!IsBlankOrBreak(*p)) return nullptr;
    v = {a, b, c};
    return p;
}

// One face vertex in a plain form ("1", "1/2", "1/2/3" or "1//3") and its form, or nullptr.
// `same` is set for an "a/a/a" vertex with an unsigned a (and may be left clear for one).
[[gnu::always_inline]] inline const char* CObjParser::QuickVertex(const char* p, RawVertex& v, FaceForm& form,
                                                                  bool& same) const {
    // That path reads at most 24 bytes from p, in little-endian words.
    if (std::endian::native == std::endian::little && m_end - p >= 64) {
        if (const char* e = FarVertex(p, v, form, same)) return e;
    }
    same = false;
    int a = 0, b = 0, c = 0;
    p = textscan::ParsePlainInt(p, m_end, a);
    if (!p) return nullptr;
    form = FaceForm::kPos;
    if (p < m_end && *p == '/') {
        ++p;
        if (p < m_end && *p == '/') {
            p = textscan::ParsePlainInt(p + 1, m_end, c);
            form = FaceForm::kPosN;
        } else {
            p = textscan::ParsePlainInt(p, m_end, b);
            form = FaceForm::kPosUv;
            if (p && p < m_end && *p == '/') {
                p = textscan::ParsePlainInt(p + 1, m_end, c);
                form = FaceForm::kPosUvN;
            }
        }
        if (!p) return nullptr;
    }
    if (p < m_end && !IsBlank(*p) && !IsBreak(*p)) return nullptr;
    v = {a, b, c};
    return p;
}

// A face line whose vertices all have the first vertex's plain form and nothing else.
// Anything unusual returns false before a face is emitted, and the general path reads
// the line instead. A line read to its end this way holds no "//" outside the "1//3"
// form, so the form chosen here is the one the general rule (any "//" in the line means
// position//normal pairs) gives.
bool CObjParser::ReadFaceFast(const char* p, const char*& lineEnd) {
    RawVertex raw[kQuickFaceMax];
    size_t cnt = 0;
    FaceForm form = FaceForm::kNone;
    bool allSame = false; // every vertex "a/a/a"
    while (p < m_end && IsBlank(*p)) ++p;
    if (p < m_end && !IsBreak(*p)) {
        // The first vertex sets the form; the others must have it.
        p = QuickVertex(p, raw[0], form, allSame);
        if (!p) return false;
        cnt = 1;
        for (;;) {
            while (p < m_end && IsBlank(*p)) ++p;
            if (p >= m_end || IsBreak(*p)) break;
            if (cnt == kQuickFaceMax) return false;
            FaceForm f;
            bool same;
            p = QuickVertex(p, raw[cnt], f, same);
            if (!p || f != form) return false;
            allSame &= same;
            ++cnt;
        }
    }
    lineEnd = p;
    bool done = false;
    switch (form) {
    case FaceForm::kPos: done = EmitQuick<false, false>(raw, cnt); break;
    case FaceForm::kPosUv: done = EmitQuick<true, false>(raw, cnt); break;
    case FaceForm::kPosUvN:
        done = allSame ? EmitQuick<true, true, true>(raw, cnt) : EmitQuick<true, true>(raw, cnt);
        break;
    case FaceForm::kPosN: done = EmitQuick<false, true>(raw, cnt); break;
    default: break;
    }
    if (!done) {
        m_raw.assign(raw, raw + cnt);
        EmitFace(form);
    }
    return true;
}

// The usual face: every index in range, and the group's UV and normal channels already
// in the state this face keeps them in (both present or both absent). Anything else is
// left to EmitFace, which handles the group's first face, bad indices and channels that
// start or stop part way. `kSame`: every vertex is "a/a/a" with an unsigned a, so its
// three indices resolve alike (a - 1, in range when below all three counts).
template <bool kUv, bool kN, bool kSame> bool CObjParser::EmitQuick(const RawVertex* raw, size_t cnt) {
    Group& g = Current();
    if (cnt == 0 || g.offsets.n == 0 || g.hasUv != kUv || g.hasN != kN || g.pos.n + cnt >= UINT32_MAX) return false;
    // One loop for all channels (its exit is the one unpredictable branch per face). The
    // indices go into the room past the filled part and count only when all are good.
    uint32_t* const pos = g.pos.Room(cnt);
    uint32_t* const uv = kUv ? g.uv.Room(cnt) : nullptr;
    uint32_t* const nrm = kN ? g.nrm.Room(cnt) : nullptr;
    bool ok = true;
    if constexpr (kSame) {
        static_assert(kUv && kN);
        for (size_t i = 0; i < cnt; ++i) {
            const uint64_t r = static_cast<uint64_t>(raw[i].p) - 1; // 0 wraps round: out of range
            pos[i] = uv[i] = nrm[i] = static_cast<uint32_t>(r);
            ok &= r < m_nAll;
        }
    } else {
        for (size_t i = 0; i < cnt; ++i) {
            ok &= ResolveInto(raw[i].p, m_readV, m_nv, pos[i]);
            if constexpr (kUv) ok &= ResolveInto(raw[i].t, m_readT, m_nt, uv[i]);
            if constexpr (kN) ok &= ResolveInto(raw[i].n, m_readN, m_nn, nrm[i]);
        }
    }
    if (!ok) return false;
    if constexpr (!kSame) g.oneStream = false;
    g.pos.n += cnt;
    if constexpr (kUv) g.uv.n += cnt;
    if constexpr (kN) g.nrm.n += cnt;
    g.offsets.Push(static_cast<uint32_t>(g.pos.n));
    g.materials.Push(m_material);
    if constexpr (kUv) g.uvFlags.Push(0);
    if constexpr (kN) g.nFlags.Push(0);
    return true;
}

// The general face rules, on one line's text after the "f".
void CObjParser::ReadFaceSlow(std::string_view rest) {
    FaceForm form = FaceForm::kNone;
    if (rest.find("//") != std::string_view::npos) {
        form = FaceForm::kPosN;
    } else {
        TextCursor t(rest);
        int a;
        if (ReadIndex(t, a)) {
            form = FaceForm::kPos;
            if (Slash(t) && ReadIndex(t, a)) {
                form = FaceForm::kPosUv;
                if (Slash(t) && ReadIndex(t, a)) form = FaceForm::kPosUvN;
            }
        }
    }
    m_raw.clear();
    if (form == FaceForm::kNone) return;
    TextCursor c(rest);
    for (;;) {
        int p = 0, t = 0, n = 0;
        bool ok;
        switch (form) {
        case FaceForm::kPos: ok = ReadIndex(c, p); break;
        case FaceForm::kPosUv: ok = ReadIndex(c, p) && Slash(c) && ReadIndex(c, t); break;
        case FaceForm::kPosUvN:
            ok = ReadIndex(c, p) && Slash(c) && ReadIndex(c, t) && Slash(c) && ReadIndex(c, n);
            break;
        default: ok = ReadIndex(c, p) && Slash(c) && Slash(c) && ReadIndex(c, n); break;
        }
        if (!ok) break;
        m_raw.push_back({p, t, n});
    }
    EmitFace(form);
}

// Resolves the raw numbers and appends the face to the current group. A bad position
// drops that vertex; a bad UV or normal makes the face's UV or normal face unusable.
void CObjParser::EmitFace(FaceForm form) {
    if (form == FaceForm::kNone || m_raw.empty()) return;
    const bool wantUv = form == FaceForm::kPosUv || form == FaceForm::kPosUvN;
    const bool wantN = form == FaceForm::kPosUvN || form == FaceForm::kPosN;
    Group& g = Current();
    const size_t cnt = m_raw.size();
    // Offsets are 32-bit: a group never grows past that (only a file of many GB could try).
    if (g.pos.n + cnt >= UINT32_MAX) return;
    if (g.offsets.n == 0) {
        g.offsets.SizeFor(static_cast<size_t>(g.countedFaces) + 1);
        g.materials.SizeFor(static_cast<size_t>(g.countedFaces));
        g.pos.SizeFor(static_cast<size_t>(g.countedIndices));
        g.offsets.Push(0);
    }
    const size_t before = g.pos.n;
    bool uvOk = wantUv, nOk = wantN;
    bool oneIndex = wantUv && wantN; // each vertex's three indices resolve alike
    size_t kept = 0;
    for (RawVertex& r : m_raw) {
        const int64_t pi = Resolve(r.p, m_readV, m_nv);
        if (pi < 0) {
            Warn();
            r.p = 0; // dropped, from every stream alike (0 is never a valid raw index)
            continue;
        }
        g.pos.Push(static_cast<uint32_t>(pi));
        ++kept;
        if (wantUv) {
            const int64_t ti = Resolve(r.t, m_readT, m_nt);
            if (ti < 0) {
                uvOk = false;
                Warn();
            }
            r.t = static_cast<int>(ti < 0 ? 0 : ti);
            oneIndex &= ti == pi;
        }
        if (wantN) {
            const int64_t ni = Resolve(r.n, m_readN, m_nn);
            if (ni < 0) {
                nOk = false;
                Warn();
            }
            r.n = static_cast<int>(ni < 0 ? 0 : ni);
            oneIndex &= ni == pi;
        }
    }
    if (kept == 0) return;
    g.oneStream &= oneIndex;
    const size_t facesBefore = g.Faces();
    g.offsets.Push(static_cast<uint32_t>(g.pos.n));
    g.materials.Push(m_material);

    // Channel faces stay parallel to the mesh faces: a channel starts at its group's first
    // face with data, and the faces before it are filled in as unusable.
    auto channel = [&](bool ok, bool& has, Filling<uint32_t>& idx, Filling<uint8_t>& flags, int RawVertex::*field) {
        if (!has) {
            if (!ok) return;
            has = true;
            idx.SizeFor(static_cast<size_t>(g.countedIndices));
            flags.SizeFor(static_cast<size_t>(g.countedFaces));
            idx.Room(before); // never written so far: its first `before` entries are the zeros wanted
            idx.n = before;
            std::fill_n(flags.Room(facesBefore), facesBefore, static_cast<uint8_t>(FACE_SKIP));
            flags.n = facesBefore;
        }
        flags.Push(static_cast<uint8_t>(ok ? 0u : static_cast<uint32_t>(FACE_SKIP)));
        for (const RawVertex& r : m_raw)
            if (r.p != 0) idx.Push(ok ? static_cast<uint32_t>(r.*field) : 0u);
    };
    channel(uvOk, g.hasUv, g.uv, g.uvFlags, &RawVertex::t);
    channel(nOk, g.hasN, g.nrm, g.nFlags, &RawVertex::n);
}

// "g", "o", "usemtl" and "#" records (and anything else) of the filling pass.
void CObjParser::OtherRecord(std::string_view line) {
    switch (AsciiLower(line[0])) {
    case 'g':
    case 'o': {
        if (AsciiLower(line[0]) == 'g') {
            m_current = GroupFor(textscan::Trim(line.substr(1)));
        } else {
            TextCursor c(line.substr(1));
            std::string_view w;
            if (!c.ReadWord(w, kMaxWord)) w = {};
            m_current = GroupFor(w);
        }
        if (m_hasPendingNodeId) {
            // Only a group with faces becomes a node; the others have no use for the ID.
            const int32_t body = m_names[static_cast<size_t>(m_current)].body;
            if (body >= 0) {
                m_groups[static_cast<size_t>(body)].nodeId = m_pendingNodeId;
                m_groups[static_cast<size_t>(body)].hasNodeId = true;
            }
            m_hasPendingNodeId = false;
        }
        break;
    }
    case 'u': {
        std::string_view name = textscan::Trim(line.size() > 6 ? line.substr(6) : std::string_view());
        auto it = m_materialByName.find(std::string(name));
        m_material = it == m_materialByName.end() ? NO_MATERIAL : it->second;
        break;
    }
    case '#':
        if (line.size() >= 5 && line.substr(2, 3) == "TVL") {
            const size_t p = line.find("NODEID:", 6);
            if (p != std::string_view::npos) {
                TextCursor c(line.substr(p + 7));
                unsigned long long id;
                if (c.ReadUInt64(id)) {
                    m_pendingNodeId = id;
                    m_hasPendingNodeId = true;
                }
            }
        }
        break;
    default: break;
    }
}

bool CObjParser::FillPass() {
    m_nAll = std::min({m_nv, m_nt, m_nn});
    hostmem::ReserveFilled(m_v, static_cast<size_t>(m_nv + 1) * 3);
    hostmem::ReserveFilled(m_t, static_cast<size_t>(m_nt + 1) * 2);
    hostmem::ReserveFilled(m_n, static_cast<size_t>(m_nn + 1) * 3);
    m_v.resize(static_cast<size_t>(m_nv + 1) * 3);
    m_t.resize(static_cast<size_t>(m_nt + 1) * 2);
    m_n.resize(static_cast<size_t>(m_nn + 1) * 3);
    m_current = GroupFor("default");
    m_release.Reset();
    const char* p = m_text.data();
    while (p < m_end) {
        if (IsBreak(*p)) {
            ++p;
            continue;
        }
        const char* const ls = p;
        const char* le = nullptr;
        // Setting bit 5 lower-cases a letter; only letters compare equal to 'v', 'f', 'n'
        // or 't' after it (the blanks are compared as they stand).
        const char c0 = static_cast<char>(*p | 0x20);
        if (c0 == 'v' && m_end - p >= 2) {
            const char c2 = p[1];
            float* dst = nullptr;
            int n = 3, skip = 2;
            if (c2 == ' ' || c2 == '\t') {
                if (m_readV < m_nv) dst = &m_v[static_cast<size_t>(m_readV++) * 3];
                skip = 1;
            } else if ((c2 | 0x20) == 'n') {
                if (m_readN < m_nn) dst = &m_n[static_cast<size_t>(m_readN++) * 3];
            } else if ((c2 | 0x20) == 't') {
                if (m_readT < m_nt) dst = &m_t[static_cast<size_t>(m_readT++) * 2];
                n = 2;
            }
            if (dst && !(n == 3 ? ReadFloatsFast<3>(p + skip, dst, le) : ReadFloatsFast<2>(p + skip, dst, le))) {
                le = textscan::FindLineBreak(p, m_end);
                TextCursor c(std::string_view(p + skip, static_cast<size_t>(le - p - skip)));
                ReadFloats(c, dst, n);
            }
        } else if (c0 == 'f') {
            if (!ReadFaceFast(p + 1, le)) {
                le = textscan::FindLineBreak(p, m_end);
                ReadFaceSlow(std::string_view(p + 1, static_cast<size_t>(le - p - 1)));
            }
        }
        if (!le) {
            le = textscan::FindLineBreak(p, m_end);
            OtherRecord(std::string_view(ls, static_cast<size_t>(le - ls)));
        }
        p = le + (le < m_end && *le == '\n'); // the usual line end, without a turn of the loop
        if (Poll(p, true)) return false;
    }
    return true;
}

// Renumbers `idx` in place by order of first use of each file index (skipping the faces
// flagged unusable when `flags` is given), and puts the file indices in local order into
// `used`. One `used` serves all channels: fresh memory costs a page fault per 4 KiB.
void Renumber(const CFaceList::IndexArray& offsets, CFaceList::IndexArray& idx, const CFaceList::FlagArray* flags,
              std::vector<int32_t>& remap, std::vector<uint32_t>& used) {
    used.clear();
    const size_t nf = offsets.size() - 1;
    if (!flags || std::none_of(flags->begin(), flags->end(), [](uint8_t f) { return (f & FACE_SKIP) != 0; })) {
        // No face is skipped: the faces' indices are the whole array, in order. (A
        // branch-free form of this loop was measured slower: writing the map entry every
        // time makes each lookup wait on the store before it, as neighbours share indices.)
        hostmem::ReserveFilled(used, std::min(idx.size(), remap.size()));
        used.resize(std::min(idx.size(), remap.size()));
        uint32_t* const out = used.data();
        int32_t* const map = remap.data();
        uint32_t n = 0;
        for (uint32_t& x : idx) {
            int32_t& r = map[x];
            if (r < 0) {
                r = static_cast<int32_t>(n);
                out[n++] = x;
            }
            x = static_cast<uint32_t>(r);
        }
        used.resize(n);
        for (uint32_t u : used) remap[u] = -1;
        return;
    }
    used.reserve(std::min(idx.size(), remap.size())); // one allocation, no regrowth copies
    for (size_t f = 0; f < nf; ++f) {
        if (flags && ((*flags)[f] & FACE_SKIP)) continue;
        for (uint32_t i = offsets[f]; i < offsets[f + 1]; ++i) {
            int32_t& r = remap[idx[i]];
            if (r < 0) {
                r = static_cast<int32_t>(used.size());
                used.push_back(idx[i]);
            }
            idx[i] = static_cast<uint32_t>(r);
        }
    }
    for (uint32_t u : used) remap[u] = -1;
}

// A channel's indices renumbered, and its file indices in local order. A channel whose
// index stream was the positions' takes their renumbered indices and order.
const std::vector<uint32_t>& Renumbered(bool shared, const Group& g, CFaceList::IndexArray& idx,
                                        const CFaceList::FlagArray& flags, std::vector<int32_t>& remap,
                                        const std::vector<uint32_t>& positionsOrder, std::vector<uint32_t>& own) {
    if (shared) {
        std::copy(g.pos.v.begin(), g.pos.v.end(), idx.begin());
        return positionsOrder;
    }
    Renumber(g.offsets.v, idx, &flags, remap, own);
    return own;
}

bool CObjParser::BuildScene() {
    const size_t mapSize = static_cast<size_t>(std::max({m_nv, m_nt, m_nn})) + 1;
    std::vector<int32_t> remap;
    hostmem::ReserveFilled(remap, mapSize);
    remap.assign(mapSize, -1);
    // The positions' file indices in local order; `other` holds the UVs' only while the
    // normals still need the positions'.
    std::vector<uint32_t> used, other;
    for (const GroupName& gn : m_names) { // nodes in the order the groups were first named
        if (gn.body < 0) continue;
        Group& g = m_groups[static_cast<size_t>(gn.body)];
        if (g.Faces() == 0) continue;
        for (auto* f : {&g.offsets, &g.pos, &g.materials, &g.uv, &g.nrm}) f->Trim();
        g.uvFlags.Trim();
        g.nFlags.Trim();
        auto* obj = new C3DObject();
        auto* node = new C3DSceneNode(obj);
        node->SetName(NameFromBytes(g.name, m_mode));
        if (g.hasNodeId) node->SetNodeID(g.nodeId);
        m_scene->AddNode(nullptr, node);

        // Exporters that give all three lists one shared index write the same index
        // streams; the positions' renumbering then serves the channel as it is. When every
        // face said so while it was read, there is nothing to compare.
        auto sameAsPositions = [&](bool has, const Filling<uint32_t>& idx, const Filling<uint8_t>& flags) {
            if (!has) return false;
            if (g.oneStream) return true;
            return idx.v.size() == g.pos.v.size() &&
                   std::none_of(flags.v.begin(), flags.v.end(), [](uint8_t f) { return (f & FACE_SKIP) != 0; }) &&
                   std::equal(idx.v.begin(), idx.v.end(), g.pos.v.begin());
        };
        const bool uvShared = sameAsPositions(g.hasUv, g.uv, g.uvFlags);
        const bool nShared = sameAsPositions(g.hasN, g.nrm, g.nFlags);
        Renumber(g.offsets.v, g.pos.v, nullptr, remap, used);
        auto* points = new C3DPointList();
        points->SetSize(static_cast<int>(used.size()));
        float* dst = points->GetData();
        for (size_t i = 0; i < used.size(); ++i) std::memcpy(dst + i * 3, &m_v[size_t(used[i]) * 3], 12);
        obj->SetPointList(points, true);

        const size_t nf = g.Faces();
        auto offsetsCopy = [&]() {
            CFaceList::IndexArray o;
            hostmem::ReserveFilled(o, g.offsets.v.size());
            o.assign(g.offsets.v.begin(), g.offsets.v.end());
            return o;
        };
        // Channels parallel the faces by construction; checked anyway, as a channel that did
        // not would be indexed out of range from here on.
        if (g.hasUv && (g.uv.v.size() != g.pos.v.size() || g.uvFlags.v.size() != nf)) g.hasUv = false;
        if (g.hasN && (g.nrm.v.size() != g.pos.v.size() || g.nFlags.v.size() != nf)) g.hasN = false;
        if (g.hasUv) {
            auto* ch = new CUVWChannel();
            const std::vector<uint32_t>& order =
                Renumbered(uvShared, g, g.uv.v, g.uvFlags.v, remap, used, nShared ? other : used);
            CUVWPointList* up = ch->GetUVWPointList();
            up->SetSize(static_cast<int>(order.size()));
            float* u = up->GetData();
            for (size_t i = 0; i < order.size(); ++i) {
                u[i * 3] = m_t[size_t(order[i]) * 2];
                u[i * 3 + 1] = m_t[size_t(order[i]) * 2 + 1];
            }
            g.uv.v.shrink_to_fit();
            if (ch->GetUVWFaceList()->Adopt(offsetsCopy(), std::move(g.uv.v), std::move(g.uvFlags.v))) {
                const int32_t id = obj->AddChannel(ch, -1);
                obj->SetGlobalUVWChannel(id);
            } else {
                delete ch; // arrays that do not parallel the faces would index out of range later
            }
        }
        if (g.hasN) {
            auto* ch = new CSpecNormalChannel();
            const std::vector<uint32_t>& order = Renumbered(nShared, g, g.nrm.v, g.nFlags.v, remap, used, used);
            C3DVectorList* nv = ch->GetNormalVectorList();
            nv->SetSize(static_cast<int>(order.size()));
            float* d = nv->GetData();
            for (size_t i = 0; i < order.size(); ++i) std::memcpy(d + i * 3, &m_n[size_t(order[i]) * 3], 12);
            g.nrm.v.shrink_to_fit();
            if (ch->GetNormalFaceList()->Adopt(offsetsCopy(), std::move(g.nrm.v), std::move(g.nFlags.v)))
                obj->AddChannel(ch, -1);
            else delete ch;
        }
        auto* faces = new C3DFaceList();
        g.pos.v.shrink_to_fit();
        g.offsets.v.shrink_to_fit();
        g.materials.v.shrink_to_fit();
        faces->Adopt(std::move(g.offsets.v), std::move(g.pos.v), CFaceList::FlagArray(nf), std::move(g.materials.v));
        obj->SetFaceList(faces, true);
    }
    return m_scene->GetNodeCount() > 0;
}

ObjReadResult CObjParser::Run() {
    ObjReadResult res;
    const bool counted = CountPass();
    if (m_cancelled) {
        res.status = ObjStatus::Cancelled;
        return res;
    }
    if (!counted) return res;
    m_scene = std::make_unique<C3DScene>();
    CreateMaterials();
    FillPass();
    if (m_cancelled) {
        res.status = ObjStatus::Cancelled;
        return res;
    }
    m_v.shrink_to_fit();
    if (!BuildScene()) return res;
    res.scene = m_scene.release();
    res.status = ObjStatus::Ok;
    return res;
}

} // namespace

ObjReadResult ReadObj(std::span<const uint8_t> data, int textMode, const MtlLoader& loadMtl, CFileIo& io,
                      CSceneImportOptions& options, const IoFile* file) {
    std::string storage;
    std::string_view text = PrepareText(data, textMode, storage);
    CObjParser parser(text, textMode, loadMtl, io, options, file);
    return parser.Run();
}

} // namespace meshio
