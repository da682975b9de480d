#pragma once
// Every host enum value that the format code passes or tests, defined once.
#include <cstdint>

// Four-character code, first character in the most significant byte.
constexpr uint32_t FourCC(char a, char b, char c, char d) {
    return (uint32_t(uint8_t(a)) << 24) | (uint32_t(uint8_t(b)) << 16) | (uint32_t(uint8_t(c)) << 8) |
           uint32_t(uint8_t(d));
}
constexpr uint32_t FourCC(const char (&s)[5]) { return FourCC(s[0], s[1], s[2], s[3]); }

// Key type tags: high 32 bits one code, low 32 bits a second code or 0.
constexpr uint64_t KeyTag(uint32_t hi, uint32_t lo = 0) { return (uint64_t(hi) << 32) | lo; }
constexpr uint64_t KEY_MATRIX = KeyTag(FourCC("MATR"));
constexpr uint64_t KEY_TRANSLATE = KeyTag(FourCC("TRAN"), FourCC("TRAN"));
constexpr uint64_t KEY_ROTATE = KeyTag(FourCC("ROTA"));
constexpr uint64_t KEY_SCALE = KeyTag(FourCC("SCAL"));
constexpr uint64_t KEY_VECTOR = KeyTag(FourCC("VECT"));
constexpr uint64_t KEY_PIVOT = KeyTag(FourCC("VECT"), FourCC("PIVO")); // a vector key holding the pivot
constexpr uint32_t CURVE_TCB = FourCC("TCB ");
constexpr uint32_t CURVE_LINEAR = FourCC("LINE");

// Object kinds. Kind 1 is fixed (writers look for polygon meshes); the others are ours.
enum OBJECT_KINDOF : uint32_t {
    KINDOF_MESH = 1,         // C3DObject: polygon mesh
    KINDOF_CURVE = 2,        // C3DCurve: poly-lines
    KINDOF_PATCH = 4,        // C3DPatch: patch mesh (exported as a mesh)
    KINDOF_GROUP = 8,        // C3DGroup: a dummy / grouping object, no geometry of its own
    KINDOF_CAMERA = 16,      // C3DCamera
    KINDOF_LIGHT = 32,       // C3DLight
    KINDOF_POINTCLOUD = 128, // points without faces (a C3DObject flagged as a cloud)
    KINDOF_ALL = 0xFFFFFFFFu,
};
// The mask writers pass to GetChildCount to see whether anything is exportable:
// meshes, curves, patches and point clouds (1 + 2 + 4 + 128).
constexpr uint32_t KINDOF_EXPORTABLE = 135;

// Node flags (C3DSceneNode::SetFlag).
enum NODE_FLAGS : uint32_t {
    NODE_HIDDEN = 0x1,
    NODE_SELECTED = 0x2,
    NODE_FROZEN = 0x4,
};
// Object property flags (C3DBaseObject::SetFlag).
enum OBJECT_FLAGS : uint32_t {
    OBJF_CLOSED = 0x1, // curves: closed
    OBJF_SMOOTH = 0x2,
    OBJF_HIDDEN = 0x10, // 16: hidden object; the writers leave it out
};

// Face flags (per face, 8 bits used).
enum FACE_PROPERTIES : uint32_t {
    FACE_SKIP = 0x01,   // bit 0: writers skip this face
    FACE_HIDDEN = 0x02, // hidden in the viewer
    FACE_SELECTED = 0x04,
    FACE_EDGE_AB = 0x08, // 3DS-style edge visibility bits
    FACE_EDGE_BC = 0x10,
    FACE_EDGE_CA = 0x20,
    FACE_ALL_PROPERTIES = 0xFF,
};

// SetSize modes of face lists.
enum FACE_SETSIZE_MODE : int {
    SETSIZE_UNIFORM = 0,  // count faces, each with `vertices` indices (zeroed)
    SETSIZE_RESERVE = 1,  // reserve room for count faces of `vertices`; list stays empty
    SETSIZE_TRUNCATE = 2, // keep the first count faces
};

enum MATERIAL_CLASS : uint32_t {
    MATERIAL_STANDARD = 1,
};
constexpr uint32_t NO_MATERIAL = 0xFFFFFFFFu;

// Map types; the readers pass 1 (colour), 4 (opacity), 5 (normal) and 6 (bump).
enum MapType : uint32_t {
    MAP_DIFFUSE = 1,
    MAP_SPECULAR = 2,
    MAP_AMBIENT = 3,
    MAP_OPACITY = 4,
    MAP_NORMAL = 5,
    MAP_BUMP = 6,
    MAP_REFLECTION = 7,
    MAP_SHININESS = 8,
    MAP_SELF_ILLUM = 9,
    MAP_SPECULAR_LEVEL = 10,
    MAP_TYPE_COUNT = 11,
};

enum MapProjection : uint32_t {
    PROJ_UV = 0,
    PROJ_PLANAR = 1,
    PROJ_CYLINDRICAL = 2,
    PROJ_SPHERICAL = 3,
    PROJ_CUBIC = 4,
};

// Material map flags.
enum MapFlags : uint32_t {
    MAPF_TILE_U = 0x1,
    MAPF_TILE_V = 0x2,
    MAPF_MIRROR_U = 0x4,
    MAPF_MIRROR_V = 0x8,
    MAPF_NEGATIVE = 0x10,
    MAPF_ALPHA_FROM_RGB = 0x20,
    MAPF_QUATERNION = 0x40, // rotation given as a quaternion, not HPB angles
};

// Channel types. 4 (vertex colour) is fixed; the others are ours.
enum Channel3DType : uint32_t {
    CHANNEL_UVW = 1,
    CHANNEL_SPEC_NORMAL = 2,
    CHANNEL_FACE_NORMAL = 3,
    CHANNEL_VC = 4,
    CHANNEL_ANY = 0xFFFFFFFFu,
};

// Scene units (SetUnit). The scale factor says how many centimetres one file unit is
// (metres: 100, inches: 2.54); the readers pass 4, 5 and 7.
enum _UNIT_MODE : int {
    UNIT_NONE = 0,
    UNIT_MILLIMETER = 3,
    UNIT_CENTIMETER = 4,
    UNIT_METER = 5,
    UNIT_KILOMETER = 6,
    UNIT_INCH = 7,
    UNIT_FOOT = 8,
    UNIT_MILE = 9,
};

// Capability word of a file type record (CFileExt::flags). 0x10 and 0x40000 are marks
// the host gives its own meaning; every record of this module carries both.
enum FORMAT_FLAGS : uint32_t {
    FORMAT_READ = 0x1,               // set exactly when the read provider is PLGP
    FORMAT_WRITE = 0x2,              // set exactly when the write provider is PLGP
    FORMAT_MARK_LOW = 0x10,          // host mark, on every record
    FORMAT_SHARED_EXTENSION = 0x800, // only on VRML97, which shares ".wrl" with "VRML files"
    FORMAT_MARK_HIGH = 0x40000,      // host mark, on every record
    FORMAT_EVERY_RECORD = FORMAT_MARK_LOW | FORMAT_MARK_HIGH,
};

// Read/save results and log levels.
enum IO_FILE_RESULT : int {
    IO_OK = 0,
    IO_ERR_OPEN = -1,
    IO_ERR_FORMAT = -3,
    IO_ERR_NOTHING_TO_WRITE = -8,
    IO_ERR_EMPTY = -10,
    IO_ERR_CANCELLED = -11,
};
enum IoLogLevel : int {
    LOG_INFO = 2,
    LOG_ERROR = 4,
};

// Export preparation flags: what a writer's SaveDefaultOptions asks the host to do
// to (a copy of) the scene before Save runs.
enum EXPORT_PREP : uint64_t {
    PREP_MESHES = 0x1,                  // patches become meshes; meshes are kept
    PREP_MATERIALS = 0x2,               // keep the material table (else faces lose their materials)
    PREP_CURVES = 0x10,                 // keep curves
    PREP_CURVE_POLYLINES = 0x20,        // curves become degree-1 poly-lines
    PREP_TRIANGULATE = 0x400,           // every face becomes triangles, cut on its own plane
    PREP_TRIANGULATE_POLYGONS = 0x800,  // faces of more than four corners become triangles
    PREP_SPLIT_16BIT = 0x1000,          // meshes beyond 65535 points or triangles become several
    PREP_MERGE = 0x2000,                // all meshes merge into one mesh in world space, under the root
    PREP_WORLD_SPACE = 0x4000,          // node transforms are baked into the points
    PREP_KEEP_NORMALS = 0x10000,        // keep explicit normal channels (else dropped)
    PREP_KEEP_VERTEX_COLORS = 0x20000,  // the writer uses vertex colours (they are always kept)
    PREP_FACE_NORMALS = 0x40000,        // compute a face normal channel
    PREP_DROP_EMPTY = 0x80000,          // remove meshes without points or faces and skipped faces
    PREP_SPLIT_LARGE = 0x400000000ull,  // faces of more than 255 vertices become triangles
    PREP_SPLIT_CURVES = 0x800000000ull, // one poly-line per curve node, its points in line order
                                        // (a closed curve repeats its first point at the end)
};

// Text decoding modes of IoFile (the numbers formats pass).
enum IOFILE_TEXT_MODE : int {
    TEXT_MODE_BINARY = 0,
    TEXT_MODE_ANSI = 8,  // bytes widened one by one (Latin-1)
    TEXT_MODE_UTF8 = 16, // UTF-8, invalid bytes become U+FFFD
    TEXT_MODE_AUTO = 40, // BOM detection (UTF-8, UTF-16 LE/BE); without a BOM, UTF-8 if valid else Latin-1
};
