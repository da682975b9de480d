#pragma once
// LXO copy and update: readers that stream a source file into a new one. The nesting
// context picks, per chunk, between parsing (0), raw copying (2) and dropping (1).
// LxoCopy re-emits CHNM and item headers and copies every other chunk raw; LxoUpdater
// also copies item sub-chunks raw and replaces the geometry of chosen mesh layers.
#include <cstdint>
#include <memory>

#include "formats/lxo/LxoLayerWriter.h"
#include "formats/lxo/LxoReader.h"
#include "formats/lxo/LxoWriter.h"
#include "plugin/host/XArray.h"

class LxoCopy : public LxoReader {
public:
    // Opens the source and creates the destination; when the destination cannot be
    // created the copier keeps no writer (Writer() is null).
    LxoCopy(const char* srcPath, const char* dstPath);
    ~LxoCopy() override; // destroys the writer, which finishes the destination

    LxoWriter* Writer() { return m_writer.get(); }
    uint32_t LastResult() const { return m_lastResult; }

    uint32_t ParseChunk(int context) override;
    uint32_t ParseItemSubChunk(int context) override;
    int NestingContext() override { return 2; }
    uint32_t OnChannelNames(uint32_t count, const LxoStringList& names) override;
    uint32_t OnItemBegin(const char* type, const char* name, uint32_t referenceID) override;
    uint32_t OnItemEnd() override;

    virtual uint32_t CopyChunk();
    virtual uint32_t CopySubChunk();

protected:
    uint32_t Result(uint32_t r) { return m_lastResult = r; }
    // Copies `n` unread bytes of the current chunk (or sub-chunk) through the fixed buffer.
    uint32_t CopyBytes(uint64_t n);

    bool m_ownsWriter = true;
    std::unique_ptr<LxoWriter> m_writer;
    uint32_t m_lastResult = 0;

private:
    std::unique_ptr<LxoChunk> m_item;
    std::unique_ptr<uint8_t[]> m_copyBuf;
};

class LxoUpdater : public LxoCopy {
public:
    LxoUpdater(const char* srcPath, const char* dstPath);

    // Mesh layer reference ID -> the mesh written in its place (owned by the caller).
    CHashMap<uint32_t, const LxoLayerMesh*>& Replacements() { return m_replacements; }

    int NestingContext() override;
    int ItemNestingContext() override { return 2; }
    uint32_t OnLayer(const LxoLayerInfo& layer) override;
    uint32_t OnGroup(uint32_t surfaces, uint32_t referenceWord, uint32_t unused) override;
    // Layers (or groups) whose data was replaced so far.
    int ReplacedCount() const { return m_replacedCount; }

private:
    int m_replacedCount = 0;
    CHashMap<uint32_t, const LxoLayerMesh*> m_replacements{23};
    int64_t m_replacedID = -2; // the layer being replaced, -2 when none
    int64_t m_layerIndex = -2;
    uint32_t m_replacedChunk = 0;
};
