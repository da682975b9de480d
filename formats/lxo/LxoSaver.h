#pragma once
// Writes an export plan (LxoWriteData) as an LXO file in the order Modo itself writes:
// VRSN, TAGS, CHNM, each mesh layer with its data, the items, then the scene and setup
// actions (the setup action repeats the items' channel values, as Modo's files do).
#include <cstdint>

#include "formats/lxo/LxoWriteData.h"
#include "formats/lxo/LxoWriter.h"

// Everything after the FORM header; returns the first writer error (LXO_OK when none).
uint32_t LxoSaveScene(LxoWriter& writer, const LxoWriteData& data);

class C3DScene;

struct LxoUpdateResult {
    uint32_t read = 0;  // the source walk's result
    uint32_t write = 0; // the destination's first error
    int meshes = 0;     // mesh layers the scene offered a mesh for
    int replaced = 0;   // layers written from the scene
};

// Replaces the mesh layers of `src` with the scene's meshes, every other chunk copied as
// it is, into `dst`. A mesh item takes the scene's mesh node of the same name, else the
// next unclaimed one in scene order; faces keep their material when the file's tag table
// names it. `dst` must exist already: it is opened, never created, so that a temporary
// name removed by someone else in the meantime is not made again.
LxoUpdateResult LxoUpdateFile(const char* src, const char* dst, const C3DScene& scene);

// Writes the plan as a whole file at `path` (created or truncated). LXO_ERR_NO_FILE when
// the file cannot be opened, else the first write error.
uint32_t LxoSaveFile(const char* path, const LxoWriteData& data);
