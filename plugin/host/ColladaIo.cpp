// Collada documents. Big documents are almost all number lists, so the lists are lifted
// out of the text before the XML parse: the DOM holds only the structure, and each list
// is read once, straight from the file's bytes into the scene's arrays, when its geometry
// is built (in document order, so the pages behind can go back). UTF-16 documents and
// ones with a document type are parsed whole instead.
#include "plugin/host/ColladaIo.h"

#include <pugixml.hpp>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "plugin/host/Channel.h"
#include "plugin/host/DecimalScan.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Keys.h"
#include "plugin/host/LargeArray.h"
#include "plugin/host/Object.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/TextScanner.h"

namespace {

constexpr int kMaxNodeDepth = 256;
constexpr uint64_t kMaxInstances = 1u << 20;
constexpr uint64_t kMaxKeys = 1u << 20;
// Marks a lifted list in the structure text: a character XML text may not hold.
constexpr char kLifted = '\x01';

CXStringW Wide(std::string_view s) { return CXStringW(Utf8ToWide(s)); }

// Blank, tab, line feed, vertical tab, form feed, carriage return.
inline bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

bool StartsWith(const char* p, const char* e, std::string_view w) {
    return static_cast<size_t>(e - p) >= w.size() && std::memcmp(p, w.data(), w.size()) == 0;
}

// Just past the first `w` at or after `p`; null when there is none.
const char* PastNext(const char* p, const char* e, std::string_view w) {
    std::string_view rest(p, static_cast<size_t>(e - p));
    const size_t at = rest.find(w);
    return at == std::string_view::npos ? nullptr : p + at + w.size();
}

bool IsListElement(std::string_view name) {
    return name == "float_array" || name == "int_array" || name == "p" || name == "vcount" || name == "h" ||
           name == "v";
}

struct Range {
    size_t begin, size;
    bool floats;     // a float_array's
    bool indices;    // a <p>'s
    size_t geometry; // the enclosing <geometry>, counted from 1 (0: none)
};

std::string_view LocalName(std::string_view name) {
    const size_t colon = name.rfind(':');
    return colon == std::string_view::npos ? name : name.substr(colon + 1);
}

// Copies the document's structure to `out`, with the text of each number list replaced by
// a mark and its place in `lists`. False when the text is not one this scan follows (the
// caller then parses the original); it does not judge well-formedness, the parser does.
bool LiftLists(std::span<const uint8_t> in, std::string& out, std::vector<Range>& lists, const IoFile* file) {
    if (in.size() >= 2 &&
        (in[0] == 0 || in[1] == 0 || (in[0] == 0xFF && in[1] == 0xFE) || (in[0] == 0xFE && in[1] == 0xFF)))
        return false; // UTF-16 or UTF-32
    const char* b = reinterpret_cast<const char*>(in.data());
    const char* e = b + in.size();
    const char* s = b;
    const char* released = b;
    size_t geometries = 0, geometry = 0;
    constexpr size_t kStep = 8u << 20;
    while (s < e) {
        if (file && static_cast<size_t>(s - released) > kStep) {
            released = s;
            file->ReleaseBefore(s - b);
        }
        const char* lt = static_cast<const char*>(std::memchr(s, '<', static_cast<size_t>(e - s)));
        if (!lt) {
            out.append(s, e);
            break;
        }
        out.append(s, lt);
        const char* end;
        if (StartsWith(lt, e, "<!--")) {
            end = PastNext(lt + 4, e, "-->");
        } else if (StartsWith(lt, e, "<![CDATA[")) {
            end = PastNext(lt + 9, e, "]]>");
        } else if (StartsWith(lt, e, "<?")) {
            end = PastNext(lt + 2, e, "?>");
        } else if (StartsWith(lt, e, "<!")) {
            return false; // a document type
        } else if (StartsWith(lt, e, "</")) {
            end = PastNext(lt + 2, e, ">");
            if (end && geometry) {
                std::string_view name(lt + 2, static_cast<size_t>(end - lt - 3));
                while (!name.empty() && IsSpace(name.back())) name.remove_suffix(1);
                if (LocalName(name) == "geometry") geometry = 0;
            }
        } else {
            const char* q = lt + 1;
            while (q < e && !IsSpace(*q) && *q != '>' && *q != '/') ++q;
            const std::string_view name(lt + 1, static_cast<size_t>(q - lt - 1));
            const std::string_view local = LocalName(name);
            char quote = 0;
            for (; q < e; ++q) {
                if (quote) {
                    if (*q == quote) quote = 0;
                } else if (*q == '"' || *q == '\'') {
                    quote = *q;
                } else if (*q == '>') {
                    break;
                }
            }
            if (q >= e) return false;
            end = q + 1;
            out.append(lt, end);
            s = end;
            if (q[-1] != '/' && local == "geometry") geometry = ++geometries;
            if (q[-1] != '/' && IsListElement(local)) {
                // Only plain text up to the element's end tag is lifted (no entities, comments or markup).
                const char* next = static_cast<const char*>(std::memchr(end, '<', static_cast<size_t>(e - end)));
                if (next && next > end && next + 1 < e && next[1] == '/' &&
                    !std::memchr(end, '&', static_cast<size_t>(next - end))) {
                    out += kLifted;
                    out += std::to_string(lists.size());
                    lists.push_back({static_cast<size_t>(end - b), static_cast<size_t>(next - end),
                                     local == "float_array", local == "p", geometry});
                    s = next;
                }
            }
            continue;
        }
        if (!end) return false;
        out.append(lt, end);
        s = end;
    }
    return true;
}

// Whether nothing but blanks is left.
bool OnlyBlanks(const char* p, const char* e) {
    while (p < e && IsSpace(*p)) ++p;
    return p == e;
}

// Blank-separated numbers of a list, read one at a time.
class NumberScan {
public:
    explicit NumberScan(std::string_view t) : m_s(t.data()), m_e(t.data() + t.size()) {}
    size_t Left() const { return static_cast<size_t>(m_e - m_s); }
    bool OnlyBlanksLeft() const { return OnlyBlanks(m_s, m_e); }
    // NaN, INF words and numbers out of range read as 0 rather than ending the list.
    bool Next(float& v) {
        while (m_s < m_e && IsSpace(*m_s)) ++m_s;
        if (m_s >= m_e) return false;
        const auto r = decscan::DecimalFloat(m_s, m_e, v);
        if (r.ec != std::errc()) {
            v = 0;
            while (m_s < m_e && !IsSpace(*m_s)) ++m_s;
            return true;
        }
        m_s = r.ptr;
        return true;
    }
    // Indices: a number out of range reads as 0; anything else that is not one ends the list.
    bool Next(uint32_t& v) {
        while (m_s < m_e && IsSpace(*m_s)) ++m_s;
        if (m_s >= m_e) return false;
        // The common case, at most nine digits, without the library call.
        uint32_t x = static_cast<unsigned>(*m_s - '0');
        if (x < 10u) {
            const char* d = m_s + 1;
            const char* stop = m_e - d > 8 ? d + 8 : m_e;
            for (unsigned c; d < stop && (c = static_cast<unsigned>(*d - '0')) < 10u; ++d) x = x * 10 + c;
            if (d == m_e || IsSpace(*d)) {
                v = x;
                m_s = d;
                return true;
            }
        }
        return LongIndex(v);
    }

private:
    __attribute__((noinline)) bool LongIndex(uint32_t& v) {
        const char* s = m_s;
        if (*s == '+') ++s;
        auto r = std::from_chars(s, m_e, v);
        if (r.ec == std::errc::result_out_of_range) {
            v = 0;
            while (m_s < m_e && !IsSpace(*m_s)) ++m_s;
            return true;
        }
        if (r.ec != std::errc()) {
            m_s = m_e;
            return false;
        }
        m_s = r.ptr;
        return true;
    }

    const char* m_s;
    const char* m_e;
};

// Indices from a list's text, or from its values read ahead.
class IndexScan {
public:
    explicit IndexScan(std::string_view text) : m_text(text) {}
    explicit IndexScan(const hostmem::ZeroedArray<uint32_t>& values)
        : m_text({}), m_p(values.data()), m_e(values.data() + values.size()), m_values(true) {}
    bool Next(uint32_t& v) {
        if (!m_values) return m_text.Next(v);
        if (m_p == m_e) return false;
        v = *m_p++;
        return true;
    }
    // Up to `n` values, in place or read into `buf`; `got` tells how many (fewer when the
    // list ends first).
    const uint32_t* Take(size_t n, std::vector<uint32_t>& buf, size_t& got) {
        if (m_values) {
            got = std::min(n, static_cast<size_t>(m_e - m_p));
            const uint32_t* at = m_p;
            m_p += got;
            return at;
        }
        buf.resize(n);
        got = 0;
        while (got < n && m_text.Next(buf[got])) ++got;
        return buf.data();
    }
    // No more values than this are left (a value and a blank take two bytes of text).
    size_t MostLeft() const { return m_values ? static_cast<size_t>(m_e - m_p) : m_text.Left() / 2 + 1; }

private:
    NumberScan m_text;
    const uint32_t* m_p = nullptr;
    const uint32_t* m_e = nullptr;
    bool m_values = false;
};

template <typename List> void ParseList(std::string_view text, List& out) {
    out.clear();
    NumberScan sc(text);
    typename List::value_type v;
    while (sc.Next(v)) out.push_back(v);
}

// Blank-separated words in `t` (any byte up to ' ' counts as a blank here; where that
// differs from the list's reading, the counts of values and words differ and tell).
size_t CountWords(std::string_view t) {
    size_t words = 0;
    uint64_t blank = 1; // before the text
    size_t i = 0;
#if defined(__SSE2__)
    // Sixty-four bytes a step: bit i of `word` is set when byte i belongs to a word. Signed
    // compare: bytes from 0x80 up count as blanks too, which only makes the counts disagree
    // on such text.
    const __m128i space = _mm_set1_epi8(' ');
    const auto mask = [&](size_t at) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(t.data() + at));
        return static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpgt_epi8(x, space))));
    };
    for (; i + 64 <= t.size(); i += 64) {
        const uint64_t word = mask(i) | mask(i + 16) << 16 | mask(i + 32) << 32 | mask(i + 48) << 48;
        words += textscan::PopCount64(word & (~word << 1 | blank)); // a blank before each byte
        blank = ~word >> 63;
    }
#endif
    for (; i < t.size(); ++i) {
        const bool isWord = static_cast<unsigned char>(t[i]) > ' ' && static_cast<signed char>(t[i]) >= 0;
        words += isWord && blank;
        blank = !isWord;
    }
    return words;
}

// The big number lists of one geometry, read ahead on a side thread (see AheadTuning).
// Each list is cut at blanks into chunks and sized by its words by whichever thread gets
// to it first. The side thread takes each list's chunks from the back, in document order;
// the reader takes chunks from the front of the list it needs. Each side counts the words of the chunk it takes and
// reserves their place, so every value is written once, straight to its place, and nothing written on one core is
// copied on the other. A list whose two ends do not meet exactly, or with a chunk whose values and words disagree (text
// that is not plain numbers), is read again on the reader's thread.
class ListsAhead {
public:
    struct List {
        std::string_view text;
        bool floats;
    };

    ListsAhead(const std::vector<List>& lists, size_t chunkBytes) : m_lists(lists.size()) {
        chunkBytes = std::max<size_t>(chunkBytes, 1);
        for (size_t k = 0; k < lists.size(); ++k) {
            Job& j = m_lists[k];
            j.text = lists[k].text;
            j.floats = lists[k].floats;
            for (size_t at = 0; at < j.text.size();) {
                size_t end = std::min(j.text.size(), at + chunkBytes);
                while (end < j.text.size() && !IsSpace(j.text[end])) ++end; // cut at a blank only
                j.chunks.push_back(j.text.substr(at, end - at));
                at = end;
            }
            j.state = std::make_unique<std::atomic<uint8_t>[]>(j.chunks.size());
            j.back = j.chunks.size();
        }
    }
    ~ListsAhead() { Stop(); }
    bool Start() {
        return !m_lists.empty() && m_thread.Start([this] { Side(); });
    }
    // The list of that kind whose text starts at `text` and is not taken yet; -1 when there is none.
    int Find(const char* text, bool floats) const {
        for (size_t k = 0; k < m_lists.size(); ++k)
            if (m_lists[k].text.data() == text && m_lists[k].floats == floats && !m_lists[k].taken)
                return static_cast<int>(k);
        return -1;
    }

    // Has the side thread fault in the pages of [p, p + bytes) while it still has lists to
    // read, for arrays the reader fills later: taken page by page on the reader's thread,
    // those faults cost more than the request does on the other core.
    void Prefault(const void* p, size_t bytes) {
        std::lock_guard<std::mutex> lock(m_claims);
        m_prefault.push_back({p, bytes});
        m_prefaultWaiting.store(true, std::memory_order_release);
    }

    // Every value of list k into `out`, as ParseList reads it.
    template <class T> void Read(int k, hostmem::ZeroedArray<T>& out) {
        Job& j = m_lists[static_cast<size_t>(k)];
        j.taken = true;
        Size(j);
        bool agree = true;
        size_t i = 0, words = 0, at = 0;
        while (agree && Claim(j, true, i, words, at)) agree = Fill<T>(j, i, at, words);
        size_t back;
        {
            std::lock_guard<std::mutex> lock(m_claims);
            j.broken = j.broken || !agree; // no more chunks of it for the side thread
            back = j.back;
        }
        // Chunks [back, end) were taken from the back: each is done, failed or being done.
        for (size_t c = back; c < j.chunks.size(); ++c) {
            for (uint32_t spin = 0; j.state[c].load(std::memory_order_acquire) == kPending; ++spin) Pause(spin);
            agree = agree && j.state[c].load(std::memory_order_acquire) == kDone;
        }
        {
            // Every chunk is in: the side thread no longer touches this list.
            std::lock_guard<std::mutex> lock(m_claims);
            agree = agree && !j.broken && j.front == j.back && j.frontAt == j.backAt;
        }
        auto& values = Values<T>(j);
        if (agree) {
            out = std::move(values);
        } else {
            values = {};
            out.clear();
            out.reserve(j.words);
            ParseList(j.text, out);
        }
    }

private:
    static constexpr uint8_t kPending = 0, kDone = 1, kFailed = 2;

    struct Job {
        std::string_view text;
        bool floats = false;
        std::vector<std::string_view> chunks;
        std::unique_ptr<std::atomic<uint8_t>[]> state;
        std::atomic<uint8_t> sized{0}; // 0 not yet, 1 being sized, 2 sized
        size_t words = 0;
        hostmem::ZeroedArray<float> floatValues;
        hostmem::ZeroedArray<uint32_t> indexValues;
        // Under m_claims:
        size_t front = 0, back = 0;     // chunks [front, back) are unclaimed
        size_t frontAt = 0, backAt = 0; // values [frontAt, backAt) are unreserved
        bool broken = false;            // no more claims: the reader reads it again
        bool taken = false;             // the reader's alone
    };

    void PrefaultNow() {
        if (!m_prefaultWaiting.load(std::memory_order_acquire)) return;
        std::vector<std::pair<const void*, size_t>> todo;
        {
            std::lock_guard<std::mutex> lock(m_claims);
            todo.swap(m_prefault);
            m_prefaultWaiting.store(false, std::memory_order_relaxed);
        }
        for (const auto& [p, bytes] : todo) hostmem::PopulatePages(p, bytes);
    }

    template <class T> static hostmem::ZeroedArray<T>& Values(Job& j) {
        if constexpr (std::is_same_v<T, float>) return j.floatValues;
        else return j.indexValues;
    }

    // A chunk takes tens of microseconds: spin for it rather than sleep, as waking a
    // sleeping thread can take far longer on a virtual machine.
    static void Pause(uint32_t spin) {
        if (spin < (1u << 16)) {
#if defined(__x86_64__) || defined(__i386__)
            __builtin_ia32_pause();
#endif
        } else {
            std::this_thread::yield();
        }
    }
    void Stop() {
        m_quit.store(true, std::memory_order_relaxed);
        m_thread.Join();
    }

    // The list's array, sized by its words, by whichever side gets there first.
    void Size(Job& j) {
        uint8_t expected = 0;
        if (!j.sized.compare_exchange_strong(expected, 1, std::memory_order_acq_rel)) {
            for (uint32_t spin = 0; j.sized.load(std::memory_order_acquire) != 2; ++spin) Pause(spin);
            return;
        }
        const size_t words = CountWords(j.text);
        bool ok = true;
        try {
            if (j.floats) {
                j.floatValues.reserve(words + 3); // room for what a normal channel adds
                j.floatValues.resize(words);
            } else {
                j.indexValues.resize(words);
            }
        } catch (const std::bad_alloc&) { ok = false; }
        {
            std::lock_guard<std::mutex> lock(m_claims);
            j.words = words;
            j.backAt = words;
            j.broken = j.broken || !ok;
        }
        j.sized.store(2, std::memory_order_release);
    }

    // Takes the next chunk of j from the front or the back, counts its words and reserves
    // their place; false when no chunk is left or their places would overlap.
    bool Claim(Job& j, bool front, size_t& index, size_t& words, size_t& at) {
        {
            std::lock_guard<std::mutex> lock(m_claims);
            if (j.front >= j.back || j.broken) return false;
            index = front ? j.front++ : --j.back;
        }
        words = CountWords(j.chunks[index]);
        std::lock_guard<std::mutex> lock(m_claims);
        if (words > j.backAt - j.frontAt) {
            j.broken = true;
            j.state[index].store(kFailed, std::memory_order_release);
            return false;
        }
        at = front ? j.frontAt : j.backAt - words;
        (front ? j.frontAt : j.backAt) = front ? j.frontAt + words : j.backAt - words;
        return true;
    }

    // Chunk i's values to [at, at + words); false when they are not one a word, or
    // something other than blanks is left after them (a list that ends there).
    template <class T> bool Fill(Job& j, size_t i, size_t at, size_t words) {
        T* to = Values<T>(j).data() + at;
        NumberScan sc(j.chunks[i]);
        size_t n = 0;
        T v;
        while (n < words && sc.Next(v)) to[n++] = v;
        return n == words && sc.OnlyBlanksLeft();
    }

    // The lists in the order the reader needs them, each from its back: the side thread
    // works on the list nearest to the reader's, and they meet in each.
    void Side() {
        for (Job& j : m_lists) {
            if (m_quit.load(std::memory_order_relaxed)) return;
            PrefaultNow();
            Size(j);
            size_t i = 0, words = 0, at = 0;
            while (!m_quit.load(std::memory_order_relaxed) && (PrefaultNow(), Claim(j, false, i, words, at))) {
                const bool ok = j.floats ? Fill<float>(j, i, at, words) : Fill<uint32_t>(j, i, at, words);
                j.state[i].store(ok ? kDone : kFailed, std::memory_order_release);
            }
        }
    }

    std::vector<Job> m_lists;
    std::mutex m_claims;
    std::vector<std::pair<const void*, size_t>> m_prefault; // under m_claims
    std::atomic<bool> m_prefaultWaiting{false};
    std::atomic<bool> m_quit{false};
    hostmem::SideThread m_thread; // last: joined before the rest goes
};

std::string_view Fragment(const char* url) {
    if (!url) return {};
    std::string_view u(url);
    return !u.empty() && u[0] == '#' ? u.substr(1) : u;
}

std::string UrlDecode(std::string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size() && std::isxdigit(static_cast<unsigned char>(s[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(s[i + 2]))) {
            out += static_cast<char>(std::stoi(std::string(s.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += s[i];
        }
    }
    return out;
}

uint8_t Byte(float v) {
    if (!(v > 0)) return 0;
    if (v >= 1) return 255;
    return static_cast<uint8_t>(v * 255.0f + 0.5f);
}

// A source's accessor over its float array.
struct Source {
    std::string id;
    hostmem::ZeroedArray<float> data;
    size_t count = 0, stride = 1, offset = 0;
    const float* at(size_t i) const { return data.data() + offset + i * stride; }
};

struct Input {
    std::string semantic;
    const Source* source = nullptr;
    size_t offset = 0;
    int set = 0;
};

// One built geometry: its mesh (face material IDs hold the primitive's symbol number) and
// curves. `uses` counts the instance_geometry elements naming it; with one, the first
// instance takes the mesh itself and later visits of that element copy what it placed.
struct BuiltGeometry {
    std::unique_ptr<C3DObject> mesh;
    std::vector<std::unique_ptr<C3DCurve>> curves;
    std::vector<std::string> symbols;
    uint32_t uses = 0;
    bool taken = false, placedMesh = false;
    std::vector<const C3DBaseObject*> placed;
};

// An animation channel on a node's transform element: the keys' times (seconds) and values.
struct Channel {
    std::string sid;
    int member = -1; // -1: the whole element; else one value of it
    std::vector<float> times, values;
    size_t stride = 1, count = 0;
};

using FaceArray = CFaceList::IndexArray;

class Reader {
public:
    Reader(C3DScene& scene, CIoOptions& log, const CFileParser& parser, std::string file, const IoFile* io,
           const collada::AheadTuning& ahead)
        : m_scene(scene), m_log(log), m_parser(parser), m_file(std::move(file)), m_io(io), m_tuning(ahead) {}

    bool Load(std::span<const uint8_t> data) {
        m_data = data;
        m_budget = (64ull << 20) + 16ull * data.size();
        pugi::xml_parse_result r;
        if (LiftLists(data, m_structure, m_lists, m_io)) {
            m_lifted = true;
            StartAhead();
            r = m_doc.load_buffer_inplace(m_structure.data(), m_structure.size(), pugi::parse_default,
                                          pugi::encoding_auto);
        } else {
            m_lists.clear();
            std::string().swap(m_structure);
            r = m_doc.load_buffer(data.data(), data.size(), pugi::parse_default, pugi::encoding_auto);
        }
        if (!r) return false;
        m_root = m_doc.child("COLLADA");
        if (!m_root) return false;
        IndexIds(m_root);
        return true;
    }

    void Convert() {
        ReadAsset();
        ReadAnimations();
        pugi::xml_node vs;
        if (pugi::xml_node inst = m_root.child("scene").child("instance_visual_scene"))
            vs = ById(Fragment(inst.attribute("url").value()));
        if (!vs) vs = m_root.child("library_visual_scenes").child("visual_scene");
        if (!vs) return;
        // Geometries in document order, so their lists are read front to back.
        for (pugi::xml_node lib : m_root.children("library_geometries"))
            for (pugi::xml_node g : lib.children("geometry")) {
                if (Stopped()) return;
                if (m_parser.IsCancelled()) {
                    m_cancelled = true;
                    return;
                }
                if (m_uses.count(g.attribute("id").value())) BuildGeometry(g);
            }
        std::vector<pugi::xml_node> stack;
        for (pugi::xml_node n : vs.children("node")) {
            if (Stopped()) break;
            WalkNode(n, nullptr, stack);
        }
        if (m_keyed) m_scene.SetAnimationRange(m_firstTick, m_lastTick);
    }
    bool Cancelled() const { return m_cancelled; }

private:
    void IndexIds(pugi::xml_node top) {
        // Iterative walk: documents may nest deeper than the stack would like.
        std::vector<pugi::xml_node> todo{top}, controllers;
        while (!todo.empty()) {
            pugi::xml_node n = todo.back();
            todo.pop_back();
            if (const char* id = n.attribute("id").value(); *id) m_ids.emplace(id, n);
            if (std::strcmp(n.name(), "instance_geometry") == 0) {
                ++m_uses[std::string(Fragment(n.attribute("url").value()))];
            } else if (std::strcmp(n.name(), "instance_controller") == 0) {
                controllers.push_back(n);
            }
            for (pugi::xml_node c = n.last_child(); c; c = c.previous_sibling())
                if (c.type() == pugi::node_element) todo.push_back(c);
        }
        // A controller instance names its geometry too, once the ids are known.
        C4x4Matrix shape;
        bool moved = false;
        for (pugi::xml_node n : controllers)
            if (pugi::xml_node g = ControllerGeometry(n, shape, moved)) ++m_uses[g.attribute("id").value()];
    }
    // The geometry under an instance_controller's chain of skins and morphs, with the skins'
    // bind-shape matrices composed into `shape` (`moved` when that is not the identity).
    // Chains are short in practice: loops and long ones give nothing.
    pugi::xml_node ControllerGeometry(pugi::xml_node inst, C4x4Matrix& shape, bool& moved) {
        constexpr int kMaxChain = 16;
        shape = C4x4Matrix();
        moved = false;
        pugi::xml_node at = ById(Fragment(inst.attribute("url").value()));
        for (int depth = 0; at && depth <= kMaxChain; ++depth) {
            if (std::strcmp(at.name(), "geometry") == 0) return at;
            if (std::strcmp(at.name(), "controller") != 0) return {};
            pugi::xml_node how = at.child("skin");
            if (how) {
                pugi::xml_node bind = how.child("bind_shape_matrix");
                Transform t{"matrix", {}, {}};
                if (bind) ParseList(Text(bind), t.v);
                static constexpr float kIdentity[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
                if (t.v.size() >= 16 && !std::equal(kIdentity, kIdentity + 16, t.v.begin())) {
                    shape = Compose({t}) * shape; // the inner controller's shape acts first
                    moved = true;
                }
            } else if (!(how = at.child("morph"))) {
                return {};
            }
            at = ById(Fragment(how.attribute("source").value()));
        }
        if (at && !m_chainLogged) {
            Log("Collada: a controller chain that loops or runs too deep was left out.");
            m_chainLogged = true;
        }
        return {};
    }
    pugi::xml_node ById(std::string_view id) const {
        auto it = m_ids.find(std::string(id));
        return it == m_ids.end() ? pugi::xml_node() : it->second;
    }
    bool Stopped() const { return m_stopped || m_cancelled; }
    void Log(const std::string& s) { m_log.AddLogInfo(LOG_INFO, Wide(s)); }
    bool Charge(uint64_t n) {
        m_used += n;
        if (m_used > m_budget) {
            if (!m_stopped)
                Log("Collada: the geometry made would grow past its cap (repeated instances); the rest was left out.");
            m_stopped = true;
            return false;
        }
        return true;
    }

    // An element's text; a lifted list comes from the document's own bytes.
    std::string_view Text(pugi::xml_node n) {
        const char* v = n.child_value();
        if (!m_lifted || *v != kLifted) return v;
        size_t i = 0;
        auto r = std::from_chars(v + 1, v + std::strlen(v), i);
        if (r.ec != std::errc() || *r.ptr || i >= m_lists.size()) return {};
        const Range& l = m_lists[i];
        return {reinterpret_cast<const char*>(m_data.data()) + l.begin, l.size};
    }
    // The pages of lists read so far may go (a mapped file brings them back if needed again).
    void Consumed(std::string_view text) {
        if (!m_lifted || !m_io || text.empty()) return;
        const auto end = static_cast<size_t>(text.data() + text.size() - reinterpret_cast<const char*>(m_data.data()));
        if (end > m_data.size() || end < m_releasedTo + (4u << 20)) return;
        m_releasedTo = end;
        m_io->ReleaseBefore(static_cast<int64_t>(end));
    }
    void ReadAsset() {
        pugi::xml_node unit = m_root.child("asset").child("unit");
        double meter = unit ? unit.attribute("meter").as_double(1.0) : 1.0;
        if (!(meter > 0) || !std::isfinite(meter)) meter = 1.0;
        struct Known {
            double m;
            int code;
        };
        static constexpr Known kUnits[] = {{1.0, UNIT_METER},        {0.01, UNIT_CENTIMETER}, {0.001, UNIT_MILLIMETER},
                                           {1000.0, UNIT_KILOMETER}, {0.0254, UNIT_INCH},     {0.3048, UNIT_FOOT}};
        int code = UNIT_METER;
        for (const Known& k : kUnits)
            if (std::fabs(meter - k.m) < k.m * 1e-6) code = k.code;
        m_scene.SetUnit(code);
        m_scene.SetScaleFactor(meter * 100.0);
        std::string_view up = m_root.child("asset").child_value("up_axis");
        while (!up.empty() && std::isspace(static_cast<unsigned char>(up.front()))) up.remove_prefix(1);
        while (!up.empty() && std::isspace(static_cast<unsigned char>(up.back()))) up.remove_suffix(1);
        m_scene.GetCustomData().SetInt(COLLADA_UP_AXIS, up == "X_UP" ? 0 : up == "Z_UP" ? 2 : 1);
    }

    // The big lists of the geometry that has the most list text go to a side thread as soon
    // as the lists are known, so that much of them is read by the time the structure is
    // built and the reader gets there. Index lists past a bound are left to the reader's
    // batches, which never hold a whole one.
    bool AheadCandidate(const Range& l) const {
        return l.geometry && l.size >= m_tuning.listBytes &&
               (l.floats || (l.indices && l.size <= collada::AheadTuning::kMaxIndexBytes));
    }
    void StartAhead() {
        size_t best = 0, bestBytes = 0, bytes = 0;
        for (size_t k = 0; k < m_lists.size(); ++k) {
            if (k == 0 || m_lists[k].geometry != m_lists[k - 1].geometry) bytes = 0;
            if (!AheadCandidate(m_lists[k])) continue;
            bytes += m_lists[k].size;
            if (bytes > bestBytes) {
                bestBytes = bytes;
                best = m_lists[k].geometry;
            }
        }
        if (bestBytes == 0 || bestBytes < m_tuning.minBytes) return;
        std::vector<ListsAhead::List> lists;
        for (const Range& l : m_lists)
            if (l.geometry == best && AheadCandidate(l))
                lists.push_back(
                    {std::string_view(reinterpret_cast<const char*>(m_data.data()) + l.begin, l.size), l.floats});
        auto ahead = std::make_unique<ListsAhead>(lists, m_tuning.chunkBytes);
        if (ahead->Start()) m_ahead = std::move(ahead);
    }

    // The values of a list read ahead, if `text` is one; false when it is not.
    template <class T> bool TakeAhead(std::string_view text, hostmem::ZeroedArray<T>& out) {
        const int k = m_ahead && !text.empty() ? m_ahead->Find(text.data(), std::is_same_v<T, float>) : -1;
        if (k < 0) return false;
        m_ahead->Read(k, out);
        return true;
    }

    // Sources are read per geometry and dropped once it is built.
    const Source* GetSource(std::string_view id) {
        if (auto it = m_sources.find(std::string(id)); it != m_sources.end()) return &it->second;
        pugi::xml_node n = ById(id);
        if (!n || std::strcmp(n.name(), "source") != 0) return nullptr;
        Source s;
        pugi::xml_node arr = n.child("float_array");
        const std::string_view text = Text(arr);
        if (!Charge(text.size() / 4)) return nullptr;
        if (!TakeAhead(text, s.data)) {
            // Room for the declared count, as far as the text could hold it, and for the entry
            // a normal channel adds when it takes the values over (see BuildMesh).
            s.data.reserve(std::min<uint64_t>(arr.attribute("count").as_ullong(0), text.size() / 2 + 1) + 3);
            ParseList(text, s.data);
        }
        Consumed(text);
        pugi::xml_node acc = n.child("technique_common").child("accessor");
        s.stride = std::max<size_t>(1, acc ? acc.attribute("stride").as_ullong(1) : 1);
        s.offset = acc ? acc.attribute("offset").as_ullong(0) : 0;
        uint64_t count = acc ? acc.attribute("count").as_ullong(0) : s.data.size();
        // The accessor may claim more than the array holds: keep what is there.
        const uint64_t fit = s.data.size() > s.offset ? (s.data.size() - s.offset) / s.stride : 0;
        s.count = static_cast<size_t>(std::min<uint64_t>(count, fit));
        s.id = id;
        return &m_sources.emplace(std::string(id), std::move(s)).first->second;
    }

    // Inputs of a primitive; VERTEX expands into the <vertices> element's inputs.
    // The mesh's <vertices> element an input's source names (the first of that id), from a
    // table made once per mesh: a search per input would be quadratic in the primitives.
    pugi::xml_node MeshVertices(pugi::xml_node in) const {
        const auto it = m_meshVertices.find(Fragment(in.attribute("source").value()));
        return it == m_meshVertices.end() ? pugi::xml_node() : it->second;
    }

    std::vector<Input> Inputs(pugi::xml_node prim, size_t& stride) {
        std::vector<Input> out;
        size_t maxOffset = 0;
        for (pugi::xml_node in : prim.children("input")) {
            size_t off = std::min<uint64_t>(in.attribute("offset").as_ullong(0), 1024);
            maxOffset = std::max(maxOffset, off);
            std::string sem = in.attribute("semantic").value();
            // Only the sources the mesh keeps are read.
            auto used = [this](pugi::xml_node i, const std::string& semantic) -> const Source* {
                if (semantic != "POSITION" && semantic != "TEXCOORD" && semantic != "COLOR" && semantic != "NORMAL")
                    return nullptr;
                return GetSource(Fragment(i.attribute("source").value()));
            };
            if (sem == "VERTEX") {
                for (pugi::xml_node vi : MeshVertices(in).children("input")) {
                    std::string vsem = vi.attribute("semantic").value();
                    const Source* src = used(vi, vsem);
                    out.push_back({std::move(vsem), src, off, vi.attribute("set").as_int(0)});
                }
            } else {
                const Source* src = used(in, sem);
                out.push_back({std::move(sem), src, off, in.attribute("set").as_int(0)});
            }
        }
        stride = maxOffset + 1;
        return out;
    }

    BuiltGeometry* BuildGeometry(pugi::xml_node geom) {
        const std::string id = geom.attribute("id").value();
        if (auto it = m_geometries.find(id); it != m_geometries.end()) return it->second.get();
        auto built = std::make_unique<BuiltGeometry>();
        if (auto u = m_uses.find(id); u != m_uses.end()) built->uses = u->second;
        pugi::xml_node mesh = geom.child("mesh");
        if (mesh) BuildMesh(mesh, *built);
        m_sources.clear();
        return m_geometries.emplace(id, std::move(built)).first->second.get();
    }

    // The faces of one mesh (or of one primitive's curve) as the flat arrays the face
    // lists adopt, with the corner indices of the texture and colour channels beside them.
    struct FaceArrays {
        FaceArray offsets{0}, indices, materials, uv, vc, nrm;
        CFaceList::FlagArray flags;
        void Reserve(size_t faces, size_t corners) {
            hostmem::ReserveLarge(offsets, offsets.size() + faces);
            hostmem::ReserveLarge(indices, indices.size() + corners);
            hostmem::ReserveLarge(materials, materials.size() + faces);
            hostmem::ReserveLarge(flags, flags.size() + faces);
        }
        std::unique_ptr<C3DFaceList> Take() {
            auto fl = std::make_unique<C3DFaceList>();
            fl->Adopt(std::move(offsets), std::move(indices), std::move(flags), std::move(materials));
            return fl;
        }
    };

    // Room for the faces of every triangle list and polylist of the mesh at once, as far as
    // their text could hold them, before any source is read: one block per array, and with
    // a side thread reading the lists, their pages are faulted in over there meanwhile.
    void ReserveFaces(pugi::xml_node mesh, FaceArrays& faces) {
        uint64_t count = 0;
        bool normals = false, coords = false, colors = false;
        const auto note = [&](pugi::xml_node in) {
            const std::string_view sem = in.attribute("semantic").value();
            normals = normals || sem == "NORMAL";
            coords = coords || sem == "TEXCOORD";
            colors = colors || sem == "COLOR";
        };
        for (pugi::xml_node prim : mesh.children()) {
            const std::string_view kind = prim.name();
            if (kind != "triangles" && kind != "polylist") continue;
            uint64_t maxOffset = 0;
            for (pugi::xml_node in : prim.children("input")) {
                maxOffset =
                    std::max<uint64_t>(maxOffset, std::min<uint64_t>(in.attribute("offset").as_ullong(0), 1024));
                note(in);
                if (std::string_view(in.attribute("semantic").value()) == "VERTEX")
                    for (pugi::xml_node vi : MeshVertices(in).children("input")) note(vi);
            }
            const uint64_t room = Text(prim.child("p")).size() / (2 * (maxOffset + 1) * 3) + 1;
            count += std::min<uint64_t>(prim.attribute("count").as_ullong(0), room);
        }
        if (count == 0) return;
        faces.Reserve(count, 3 * count);
        const size_t corners = faces.indices.capacity();
        if (normals) hostmem::ReserveLarge(faces.nrm, corners);
        if (coords) hostmem::ReserveLarge(faces.uv, corners);
        if (colors) hostmem::ReserveLarge(faces.vc, corners);
        if (!m_ahead) return;
        for (const FaceArray* a : {&faces.offsets, &faces.indices, &faces.materials, &faces.nrm, &faces.uv, &faces.vc})
            m_ahead->Prefault(a->data(), a->capacity() * sizeof(uint32_t));
        m_ahead->Prefault(faces.flags.data(), faces.flags.capacity());
    }

    void BuildMesh(pugi::xml_node mesh, BuiltGeometry& out) {
        m_meshVertices.clear();
        for (pugi::xml_node v : mesh.children("vertices")) m_meshVertices.emplace(v.attribute("id").value(), v);
        FaceArrays faces;
        ReserveFaces(mesh, faces);
        // Points: the POSITION source of <vertices>, shared by every primitive.
        pugi::xml_node verts = mesh.child("vertices");
        const Source* pos = nullptr;
        for (pugi::xml_node vi : verts.children("input"))
            if (std::strcmp(vi.attribute("semantic").value(), "POSITION") == 0)
                pos = GetSource(Fragment(vi.attribute("source").value()));
        if (!pos || pos->count == 0 || pos->count > static_cast<size_t>(INT32_MAX)) return;
        auto points = std::make_unique<C3DPointList>();
        points->SetSize(static_cast<int>(pos->count));
        float* xyz = points->GetData();
        for (size_t i = 0; i < pos->count; ++i) {
            const float* p = pos->at(i);
            xyz[3 * i] = p[0];
            xyz[3 * i + 1] = pos->stride > 1 ? p[1] : 0;
            xyz[3 * i + 2] = pos->stride > 2 ? p[2] : 0;
        }
        const auto npoints = static_cast<uint32_t>(pos->count);
        std::unique_ptr<CUVWChannel> uv;
        std::unique_ptr<CVCChannel> vc;
        std::unique_ptr<CSpecNormalChannel> nc;
        const Source* uvSource = nullptr;
        const Source* colorSource = nullptr;
        const Source* normalSource = nullptr;
        std::vector<uint32_t> buf, list;
        std::unordered_map<std::string_view, uint32_t> symbols; // material symbol: its number
        // Sources this mesh reads as positions, coordinates or colours (all others are read
        // as normals only).
        std::unordered_set<std::string> otherUses;
        auto note = [&otherUses](pugi::xml_node in) {
            const std::string_view sem = in.attribute("semantic").value();
            if (sem == "POSITION" || sem == "TEXCOORD" || sem == "COLOR")
                otherUses.emplace(Fragment(in.attribute("source").value()));
        };
        for (pugi::xml_node v : mesh.children("vertices"))
            for (pugi::xml_node in : v.children("input")) note(in);
        for (pugi::xml_node prim : mesh.children())
            for (pugi::xml_node in : prim.children("input")) note(in);

        for (pugi::xml_node prim : mesh.children()) {
            const std::string_view kind = prim.name();
            const bool lines = kind == "lines" || kind == "linestrips";
            if (!(kind == "triangles" || kind == "polylist" || kind == "polygons" || kind == "tristrips" ||
                  kind == "trifans" || lines))
                continue;
            if (Stopped()) return;
            size_t stride = 1;
            std::vector<Input> inputs = Inputs(prim, stride);
            size_t vOff = SIZE_MAX, tOff = SIZE_MAX, cOff = SIZE_MAX, nOff = SIZE_MAX;
            int tSet = INT32_MAX;
            for (const Input& in : inputs) {
                if (!in.source) continue;
                if (in.semantic == "POSITION" && in.source == pos) vOff = in.offset;
                if (in.semantic == "TEXCOORD" && in.set < tSet && (!uvSource || in.source == uvSource || !uv)) {
                    tSet = in.set;
                    tOff = in.offset;
                    if (!uvSource) uvSource = in.source;
                }
                if (in.semantic == "COLOR" && (!colorSource || in.source == colorSource)) {
                    cOff = in.offset;
                    if (!colorSource) colorSource = in.source;
                }
                if (in.semantic == "NORMAL" && (!normalSource || in.source == normalSource)) {
                    nOff = in.offset;
                    if (!normalSource) normalSource = in.source;
                }
            }
            if (vOff == SIZE_MAX) continue;
            if (tOff != SIZE_MAX && !uv) {
                uv = std::make_unique<CUVWChannel>();
                C3DPointList& uvp = *uv->GetUVWPointList();
                uvp.SetSize(static_cast<int>(uvSource->count + 1)); // the last: the corner of faces without coordinates
                float* d = uvp.GetData();
                for (size_t i = 0; i < uvSource->count; ++i) {
                    const float* t = uvSource->at(i);
                    d[3 * i] = t[0];
                    d[3 * i + 1] = uvSource->stride > 1 ? t[1] : 0;
                }
                faces.uv.assign(faces.indices.size(), static_cast<uint32_t>(uvSource->count));
            }
            if (cOff != SIZE_MAX && !vc) {
                vc = std::make_unique<CVCChannel>();
                for (size_t i = 0; i < colorSource->count; ++i) {
                    const float* c = colorSource->at(i);
                    vc->GetVCPointList()->Add(CRGBColor(Byte(c[0]), colorSource->stride > 1 ? Byte(c[1]) : 0,
                                                        colorSource->stride > 2 ? Byte(c[2]) : 0,
                                                        colorSource->stride > 3 ? Byte(c[3]) : 255));
                }
                vc->GetVCPointList()->Add(CRGBColor(255, 255, 255));
                faces.vc.assign(faces.indices.size(), static_cast<uint32_t>(colorSource->count));
            }
            if (nOff != SIZE_MAX && !nc) {
                nc = std::make_unique<CSpecNormalChannel>();
                C3DVectorList& nv = *nc->GetNormalVectorList();
                // Plain triples read for nothing but normals become the channel's list as they
                // are (the source keeps its count); others are copied.
                auto& src = const_cast<Source&>(*normalSource); // owned by m_sources
                if (src.stride == 3 && src.offset == 0 && src.data.size() >= 3 * src.count &&
                    !otherUses.count(src.id)) {
                    src.data.resize(3 * src.count);
                    src.data.resize(3 * (src.count + 1)); // the last: corners without a normal (zeros)
                    nv.Raw() = std::move(src.data);
                } else {
                    nv.SetSize(static_cast<int>(normalSource->count + 1)); // the last: corners without a normal
                    float* d = nv.GetData();
                    for (size_t i = 0; i < normalSource->count; ++i) {
                        const float* n = normalSource->at(i);
                        for (size_t k = 0; k < 3; ++k) d[3 * i + k] = normalSource->stride > k ? n[k] : 0;
                    }
                }
                faces.nrm.assign(faces.indices.size(), static_cast<uint32_t>(normalSource->count));
            }
            const char* sym = prim.attribute("material").value();
            const auto [known, added] = symbols.emplace(sym, static_cast<uint32_t>(out.symbols.size()));
            const uint32_t symbol = known->second;
            if (added) out.symbols.push_back(sym);
            const uint32_t uvMissing = uv ? static_cast<uint32_t>(uvSource->count) : 0;
            const uint32_t vcMissing = vc ? static_cast<uint32_t>(colorSource->count) : 0;
            const uint32_t nMissing = nc ? static_cast<uint32_t>(normalSource->count) : 0;

            FaceArrays curve;
            // One polygon (or line) of `n` corners, each `stride` indices.
            auto addPoly = [&](const uint32_t* c, size_t n, bool asLine) {
                if (n < (asLine ? 2u : 3u)) return;
                for (size_t k = 0; k < n; ++k)
                    if (c[k * stride + vOff] >= npoints) return; // a corner that names no point: the face goes
                FaceArrays& to = asLine ? curve : faces;
                if (to.indices.size() + n > UINT32_MAX) {
                    if (!m_stopped) Log("Collada: a mesh too large for one face list was cut.");
                    m_stopped = true;
                    return;
                }
                const size_t at = to.indices.size();
                to.indices.resize(at + n);
                uint32_t* idx = to.indices.data() + at;
                for (size_t k = 0; k < n; ++k) idx[k] = c[k * stride + vOff];
                if (!asLine && uv) {
                    to.uv.resize(at + n);
                    uint32_t* t = to.uv.data() + at;
                    for (size_t k = 0; k < n; ++k) {
                        const uint32_t* v = c + k * stride;
                        t[k] = tOff != SIZE_MAX && v[tOff] < uvMissing ? v[tOff] : uvMissing;
                    }
                }
                if (!asLine && vc) {
                    to.vc.resize(at + n);
                    uint32_t* t = to.vc.data() + at;
                    for (size_t k = 0; k < n; ++k) {
                        const uint32_t* v = c + k * stride;
                        t[k] = cOff != SIZE_MAX && v[cOff] < vcMissing ? v[cOff] : vcMissing;
                    }
                }
                if (!asLine && nc) {
                    to.nrm.resize(at + n);
                    uint32_t* t = to.nrm.data() + at;
                    for (size_t k = 0; k < n; ++k) {
                        const uint32_t* v = c + k * stride;
                        t[k] = nOff != SIZE_MAX && v[nOff] < nMissing ? v[nOff] : nMissing;
                    }
                }
                to.offsets.push_back(static_cast<uint32_t>(to.indices.size()));
                to.flags.push_back(0);
                to.materials.push_back(symbol);
            };
            // `n` faces of `sizes[f]` corners (null: triangles), `stride` indices per corner, into
            // each array in one go; when a face names no point or has under three corners, the
            // batch goes face by face.
            auto addBatch = [&](const uint32_t* c, const uint32_t* sizes, size_t n) {
                size_t corners = 0;
                bool whole = true;
                for (size_t f = 0; f < n; ++f) {
                    const uint32_t k = sizes ? sizes[f] : 3;
                    whole = whole && k >= 3;
                    corners += k;
                }
                whole = whole && faces.indices.size() + corners <= UINT32_MAX;
                for (size_t k = 0; k < corners && whole; ++k) whole = c[k * stride + vOff] < npoints;
                if (!whole) {
                    for (size_t f = 0, at = 0; f < n; ++f) {
                        const uint32_t k = sizes ? sizes[f] : 3;
                        addPoly(c + at * stride, k, false);
                        at += k;
                    }
                    return;
                }
                const size_t at = faces.indices.size();
                auto column = [&](FaceArray& to, size_t off, uint32_t missing, bool keepAll) {
                    to.resize(at + corners);
                    uint32_t* t = to.data() + at;
                    if (off == SIZE_MAX) {
                        std::fill_n(t, corners, missing);
                        return;
                    }
                    for (size_t k = 0; k < corners; ++k) {
                        const uint32_t v = c[k * stride + off];
                        t[k] = keepAll || v < missing ? v : missing;
                    }
                };
                column(faces.indices, vOff, 0, true);
                if (uv) column(faces.uv, tOff, uvMissing, false);
                if (vc) column(faces.vc, cOff, vcMissing, false);
                if (nc) column(faces.nrm, nOff, nMissing, false);
                const size_t first = faces.offsets.size();
                faces.offsets.resize(first + n);
                uint32_t* o = faces.offsets.data() + first;
                auto end = static_cast<uint32_t>(at);
                for (size_t f = 0; f < n; ++f) o[f] = end += sizes ? sizes[f] : 3;
                faces.flags.resize(faces.flags.size() + n);
                const size_t m = faces.materials.size();
                faces.materials.resize(m + n);
                std::fill_n(faces.materials.data() + m, n, symbol);
            };
            // `n` corners from `sc` into `buf`; false when the list ends first.
            auto corners = [&](IndexScan& sc, size_t n) {
                buf.resize(n * stride);
                for (uint32_t& x : buf)
                    if (!sc.Next(x)) return false;
                return true;
            };
            const uint64_t declared = prim.attribute("count").as_ullong(0);
            if (kind == "triangles" || kind == "lines" || kind == "polylist") {
                const std::string_view text = Text(prim.child("p"));
                if (!Charge(text.size() / 2)) return;
                FaceArray ahead;
                IndexScan sc = TakeAhead(text, ahead) ? IndexScan(ahead) : IndexScan(text);
                const size_t perFace = kind == "lines" ? 2 : 3;
                // The declared count is only believed as far as the text could hold it.
                const uint64_t room = text.size() / (2 * stride * perFace) + 1;
                (lines ? curve : faces).Reserve(std::min(declared, room), std::min(declared, room) * perFace);
                if (uv && !lines) hostmem::ReserveLarge(faces.uv, faces.indices.capacity());
                if (nc && !lines) hostmem::ReserveLarge(faces.nrm, faces.indices.capacity());
                // Faces in batches: the numbers of many at once, then each array in one go.
                constexpr size_t kBatch = 512;
                if (kind == "polylist") {
                    const std::string_view counts = Text(prim.child("vcount"));
                    NumberScan vcount(counts);
                    std::vector<uint32_t> sizes;
                    bool more = true;
                    for (uint64_t i = 0; more && i < declared && !m_stopped;) {
                        // As many faces as the batch takes and the text left could hold.
                        sizes.clear();
                        uint64_t batchCorners = 0;
                        uint32_t n = 0;
                        while (sizes.size() < kBatch && batchCorners < 4 * kBatch && i < declared) {
                            if (!vcount.Next(n) || (batchCorners + n) * stride > sc.MostLeft()) {
                                more = false;
                                break;
                            }
                            sizes.push_back(n);
                            batchCorners += n;
                            ++i;
                        }
                        const auto want = static_cast<size_t>(batchCorners * stride);
                        if (!Charge(want)) return;
                        size_t got = 0;
                        const uint32_t* values = sc.Take(want, list, got);
                        if (got < want) { // the list ends inside a face: the faces before it stay
                            size_t whole = 0, used = 0;
                            while (whole < sizes.size() && used + sizes[whole] * stride <= got)
                                used += sizes[whole++] * stride;
                            sizes.resize(whole);
                            more = false;
                        }
                        addBatch(values, sizes.data(), sizes.size());
                    }
                } else if (lines) {
                    for (uint64_t i = 0; i < declared && corners(sc, perFace); ++i) addPoly(buf.data(), perFace, lines);
                } else {
                    const size_t per = 3 * stride;
                    for (uint64_t left = declared; left > 0 && !m_stopped;) {
                        // No more faces than the values left could make.
                        const uint64_t fit = sc.MostLeft() / per + 1;
                        const size_t want = static_cast<size_t>(std::min<uint64_t>({left, kBatch, fit})) * per;
                        if (!Charge(want)) return;
                        size_t got = 0;
                        const uint32_t* values = sc.Take(want, list, got);
                        const size_t n = got / per;
                        addBatch(values, nullptr, n);
                        left -= n;
                        if (got < want) break;
                    }
                }
                Consumed(text);
            } else {
                // polygons, strips, fans and line strips: one <p> each (polygons may hold holes in <ph>).
                std::vector<pugi::xml_node> lists;
                for (pugi::xml_node c : prim.children()) {
                    if (std::strcmp(c.name(), "p") == 0) lists.push_back(c);
                    else if (std::strcmp(c.name(), "ph") == 0) {
                        lists.push_back(c.child("p"));
                        for (pugi::xml_node h : c.children("h")) lists.push_back(h); // holes: faces of their own
                    }
                }
                for (pugi::xml_node l : lists) {
                    const std::string_view text = Text(l);
                    if (!Charge(text.size() * 2)) return;
                    if (FaceArray ahead; TakeAhead(text, ahead)) list.assign(ahead.begin(), ahead.end());
                    else ParseList(text, list);
                    Consumed(text);
                    const size_t n = list.size() / stride;
                    auto corner = [&](size_t o) { return list.begin() + static_cast<long>(o * stride); };
                    if (kind == "polygons") addPoly(list.data(), n, false);
                    else if (kind == "linestrips") addPoly(list.data(), n, true);
                    else if (kind == "tristrips") {
                        for (size_t k = 0; k + 2 < n; ++k) {
                            buf.clear();
                            const size_t order[3] = {k + (k & 1), k + 1 - (k & 1), k + 2};
                            for (size_t o : order) buf.insert(buf.end(), corner(o), corner(o + 1));
                            addPoly(buf.data(), 3, false);
                        }
                    } else { // trifans
                        for (size_t k = 1; k + 1 < n; ++k) {
                            buf.clear();
                            for (size_t o : {size_t(0), k, k + 1}) buf.insert(buf.end(), corner(o), corner(o + 1));
                            addPoly(buf.data(), 3, false);
                        }
                    }
                }
            }
            if (lines && curve.materials.size() > 0) {
                auto c = std::make_unique<C3DCurve>();
                c->SetPointList(new C3DPointList(*points));
                c->SetFaceList(curve.Take().release());
                out.curves.push_back(std::move(c));
            }
        }
        if (faces.materials.empty()) return;
        auto obj = std::make_unique<C3DObject>();
        FaceArray uvOffsets, vcOffsets, nOffsets;
        if (uv) uvOffsets = faces.offsets;
        if (vc) vcOffsets = faces.offsets;
        if (nc) nOffsets = faces.offsets;
        CFaceList::FlagArray uvFlags, vcFlags, nFlags;
        if (uv) uvFlags.resize(faces.flags.size());
        if (vc) vcFlags.resize(faces.flags.size());
        if (nc) nFlags.resize(faces.flags.size());
        FaceArray uvIdx = std::move(faces.uv), vcIdx = std::move(faces.vc), nIdx = std::move(faces.nrm);
        obj->SetPointList(points.release());
        obj->SetFaceList(faces.Take().release());
        if (uv) {
            uv->GetUVWFaceList()->Adopt(std::move(uvOffsets), std::move(uvIdx), std::move(uvFlags));
            obj->SetGlobalUVWChannel(obj->AddChannel(uv.release(), 1));
        }
        if (vc) {
            vc->GetVCFaceList()->Adopt(std::move(vcOffsets), std::move(vcIdx), std::move(vcFlags));
            obj->SetGlobalVCChannel(obj->AddChannel(vc.release(), -1));
        }
        if (nc) {
            nc->GetNormalFaceList()->Adopt(std::move(nOffsets), std::move(nIdx), std::move(nFlags));
            obj->AddChannel(nc.release(), -1);
        }
        out.mesh = std::move(obj);
    }

    std::string ImageFile(pugi::xml_node image) {
        pugi::xml_node init = image.child("init_from");
        std::string ref = init.child("ref") ? init.child("ref").child_value() : init.child_value();
        ref = UrlDecode(ref);
        if (ref.rfind("file://", 0) == 0) ref = ref.substr(7);
        else if (ref.rfind("file:", 0) == 0) ref = ref.substr(5);
        for (char& c : ref)
            if (c == '\\') c = '/';
        std::filesystem::path p(ref);
        if (p.is_relative() && !m_file.empty()) p = std::filesystem::path(m_file).parent_path() / p;
        return p.lexically_normal().string();
    }

    // The image a <texture texture="..."> names: a sampler's surface's image, or an image itself.
    pugi::xml_node TextureImage(pugi::xml_node effect, const char* texture) {
        pugi::xml_node profile = effect.child("profile_COMMON");
        auto param = [&](const char* sid) { return profile.find_child_by_attribute("newparam", "sid", sid); };
        pugi::xml_node sampler = param(texture).child("sampler2D");
        if (sampler) {
            if (pugi::xml_node inst = sampler.child("instance_image"))
                return ById(Fragment(inst.attribute("url").value()));
            pugi::xml_node surface = param(sampler.child("source").child_value()).child("surface");
            if (surface) return ById(surface.child("init_from").child_value());
        }
        return ById(texture);
    }

    uint32_t Material(std::string_view materialId) {
        if (auto it = m_materials.find(std::string(materialId)); it != m_materials.end()) return it->second;
        pugi::xml_node mat = ById(materialId);
        pugi::xml_node effect = ById(Fragment(mat.child("instance_effect").attribute("url").value()));
        C3DMaterial* hm = m_scene.CreateNewMaterial(MATERIAL_STANDARD);
        const char* name = mat.attribute("name").value();
        hm->SetName(Wide(*name ? name : std::string(materialId).c_str()));
        pugi::xml_node tech = effect.child("profile_COMMON").child("technique");
        pugi::xml_node shader;
        for (const char* s : {"phong", "blinn", "lambert", "constant"})
            if ((shader = tech.child(s))) break;
        auto color = [&](const char* what, float out[4]) {
            std::vector<float> v;
            ParseList(shader.child(what).child("color").child_value(), v);
            if (v.size() < 3) return false;
            for (int i = 0; i < 4; ++i) out[i] = i < static_cast<int>(v.size()) ? v[static_cast<size_t>(i)] : 1.0f;
            return true;
        };
        float c[4];
        if (color("diffuse", c)) hm->SetDiffuseColor(CRGBColor(Byte(c[0]), Byte(c[1]), Byte(c[2])));
        else if (color("emission", c) && std::strcmp(shader.name(), "constant") == 0)
            hm->SetDiffuseColor(CRGBColor(Byte(c[0]), Byte(c[1]), Byte(c[2])));
        auto* sm = static_cast<C3DStandardMaterial*>(hm);
        if (color("ambient", c)) sm->SetAmbientColor(CRGBColor(Byte(c[0]), Byte(c[1]), Byte(c[2])));
        if (color("specular", c)) sm->SetSpecularColor(CRGBColor(Byte(c[0]), Byte(c[1]), Byte(c[2])));
        if (pugi::xml_node sh = shader.child("shininess").child("float")) {
            float s = static_cast<float>(std::atof(sh.child_value()));
            sm->SetShininess(s);
            sm->SetSpecularFactor(std::clamp(s / 128.0f, 0.0f, 1.0f));
        }
        // Opacity from <transparent> (A_ONE: its alpha; RGB_ZERO: one less its luminance) times <transparency>.
        float factor = 1.0f;
        if (pugi::xml_node t = shader.child("transparency").child("float"))
            factor = static_cast<float>(std::atof(t.child_value()));
        float alpha = 1.0f;
        if (pugi::xml_node tr = shader.child("transparent")) {
            std::vector<float> v;
            ParseList(tr.child("color").child_value(), v);
            const bool rgbZero = std::strcmp(tr.attribute("opaque").value(), "RGB_ZERO") == 0;
            if (v.size() >= 4 && !rgbZero) alpha = v[3] * factor;
            else if (v.size() >= 3 && rgbZero)
                alpha = 1.0f - (0.2126f * v[0] + 0.7152f * v[1] + 0.0722f * v[2]) * factor;
            else alpha = factor;
        } else if (shader.child("transparency")) {
            alpha = factor;
        }
        float transparency = std::clamp(1.0f - alpha, 0.0f, 1.0f);
        if (transparency > 0.999f) transparency = 0; // exporters that write the factor the other way round
        hm->SetTransparency(transparency);
        if (pugi::xml_node tex = shader.child("diffuse").child("texture")) {
            pugi::xml_node image = TextureImage(effect, tex.attribute("texture").value());
            if (image) {
                CXStringW file = Wide(ImageFile(image));
                hm->AddMaterialMap(file, 1, MAP_DIFFUSE, PROJ_UV);
                m_scene.AddRequiredFile(file);
            }
        }
        uint32_t id = hm->GetID();
        m_materials.emplace(std::string(materialId), id);
        return id;
    }

    // Transform elements of a node, in document order, with their values.
    struct Transform {
        std::string_view name, sid;
        std::vector<float> v;
    };
    // Charged: a node reached through many instances is read again each time.
    std::vector<Transform> Transforms(pugi::xml_node node) {
        std::vector<Transform> out;
        for (pugi::xml_node t : node.children()) {
            if (!Charge(1)) break;
            const std::string_view name = t.name();
            if (name != "matrix" && name != "translate" && name != "scale" && name != "rotate" && name != "lookat")
                continue;
            Transform& tf = out.emplace_back();
            tf.name = name;
            tf.sid = t.attribute("sid").value();
            ParseList(t.child_value(), tf.v);
        }
        return out;
    }
    // Each element acts before the ones above it.
    static C4x4Matrix Compose(const std::vector<Transform>& list) {
        C4x4Matrix m;
        for (const Transform& t : list) {
            const std::vector<float>& v = t.v;
            C4x4Matrix step;
            if (t.name == "matrix" && v.size() >= 16) {
                for (int r = 0; r < 4; ++r)
                    for (int c = 0; c < 4; ++c)
                        step.m[c][r] = v[static_cast<size_t>(r * 4 + c)]; // column vectors: transpose
            } else if (t.name == "translate" && v.size() >= 3) {
                step = C4x4Matrix::Translation(v[0], v[1], v[2]);
            } else if (t.name == "scale" && v.size() >= 3) {
                step = C4x4Matrix::Scaling(v[0], v[1], v[2]);
            } else if (t.name == "rotate" && v.size() >= 4) {
                step = Rotation(v[0], v[1], v[2], v[3] * 3.14159265358979f / 180.0f);
            } else if (t.name == "lookat" && v.size() >= 9) {
                C3DVector eye(v[0], v[1], v[2]), target(v[3], v[4], v[5]), up(v[6], v[7], v[8]);
                C3DVector z = (eye - target).Normalized(), x = up.Cross(z).Normalized(), y = z.Cross(x);
                step.m[0][0] = x.x;
                step.m[0][1] = x.y;
                step.m[0][2] = x.z;
                step.m[1][0] = y.x;
                step.m[1][1] = y.y;
                step.m[1][2] = y.z;
                step.m[2][0] = z.x;
                step.m[2][1] = z.y;
                step.m[2][2] = z.z;
                step.SetTranslation(eye.x, eye.y, eye.z);
            } else {
                continue;
            }
            m = step * m;
        }
        return m;
    }

    static C4x4Matrix Rotation(float ax, float ay, float az, float angle) {
        C4x4Matrix m;
        double len = std::sqrt(double(ax) * ax + double(ay) * ay + double(az) * az);
        if (len < 1e-12 || !std::isfinite(len) || !std::isfinite(angle)) return m;
        double x = ax / len, y = ay / len, z = az / len, c = std::cos(angle), s = std::sin(angle), t = 1 - c;
        double r[3][3] = {{c + x * x * t, x * y * t - z * s, x * z * t + y * s},
                          {y * x * t + z * s, c + y * y * t, y * z * t - x * s},
                          {z * x * t - y * s, z * y * t + x * s, c + z * z * t}};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) m.m[i][j] = static_cast<float>(r[j][i]);
        return m;
    }

    // Animation channels, by the id of the node they move. A channel names one transform
    // element of the node by its sid, whole or one value of it ("ANGLE", "X", "(2)(3)").
    void ReadAnimations() {
        std::vector<pugi::xml_node> todo;
        for (pugi::xml_node lib : m_root.children("library_animations"))
            for (pugi::xml_node a : lib.children("animation")) todo.push_back(a);
        while (!todo.empty() && !Stopped()) {
            pugi::xml_node a = todo.back();
            todo.pop_back();
            for (pugi::xml_node c : a.children("animation")) todo.push_back(c);
            for (pugi::xml_node ch : a.children("channel")) AddChannel(ch);
        }
    }

    static int Member(std::string_view sel) {
        if (sel.empty()) return -1;
        if (sel[0] == '.') {
            sel.remove_prefix(1);
            if (sel == "X" || sel == "R" || sel == "S" || sel == "U") return 0;
            if (sel == "Y" || sel == "G" || sel == "T" || sel == "V") return 1;
            if (sel == "Z" || sel == "B" || sel == "P") return 2;
            if (sel == "ANGLE" || sel == "W" || sel == "A" || sel == "Q") return 3;
            return -2;
        }
        // "(i)" or "(row)(column)" of a matrix
        int idx[2] = {-1, -1}, n = 0;
        while (!sel.empty() && n < 2) {
            if (sel[0] != '(') return -2;
            int v = 0;
            auto r = std::from_chars(sel.data() + 1, sel.data() + sel.size(), v);
            if (r.ec != std::errc() || r.ptr == sel.data() + sel.size() || *r.ptr != ')' || v < 0 || v > 15) return -2;
            idx[n++] = v;
            sel.remove_prefix(static_cast<size_t>(r.ptr + 1 - sel.data()));
        }
        if (!sel.empty()) return -2;
        const int m = n == 1 ? idx[0] : idx[0] * 4 + idx[1];
        return m < 16 ? m : -2;
    }

    // A source's values as read through its accessor (without the per-geometry cache).
    bool ReadValues(pugi::xml_node src, std::vector<float>& out, size_t& stride, size_t& count) {
        if (!src || std::strcmp(src.name(), "source") != 0) return false;
        const std::string_view text = Text(src.child("float_array"));
        if (!Charge(text.size() / 4)) return false;
        ParseList(text, out);
        pugi::xml_node acc = src.child("technique_common").child("accessor");
        stride = std::clamp<uint64_t>(acc.attribute("stride").as_ullong(1), 1, 16);
        const uint64_t offset = std::min<uint64_t>(acc.attribute("offset").as_ullong(0), out.size());
        out.erase(out.begin(), out.begin() + static_cast<long>(offset));
        count = static_cast<size_t>(
            std::min<uint64_t>(acc ? acc.attribute("count").as_ullong(0) : out.size(), out.size() / stride));
        return true;
    }

    void AddChannel(pugi::xml_node ch) {
        const std::string_view target = ch.attribute("target").value();
        const size_t slash = target.find('/');
        if (slash == std::string_view::npos) return;
        const std::string_view rest = target.substr(slash + 1);
        const size_t cut = std::min(rest.find_first_of(".("), rest.size());
        Channel c;
        c.sid = rest.substr(0, cut);
        c.member = Member(rest.substr(cut));
        if (c.member == -2 || c.sid.find('/') != std::string::npos) {
            if (!m_animLogged) Log("Collada: animation channels on nested or unknown targets were left out.");
            m_animLogged = true;
            return;
        }
        pugi::xml_node sampler = ById(Fragment(ch.attribute("source").value()));
        pugi::xml_node in, out;
        for (pugi::xml_node i : sampler.children("input")) {
            const std::string_view sem = i.attribute("semantic").value();
            if (sem == "INPUT") in = ById(Fragment(i.attribute("source").value()));
            else if (sem == "OUTPUT") out = ById(Fragment(i.attribute("source").value()));
        }
        size_t timeStride = 1, timeCount = 0;
        std::vector<float> t;
        if (!ReadValues(in, t, timeStride, timeCount) || !ReadValues(out, c.values, c.stride, c.count)) return;
        c.count = std::min(c.count, timeCount);
        if (c.count == 0) return;
        c.times.resize(c.count);
        for (size_t i = 0; i < c.count; ++i) c.times[i] = t[i * timeStride];
        m_channels[std::string(target.substr(0, slash))].push_back(std::move(c));
    }

    // The channel's value(s) at `time`: linear between its keys, held beyond both ends.
    static void Sample(const Channel& c, double time, float* out) {
        const auto end = c.times.begin() + static_cast<long>(c.count);
        const size_t hi = static_cast<size_t>(std::upper_bound(c.times.begin(), end, time) - c.times.begin());
        const size_t a = hi == 0 ? 0 : hi - 1, b = std::min(hi, c.count - 1);
        double f = 0;
        if (a != b && c.times[b] > c.times[a]) f = (time - c.times[a]) / (c.times[b] - c.times[a]);
        for (size_t k = 0; k < c.stride; ++k) {
            const float va = c.values[a * c.stride + k], vb = c.values[b * c.stride + k];
            out[k] = static_cast<float>(va + (vb - va) * f);
        }
    }

    // Matrix keys for a node whose transform elements are animated: at every key time of
    // its channels, the node's whole transform with each channel's value put in.
    void AnimateNode(pugi::xml_node node, C3DSceneNode* me) {
        const char* id = node.attribute("id").value();
        if (!*id) return;
        auto it = m_channels.find(id);
        if (it == m_channels.end() || m_keysLogged) return;
        // Every visit of the node (instanced nodes) makes its keys again: bounded in all.
        uint64_t keys = 0;
        for (const Channel& c : it->second) keys += c.count;
        if (m_keysMade + keys > kMaxKeys) {
            Log("Collada: too many animation keys; the rest were left out.");
            m_keysLogged = true;
            return;
        }
        m_keysMade += keys;
        const std::vector<Transform> base = Transforms(node);
        std::vector<std::pair<const Channel*, size_t>> used; // channel, element
        std::vector<float> times;
        std::unordered_map<std::string_view, size_t> bySid;
        for (size_t e = base.size(); e-- > 0;)
            if (!base[e].sid.empty()) bySid[base[e].sid] = e; // the first of a repeated sid
        for (const Channel& c : it->second) {
            auto e = bySid.find(c.sid);
            if (e == bySid.end()) continue;
            used.emplace_back(&c, e->second);
            for (size_t i = 0; i < c.count; ++i)
                if (std::isfinite(c.times[i])) times.push_back(c.times[i]); // NaN would break the sort
        }
        std::sort(times.begin(), times.end());
        times.erase(std::unique(times.begin(), times.end()), times.end());
        const uint64_t work = times.size() * (used.size() + base.size());
        if (times.empty()) return;
        if (m_keyWork + work > 64 * kMaxKeys) {
            if (!m_keysLogged) Log("Collada: too many animation keys; the rest were left out.");
            m_keysLogged = true;
            return;
        }
        m_keyWork += work;
        const double ticks = m_scene.GetTickCount();
        std::vector<Transform> now = base;
        float v[16];
        for (float t : times) {
            for (size_t e = 0; e < base.size(); ++e) now[e].v = base[e].v;
            for (const auto& [c, e] : used) {
                Sample(*c, t, v);
                std::vector<float>& to = now[e].v;
                if (c->member < 0) {
                    for (size_t k = 0; k < c->stride && k < to.size(); ++k) to[k] = v[k];
                } else if (static_cast<size_t>(c->member) < to.size()) {
                    to[static_cast<size_t>(c->member)] = v[0];
                }
            }
            const auto tick = static_cast<int32_t>(std::clamp(std::round(t * ticks), -2e9, 2e9));
            auto key = std::make_unique<C3DMatrixKey>(tick);
            key->matrix = Compose(now);
            me->AddKey(std::move(key), CURVE_LINEAR);
            m_firstTick = m_keyed ? std::min(m_firstTick, tick) : tick;
            m_lastTick = m_keyed ? std::max(m_lastTick, tick) : tick;
            m_keyed = true;
        }
    }

    C3DSceneNode* AddNode(C3DSceneNode* parent, C3DBaseObject* obj, const std::string& name) {
        if (++m_instances > kMaxInstances) {
            delete obj;
            if (!m_stopped) Log("Collada: too many instances; the rest was left out.");
            m_stopped = true;
            return nullptr;
        }
        auto* n = new C3DSceneNode(obj);
        n->SetName(Wide(name));
        m_scene.AddNode(parent, n);
        return n;
    }
    void WalkNode(pugi::xml_node node, C3DSceneNode* parent, std::vector<pugi::xml_node>& stack) {
        if (Stopped()) return;
        if (m_parser.IsCancelled()) {
            m_cancelled = true;
            return;
        }
        if (stack.size() >= static_cast<size_t>(kMaxNodeDepth)) {
            if (!m_depthLogged) Log("Collada: nodes nested too deeply were left out.");
            m_depthLogged = true;
            return;
        }
        if (std::find(stack.begin(), stack.end(), node) != stack.end()) {
            Log("Collada: a node instances itself; the inner copy was left out.");
            return;
        }
        const char* nm = node.attribute("name").value();
        C3DSceneNode* me = AddNode(parent, new C3DGroup(), *nm ? nm : node.attribute("id").value());
        if (!me) return;
        me->SetNodeLocalTM(Compose(Transforms(node)));
        AnimateNode(node, me);
        stack.push_back(node);
        for (pugi::xml_node c : node.children()) {
            if (Stopped()) break;
            const std::string_view kind = c.name();
            if (kind == "node") {
                WalkNode(c, me, stack);
            } else if (kind == "instance_node") {
                if (pugi::xml_node target = ById(Fragment(c.attribute("url").value()))) WalkNode(target, me, stack);
            } else if (kind == "instance_geometry") {
                pugi::xml_node geom = ById(Fragment(c.attribute("url").value()));
                if (geom && std::strcmp(geom.name(), "geometry") == 0) InstanceGeometry(c, geom, me, nullptr);
            } else if (kind == "instance_controller") {
                // Skins and morphs show their base geometry in its bind shape (no bones here).
                C4x4Matrix shape;
                bool moved = false;
                if (pugi::xml_node geom = ControllerGeometry(c, shape, moved))
                    InstanceGeometry(c, geom, me, moved ? &shape : nullptr);
            } else if (kind == "instance_camera") {
                pugi::xml_node cam = ById(Fragment(c.attribute("url").value()));
                auto* camera = new C3DCamera();
                pugi::xml_node opt = cam.child("optics").child("technique_common");
                if (pugi::xml_node persp = opt.child("perspective")) {
                    float y = persp.child("yfov").text().as_float(0);
                    float x = persp.child("xfov").text().as_float(0);
                    float aspect = persp.child("aspect_ratio").text().as_float(0);
                    if (y <= 0 && x > 0 && aspect > 0)
                        y = 2 * std::atan(std::tan(x * 3.14159265f / 360) / aspect) * 180 / 3.14159265f;
                    if (y > 0) camera->SetVFov(y * 3.14159265f / 180.0f);
                } else if (pugi::xml_node ortho = opt.child("orthographic")) {
                    camera->SetProjection(PROJECTION_ORTHOGRAPHIC);
                    camera->SetVOrthoZoom(ortho.child("ymag").text().as_float(1));
                }
                AddNode(me, camera, cam.attribute("name").value());
            } else if (kind == "instance_light") {
                pugi::xml_node l = ById(Fragment(c.attribute("url").value())).child("technique_common");
                pugi::xml_node which = l.first_child();
                auto* light = new C3DLight();
                const std::string_view type = which.name();
                light->SetLightKind(type == "spot"          ? LIGHT_SPOT
                                    : type == "directional" ? LIGHT_DIRECTIONAL
                                    : type == "ambient"     ? LIGHT_AMBIENT
                                                            : LIGHT_POINT);
                std::vector<float> col;
                ParseList(which.child("color").child_value(), col);
                if (col.size() >= 3) light->color = CRGBColor(Byte(col[0]), Byte(col[1]), Byte(col[2]));
                if (type == "spot")
                    light->cutOffAngle = which.child("falloff_angle").text().as_float(45) * 3.14159265f / 360.0f;
                AddNode(me, light, ById(Fragment(c.attribute("url").value())).attribute("name").value());
            }
        }
        stack.pop_back();
    }

    // `inst` (an instance_geometry or instance_controller) binds the materials; `shape`, when
    // given, moves the geometry's points and normals first.
    void InstanceGeometry(pugi::xml_node inst, pugi::xml_node geom, C3DSceneNode* node, const C4x4Matrix* shape) {
        BuiltGeometry* g = BuildGeometry(geom);
        if (!g || Stopped()) return;
        const char* nm = geom.attribute("name").value();
        const std::string name = *nm ? nm : geom.attribute("id").value();
        // The node's first mesh rides on the node itself.
        auto place = [&](std::unique_ptr<C3DBaseObject> obj, bool mesh) -> const C3DBaseObject* {
            const C3DBaseObject* raw = obj.get();
            if (mesh && node->GetBaseObject() && node->GetKindOf() == KINDOF_GROUP && !node->GetChildNode()) {
                node->SetObject(obj.release());
                return raw;
            }
            return AddNode(node, obj.release(), name) ? raw : nullptr;
        };
        auto cost = [](const C3DBaseObject& o) {
            const auto& go = static_cast<const C3DGeomObject&>(o);
            return go.GetPointList()->size() * 3 + go.GetFaceList()->GetNumberOfIndices();
        };
        const bool single = g->uses == 1;
        if (single && g->taken) {
            // This same element reached again (an instanced node): copies of what it placed.
            for (size_t i = 0; i < g->placed.size(); ++i) {
                if (!Charge(cost(*g->placed[i])) || !place(g->placed[i]->Clone(), i == 0 && g->placedMesh)) return;
            }
            return;
        }
        // Symbols of the geometry's primitives to host materials, through bind_material.
        // The first instance_material of each symbol, from one pass over them.
        std::unordered_map<std::string_view, pugi::xml_node> bound;
        for (pugi::xml_node im : inst.child("bind_material").child("technique_common").children("instance_material"))
            for (pugi::xml_attribute a : im.attributes())
                if (std::strcmp(a.name(), "symbol") == 0) bound.emplace(a.value(), im);
        std::vector<uint32_t> map(g->symbols.size(), NO_MATERIAL);
        for (size_t s = 0; s < g->symbols.size(); ++s) {
            const auto found = bound.find(g->symbols[s]);
            pugi::xml_node im = found == bound.end() ? pugi::xml_node() : found->second;
            std::string_view target = im ? Fragment(im.attribute("target").value()) : std::string_view(g->symbols[s]);
            if (!target.empty() && ById(target)) map[s] = Material(target);
        }
        auto remap = [&](C3DBaseObject& o) {
            for (uint32_t& mid : static_cast<C3DGeomObject&>(o).GetFaceList()->GetMaterialIDs())
                mid = mid < map.size() ? map[mid] : NO_MATERIAL;
            if (shape) static_cast<C3DGeomObject&>(o).Transform(*shape);
        };
        if (g->mesh) {
            if (!Charge(cost(*g->mesh))) return;
            std::unique_ptr<C3DBaseObject> obj =
                single ? std::unique_ptr<C3DBaseObject>(std::move(g->mesh)) : g->mesh->Clone();
            remap(*obj);
            const C3DBaseObject* at = place(std::move(obj), true);
            if (!at) return;
            if (single) {
                g->placed.push_back(at);
                g->placedMesh = true;
            }
        }
        for (auto& c : g->curves) {
            if (!c || !Charge(cost(*c))) return;
            std::unique_ptr<C3DBaseObject> obj = single ? std::unique_ptr<C3DBaseObject>(std::move(c)) : c->Clone();
            remap(*obj);
            const C3DBaseObject* at = place(std::move(obj), false);
            if (!at) return;
            if (single) g->placed.push_back(at);
        }
        g->taken = single;
    }

    C3DScene& m_scene;
    CIoOptions& m_log;
    const CFileParser& m_parser;
    std::string m_file;
    const IoFile* m_io;
    std::span<const uint8_t> m_data;
    std::string m_structure;
    std::vector<Range> m_lists;
    bool m_lifted = false;
    size_t m_releasedTo = 0;
    pugi::xml_document m_doc;
    pugi::xml_node m_root;
    std::unordered_map<std::string, pugi::xml_node> m_ids;
    std::unordered_map<std::string, uint32_t> m_uses;
    std::unordered_map<std::string, Source> m_sources;
    std::unordered_map<std::string, std::unique_ptr<BuiltGeometry>> m_geometries;
    std::unordered_map<std::string_view, pugi::xml_node> m_meshVertices; // of the mesh being built
    std::unordered_map<std::string, uint32_t> m_materials;
    std::unordered_map<std::string, std::vector<Channel>> m_channels;
    uint64_t m_budget = 0, m_used = 0, m_instances = 0, m_keysMade = 0, m_keyWork = 0;
    int32_t m_firstTick = 0, m_lastTick = 0;
    bool m_stopped = false, m_cancelled = false, m_depthLogged = false, m_animLogged = false, m_keysLogged = false,
         m_keyed = false, m_chainLogged = false;
    collada::AheadTuning m_tuning;
    std::unique_ptr<ListsAhead> m_ahead; // last: its thread stops before the rest goes
};

} // namespace

C3DScene* CColladaIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    return ReadThroughFile(*this, path, options, [this, &path](std::span<const uint8_t> data, CReadContext& ctx) {
        return ReadBytes(data, ctx.Options(), path, ctx.File());
    });
}

C3DScene* CColladaIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& path) {
    return ReadThroughMemory(*this, data, options, [this, &path](std::span<const uint8_t> bytes, CReadContext& ctx) {
        return ReadBytes(bytes, ctx.Options(), path, nullptr);
    });
}

C3DScene* CColladaIo::ReadBytes(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& path,
                                const IoFile* file) {
    auto scene = std::make_unique<C3DScene>();
    Reader reader(*scene, options, *this, PathToUtf8(path), file, m_ahead);
    if (!reader.Load(data)) {
        m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
        return nullptr;
    }
    reader.Convert();
    if (reader.Cancelled()) {
        m_fileIo.SetIoError(IO_ERR_CANCELLED, &options, LOG_INFO);
        return nullptr;
    }
    if (scene->GetChildCount(nullptr, KINDOF_EXPORTABLE | KINDOF_CAMERA | KINDOF_LIGHT) == 0) {
        m_fileIo.SetIoError(IO_ERR_EMPTY, &options, LOG_INFO);
        return nullptr;
    }
    SetScene(scene.get());
    return scene.release();
}

bool HostInit3DParser(int action, void* data) {
    if (action == 0 && data) {
        CFileExt rec;
        rec.description = L"Collada files";
        rec.extensions = L".dae";
        rec.typeID = COLLADA_TYPE_ID;
        rec.flags = 0x40011;
        rec.readProvider = PROVIDER_PLUGIN;
        rec.writeProvider = PROVIDER_NONE;
        static_cast<CXArray<CFileExt>*>(data)->Add(rec);
    } else if (action == 1 && data) {
        auto* req = static_cast<C3DParserRequest*>(data);
        if (req->typeID == COLLADA_TYPE_ID && req->fileIo) req->parser = new (std::nothrow) CColladaIo(*req->fileIo);
    }
    return true;
}
