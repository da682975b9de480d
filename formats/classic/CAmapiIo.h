#pragma once
// Amapi (.a3d) files: big-endian tagged blocks. "BLOK" blocks at the top, of which
// "SHAP" holds one shape as a run of "blok" sub-blocks ended by a size-0 marker.
// Shapes nest through "grup" (children follow a count) and "ctrl" (a nested shape
// closed by an "eof " marker, which also ends the shape around it).
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "plugin/host/BinaryCursor.h"
#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CAmapiIo : public C3DParser {
public:
    explicit CAmapiIo(CFileIo& io);
    ~CAmapiIo() override;

    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    // Reads a file image held in memory; same outcome and reporting as Read.
    C3DScene* ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options);
    C3DScene* ReadMemory(const void* data, size_t size, CSceneImportOptions& options) {
        return ReadMemory({static_cast<const uint8_t*>(data), data ? size : 0}, options);
    }

    // Deepest nesting of "grup" and "ctrl" shapes that is read; deeper ones are skipped.
    static constexpr int kMaxDepth = 64;

private:
    struct ShapeEnd {
        bool marker = false; // ended on a size-0 sub-block
        bool error = false;  // an unknown sub-block type was met
        bool failed = false; // a tag, type or size could not be read
    };
    C3DScene* ReadFile(IoFile& file, CSceneImportOptions& options);
    // Reads one shape from `cur`; returns the node made for it (not yet in the scene) or null.
    std::unique_ptr<C3DSceneNode> ReadShape(CBinaryCursor& cur, C3DSceneNode* parent, int depth, ShapeEnd& end);
    void AddToScene(C3DSceneNode* parent, std::unique_ptr<C3DSceneNode> node);
    CXStringW DefaultName() const;

    uint32_t m_state = 0;         // the file's version word, kept
    uint32_t m_objectCounter = 1; // numbers nameless shapes; grows with every node added
    C3DScene* m_building = nullptr;
    CSceneImportOptions* m_options = nullptr; // while a read runs: where dropped faces are logged
};
