#pragma once
// Streaming LXO reader: walks the top-level chunks with the C runtime's stdio and hands
// each decoded chunk to a virtual handler. A chunk the base decoders parse is loaded
// whole (so memory is bounded by the largest chunk, never the file); chunks a subclass
// copies raw stay on disk and are streamed. Every read checks the unread count of the
// chunk and of the current sub-chunk first.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "formats/lxo/LxoTypes.h"
#include "plugin/host/BinaryCursor.h"

using LxoStringList = std::vector<std::string>;

// Opens a UTF-8 path with the C runtime ("rb"/"wb"/"w"); null on failure.
FILE* LxoOpenFile(const char* utf8Path, const char* mode);

class LxoReader {
public:
    // Opens `utf8Path` for binary reading; on failure prints "Error reading LXO file <%s>\n"
    // and stays usable, but Read() then returns LXO_ERR_NO_FILE.
    explicit LxoReader(const char* utf8Path);
    // Reads an already open stream (a memory stream in the fuzzer); takes ownership.
    explicit LxoReader(FILE* stream);
    LxoReader(const LxoReader&) = delete;
    LxoReader& operator=(const LxoReader&) = delete;

    bool IsOpen() const { return m_file != nullptr; }
    // Reads the whole file: 0 on success, else the result that stopped the walk.
    uint32_t Read();

    // ---- the handler table, in slot order ----
    virtual uint32_t ParseChunk(int context);        // 0
    virtual uint32_t ParseItemSubChunk(int context); // 1
    virtual ~LxoReader();                            // 2
    virtual int NestingContext();                    // 3
    virtual int ItemNestingContext();                // 4
    virtual uint32_t OnChunkHeader(uint32_t id, uint32_t size);
    virtual uint32_t OnUnknownChunk(uint32_t id, uint32_t size);
    virtual uint32_t OnVersion(uint32_t major, uint32_t minor, const char* text);
    virtual uint32_t OnAppVersion(uint32_t base, uint32_t major, uint32_t minor, uint32_t patch, const char* text);
    virtual uint32_t OnParent(const char* file);
    virtual uint32_t OnEncoding(uint32_t encoding);
    virtual uint32_t OnStringTag(uint32_t type, const char* text);
    virtual uint32_t OnDescription(const char* type, const char* description);
    virtual uint32_t OnChannelNames(uint32_t count, const LxoStringList& names);
    virtual uint32_t OnBoundingBox(const float* min, const float* max);
    // `pairs` holds `count` (polygon index, tag index) pairs.
    virtual uint32_t OnPolyTags(uint32_t type, uint32_t count, const uint32_t* pairs);
    virtual uint32_t OnTags(const LxoStringList& tags);
    virtual uint32_t OnLayer(const LxoLayerInfo& layer);
    virtual uint32_t OnSurface(uint32_t vertices, uint32_t triangles, uint32_t vectors, uint32_t tags, uint32_t unused);
    virtual uint32_t OnGroup(uint32_t surfaces, uint32_t referenceWord, uint32_t unused);
    virtual uint32_t OnPoints(uint32_t count, const float* xyz);
    virtual uint32_t OnTriangles(uint32_t count, const uint32_t* indices);
    virtual uint32_t OnTriangleTag(uint32_t type, const char* text);
    virtual uint32_t OnPolygon(uint32_t type, uint32_t count, const uint32_t* indices, uint32_t flags);
    virtual uint32_t OnVectors(uint32_t type, uint32_t dimension, const char* name, uint32_t count,
                               const float* values);
    virtual uint32_t OnVertexMap(uint32_t type, const char* name, uint32_t count, uint32_t dimension);
    virtual uint32_t OnVertexMapFlags(uint32_t flags1, uint32_t flags2);
    virtual uint32_t OnVertexMapValue(uint32_t vertex, uint32_t dimension, const float* values);
    virtual uint32_t OnVertexMapDiscValue(uint32_t vertex, uint32_t polygon, uint32_t dimension, const float* values);
    virtual uint32_t OnReservedHook();
    // Edge maps (VMED) are not among the chunks the base decodes; the slot stays for subclasses.
    virtual uint32_t OnEdgeMapValue(uint32_t from, uint32_t to, uint32_t dimension, const float* values);
    virtual uint32_t OnPreview(uint32_t width, uint32_t height, uint32_t pixelType, uint32_t flags, uint32_t bytes,
                               const uint8_t* data);
    virtual uint32_t OnThumbnail(uint32_t width, uint32_t height, uint32_t channels, uint32_t flags, uint32_t bytes,
                                 const uint8_t* data);
    virtual uint32_t OnBake(uint32_t referenceID, uint32_t samples, float start, float samplesPerSecond);
    virtual uint32_t OnReferences(uint32_t count, const LxoStringList& references);
    virtual uint32_t OnReferenceDelete(uint32_t index, const char* item);
    virtual uint32_t OnReferenceOptions(uint32_t index, const char* options);
    virtual uint32_t OnItemBegin(const char* type, const char* name, uint32_t referenceID);
    virtual uint32_t OnItemEnd();
    virtual uint32_t OnUnknownItemSubChunk(uint32_t id, uint32_t size);
    virtual uint32_t OnItemXref(uint32_t index, const char* fileName, const char* referenceID);
    virtual uint32_t OnItemLayer(uint32_t index, uint32_t flags, uint32_t rgba);
    virtual uint32_t OnItemUnique(const char* name);
    virtual uint32_t OnItemName(const char* name);
    virtual uint32_t OnItemIndex(uint32_t index);
    virtual uint32_t OnItemLink(const char* graph, uint32_t referenceID, uint32_t index);
    virtual uint32_t OnItemBoundingBox(const float* min, const float* max);
    virtual uint32_t OnItemChannelLink(const char* graph, uint32_t referenceID, uint32_t fromIndex, uint32_t toIndex,
                                       const char* fromChannel, const char* toChannel);
    virtual uint32_t OnItemPackage(const char* name, uint32_t size, const uint8_t* data);
    // inType/outType are null when the sub-chunk ends before them.
    virtual uint32_t OnItemGradient(const char* channel, uint32_t envelope, uint32_t flags, const char* inType,
                                    const char* outType);
    virtual uint32_t OnItemTag(uint32_t type, const char* value);
    virtual uint32_t OnItemPreview(uint32_t width, uint32_t height, uint32_t pixelType, uint32_t flags, uint32_t bytes,
                                   const uint8_t* data);
    // CHAN without interpolation information.
    virtual uint32_t OnChannel(const char* name, const LxoChannelValue& value);
    // CHAN whose type word carries the envelope bit 0x10; `index` numbers the item's CHANs from 0.
    // An integer value there is the envelope's index.
    virtual uint32_t OnChannelEnvelope(int index, const char* name, const LxoChannelValue& value);
    virtual uint32_t OnChannelVectorBegin(const char* name, uint32_t type, uint32_t count);
    virtual uint32_t OnChannelVectorElement(const char* name, const LxoChannelValue& value);
    virtual uint32_t OnChannelString(const char* name, const char* value);
    // A channel value of kind 4 (U4 byte count, then the bytes).
    virtual uint32_t OnChannelData(const char* name, const LxoChannelValue& value);
    virtual uint32_t OnUserChannel(const char* name, const char* type);
    virtual uint32_t OnEnvelope(uint32_t index, uint32_t type);
    virtual uint32_t OnUnknownEnvelopeSubChunk(uint32_t id, uint32_t size);
    virtual uint32_t OnEnvelopePre(uint32_t flags);
    virtual uint32_t OnEnvelopePost(uint32_t flags);
    virtual uint32_t OnKeyTangentIn(uint32_t slopeType, uint32_t weightType, float slope, float weight, float value);
    virtual uint32_t OnKeyTangentOut(uint32_t breaks, uint32_t slopeType, uint32_t weightType, float slope,
                                     float weight, float value);
    virtual uint32_t OnIntKey(float time, int32_t value);
    virtual uint32_t OnKey(float time, float value);
    virtual uint32_t OnEnvelopeFlags(uint32_t flags);
    virtual uint32_t OnAction(const char* type, const char* name, uint32_t id);
    virtual uint32_t OnUnknownActionSubChunk(uint32_t id, uint32_t size);
    virtual uint32_t OnActionParent(uint32_t id);
    virtual uint32_t OnActionItem(uint32_t referenceID);
    // Action CHAN: U2 channel index (into CHNM), U2 type, U2 envelope word, value.
    // Envelope word 0: a plain value.
    virtual uint32_t OnActionChannel(uint32_t index, const char* name, const LxoChannelValue& value);
    // Envelope word set and the type's envelope bit 0x10 set: the word is an envelope index.
    virtual uint32_t OnActionChannelEnvelope(uint32_t index, const char* name, uint32_t envelope,
                                             const LxoChannelValue& value);
    // Envelope word set without the envelope bit: the word holds flags.
    virtual uint32_t OnActionChannelFlags(uint32_t index, const char* name, uint32_t flags,
                                          const LxoChannelValue& value);
    virtual uint32_t OnActionGradient(const char* channel, uint32_t envelope, uint32_t flags, const char* inType,
                                      const char* outType);
    virtual uint32_t OnAudio();
    virtual uint32_t OnAudioItem(uint32_t referenceID);
    virtual uint32_t OnAudioSettings(uint32_t loop, uint32_t mute, uint32_t scrub, float start);

    const LxoStringList& ChannelNames() const { return m_channelNames; }
    const LxoStringList& Tags() const { return m_tags; }

protected:
    // State of the current chunk and sub-chunk.
    uint32_t ChunkID() const { return m_chunkID; }
    uint32_t ChunkSize() const { return m_chunkSize; }
    uint64_t ChunkStart() const { return m_chunkStart; }
    uint64_t ChunkUnread() const { return m_unread; }
    // Bytes the chunk's size claims beyond the end of the file (not part of ChunkUnread).
    uint64_t ChunkMissing() const { return m_missing; }
    uint32_t SubChunkID() const { return m_subID; }
    uint32_t SubChunkSize() const { return m_subSize; }
    uint64_t SubChunkUnread() const { return m_subUnread; }
    bool InSubChunk() const { return m_inSub; }
    // Drops whatever remains of the current chunk (the read loop then moves on).
    void SkipRestOfChunk();

    // Base decoders (context 0).
    uint32_t DispatchChunk();
    uint32_t DispatchItemSubChunk();

    // Read primitives: each checks the unread counts, returns LXO_ERR_READ when short.
    uint32_t ReadU4(uint32_t* out, size_t n = 1);
    uint32_t ReadF4(float* out, size_t n = 1);
    uint32_t ReadU2(uint16_t& out);
    uint32_t ReadU1(uint8_t& out);
    uint32_t ReadVX(uint32_t& out);
    uint32_t ReadVXs(uint32_t* out, size_t n);
    uint32_t ReadBytes(void* out, size_t n);
    // An S0 into `buf` of `bufSize` bytes (always NUL-terminated; longer strings are consumed).
    // A 0xFF byte counts as end of file.
    uint32_t ReadS0(char* buf, size_t bufSize);
    uint32_t ReadS0(std::string& out, size_t maxStored = 65535);
    uint32_t ReadChannelValue(uint16_t type, LxoChannelValue& out);
    // Sub-chunk header: 4-byte ID, U2 size; the size must fit in the chunk.
    uint32_t ReadSubChunkHeader(uint32_t& id, uint16_t& size);
    // Loads the rest of the current chunk into memory (the base decoders do it first).
    uint32_t LoadChunk();
    // Points at the next `n` loaded bytes without copying (null when short or not loaded).
    const uint8_t* PeekLoaded(size_t n) const;
    // For in-kernel copies of a chunk left on disk: the descriptor and offset of the next
    // unread byte (-1 when the chunk is loaded or the stream has no descriptor), and the
    // bookkeeping once `n` bytes were taken that way.
    int UnreadDescriptor(uint64_t& offset);
    void TookUnread(uint64_t n);

private:
    bool Check(uint64_t n) const { return n <= m_unread && (!m_inSub || n <= m_subUnread); }
    void Consume(uint64_t n) {
        m_unread -= n;
        if (m_inSub) m_subUnread -= n;
    }
    uint64_t Available() const { return m_inSub && m_subUnread < m_unread ? m_subUnread : m_unread; }
    void InitFile();
    // Decoders that read "to the chunk end" reach the end of the file first when the chunk
    // claims more than the file holds: the read error a short read gives.
    uint32_t ReadToChunkEnd() const { return m_missing ? LXO_ERR_READ : LXO_OK; }
    uint32_t SubChunkLoop(int which);
    uint32_t DispatchEnvelopeSubChunk();
    uint32_t DispatchActionSubChunk();
    uint32_t ReadGradient(std::string& channel, uint32_t& env, uint32_t& flags, std::string& in, std::string& out,
                          bool& hasIn, bool& hasOut);
    uint32_t DecodeLayer();
    uint32_t DecodePolygons();
    uint32_t DecodeVertexMap(bool disc);

    FILE* m_file = nullptr;
    uint64_t m_fileSize = 0;
    uint32_t m_chunkID = 0;
    uint32_t m_chunkSize = 0;
    uint64_t m_chunkStart = 0;
    uint64_t m_unread = 0;
    uint64_t m_missing = 0;
    uint32_t m_subID = 0;
    uint32_t m_subSize = 0;
    uint64_t m_subUnread = 0;
    bool m_inSub = false;
    int m_itemChannel = 0;    // CHAN ordinal within the current item
    uint32_t m_loptIndex = 0; // LOPT chunks seen, the reference index they report

    // The loaded chunk: the cursor's remaining bytes are the chunk's unread bytes.
    std::unique_ptr<uint8_t[]> m_buf;
    size_t m_bufCap = 0;
    CBinaryCursor m_cur;
    bool m_loaded = false;

    LxoStringList m_channelNames;
    LxoStringList m_tags;
    // Scratch arrays reused across chunks.
    std::vector<float> m_floats;
    std::vector<uint32_t> m_words;
    LxoChannelValue m_value;
};
