#pragma once
// Lightwave scenes (.lws): items, hierarchy, motion, cameras and lights, with the objects
// loaded from the LWO files the scene names (LightwaveScene.* does the work).
#include <cstdint>
#include <span>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CReadContext;

class CLightwaveSceneIo : public C3DParser {
public:
    explicit CLightwaveSceneIo(CFileIo& io);
    ~CLightwaveSceneIo() override;

    C3DScene* Read(const CXStringW& path, CSceneImportOptions& options) override;
    // Reads scene text held in memory; object files are looked for around `folder` (empty: none).
    C3DScene* ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& folder = {});

private:
    C3DScene* ReadBytes(std::span<const uint8_t> data, CReadContext& ctx, const CXStringW& folder);
    CHashMap<uint32_t, C3DSceneNode*> m_nodesByID{23};
    CHashMap<CXStringW, C3DSceneNode*> m_nodesByName{23};
};
