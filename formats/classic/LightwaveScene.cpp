// Lightwave scenes: text, one statement a line, "LWSC" and a version on the first two lines.
// Items (objects loaded from LWO files or their layers, nulls, bones, lights, cameras) are
// introduced by their Load/Add line and own every line up to the next one. Motion comes in
// three syntaxes: version 1 (all channels per key, frames), 2 (per channel, seconds) and
// 3 and later ("{ Envelope" blocks); angles are degrees before version 3, radians after.
// Items refer to their parents by an 8-digit hex ID (type digit + ordinal), forward or back.
#include "formats/classic/LightwaveScene.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <map>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>

#include "formats/classic/LightwaveObject.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Keys.h"
#include "plugin/host/Object.h"
#include "plugin/host/ParentLinks.h"

namespace lightwave {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kMaxItemDepth = 256;
constexpr int kMaxFramesPerItem = 2000;
constexpr size_t kMaxBakedKeys = 2000000; // over the whole scene
constexpr size_t kMaxObjectFiles = 256;   // distinct LWO files loaded per scene
constexpr int kMaxParentFolders = 3;      // content folder search above the scene's folder

// ---------------------------------------------------------------------------------------
// Envelope evaluation

double Hermite(double s, double a, double b, double outTan, double inTan) {
    const double s2 = s * s, s3 = s2 * s;
    return (2 * s3 - 3 * s2 + 1) * a + (-2 * s3 + 3 * s2) * b + (s3 - 2 * s2 + s) * outTan + (s3 - s2) * inTan;
}

// Kochanek-Bartels tangents in value per segment, scaled for uneven key spacing.
double OutgoingTangent(const std::vector<EnvelopeKey>& k, size_t i) {
    const EnvelopeKey& c = k[i];
    const EnvelopeKey& nx = k[i + 1];
    if (nx.span == 1 || nx.span == 2) return c.p[4] * (nx.time - c.time);
    const double t = c.p[0], cont = c.p[1], b = c.p[2];
    if (i == 0) return (1 - t) * (nx.value - c.value);
    const EnvelopeKey& pv = k[i - 1];
    const double dPrev = c.time - pv.time, dNext = nx.time - c.time;
    const double tan = (1 - t) * (1 + cont) * (1 + b) / 2 * (c.value - pv.value) +
                       (1 - t) * (1 - cont) * (1 - b) / 2 * (nx.value - c.value);
    return dPrev + dNext > 0 ? tan * 2 * dNext / (dPrev + dNext) : tan;
}

double IncomingTangent(const std::vector<EnvelopeKey>& k, size_t i) {
    const EnvelopeKey& c = k[i];
    const EnvelopeKey& pv = k[i - 1];
    if (c.span == 1 || c.span == 2) return c.p[3] * (c.time - pv.time);
    const double t = c.p[0], cont = c.p[1], b = c.p[2];
    if (i + 1 == k.size()) return (1 - t) * (c.value - pv.value);
    const EnvelopeKey& nx = k[i + 1];
    const double dPrev = c.time - pv.time, dNext = nx.time - c.time;
    const double tan = (1 - t) * (1 - cont) * (1 + b) / 2 * (c.value - pv.value) +
                       (1 - t) * (1 + cont) * (1 - b) / 2 * (nx.value - c.value);
    return dPrev + dNext > 0 ? tan * 2 * dPrev / (dPrev + dNext) : tan;
}

// 2-D Bezier: handles are (time, value) offsets from their keys; the curve is solved for
// the parameter whose time is `time` (monotone once the handles stay inside the span).
double Bezier2D(const EnvelopeKey& a, const EnvelopeKey& b, double time) {
    const double dt = b.time - a.time;
    double ot = a.p[2], ov = a.p[3], it = b.p[0], iv = b.p[1];
    if (ot <= 0) ot = dt / 3;
    if (it >= 0) it = -dt / 3;
    ot = std::min(ot, dt);
    it = std::max(it, -dt);
    const double x0 = a.time, x1 = a.time + ot, x2 = b.time + it, x3 = b.time;
    const double y0 = a.value, y1 = a.value + ov, y2 = b.value + iv, y3 = b.value;
    auto bez = [](double u, double p0, double p1, double p2, double p3) {
        const double v = 1 - u;
        return v * v * v * p0 + 3 * v * v * u * p1 + 3 * v * u * u * p2 + u * u * u * p3;
    };
    double lo = 0, hi = 1;
    for (int n = 0; n < 48; ++n) {
        const double mid = (lo + hi) / 2;
        if (bez(mid, x0, x1, x2, x3) < time) lo = mid;
        else hi = mid;
    }
    return bez((lo + hi) / 2, y0, y1, y2, y3);
}

double Segment(const std::vector<EnvelopeKey>& k, size_t i, double time) {
    const EnvelopeKey& a = k[i - 1];
    const EnvelopeKey& b = k[i];
    const double dt = b.time - a.time;
    if (dt <= 0) return b.value;
    const double s = std::clamp((time - a.time) / dt, 0.0, 1.0);
    switch (b.span) {
    case 4: return s < 1 ? a.value : b.value;
    case 3: return a.value + (b.value - a.value) * s;
    case 5: return Bezier2D(a, b, time);
    default: return Hermite(s, a.value, b.value, OutgoingTangent(k, i - 1), IncomingTangent(k, i));
    }
}

double ValueAt(const std::vector<EnvelopeKey>& k, double time) {
    auto it = std::upper_bound(k.begin(), k.end(), time, [](double t, const EnvelopeKey& e) { return t < e.time; });
    size_t i = static_cast<size_t>(it - k.begin());
    if (i == 0) return k.front().value;
    if (i >= k.size()) return k.back().value;
    return Segment(k, i, time);
}

} // namespace

double Envelope::Evaluate(double time) const {
    if (keys.empty()) return 0;
    if (keys.size() == 1 || !std::isfinite(time)) return keys[0].value;
    const EnvelopeKey& first = keys.front();
    const EnvelopeKey& last = keys.back();
    const double span = last.time - first.time;
    const bool before = time<first.time, after = time> last.time;
    if (!before && !after) return ValueAt(keys, time);
    const int mode = before ? pre : post;
    switch (mode) {
    case 0: return 0;
    case 5: {
        // Straight on with the slope of the end span.
        const EnvelopeKey& a = before ? keys[0] : keys[keys.size() - 2];
        const EnvelopeKey& b = before ? keys[1] : keys.back();
        const double d = b.time - a.time;
        const double slope = d > 0 ? (b.value - a.value) / d : 0;
        return before ? first.value + slope * (time - first.time) : last.value + slope * (time - last.time);
    }
    case 2:
    case 3:
    case 4: {
        if (span <= 0) return before ? first.value : last.value;
        const double cycles = std::floor((time - first.time) / span);
        double local = time - cycles * span;
        if (mode == 3 && std::fmod(std::fabs(cycles), 2.0) == 1.0) local = last.time - (local - first.time);
        double v = ValueAt(keys, std::clamp(local, first.time, last.time));
        if (mode == 4) v += cycles * (last.value - first.value);
        return v;
    }
    default: return before ? first.value : last.value;
    }
}

namespace {

// ---------------------------------------------------------------------------------------
// Lines and tokens

class Lines {
public:
    explicit Lines(std::span<const uint8_t> d) : m_p(reinterpret_cast<const char*>(d.data())), m_end(m_p + d.size()) {}
    bool Next(std::string_view& out) {
        if (m_back) {
            m_back = false;
            out = m_last;
            return true;
        }
        if (m_p >= m_end) return false;
        const char* e = static_cast<const char*>(std::memchr(m_p, '\n', static_cast<size_t>(m_end - m_p)));
        const char* stop = e ? e : m_end;
        std::string_view l(m_p, static_cast<size_t>(stop - m_p));
        m_p = e ? e + 1 : m_end;
        while (!l.empty() && (l.back() == '\r' || l.back() == ' ' || l.back() == '\t')) l.remove_suffix(1);
        while (!l.empty() && (l.front() == ' ' || l.front() == '\t')) l.remove_prefix(1);
        m_last = l;
        ++m_count;
        out = l;
        return true;
    }
    void Unread() { m_back = true; }
    uint64_t Count() const { return m_count; }

private:
    const char* m_p;
    const char* m_end;
    std::string_view m_last;
    bool m_back = false;
    uint64_t m_count = 0;
};

std::string_view Token(std::string_view& s) {
    size_t i = 0;
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) ++i;
    size_t j = i;
    while (j < s.size() && s[j] != ' ' && s[j] != '\t') ++j;
    std::string_view t = s.substr(i, j - i);
    s.remove_prefix(j);
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
    return t;
}

bool Number(std::string_view t, double& out) {
    if (!t.empty() && t.front() == '+') t.remove_prefix(1);
    const auto r = std::from_chars(t.data(), t.data() + t.size(), out);
    return r.ec == std::errc() && r.ptr == t.data() + t.size() && std::isfinite(out);
}

// Up to n numbers from the line; returns how many were read.
int Numbers(std::string_view s, double* out, int n) {
    int k = 0;
    while (k < n) {
        const std::string_view t = Token(s);
        if (t.empty() || !Number(t, out[k])) break;
        ++k;
    }
    return k;
}

bool IsHexId(std::string_view t, uint32_t& id) {
    if (t.size() != 8) return false;
    const auto r = std::from_chars(t.data(), t.data() + 8, id, 16);
    return r.ec == std::errc() && r.ptr == t.data() + 8;
}

// ---------------------------------------------------------------------------------------
// Items

enum ItemType : int { ITEM_OBJECT = 1, ITEM_LIGHT = 2, ITEM_CAMERA = 3, ITEM_BONE = 4 };

struct Item {
    int type = ITEM_OBJECT;
    bool null = false;
    bool wholeFile = false;
    int layer = 1;
    std::string path;
    std::string name;
    uint32_t ownId = 0;
    bool hasOwnId = false;
    uint32_t parentRef = 0;
    bool hasParentRef = false;
    int parentObject = -1; // version 1: object ordinal
    int ordinal = 0;       // within its type
    int boneObject = -1;   // bones: the object item they follow
    double pivot[3] = {0, 0, 0};
    bool hasPivot = false;
    Envelope channels[9];
    bool animated = false;
    // Lights and cameras
    int lightType = 1;
    double color[3] = {1, 1, 1};
    double intensity = 1;
    double cone = -1, edge = -1;
    double zoom = 3.2;
};

class SceneReader {
public:
    SceneReader(const CXStringW& folder, CSceneImportOptions& options, const std::function<bool()>& cancelled,
                uint64_t copyAllowance)
        : m_folder(folder), m_options(options), m_cancelled(cancelled), m_copyBudget(copyAllowance) {}
    int Run(std::span<const uint8_t> data, std::unique_ptr<C3DScene>& out);

private:
    bool Cancelled() {
        if (!m_cancel && m_cancelled && (++m_poll & 1023) == 0 && m_cancelled()) m_cancel = true;
        return m_cancel;
    }
    void Log(const std::wstring& t) { m_options.AddLogInfo(LOG_INFO, CXStringW(t)); }
    Item* Current() { return m_items.empty() ? nullptr : &m_items.back(); }
    Item& NewItem(int type, std::string_view rest);
    void ReadMotion(Lines& lines, Item* item);
    void ReadEnvelopeBlock(Lines& lines, Envelope* env);
    void SkipBlock(Lines& lines);
    double StaticOrEnvelope(Lines& lines, std::string_view rest, double fallback);

    C3DSceneNode* LoadLayer(const Item& it);
    bool ChargeCopy(uint64_t cost);
    void Build(C3DScene& scene);
    void Transform(const Item& it, double time, C3DVector& t, CQuaternion& q, C3DVector& s) const;

    CXStringW m_folder;
    CSceneImportOptions& m_options;
    const std::function<bool()>& m_cancelled;
    bool m_cancel = false;
    uint32_t m_poll = 0;
    int m_version = 3;
    double m_fps = 30;
    double m_firstFrame = 0, m_lastFrame = 60;
    std::vector<Item> m_items;
    int m_counts[5] = {0, 0, 0, 0, 0};
    int m_lastObject = -1;

    struct LoadedFile {
        C3DSceneNode* holder = nullptr; // under the scene root until the end
        bool ok = false;
        // Made on the first layer asked for: the file's layers by number (the first in tree
        // order wins) with their own curves, and whether it has one node besides curves.
        // Searched per item, a file of many layers (or a layer of many child layers) cost
        // items x layers.
        struct Layer {
            C3DSceneNode* node = nullptr;
            std::vector<C3DSceneNode*> curves;
            uint64_t cost = 0; // of a copy, see CopyCost
        };
        bool indexed = false;
        bool costed = false;
        uint64_t wholeCost = 0;
        bool single = false;
        std::unordered_map<uint64_t, Layer> layers;
    };
    std::map<std::wstring, LoadedFile> m_files;
    C3DScene* m_scene = nullptr;
    size_t m_bakedKeys = 0;
    uint64_t m_missing = 0;
    uint64_t m_copyBudget; // what the copies may still hold
    bool m_copiesCut = false;
};

// Points and corners a copy of the node (not its children) holds, and one for the node.
uint64_t CopyCost(const C3DSceneNode& n) {
    uint64_t cost = 1;
    if (const C3DGeomObject* g = n.GetGeomObject()) {
        if (g->GetPointList()) cost += static_cast<uint64_t>(g->GetPointList()->GetSize());
        if (g->GetFaceList()) cost += g->GetFaceList()->GetNumberOfIndices();
    }
    return cost;
}

bool SceneReader::ChargeCopy(uint64_t cost) {
    if (!m_copiesCut && cost <= m_copyBudget) {
        m_copyBudget -= cost;
        return true;
    }
    if (!m_copiesCut) Log(L"Lightwave scene: objects used too many times; later items were left empty");
    m_copiesCut = true;
    return false;
}

Item& SceneReader::NewItem(int type, std::string_view rest) {
    m_items.emplace_back();
    Item& it = m_items.back();
    it.type = type;
    it.ordinal = m_counts[type]++;
    // An 8-digit hex ID first (version 5) when something follows it or nothing else is expected.
    std::string_view r = rest;
    const std::string_view first = Token(r);
    uint32_t id = 0;
    if (IsHexId(first, id) && (!r.empty() || type != ITEM_OBJECT)) {
        it.ownId = id;
        it.hasOwnId = true;
        rest = r;
    }
    it.channels[6].keys.push_back({1.0, 0.0, 0, {}});
    it.channels[7].keys.push_back({1.0, 0.0, 0, {}});
    it.channels[8].keys.push_back({1.0, 0.0, 0, {}});
    if (type == ITEM_BONE) it.boneObject = m_lastObject;
    if (type == ITEM_OBJECT) m_lastObject = static_cast<int>(m_items.size() - 1);
    (void)rest;
    return it;
}

void SceneReader::SkipBlock(Lines& lines) {
    int depth = 1;
    std::string_view l;
    while (depth > 0 && lines.Next(l)) {
        if (l.starts_with("{")) ++depth;
        else if (l == "}") --depth;
    }
}

void SceneReader::ReadEnvelopeBlock(Lines& lines, Envelope* env) {
    std::string_view l;
    if (env) env->keys.clear();
    while (lines.Next(l)) {
        if (l == "}") return;
        if (l.starts_with("{")) {
            SkipBlock(lines);
            continue;
        }
        std::string_view rest = l;
        const std::string_view kw = Token(rest);
        if (!env) continue;
        if (kw == "Key") {
            double v[9];
            const int n = Numbers(rest, v, 9);
            if (n < 2) continue;
            EnvelopeKey k;
            k.value = v[0];
            k.time = v[1];
            k.span = n > 2 ? static_cast<int>(std::clamp(v[2], 0.0, 5.0)) : 0;
            for (int i = 3; i < n; ++i) k.p[i - 3] = v[i];
            env->keys.push_back(k);
        } else if (kw == "Behaviors") {
            double v[2];
            if (Numbers(rest, v, 2) == 2) {
                env->pre = static_cast<int>(std::clamp(v[0], 0.0, 5.0));
                env->post = static_cast<int>(std::clamp(v[1], 0.0, 5.0));
            }
        }
    }
}

// The three motion syntaxes into nine channel envelopes. Keys are kept in time order.
void SceneReader::ReadMotion(Lines& lines, Item* item) {
    std::string_view l;
    Envelope scratch[9];
    Envelope* ch = item ? item->channels : scratch;
    if (m_version >= 3) {
        while (lines.Next(l)) {
            std::string_view rest = l;
            const std::string_view kw = Token(rest);
            if (kw == "NumChannels") continue;
            if (kw != "Channel") {
                lines.Unread();
                break;
            }
            double n = -1;
            Numbers(rest, &n, 1);
            if (!lines.Next(l)) break;
            if (!l.starts_with("{")) {
                lines.Unread();
                continue;
            }
            ReadEnvelopeBlock(lines, n >= 0 && n < 9 ? &ch[static_cast<int>(n)] : nullptr);
        }
    } else if (m_version == 2) {
        double nc = 0;
        if (!lines.Next(l) || Numbers(l, &nc, 1) != 1) return;
        for (int c = 0; c < static_cast<int>(std::clamp(nc, 0.0, 64.0)); ++c) {
            double nk = 0;
            if (!lines.Next(l) || Numbers(l, &nk, 1) != 1) {
                lines.Unread();
                break;
            }
            Envelope* env = c < 9 ? &ch[c] : nullptr;
            if (env) env->keys.clear();
            for (double k = 0; k < nk; ++k) {
                double v[6];
                if (!lines.Next(l)) break;
                const int n = Numbers(l, v, 6);
                if (n < 2) {
                    lines.Unread();
                    break;
                }
                if (!env) continue;
                EnvelopeKey key;
                key.value = v[0];
                key.time = v[1];
                key.span = 0;
                for (int i = 3; i < n; ++i) key.p[i - 3] = v[i];
                env->keys.push_back(key);
            }
        }
        if (lines.Next(l)) {
            std::string_view rest = l;
            if (Token(rest) == "Pre/PostBehavior") {
                double v[18];
                const int n = Numbers(rest, v, 18);
                for (int c = 0; c + 1 < n && c / 2 < 9; c += 2) {
                    ch[c / 2].pre = static_cast<int>(std::clamp(v[c], 0.0, 5.0));
                    ch[c / 2].post = static_cast<int>(std::clamp(v[c + 1], 0.0, 5.0));
                }
            } else {
                lines.Unread();
            }
        }
    } else {
        // Version 1: channel count, key count, then per key a line of values and a line
        // "frame linear tension continuity bias".
        double nc = 0, nk = 0;
        if (!lines.Next(l) || Numbers(l, &nc, 1) != 1) return;
        if (!lines.Next(l) || Numbers(l, &nk, 1) != 1) return;
        const int channels = static_cast<int>(std::clamp(nc, 0.0, 9.0));
        for (int c = 0; c < 9; ++c) ch[c].keys.clear();
        for (double k = 0; k < nk; ++k) {
            double v[9], f[5] = {0, 0, 0, 0, 0};
            if (!lines.Next(l)) break;
            if (Numbers(l, v, channels) < channels) {
                lines.Unread();
                break;
            }
            if (!lines.Next(l)) break;
            if (Numbers(l, f, 5) < 1) {
                lines.Unread();
                break;
            }
            for (int c = 0; c < channels; ++c) {
                EnvelopeKey key;
                key.value = v[c];
                key.time = f[0] / m_fps;
                key.span = f[1] != 0 ? 3 : 0;
                key.p[0] = f[2];
                key.p[1] = f[3];
                key.p[2] = f[4];
                ch[c].keys.push_back(key);
            }
        }
        for (int c = channels; c < 9; ++c)
            if (ch[c].keys.empty()) ch[c].keys.push_back({c >= 6 ? 1.0 : 0.0, 0.0, 0, {}});
        if (lines.Next(l)) {
            std::string_view rest = l;
            if (Token(rest) == "EndBehavior") {
                double b = 1;
                Numbers(rest, &b, 1);
                const int post = b == 0 ? 0 : b == 2 ? 2 : 1;
                for (auto& e : scratch) e.post = post;
                for (int c = 0; c < 9; ++c) ch[c].post = post;
            } else {
                lines.Unread();
            }
        }
    }
    if (!item) return;
    for (int c = 0; c < 9; ++c) {
        auto& keys = ch[c].keys;
        std::stable_sort(keys.begin(), keys.end(),
                         [](const EnvelopeKey& a, const EnvelopeKey& b) { return a.time < b.time; });
        // Angles are degrees before version 3.
        if (m_version < 3 && c >= 3 && c < 6)
            for (auto& k : keys) k.value *= kPi / 180;
        if (keys.size() > 1) item->animated = true;
    }
}

double SceneReader::StaticOrEnvelope(Lines& lines, std::string_view rest, double fallback) {
    double v = fallback;
    if (Numbers(rest, &v, 1) == 1) return v;
    std::string_view l;
    if (rest.starts_with("(envelope)") && lines.Next(l)) {
        if (l.starts_with("{")) {
            Envelope e;
            ReadEnvelopeBlock(lines, &e);
            if (!e.keys.empty()) return e.Evaluate(0);
        } else {
            lines.Unread();
        }
    }
    return fallback;
}

int SceneReader::Run(std::span<const uint8_t> data, std::unique_ptr<C3DScene>& out) {
    Lines lines(data);
    std::string_view l;
    if (!lines.Next(l) || l != "LWSC") return IO_ERR_FORMAT;
    m_copyBudget += 4 * uint64_t(data.size());
    double version = 0;
    if (!lines.Next(l) || Numbers(l, &version, 1) != 1) return IO_ERR_FORMAT;
    m_version = static_cast<int>(std::clamp(version, 1.0, 5.0));
    while (lines.Next(l)) {
        if (Cancelled()) return IO_ERR_CANCELLED;
        if (l.empty()) continue;
        if (l.starts_with("{")) {
            SkipBlock(lines);
            continue;
        }
        std::string_view rest = l;
        const std::string_view kw = Token(rest);
        Item* cur = Current();
        if (kw == "LoadObjectLayer") {
            const std::string_view layer = Token(rest);
            double n = 1;
            Number(layer, n);
            Item& it = NewItem(ITEM_OBJECT, rest);
            it.layer = static_cast<int>(std::clamp(n, 0.0, 65535.0));
            std::string_view r = rest;
            uint32_t id;
            if (it.hasOwnId && IsHexId(Token(r), id)) rest = r;
            it.path = rest;
        } else if (kw == "LoadObject") {
            Item& it = NewItem(ITEM_OBJECT, {});
            it.wholeFile = true;
            it.path = rest;
        } else if (kw == "AddNullObject") {
            Item& it = NewItem(ITEM_OBJECT, rest);
            it.null = true;
            std::string_view r = rest;
            uint32_t id;
            if (it.hasOwnId && IsHexId(Token(r), id)) rest = r;
            it.name = rest;
        } else if (kw == "AddLight") {
            NewItem(ITEM_LIGHT, rest);
        } else if (kw == "AddCamera") {
            NewItem(ITEM_CAMERA, rest);
        } else if (kw == "AddBone") {
            NewItem(ITEM_BONE, rest);
        } else if (kw == "ObjectMotion" || kw == "LightMotion" || kw == "CameraMotion" || kw == "BoneMotion") {
            ReadMotion(lines, cur);
        } else if (kw == "ParentItem") {
            uint32_t id;
            if (cur && IsHexId(Token(rest), id)) {
                cur->parentRef = id;
                cur->hasParentRef = true;
            }
        } else if (kw == "ParentObject") {
            double n;
            if (cur && Numbers(rest, &n, 1) == 1 && n >= 0 && n < 1e9) cur->parentObject = static_cast<int>(n);
        } else if (kw == "PivotPosition" || kw == "PivotPoint") {
            if (cur && Numbers(rest, cur->pivot, 3) == 3) cur->hasPivot = true;
        } else if (kw == "LightName" || kw == "CameraName" || kw == "BoneName") {
            if (cur) cur->name = rest;
        } else if (kw == "LightColor") {
            double c[3];
            if (cur && Numbers(rest, c, 3) == 3)
                for (int i = 0; i < 3; ++i) cur->color[i] = m_version < 3 ? c[i] / 255.0 : c[i];
        } else if (kw == "LightIntensity" || kw == "LgtIntensity") {
            const double v = StaticOrEnvelope(lines, rest, 1.0);
            if (cur) cur->intensity = v;
        } else if (kw == "LightType") {
            double v;
            if (cur && Numbers(rest, &v, 1) == 1) cur->lightType = static_cast<int>(std::clamp(v, -1.0, 9.0));
        } else if (kw == "LightConeAngle" || kw == "ConeAngle") {
            const double v = StaticOrEnvelope(lines, rest, -1);
            if (cur) cur->cone = (m_version < 3 || v > kPi / 2) ? v * kPi / 180 : v;
        } else if (kw == "LightEdgeAngle" || kw == "EdgeAngle") {
            const double v = StaticOrEnvelope(lines, rest, -1);
            if (cur) cur->edge = (m_version < 3 || v > kPi / 2) ? v * kPi / 180 : v;
        } else if (kw == "ZoomFactor") {
            const double v = StaticOrEnvelope(lines, rest, 3.2);
            if (cur) cur->zoom = v;
        } else if (kw == "FirstFrame") {
            Numbers(rest, &m_firstFrame, 1);
        } else if (kw == "LastFrame") {
            Numbers(rest, &m_lastFrame, 1);
        } else if (kw == "FramesPerSecond") {
            double f;
            if (Numbers(rest, &f, 1) == 1 && f > 0 && f <= 10000) m_fps = f;
        } else if (kw == "Plugin") {
            while (lines.Next(l) && l != "EndPlugin") {}
        }
    }
    if (m_cancel) return IO_ERR_CANCELLED;
    auto scene = std::make_unique<C3DScene>();
    m_scene = scene.get();
    Build(*scene);
    if (m_cancel) return IO_ERR_CANCELLED;
    if (m_missing) Log(L"Lightwave scene: " + std::to_wstring(m_missing) + L" object files missing or unreadable");
    if (scene->GetNodeCount() == 0) return IO_ERR_EMPTY;
    out = std::move(scene);
    return IO_OK;
}

// The node of layer `it.layer` (or the whole file) loaded from the item's object file, as a
// new node the caller owns; null when the file or the layer is missing.
C3DSceneNode* SceneReader::LoadLayer(const Item& it) {
    const CXStringW stored = HostPath(it.path);
    if (stored.IsEmpty()) return nullptr;
    auto found = m_files.find(stored.str());
    if (found == m_files.end()) {
        LoadedFile lf;
        // No folder (bytes from memory): nothing is looked for on disk.
        if (!m_folder.IsEmpty() && m_files.size() < kMaxObjectFiles) {
            // As written, next to the scene, in the folders above it (content folders), bare name.
            CXStringW path;
            bool ok = false;
            CXStringW base = m_folder;
            for (int up = 0; up <= kMaxParentFolders && !ok; ++up) {
                path = ResolveNear(base, stored, ok);
                base = fileMakeAbsolutePath(base, L"..");
            }
            IoFile file(true);
            if (ok && !fileIsDirectory(path) && file.OpenFile(path, true)) {
                std::unique_ptr<C3DScene> obj;
                const uint64_t bytes = file.GetData().size();
                const int rc = ReadObject(file.GetData(), fileStripName(path), m_options, m_cancelled, obj, &file);
                file.CloseFile();
                if (rc == IO_ERR_CANCELLED) m_cancel = true;
                if (rc == IO_OK && obj) {
                    lf.holder = new C3DSceneNode(new C3DGroup());
                    m_scene->AddNode(nullptr, lf.holder);
                    m_scene->AddScene(*obj, lf.holder);
                    lf.ok = true;
                    m_copyBudget += 4 * bytes;
                }
            }
        }
        if (!lf.ok) {
            ++m_missing;
            Log(L"Lightwave scene: object not loaded: " + stored.str());
        }
        found = m_files.emplace(stored.str(), lf).first;
    }
    if (!found->second.ok) return nullptr;
    LoadedFile& lf = found->second;
    C3DSceneNode* holder = lf.holder;
    if (it.wholeFile) {
        if (!lf.costed) {
            lf.costed = true;
            for (C3DNodePos p = m_scene->GetFirstNode(KINDOF_ALL, 0, holder);
                 C3DSceneNode* n = m_scene->GetNextNode(p);)
                if (n != holder) lf.wholeCost += CopyCost(*n);
        }
        if (!ChargeCopy(lf.wholeCost)) return nullptr;
        // The whole file: one layer becomes the item itself, several hang below it.
        if (holder->GetDirectChildCount() == 1) return holder->GetChildNode()->Clone(true);
        auto* group = new C3DSceneNode(new C3DGroup());
        for (C3DSceneNode* c = holder->GetChildNode(); c; c = c->GetRightNode()) group->AppendChild(c->Clone(true));
        return group;
    }
    // Scenes count layers from 1 where the object files count from 0; files whose layers do
    // not start at 0 (and old objects, whose one layer is 1) are matched as numbered.
    if (!lf.indexed) {
        lf.indexed = true;
        C3DBaseObject* o;
        for (C3DNodePos p = m_scene->GetFirstNode(KINDOF_ALL, 0, holder);
             C3DSceneNode* n = m_scene->GetNextNode(o, p);) {
            if (n == holder || n->GetKindOf() == KINDOF_CURVE) continue;
            auto [at, fresh] = lf.layers.try_emplace(n->GetNodeID());
            if (!fresh) continue;
            at->second.node = n;
            at->second.cost = CopyCost(*n);
            for (C3DSceneNode* c = n->GetChildNode(); c; c = c->GetRightNode())
                if (c->GetKindOf() == KINDOF_CURVE && c->GetNodeID() == n->GetNodeID()) {
                    at->second.curves.push_back(c);
                    at->second.cost += CopyCost(*c);
                }
        }
        lf.single = m_scene->GetChildCount(holder, KINDOF_ALL & ~uint32_t(KINDOF_CURVE)) == 1;
    }
    for (int layer : {it.layer - 1, it.layer}) {
        auto hit = lf.layers.find(static_cast<uint64_t>(layer));
        if (hit != lf.layers.end()) {
            if (!ChargeCopy(hit->second.cost)) return nullptr;
            C3DSceneNode* n = hit->second.node;
            C3DSceneNode* copy = n->Clone(false);
            const CXStringW stem = fileRemoveExtension(fileStripPath(stored));
            copy->SetName(lf.single ? stem : stem + L":" + n->GetName());
            // Keep the layer's own curves, not its child layers.
            for (C3DSceneNode* c : hit->second.curves) copy->AppendChild(c->Clone(true));
            return copy;
        }
    }
    Log(L"Lightwave scene: layer " + std::to_wstring(it.layer) + L" not found in " + stored.str());
    return nullptr;
}

// Position, rotation and scale of an item at `time`, mirrored into the host's right-handed
// space: Z negated, heading and pitch negated (R = heading * pitch * bank, bank first).
void SceneReader::Transform(const Item& it, double time, C3DVector& t, CQuaternion& q, C3DVector& s) const {
    double v[9];
    for (int c = 0; c < 9; ++c)
        v[c] = it.channels[c].keys.empty() ? (c >= 6 ? 1.0 : 0.0) : it.channels[c].Evaluate(time);
    t = {float(v[0]), float(v[1]), float(-v[2])};
    s = {float(v[6]), float(v[7]), float(v[8])};
    const double h = -v[3], p = -v[4], b = v[5];
    // Column-vector matrices of the host frame; the host stores row vectors (transpose).
    const double ch = std::cos(h), sh = std::sin(h), cp = std::cos(p), sp = std::sin(p), cb = std::cos(b),
                 sb = std::sin(b);
    const double ry[3][3] = {{ch, 0, sh}, {0, 1, 0}, {-sh, 0, ch}};
    const double rx[3][3] = {{1, 0, 0}, {0, cp, -sp}, {0, sp, cp}};
    const double rz[3][3] = {{cb, -sb, 0}, {sb, cb, 0}, {0, 0, 1}};
    double a[3][3], m[3][3];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) a[i][j] = ry[i][0] * rx[0][j] + ry[i][1] * rx[1][j] + ry[i][2] * rx[2][j];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) m[i][j] = a[i][0] * rz[0][j] + a[i][1] * rz[1][j] + a[i][2] * rz[2][j];
    C4x4Matrix r;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) r.m[j][i] = static_cast<float>(m[i][j]);
    C3DVector dt, ds;
    r.Decompose(dt, q, ds);
}

void SceneReader::Build(C3DScene& scene) {
    const size_t n = m_items.size();
    std::vector<C3DSceneNode*> nodes(n, nullptr);
    // Explicit IDs first, then type + ordinal.
    std::unordered_map<uint32_t, size_t> byId;
    for (size_t i = 0; i < n; ++i)
        if (m_items[i].hasOwnId) byId.emplace(m_items[i].ownId, i);
    std::unordered_map<uint32_t, size_t> byOrdinal;
    for (size_t i = 0; i < n; ++i)
        byOrdinal.emplace((uint32_t(m_items[i].type) << 28) | uint32_t(m_items[i].ordinal), i);

    const double ticks = scene.GetTickCount();
    auto drop = [&]() {
        for (C3DSceneNode* node : nodes) delete node;
    };
    for (size_t i = 0; i < n; ++i) {
        if (Cancelled()) return drop();
        Item& it = m_items[i];
        C3DSceneNode* node = nullptr;
        C3DPoint layerPivot;
        switch (it.type) {
        case ITEM_OBJECT:
            if (!it.null) node = LoadLayer(it);
            if (m_cancel) {
                delete node;
                return drop();
            }
            if (node) {
                layerPivot = node->GetPivot();
                if (it.wholeFile && node->GetKindOf() == KINDOF_GROUP) layerPivot = {};
            } else {
                node = new C3DSceneNode(new C3DGroup());
            }
            if (it.null) node->SetName(CXStringW(Utf8ToWide(it.name)));
            else if (it.wholeFile || node->GetKindOf() == KINDOF_GROUP)
                node->SetName(fileRemoveExtension(fileStripPath(HostPath(it.path))));
            break;
        case ITEM_LIGHT: {
            auto* light = new C3DLight(it.lightType == 0   ? LIGHT_DIRECTIONAL
                                       : it.lightType == 2 ? LIGHT_SPOT
                                                           : LIGHT_POINT);
            light->color.SetColor4f(float(it.color[0]), float(it.color[1]), float(it.color[2]));
            light->intensity = static_cast<float>(it.intensity);
            if (it.cone >= 0) {
                light->cutOffAngle = static_cast<float>(it.cone);
                light->beamWidth = static_cast<float>(std::max(0.0, it.cone - std::max(0.0, it.edge)));
            }
            node = new C3DSceneNode(light);
            node->SetName(CXStringW(Utf8ToWide(it.name.empty() ? "Light" : it.name)));
            break;
        }
        case ITEM_CAMERA: {
            auto* cam = new C3DCamera(CAMERA_FREE);
            if (it.zoom > 0) cam->SetVFov(static_cast<float>(2 * std::atan(1.0 / it.zoom)));
            node = new C3DSceneNode(cam);
            node->SetName(CXStringW(Utf8ToWide(it.name.empty() ? "Camera" : it.name)));
            break;
        }
        default:
            node = new C3DSceneNode(new C3DGroup());
            node->SetName(CXStringW(Utf8ToWide(it.name.empty() ? "Bone" : it.name)));
            break;
        }
        node->SetNodeID((uint64_t(it.type) << 28) | uint32_t(it.ordinal));
        // The pivot: the layer's own unless the scene moves it; the mesh is already relative
        // to the layer pivot, so only the difference goes into the object offset.
        C3DPoint pivot =
            it.hasPivot ? C3DPoint(float(it.pivot[0]), float(it.pivot[1]), float(-it.pivot[2])) : layerPivot;
        node->SetPivot(pivot);
        const C3DPoint off = layerPivot - pivot;
        node->SetObjectLocalTM(C4x4Matrix::Translation(off.x, off.y, off.z));
        C3DVector t, s;
        CQuaternion q;
        Transform(it, m_firstFrame / m_fps, t, q, s);
        node->SetNodeLocalTM(C4x4Matrix::Compose(t, q, s));
        if (it.animated && m_options.importAnimation) {
            const double span = std::clamp(m_lastFrame - m_firstFrame, 0.0, double(kMaxFramesPerItem - 1));
            const int frames = static_cast<int>(span) + 1;
            if (m_bakedKeys + size_t(frames) * 3 > kMaxBakedKeys) {
                Log(L"Lightwave scene: animation budget exhausted; later items keep their first frame");
                it.animated = false;
            } else {
                m_bakedKeys += size_t(frames) * 3;
                for (int f = 0; f < frames; ++f) {
                    const double sec = (m_firstFrame + f) / m_fps;
                    Transform(it, sec, t, q, s);
                    const auto tick = static_cast<int32_t>(std::lround(std::clamp(sec * ticks, -2e9, 2e9)));
                    auto tk = std::make_unique<C3DTranslateKey>(tick);
                    tk->value = t;
                    node->AddKey(std::move(tk), CURVE_LINEAR);
                    auto rk = std::make_unique<C3DRotateKey>(tick);
                    rk->SetQuaternion(q);
                    node->AddKey(std::move(rk), CURVE_LINEAR);
                    auto sk = std::make_unique<C3DVectorKey>(KEY_SCALE, tick);
                    sk->value = s;
                    node->AddKey(std::move(sk), CURVE_LINEAR);
                }
            }
        }
        nodes[i] = node;
    }

    // Parents: resolved after every item exists; cycles and over-deep chains end at the root.
    std::vector<int64_t> parent(n, -1);
    for (size_t i = 0; i < n; ++i) {
        const Item& it = m_items[i];
        int64_t p = -1;
        if (it.hasParentRef) {
            auto a = byId.find(it.parentRef);
            if (a != byId.end()) p = static_cast<int64_t>(a->second);
            else {
                const uint32_t type = it.parentRef >> 28;
                const uint32_t ord = type == ITEM_BONE ? (it.parentRef >> 16) & 0xFFF : it.parentRef & 0x0FFFFFFF;
                auto b = byOrdinal.find((type << 28) | ord);
                if (b != byOrdinal.end()) p = static_cast<int64_t>(b->second);
            }
        } else if (it.parentObject >= 0) {
            // Version 1 counts objects from 1; an out-of-range number is read as 0-based.
            auto b = byOrdinal.find((uint32_t(ITEM_OBJECT) << 28) | uint32_t(it.parentObject - 1));
            if (it.parentObject == 0 || b == byOrdinal.end())
                b = byOrdinal.find((uint32_t(ITEM_OBJECT) << 28) | uint32_t(it.parentObject));
            if (b != byOrdinal.end()) p = static_cast<int64_t>(b->second);
        } else if (it.type == ITEM_BONE && it.boneObject >= 0) {
            p = it.boneObject;
        }
        if (p != static_cast<int64_t>(i)) parent[i] = p;
    }
    CutParentCycles(parent, kMaxItemDepth);
    std::vector<std::vector<size_t>> children(n);
    std::vector<size_t> stack;
    for (size_t i = 0; i < n; ++i) {
        if (parent[i] >= 0) children[static_cast<size_t>(parent[i])].push_back(i);
        else {
            scene.AddNode(nullptr, nodes[i]);
            stack.push_back(i);
        }
    }
    while (!stack.empty()) {
        const size_t i = stack.back();
        stack.pop_back();
        for (size_t c : children[i]) {
            nodes[i]->AppendChild(nodes[c]);
            stack.push_back(c);
        }
    }
    for (auto& [path, lf] : m_files)
        if (lf.holder) scene.RemoveNode(lf.holder, true);
    if (m_lastFrame >= m_firstFrame)
        scene.SetAnimationRange(static_cast<int32_t>(std::clamp(m_firstFrame / m_fps * ticks, -2e9, 2e9)),
                                static_cast<int32_t>(std::clamp(m_lastFrame / m_fps * ticks, -2e9, 2e9)));
    scene.SetUnit(UNIT_METER);
    scene.SetScaleFactor(100.0);
}

} // namespace

int ReadScene(std::span<const uint8_t> data, const CXStringW& folder, CSceneImportOptions& options,
              const std::function<bool()>& cancelled, std::unique_ptr<C3DScene>& out, uint64_t copyAllowance) {
    try {
        SceneReader r(folder, options, cancelled, copyAllowance);
        return r.Run(data, out);
    } catch (const std::bad_alloc&) {
        out.reset();
        return IO_ERR_FORMAT;
    }
}

} // namespace lightwave
