#pragma once
// LXO text dump: one printing handler per chunk and sub-chunk, to standard output or
// a text file. Terse mode prints headers and counts only; verbose mode adds the
// per-element listings (points, triangles, channel names, polygon vertex lists,
// vectors, vertex map values, polygon tag pairs). Not re-entrant: the quoted-ID and
// key-type name buffers are shared.
#include <cstdio>
#include <string>

#include "formats/lxo/LxoReader.h"

class LxoDump : public LxoReader {
public:
    // Output to standard output when `outPath` is null or empty.
    LxoDump(const char* lxoPath, const char* outPath, bool verbose);
    // Reads `input` (owned) and prints to `output` (not closed); the banner names `name`.
    LxoDump(FILE* input, FILE* output, bool verbose, const char* name);
    ~LxoDump() override;

    bool HasOutput() const { return m_out != nullptr; }
    // Writes out what is buffered (the destructor does it too).
    void Flush();

    uint32_t OnChunkHeader(uint32_t id, uint32_t size) override;
    uint32_t OnUnknownChunk(uint32_t id, uint32_t size) override;
    uint32_t OnVersion(uint32_t major, uint32_t minor, const char* text) override;
    uint32_t OnAppVersion(uint32_t base, uint32_t major, uint32_t minor, uint32_t patch, const char* text) override;
    uint32_t OnParent(const char* file) override;
    uint32_t OnEncoding(uint32_t encoding) override;
    uint32_t OnStringTag(uint32_t type, const char* text) override;
    uint32_t OnDescription(const char* type, const char* description) override;
    uint32_t OnChannelNames(uint32_t count, const LxoStringList& names) override;
    uint32_t OnBoundingBox(const float* min, const float* max) override;
    uint32_t OnPolyTags(uint32_t type, uint32_t count, const uint32_t* pairs) override;
    uint32_t OnTags(const LxoStringList& tags) override;
    uint32_t OnLayer(const LxoLayerInfo& layer) override;
    uint32_t OnSurface(uint32_t vertices, uint32_t triangles, uint32_t vectors, uint32_t tags,
                       uint32_t unused) override;
    uint32_t OnGroup(uint32_t surfaces, uint32_t referenceWord, uint32_t unused) override;
    uint32_t OnPoints(uint32_t count, const float* xyz) override;
    uint32_t OnTriangles(uint32_t count, const uint32_t* indices) override;
    uint32_t OnTriangleTag(uint32_t type, const char* text) override;
    uint32_t OnPolygon(uint32_t type, uint32_t count, const uint32_t* indices, uint32_t flags) override;
    uint32_t OnVectors(uint32_t type, uint32_t dimension, const char* name, uint32_t count,
                       const float* values) override;
    uint32_t OnVertexMap(uint32_t type, const char* name, uint32_t count, uint32_t dimension) override;
    uint32_t OnVertexMapFlags(uint32_t flags1, uint32_t flags2) override;
    uint32_t OnVertexMapValue(uint32_t vertex, uint32_t dimension, const float* values) override;
    uint32_t OnVertexMapDiscValue(uint32_t vertex, uint32_t polygon, uint32_t dimension, const float* values) override;
    uint32_t OnEdgeMapValue(uint32_t from, uint32_t to, uint32_t dimension, const float* values) override;
    uint32_t OnPreview(uint32_t width, uint32_t height, uint32_t pixelType, uint32_t flags, uint32_t bytes,
                       const uint8_t* data) override;
    uint32_t OnThumbnail(uint32_t width, uint32_t height, uint32_t channels, uint32_t flags, uint32_t bytes,
                         const uint8_t* data) override;
    uint32_t OnBake(uint32_t referenceID, uint32_t samples, float start, float samplesPerSecond) override;
    uint32_t OnReferences(uint32_t count, const LxoStringList& references) override;
    uint32_t OnReferenceDelete(uint32_t index, const char* item) override;
    uint32_t OnReferenceOptions(uint32_t index, const char* options) override;
    uint32_t OnItemBegin(const char* type, const char* name, uint32_t referenceID) override;
    uint32_t OnUnknownItemSubChunk(uint32_t id, uint32_t size) override;
    uint32_t OnItemXref(uint32_t index, const char* fileName, const char* referenceID) override;
    uint32_t OnItemLayer(uint32_t index, uint32_t flags, uint32_t rgba) override;
    uint32_t OnItemUnique(const char* name) override;
    uint32_t OnItemIndex(uint32_t index) override;
    uint32_t OnItemLink(const char* graph, uint32_t referenceID, uint32_t index) override;
    uint32_t OnItemBoundingBox(const float* min, const float* max) override;
    uint32_t OnItemChannelLink(const char* graph, uint32_t referenceID, uint32_t fromIndex, uint32_t toIndex,
                               const char* fromChannel, const char* toChannel) override;
    uint32_t OnItemPackage(const char* name, uint32_t size, const uint8_t* data) override;
    uint32_t OnItemGradient(const char* channel, uint32_t envelope, uint32_t flags, const char* inType,
                            const char* outType) override;
    uint32_t OnItemTag(uint32_t type, const char* value) override;
    uint32_t OnItemPreview(uint32_t width, uint32_t height, uint32_t pixelType, uint32_t flags, uint32_t bytes,
                           const uint8_t* data) override;
    uint32_t OnChannel(const char* name, const LxoChannelValue& value) override;
    uint32_t OnChannelEnvelope(int index, const char* name, const LxoChannelValue& value) override;
    uint32_t OnChannelVectorBegin(const char* name, uint32_t type, uint32_t count) override;
    uint32_t OnChannelVectorElement(const char* name, const LxoChannelValue& value) override;
    uint32_t OnChannelString(const char* name, const char* value) override;
    uint32_t OnChannelData(const char* name, const LxoChannelValue& value) override;
    uint32_t OnEnvelope(uint32_t index, uint32_t type) override;
    uint32_t OnUnknownEnvelopeSubChunk(uint32_t id, uint32_t size) override;
    uint32_t OnEnvelopePost(uint32_t flags) override;
    uint32_t OnKeyTangentIn(uint32_t slopeType, uint32_t weightType, float slope, float weight, float value) override;
    uint32_t OnKeyTangentOut(uint32_t breaks, uint32_t slopeType, uint32_t weightType, float slope, float weight,
                             float value) override;
    uint32_t OnIntKey(float time, int32_t value) override;
    uint32_t OnKey(float time, float value) override;
    uint32_t OnEnvelopeFlags(uint32_t flags) override;
    uint32_t OnUnknownActionSubChunk(uint32_t id, uint32_t size) override;
    uint32_t OnActionChannel(uint32_t index, const char* name, const LxoChannelValue& value) override;
    uint32_t OnActionChannelEnvelope(uint32_t index, const char* name, uint32_t envelope,
                                     const LxoChannelValue& value) override;
    uint32_t OnActionChannelFlags(uint32_t index, const char* name, uint32_t flags,
                                  const LxoChannelValue& value) override;
    uint32_t OnAudio() override;
    uint32_t OnAudioItem(uint32_t referenceID) override;
    uint32_t OnAudioSettings(uint32_t loop, uint32_t mute, uint32_t scrub, float start) override;

    // Key-type names, built in a shared static buffer (each call overwrites the last result).
    static const char* SlopeTypeName(uint32_t slopeType);
    static const char* WeightTypeName(uint32_t weightType);
    // The ID between single quotes, in a shared static buffer.
    static const char* QuotedID(uint32_t id);

private:
    void Print(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    void SubPrefix();
    void TypedValue(const LxoChannelValue& v);
    void Values(uint32_t dimension, const float* values);

    FILE* m_out = nullptr;
    std::string m_text; // formatted, not yet written
    bool m_isStdout = false;
    bool m_verbose = false;
};
