// LXO writer and chunk objects on the host's byte sink: a size field that is still in
// its buffer is patched there, so closing small chunks costs no seek.
#include "formats/lxo/LxoWriter.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <sys/types.h>

#include "formats/lxo/LxoReader.h"
#include "plugin/host/BinaryCursor.h"

namespace {
constexpr size_t kBufferSize = size_t(1) << 20;
}

LxoWriter::LxoWriter(const char* utf8Path) {
    m_file = LxoOpenFile(utf8Path, "wb");
    if (!m_file) {
        std::printf("Error creating LXO file <%s>\n", utf8Path ? utf8Path : "");
        return;
    }
    m_target.Reset(m_file);
}

LxoWriter::~LxoWriter() { Finish(); }

uint32_t LxoWriter::Flush() {
    if (!m_file || !m_out.Flush()) return Fail(LXO_ERR_WRITE);
    return LXO_OK;
}

uint8_t* LxoWriter::Reserve(size_t n) {
    if (!m_file) {
        Fail(LXO_ERR_WRITE);
        return nullptr;
    }
    uint8_t* p = m_out.Reserve(n);
    if (m_out.Failed()) {
        Fail(LXO_ERR_WRITE);
        return nullptr;
    }
    return p;
}

uint32_t LxoWriter::Finish() {
    if (!m_file) return m_error;
    const uint64_t length = Tell();
    if (length >= 8) PatchU4(4, static_cast<uint32_t>(std::min<uint64_t>(length - 8, UINT32_MAX)));
    Flush();
    if (std::fclose(m_file) != 0) Fail(LXO_ERR_WRITE);
    m_file = nullptr;
    m_target.Reset(nullptr);
    return m_error;
}

int LxoWriter::AppendDescriptor() {
    if (!m_file || m_error || Flush() || std::fflush(m_file) != 0) return -1;
    return fileno(m_file);
}

void LxoWriter::Appended(uint64_t n) {
    m_out.SkipAppended(n);
    if (fseeko(m_file, static_cast<off_t>(Tell()), SEEK_SET) != 0) Fail(LXO_ERR_WRITE);
}

uint32_t LxoWriter::WriteBytes(const void* data, size_t n) {
    if (!m_file) return Fail(LXO_ERR_WRITE);
    m_out.Bytes(data, n);
    return m_out.Failed() ? Fail(LXO_ERR_WRITE) : LXO_OK;
}

uint32_t LxoWriter::WriteU4(const uint32_t* values, size_t n) {
    while (n) {
        const size_t batch = std::min<size_t>(n, 4096);
        uint8_t* p = Reserve(batch * 4);
        if (!p) return LXO_ERR_WRITE;
        for (size_t i = 0; i < batch; ++i) PutU32be(p + 4 * i, values[i]);
        values += batch;
        n -= batch;
    }
    return LXO_OK;
}

uint32_t LxoWriter::WriteF4(const float* values, size_t n) {
    while (n) {
        const size_t batch = std::min<size_t>(n, 4096);
        uint8_t* p = Reserve(batch * 4);
        if (!p) return LXO_ERR_WRITE;
        for (size_t i = 0; i < batch; ++i) PutF32be(p + 4 * i, values[i]);
        values += batch;
        n -= batch;
    }
    return LXO_OK;
}

uint32_t LxoWriter::WriteU2(uint16_t v) {
    uint8_t* p = Reserve(2);
    if (!p) return LXO_ERR_WRITE;
    PutU16be(p, v);
    return LXO_OK;
}

uint32_t LxoWriter::WriteVX(uint32_t v) {
    if (v >= 0x1000000u) return Fail(LXO_ERR_WRITE);
    if (v < 0xFF00u) return WriteU2(static_cast<uint16_t>(v));
    return WriteU4(0xFF000000u | v);
}

uint32_t LxoWriter::WriteS0(std::string_view s) {
    // A string stops at its first NUL.
    const size_t len = std::min(s.size(), s.find('\0'));
    const size_t total = (len + 1) + ((len + 1) & 1);
    if (total >= kBufferSize / 2) {
        if (uint32_t r = WriteBytes(s.data(), len)) return r;
        const uint8_t tail[2] = {0, static_cast<uint8_t>(len ? s[0] : 0)};
        return WriteBytes(tail, total - len);
    }
    uint8_t* p = Reserve(total);
    if (!p) return LXO_ERR_WRITE;
    std::memcpy(p, s.data(), len);
    p[len] = 0;
    // The pad byte repeats the first character; readers ignore its value.
    if (total > len + 1) p[len + 1] = static_cast<uint8_t>(len ? s[0] : 0);
    return LXO_OK;
}

uint32_t LxoWriter::PatchU4(uint64_t pos, uint32_t v) {
    if (!m_file) return Fail(LXO_ERR_WRITE);
    m_out.PatchU32be(pos, v);
    return m_out.Failed() ? Fail(LXO_ERR_WRITE) : LXO_OK;
}

uint32_t LxoWriter::PatchU2(uint64_t pos, uint16_t v) {
    if (!m_file) return Fail(LXO_ERR_WRITE);
    m_out.PatchU16be(pos, v);
    return m_out.Failed() ? Fail(LXO_ERR_WRITE) : LXO_OK;
}

CByteSink::Mark LxoWriter::BeginChunk(const ChunkLayout& layout, uint32_t id) {
    if (!m_file) {
        Fail(LXO_ERR_WRITE);
        return {Tell(), layout};
    }
    const CByteSink::Mark mark = m_out.BeginChunk(layout, id);
    if (m_out.Failed()) Fail(LXO_ERR_WRITE);
    return mark;
}

uint32_t LxoWriter::EndChunk(const CByteSink::Mark& mark) {
    if (!m_file) return Fail(LXO_ERR_WRITE);
    // A size past its field is refused without marking the file as failed.
    if (!m_out.EndChunk(mark)) return LXO_ERR_WRITE;
    if (m_out.Failed()) return Fail(LXO_ERR_WRITE);
    return m_error;
}

uint32_t LxoWriter::WriteItemHeader(std::string_view type, std::string_view name, uint32_t& referenceID, bool assign) {
    if (assign && referenceID == 0) referenceID = ++m_refCounter;
    if (uint32_t r = WriteS0(type)) return r;
    if (uint32_t r = WriteS0(name)) return r;
    return WriteU4(referenceID);
}

uint32_t LxoWriter::AddChannelName(std::string_view name) {
    m_channelNames.emplace_back(name);
    return static_cast<uint32_t>(m_channelNames.size() - 1);
}

int LxoWriter::ChannelIndex(std::string_view name) const {
    for (size_t i = 0; i < m_channelNames.size(); ++i)
        if (m_channelNames[i] == name) return static_cast<int>(i);
    return -1;
}

// ---------------------------------------------------------------------------
// Chunk objects

LxoChunk::LxoChunk(LxoWriter& writer, uint32_t id) : m_writer(writer), m_id(id) {
    m_sizePos = m_writer.BeginChunk(kChunkLXO, id).start + 4;
}

LxoChunk::~LxoChunk() { Close(); }

uint32_t LxoChunk::Close() {
    if (!m_open) return LXO_OK;
    m_open = false;
    return m_writer.EndChunk({m_sizePos - 4, kChunkLXO});
}

LxoSubChunk::LxoSubChunk(LxoWriter& writer, uint32_t id) : m_writer(writer), m_id(id) {
    m_sizePos = m_writer.BeginChunk(kSubChunkLXO, id).start + 4;
}

LxoSubChunk::~LxoSubChunk() { Close(); }

uint32_t LxoSubChunk::Close() {
    if (!m_open) return LXO_OK;
    m_open = false;
    return m_writer.EndChunk({m_sizePos - 4, kSubChunkLXO});
}

LxoFileChunk::LxoFileChunk(LxoWriter& w) : LxoChunk(w, lxoid::FORM) {
    w.WriteU4(lxoid::LXOB);
    Close();
}

LxoVersionChunk::LxoVersionChunk(LxoWriter& w, uint32_t major, uint32_t minor, std::string_view text)
    : LxoChunk(w, lxoid::VRSN) {
    const uint32_t v[2] = {major, minor};
    w.WriteU4(v, 2);
    w.WriteS0(text);
}

LxoTagsChunk::LxoTagsChunk(LxoWriter& w, const std::vector<std::string>& tags) : LxoChunk(w, lxoid::TAGS) {
    for (const std::string& t : tags) w.WriteS0(t);
}

LxoChannelNamesChunk::LxoChannelNamesChunk(LxoWriter& w, const std::vector<std::string>& names)
    : LxoChunk(w, lxoid::CHNM) {
    w.WriteU4(static_cast<uint32_t>(names.size()));
    for (const std::string& n : names) {
        w.WriteS0(n);
        w.AddChannelName(n);
    }
}

LxoLayerChunk::LxoLayerChunk(LxoWriter& w, const LxoLayerInfo& l) : LxoChunk(w, lxoid::LAYR) {
    w.WriteU2(l.index);
    w.WriteU2(l.flags);
    w.WriteF4(l.pivot, 3);
    w.WriteS0(std::string_view(l.name).substr(0, LxoLayerInfo::kMaxName));
    w.WriteU2(l.parent);
    w.WriteU4(l.block5, 5);
    w.WriteU4(l.block6, 6);
    w.WriteU4(l.referenceID);
    for (uint16_t t : l.tail) w.WriteU2(t);
}

LxoPointsChunk::LxoPointsChunk(LxoWriter& w, const float* xyz, size_t count) : LxoChunk(w, lxoid::PNTS) {
    w.WriteF4(xyz, count * 3);
}

LxoPolygonsChunk::LxoPolygonsChunk(LxoWriter& w, uint32_t type) : LxoChunk(w, lxoid::POLS), m_type(type) {
    w.WriteU4(type);
}

uint32_t LxoPolygonsChunk::AddPolygon(const uint32_t* indices, uint32_t count, uint32_t flags) {
    using namespace lxoid;
    if (m_type == CURV || m_type == BEZR) {
        if (count > 0x3FF || flags > 0x3F) return LXO_ERR_WRITE;
        if (uint32_t r = m_writer.WriteU2(static_cast<uint16_t>((flags << 10) | count))) return r;
    } else {
        if (count > 0xFFFF) return LXO_ERR_WRITE;
        if (uint32_t r = m_writer.WriteU2(static_cast<uint16_t>(count))) return r;
        if (m_type == HCRV || m_type == BCRV) {
            if (uint32_t r = m_writer.WriteU4(flags)) return r;
        }
    }
    for (uint32_t i = 0; i < count; ++i)
        if (uint32_t r = m_writer.WriteVX(indices[i])) return r;
    return LXO_OK;
}

LxoPolyTagChunk::LxoPolyTagChunk(LxoWriter& w, uint32_t type) : LxoChunk(w, lxoid::PTAG) { w.WriteU4(type); }

uint32_t LxoPolyTagChunk::Add(uint32_t polygon, uint32_t tag) {
    if (tag > 0xFFFF) return LXO_ERR_WRITE;
    if (uint32_t r = m_writer.WriteVX(polygon)) return r;
    return m_writer.WriteU2(static_cast<uint16_t>(tag));
}

LxoVertexMapChunk::LxoVertexMapChunk(LxoWriter& w, uint32_t type, uint16_t dimension, std::string_view name)
    : LxoVertexMapChunk(w, lxoid::VMAP, type, dimension, name) {}

LxoVertexMapChunk::LxoVertexMapChunk(LxoWriter& w, uint32_t id, uint32_t type, uint16_t dimension,
                                     std::string_view name)
    : LxoChunk(w, id), m_dim(dimension) {
    w.WriteU4(type);
    w.WriteU2(dimension);
    w.WriteS0(name);
}

uint32_t LxoVertexMapChunk::Add(uint32_t vertex, const float* values) {
    if (uint32_t r = m_writer.WriteVX(vertex)) return r;
    return m_writer.WriteF4(values, m_dim);
}

LxoVertexMapDiscChunkEx::LxoVertexMapDiscChunkEx(LxoWriter& w, uint32_t type, uint16_t dimension, std::string_view name)
    : LxoVertexMapChunk(w, lxoid::VMAD, type, dimension, name) {}

uint32_t LxoVertexMapDiscChunkEx::Add(uint32_t vertex, uint32_t polygon, const float* values) {
    if (uint32_t r = m_writer.WriteVX(vertex)) return r;
    if (uint32_t r = m_writer.WriteVX(polygon)) return r;
    return m_writer.WriteF4(values, m_dim);
}

Lxo3dGroupChunk::Lxo3dGroupChunk(LxoWriter& w, uint32_t surfaces, uint32_t referenceWord, uint32_t unused)
    : LxoChunk(w, lxoid::GRP3) {
    const uint32_t v[3] = {surfaces, referenceWord, unused};
    w.WriteU4(v, 3);
}

LxoTextTagChunk::LxoTextTagChunk(LxoWriter& w, uint32_t id, uint32_t type, std::string_view text) : LxoChunk(w, id) {
    w.WriteU4(type);
    w.WriteS0(text);
}

LxoVertexChunk::LxoVertexChunk(LxoWriter& w, const float* xyz, size_t count) : LxoChunk(w, lxoid::VRTS) {
    w.WriteF4(xyz, count * 3);
}

LxoTrianglesChunk::LxoTrianglesChunk(LxoWriter& w, const uint32_t* indices, size_t triangles)
    : LxoChunk(w, lxoid::TRIS) {
    w.WriteU4(indices, triangles * 3);
}

LxoVectorChunk::LxoVectorChunk(LxoWriter& w, uint32_t type, uint32_t dimension, std::string_view name,
                               const float* values, size_t vectors)
    : LxoChunk(w, lxoid::VVEC) {
    const uint32_t v[2] = {type, dimension};
    w.WriteU4(v, 2);
    w.WriteS0(name);
    w.WriteF4(values, vectors * dimension);
}

Lxo3dSurfaceChunk::Lxo3dSurfaceChunk(LxoWriter& w, uint32_t vertices, uint32_t triangles, uint32_t vectors,
                                     uint32_t tags)
    : LxoChunk(w, lxoid::SRF3) {
    const uint32_t v[5] = {vertices, triangles, vectors, tags, 0};
    w.WriteU4(v, 5);
}

LxoEnvelopeChunk::LxoEnvelopeChunk(LxoWriter& w, uint32_t index, uint32_t type) : LxoChunk(w, lxoid::ENVL) {
    w.WriteVX(index);
    w.WriteU4(type);
}

LxoNameStringSubChunk::LxoNameStringSubChunk(LxoWriter& w, uint32_t id, std::string_view text) : LxoSubChunk(w, id) {
    w.WriteS0(text);
}

LxoUniqueSubChunk::LxoUniqueSubChunk(LxoWriter& w, std::string_view name)
    : LxoNameStringSubChunk(w, lxoid::UNIQ, name) {}

LxoLayerSubChunk::LxoLayerSubChunk(LxoWriter& w, uint32_t index, uint32_t flags, uint32_t rgba)
    : LxoSubChunk(w, lxoid::LAYR) {
    const uint32_t v[3] = {index, flags, rgba};
    w.WriteU4(v, 3);
}

LxoLinkSubChunk::LxoLinkSubChunk(LxoWriter& w, std::string_view graph, uint32_t referenceID, uint32_t index)
    : LxoSubChunk(w, lxoid::LINK) {
    w.WriteS0(graph);
    const uint32_t v[2] = {referenceID, index};
    w.WriteU4(v, 2);
}

namespace {
uint16_t ChannelSlot(LxoWriter& w, std::string_view channel) {
    int i = w.ChannelIndex(channel);
    if (i < 0) i = static_cast<int>(w.AddChannelName(channel));
    return static_cast<uint16_t>(i);
}
} // namespace

LxoChannelValueSubChunk::LxoChannelValueSubChunk(LxoWriter& w, std::string_view channel, int32_t value)
    : LxoSubChunk(w, lxoid::CHAN) {
    w.WriteU2(ChannelSlot(w, channel));
    w.WriteU2(1);
    w.WriteU4(static_cast<uint32_t>(value));
}

LxoChannelValueSubChunk::LxoChannelValueSubChunk(LxoWriter& w, std::string_view channel, float value)
    : LxoSubChunk(w, lxoid::CHAN) {
    w.WriteU2(ChannelSlot(w, channel));
    w.WriteU2(2);
    w.WriteF4(value);
}

LxoChannelValueSubChunk::LxoChannelValueSubChunk(LxoWriter& w, std::string_view channel, std::string_view value)
    : LxoSubChunk(w, lxoid::CHAN) {
    w.WriteU2(ChannelSlot(w, channel));
    w.WriteU2(3);
    w.WriteS0(value);
}

LxoRgbChannelSubChunk::LxoRgbChannelSubChunk(LxoWriter& w, std::string_view channel, const float* rgb)
    : LxoRgbChannelSubChunk(w, channel, rgb, nullptr) {}

LxoRgbChannelSubChunk::LxoRgbChannelSubChunk(LxoWriter& w, std::string_view channel, const float* v,
                                             const char* const* names)
    : LxoSubChunk(w, lxoid::CHNV) {
    static const char* const kRgb[3] = {"R", "G", "B"};
    if (!names) names = kRgb;
    w.WriteS0(channel);
    w.WriteU2(2); // float components
    w.WriteU2(3);
    for (int i = 0; i < 3; ++i) {
        w.WriteS0(names[i]);
        w.WriteF4(v[i]);
    }
}

namespace {
const char* const kXyz[3] = {"X", "Y", "Z"};
}

LxoXyzChannelSubChunk::LxoXyzChannelSubChunk(LxoWriter& w, std::string_view channel, const float* xyz)
    : LxoRgbChannelSubChunk(w, channel, xyz, kXyz) {}

LxoGradientSubChunk::LxoGradientSubChunk(LxoWriter& w, std::string_view channel, uint32_t envelope, uint32_t flags,
                                         std::string_view inType, std::string_view outType)
    : LxoSubChunk(w, lxoid::GRAD) {
    w.WriteS0(channel);
    w.WriteVX(envelope);
    w.WriteU4(flags);
    w.WriteS0(inType);
    w.WriteS0(outType);
}
