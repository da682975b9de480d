#pragma once
// Small LXO files built with our writer, and a raw chunk lister that does not use the
// reader (so the reader is checked against something independent).
#include <cstdint>
#include <string>
#include <vector>

#include "formats/lxo/LxoWriter.h"

namespace lxotest {

struct RawChunk {
    uint32_t id;
    uint32_t size;
    std::string payload;
};

// Top-level chunks after FORM/LXOB, straight from the bytes.
std::vector<RawChunk> ListChunks(const std::string& bytes);
// Sub-chunks of an ITEM/ACTN/ENVL payload, after `headerBytes` of header.
std::vector<RawChunk> ListSubChunks(const std::string& payload, size_t headerBytes);
std::string IdText(uint32_t id);

// A file with one chunk of every kind the dump tests look at.
void WriteDumpSample(const std::string& path);
// Two mesh layers (reference IDs 7 and 9), each with PNTS/BBOX/VMPA/VMAP/POLS/PTAG,
// then a CHNM and a mesh ITEM per layer.
void WriteTwoLayers(const std::string& path);

// Big-endian helpers for hand-made bytes.
std::string U4(uint32_t v);
std::string U2(uint16_t v);
std::string F4(float f);
std::string Chunk(const char* id, const std::string& payload);
std::string Sub(const char* id, const std::string& payload);
std::string Form(const std::string& chunks);

} // namespace lxotest
