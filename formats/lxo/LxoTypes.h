#pragma once
// Modo LXO: a big-endian IFF-like container. FORM + size + "LXOB", then chunks of a
// 4-byte ID and a U4 payload size (no padding); ITEM, ENVL and ACTN hold sub-chunks with
// U2 sizes. Strings (S0) are NUL-terminated and padded to even length; indices (VX)
// take 2 bytes, or 4 when the first byte is 0xFF.
#include <cstdint>
#include <string>

constexpr uint32_t LxoId(char a, char b, char c, char d) {
    return (uint32_t(uint8_t(a)) << 24) | (uint32_t(uint8_t(b)) << 16) | (uint32_t(uint8_t(c)) << 8) |
           uint32_t(uint8_t(d));
}

// Result codes of every LXO operation.
enum : uint32_t {
    LXO_OK = 0,
    LXO_END_OF_DATA = 2, // a handler asks to stop; the read loop counts it as success
    LXO_ERR_OUT_OF_MEMORY = 0x80000002u,
    LXO_ERR_UNSUPPORTED_TYPE = 0x80000003u,
    LXO_ERR_NO_FILE = 0x80000009u,
    LXO_ERR_READ = 0x80000015u, // short read, or a size beyond its container
    LXO_ERR_WRITE = 0x84000001u,
};

namespace lxoid {
inline constexpr uint32_t FORM = LxoId('F', 'O', 'R', 'M');
inline constexpr uint32_t LXOB = LxoId('L', 'X', 'O', 'B');
inline constexpr uint32_t VRSN = LxoId('V', 'R', 'S', 'N');
inline constexpr uint32_t APPV = LxoId('A', 'P', 'P', 'V');
inline constexpr uint32_t PRNT = LxoId('P', 'R', 'N', 'T');
inline constexpr uint32_t ENCO = LxoId('E', 'N', 'C', 'O');
inline constexpr uint32_t STAG = LxoId('S', 'T', 'A', 'G');
inline constexpr uint32_t DESC = LxoId('D', 'E', 'S', 'C');
inline constexpr uint32_t CHNM = LxoId('C', 'H', 'N', 'M');
inline constexpr uint32_t BBOX = LxoId('B', 'B', 'O', 'X');
inline constexpr uint32_t PTAG = LxoId('P', 'T', 'A', 'G');
inline constexpr uint32_t TAGS = LxoId('T', 'A', 'G', 'S');
inline constexpr uint32_t LAYR = LxoId('L', 'A', 'Y', 'R');
inline constexpr uint32_t SRF3 = LxoId('3', 'S', 'R', 'F');
inline constexpr uint32_t GRP3 = LxoId('3', 'G', 'R', 'P');
inline constexpr uint32_t PNTS = LxoId('P', 'N', 'T', 'S');
inline constexpr uint32_t VRTS = LxoId('V', 'R', 'T', 'S');
inline constexpr uint32_t TRIS = LxoId('T', 'R', 'I', 'S');
inline constexpr uint32_t TTGS = LxoId('T', 'T', 'G', 'S');
inline constexpr uint32_t POLS = LxoId('P', 'O', 'L', 'S');
inline constexpr uint32_t VVEC = LxoId('V', 'V', 'E', 'C');
inline constexpr uint32_t VMAP = LxoId('V', 'M', 'A', 'P');
inline constexpr uint32_t VMAD = LxoId('V', 'M', 'A', 'D');
inline constexpr uint32_t VMED = LxoId('V', 'M', 'E', 'D');
inline constexpr uint32_t VMPA = LxoId('V', 'M', 'P', 'A');
inline constexpr uint32_t PRVW = LxoId('P', 'R', 'V', 'W');
inline constexpr uint32_t THUM = LxoId('T', 'H', 'U', 'M');
inline constexpr uint32_t BAKE = LxoId('B', 'A', 'K', 'E');
inline constexpr uint32_t REFS = LxoId('R', 'E', 'F', 'S');
inline constexpr uint32_t IDEL = LxoId('I', 'D', 'E', 'L');
inline constexpr uint32_t LOPT = LxoId('L', 'O', 'P', 'T');
inline constexpr uint32_t ITEM = LxoId('I', 'T', 'E', 'M');
inline constexpr uint32_t ENVL = LxoId('E', 'N', 'V', 'L');
inline constexpr uint32_t ACTN = LxoId('A', 'C', 'T', 'N');
inline constexpr uint32_t PART = LxoId('P', 'A', 'R', 'T');
// item sub-chunks
inline constexpr uint32_t XREF = LxoId('X', 'R', 'E', 'F');
inline constexpr uint32_t UNIQ = LxoId('U', 'N', 'I', 'Q');
inline constexpr uint32_t VNAM = LxoId('V', 'N', 'A', 'M');
inline constexpr uint32_t UIDX = LxoId('U', 'I', 'D', 'X');
inline constexpr uint32_t LINK = LxoId('L', 'I', 'N', 'K');
inline constexpr uint32_t CLNK = LxoId('C', 'L', 'N', 'K');
inline constexpr uint32_t PAKG = LxoId('P', 'A', 'K', 'G');
inline constexpr uint32_t GRAD = LxoId('G', 'R', 'A', 'D');
inline constexpr uint32_t ITAG = LxoId('I', 'T', 'A', 'G');
inline constexpr uint32_t CHAN = LxoId('C', 'H', 'A', 'N');
inline constexpr uint32_t CHNV = LxoId('C', 'H', 'N', 'V');
inline constexpr uint32_t CHNS = LxoId('C', 'H', 'N', 'S');
inline constexpr uint32_t UCHN = LxoId('U', 'C', 'H', 'N');
// envelope sub-chunks
inline constexpr uint32_t PRE_ = LxoId('P', 'R', 'E', ' ');
inline constexpr uint32_t POST = LxoId('P', 'O', 'S', 'T');
inline constexpr uint32_t KEY_ = LxoId('K', 'E', 'Y', ' ');
inline constexpr uint32_t IKEY = LxoId('I', 'K', 'E', 'Y');
inline constexpr uint32_t TANI = LxoId('T', 'A', 'N', 'I');
inline constexpr uint32_t TANO = LxoId('T', 'A', 'N', 'O');
inline constexpr uint32_t FLAG = LxoId('F', 'L', 'A', 'G');
// action sub-chunks
inline constexpr uint32_t AANI = LxoId('A', 'A', 'N', 'I');
inline constexpr uint32_t AAIT = LxoId('A', 'A', 'I', 'T');
inline constexpr uint32_t AASE = LxoId('A', 'A', 'S', 'E');
// polygon, vertex map and tag types
inline constexpr uint32_t FACE = LxoId('F', 'A', 'C', 'E');
inline constexpr uint32_t SUBD = LxoId('S', 'U', 'B', 'D');
inline constexpr uint32_t PSUB = LxoId('P', 'S', 'U', 'B');
inline constexpr uint32_t CURV = LxoId('C', 'U', 'R', 'V');
inline constexpr uint32_t BEZR = LxoId('B', 'E', 'Z', 'R');
inline constexpr uint32_t HCRV = LxoId('H', 'C', 'R', 'V');
inline constexpr uint32_t BCRV = LxoId('B', 'C', 'R', 'V');
inline constexpr uint32_t LINE = LxoId('L', 'I', 'N', 'E');
inline constexpr uint32_t TXUV = LxoId('T', 'X', 'U', 'V');
inline constexpr uint32_t NORM = LxoId('N', 'O', 'R', 'M');
inline constexpr uint32_t RGB_ = LxoId('R', 'G', 'B', ' ');
inline constexpr uint32_t RGBA = LxoId('R', 'G', 'B', 'A');
inline constexpr uint32_t MATR = LxoId('M', 'A', 'T', 'R');
} // namespace lxoid

// A mesh LAYR chunk with every word kept, so that it can be written back unchanged.
struct LxoLayerInfo {
    uint16_t index = 0;
    uint16_t flags = 0;
    float pivot[3] = {0, 0, 0};
    std::string name;         // at most 255 characters are kept
    uint16_t parent = 0xFFFF; // legacy parent index (0xFFFF: none)
    uint32_t block5[5] = {};  // subdivision level, curve angle, scale pivot (F4 bit patterns)
    uint32_t block6[6] = {};  // unused by the application
    uint32_t referenceID = 0; // the mesh item this layer belongs to
    uint16_t tail[4] = {};    // spline patch level, then reserved

    float SubdivisionLevel() const;
    float CurveAngle() const;
    float ScalePivot(int axis) const;
    uint16_t SplineLevel() const { return tail[0]; }
    static constexpr size_t kMaxName = 255;
};

// One decoded channel value (CHAN, CHNV elements, action CHAN).
struct LxoChannelValue {
    uint16_t type = 0; // the type word as stored
    int kind = 0;      // 1 integer, 2 float, 3 string, 4 variable-length data
    int32_t i = 0;
    float f = 0;
    char text[1024] = {};          // kind 3; longer strings are cut to 1023 characters
    const uint8_t* data = nullptr; // kind 4: valid while the handler runs
    uint32_t dataSize = 0;
};

// Kind of a channel type word; 0 for an unsupported one.
inline int LxoChannelKind(uint16_t type) {
    if ((type & 0xFFDF) == 0x4E56) return 2; // a float without interpolation information
    const int k = type & 0x0F;
    return (k >= 1 && k <= 4) ? k : 0;
}
