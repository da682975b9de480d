#pragma once
// The material part of a 3D Studio file: one 0xAFFF chunk per material, with
// colour chunks (float, gamma 24-bit and linear 24-bit), percentage chunks and
// up to eight map slots, each with a map part and a mask part. Only the diffuse
// and opacity maps become scene maps; the rest is parsed and dropped.
#include <cstdint>
#include <string>

#include "plugin/host/BinaryCursor.h"

class C3DScene;
class C3DMaterial;

// Map or mask part of a slot, with the defaults a fresh part gets.
struct C3DSMapPart {
    std::string fileName;
    uint16_t tiling = 0;
    float blur = 0.1f;
    float uScale = 1.0f, vScale = 1.0f;
    float uOffset = 0.0f, vOffset = 0.0f;
    // No rotation chunk means an unrotated map.
    float rotSin = 0.0f, rotCos = 1.0f;
    uint8_t tints[5][3] = {};
};

struct C3DSMapSlot {
    bool present = false;
    uint32_t strength = 100;
    C3DSMapPart map, mask;
};

// Working record of one 0xAFFF chunk.
struct C3DSMaterialRecord {
    std::string name;
    uint8_t ambient[3] = {}, diffuse[3] = {}, specular[3] = {};
    int16_t transparency = 0;
    int16_t shininess = 50;
    C3DSMapSlot slots[8];
};

// Slot of a map (or, with isMask set, mask) chunk ID; -1 for other IDs.
// The masks of slots 4 and 5 are crossed in files (0xA346 is slot 5, 0xA348 slot 4).
int StudioMapSlot(uint16_t chunkID, bool& isMask);

// Parses the sub-chunks of a material chunk (payload cursor). False when the
// chunk is damaged (a bad sub-chunk size, a short read or an over-long string);
// `cancelled` is polled before each sub-chunk and makes the parse fail.
class C3DParser;
bool ParseStudioMaterial(CBinaryCursor& payload, C3DSMaterialRecord& rec, const C3DParser& parser);

// Creates the scene material of a record (CreateNewMaterial, colours, factors,
// the diffuse and opacity maps with their placement) and returns it.
// `uvChannel` is the channel ID the reader gives every mesh's coordinates.
C3DMaterial* BuildStudioMaterial(C3DScene& scene, const C3DSMaterialRecord& rec, int32_t uvChannel);

// Longest string the format accepts, without its NUL.
constexpr size_t k3DSMaxString = 63;
