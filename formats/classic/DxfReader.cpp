#include "formats/classic/DxfReader.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <deque>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "formats/classic/DxfCodePages.h"
#include "formats/classic/DxfColors.h"
#include "formats/classic/DxfTags.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/LargeArray.h"
#include "plugin/host/Material.h"
#include "plugin/host/Object.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "plugin/host/TextHelpers.h"
#include "plugin/host/XString.h"

namespace dxf {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr const wchar_t* kTruncatedGroup = L"An entity has too many values; the rest of them is left out.";

struct Vec {
    double x = 0, y = 0, z = 0;
    Vec operator+(const Vec& o) const { return {x + o.x, y + o.y, z + o.z}; }
    Vec operator-(const Vec& o) const { return {x - o.x, y - o.y, z - o.z}; }
    Vec operator*(double s) const { return {x * s, y * s, z * s}; }
    bool operator==(const Vec& o) const { return x == o.x && y == o.y && z == o.z; }
    double Length() const { return std::sqrt(x * x + y * y + z * z); }
    Vec Cross(const Vec& o) const { return {y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x}; }
    Vec Unit() const {
        const double l = Length();
        return l > 0 && std::isfinite(l) ? Vec{x / l, y / l, z / l} : Vec{};
    }
};

// Object coordinate system of a planar entity (arbitrary axis algorithm).
struct Ocs {
    Vec ax{1, 0, 0}, ay{0, 1, 0}, az{0, 0, 1};
    bool identity = true;
    explicit Ocs(const Vec& normal) {
        const Vec n = normal.Unit();
        if (n.Length() == 0 || (n.x == 0 && n.y == 0 && n.z > 0)) return;
        az = n;
        ax = (std::fabs(n.x) < 1.0 / 64 && std::fabs(n.y) < 1.0 / 64 ? Vec{0, 1, 0}.Cross(n) : Vec{0, 0, 1}.Cross(n))
                 .Unit();
        ay = n.Cross(ax).Unit();
        identity = false;
    }
    Vec ToWorld(const Vec& p) const { return identity ? p : ax * p.x + ay * p.y + az * p.z; }
};

// Colour of an entity before BYLAYER/BYBLOCK are settled.
struct ColorRef {
    enum Kind : uint8_t { Rgb, Index, ByLayer, ByBlock } kind = ByLayer;
    uint32_t value = 0; // RGB, colour number or layer index
    uint64_t Key() const { return (uint64_t(kind) << 32) | value; }
};

struct InsertRec {
    std::string key; // block name, lower case
    Vec pos, scale{1, 1, 1}, normal{0, 0, 1};
    double rotation = 0, colSpacing = 0, rowSpacing = 0;
    long long cols = 1, rows = 1;
    ColorRef color;
    uint32_t layer = 0;
    int32_t block = -1; // settled once every block is known; -1: no such block
};

using FloatArray = hostmem::ZeroedArray<float>;
using IndexArray = hostmem::ZeroedArray<uint32_t>;

// Poly-lines or faces over a point array, each with a colour slot.
struct Strips {
    FloatArray pts;
    IndexArray off, idx, slot; // off gets its leading 0 with the first strip: empty blocks allocate nothing
    uint32_t PointCount() const { return static_cast<uint32_t>(pts.size() / 3); }
    bool Empty() const { return slot.empty(); }
    void AddPoint(const Vec& p) {
        const float f[3] = {static_cast<float>(p.x), static_cast<float>(p.y), static_cast<float>(p.z)};
        pts.insert(pts.end(), f, f + 3);
    }
    // A face or poly-line of n new points, indexed in order.
    void AddRun(const Vec* p, int n, uint32_t s) {
        float f[12];
        uint32_t ix[4];
        const uint32_t base = PointCount();
        for (int done = 0; done < n;) {
            const int k = std::min(n - done, 4);
            for (int i = 0; i < k; ++i) {
                f[3 * i] = static_cast<float>(p[done + i].x);
                f[3 * i + 1] = static_cast<float>(p[done + i].y);
                f[3 * i + 2] = static_cast<float>(p[done + i].z);
                ix[i] = base + static_cast<uint32_t>(done + i);
            }
            pts.insert(pts.end(), f, f + 3 * k);
            idx.insert(idx.end(), ix, ix + k);
            done += k;
        }
        EndStrip(s);
    }
    void AddIndices(const uint32_t* ix, int n, uint32_t s) {
        idx.insert(idx.end(), ix, ix + n);
        EndStrip(s);
    }
    void EndStrip(uint32_t s) {
        if (off.empty()) off.push_back(0);
        off.push_back(static_cast<uint32_t>(idx.size()));
        slot.push_back(s);
    }
    size_t Values() const { return pts.size() + idx.size() + slot.size(); }
};

// Geometry of one layer (top level) or one block, in its own coordinates.
struct Geom {
    Strips faces, curves;
    FloatArray dots;
    IndexArray dotSlot;
    std::vector<ColorRef> slots;
    std::unordered_map<uint64_t, uint32_t> slotOf;
    uint64_t lastKey = ~uint64_t(0);
    uint32_t lastSlot = 0;
    uint32_t Slot(const ColorRef& c) {
        if (c.Key() == lastKey) return lastSlot;
        auto [it, added] = slotOf.emplace(c.Key(), static_cast<uint32_t>(slots.size()));
        if (added) slots.push_back(c);
        lastKey = c.Key();
        lastSlot = it->second;
        return it->second;
    }
    bool HasGeometry() const { return !faces.Empty() || !curves.Empty() || !dots.empty(); }
    // The slots faces and lines use, numbered in the order they use them: a block placed
    // many times maps only those per placement, not every colour its entities named.
    std::vector<uint32_t> used; // by slot; UINT32_MAX when unused
    uint32_t usedCount = 0;
    bool numbered = false;
    void NumberUsedSlots() {
        numbered = true;
        used.assign(slots.size(), UINT32_MAX);
        for (const Strips* s : {&faces, &curves})
            for (const uint32_t k : s->slot)
                if (used[k] == UINT32_MAX) used[k] = usedCount++;
    }
};

struct Layer {
    CXStringW name;
    std::string_view raw; // the name as first met, undecoded (in the input, or a literal)
    ColorRef color{ColorRef::Index, 7};
    bool frozen = false, off = false;
    std::unique_ptr<Geom> top;
    std::vector<InsertRec> inserts;
};

struct Block {
    CXStringW name;
    Vec base;
    std::unique_ptr<Geom> geom; // made with the first entity: empty blocks stay small
    std::vector<InsertRec> inserts;
    // The inserts that can place something, in runs of one block each, and how many name
    // no block (counted per placement, as if each were looked up again).
    struct Run {
        uint32_t first = 0, count = 0; // in `live`
        uint32_t block = 0;
    };
    std::vector<uint32_t> live;
    std::vector<Run> runs;
    size_t missing = 0;
    bool resolved = false; // live, runs and missing made (when first placed)
    size_t Values() const { return geom ? geom->faces.Values() + geom->curves.Values() + geom->dots.size() : 0; }
    bool paper = false;
    bool open = false; // being expanded: a second visit is a cycle
};

// Colour context of an expansion: what BYBLOCK and layer "0" stand for.
struct Context {
    uint32_t byBlockRgb = 0xFFFFFF;
    uint32_t layerZero = 0;
};

std::string LowerKey(std::string_view s) {
    std::string k(s);
    for (char& c : k) c = AsciiLower(c);
    return k;
}

// Names: UTF-8 when the bytes are valid UTF-8, else one character per byte (through the
// drawing's code page when it names one we know); \U+XXXX decoded.
CXStringW DecodeName(std::string_view s, const char16_t* codePage) {
    std::wstring w;
    if (IsValidUtf8(s)) {
        w = Utf8ToWide(s);
    } else if (codePage) {
        w.reserve(s.size());
        for (const char c : s) {
            const auto b = static_cast<uint8_t>(c);
            w += b < 0x80 ? static_cast<wchar_t>(b) : static_cast<wchar_t>(codePage[b - 0x80]);
        }
    } else {
        w = WidenBytes(s);
    }
    std::wstring out;
    out.reserve(w.size());
    for (size_t i = 0; i < w.size(); ++i) {
        if (w[i] == L'\\' && i + 7 <= w.size() && (w[i + 1] == L'U' || w[i + 1] == L'u') && w[i + 2] == L'+') {
            uint32_t v = 0;
            bool ok = true;
            for (size_t k = 3; k < 7; ++k) {
                const wchar_t c = w[i + k];
                v <<= 4;
                if (c >= L'0' && c <= L'9') v |= static_cast<uint32_t>(c - L'0');
                else if (c >= L'a' && c <= L'f') v |= static_cast<uint32_t>(c - L'a' + 10);
                else if (c >= L'A' && c <= L'F') v |= static_cast<uint32_t>(c - L'A' + 10);
                else ok = false;
            }
            if (ok && v != 0) {
                out += static_cast<wchar_t>(v);
                i += 6;
                continue;
            }
        }
        out += w[i];
    }
    return CXStringW(std::move(out));
}

// The pairs of one entity, with the single-valued codes picked out. Reset between groups
// touches only what says which values are present.
struct Entity {
    Vec p[4];
    bool hasZ[4] = {};
    double f[22] = {}; // codes 38..59, present when their bit of hasF is set
    uint32_t hasF = 0;
    long long i[10] = {}; // codes 70..79, likewise with hasI
    uint32_t hasI = 0;
    Vec normal{0, 0, 1};
    std::string_view layer = "0", name;
    long long aci = kDxfByLayer;
    long long rgb = -1;
    bool paper = false;
    bool hasColor = false;
    double F(int code, double def = 0) const { return hasF >> (code - 38) & 1 ? f[code - 38] : def; }
    long long I(int code, long long def = 0) const { return hasI >> (code - 70) & 1 ? i[code - 70] : def; }
    bool HasI(int code) const { return hasI >> (code - 70) & 1; }
    void Reset() {
        for (Vec& v : p) v = {};
        for (bool& z : hasZ) z = false;
        hasF = hasI = 0;
        normal = {0, 0, 1};
        layer = "0";
        name = {};
        aci = kDxfByLayer;
        rgb = -1;
        paper = hasColor = false;
    }
};

// Where a drawing's ENTITIES section is cut in two: the second half is the pairs from
// `begin` (a (0, TYPE) pair, `after` just past it) up to the section's ENDSEC.
struct SplitPlan {
    size_t begin = 0, after = 0;
};

struct SecondHalf;

class Reader {
public:
    Reader(CSceneImportOptions& options, const std::function<bool()>& cancelled, CDxfTagReader& tags)
        : m_options(options), m_cancelled(cancelled), m_tags(&tags) {}
    ~Reader();
    ReadOutcome Run(std::span<const uint8_t> data, const SplitPlan* split = nullptr);
    // The second half's own read: entities only, up to the section's ENDSEC pair, whose
    // first byte goes in `end`; false when it met anything else.
    bool RunEntities(const SplitPlan& plan, std::span<const uint8_t> data, size_t& end);

private:
    void StartSecondHalf(std::span<const uint8_t> data, const SplitPlan& plan);
    void StopSecondHalf();
    void Join();
    void Merge(Geom& to, Geom& from, const std::vector<uint32_t>& layerMap);

    bool NextGroup();
    void Section(std::string_view name);
    void Header();
    void LayerEntry();
    const Entity& Parse(); // the current group's values (its bad ones now counted)
    void Take(const CDxfTag& t, Entity& e);
    void EntityGroup(std::string_view type);
    uint32_t LayerIndex(std::string_view name);
    ColorRef ColorOf(const Entity& e, uint32_t layer) const;
    Geom* Target(uint32_t layer);

    void Room(Strips& s, size_t points, size_t indices, size_t strips);
    template <class A> void Room(A& a, size_t more);
    void Face(Geom& g, uint32_t slot, const Vec* pts, int n);
    void Curve(Geom& g, uint32_t slot, const std::vector<Vec>& pts, bool closed);
    void Arc(std::vector<Vec>& out, const Ocs& ocs, const Vec& centre, double r, double a0, double sweep);
    void Bulge(std::vector<Vec>& out, const Vec& a, const Vec& b, double bulge);
    void LwPolyline(const Entity& e, Geom& g, uint32_t slot);
    void Spline(const Entity& e, Geom& g, uint32_t slot);
    void Insert(const Entity& e, std::vector<InsertRec>& to, uint32_t layer);

    void PolylineStart(const Entity& e);
    void PolylineVertex(const Entity& e);
    void PolylineEnd();

    uint32_t Rgb(const ColorRef& c, const Context& ctx) const;
    uint32_t Material(uint32_t rgb);
    void Emit(Geom& g, C3DSceneNode* parent, const CXStringW& name, const Context& ctx, bool mirrored, bool hidden,
              bool copy);
    int32_t BlockIndex(const std::string& key) const;
    void ResolveInserts(Block& b);
    void Expand(const InsertRec& ins, C3DSceneNode* parent, const Context& ctx, int depth, bool mirrored);
    void ExpandInBlock(const InsertRec& ins, C3DSceneNode* parent, const Context& ctx, int depth, bool mirrored);
    void Log(const std::wstring& text);

    CSceneImportOptions& m_options;
    const std::function<bool()>& m_cancelled;
    std::unique_ptr<C3DScene> m_scene;
    CDxfTagReader* m_tags;
    std::string_view m_pendingType; // a (0, type) pair already read
    bool m_hasPending = false;
    bool m_truncatedGroup = false;
    std::string_view m_type;
    std::vector<CDxfTag> m_body;
    Entity m_group;
    size_t m_groupBad = 0;

    enum class Sect { None, Header, Tables, Blocks, Entities, Other } m_section = Sect::None;
    std::vector<Layer> m_layers;
    std::unordered_map<std::string, uint32_t> m_layerOf;
    std::vector<bool> m_layerDefined;
    std::string_view m_lastLayerName;
    uint32_t m_lastLayer = 0;
    bool m_lastLayerValid = false;
    std::deque<Block> m_blocks; // grows without moving: m_block stays valid
    std::unordered_map<std::string, uint32_t> m_blockOf;
    Block* m_block = nullptr; // inside BLOCK ... ENDBLK
    long long m_insUnits = 0;
    const char16_t* m_codePage = nullptr; // $DWGCODEPAGE, when a single-byte page we know

    // POLYLINE ... VERTEX ... SEQEND being gathered.
    struct Vertex {
        Vec p;
        bool hasZ = false;
        double bulge = 0;
        long long flags = 0;
        int idx[4] = {};
        bool face = false;
        bool hasColor = false;
        ColorRef color;
    };
    bool m_poly = false;
    Entity m_polyHead;
    Geom* m_polyGeom = nullptr;
    uint32_t m_polyLayer = 0;
    std::vector<Vertex> m_vertices;
    std::vector<uint32_t> m_vertexPos;

    std::vector<Vec> m_scratch;
    std::unordered_map<uint32_t, uint32_t> m_materials;
    size_t m_instances = 0, m_instancedValues = 0;
    size_t m_maxInstances = kMaxInstances;
    size_t m_idle = 0, m_maxIdle = 0; // insertions inside blocks that placed nothing (cycles, depth, caps)
    bool m_stopped = false;
    bool m_capLogged = false, m_cycleLogged = false, m_depthLogged = false;
    size_t m_badValues = 0, m_acis = 0, m_droppedFaces = 0, m_missingBlocks = 0;
    bool m_anything = false;
    size_t m_inputSize = 0;
    size_t m_readFrom = 0;       // where this reader's share of the input starts (Room)
    size_t m_truncatedCount = 0; // groups cut at kMaxGroupTags (the second half's, logged at the join)
    std::unique_ptr<SecondHalf> m_half;
    size_t m_joinAt = SIZE_MAX; // the position just past the second half's first pair
    bool m_joined = false;
};

// The second half's reader and its thread. Its log goes to options of its own: the only
// line it can write (a group cut short) is counted, and written by the first half at the join.
struct SecondHalf {
    SecondHalf(std::span<const uint8_t> d, const SplitPlan& p)
        : data(d), plan(p), tags(d), reader(options, stopped, tags) {
        tags.Restrict(plan.begin, d.size());
    }
    std::span<const uint8_t> data;
    SplitPlan plan;
    size_t end = 0; // the section's ENDSEC pair
    CSceneImportOptions options;
    std::atomic<bool> stop{false};
    std::function<bool()> stopped = [this] { return stop.load(std::memory_order_relaxed); };
    CDxfTagReader tags;
    Reader reader;
    bool valid = false;
    std::thread thread;
};

Reader::~Reader() { StopSecondHalf(); }

void Reader::StartSecondHalf(std::span<const uint8_t> data, const SplitPlan& plan) {
    try {
        auto half = std::make_unique<SecondHalf>(data, plan);
        SecondHalf* h = half.get();
        h->thread = std::thread([h] {
            try {
                h->valid = h->reader.RunEntities(h->plan, h->data, h->end);
            } catch (...) {
                h->valid = false; // short of memory: the first half reads these entities itself
            }
            if (!h->valid) h->reader.m_layers.clear(); // nothing of it will be used
        });
        m_half = std::move(half);
        m_joinAt = plan.after;
    } catch (const std::exception&) {
        m_half.reset(); // no thread to be had: one read does it all
    }
}

void Reader::StopSecondHalf() {
    m_joinAt = SIZE_MAX;
    if (!m_half) return;
    m_half->stop.store(true, std::memory_order_relaxed);
    if (m_half->thread.joinable()) m_half->thread.join();
    m_half.reset();
}

bool Reader::RunEntities(const SplitPlan& plan, std::span<const uint8_t> data, size_t& end) {
    m_inputSize = data.size();
    m_readFrom = plan.begin;
    m_section = Sect::Entities;
    LayerIndex("0");
    size_t groups = 0;
    while (NextGroup()) {
        if ((++groups & 1023) == 0 && m_cancelled()) return false;
        const std::string_view type = m_type;
        if (type == "ENDSEC") {
            // The pair's code line is the line before its text's line (this read started at a
            // pair, so its lines are paired as one read pairs them).
            const auto* d = reinterpret_cast<const char*>(data.data());
            auto lineStart = [d](size_t p) {
                while (p > 0 && d[p - 1] != '\n') --p;
                return p;
            };
            const size_t typeLine = lineStart(static_cast<size_t>(type.data() - d));
            if (typeLine == 0) return false;
            end = lineStart(typeLine - 1);
            if (m_poly) PolylineEnd();
            return end > plan.begin;
        }
        if (m_truncatedGroup) ++m_truncatedCount;
        if (type == "SECTION" || type == "EOF" || type == "BLOCK" || type == "ENDBLK") return false;
        EntityGroup(type);
    }
    return false; // no ENDSEC: the first half reads the rest as one read would
}

// The first half stands where the second began: its entities go in as one read would
// have added them, and reading goes on at the section's end.
void Reader::Join() {
    m_joinAt = SIZE_MAX;
    SecondHalf& h = *m_half;
    // One read would be in the ENTITIES section here, with the second half's first pair pending.
    if (m_section != Sect::Entities) return StopSecondHalf();
    h.thread.join();
    if (!h.valid) return StopSecondHalf();
    if (m_poly) PolylineEnd(); // the pending entity ends it
    Reader& r = h.reader;
    // Layers new to this half are made in the order the second half met them, as one read would.
    std::vector<uint32_t> layerMap(r.m_layers.size());
    for (size_t j = 0; j < r.m_layers.size(); ++j) layerMap[j] = LayerIndex(r.m_layers[j].raw);
    for (size_t j = 0; j < r.m_layers.size(); ++j) {
        Layer& from = r.m_layers[j];
        Layer& to = m_layers[layerMap[j]];
        if (from.top) {
            if (!to.top) to.top = std::make_unique<Geom>();
            Merge(*to.top, *from.top, layerMap);
            from.top.reset();
        }
        for (InsertRec& ins : from.inserts) {
            if (ins.color.kind == ColorRef::ByLayer) ins.color.value = layerMap[ins.color.value];
            ins.layer = layerMap[ins.layer];
            to.inserts.push_back(std::move(ins));
        }
    }
    m_badValues += r.m_badValues;
    m_acis += r.m_acis;
    m_droppedFaces += r.m_droppedFaces;
    for (size_t i = 0; i < r.m_truncatedCount; ++i) Log(kTruncatedGroup);
    m_hasPending = false;
    m_tags->Restrict(h.end, m_inputSize);
    StopSecondHalf();
    m_joined = true;
}

namespace {
// Room for `more` values after a's, its pages asked for at once rather than faulted in one by one.
template <class A> void Extend(A& a, size_t more) {
    if (a.capacity() - a.size() < more) a.reserve(a.size() + more);
    hostmem::PopulateNow(a.data() + a.size(), more * sizeof(*a.data()));
}

// b's strips after a's, their points renumbered and their colour slots mapped.
void Append(Strips& a, const Strips& b, const std::vector<uint32_t>& slots) {
    Extend(a.pts, b.pts.size());
    Extend(a.idx, b.idx.size());
    Extend(a.off, b.off.size());
    Extend(a.slot, b.slot.size());
    const uint32_t base = a.PointCount();
    a.pts.insert(a.pts.end(), b.pts.begin(), b.pts.end());
    const size_t shift = a.idx.size();
    a.idx.resize(shift + b.idx.size());
    for (size_t i = 0; i < b.idx.size(); ++i) a.idx[shift + i] = base + b.idx[i];
    if (b.off.size() > 1) {
        if (a.off.empty()) a.off.push_back(0);
        const size_t at = a.off.size();
        a.off.resize(at + b.off.size() - 1);
        for (size_t i = 1; i < b.off.size(); ++i) a.off[at + i - 1] = static_cast<uint32_t>(shift + b.off[i]);
    }
    const size_t n = a.slot.size();
    a.slot.resize(n + b.slot.size());
    for (size_t i = 0; i < b.slot.size(); ++i) a.slot[n + i] = slots[b.slot[i]];
}
} // namespace

void Reader::Merge(Geom& to, Geom& from, const std::vector<uint32_t>& layerMap) {
    // Colours take their slots in the order the second half first used them, as one read would.
    std::vector<uint32_t> slots(from.slots.size());
    for (size_t i = 0; i < from.slots.size(); ++i) {
        ColorRef c = from.slots[i];
        if (c.kind == ColorRef::ByLayer) c.value = layerMap[c.value];
        slots[i] = to.Slot(c);
    }
    Append(to.faces, from.faces, slots);
    Append(to.curves, from.curves, slots);
    to.dots.insert(to.dots.end(), from.dots.begin(), from.dots.end());
    const size_t n = to.dotSlot.size();
    to.dotSlot.resize(n + from.dotSlot.size());
    for (size_t i = 0; i < from.dotSlot.size(); ++i) to.dotSlot[n + i] = slots[from.dotSlot[i]];
}

void Reader::Log(const std::wstring& text) { m_options.AddLogInfo(LOG_INFO, CXStringW(text)); }

// Reads one group: a (0, type) pair and the pairs up to the next code 0.
bool Reader::NextGroup() {
    // At the cut the halves join; a read that passes it without standing on it (the cut
    // was no pair boundary) lets the second half go at once, with what it holds.
    if (m_hasPending && m_tags->Position() >= m_joinAt) {
        if (m_tags->Position() == m_joinAt) Join();
        else StopSecondHalf();
    }
    // t is only ever copied (kept pairs go in as copies): with its address never taken it
    // lives in registers, where a tag in memory, written in halves and read back whole,
    // would stall every read of its text.
    CDxfTag t;
    if (m_hasPending) {
        m_type = m_pendingType;
        m_hasPending = false;
    } else {
        do {
            if (!m_tags->Next(t)) return false;
        } while (t.code != 0);
        m_type = t.text;
    }
    m_body.clear();
    m_truncatedGroup = false;
    m_group.Reset();
    m_groupBad = 0;
    // The single-valued codes are taken as they come; only groups that repeat codes
    // (or hold the header's variables) keep their pairs.
    const char first = m_type.empty() ? 0 : m_type[0];
    const bool keep =
        (first == 'S' || first == 'L') && (m_type == "SECTION" || m_type == "LWPOLYLINE" || m_type == "SPLINE");
    while (m_tags->Next(t)) {
        if (t.code == 0) {
            m_pendingType = t.text;
            m_hasPending = true;
            return true;
        }
        // Coordinates (10..13, 20..23, 30..33) are most pairs: they go straight in.
        static constexpr int8_t kCorner[24] = {0, 1, 2,  3,  -1, -1, -1, -1, -1, -1, 0, 1,
                                               2, 3, -1, -1, -1, -1, -1, -1, 0,  1,  2, 3};
        const auto k = static_cast<unsigned>(t.code - 10);
        if (k < 24 && kCorner[k] >= 0 && t.hasNumber && std::isfinite(t.number)) {
            Vec& p = m_group.p[kCorner[k]];
            if (k < 10) p.x = t.number;
            else if (k < 20) p.y = t.number;
            else {
                p.z = t.number;
                m_group.hasZ[kCorner[k]] = true;
            }
            if (keep && m_body.size() < kMaxGroupTags) m_body.push_back(CDxfTag(t));
            else if (keep) m_truncatedGroup = true;
            continue;
        }
        if (t.code == 999) continue;
        Take(t, m_group);
        if (!keep) continue;
        if (m_body.size() < kMaxGroupTags) m_body.push_back(CDxfTag(t));
        else m_truncatedGroup = true;
    }
    return true;
}

uint32_t Reader::LayerIndex(std::string_view name) {
    // Entities come in runs on one layer.
    if (m_lastLayerValid && name == m_lastLayerName) return m_lastLayer;
    std::string key = LowerKey(name);
    m_lastLayerValid = false;
    auto it = m_layerOf.find(key);
    if (it != m_layerOf.end()) {
        m_lastLayerName = name;
        m_lastLayer = it->second;
        m_lastLayerValid = true;
        return it->second;
    }
    const auto idx = static_cast<uint32_t>(m_layers.size());
    m_layers.emplace_back();
    m_layers.back().name = DecodeName(name, m_codePage);
    m_layers.back().raw = name;
    m_layerOf.emplace(std::move(key), idx);
    return idx;
}

ColorRef Reader::ColorOf(const Entity& e, uint32_t layer) const {
    if (e.rgb >= 0) return {ColorRef::Rgb, static_cast<uint32_t>(e.rgb & 0xFFFFFF)};
    long long a = e.aci < 0 ? -e.aci : e.aci;
    if (a == kDxfByBlock) return {ColorRef::ByBlock, 0};
    if (a >= 1 && a <= 255) return {ColorRef::Index, static_cast<uint32_t>(a)};
    return {ColorRef::ByLayer, layer};
}

Geom* Reader::Target(uint32_t layer) {
    if (m_section == Sect::Blocks) {
        if (!m_block || m_block->paper) return nullptr;
        if (!m_block->geom) m_block->geom = std::make_unique<Geom>();
        return m_block->geom.get();
    }
    if (m_section != Sect::Entities) return nullptr;
    Layer& l = m_layers[layer];
    if (!l.top) l.top = std::make_unique<Geom>();
    return l.top.get();
}

const Entity& Reader::Parse() {
    m_badValues += m_groupBad;
    m_groupBad = 0;
    return m_group;
}

void Reader::Take(const CDxfTag& t, Entity& e) {
    const int c = t.code;
    double v;
    switch (c) {
    case 8: e.layer = t.text; return;
    case 2: e.name = t.text; return;
    case 420: {
        long long x;
        if (CDxfTagReader::ToInt(t, x)) e.rgb = x & 0xFFFFFF;
        else ++m_groupBad;
        return;
    }
    case 10:
    case 11:
    case 12:
    case 13:
    case 20:
    case 21:
    case 22:
    case 23:
    case 30:
    case 31:
    case 32:
    case 33:
    case 210:
    case 220:
    case 230: break;
    default:
        if (c >= 60 && c <= 79) {
            long long x;
            if (!CDxfTagReader::ToInt(t, x)) {
                ++m_groupBad;
                return;
            }
            if (c == 62) {
                e.aci = x;
                e.hasColor = true;
            } else if (c == 67) e.paper = x == 1;
            else if (c >= 70) {
                e.i[c - 70] = x;
                e.hasI |= 1u << (c - 70);
            }
            return;
        }
        if (c < 38 || c > 59) return;
        if (!CDxfTagReader::ToDouble(t, v) || !std::isfinite(v)) {
            ++m_groupBad;
            return;
        }
        e.f[c - 38] = v;
        e.hasF |= 1u << (c - 38);
        return;
    }
    if (!CDxfTagReader::ToDouble(t, v) || !std::isfinite(v)) {
        ++m_groupBad;
        return;
    }
    if (c < 20) e.p[c - 10].x = v;
    else if (c < 30) e.p[c - 20].y = v;
    else if (c < 40) {
        e.p[c - 30].z = v;
        e.hasZ[c - 30] = true;
    } else if (c == 210) e.normal.x = v;
    else if (c == 220) e.normal.y = v;
    else e.normal.z = v;
}

void Reader::Section(std::string_view name) {
    m_block = nullptr;
    if (name == "HEADER") m_section = Sect::Header;
    else if (name == "TABLES") m_section = Sect::Tables;
    else if (name == "BLOCKS") m_section = Sect::Blocks;
    else if (name == "ENTITIES") m_section = Sect::Entities;
    else m_section = Sect::Other;
}

void Reader::Header() {
    std::string_view var;
    for (const CDxfTag& t : m_body) {
        if (t.code == 9) {
            var = t.text;
            continue;
        }
        if (var == "$DWGCODEPAGE" && t.code == 3) m_codePage = DxfCodePageHighHalf(t.text);
        if (var == "$INSUNITS" && t.code == 70) {
            long long v;
            if (CDxfTagReader::ToInt(t, v)) m_insUnits = v;
        }
    }
}

void Reader::LayerEntry() {
    const Entity& e = Parse();
    if (e.name.empty()) return;
    const uint32_t idx = LayerIndex(e.name);
    if (m_layerDefined.size() <= idx) m_layerDefined.resize(idx + 1, false);
    if (m_layerDefined[idx]) return; // the first entry of a name wins
    m_layerDefined[idx] = true;
    Layer& l = m_layers[idx];
    if (e.rgb >= 0) l.color = {ColorRef::Rgb, static_cast<uint32_t>(e.rgb)};
    else if (e.hasColor) {
        const long long a = e.aci < 0 ? -e.aci : e.aci;
        l.color = {ColorRef::Index, static_cast<uint32_t>(a >= 1 && a <= 255 ? a : 7)};
        l.off = e.aci < 0;
    }
    l.frozen = (e.I(70) & 1) != 0;
}

// Face arrays of the entities section grow with the drawing: one that fills is sized for
// what the rest of the input adds at the rate seen so far, not just doubled, which spares
// most of the copies and fresh pages of doubling. The rate is that of bytes already read
// (after the first MiB), so every layer's share adds up to about the drawing's arrays.
template <class A> void Reader::Room(A& a, size_t more) {
    if (more <= a.capacity() - a.size()) return;
    size_t grown = a.capacity() * 2;
    const size_t read = m_tags->Position() - std::min(m_readFrom, m_tags->Position());
    const size_t share = m_inputSize - m_readFrom;
    if (m_section == Sect::Entities && read >= (size_t{1} << 20) && read < share) {
        const double rate = static_cast<double>(a.size()) / static_cast<double>(read); // `more` may be a bound
        grown =
            std::max(a.capacity() + a.capacity() / 8, static_cast<size_t>(rate * static_cast<double>(share) * 1.03));
    }
    a.reserve(std::max(a.size() + more, grown));
}

void Reader::Room(Strips& s, size_t points, size_t indices, size_t strips) {
    Room(s.pts, 3 * points);
    Room(s.idx, indices);
    Room(s.off, strips + 1);
    Room(s.slot, strips);
}

void Reader::Face(Geom& g, uint32_t slot, const Vec* pts, int n) {
    // Drop repeated corners (a triangle is a quad with its last corner doubled).
    Vec c[4];
    int k = 0;
    for (int i = 0; i < n; ++i)
        if (k == 0 || !(pts[i] == c[k - 1])) c[k++] = pts[i];
    if (k > 1 && c[k - 1] == c[0]) --k;
    if (k < 3) return;
    Room(g.faces, static_cast<size_t>(k), static_cast<size_t>(k), 1);
    g.faces.AddRun(c, k, slot);
}

void Reader::Curve(Geom& g, uint32_t slot, const std::vector<Vec>& pts, bool closed) {
    if (pts.empty()) return;
    const uint32_t base = g.curves.PointCount();
    for (size_t i = 0; i < pts.size(); ++i) {
        g.curves.AddPoint(pts[i]);
        g.curves.idx.push_back(base + static_cast<uint32_t>(i));
    }
    // A closed curve repeats its first point index.
    if (closed && pts.size() > 2 && !(pts.front() == pts.back())) g.curves.idx.push_back(base);
    g.curves.EndStrip(slot);
}

// Points of a circular arc in the OCS plane at centre.z, from angle a0 (radians) over `sweep`.
void Reader::Arc(std::vector<Vec>& out, const Ocs& ocs, const Vec& centre, double r, double a0, double sweep) {
    if (!(r > 0) || !std::isfinite(r) || !std::isfinite(a0) || !std::isfinite(sweep)) return;
    const int k =
        std::clamp(static_cast<int>(std::ceil(std::fabs(sweep) / (2 * kPi) * kSegmentsPerTurn)), 1, kSegmentsPerTurn);
    for (int i = 0; i <= k; ++i) {
        const double a = a0 + sweep * i / k;
        out.push_back(ocs.ToWorld({centre.x + r * std::cos(a), centre.y + r * std::sin(a), centre.z}));
    }
}

// The arc from a to b (OCS, same z) for a bulge, without its first point.
void Reader::Bulge(std::vector<Vec>& out, const Vec& a, const Vec& b, double bulge) {
    const double dx = b.x - a.x, dy = b.y - a.y;
    const double c = std::sqrt(dx * dx + dy * dy);
    if (!(std::fabs(bulge) > 1e-9) || !(std::fabs(bulge) < 1e6) || !(c > 0) || !std::isfinite(c)) {
        out.push_back(b);
        return;
    }
    const double theta = 4 * std::atan(bulge);
    const Vec n{-dy / c, dx / c, 0};
    const double off = c * (1 - bulge * bulge) / (4 * bulge);
    const Vec centre{(a.x + b.x) / 2 + n.x * off, (a.y + b.y) / 2 + n.y * off, a.z};
    const double r = std::hypot(a.x - centre.x, a.y - centre.y);
    const double a0 = std::atan2(a.y - centre.y, a.x - centre.x);
    const int k =
        std::clamp(static_cast<int>(std::ceil(std::fabs(theta) / (2 * kPi) * kSegmentsPerTurn)), 1, kSegmentsPerTurn);
    for (int i = 1; i < k; ++i) {
        const double t = a0 + theta * i / k;
        out.push_back({centre.x + r * std::cos(t), centre.y + r * std::sin(t), a.z});
    }
    out.push_back(b);
}

void Reader::LwPolyline(const Entity& e, Geom& g, uint32_t slot) {
    // Per-vertex codes repeat: a new vertex starts at each 10.
    struct V {
        Vec p;
        double bulge = 0;
    };
    std::vector<V> v;
    const double z = e.F(38);
    for (const CDxfTag& t : m_body) {
        if (t.code != 10 && t.code != 20 && t.code != 42) continue;
        double d;
        if (!CDxfTagReader::ToDouble(t, d) || !std::isfinite(d)) {
            ++m_badValues;
            continue;
        }
        if (t.code == 10) v.push_back({{d, 0, z}, 0});
        else if (v.empty()) continue;
        else if (t.code == 20) v.back().p.y = d;
        else v.back().bulge = d;
    }
    if (v.empty()) return;
    const bool closed = (e.I(70) & 1) != 0;
    std::vector<Vec>& pts = m_scratch;
    pts.clear();
    pts.push_back(v[0].p);
    for (size_t i = 0; i + 1 < v.size(); ++i) Bulge(pts, v[i].p, v[i + 1].p, v[i].bulge);
    if (closed && v.size() > 1 && std::fabs(v.back().bulge) > 1e-9) Bulge(pts, v.back().p, v[0].p, v.back().bulge);
    const Ocs ocs(e.normal);
    for (Vec& p : pts) p = ocs.ToWorld(p);
    Curve(g, slot, pts, closed);
}

void Reader::Spline(const Entity& e, Geom& g, uint32_t slot) {
    std::vector<double> knots, weights;
    std::vector<Vec> ctrl, fit;
    for (const CDxfTag& t : m_body) {
        const int c = t.code;
        if (!(c == 40 || c == 41 || c == 10 || c == 20 || c == 30 || c == 11 || c == 21 || c == 31)) continue;
        double d;
        if (!CDxfTagReader::ToDouble(t, d) || !std::isfinite(d)) {
            ++m_badValues;
            continue;
        }
        if (c == 40) knots.push_back(d);
        else if (c == 41) weights.push_back(d);
        else if (c == 10) ctrl.push_back({d, 0, 0});
        else if (c == 11) fit.push_back({d, 0, 0});
        else if ((c == 20 || c == 30) && !ctrl.empty()) (c == 20 ? ctrl.back().y : ctrl.back().z) = d;
        else if ((c == 21 || c == 31) && !fit.empty()) (c == 21 ? fit.back().y : fit.back().z) = d;
    }
    const bool closed = (e.I(70) & 1) != 0;
    std::vector<Vec>& pts = m_scratch;
    pts.clear();
    const long long degree = e.I(71, 3);
    const size_t n = ctrl.size();
    if (n < 2 || degree < 1 || degree > 25 || static_cast<size_t>(degree) >= n) {
        // Fit points only (or a degenerate spline): the poly-line through what there is.
        Curve(g, slot, fit.size() >= 2 ? fit : ctrl, closed);
        return;
    }
    const size_t p = static_cast<size_t>(degree);
    bool valid = knots.size() == n + p + 1;
    for (size_t i = 1; valid && i < knots.size(); ++i) valid = knots[i] >= knots[i - 1];
    if (!valid || knots[p] >= knots[n]) {
        // Clamped uniform knots.
        knots.assign(n + p + 1, 0);
        for (size_t i = 0; i < knots.size(); ++i) knots[i] = i <= p ? 0 : i >= n ? double(n - p) : double(i - p);
    }
    bool rational = weights.size() == n;
    for (size_t i = 0; rational && i < n; ++i) rational = weights[i] > 0;
    const size_t spans = n - p;
    const size_t perSpan = std::max<size_t>(1, std::min<size_t>(16, kMaxSplinePoints / spans));
    std::vector<Vec> d(p + 1);
    std::vector<double> w(p + 1);
    for (size_t s = p; s < n; ++s) {
        const double k0 = knots[s], k1 = knots[s + 1];
        if (!(k1 > k0)) continue;
        const size_t first = pts.empty() ? 0 : 1;
        for (size_t j = first; j <= perSpan; ++j) {
            const double u = k0 + (k1 - k0) * double(j) / double(perSpan);
            // de Boor on the span [k0, k1) (homogeneous when rational).
            for (size_t r = 0; r <= p; ++r) {
                const size_t ci = s - p + r;
                w[r] = rational ? weights[ci] : 1.0;
                d[r] = ctrl[ci] * w[r];
            }
            for (size_t r = 1; r <= p; ++r)
                for (size_t jj = p; jj >= r; --jj) {
                    const size_t ki = jj + s - p;
                    const double den = knots[ki + p - r + 1] - knots[ki];
                    const double a = den > 0 ? (u - knots[ki]) / den : 0;
                    d[jj] = d[jj - 1] * (1 - a) + d[jj] * a;
                    w[jj] = w[jj - 1] * (1 - a) + w[jj] * a;
                }
            pts.push_back(w[p] != 0 ? d[p] * (1.0 / w[p]) : d[p]);
        }
        if (pts.size() >= static_cast<size_t>(kMaxSplinePoints)) break;
    }
    Curve(g, slot, pts, closed);
}

void Reader::Insert(const Entity& e, std::vector<InsertRec>& to, uint32_t layer) {
    InsertRec r;
    r.key = LowerKey(e.name);
    r.pos = e.p[0];
    r.scale = {e.F(41, 1), e.F(42, 1), e.F(43, 1)};
    r.rotation = e.F(50);
    r.cols = std::max(1LL, e.I(70, 1));
    r.rows = std::max(1LL, e.I(71, 1));
    r.colSpacing = e.F(44);
    r.rowSpacing = e.F(45);
    r.normal = e.normal;
    r.color = ColorOf(e, layer);
    r.layer = layer;
    to.push_back(std::move(r));
}

void Reader::PolylineStart(const Entity& e) {
    m_poly = true;
    m_polyHead = e;
    m_polyLayer = LayerIndex(e.layer);
    m_polyGeom = e.paper ? nullptr : Target(m_polyLayer);
    m_vertices.clear();
}

void Reader::PolylineVertex(const Entity& e) {
    Vertex v;
    v.p = e.p[0];
    v.hasZ = e.hasZ[0];
    v.bulge = e.F(42);
    v.flags = e.I(70);
    int n = 0;
    for (int c = 71; c <= 74 && e.HasI(c); ++c) {
        const long long x = e.i[c - 70];
        if (x == 0) break;
        v.idx[n++] = static_cast<int>(std::clamp(x < 0 ? -x : x, 0LL, 1LL << 30));
    }
    v.face = (v.flags & 128) && !(v.flags & 64);
    if (!(v.flags & (64 | 128)) && n > 0 && (m_polyHead.I(70) & 64)) v.face = true;
    if (v.face) {
        for (int k = n; k < 4; ++k) v.idx[k] = 0;
        if (e.hasColor || e.rgb >= 0) {
            v.hasColor = true;
            v.color = ColorOf(e, LayerIndex(e.layer));
        }
    }
    m_vertices.push_back(v);
}

void Reader::PolylineEnd() {
    m_poly = false;
    if (!m_polyGeom) return;
    Geom& g = *m_polyGeom;
    const Entity& h = m_polyHead;
    const long long flags = h.I(70);
    const uint32_t slot = g.Slot(ColorOf(h, m_polyLayer));
    if (flags & 64) {                             // polyface mesh
        std::vector<uint32_t>& pos = m_vertexPos; // vertex number - 1 -> point index
        pos.clear();
        Room(g.faces, m_vertices.size(), 4 * m_vertices.size(), m_vertices.size());
        const uint32_t base = g.faces.PointCount();
        for (const Vertex& v : m_vertices)
            if (!v.face) {
                pos.push_back(base + static_cast<uint32_t>(pos.size()));
                g.faces.AddPoint(v.p);
            }
        for (const Vertex& v : m_vertices) {
            if (!v.face) continue;
            uint32_t f[4];
            int k = 0;
            bool bad = false;
            for (int i = 0; i < 4 && v.idx[i] != 0; ++i) {
                if (static_cast<size_t>(v.idx[i]) > pos.size()) {
                    bad = true;
                    break;
                }
                const uint32_t p = pos[static_cast<size_t>(v.idx[i] - 1)];
                if (k == 0 || f[k - 1] != p) f[k++] = p;
            }
            if (k > 1 && f[k - 1] == f[0]) --k;
            if (bad || k < 3) {
                ++m_droppedFaces;
                continue;
            }
            g.faces.AddIndices(f, k, v.hasColor ? g.Slot(v.color) : slot);
        }
        return;
    }
    if (flags & 16) { // M x N polygon mesh
        long long m = h.I(71), n = h.I(72);
        std::vector<const Vertex*> grid;
        const long long fm = h.I(73), fn = h.I(74);
        if (h.I(75) != 0 && fm > 1 && fn > 1) {
            for (const Vertex& v : m_vertices)
                if (v.flags & 8) grid.push_back(&v);
            if (static_cast<long long>(grid.size()) >= fm * fn) m = fm, n = fn;
            else grid.clear();
        }
        if (grid.empty())
            for (const Vertex& v : m_vertices)
                if (!(v.flags & 8)) grid.push_back(&v);
        if (n < 1 || m < 1) return;
        m = std::min(m, static_cast<long long>(grid.size()) / n); // whole rows only
        if (m < 1 || n < 1) return;
        const bool closeM = (flags & 1) != 0, closeN = (flags & 32) != 0;
        const uint32_t base = g.faces.PointCount();
        for (long long i = 0; i < m * n; ++i) g.faces.AddPoint(grid[static_cast<size_t>(i)]->p);
        const long long rowsEnd = closeM ? m : m - 1, colsEnd = closeN ? n : n - 1;
        for (long long i = 0; i < rowsEnd; ++i)
            for (long long j = 0; j < colsEnd; ++j) {
                const long long i1 = (i + 1) % m, j1 = (j + 1) % n;
                if (i1 == i || j1 == j) continue;
                const uint32_t q[4] = {
                    base + static_cast<uint32_t>(i * n + j), base + static_cast<uint32_t>(i * n + j1),
                    base + static_cast<uint32_t>(i1 * n + j1), base + static_cast<uint32_t>(i1 * n + j)};
                g.faces.AddIndices(q, 4, slot);
            }
        return;
    }
    // 2D (OCS at the header's elevation, bulges) or 3D (world) poly-line.
    std::vector<Vec>& pts = m_scratch;
    pts.clear();
    const bool closed = (flags & 1) != 0;
    if (flags & 8) {
        for (const Vertex& v : m_vertices)
            if (!(v.flags & 16)) pts.push_back(v.p);
    } else {
        std::vector<Vec> v;
        for (const Vertex& x : m_vertices)
            // Vertices should sit at the elevation; some writers give each its own z instead.
            if (!(x.flags & 16)) v.push_back({x.p.x, x.p.y, x.hasZ ? x.p.z : h.p[0].z});
        if (v.empty()) return;
        pts.push_back(v[0]);
        std::vector<double> bulges;
        for (const Vertex& x : m_vertices)
            if (!(x.flags & 16)) bulges.push_back(x.bulge);
        for (size_t i = 0; i + 1 < v.size(); ++i) Bulge(pts, v[i], v[i + 1], bulges[i]);
        if (closed && v.size() > 1 && std::fabs(bulges.back()) > 1e-9) Bulge(pts, v.back(), v[0], bulges.back());
        const Ocs ocs(h.normal);
        for (Vec& p : pts) p = ocs.ToWorld(p);
    }
    Curve(g, slot, pts, closed);
}

void Reader::EntityGroup(std::string_view type) {
    if (m_poly) {
        if (type == "VERTEX") {
            PolylineVertex(Parse());
            return;
        }
        PolylineEnd();
        if (type == "SEQEND") return;
    }
    if (type == "SEQEND" || type == "ATTRIB" || type == "VERTEX") return;
    const Entity& e = Parse();
    if (type == "POLYLINE") {
        PolylineStart(e);
        return;
    }
    if (type == "3DSOLID" || type == "BODY" || type == "REGION") {
        ++m_acis;
        return;
    }
    if (e.paper) return;
    const uint32_t layer = LayerIndex(e.layer);
    if (type == "INSERT") {
        // Placements are kept apart from geometry: a block of nothing but INSERTs stays small.
        if (e.name.empty()) return;
        if (m_section == Sect::Entities) Insert(e, m_layers[layer].inserts, layer);
        else if (m_section == Sect::Blocks && m_block && !m_block->paper) Insert(e, m_block->inserts, layer);
        return;
    }
    Geom* gp = Target(layer);
    if (!gp) return;
    Geom& g = *gp;
    const uint32_t slot = g.Slot(ColorOf(e, layer));
    std::vector<Vec>& pts = m_scratch;
    if (type == "3DFACE") {
        Face(g, slot, e.p, 4);
    } else if (type == "SOLID" || type == "TRACE") {
        const Ocs ocs(e.normal);
        const double z = e.p[0].z;
        Vec c[4] = {e.p[0], e.p[1], e.p[3], e.p[2]}; // drawn 1, 2, 4, 3
        for (Vec& p : c) p = ocs.ToWorld({p.x, p.y, z});
        Face(g, slot, c, 4);
    } else if (type == "LINE") {
        pts.assign({e.p[0], e.p[1]});
        Curve(g, slot, pts, false);
    } else if (type == "POINT") {
        g.dots.push_back(static_cast<float>(e.p[0].x));
        g.dots.push_back(static_cast<float>(e.p[0].y));
        g.dots.push_back(static_cast<float>(e.p[0].z));
        g.dotSlot.push_back(slot);
    } else if (type == "CIRCLE" || type == "ARC") {
        pts.clear();
        const double r = e.F(40);
        if (type == "CIRCLE") {
            Arc(pts, Ocs(e.normal), e.p[0], r, 0, 2 * kPi);
            if (!pts.empty()) pts.pop_back(); // closed by the curve instead
            Curve(g, slot, pts, true);
        } else {
            const double a0 = e.F(50), a1 = e.F(51);
            double sweep = std::fmod(a1 - a0, 360.0);
            if (sweep < 0) sweep += 360;
            if (sweep == 0) return;
            Arc(pts, Ocs(e.normal), e.p[0], r, a0 * kPi / 180, sweep * kPi / 180);
            Curve(g, slot, pts, false);
        }
    } else if (type == "ELLIPSE") {
        const Vec major = e.p[1];
        const double ratio = e.F(40, 1);
        const double len = major.Length();
        if (!(len > 0) || !(ratio > 0) || ratio > 1e6) return;
        const Vec minor = e.normal.Unit().Cross(major).Unit() * (ratio * len);
        double t0 = e.F(41), t1 = e.F(42, 2 * kPi);
        double sweep = std::fmod(t1 - t0, 2 * kPi);
        if (sweep <= 1e-12) sweep += 2 * kPi;
        const bool full = std::fabs(sweep - 2 * kPi) < 1e-9;
        const int k =
            std::clamp(static_cast<int>(std::ceil(sweep / (2 * kPi) * kSegmentsPerTurn)), 1, kSegmentsPerTurn);
        pts.clear();
        for (int i = 0; i <= (full ? k - 1 : k); ++i) {
            const double t = t0 + sweep * i / k;
            pts.push_back(e.p[0] + major * std::cos(t) + minor * std::sin(t));
        }
        Curve(g, slot, pts, full);
    } else if (type == "LWPOLYLINE") {
        LwPolyline(e, g, slot);
    } else if (type == "SPLINE") {
        Spline(e, g, slot);
    }
}

uint32_t Reader::Rgb(const ColorRef& c, const Context& ctx) const {
    switch (c.kind) {
    case ColorRef::Rgb: return c.value;
    case ColorRef::Index: return DxfAciToRgb(static_cast<int>(c.value));
    case ColorRef::ByBlock: return ctx.byBlockRgb;
    case ColorRef::ByLayer: {
        uint32_t l = c.value;
        if (l == 0 && !m_layers.empty()) l = ctx.layerZero; // layer "0" is the first one made
        const ColorRef& lc = m_layers[l].color;
        return lc.kind == ColorRef::Rgb ? lc.value : DxfAciToRgb(static_cast<int>(lc.value));
    }
    }
    return 0xFFFFFF;
}

uint32_t Reader::Material(uint32_t rgb) {
    auto it = m_materials.find(rgb);
    if (it != m_materials.end()) return it->second;
    auto* mat = static_cast<C3DStandardMaterial*>(m_scene->CreateNewMaterial(MATERIAL_STANDARD));
    const CRGBColor col(static_cast<uint8_t>(rgb >> 16), static_cast<uint8_t>(rgb >> 8), static_cast<uint8_t>(rgb));
    mat->SetDiffuseColor(col);
    mat->SetAmbientColor(col);
    static const wchar_t hex[] = L"0123456789ABCDEF";
    std::wstring n = L"Color ";
    for (int s = 20; s >= 0; s -= 4) n += hex[(rgb >> s) & 0xF];
    mat->SetName(CXStringW(n));
    m_materials.emplace(rgb, mat->GetID());
    return mat->GetID();
}

// Point cloud objects (POINT entities).
class CDxfPoints : public C3DObject {
public:
    CDxfPoints() : C3DObject(KINDOF_POINTCLOUD) {}
    std::unique_ptr<C3DBaseObject> Clone() const override { return std::make_unique<CDxfPoints>(*this); }
};

// Makes the nodes for `g` under `parent`; `copy` keeps g intact (blocks are used again).
void Reader::Emit(Geom& g, C3DSceneNode* parent, const CXStringW& name, const Context& ctx, bool mirrored, bool hidden,
                  bool copy) {
    // Materials only for the colours faces and lines use.
    if (copy && !g.numbered) g.NumberUsedSlots();
    std::vector<uint32_t> mats(copy ? g.usedCount : g.slots.size(), NO_MATERIAL);
    auto strips = [&](Strips& s, C3DGeomObject* obj) {
        C3DFaceList* fl = obj->GetFaceList();
        IndexArray materials(s.slot.size());
        for (size_t i = 0; i < s.slot.size(); ++i) {
            uint32_t& m = mats[copy ? g.used[s.slot[i]] : s.slot[i]];
            if (m == NO_MATERIAL) m = Material(Rgb(g.slots[s.slot[i]], ctx));
            materials[i] = m;
        }
        CFaceList::FlagArray flags(s.slot.size());
        if (copy) {
            obj->GetPointList()->Raw() = s.pts;
            fl->Adopt(IndexArray(s.off), IndexArray(s.idx), std::move(flags), std::move(materials));
        } else {
            // Arrays sized ahead for a drawing that then ended early give back the rest.
            const auto fit = [](auto& a) {
                if (a.capacity() - a.size() > a.size() / 2) a.shrink_to_fit();
            };
            fit(s.pts);
            fit(s.idx);
            fit(s.off);
            fit(s.slot);
            obj->GetPointList()->Raw() = std::move(s.pts);
            fl->Adopt(std::move(s.off), std::move(s.idx), std::move(flags), std::move(materials));
        }
        auto* node = new C3DSceneNode(obj);
        node->SetName(name);
        if (hidden) node->SetFlag(NODE_HIDDEN);
        m_scene->AddNode(parent, node);
        m_anything = true;
    };
    if (!g.faces.Empty()) {
        auto* obj = new C3DObject();
        strips(g.faces, obj);
        if (mirrored) obj->InvertFaceWinding();
    }
    if (!g.curves.Empty()) strips(g.curves, new C3DCurve());
    if (!g.dots.empty()) {
        auto* obj = new CDxfPoints();
        if (copy) obj->GetPointList()->Raw() = g.dots;
        else obj->GetPointList()->Raw() = std::move(g.dots);
        auto* node = new C3DSceneNode(obj);
        node->SetName(name);
        if (hidden) node->SetFlag(NODE_HIDDEN);
        m_scene->AddNode(parent, node);
        m_anything = true;
    }
}

int32_t Reader::BlockIndex(const std::string& key) const {
    const auto it = m_blockOf.find(key);
    return it == m_blockOf.end() ? -1 : static_cast<int32_t>(it->second);
}

// A block's inserts are looked up once, when it is first placed, not per placement: a
// block of many inserts, placed many times, would otherwise pay for every lookup again.
void Reader::ResolveInserts(Block& b) {
    b.resolved = true;
    for (size_t i = 0; i < b.inserts.size(); ++i) {
        InsertRec& ins = b.inserts[i];
        ins.block = BlockIndex(ins.key);
        if (ins.block < 0) {
            ++b.missing;
            continue;
        }
        const auto target = static_cast<uint32_t>(ins.block);
        if (m_blocks[target].paper) continue;
        if (b.runs.empty() || b.runs.back().block != target)
            b.runs.push_back({static_cast<uint32_t>(b.live.size()), 0, target});
        ++b.runs.back().count;
        b.live.push_back(static_cast<uint32_t>(i));
    }
}

// Expands an insert inside a block. Those that place nothing (a cycle cut, too deep, past a
// cap) are counted: a block of many of them, placed many times, must not run unbounded.
void Reader::ExpandInBlock(const InsertRec& ins, C3DSceneNode* parent, const Context& ctx, int depth, bool mirrored) {
    const size_t before = m_instances;
    Expand(ins, parent, ctx, depth, mirrored);
    if (m_instances != before || ++m_idle <= m_maxIdle || m_stopped) return;
    m_stopped = true;
    if (!m_capLogged)
        Log(L"Too many block insertions: the drawing is cut off after " + std::to_wstring(m_instances) + L" of them.");
    m_capLogged = true;
}

void Reader::Expand(const InsertRec& ins, C3DSceneNode* parent, const Context& ctx, int depth, bool mirrored) {
    if (ins.block < 0) {
        ++m_missingBlocks;
        return;
    }
    Block& b = m_blocks[static_cast<size_t>(ins.block)];
    if (b.paper || m_stopped) return;
    if (b.open) {
        if (!m_cycleLogged) Log(L"A block inserts itself; the repeated insertion is left out.");
        m_cycleLogged = true;
        return;
    }
    if (depth >= kMaxInsertDepth) {
        if (!m_depthLogged) Log(L"Blocks nest too deeply; the deepest insertions are left out.");
        m_depthLogged = true;
        return;
    }
    Context inner;
    inner.byBlockRgb = Rgb(ins.color, ctx);
    inner.layerZero = ins.layer == 0 ? ctx.layerZero : ins.layer;
    const size_t values = b.Values();
    if (!b.resolved) ResolveInserts(b);

    // world = T(-base) S T(grid) Rz T(pos) OCS, for row vectors.
    using M = C4x4TMatrix<double>;
    const M s = M::Scaling(ins.scale.x, ins.scale.y, ins.scale.z);
    M pre = M::Translation(-b.base.x, -b.base.y, -b.base.z) * s;
    const double a = ins.rotation * kPi / 180;
    M rz;
    rz.m[0][0] = std::cos(a);
    rz.m[0][1] = std::sin(a);
    rz.m[1][0] = -std::sin(a);
    rz.m[1][1] = std::cos(a);
    const Ocs ocs(ins.normal);
    M o;
    const Vec* axes[3] = {&ocs.ax, &ocs.ay, &ocs.az};
    for (int r = 0; r < 3; ++r) {
        o.m[r][0] = axes[r]->x;
        o.m[r][1] = axes[r]->y;
        o.m[r][2] = axes[r]->z;
    }
    const M post = rz * M::Translation(ins.pos.x, ins.pos.y, ins.pos.z) * o;
    const bool mirror = mirrored != (pre.Determinant3() * post.Determinant3() < 0);

    b.open = true;
    for (long long row = 0; row < ins.rows; ++row)
        for (long long col = 0; col < ins.cols; ++col) {
            if (m_stopped || m_instances >= m_maxInstances || m_instancedValues + values > kMaxInstancedValues ||
                m_cancelled()) {
                if (!m_capLogged)
                    Log(L"Too many block insertions: the drawing is cut off after " + std::to_wstring(m_instances) +
                        L" of them.");
                m_capLogged = true;
                b.open = false;
                return;
            }
            ++m_instances;
            m_instancedValues += values;
            const M tm = pre * M::Translation(col * ins.colSpacing, row * ins.rowSpacing, 0) * post;
            C4x4Matrix f;
            for (int r = 0; r < 4; ++r)
                for (int c = 0; c < 4; ++c) f.m[r][c] = static_cast<float>(tm.m[r][c]);
            auto* node = new C3DSceneNode();
            node->SetName(b.name);
            node->SetNodeLocalTM(f);
            m_scene->AddNode(parent, node);
            if (b.geom) Emit(*b.geom, node, b.name, inner, mirror, false, true);
            m_missingBlocks += b.missing;
            for (const Block::Run& run : b.runs) {
                if (m_stopped) break;
                const Block& t = m_blocks[run.block];
                const InsertRec& head = b.inserts[b.live[run.first]];
                if (t.open || depth + 1 >= kMaxInsertDepth) {
                    // The whole run is cut alike: one visit says so for all of it.
                    ExpandInBlock(head, node, inner, depth + 1, mirror);
                    continue;
                }
                for (uint32_t k = 0; k < run.count; ++k) {
                    // Past a cap the rest of the run places nothing either.
                    if (m_capLogged && (m_stopped || m_instances >= m_maxInstances ||
                                        m_instancedValues + t.Values() > kMaxInstancedValues))
                        break;
                    ExpandInBlock(b.inserts[b.live[run.first + k]], node, inner, depth + 1, mirror);
                }
            }
        }
    b.open = false;
}

ReadOutcome Reader::Run(std::span<const uint8_t> data, const SplitPlan* split) {
    ReadOutcome out;
    CDxfTagReader& tags = *m_tags;
    if (split) StartSecondHalf(data, *split);
    // The first pair tells whether this is DXF at all.
    {
        CDxfTag t;
        do {
            if (!tags.Next(t)) {
                out.error = IO_ERR_FORMAT;
                return out;
            }
        } while (t.code == 999);
        if (t.code != 0) {
            out.error = IO_ERR_FORMAT;
            return out;
        }
        m_pendingType = t.text;
        m_hasPending = true;
    }
    // Arrays let a few bytes ask for millions of placements: small files get fewer.
    m_maxInstances = std::min(kMaxInstances, 4096 + data.size() / 16);
    m_maxIdle = kIdleInsertsPerInstance * m_maxInstances;
    m_inputSize = data.size();
    m_scene = std::make_unique<C3DScene>();
    LayerIndex("0"); // index 0: layer "0", which block content takes from its INSERT
    size_t groups = 0;
    bool ended = false;
    while (NextGroup()) {
        if ((++groups & 1023) == 0 && m_cancelled()) {
            out.error = IO_ERR_CANCELLED;
            out.scene.reset();
            return out;
        }
        if (m_truncatedGroup) Log(kTruncatedGroup);
        const std::string_view type = m_type;
        if (type == "SECTION") {
            if (m_poly) PolylineEnd();
            std::string_view name;
            for (const CDxfTag& t : m_body)
                if (t.code == 2) {
                    name = t.text;
                    break;
                }
            Section(name);
            if (m_section == Sect::Header) Header();
            continue;
        }
        if (type == "ENDSEC") {
            if (m_poly) PolylineEnd();
            m_section = Sect::None;
            m_block = nullptr;
            continue;
        }
        if (type == "EOF") {
            ended = true;
            break;
        }
        if (m_section == Sect::Tables) {
            if (type == "LAYER") LayerEntry();
            continue;
        }
        if (m_section == Sect::Blocks) {
            if (type == "BLOCK") {
                if (m_poly) PolylineEnd();
                const Entity& e = Parse();
                const auto [at, added] =
                    m_blockOf.try_emplace(LowerKey(e.name), static_cast<uint32_t>(m_blocks.size()));
                if (!added) {
                    m_block = nullptr; // a second definition of a name: the first one stays
                    continue;
                }
                const std::string& key = at->first;
                m_blocks.emplace_back();
                m_block = &m_blocks.back();
                m_block->name = DecodeName(e.name, m_codePage);
                m_block->base = e.p[0];
                m_block->paper = key.rfind("*paper_space", 0) == 0;
                // Blocks are in a vector that may grow: refer to them by index from here on.
                continue;
            }
            if (type == "ENDBLK") {
                if (m_poly) PolylineEnd();
                m_block = nullptr;
                continue;
            }
        }
        if (m_section == Sect::Blocks || m_section == Sect::Entities) EntityGroup(type);
    }
    if (m_poly) PolylineEnd();
    if (tags.Failed())
        Log(L"The file is damaged after byte " + std::to_wstring(tags.Position()) + L"; reading stopped there.");
    else if (!ended) Log(L"The file ends without EOF.");
    if (m_badValues) Log(std::to_wstring(m_badValues) + L" values that are not numbers were left at their defaults.");
    if (m_acis) Log(std::to_wstring(m_acis) + L" 3DSOLID/BODY/REGION entities skipped (their ACIS data is not read).");
    if (m_droppedFaces)
        Log(std::to_wstring(m_droppedFaces) + L" polyface faces with vertex numbers out of range were dropped.");

    // Layers and what is on them; INSERTs last, once every block is known.
    Context top;
    for (size_t li = 0; li < m_layers.size(); ++li) {
        Layer& l = m_layers[li];
        if ((!l.top || !l.top->HasGeometry()) && l.inserts.empty()) continue;
        auto* node = new C3DSceneNode();
        node->SetName(l.name);
        const bool hidden = l.frozen || l.off;
        if (hidden) node->SetFlag(NODE_HIDDEN);
        if (l.frozen) node->SetFlag(NODE_FROZEN);
        m_scene->AddNode(nullptr, node);
        if (l.top) Emit(*l.top, node, l.name, top, false, hidden, false);
        for (InsertRec& ins : l.inserts) {
            ins.block = BlockIndex(ins.key);
            Expand(ins, node, top, 0, false);
        }
        if (m_cancelled()) {
            out.error = IO_ERR_CANCELLED;
            return out;
        }
    }
    if (m_missingBlocks)
        Log(std::to_wstring(m_missingBlocks) + L" insertions of blocks that are not defined were skipped.");
    if (!m_anything) {
        out.error = IO_ERR_EMPTY;
        return out;
    }
    // Drawing units as centimetres per unit.
    static const double kCm[] = {
        0,         2.54,        30.48,      160934.4,    0.1,        1,    100,   100000, 2.54e-6,        2.54e-3,
        91.44,     1e-8,        1e-7,       1e-4,        10,         1000, 10000, 1e11,   1.495978707e13, 9.4607e17,
        3.0857e18, 30.48006096, 2.54000508, 91.44018288, 160934.7219};
    static const int kUnit[] = {UNIT_NONE,       UNIT_INCH,       UNIT_FOOT,  UNIT_MILE,
                                UNIT_MILLIMETER, UNIT_CENTIMETER, UNIT_METER, UNIT_KILOMETER};
    if (m_insUnits > 0 && m_insUnits < static_cast<long long>(std::size(kCm))) {
        m_scene->SetScaleFactor(kCm[m_insUnits]);
        m_scene->SetUnit(m_insUnits < static_cast<long long>(std::size(kUnit)) ? kUnit[m_insUnits] : UNIT_NONE);
    }
    out.scene = std::move(m_scene);
    out.halves = m_joined;
    return out;
}

// Cuts the drawing near its middle, before an entity that nothing before it continues (a
// VERTEX, ATTRIB or SEQEND would). Found in the text, not the pairs, and without knowing
// the sections: a plan that does not fit is harmless, since the halves only join where
// the first half's own reading stands exactly at the cut, in the ENTITIES section.
bool PlanSplit(std::span<const uint8_t> data, SplitPlan& plan) {
    const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
    constexpr size_t npos = std::string_view::npos;
    constexpr size_t kLook = size_t{1} << 20; // how far past the middle a cut is looked for
    // The line at p, trimmed; `next` is the start of the following one.
    auto line = [&](size_t p, size_t& next) {
        size_t e = text.find('\n', p);
        if (e == npos) e = text.size();
        next = e + 1;
        std::string_view l = text.substr(p, e - p);
        while (!l.empty() && (l.back() == '\r' || l.back() == ' ')) l.remove_suffix(1);
        while (!l.empty() && l.front() == ' ') l.remove_prefix(1);
        return l;
    };
    static constexpr std::string_view kStarts[] = {"3DFACE",  "POLYLINE", "LINE",  "LWPOLYLINE", "INSERT",
                                                   "SOLID",   "TRACE",    "POINT", "CIRCLE",     "ARC",
                                                   "ELLIPSE", "SPLINE",   "TEXT",  "MTEXT"};
    const size_t mid = text.find('\n', text.size() / 2);
    if (mid == npos) return false;
    const size_t stop = std::min(text.size(), mid + kLook);
    for (size_t p = mid + 1, afterZero = 0; p < stop; p = afterZero) {
        if (line(p, afterZero) != "0" || afterZero >= text.size()) continue;
        size_t afterType;
        const std::string_view type = line(afterZero, afterType);
        if (std::find(std::begin(kStarts), std::end(kStarts), type) != std::end(kStarts)) {
            plan = {p, std::min(afterType, text.size())};
            return true;
        }
    }
    return false;
}

} // namespace

ReadOutcome ReadDxf(std::span<const uint8_t> data, CSceneImportOptions& options, const std::function<bool()>& cancelled,
                    const SplitTuning& split) {
    CDxfTagReader tags(data);
    Reader r(options, cancelled, tags);
    SplitPlan plan;
    const bool cut = data.size() >= split.minBytes && tags.IsLfText() &&
                     (split.anyProcessors || hostmem::SecondThreadAllowed()) && PlanSplit(data, plan);
    return r.Run(data, cut ? &plan : nullptr);
}

} // namespace dxf
