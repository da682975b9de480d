#pragma once
// Export preparation: builds the copy of a scene that a writer's flag word asks
// for (EXPORT_PREP bits, HostTypes.h). The caller's scene is never touched.
#include <cstdint>
#include <memory>

class C3DScene;
class CSceneExportOptions;

// Notes on what the preparation could not do exactly go to the options' log.
std::unique_ptr<C3DScene> PrepareSceneForExport(const C3DScene& scene, uint64_t flags,
                                                CSceneExportOptions* options = nullptr);
