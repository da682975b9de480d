// LXO text dump. Every line format here is the tool's contract; handlers print and
// return 0 so the walk only stops on the reader's own errors. Lines are formatted by
// the host's printf-identical formatter, so the process locale never touches numbers.
#include "formats/lxo/LxoDump.h"

#include <cstdarg>
#include <cstring>

#include "plugin/host/NumberFormat.h"

namespace {
char g_quoted[7]; // 'ABCD' and its NUL
char g_keyTypeName[96];

const char* ChannelsName(uint32_t pixelType) {
    switch (pixelType & ~0x100u) {
    case 1: return "Greyscale";
    case 3: return "RGB";
    default: return "RGBA";
    }
}
} // namespace

const char* LxoDump::QuotedID(uint32_t id) {
    g_quoted[0] = '\'';
    g_quoted[1] = static_cast<char>(id >> 24);
    g_quoted[2] = static_cast<char>(id >> 16);
    g_quoted[3] = static_cast<char>(id >> 8);
    g_quoted[4] = static_cast<char>(id);
    g_quoted[5] = '\'';
    g_quoted[6] = 0;
    return g_quoted;
}

static const char* JoinBits(uint32_t bits, const char* const* names, int count, const char* none) {
    g_keyTypeName[0] = 0;
    for (int i = 0; i < count; ++i) {
        if (!(bits & (1u << i))) continue;
        if (g_keyTypeName[0]) std::strcat(g_keyTypeName, ",");
        std::strcat(g_keyTypeName, names[i]);
    }
    if (!g_keyTypeName[0]) std::strcpy(g_keyTypeName, none);
    return g_keyTypeName;
}

const char* LxoDump::SlopeTypeName(uint32_t slopeType) {
    static const char* const kNames[] = {"Auto", "Linear In", "Linear Out", "Flat", "Autoflat", "Stepped"};
    return JoinBits(slopeType, kNames, 6, "Direct");
}

const char* LxoDump::WeightTypeName(uint32_t weightType) {
    static const char* const kNames[] = {"Value", "Slope", "Weight"};
    return JoinBits(weightType, kNames, 3, "None");
}

LxoDump::LxoDump(const char* lxoPath, const char* outPath, bool verbose) : LxoReader(lxoPath), m_verbose(verbose) {
    if (!IsOpen()) return;
    if (!outPath || !*outPath) {
        m_out = stdout;
        m_isStdout = true;
    } else {
        m_out = LxoOpenFile(outPath, "w");
        if (!m_out) {
            std::printf("Error writing output file <%s>\n", outPath);
            return;
        }
    }
    Print("=========== Dump of %s ===========\n", lxoPath);
}

LxoDump::LxoDump(FILE* input, FILE* output, bool verbose, const char* name)
    : LxoReader(input), m_out(output), m_isStdout(true), m_verbose(verbose) {
    if (!IsOpen()) {
        m_out = nullptr;
        return;
    }
    Print("=========== Dump of %s ===========\n", name ? name : "");
}

LxoDump::~LxoDump() {
    Flush();
    if (m_out && !m_isStdout) std::fclose(m_out);
}

void LxoDump::Flush() {
    if (!m_out) return;
    if (!m_text.empty()) std::fwrite(m_text.data(), 1, m_text.size(), m_out);
    m_text.clear();
    std::fflush(m_out);
}

void LxoDump::Print(const char* fmt, ...) {
    if (!m_out) return;
    va_list ap;
    va_start(ap, fmt);
    numfmt::AppendFormatV(m_text, fmt, ap);
    va_end(ap);
    if (m_text.size() >= (size_t(1) << 16)) {
        std::fwrite(m_text.data(), 1, m_text.size(), m_out);
        m_text.clear();
    }
}

void LxoDump::SubPrefix() { Print("\tSubChunk ID: %s Size: %3d:\t", QuotedID(SubChunkID()), int(SubChunkSize())); }

void LxoDump::TypedValue(const LxoChannelValue& v) {
    const char* interp = "";
    if ((v.type & 0x10) && (v.type & 0xFFDF) != 0x4E56) {
        switch (v.type & 0x600) {
        case 0: interp = " EnvInterp: Curve"; break;
        case 0x200: interp = " EnvInterp: Linear"; break;
        case 0x400: interp = " EnvInterp: Stepped"; break;
        default: interp = " EnvInterp: Undefined"; break;
        }
    }
    switch (v.kind) {
    case 1: Print("Int: %d%s%s\n", v.i, interp, ""); break;
    case 2: Print("Float: %f%s%s\n", double(v.f), interp, ""); break;
    case 3: Print("Hint: <%s>%s%s\n", v.text, interp, ""); break;
    case 4: Print("VarLength: %d%s%s\n", int(v.dataSize), interp, ""); break;
    default: break;
    }
}

void LxoDump::Values(uint32_t dimension, const float* values) {
    for (uint32_t i = 0; i < dimension; ++i) Print(" %15.6f", double(values[i]));
    Print("\n");
}

uint32_t LxoDump::OnChunkHeader(uint32_t id, uint32_t size) {
    Print("\nChunk ID: %s  Size: %d\n", QuotedID(id), int(size));
    return 0;
}

uint32_t LxoDump::OnUnknownChunk(uint32_t id, uint32_t size) {
    Print("*** Unknown Chunk ID: %s  Size: %d\n", QuotedID(id), int(size));
    return 0;
}

uint32_t LxoDump::OnVersion(uint32_t major, uint32_t minor, const char* text) {
    Print("\tMajor: %d  Minor: %d <%s>\n", int(major), int(minor), text);
    return 0;
}

uint32_t LxoDump::OnAppVersion(uint32_t base, uint32_t major, uint32_t minor, uint32_t patch, const char* text) {
    Print("\tBase version: %d Build: %d.%d.%d <%s>\n", int(base), int(major), int(minor), int(patch), text);
    return 0;
}

uint32_t LxoDump::OnParent(const char* file) {
    Print("\tParent <%s>\n", file);
    return 0;
}

uint32_t LxoDump::OnEncoding(uint32_t encoding) {
    Print("\tEncoding: %d\n", int(encoding));
    return 0;
}

uint32_t LxoDump::OnStringTag(uint32_t type, const char* text) {
    Print("\tID: %s  Tag: <%s>\n", QuotedID(type), text);
    return 0;
}

uint32_t LxoDump::OnDescription(const char* type, const char* description) {
    Print("\tType/Description <%s> <%s>\n", type, description);
    return 0;
}

uint32_t LxoDump::OnChannelNames(uint32_t count, const LxoStringList& names) {
    Print("#Channels: %d\n", int(count));
    if (m_verbose)
        for (size_t i = 0; i < names.size(); ++i) Print("\tChannel %3d: <%s>\n", int(i), names[i].c_str());
    return 0;
}

uint32_t LxoDump::OnBoundingBox(const float* min, const float* max) {
    Print("\tMin: <%15.6f,%15.6f,%15.6f>\n", double(min[0]), double(min[1]), double(min[2]));
    Print("\tMax: <%15.6f,%15.6f,%15.6f>\n", double(max[0]), double(max[1]), double(max[2]));
    return 0;
}

uint32_t LxoDump::OnPolyTags(uint32_t type, uint32_t count, const uint32_t* pairs) {
    Print("ID: %s  Count: %d\n", QuotedID(type), int(count));
    if (!m_verbose) return 0;
    const LxoStringList& tags = Tags();
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t tag = pairs[2 * i + 1];
        Print("\tPoly Index: %d, Tag index %d <%s>\n", int(pairs[2 * i]), int(tag),
              tag < tags.size() ? tags[tag].c_str() : "***Undefined***");
    }
    return 0;
}

uint32_t LxoDump::OnTags(const LxoStringList& tags) {
    for (size_t i = 0; i < tags.size(); ++i) Print("\tTags[%3d]: <%s>\n", int(i), tags[i].c_str());
    return 0;
}

uint32_t LxoDump::OnLayer(const LxoLayerInfo& l) {
    Print("Mesh: Reference ID: %d, Index %d, Flags 0x%x, Pivot (%f,%f,%f), Name: <%s> Parent %d\n", int(l.referenceID),
          int(l.index), unsigned(l.flags), double(l.pivot[0]), double(l.pivot[1]), double(l.pivot[2]), l.name.c_str(),
          int(l.parent));
    Print("Spline Level %d, Subdivision Level %f, Curve Angle: %f, Scale Pivot (%f,%f,%f)\n", int(l.SplineLevel()),
          double(l.SubdivisionLevel()), double(l.CurveAngle()), double(l.ScalePivot(0)), double(l.ScalePivot(1)),
          double(l.ScalePivot(2)));
    return 0;
}

uint32_t LxoDump::OnSurface(uint32_t vertices, uint32_t triangles, uint32_t vectors, uint32_t tags, uint32_t unused) {
    Print("#Vertices: %d, #Triangles: %d, #Vectors: %d, #Tags: %d, Unused: %d\n", int(vertices), int(triangles),
          int(vectors), int(tags), int(unused));
    return 0;
}

uint32_t LxoDump::OnGroup(uint32_t surfaces, uint32_t referenceWord, uint32_t unused) {
    Print("%s: Reference ID: %d, #Surfs: %d, Unused: %d\n",
          (referenceWord & 0x80000000u) ? "BakedTriGroup" : "StaticMesh", int(referenceWord & 0x7FFFFFFFu),
          int(surfaces), int(unused));
    return 0;
}

uint32_t LxoDump::OnPoints(uint32_t count, const float* xyz) {
    Print("#Points: %d\n", int(count));
    if (m_verbose)
        for (uint32_t i = 0; i < count; ++i)
            Print("\tPoint[%3d]: <%15.6f,%15.6f,%15.6f>\n", int(i), double(xyz[3 * i]), double(xyz[3 * i + 1]),
                  double(xyz[3 * i + 2]));
    return 0;
}

uint32_t LxoDump::OnTriangles(uint32_t count, const uint32_t* idx) {
    Print("#Triangles: %d\n", int(count));
    if (m_verbose)
        for (uint32_t i = 0; i < count; ++i)
            Print("\tTriangle[%3d]: [%3d,%3d,%3d]\n", int(i), int(idx[3 * i]), int(idx[3 * i + 1]),
                  int(idx[3 * i + 2]));
    return 0;
}

uint32_t LxoDump::OnTriangleTag(uint32_t type, const char* text) {
    Print("ID: %s  Tag: <%s>\n", QuotedID(type), text);
    return 0;
}

uint32_t LxoDump::OnPolygon(uint32_t type, uint32_t count, const uint32_t* indices, uint32_t flags) {
    if (!m_verbose) return 0;
    Print("Poly Type: %s, #Vertices: %d  Flags: 0x%02x\n\t", QuotedID(type), int(count), flags);
    for (uint32_t i = 0; i < count; ++i) Print(" %d", int(indices[i]));
    Print("\n");
    return 0;
}

uint32_t LxoDump::OnVectors(uint32_t type, uint32_t dimension, const char* name, uint32_t count, const float* values) {
    Print("ID: %s, Name: <%s>, #Vectors: %d (%d-D)\n", QuotedID(type), name, int(count), int(dimension));
    if (!m_verbose) return 0;
    for (uint32_t i = 0; i < count; ++i) {
        Print("\tVector[%3d]:", int(i));
        Values(dimension, values + size_t(i) * dimension);
    }
    return 0;
}

uint32_t LxoDump::OnVertexMap(uint32_t type, const char* name, uint32_t count, uint32_t dimension) {
    Print("ID: %s, Name: <%s>, #Maps: %d, (%d-D)\n", QuotedID(type), name, int(count), int(dimension));
    return 0;
}

uint32_t LxoDump::OnVertexMapFlags(uint32_t flags1, uint32_t flags2) {
    Print("\tFlags: 0x%08x 0x%08x\n", flags1, flags2);
    return 0;
}

uint32_t LxoDump::OnVertexMapValue(uint32_t vertex, uint32_t dimension, const float* values) {
    if (!m_verbose) return 0;
    Print("\tVertex Index: %3d :: ", int(vertex));
    Values(dimension, values);
    return 0;
}

uint32_t LxoDump::OnVertexMapDiscValue(uint32_t vertex, uint32_t polygon, uint32_t dimension, const float* values) {
    if (!m_verbose) return 0;
    Print("\tVertex Index: %3d, PolyIndex: %3d :: ", int(vertex), int(polygon));
    Values(dimension, values);
    return 0;
}

uint32_t LxoDump::OnEdgeMapValue(uint32_t from, uint32_t to, uint32_t dimension, const float* values) {
    if (!m_verbose) return 0;
    Print("\tEdge from Vertex Index: %3d, to: %3d :: ", int(from), int(to));
    Values(dimension, values);
    return 0;
}

uint32_t LxoDump::OnPreview(uint32_t width, uint32_t height, uint32_t pixelType, uint32_t flags, uint32_t bytes,
                            const uint8_t*) {
    Print("\tPreview size: %d x %d, type: %s %s (0x%x), flags: %s (0x%x), # Image bytes: %d\n", int(width), int(height),
          ChannelsName(pixelType), (pixelType & 0x100) ? "Floats" : "Bytes", pixelType,
          flags ? "Compressed" : "Uncompressed", flags, int(bytes));
    return 0;
}

uint32_t LxoDump::OnThumbnail(uint32_t width, uint32_t height, uint32_t channels, uint32_t flags, uint32_t bytes,
                              const uint8_t*) {
    const char* kind = channels == 1 ? "Greyscale" : channels == 3 ? "RGB" : channels == 4 ? "RGBA" : "Custom";
    Print("\tThumbnail size: %d x %d, Channels: %d %s, flags: 0x%x, # Image bytes: %d\n", int(width), int(height),
          int(channels), kind, flags, int(bytes));
    return 0;
}

uint32_t LxoDump::OnBake(uint32_t referenceID, uint32_t samples, float start, float samplesPerSecond) {
    Print("Reference ID: %d, #Samples: %d, Start Time %f, samples per second: %f\n", int(referenceID), int(samples),
          double(start), double(samplesPerSecond));
    return 0;
}

uint32_t LxoDump::OnReferences(uint32_t count, const LxoStringList& references) {
    Print("#References: %d\n", int(count));
    for (size_t i = 0; i < references.size(); ++i) Print("\tReference %3d: <%s>\n", int(i), references[i].c_str());
    return 0;
}

uint32_t LxoDump::OnReferenceDelete(uint32_t index, const char* item) {
    Print("\tReference %3d: Delete:  <%s>\n", int(index), item);
    return 0;
}

uint32_t LxoDump::OnReferenceOptions(uint32_t index, const char* options) {
    Print("\tReference %3d: Options: <%s>\n", int(index), options);
    return 0;
}

uint32_t LxoDump::OnItemBegin(const char* type, const char* name, uint32_t referenceID) {
    Print("Type: <%s>, Name: <%s>, Reference ID: %d\n", type, name, int(referenceID));
    return 0;
}

uint32_t LxoDump::OnUnknownItemSubChunk(uint32_t id, uint32_t size) {
    SubPrefix();
    Print("*** Unknown ***\n");
    Print("*** Unknown Item Sub-Chunk ID: %s  Size: %d\n", QuotedID(id), int(size));
    return 0;
}

uint32_t LxoDump::OnItemXref(uint32_t index, const char* fileName, const char* referenceID) {
    SubPrefix();
    Print("Index: %3d, FileName: <%s>, Reference ID: <%s>\n", int(index), fileName, referenceID);
    return 0;
}

uint32_t LxoDump::OnItemLayer(uint32_t index, uint32_t flags, uint32_t rgba) {
    SubPrefix();
    Print("Index: %3d, Flags: 0x%x, RGBA: 0x%08x\n", int(index), flags, rgba);
    return 0;
}

uint32_t LxoDump::OnItemUnique(const char* name) {
    SubPrefix();
    Print("Name: <%s>\n", name);
    return 0;
}

uint32_t LxoDump::OnItemIndex(uint32_t index) {
    SubPrefix();
    Print("Index: %3d\n", int(index));
    return 0;
}

uint32_t LxoDump::OnItemLink(const char* graph, uint32_t referenceID, uint32_t index) {
    SubPrefix();
    Print("Name: <%s>, Reference ID: %d, Index: %3d\n", graph, int(referenceID), int(index));
    return 0;
}

uint32_t LxoDump::OnItemBoundingBox(const float* min, const float* max) {
    SubPrefix();
    Print("Min: <%f, %f, %f> Max: <%f, %f, %f>\n", double(min[0]), double(min[1]), double(min[2]), double(max[0]),
          double(max[1]), double(max[2]));
    return 0;
}

uint32_t LxoDump::OnItemChannelLink(const char* graph, uint32_t referenceID, uint32_t fromIndex, uint32_t toIndex,
                                    const char* fromChannel, const char* toChannel) {
    SubPrefix();
    Print("Name: <%s>, Item ID: %d, From Index: %3d to %3d, From Channel: <%s> to: <%s> \n", graph, int(referenceID),
          int(fromIndex), int(toIndex), fromChannel, toChannel);
    return 0;
}

uint32_t LxoDump::OnItemPackage(const char* name, uint32_t size, const uint8_t*) {
    SubPrefix();
    Print("Name: <%s>, Size: %d\n", name, int(size));
    return 0;
}

uint32_t LxoDump::OnItemGradient(const char* channel, uint32_t envelope, uint32_t flags, const char* inType,
                                 const char* outType) {
    SubPrefix();
    Print("Name: <%s>, Index: %3d, Flags: %d", channel, int(envelope), int(flags));
    if (inType) Print(", inType: <%s>", inType);
    if (outType) Print(", outType: <%s>", outType);
    Print("\n");
    return 0;
}

uint32_t LxoDump::OnItemTag(uint32_t type, const char* value) {
    SubPrefix();
    Print("Type: <%s>, Value: <%s>\n", QuotedID(type), value);
    return 0;
}

uint32_t LxoDump::OnItemPreview(uint32_t width, uint32_t height, uint32_t pixelType, uint32_t flags, uint32_t bytes,
                                const uint8_t*) {
    SubPrefix();
    Print("Size: %d x %d, type: %s %s (0x%x), flags: %s (0x%x), # Image bytes: %d\n", int(width), int(height),
          ChannelsName(pixelType), (pixelType & 0x100) ? "Floats" : "Bytes", pixelType,
          flags ? "Compressed" : "Uncompressed", flags, int(bytes));
    return 0;
}

uint32_t LxoDump::OnChannel(const char* name, const LxoChannelValue& value) {
    SubPrefix();
    Print("Chan: <%-21s>, (%d) ", name, int(value.type));
    TypedValue(value);
    return 0;
}

uint32_t LxoDump::OnChannelEnvelope(int index, const char* name, const LxoChannelValue& value) {
    SubPrefix();
    Print("Chan[%3d]: <%-16s>", index, name);
    if (value.kind == 1) {
        Print(", EnvelopeIndex: %d (0x%03x) \n", value.i, unsigned(value.type));
    } else {
        Print(" (0x%03x) ", unsigned(value.type));
        TypedValue(value);
    }
    return 0;
}

uint32_t LxoDump::OnChannelVectorBegin(const char* name, uint32_t type, uint32_t count) {
    SubPrefix();
    Print("Chan: <%-21s>, Type: %d, #Elements: %d\n", name, int(type), int(count));
    return 0;
}

uint32_t LxoDump::OnChannelVectorElement(const char* name, const LxoChannelValue& value) {
    Print("\t\t<%s> = ", name);
    TypedValue(value);
    return 0;
}

uint32_t LxoDump::OnChannelString(const char* name, const char* value) {
    SubPrefix();
    Print("Chan: <%-21s>, Value: <%s>\n", name, value);
    return 0;
}

uint32_t LxoDump::OnChannelData(const char* name, const LxoChannelValue& value) {
    SubPrefix();
    // The data prints as text up to its first NUL.
    const void* z = value.dataSize ? std::memchr(value.data, 0, value.dataSize) : nullptr;
    const int shown = z ? int(static_cast<const uint8_t*>(z) - value.data) : int(value.dataSize);
    Print("Chan: <%-21s>, Value: <%.*s>, bytes: %d\n", name, shown,
          value.data ? reinterpret_cast<const char*>(value.data) : "", int(value.dataSize));
    return 0;
}

uint32_t LxoDump::OnEnvelope(uint32_t index, uint32_t type) {
    Print("\tEnvelope Index: %d, Type: %d (%s)\n", int(index), int(type), type ? "int" : "float");
    return 0;
}

uint32_t LxoDump::OnUnknownEnvelopeSubChunk(uint32_t id, uint32_t size) {
    SubPrefix();
    Print("*** Unknown ***\n");
    Print("*** Unknown Envelope Sub-Chunk ID: %s  Size: %d\n", QuotedID(id), int(size));
    return 0;
}

uint32_t LxoDump::OnEnvelopePost(uint32_t flags) {
    SubPrefix();
    Print("Flag: 0x%04x\n", flags);
    return 0;
}

uint32_t LxoDump::OnKeyTangentIn(uint32_t slopeType, uint32_t weightType, float slope, float weight, float value) {
    SubPrefix();
    Print("Slope Type: %d (%s), Weight Type: %d, Slope: %f, Weight: %f, Value: %f\n", int(slopeType),
          SlopeTypeName(slopeType), int(weightType), double(slope), double(weight), double(value));
    return 0;
}

uint32_t LxoDump::OnKeyTangentOut(uint32_t breaks, uint32_t slopeType, uint32_t weightType, float slope, float weight,
                                  float value) {
    SubPrefix();
    // The names share one buffer, so each is printed before the next is built.
    Print("Break: %d (%s), ", int(breaks), WeightTypeName(breaks));
    Print("Slope Type: %d (%s), Weight Type: %d, Slope: %f, Weight: %f, Value: %f\n", int(slopeType),
          SlopeTypeName(slopeType), int(weightType), double(slope), double(weight), double(value));
    return 0;
}

uint32_t LxoDump::OnIntKey(float time, int32_t value) {
    SubPrefix();
    Print("Time: %f, Value: %d\n", double(time), value);
    return 0;
}

uint32_t LxoDump::OnKey(float time, float value) {
    SubPrefix();
    Print("Time: %f, Value: %f\n", double(time), double(value));
    return 0;
}

uint32_t LxoDump::OnEnvelopeFlags(uint32_t flags) {
    SubPrefix();
    Print("Flag: 0x%08x\n", flags);
    return 0;
}

uint32_t LxoDump::OnUnknownActionSubChunk(uint32_t id, uint32_t size) {
    SubPrefix();
    Print("*** Unknown ***\n");
    Print("*** Unknown Action Sub-Chunk ID: %s  Size: %d\n", QuotedID(id), int(size));
    return 0;
}

uint32_t LxoDump::OnActionChannel(uint32_t, const char* name, const LxoChannelValue& value) {
    SubPrefix();
    Print("Chan: <%-21s> (0x%03x) ", name, unsigned(value.type));
    TypedValue(value);
    return 0;
}

uint32_t LxoDump::OnActionChannelEnvelope(uint32_t, const char* name, uint32_t envelope, const LxoChannelValue& value) {
    SubPrefix();
    Print("Chan: <%-21s>, EnvelopeIndex: %d (0x%03x) \n", name, int(envelope), unsigned(value.type));
    return 0;
}

uint32_t LxoDump::OnActionChannelFlags(uint32_t index, const char* name, uint32_t flags, const LxoChannelValue&) {
    SubPrefix();
    if (index < ChannelNames().size()) Print("Chan[%3d]: <%-16s>", int(index), name);
    else Print("Chan: <%-21s>", name);
    Print(", EnvelopeIndex: %d, Flags: 0x%x\n", -1, flags);
    return 0;
}

uint32_t LxoDump::OnAudio() {
    Print("Type: <audio>\n");
    return 0;
}

uint32_t LxoDump::OnAudioItem(uint32_t referenceID) {
    SubPrefix();
    Print("Reference ID: %3d\n", int(referenceID));
    return 0;
}

uint32_t LxoDump::OnAudioSettings(uint32_t loop, uint32_t mute, uint32_t scrub, float start) {
    SubPrefix();
    Print("Loop: %3d Mute: %3d Scrub: %3d Start: %f\n", int(loop), int(mute), int(scrub), double(start));
    return 0;
}
