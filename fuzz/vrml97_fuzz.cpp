// Fuzz target for the VRML97 engine: parse a world from memory, put it into a
// scene (PROTO instantiation, binding), write it back and count its nodes.
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "vrml/vrml97/Doc.h"
#include "vrml/vrml97/System.h"
#include "vrml/vrml97/VrmlNamespace.h"
#include "vrml/vrml97/VrmlNodeKinds.h"
#include "vrml/vrml97/VrmlScene.h"
#include "vrml/vrml97/VrmlStats.h"

namespace {
// Diagnostics would swamp the fuzzer's output.
class QuietSystem : public System {
public:
    void error(const char*, ...) override {}
    void warn(const char*, ...) override {}
    void inform(const char*, ...) override {}
};
QuietSystem g_quiet;
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    theSystem = &g_quiet;
    Doc::setFileAccess(false);
    auto ns = std::make_shared<VrmlNamespace>();
    VrmlMFNode* nodes = VrmlScene::readString(reinterpret_cast<const char*>(data), size, ns.get());
    if (!nodes) return 0;
    {
        VrmlScene scene;
        scene.replaceWorld(*nodes, ns, nullptr, nullptr);
        delete nodes;
        scene.update(1.0);
        std::ostringstream os;
        scene.save(os);
        std::map<std::string, size_t> counts;
        VrmlCountNodes(scene.root()->children(), counts);
    }
    return 0;
}
