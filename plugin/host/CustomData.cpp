// CCustomData: typed values in an ordered map, deep-copied nested bags, and a small
// binary encoding used for the preferences files. The decoder treats its input as
// hostile: every length is checked against the bytes left and nesting is bounded.
#include "plugin/host/CustomData.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
enum Tag : uint8_t {
    TAG_INT = 0,
    TAG_UINT,
    TAG_UINT64,
    TAG_DOUBLE,
    TAG_STRING,
    TAG_BINARY,
    TAG_PTR,
    TAG_STRINGS,
    TAG_BAG
};
constexpr uint8_t kMagic[4] = {'O', 'C', 'D', 1};
constexpr uint8_t kPrefsMagic[4] = {'O', 'P', 'R', 'F'};
constexpr int kMaxDepth = 64;

void PutU32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void PutU64(std::vector<uint8_t>& out, uint64_t v) {
    for (int i = 0; i < 8; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}
void PutBytes(std::vector<uint8_t>& out, const void* p, size_t n) {
    PutU32(out, static_cast<uint32_t>(n));
    const auto* b = static_cast<const uint8_t*>(p);
    out.insert(out.end(), b, b + n);
}
void PutString(std::vector<uint8_t>& out, const CXStringW& s) {
    std::string u = WideToUtf8(s.view());
    PutBytes(out, u.data(), u.size());
}

struct Reader {
    const uint8_t* p;
    size_t left;
    bool U8(uint8_t& v) {
        if (left < 1) return false;
        v = *p++;
        --left;
        return true;
    }
    bool U32(uint32_t& v) {
        if (left < 4) return false;
        v = 0;
        for (int i = 0; i < 4; ++i) v |= uint32_t(p[i]) << (8 * i);
        p += 4;
        left -= 4;
        return true;
    }
    bool U64(uint64_t& v) {
        if (left < 8) return false;
        v = 0;
        for (int i = 0; i < 8; ++i) v |= uint64_t(p[i]) << (8 * i);
        p += 8;
        left -= 8;
        return true;
    }
    bool Span(const uint8_t*& data, uint32_t& n) {
        if (!U32(n) || n > left) return false;
        data = p;
        p += n;
        left -= n;
        return true;
    }
    bool String(CXStringW& s) {
        const uint8_t* d;
        uint32_t n;
        if (!Span(d, n)) return false;
        s = CXStringW(Utf8ToWide(std::string_view(reinterpret_cast<const char*>(d), n)));
        return true;
    }
};

} // namespace

CCustomData::CCustomData(const CCustomData& o) { *this = o; }

CCustomData& CCustomData::operator=(const CCustomData& o) {
    if (this == &o) return *this;
    std::map<uint32_t, Value> copy;
    for (const auto& entry : o.m_values) {
        // Named copies, not a structured binding: clang 14 cannot capture those in the lambda.
        const uint32_t id = entry.first;
        const Value& v = entry.second;
        if (const Bag* b = std::get_if<Bag>(&v)) copy.emplace(id, std::make_unique<CCustomData>(**b));
        else
            std::visit(
                [&](const auto& x) {
                    using X = std::decay_t<decltype(x)>;
                    if constexpr (!std::is_same_v<X, Bag>) copy.emplace(id, x);
                },
                v);
    }
    m_values = std::move(copy);
    return *this;
}

namespace {
template <typename X, typename M> const X* Lookup(const M& m, uint32_t id) {
    auto it = m.find(id);
    return it == m.end() ? nullptr : std::get_if<X>(&it->second);
}
} // namespace

int32_t CCustomData::GetInt(uint32_t id, int32_t def) const {
    const auto* v = Lookup<int32_t>(m_values, id);
    return v ? *v : def;
}
void CCustomData::SetInt(uint32_t id, int32_t v) { m_values[id] = v; }
uint32_t CCustomData::GetUInt(uint32_t id, uint32_t def) const {
    const auto* v = Lookup<uint32_t>(m_values, id);
    return v ? *v : def;
}
void CCustomData::SetUInt(uint32_t id, uint32_t v) { m_values[id] = v; }
uint64_t CCustomData::GetUInt64(uint32_t id, uint64_t def) const {
    const auto* v = Lookup<uint64_t>(m_values, id);
    return v ? *v : def;
}
void CCustomData::SetUInt64(uint32_t id, uint64_t v) { m_values[id] = v; }
double CCustomData::GetDouble(uint32_t id, double def) const {
    const auto* v = Lookup<double>(m_values, id);
    return v ? *v : def;
}
void CCustomData::SetDouble(uint32_t id, double v) { m_values[id] = v; }
CXStringW CCustomData::GetString(uint32_t id, const CXStringW& def) const {
    const auto* v = Lookup<CXStringW>(m_values, id);
    return v ? *v : def;
}
void CCustomData::SetString(uint32_t id, const CXStringW& v) { m_values[id] = v; }
bool CCustomData::GetBinary(uint32_t id, std::vector<uint8_t>& out) const {
    const auto* v = Lookup<std::vector<uint8_t>>(m_values, id);
    if (!v) return false;
    out = *v;
    return true;
}
void CCustomData::SetBinary(uint32_t id, const void* data, size_t size) {
    const auto* b = static_cast<const uint8_t*>(data);
    m_values[id] = size ? std::vector<uint8_t>(b, b + size) : std::vector<uint8_t>();
}
void* CCustomData::GetPtr(uint32_t id) const {
    const auto* v = Lookup<void*>(m_values, id);
    return v ? *v : nullptr;
}
void CCustomData::SetPtr(uint32_t id, void* p) { m_values[id] = p; }
bool CCustomData::GetStringArray(uint32_t id, std::vector<CXStringW>& out) const {
    const auto* v = Lookup<std::vector<CXStringW>>(m_values, id);
    if (!v) return false;
    out = *v;
    return true;
}
void CCustomData::SetStringArray(uint32_t id, const std::vector<CXStringW>& v) { m_values[id] = v; }

CCustomData* CCustomData::GetCustomData(uint32_t id, bool create) {
    auto it = m_values.find(id);
    if (it != m_values.end()) {
        if (Bag* b = std::get_if<Bag>(&it->second)) return b->get();
        if (!create) return nullptr;
        // Another type under this ID: the bag replaces it, as a setter would.
        it->second = std::make_unique<CCustomData>();
        return std::get<Bag>(it->second).get();
    }
    if (!create) return nullptr;
    auto r = m_values.emplace(id, std::make_unique<CCustomData>());
    return std::get<Bag>(r.first->second).get();
}

const CCustomData* CCustomData::GetCustomData(uint32_t id) const {
    const Bag* b = Lookup<Bag>(m_values, id);
    return b ? b->get() : nullptr;
}

void CCustomData::AddToCustomData(uint32_t id, const CCustomData& bag) {
    // Copy first: `bag` may live inside this bag under the same ID.
    auto copy = std::make_unique<CCustomData>(bag);
    m_values[id] = std::move(copy);
}

bool CCustomData::operator==(const CCustomData& o) const {
    if (m_values.size() != o.m_values.size()) return false;
    auto a = m_values.begin();
    auto b = o.m_values.begin();
    for (; a != m_values.end(); ++a, ++b) {
        if (a->first != b->first || a->second.index() != b->second.index()) return false;
        if (const Bag* x = std::get_if<Bag>(&a->second)) {
            const Bag& y = std::get<Bag>(b->second);
            if (!(**x == *y)) return false;
        } else if (const double* d = std::get_if<double>(&a->second)) {
            // Bitwise, so a NaN survives a round trip as "equal".
            if (std::memcmp(d, &std::get<double>(b->second), sizeof(double)) != 0) return false;
        } else {
            bool same = std::visit(
                [&](const auto& val) {
                    using X = std::decay_t<decltype(val)>;
                    if constexpr (std::is_same_v<X, Bag>) return true;
                    else return val == std::get<X>(b->second);
                },
                a->second);
            if (!same) return false;
        }
    }
    return true;
}

std::vector<uint8_t> CCustomData::Serialize() const {
    std::vector<uint8_t> out(kMagic, kMagic + 4);
    // Pointers mean nothing outside this process: they are left out.
    uint32_t n = 0;
    for (const auto& kv : m_values)
        if (!std::holds_alternative<void*>(kv.second)) ++n;
    PutU32(out, n);
    for (const auto& [id, v] : m_values) {
        if (std::holds_alternative<void*>(v)) continue;
        PutU32(out, id);
        switch (v.index()) {
        case 0:
            out.push_back(TAG_INT);
            PutU32(out, static_cast<uint32_t>(std::get<int32_t>(v)));
            break;
        case 1:
            out.push_back(TAG_UINT);
            PutU32(out, std::get<uint32_t>(v));
            break;
        case 2:
            out.push_back(TAG_UINT64);
            PutU64(out, std::get<uint64_t>(v));
            break;
        case 3: {
            out.push_back(TAG_DOUBLE);
            uint64_t bits;
            double d = std::get<double>(v);
            std::memcpy(&bits, &d, 8);
            PutU64(out, bits);
            break;
        }
        case 4:
            out.push_back(TAG_STRING);
            PutString(out, std::get<CXStringW>(v));
            break;
        case 5: {
            out.push_back(TAG_BINARY);
            const auto& b = std::get<std::vector<uint8_t>>(v);
            PutBytes(out, b.data(), b.size());
            break;
        }
        case 7: {
            out.push_back(TAG_STRINGS);
            const auto& a = std::get<std::vector<CXStringW>>(v);
            PutU32(out, static_cast<uint32_t>(a.size()));
            for (const auto& s : a) PutString(out, s);
            break;
        }
        case 8: {
            out.push_back(TAG_BAG);
            std::vector<uint8_t> inner = std::get<Bag>(v)->Serialize();
            // The nested encoding keeps its own magic; harmless and self-checking.
            PutBytes(out, inner.data(), inner.size());
            break;
        }
        default: break;
        }
    }
    return out;
}

namespace {
bool DecodeInto(CCustomData& bag, const uint8_t* data, size_t size, int depth);
} // namespace

bool CCustomData::Deserialize(const uint8_t* data, size_t size) {
    CCustomData tmp;
    if (!data || !DecodeInto(tmp, data, size, 0)) {
        RemoveAll();
        return false;
    }
    *this = std::move(tmp);
    return true;
}

namespace {
bool DecodeInto(CCustomData& bag, const uint8_t* data, size_t size, int depth) {
    if (depth > kMaxDepth) return false;
    Reader r{data, size};
    if (size < 8 || std::memcmp(data, kMagic, 4) != 0) return false;
    r.p += 4;
    r.left -= 4;
    uint32_t count;
    if (!r.U32(count)) return false;
    // Every entry takes at least 5 bytes (ID + tag) plus a 4-byte payload.
    if (count > r.left / 9) return false;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t id;
        uint8_t tag;
        if (!r.U32(id) || !r.U8(tag)) return false;
        if (bag.Has(id)) return false; // a writer never repeats an ID
        switch (tag) {
        case TAG_INT: {
            uint32_t v;
            if (!r.U32(v)) return false;
            bag.SetInt(id, static_cast<int32_t>(v));
            break;
        }
        case TAG_UINT: {
            uint32_t v;
            if (!r.U32(v)) return false;
            bag.SetUInt(id, v);
            break;
        }
        case TAG_UINT64: {
            uint64_t v;
            if (!r.U64(v)) return false;
            bag.SetUInt64(id, v);
            break;
        }
        case TAG_DOUBLE: {
            uint64_t v;
            if (!r.U64(v)) return false;
            double d;
            std::memcpy(&d, &v, 8);
            bag.SetDouble(id, d);
            break;
        }
        case TAG_STRING: {
            CXStringW s;
            if (!r.String(s)) return false;
            bag.SetString(id, s);
            break;
        }
        case TAG_BINARY: {
            const uint8_t* d;
            uint32_t n;
            if (!r.Span(d, n)) return false;
            bag.SetBinary(id, d, n);
            break;
        }
        case TAG_STRINGS: {
            uint32_t n;
            if (!r.U32(n) || n > r.left / 4) return false;
            std::vector<CXStringW> a;
            a.reserve(n);
            for (uint32_t k = 0; k < n; ++k) {
                CXStringW s;
                if (!r.String(s)) return false;
                a.push_back(std::move(s));
            }
            bag.SetStringArray(id, a);
            break;
        }
        case TAG_BAG: {
            const uint8_t* d;
            uint32_t n;
            if (!r.Span(d, n)) return false;
            CCustomData* inner = bag.GetCustomData(id, true);
            if (!DecodeInto(*inner, d, n, depth + 1)) return false;
            break;
        }
        default: return false;
        }
    }
    return r.left == 0;
}

std::string ConfigDir() {
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    std::string base;
    // A relative XDG_CONFIG_HOME is invalid and ignored.
    if (xdg && xdg[0] == '/') {
        base = xdg;
    } else {
        const char* home = std::getenv("HOME");
        if (home && *home) {
            base = home;
        } else if (const passwd* pw = getpwuid(getuid()); pw && pw->pw_dir) {
            base = pw->pw_dir;
        } else {
            return {};
        }
        base += "/.config";
    }
    return base + "/orbiscope";
}

bool MakeDirs(const std::string& path) {
    std::string cur;
    size_t i = 0;
    while (i <= path.size()) {
        size_t j = path.find('/', i);
        if (j == std::string::npos) j = path.size();
        cur = path.substr(0, j);
        if (!cur.empty() && mkdir(cur.c_str(), 0700) != 0 && errno != EEXIST) return false;
        i = j + 1;
    }
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool WriteAll(int fd, const uint8_t* p, size_t n) {
    while (n > 0) {
        ssize_t w = ::write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}
} // namespace

std::string CCustomData::PrefsPath(const CXStringW& name, uint32_t id) {
    std::string dir = ConfigDir();
    if (dir.empty()) return {};
    // The name becomes part of a file name: keep it to a safe alphabet.
    std::string safe;
    for (wchar_t c : name.view()) {
        bool ok = (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9') || c == L'-' ||
                  c == L'_' || c == L'.';
        safe += ok ? static_cast<char>(c) : '_';
    }
    if (safe.empty() || safe[0] == '.') safe.insert(safe.begin(), '_');
    char hex[16];
    static const char digits[] = "0123456789ABCDEF";
    for (int i = 0; i < 8; ++i) hex[i] = digits[(id >> (28 - 4 * i)) & 0xF];
    return dir + "/" + safe + "-" + std::string(hex, 8) + ".prefs";
}

bool CCustomData::LoadFromPrefs(const CXStringW& name, uint32_t id, uint32_t version) {
    // With preferences off, stored values must not leak into tests or batch runs either.
    if (!IsPreferencesSavingEnabled()) return false;
    std::string path = PrefsPath(name, id);
    if (path.empty()) return false;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    std::vector<uint8_t> buf;
    struct stat st;
    // Preference files are small; anything huge is not ours.
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > (64 << 20)) {
        ::close(fd);
        return false;
    }
    buf.resize(static_cast<size_t>(st.st_size));
    size_t got = 0;
    while (got < buf.size()) {
        ssize_t r = ::read(fd, buf.data() + got, buf.size() - got);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        got += static_cast<size_t>(r);
    }
    ::close(fd);
    if (got != buf.size() || got < 8 || std::memcmp(buf.data(), kPrefsMagic, 4) != 0) return false;
    Reader r{buf.data() + 4, buf.size() - 4};
    uint32_t fileVersion;
    if (!r.U32(fileVersion) || fileVersion != version) return false;
    CCustomData tmp;
    if (!tmp.Deserialize(r.p, r.left)) return false;
    *this = std::move(tmp);
    return true;
}

bool CCustomData::SaveToPrefs(const CXStringW& name, uint32_t id, uint32_t version) const {
    if (!IsPreferencesSavingEnabled()) return false;
    std::string path = PrefsPath(name, id);
    if (path.empty()) return false;
    std::string dir = path.substr(0, path.rfind('/'));
    if (!MakeDirs(dir)) return false;
    std::vector<uint8_t> out(kPrefsMagic, kPrefsMagic + 4);
    PutU32(out, version);
    std::vector<uint8_t> body = Serialize();
    out.insert(out.end(), body.begin(), body.end());
    // Temp file beside the target, then rename: a reader sees the old file or the new one.
    std::string tmpl = path + ".XXXXXX";
    int fd = mkstemp(tmpl.data());
    if (fd < 0) return false;
    bool ok = WriteAll(fd, out.data(), out.size()) && ::fsync(fd) == 0;
    ok = (::close(fd) == 0) && ok;
    if (ok) ok = ::rename(tmpl.c_str(), path.c_str()) == 0;
    if (!ok) ::unlink(tmpl.c_str());
    return ok;
}

bool IsPreferencesSavingEnabled() { return std::getenv("ORBISCOPE_NO_PREFS") == nullptr; }
