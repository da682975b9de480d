// LXO reader: the top-level loop, the chunk and sub-chunk decoders and the read
// primitives. Sizes are checked against what remains of the file (or of the enclosing
// chunk) before anything is read or allocated; offsets are 64-bit.
#include "formats/lxo/LxoReader.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>
#include <sys/types.h>

float LxoLayerInfo::SubdivisionLevel() const { return std::bit_cast<float>(block5[0]); }
float LxoLayerInfo::CurveAngle() const { return std::bit_cast<float>(block5[1]); }
float LxoLayerInfo::ScalePivot(int axis) const { return std::bit_cast<float>(block5[2 + axis]); }

FILE* LxoOpenFile(const char* utf8Path, const char* mode) {
    if (!utf8Path || !*utf8Path) return nullptr;
    // Linux takes UTF-8 paths as they are.
    return std::fopen(utf8Path, mode);
}

LxoReader::LxoReader(const char* utf8Path) {
    m_file = LxoOpenFile(utf8Path, "rb");
    if (!m_file) {
        std::printf("Error reading LXO file <%s>\n", utf8Path ? utf8Path : "");
        return;
    }
    InitFile();
}

LxoReader::LxoReader(FILE* stream) : m_file(stream) {
    if (m_file) InitFile();
}

void LxoReader::InitFile() {
    if (fseeko(m_file, 0, SEEK_END) == 0) {
        const off_t end = ftello(m_file);
        m_fileSize = end > 0 ? static_cast<uint64_t>(end) : 0;
    }
    fseeko(m_file, 0, SEEK_SET);
}

LxoReader::~LxoReader() {
    if (m_file) std::fclose(m_file);
    m_channelNames.clear();
    m_tags.clear();
}

// ---------------------------------------------------------------------------
// The read loop

uint32_t LxoReader::Read() {
    if (!m_file) return LXO_ERR_NO_FILE;
    uint64_t pos = 0;
    fseeko(m_file, 0, SEEK_SET);
    for (;;) {
        m_loaded = false;
        m_inSub = false;
        m_unread = 0;
        m_missing = 0;
        m_chunkStart = pos;
        uint8_t hdr[8];
        const size_t got = std::fread(hdr, 1, 4, m_file);
        if (got == 0) return LXO_OK;      // the file ends between chunks
        if (got < 4) return LXO_ERR_READ; // cut inside an ID
        if (std::fread(hdr + 4, 1, 4, m_file) != 4) return LXO_ERR_READ;
        pos += 8;
        m_chunkID = (uint32_t(hdr[0]) << 24) | (uint32_t(hdr[1]) << 16) | (uint32_t(hdr[2]) << 8) | hdr[3];
        m_chunkSize = (uint32_t(hdr[4]) << 24) | (uint32_t(hdr[5]) << 16) | (uint32_t(hdr[6]) << 8) | hdr[7];
        const bool isForm = m_chunkID == lxoid::FORM;
        // The form's own size is not needed to walk the file, only its 4-byte type.
        m_unread = isForm ? 4 : m_chunkSize;

        uint32_t r = OnChunkHeader(m_chunkID, m_chunkSize);
        if (r) return r == LXO_END_OF_DATA ? LXO_OK : r;
        // A chunk that claims more than the file still holds is decoded from what is
        // there (reads beyond it fail as at end of file); the skip then lands past the
        // end, where the walk stops as after the last chunk.
        const uint64_t left = pos < m_fileSize ? m_fileSize - pos : 0;
        m_missing = m_unread > left ? m_unread - left : 0;
        m_unread -= m_missing;
        const uint64_t next = pos + m_unread;
        if (!isForm) {
            r = ParseChunk(NestingContext());
            if (r) return r == LXO_END_OF_DATA ? LXO_OK : r;
        }
        if (m_missing) return LXO_OK;
        if (!m_loaded && m_unread > 0) {
            if (fseeko(m_file, static_cast<off_t>(m_unread), SEEK_CUR) != 0) return LXO_ERR_READ;
        }
        m_unread = 0;
        m_loaded = false;
        pos = next;
    }
}

void LxoReader::SkipRestOfChunk() {
    if (m_loaded) m_cur.skip(m_cur.remaining());
    else if (m_unread) fseeko(m_file, static_cast<off_t>(m_unread), SEEK_CUR);
    m_unread = 0;
    m_subUnread = 0;
}

uint32_t LxoReader::LoadChunk() {
    if (m_loaded) return LXO_OK;
    const uint64_t n = m_unread;
    if (n > m_bufCap) {
        uint8_t* p = new (std::nothrow) uint8_t[n];
        if (!p) return LXO_ERR_OUT_OF_MEMORY;
        m_buf.reset(p);
        m_bufCap = n;
    }
    if (n && std::fread(m_buf.get(), 1, n, m_file) != n) return LXO_ERR_READ;
    m_cur = CBinaryCursor(m_buf.get(), n);
    m_loaded = true;
    return LXO_OK;
}

const uint8_t* LxoReader::PeekLoaded(size_t n) const {
    if (!m_loaded || !Check(n)) return nullptr;
    return m_cur.current();
}

int LxoReader::UnreadDescriptor(uint64_t& offset) {
    if (m_loaded || !m_file) return -1;
    const off_t pos = ftello(m_file);
    if (pos < 0) return -1;
    offset = static_cast<uint64_t>(pos);
    return fileno(m_file);
}

void LxoReader::TookUnread(uint64_t n) {
    uint64_t pos = 0;
    if (UnreadDescriptor(pos) < 0) return;
    fseeko(m_file, static_cast<off_t>(pos + n), SEEK_SET);
    Consume(n);
}

// ---------------------------------------------------------------------------
// Read primitives

uint32_t LxoReader::ReadBytes(void* out, size_t n) {
    if (!Check(n)) return LXO_ERR_READ;
    if (m_loaded) {
        if (!m_cur.read(out, n)) return LXO_ERR_READ;
    } else if (n && std::fread(out, 1, n, m_file) != n) {
        return LXO_ERR_READ;
    }
    Consume(n);
    return LXO_OK;
}

uint32_t LxoReader::ReadU4(uint32_t* out, size_t n) {
    if (n > SIZE_MAX / 4 || !Check(uint64_t(n) * 4)) return LXO_ERR_READ;
    if (uint32_t r = LoadChunk()) return r;
    for (size_t i = 0; i < n; ++i) out[i] = m_cur.u32be();
    Consume(uint64_t(n) * 4);
    return LXO_OK;
}

uint32_t LxoReader::ReadF4(float* out, size_t n) {
    if (n > SIZE_MAX / 4 || !Check(uint64_t(n) * 4)) return LXO_ERR_READ;
    if (uint32_t r = LoadChunk()) return r;
    for (size_t i = 0; i < n; ++i) out[i] = m_cur.f32be();
    Consume(uint64_t(n) * 4);
    return LXO_OK;
}

uint32_t LxoReader::ReadU2(uint16_t& out) {
    if (!Check(2)) return LXO_ERR_READ;
    if (uint32_t r = LoadChunk()) return r;
    out = m_cur.u16be();
    Consume(2);
    return LXO_OK;
}

uint32_t LxoReader::ReadU1(uint8_t& out) {
    if (!Check(1)) return LXO_ERR_READ;
    if (uint32_t r = LoadChunk()) return r;
    out = m_cur.u8();
    Consume(1);
    return LXO_OK;
}

uint32_t LxoReader::ReadVX(uint32_t& out) {
    if (!Check(2)) return LXO_ERR_READ;
    if (uint32_t r = LoadChunk()) return r;
    const uint8_t* p = m_cur.current();
    if (p[0] != 0xFF) {
        out = (uint32_t(p[0]) << 8) | p[1];
        m_cur.skip(2);
        Consume(2);
        return LXO_OK;
    }
    if (!Check(4)) return LXO_ERR_READ;
    out = (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
    m_cur.skip(4);
    Consume(4);
    return LXO_OK;
}

uint32_t LxoReader::ReadVXs(uint32_t* out, size_t n) {
    if (uint32_t r = LoadChunk()) return r;
    const uint8_t* p = m_cur.current();
    const uint8_t* const start = p;
    const uint64_t avail = Available();
    const uint8_t* const end = p + avail;
    for (size_t i = 0; i < n; ++i) {
        if (end - p < 2) return LXO_ERR_READ;
        if (p[0] != 0xFF) {
            out[i] = (uint32_t(p[0]) << 8) | p[1];
            p += 2;
        } else {
            if (end - p < 4) return LXO_ERR_READ;
            out[i] = (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
            p += 4;
        }
    }
    const size_t used = static_cast<size_t>(p - start);
    m_cur.skip(used);
    Consume(used);
    return LXO_OK;
}

uint32_t LxoReader::ReadS0(char* buf, size_t bufSize) {
    if (uint32_t r = LoadChunk()) return r;
    const uint64_t avail = Available();
    const uint8_t* p = m_cur.current();
    const void* z = avail ? std::memchr(p, 0, avail) : nullptr;
    const size_t scanned = z ? static_cast<size_t>(static_cast<const uint8_t*>(z) - p) : static_cast<size_t>(avail);
    // 0xFF reads as end of file, so a string holding it cannot be read.
    if (scanned && std::memchr(p, 0xFF, scanned)) return LXO_ERR_READ;
    if (!z) return LXO_ERR_READ;
    size_t used = scanned + 1;
    if (used & 1) ++used; // pad byte, whatever its value
    if (used > avail) return LXO_ERR_READ;
    if (bufSize) {
        const size_t keep = std::min(scanned, bufSize - 1);
        std::memcpy(buf, p, keep);
        buf[keep] = 0;
    }
    m_cur.skip(used);
    Consume(used);
    return LXO_OK;
}

uint32_t LxoReader::ReadS0(std::string& out, size_t maxStored) {
    if (uint32_t r = LoadChunk()) return r;
    const uint64_t avail = Available();
    const uint8_t* p = m_cur.current();
    const void* z = avail ? std::memchr(p, 0, avail) : nullptr;
    const size_t scanned = z ? static_cast<size_t>(static_cast<const uint8_t*>(z) - p) : static_cast<size_t>(avail);
    if (scanned && std::memchr(p, 0xFF, scanned)) return LXO_ERR_READ;
    if (!z) return LXO_ERR_READ;
    size_t used = scanned + 1;
    if (used & 1) ++used;
    if (used > avail) return LXO_ERR_READ;
    out.assign(reinterpret_cast<const char*>(p), std::min(scanned, maxStored));
    m_cur.skip(used);
    Consume(used);
    return LXO_OK;
}

uint32_t LxoReader::ReadChannelValue(uint16_t type, LxoChannelValue& out) {
    out.type = type;
    out.kind = LxoChannelKind(type);
    out.data = nullptr;
    out.dataSize = 0;
    out.text[0] = 0;
    switch (out.kind) {
    case 1: {
        uint32_t v = 0;
        if (uint32_t r = ReadU4(&v)) return r;
        out.i = static_cast<int32_t>(v);
        return LXO_OK;
    }
    case 2: return ReadF4(&out.f);
    case 3: return ReadS0(out.text, sizeof(out.text));
    case 4: {
        uint32_t n = 0;
        if (uint32_t r = ReadU4(&n)) return r;
        if (!Check(n)) return LXO_ERR_READ;
        out.data = m_cur.current();
        out.dataSize = n;
        m_cur.skip(n);
        Consume(n);
        return LXO_OK;
    }
    default: return LXO_ERR_UNSUPPORTED_TYPE;
    }
}

uint32_t LxoReader::ReadSubChunkHeader(uint32_t& id, uint16_t& size) {
    if (uint32_t r = LoadChunk()) return r;
    if (m_unread < 6) return LXO_ERR_READ;
    id = m_cur.u32be();
    size = m_cur.u16be();
    m_unread -= 6;
    if (size > m_unread) return LXO_ERR_READ;
    return LXO_OK;
}

// ---------------------------------------------------------------------------
// Dispatch

uint32_t LxoReader::ParseChunk(int context) { return context == 0 ? DispatchChunk() : LXO_OK; }
uint32_t LxoReader::ParseItemSubChunk(int context) { return context == 0 ? DispatchItemSubChunk() : LXO_OK; }
int LxoReader::NestingContext() { return 0; }
int LxoReader::ItemNestingContext() { return 0; }

#define LXO_TRY(expr)                                                                                                  \
    do {                                                                                                               \
        if (uint32_t r_ = (expr)) return r_;                                                                           \
    } while (0)

uint32_t LxoReader::SubChunkLoop(int which) {
    while (m_unread > 0) {
        uint32_t id = 0;
        uint16_t size = 0;
        LXO_TRY(ReadSubChunkHeader(id, size));
        m_subID = id;
        m_subSize = size;
        m_subUnread = size;
        m_inSub = true;
        uint32_t r = LXO_OK;
        switch (which) {
        case 0: r = ParseItemSubChunk(ItemNestingContext()); break;
        case 1: r = DispatchEnvelopeSubChunk(); break;
        default: r = DispatchActionSubChunk(); break;
        }
        m_inSub = false;
        const uint64_t left = std::min<uint64_t>(m_subUnread, m_unread);
        if (left) {
            if (m_loaded) m_cur.skip(left);
            else fseeko(m_file, static_cast<off_t>(left), SEEK_CUR);
            m_unread -= left;
        }
        m_subUnread = 0;
        if (r) return r;
    }
    return ReadToChunkEnd();
}

uint32_t LxoReader::DispatchChunk() {
    using namespace lxoid;
    LXO_TRY(LoadChunk());
    std::string s1, s2;
    uint32_t w[6] = {};
    float f[6] = {};
    switch (m_chunkID) {
    case VRSN:
        LXO_TRY(ReadU4(w, 2));
        LXO_TRY(ReadS0(s1));
        return OnVersion(w[0], w[1], s1.c_str());
    case APPV:
        LXO_TRY(ReadU4(w, 4));
        LXO_TRY(ReadS0(s1));
        return OnAppVersion(w[0], w[1], w[2], w[3], s1.c_str());
    case PRNT: LXO_TRY(ReadS0(s1)); return OnParent(s1.c_str());
    case ENCO: LXO_TRY(ReadU4(w)); return OnEncoding(w[0]);
    case STAG:
    case TTGS:
        LXO_TRY(ReadU4(w));
        LXO_TRY(ReadS0(s1));
        return m_chunkID == STAG ? OnStringTag(w[0], s1.c_str()) : OnTriangleTag(w[0], s1.c_str());
    case DESC:
        LXO_TRY(ReadS0(s1));
        LXO_TRY(ReadS0(s2));
        return OnDescription(s1.c_str(), s2.c_str());
    case CHNM: {
        LXO_TRY(ReadU4(w));
        // Every name takes at least two bytes.
        if (w[0] > m_unread / 2) return LXO_ERR_READ;
        m_channelNames.clear();
        m_channelNames.reserve(w[0]);
        for (uint32_t i = 0; i < w[0]; ++i) {
            LXO_TRY(ReadS0(s1));
            m_channelNames.push_back(s1);
        }
        return OnChannelNames(w[0], m_channelNames);
    }
    case BBOX: LXO_TRY(ReadF4(f, 6)); return OnBoundingBox(f, f + 3);
    case PTAG: {
        LXO_TRY(ReadU4(w));
        m_words.clear();
        m_words.reserve(static_cast<size_t>(m_unread / 4) * 2);
        while (m_unread > 0) {
            uint32_t poly = 0;
            uint16_t tag = 0;
            LXO_TRY(ReadVX(poly));
            LXO_TRY(ReadU2(tag));
            m_words.push_back(poly);
            m_words.push_back(tag);
        }
        LXO_TRY(ReadToChunkEnd());
        return OnPolyTags(w[0], static_cast<uint32_t>(m_words.size() / 2), m_words.data());
    }
    case TAGS:
        m_tags.clear();
        while (m_unread > 0) {
            LXO_TRY(ReadS0(s1));
            m_tags.push_back(s1);
        }
        LXO_TRY(ReadToChunkEnd());
        return OnTags(m_tags);
    case LAYR: return DecodeLayer();
    case SRF3: LXO_TRY(ReadU4(w, 5)); return OnSurface(w[0], w[1], w[2], w[3], w[4]);
    case GRP3: LXO_TRY(ReadU4(w, 3)); return OnGroup(w[0], w[1], w[2]);
    case PNTS:
    case VRTS: {
        LXO_TRY(ReadToChunkEnd());
        const uint64_t count = m_unread / 12;
        m_floats.resize(static_cast<size_t>(count) * 3);
        LXO_TRY(ReadF4(m_floats.data(), static_cast<size_t>(count) * 3));
        return OnPoints(static_cast<uint32_t>(count), m_floats.data());
    }
    case TRIS: {
        LXO_TRY(ReadToChunkEnd());
        const uint64_t count = m_unread / 12;
        m_words.resize(static_cast<size_t>(count) * 3);
        LXO_TRY(ReadU4(m_words.data(), static_cast<size_t>(count) * 3));
        return OnTriangles(static_cast<uint32_t>(count), m_words.data());
    }
    case POLS: return DecodePolygons();
    case VVEC: {
        LXO_TRY(ReadU4(w, 2));
        LXO_TRY(ReadS0(s1));
        LXO_TRY(ReadToChunkEnd());
        const uint64_t count = w[1] ? m_unread / (uint64_t(w[1]) * 4) : 0;
        m_floats.resize(static_cast<size_t>(count * w[1]));
        LXO_TRY(ReadF4(m_floats.data(), m_floats.size()));
        return OnVectors(w[0], w[1], s1.c_str(), static_cast<uint32_t>(count), m_floats.data());
    }
    case VMAP:
    case VMAD: return DecodeVertexMap(m_chunkID == VMAD);
    case VMPA: LXO_TRY(ReadU4(w, 2)); return OnVertexMapFlags(w[0], w[1]);
    case PRVW: {
        uint16_t wd = 0, ht = 0;
        LXO_TRY(ReadU2(wd));
        LXO_TRY(ReadU2(ht));
        LXO_TRY(ReadU4(w, 2));
        LXO_TRY(ReadToChunkEnd());
        const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(m_unread, UINT32_MAX));
        return OnPreview(wd, ht, w[0], w[1], n, PeekLoaded(n));
    }
    case THUM: {
        uint16_t wd = 0, ht = 0;
        uint8_t ch = 0, fl = 0;
        LXO_TRY(ReadU2(wd));
        LXO_TRY(ReadU2(ht));
        LXO_TRY(ReadU1(ch));
        LXO_TRY(ReadU1(fl));
        LXO_TRY(ReadToChunkEnd());
        const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(m_unread, UINT32_MAX));
        return OnThumbnail(wd, ht, ch, fl, n, PeekLoaded(n));
    }
    case BAKE:
        LXO_TRY(ReadU4(w, 2));
        LXO_TRY(ReadF4(f, 2));
        return OnBake(w[0], w[1], f[0], f[1]);
    case REFS: {
        LXO_TRY(ReadU4(w));
        if (w[0] > m_unread / 2) return LXO_ERR_READ;
        LxoStringList refs;
        refs.reserve(w[0]);
        for (uint32_t i = 0; i < w[0]; ++i) {
            LXO_TRY(ReadS0(s1));
            refs.push_back(s1);
        }
        return OnReferences(w[0], refs);
    }
    case IDEL:
        LXO_TRY(ReadU4(w));
        LXO_TRY(ReadS0(s1));
        return OnReferenceDelete(w[0], s1.c_str());
    case LOPT: LXO_TRY(ReadS0(s1)); return OnReferenceOptions(m_loptIndex++, s1.c_str());
    case ITEM:
        LXO_TRY(ReadS0(s1));
        LXO_TRY(ReadS0(s2));
        LXO_TRY(ReadU4(w));
        m_itemChannel = 0;
        LXO_TRY(OnItemBegin(s1.c_str(), s2.c_str(), w[0]));
        LXO_TRY(SubChunkLoop(0));
        return OnItemEnd();
    case ENVL:
        LXO_TRY(ReadVX(w[0]));
        LXO_TRY(ReadU4(w + 1));
        LXO_TRY(OnEnvelope(w[0], w[1]));
        return SubChunkLoop(1);
    case ACTN:
        LXO_TRY(ReadS0(s1));
        LXO_TRY(ReadS0(s2));
        LXO_TRY(ReadU4(w));
        LXO_TRY(OnAction(s1.c_str(), s2.c_str(), w[0]));
        return SubChunkLoop(2);
    default: return OnUnknownChunk(m_chunkID, m_chunkSize);
    }
}

uint32_t LxoReader::DecodeLayer() {
    LxoLayerInfo l;
    LXO_TRY(ReadU2(l.index));
    LXO_TRY(ReadU2(l.flags));
    LXO_TRY(ReadF4(l.pivot, 3));
    LXO_TRY(ReadS0(l.name, LxoLayerInfo::kMaxName));
    LXO_TRY(ReadU2(l.parent));
    LXO_TRY(ReadU4(l.block5, 5));
    LXO_TRY(ReadU4(l.block6, 6));
    LXO_TRY(ReadU4(&l.referenceID));
    for (uint16_t& t : l.tail) LXO_TRY(ReadU2(t));
    return OnLayer(l);
}

uint32_t LxoReader::DecodePolygons() {
    using namespace lxoid;
    uint32_t type = 0;
    LXO_TRY(ReadU4(&type));
    const bool packed = type == CURV || type == BEZR;
    const bool flagged = type == HCRV || type == BCRV;
    while (m_unread > 0) {
        uint16_t word = 0;
        LXO_TRY(ReadU2(word));
        uint32_t count = word, flags = 0;
        if (packed) {
            flags = word >> 10;
            count = word & 0x3FF;
        } else if (flagged) {
            LXO_TRY(ReadU4(&flags));
        }
        if (uint64_t(count) * 2 > m_unread) return LXO_ERR_READ;
        if (m_words.size() < count) m_words.resize(count);
        LXO_TRY(ReadVXs(m_words.data(), count));
        LXO_TRY(OnPolygon(type, count, m_words.data(), flags));
    }
    return ReadToChunkEnd();
}

uint32_t LxoReader::DecodeVertexMap(bool disc) {
    uint32_t type = 0;
    uint16_t dim = 0;
    std::string name;
    LXO_TRY(ReadU4(&type));
    LXO_TRY(ReadU2(dim));
    LXO_TRY(ReadS0(name));
    // Count the complete entries first: the header reports it.
    uint32_t count = 0;
    {
        const uint8_t* p = m_cur.current();
        const uint8_t* end = p + m_unread;
        const size_t values = size_t(dim) * 4;
        for (;;) {
            size_t need = 0;
            for (int k = 0; k < (disc ? 2 : 1); ++k) {
                if (end - p < static_cast<ptrdiff_t>(need + 2)) goto counted;
                need += p[need] == 0xFF ? 4 : 2;
            }
            if (static_cast<size_t>(end - p) < need + values) break;
            p += need + values;
            ++count;
        }
    counted:;
    }
    LXO_TRY(OnVertexMap(type, name.c_str(), count, dim));
    if (m_unread == 0) return ReadToChunkEnd();
    if (m_floats.size() < dim) m_floats.resize(dim);
    while (m_unread > 0) {
        uint32_t vertex = 0, poly = 0;
        LXO_TRY(ReadVX(vertex));
        if (disc) LXO_TRY(ReadVX(poly));
        LXO_TRY(ReadF4(m_floats.data(), dim));
        LXO_TRY(disc ? OnVertexMapDiscValue(vertex, poly, dim, m_floats.data())
                     : OnVertexMapValue(vertex, dim, m_floats.data()));
    }
    return ReadToChunkEnd();
}

uint32_t LxoReader::ReadGradient(std::string& channel, uint32_t& env, uint32_t& flags, std::string& in,
                                 std::string& out, bool& hasIn, bool& hasOut) {
    LXO_TRY(ReadS0(channel));
    LXO_TRY(ReadVX(env));
    LXO_TRY(ReadU4(&flags));
    hasIn = hasOut = false;
    if (Available() > 0) {
        LXO_TRY(ReadS0(in));
        hasIn = true;
    }
    if (Available() > 0) {
        LXO_TRY(ReadS0(out));
        hasOut = true;
    }
    return LXO_OK;
}

uint32_t LxoReader::DispatchItemSubChunk() {
    using namespace lxoid;
    std::string s1, s2, s3;
    uint32_t w[3] = {};
    float f[6] = {};
    uint16_t u = 0;
    switch (m_subID) {
    case XREF:
        LXO_TRY(ReadU4(w));
        LXO_TRY(ReadS0(s1));
        LXO_TRY(ReadS0(s2));
        return OnItemXref(w[0], s1.c_str(), s2.c_str());
    case LAYR: LXO_TRY(ReadU4(w, 3)); return OnItemLayer(w[0], w[1], w[2]);
    case UNIQ: LXO_TRY(ReadS0(s1)); return OnItemUnique(s1.c_str());
    case VNAM: LXO_TRY(ReadS0(s1)); return OnItemName(s1.c_str());
    case UIDX: LXO_TRY(ReadU4(w)); return OnItemIndex(w[0]);
    case LINK:
        LXO_TRY(ReadS0(s1));
        LXO_TRY(ReadU4(w, 2));
        return OnItemLink(s1.c_str(), w[0], w[1]);
    case BBOX: LXO_TRY(ReadF4(f, 6)); return OnItemBoundingBox(f, f + 3);
    case CLNK:
        LXO_TRY(ReadS0(s1));
        LXO_TRY(ReadS0(s2));
        LXO_TRY(ReadU4(w));
        LXO_TRY(ReadS0(s3));
        LXO_TRY(ReadU4(w + 1, 2));
        return OnItemChannelLink(s1.c_str(), w[0], w[1], w[2], s2.c_str(), s3.c_str());
    case PAKG: {
        LXO_TRY(ReadS0(s1));
        LXO_TRY(ReadU4(w));
        const uint8_t* data = PeekLoaded(w[0]);
        if (!data) return LXO_ERR_READ;
        m_cur.skip(w[0]);
        Consume(w[0]);
        return OnItemPackage(s1.c_str(), w[0], data);
    }
    case GRAD: {
        bool hasIn = false, hasOut = false;
        LXO_TRY(ReadGradient(s1, w[0], w[1], s2, s3, hasIn, hasOut));
        return OnItemGradient(s1.c_str(), w[0], w[1], hasIn ? s2.c_str() : nullptr, hasOut ? s3.c_str() : nullptr);
    }
    case ITAG:
        LXO_TRY(ReadU4(w));
        LXO_TRY(ReadS0(s1));
        return OnItemTag(w[0], s1.c_str());
    case PRVW: {
        uint16_t ht = 0;
        LXO_TRY(ReadU2(u));
        LXO_TRY(ReadU2(ht));
        LXO_TRY(ReadU4(w, 2));
        const uint32_t n = static_cast<uint32_t>(m_subUnread);
        return OnItemPreview(u, ht, w[0], w[1], n, PeekLoaded(n));
    }
    case CHAN: {
        char name[1024];
        LXO_TRY(ReadS0(name, sizeof(name)));
        LXO_TRY(ReadU2(u));
        LXO_TRY(ReadChannelValue(u, m_value));
        const int index = m_itemChannel++;
        if (m_value.kind == 4) return OnChannelData(name, m_value);
        if ((u & 0x10) && (u & 0xFFDF) != 0x4E56) return OnChannelEnvelope(index, name, m_value);
        return OnChannel(name, m_value);
    }
    case CHNV: {
        uint16_t count = 0;
        char name[1024];
        LXO_TRY(ReadS0(s1));
        LXO_TRY(ReadU2(u));
        LXO_TRY(ReadU2(count));
        LXO_TRY(OnChannelVectorBegin(s1.c_str(), u, count));
        for (uint32_t i = 0; i < count; ++i) {
            LXO_TRY(ReadS0(name, sizeof(name)));
            LXO_TRY(ReadChannelValue(u, m_value));
            LXO_TRY(OnChannelVectorElement(name, m_value));
        }
        return LXO_OK;
    }
    case CHNS:
        LXO_TRY(ReadS0(s1));
        LXO_TRY(ReadS0(s2));
        return OnChannelString(s1.c_str(), s2.c_str());
    case UCHN:
        LXO_TRY(ReadS0(s1));
        LXO_TRY(ReadS0(s2));
        return OnUserChannel(s1.c_str(), s2.c_str());
    default: return OnUnknownItemSubChunk(m_subID, m_subSize);
    }
}

uint32_t LxoReader::DispatchEnvelopeSubChunk() {
    using namespace lxoid;
    uint16_t u[3] = {};
    uint32_t w = 0;
    float f[3] = {};
    switch (m_subID) {
    case PRE_: LXO_TRY(ReadU2(u[0])); return OnEnvelopePre(u[0]);
    case POST: LXO_TRY(ReadU2(u[0])); return OnEnvelopePost(u[0]);
    case KEY_: LXO_TRY(ReadF4(f, 2)); return OnKey(f[0], f[1]);
    case IKEY:
        LXO_TRY(ReadF4(f));
        LXO_TRY(ReadU4(&w));
        return OnIntKey(f[0], static_cast<int32_t>(w));
    case TANI:
        LXO_TRY(ReadU2(u[0]));
        LXO_TRY(ReadU2(u[1]));
        LXO_TRY(ReadF4(f, 3));
        return OnKeyTangentIn(u[0], u[1], f[0], f[1], f[2]);
    case TANO:
        LXO_TRY(ReadU2(u[0]));
        LXO_TRY(ReadU2(u[1]));
        LXO_TRY(ReadU2(u[2]));
        LXO_TRY(ReadF4(f, 3));
        return OnKeyTangentOut(u[0], u[1], u[2], f[0], f[1], f[2]);
    case FLAG: LXO_TRY(ReadU4(&w)); return OnEnvelopeFlags(w);
    default: return OnUnknownEnvelopeSubChunk(m_subID, m_subSize);
    }
}

uint32_t LxoReader::DispatchActionSubChunk() {
    using namespace lxoid;
    uint32_t w[3] = {};
    float f = 0;
    switch (m_subID) {
    case PRNT: LXO_TRY(ReadU4(w)); return OnActionParent(w[0]);
    case ITEM: LXO_TRY(ReadU4(w)); return OnActionItem(w[0]);
    case CHAN: {
        uint16_t index = 0, type = 0, env = 0;
        LXO_TRY(ReadU2(index));
        LXO_TRY(ReadU2(type));
        LXO_TRY(ReadU2(env));
        LXO_TRY(ReadChannelValue(type, m_value));
        const char* name = index < m_channelNames.size() ? m_channelNames[index].c_str() : "";
        if (env == 0) return OnActionChannel(index, name, m_value);
        if (type & 0x10) return OnActionChannelEnvelope(index, name, env, m_value);
        return OnActionChannelFlags(index, name, env, m_value);
    }
    case GRAD: {
        std::string s1, s2, s3;
        bool hasIn = false, hasOut = false;
        LXO_TRY(ReadGradient(s1, w[0], w[1], s2, s3, hasIn, hasOut));
        return OnActionGradient(s1.c_str(), w[0], w[1], hasIn ? s2.c_str() : nullptr, hasOut ? s3.c_str() : nullptr);
    }
    case AANI: return OnAudio();
    case AAIT: LXO_TRY(ReadU4(w)); return OnAudioItem(w[0]);
    case AASE:
        LXO_TRY(ReadU4(w, 3));
        LXO_TRY(ReadF4(&f));
        return OnAudioSettings(w[0], w[1], w[2], f);
    default: return OnUnknownActionSubChunk(m_subID, m_subSize);
    }
}

// ---------------------------------------------------------------------------
// The base handlers do nothing.

uint32_t LxoReader::OnChunkHeader(uint32_t, uint32_t) { return 0; }
uint32_t LxoReader::OnUnknownChunk(uint32_t, uint32_t) { return 0; }
uint32_t LxoReader::OnVersion(uint32_t, uint32_t, const char*) { return 0; }
uint32_t LxoReader::OnAppVersion(uint32_t, uint32_t, uint32_t, uint32_t, const char*) { return 0; }
uint32_t LxoReader::OnParent(const char*) { return 0; }
uint32_t LxoReader::OnEncoding(uint32_t) { return 0; }
uint32_t LxoReader::OnStringTag(uint32_t, const char*) { return 0; }
uint32_t LxoReader::OnDescription(const char*, const char*) { return 0; }
uint32_t LxoReader::OnChannelNames(uint32_t, const LxoStringList&) { return 0; }
uint32_t LxoReader::OnBoundingBox(const float*, const float*) { return 0; }
uint32_t LxoReader::OnPolyTags(uint32_t, uint32_t, const uint32_t*) { return 0; }
uint32_t LxoReader::OnTags(const LxoStringList&) { return 0; }
uint32_t LxoReader::OnLayer(const LxoLayerInfo&) { return 0; }
uint32_t LxoReader::OnSurface(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t) { return 0; }
uint32_t LxoReader::OnGroup(uint32_t, uint32_t, uint32_t) { return 0; }
uint32_t LxoReader::OnPoints(uint32_t, const float*) { return 0; }
uint32_t LxoReader::OnTriangles(uint32_t, const uint32_t*) { return 0; }
uint32_t LxoReader::OnTriangleTag(uint32_t, const char*) { return 0; }
uint32_t LxoReader::OnPolygon(uint32_t, uint32_t, const uint32_t*, uint32_t) { return 0; }
uint32_t LxoReader::OnVectors(uint32_t, uint32_t, const char*, uint32_t, const float*) { return 0; }
uint32_t LxoReader::OnVertexMap(uint32_t, const char*, uint32_t, uint32_t) { return 0; }
uint32_t LxoReader::OnVertexMapFlags(uint32_t, uint32_t) { return 0; }
uint32_t LxoReader::OnVertexMapValue(uint32_t, uint32_t, const float*) { return 0; }
uint32_t LxoReader::OnVertexMapDiscValue(uint32_t, uint32_t, uint32_t, const float*) { return 0; }
uint32_t LxoReader::OnReservedHook() { return 0; }
uint32_t LxoReader::OnEdgeMapValue(uint32_t, uint32_t, uint32_t, const float*) { return 0; }
uint32_t LxoReader::OnPreview(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, const uint8_t*) { return 0; }
uint32_t LxoReader::OnThumbnail(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, const uint8_t*) { return 0; }
uint32_t LxoReader::OnBake(uint32_t, uint32_t, float, float) { return 0; }
uint32_t LxoReader::OnReferences(uint32_t, const LxoStringList&) { return 0; }
uint32_t LxoReader::OnReferenceDelete(uint32_t, const char*) { return 0; }
uint32_t LxoReader::OnReferenceOptions(uint32_t, const char*) { return 0; }
uint32_t LxoReader::OnItemBegin(const char*, const char*, uint32_t) { return 0; }
uint32_t LxoReader::OnItemEnd() { return 0; }
uint32_t LxoReader::OnUnknownItemSubChunk(uint32_t, uint32_t) { return 0; }
uint32_t LxoReader::OnItemXref(uint32_t, const char*, const char*) { return 0; }
uint32_t LxoReader::OnItemLayer(uint32_t, uint32_t, uint32_t) { return 0; }
uint32_t LxoReader::OnItemUnique(const char*) { return 0; }
uint32_t LxoReader::OnItemName(const char*) { return 0; }
uint32_t LxoReader::OnItemIndex(uint32_t) { return 0; }
uint32_t LxoReader::OnItemLink(const char*, uint32_t, uint32_t) { return 0; }
uint32_t LxoReader::OnItemBoundingBox(const float*, const float*) { return 0; }
uint32_t LxoReader::OnItemChannelLink(const char*, uint32_t, uint32_t, uint32_t, const char*, const char*) { return 0; }
uint32_t LxoReader::OnItemPackage(const char*, uint32_t, const uint8_t*) { return 0; }
uint32_t LxoReader::OnItemGradient(const char*, uint32_t, uint32_t, const char*, const char*) { return 0; }
uint32_t LxoReader::OnItemTag(uint32_t, const char*) { return 0; }
uint32_t LxoReader::OnItemPreview(uint32_t, uint32_t, uint32_t, uint32_t, uint32_t, const uint8_t*) { return 0; }
uint32_t LxoReader::OnChannel(const char*, const LxoChannelValue&) { return 0; }
uint32_t LxoReader::OnChannelEnvelope(int, const char*, const LxoChannelValue&) { return 0; }
uint32_t LxoReader::OnChannelVectorBegin(const char*, uint32_t, uint32_t) { return 0; }
uint32_t LxoReader::OnChannelVectorElement(const char*, const LxoChannelValue&) { return 0; }
uint32_t LxoReader::OnChannelString(const char*, const char*) { return 0; }
uint32_t LxoReader::OnChannelData(const char*, const LxoChannelValue&) { return 0; }
uint32_t LxoReader::OnUserChannel(const char*, const char*) { return 0; }
uint32_t LxoReader::OnEnvelope(uint32_t, uint32_t) { return 0; }
uint32_t LxoReader::OnUnknownEnvelopeSubChunk(uint32_t, uint32_t) { return 0; }
uint32_t LxoReader::OnEnvelopePre(uint32_t) { return 0; }
uint32_t LxoReader::OnEnvelopePost(uint32_t) { return 0; }
uint32_t LxoReader::OnKeyTangentIn(uint32_t, uint32_t, float, float, float) { return 0; }
uint32_t LxoReader::OnKeyTangentOut(uint32_t, uint32_t, uint32_t, float, float, float) { return 0; }
uint32_t LxoReader::OnIntKey(float, int32_t) { return 0; }
uint32_t LxoReader::OnKey(float, float) { return 0; }
uint32_t LxoReader::OnEnvelopeFlags(uint32_t) { return 0; }
uint32_t LxoReader::OnAction(const char*, const char*, uint32_t) { return 0; }
uint32_t LxoReader::OnUnknownActionSubChunk(uint32_t, uint32_t) { return 0; }
uint32_t LxoReader::OnActionParent(uint32_t) { return 0; }
uint32_t LxoReader::OnActionItem(uint32_t) { return 0; }
uint32_t LxoReader::OnActionChannel(uint32_t, const char*, const LxoChannelValue&) { return 0; }
uint32_t LxoReader::OnActionChannelEnvelope(uint32_t, const char*, uint32_t, const LxoChannelValue&) { return 0; }
uint32_t LxoReader::OnActionChannelFlags(uint32_t, const char*, uint32_t, const LxoChannelValue&) { return 0; }
uint32_t LxoReader::OnActionGradient(const char*, uint32_t, uint32_t, const char*, const char*) { return 0; }
uint32_t LxoReader::OnAudio() { return 0; }
uint32_t LxoReader::OnAudioItem(uint32_t) { return 0; }
uint32_t LxoReader::OnAudioSettings(uint32_t, uint32_t, uint32_t, float) { return 0; }
