#pragma once
// trueSpace files as read, before they become a host scene: the objects (groups,
// meshes, lights, cameras) with their chunk IDs and parent handles, the Mat1
// materials and their shader boxes, and the units. The binary and the ASCII body
// parsers both fill this, so the two encodings meet the scene builder the same way.
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "plugin/host/Channel.h"
#include "plugin/host/FaceList.h"
#include "plugin/host/PointList.h"

namespace tsio {

inline constexpr std::string_view kSignature = "Caligari ";
inline constexpr size_t kHeaderBytes = 32;

// Material custom data: the mat# a material was read with (the writer keeps it), the
// shader letter (f, p, m) and the index of refraction in thousandths.
inline constexpr uint32_t kMaterialNumberKey = 0x4D41544E; // 'MATN'
inline constexpr uint32_t kShaderKey = 0x53484144;         // 'SHAD'
inline constexpr uint32_t kIorKey = 0x494F5220;            // 'IOR '

// Face flag of a hole: it belongs to the face before it and has no material.
inline constexpr uint8_t kFaceHole = 0x08;

// Local axes and the current position of Grou, PolH and the other object chunks.
struct ObjectBlock {
    std::string name; // empty for "no name"
    uint16_t dup = 0; // duplicate counter of equal names
    float center[3] = {0, 0, 0};
    float axes[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    // Rows of the 3x4 matrix mapping the stored vertices to world space (column 4: translation).
    float tm[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
};

// A hole and the outer face (index into the mesh's face list) it cuts.
struct Hole {
    uint32_t outer = 0;
    std::vector<uint32_t> verts, uvs;
};

struct Mesh {
    // Faces already in host order (reversed); their material IDs hold the file's mat#.
    std::unique_ptr<C3DPointList> points = std::make_unique<C3DPointList>();
    std::unique_ptr<C3DFaceList> faces = std::make_unique<C3DFaceList>();
    std::unique_ptr<CUVWChannel> uv; // parallel to faces; null when the mesh has no UVs
    std::vector<Hole> holes;
    uint32_t drawFlags = 0;
};

enum class ObjectKind : uint8_t { Group, Mesh, Light, Camera };

struct Object {
    ObjectKind kind = ObjectKind::Group;
    int32_t id = 0, parent = 0;
    ObjectBlock block;
    int mesh = -1; // index into File::meshes
};

struct TextureRef {
    std::string file;
    float offset[2] = {0, 0};
    float repeat[2] = {1, 1};
    bool IsSet() const { return !file.empty(); }
};

struct Material {
    int32_t id = 0, parent = 0;
    uint16_t number = 0; // the mat# faces refer to
    char shader = 'p';   // f flat, p phong, m metal
    char facet = 'a';    // a auto, f faceted, s smooth
    uint8_t angle = 40;  // auto-facet angle, degrees
    float rgb[3] = {0.8f, 0.8f, 0.8f};
    float alpha = 1, ka = 0.1f, ks = 0.5f, exp = 0.1f, ior = 1, kd = 1;
    bool hasKd = false;
    TextureRef texture, bump, environment;
};

// What the scene takes from a ShBx: the colour slot's texture, or its plain colour.
struct ShaderBox {
    int32_t id = 0, parent = 0;
    TextureRef texture;
    bool hasColour = false;
    float colour[3] = {1, 1, 1};
};

struct Unit {
    int32_t parent = 0;
    int code = 2;
};

struct File {
    bool ascii = false;
    bool ended = false; // an END chunk was met
    std::vector<Object> objects;
    std::vector<Mesh> meshes;
    std::vector<Material> materials;
    std::vector<ShaderBox> shaders;
    std::vector<Unit> units;
    std::vector<std::string> log; // non-fatal problems, in file order
    uint32_t chunks = 0, skipped = 0;
};

// Polled between chunks; true stops the walk.
using CancelQuery = std::function<bool()>;
// Told between chunks how far into the body the walk is (bytes before it are done with).
using ProgressSink = std::function<void(size_t)>;

// What the 32-byte header says: 'A' or 'B' for the body, false when the signature is wrong.
bool ReadHeader(std::span<const uint8_t> data, char& encoding, bool& bigEndian);
// The body (everything after the header). Binary uses `bigEndian` for every number.
void ParseBinary(std::span<const uint8_t> body, bool bigEndian, File& out, const CancelQuery& cancel,
                 const ProgressSink& progress = {});
void ParseAscii(std::string_view body, File& out, const CancelQuery& cancel, const ProgressSink& progress = {});
// True when the body starts with a line shaped like an ASCII chunk header.
bool LooksLikeAsciiChunk(std::string_view body);
// True when the body starts with a plausible binary chunk header (a letter-and-space
// type, small version numbers).
bool LooksLikeBinaryChunk(std::span<const uint8_t> body, bool bigEndian);
// Parses an ASCII chunk header line; false when the line is not one.
struct ChunkHeader {
    char type[4] = {0, 0, 0, 0};
    int major = 0, minor = 0;
    int32_t id = 0, parent = 0;
    uint64_t size = 0;
};
bool ParseAsciiChunkHeader(std::string_view line, ChunkHeader& h);

// Faces as both encodings give them: corners as (vertex, uv) pairs in file order. A face
// naming a missing point is dropped, a uv past the list reads as 0, a hole joins the face
// before it, and faces go into the mesh reversed into host order. What was dropped or
// changed is counted for the log.
struct FaceTaker {
    Mesh& mesh;
    uint32_t points, uvCount;
    uint32_t badFaces = 0, badUvs = 0;
    void Take(std::vector<uint32_t>& verts, std::vector<uint32_t>& uvs, bool hole, uint16_t material);
    void Log(std::vector<std::string>& log) const;
};

} // namespace tsio
