#pragma once
// Turns a parsed trueSpace file into a host scene: the object tree from parent
// handles (dangling handles and cycles fall back to the top level), local
// transforms from the absolute matrices, holes bridged into their outer faces,
// per-mesh Mat1 materials, texture files looked up beside the model.
#include <memory>

#include "formats/classic/TruespaceModel.h"
#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XString.h"

namespace tsio {

// `folder` is the model's folder (with its trailing separator), empty for memory reads.
std::unique_ptr<C3DScene> BuildScene(File& file, const CXStringW& folder, CSceneImportOptions& options);

// Where a texture named in the file is: the path as given when it exists, else the file
// name beside the model (Windows paths are split at either slash). Empty when neither exists.
CXStringW FindTexture(const std::string& name, const CXStringW& folder);

// The host unit and scale (centimetres per file unit) of a trueSpace unit code.
void UnitFromCode(int code, int& unit, double& scale);
// The code the writer puts in Unit chunks for a host unit (2, metres, when it has none).
int CodeFromUnit(int unit);

} // namespace tsio
