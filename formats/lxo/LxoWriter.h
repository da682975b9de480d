#pragma once
// LXO writer: a big-endian output stream on the host's byte sink, and the chunk
// objects that write an ID and a size placeholder when created and patch the size when
// closed. Strings are written as S0 with the pad byte equal to the string's first
// character (readers ignore it). The form size is written when the writer finishes.
#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "formats/lxo/LxoTypes.h"
#include "plugin/host/ByteSink.h"

class LxoWriter {
public:
    // Creates `utf8Path` ("wb"); on failure prints "Error creating LXO file <%s>\n".
    explicit LxoWriter(const char* utf8Path);
    LxoWriter(const LxoWriter&) = delete;
    LxoWriter& operator=(const LxoWriter&) = delete;
    // Finishes the file (form size at offset 4) and closes it.
    virtual ~LxoWriter();

    bool IsOpen() const { return m_file != nullptr; }
    // Writes the form size (file length - 8) and closes; returns the first error met.
    uint32_t Finish();
    uint32_t Error() const { return m_error; }
    uint64_t Tell() const { return m_out.Tell(); }

    uint32_t WriteU4(const uint32_t* values, size_t n);
    uint32_t WriteU4(uint32_t v) { return WriteU4(&v, 1); }
    uint32_t WriteU2(uint16_t v);
    uint32_t WriteU1(uint8_t v) { return WriteBytes(&v, 1); }
    uint32_t WriteF4(const float* values, size_t n);
    uint32_t WriteF4(float v) { return WriteF4(&v, 1); }
    // 2 bytes below 0xFF00, else 0xFF and 3 bytes; 0x1000000 and above cannot be written.
    uint32_t WriteVX(uint32_t v);
    uint32_t WriteS0(std::string_view s);
    uint32_t WriteBytes(const void* data, size_t n);
    // For in-kernel copies: flushes and returns the descriptor to append at Tell()
    // (-1 when not possible); Appended records what was written through it.
    int AppendDescriptor();
    void Appended(uint64_t n);
    uint32_t PatchU4(uint64_t pos, uint32_t v);
    uint32_t PatchU2(uint64_t pos, uint16_t v);

    // Item header of an ITEM chunk: S0 type, S0 name, U4 reference ID. With `assign`
    // and an ID of 0 the writer numbers the item from its own counter (first is 1).
    uint32_t WriteItemHeader(std::string_view type, std::string_view name, uint32_t& referenceID, bool assign = true);

    // The channel-name table that CHAN sub-chunks index.
    uint32_t AddChannelName(std::string_view name);
    int ChannelIndex(std::string_view name) const;
    const std::vector<std::string>& ChannelNames() const { return m_channelNames; }

private:
    friend class LxoChunk;
    friend class LxoSubChunk;
    uint32_t Fail(uint32_t e) {
        if (!m_error) m_error = e;
        return e;
    }
    uint32_t Flush();
    uint8_t* Reserve(size_t n); // null when the file is not open or a write failed
    // Chunk headers for the chunk objects; Close patches the size through the sink.
    CByteSink::Mark BeginChunk(const ChunkLayout& layout, uint32_t id);
    uint32_t EndChunk(const CByteSink::Mark& mark);

    FILE* m_file = nullptr;
    CStdioTarget m_target;
    CByteSink m_out{m_target};
    uint32_t m_error = 0;
    uint32_t m_refCounter = 0;
    std::vector<std::string> m_channelNames;
};

// A chunk: ID and a U4 size placeholder on creation, the size patched on Close.
class LxoChunk {
public:
    LxoChunk(LxoWriter& writer, uint32_t id);
    LxoChunk(const LxoChunk&) = delete;
    LxoChunk& operator=(const LxoChunk&) = delete;
    virtual ~LxoChunk(); // closes the chunk if still open
    uint32_t Close();
    uint32_t ID() const { return m_id; }
    LxoWriter& Writer() { return m_writer; }

protected:
    LxoWriter& m_writer;
    uint32_t m_id;
    uint64_t m_sizePos;
    bool m_open = true;
};

// A sub-chunk: the same with a U2 size.
class LxoSubChunk {
public:
    LxoSubChunk(LxoWriter& writer, uint32_t id);
    LxoSubChunk(const LxoSubChunk&) = delete;
    LxoSubChunk& operator=(const LxoSubChunk&) = delete;
    virtual ~LxoSubChunk();
    uint32_t Close();
    uint32_t ID() const { return m_id; }

protected:
    LxoWriter& m_writer;
    uint32_t m_id;
    uint64_t m_sizePos;
    bool m_open = true;
};

// FORM + "LXOB", closed at once (its size reads 4 until the writer finishes).
class LxoFileChunk : public LxoChunk {
public:
    explicit LxoFileChunk(LxoWriter& w);
};

class LxoVersionChunk : public LxoChunk {
public:
    LxoVersionChunk(LxoWriter& w, uint32_t major, uint32_t minor, std::string_view text);
};

class LxoTagsChunk : public LxoChunk {
public:
    LxoTagsChunk(LxoWriter& w, const std::vector<std::string>& tags);
};

// CHNM: the names are also registered in the writer's channel table, in order.
class LxoChannelNamesChunk : public LxoChunk {
public:
    LxoChannelNamesChunk(LxoWriter& w, const std::vector<std::string>& names);
};

class LxoLayerChunk : public LxoChunk {
public:
    LxoLayerChunk(LxoWriter& w, const LxoLayerInfo& layer);
};

class LxoPointsChunk : public LxoChunk {
public:
    LxoPointsChunk(LxoWriter& w, const float* xyz, size_t count);
};

class LxoPolygonsChunk : public LxoChunk {
public:
    LxoPolygonsChunk(LxoWriter& w, uint32_t type);
    // For CURV/BEZR the flags go into the top 6 bits of the count word, for HCRV/BCRV into a U4.
    uint32_t AddPolygon(const uint32_t* indices, uint32_t count, uint32_t flags = 0);
private:
    uint32_t m_type;
};

class LxoPolyTagChunk : public LxoChunk {
public:
    LxoPolyTagChunk(LxoWriter& w, uint32_t type);
    uint32_t Add(uint32_t polygon, uint32_t tag);
};

class LxoVertexMapChunk : public LxoChunk {
public:
    LxoVertexMapChunk(LxoWriter& w, uint32_t type, uint16_t dimension, std::string_view name);
    uint32_t Add(uint32_t vertex, const float* values);
protected:
    LxoVertexMapChunk(LxoWriter& w, uint32_t id, uint32_t type, uint16_t dimension, std::string_view name);
    uint16_t m_dim;
};

class LxoVertexMapDiscChunkEx : public LxoVertexMapChunk {
public:
    LxoVertexMapDiscChunkEx(LxoWriter& w, uint32_t type, uint16_t dimension, std::string_view name);
    uint32_t Add(uint32_t vertex, uint32_t polygon, const float* values);
};

class Lxo3dGroupChunk : public LxoChunk {
public:
    Lxo3dGroupChunk(LxoWriter& w, uint32_t surfaces, uint32_t referenceWord, uint32_t unused);
};

// STAG or TTGS: tag type and text.
class LxoTextTagChunk : public LxoChunk {
public:
    LxoTextTagChunk(LxoWriter& w, uint32_t id, uint32_t type, std::string_view text);
};

// VRTS: baked vertices, 3 F4 each.
class LxoVertexChunk : public LxoChunk {
public:
    LxoVertexChunk(LxoWriter& w, const float* xyz, size_t count);
};

// TRIS: three U4 vertex indices per triangle.
class LxoTrianglesChunk : public LxoChunk {
public:
    LxoTrianglesChunk(LxoWriter& w, const uint32_t* indices, size_t triangles);
};

// VVEC: type, dimension, name, then dimension F4 per vector.
class LxoVectorChunk : public LxoChunk {
public:
    LxoVectorChunk(LxoWriter& w, uint32_t type, uint32_t dimension, std::string_view name, const float* values,
                   size_t vectors);
};

class Lxo3dSurfaceChunk : public LxoChunk {
public:
    Lxo3dSurfaceChunk(LxoWriter& w, uint32_t vertices, uint32_t triangles, uint32_t vectors, uint32_t tags);
};

// ENVL header (VX index, U4 type); keys and flags follow as sub-chunks.
class LxoEnvelopeChunk : public LxoChunk {
public:
    LxoEnvelopeChunk(LxoWriter& w, uint32_t index, uint32_t type);
};

// Item sub-chunks.
class LxoNameStringSubChunk : public LxoSubChunk {
public:
    LxoNameStringSubChunk(LxoWriter& w, uint32_t id, std::string_view text);
};

class LxoUniqueSubChunk : public LxoNameStringSubChunk {
public:
    LxoUniqueSubChunk(LxoWriter& w, std::string_view name);
};

class LxoLayerSubChunk : public LxoSubChunk {
public:
    LxoLayerSubChunk(LxoWriter& w, uint32_t index, uint32_t flags, uint32_t rgba);
};

class LxoLinkSubChunk : public LxoSubChunk {
public:
    LxoLinkSubChunk(LxoWriter& w, std::string_view graph, uint32_t referenceID, uint32_t index);
};

// CHAN by name: U2 index in the writer's channel table (the name is added when new),
// U2 type, the value of that type.
class LxoChannelValueSubChunk : public LxoSubChunk {
public:
    LxoChannelValueSubChunk(LxoWriter& w, std::string_view channel, int32_t value);
    LxoChannelValueSubChunk(LxoWriter& w, std::string_view channel, float value);
    LxoChannelValueSubChunk(LxoWriter& w, std::string_view channel, std::string_view value);
};

// CHNV of three float components (base name + "R","G","B" or "X","Y","Z").
class LxoRgbChannelSubChunk : public LxoSubChunk {
public:
    LxoRgbChannelSubChunk(LxoWriter& w, std::string_view channel, const float* rgb);
protected:
    LxoRgbChannelSubChunk(LxoWriter& w, std::string_view channel, const float* v, const char* const* names);
};

class LxoXyzChannelSubChunk : public LxoRgbChannelSubChunk {
public:
    LxoXyzChannelSubChunk(LxoWriter& w, std::string_view channel, const float* xyz);
};

// GRAD: channel name, VX envelope index, U4 flags, input and output types.
class LxoGradientSubChunk : public LxoSubChunk {
public:
    LxoGradientSubChunk(LxoWriter& w, std::string_view channel, uint32_t envelope, uint32_t flags,
                        std::string_view inType, std::string_view outType);
};
