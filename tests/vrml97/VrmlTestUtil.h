#pragma once
// Helpers for the VRML97 engine tests: parse text, capture the engine's stderr.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "vrml/vrml97/VrmlNamespace.h"
#include "vrml/vrml97/VrmlNode.h"
#include "vrml/vrml97/VrmlScene.h"

struct Parsed {
    std::shared_ptr<VrmlNamespace> ns = std::make_shared<VrmlNamespace>();
    std::unique_ptr<VrmlMFNode> nodes;
    std::string diagnostics;
    size_t size() const { return nodes ? nodes->size() : 0; }
    VrmlNode* operator[](size_t i) const { return (*nodes)[i]; }
};

inline Parsed ParseVrml(const std::string& text) {
    Parsed p;
    testing::internal::CaptureStderr();
    p.nodes.reset(VrmlScene::readString(text.data(), text.size(), p.ns.get()));
    p.diagnostics = testing::internal::GetCapturedStderr();
    return p;
}

// Hands the parsed nodes and their namespace to `scene` as its world.
inline void AdoptWorld(VrmlScene& scene, Parsed& p) {
    std::unique_ptr<VrmlMFNode> nodes = std::move(p.nodes);
    scene.replaceWorld(*nodes, p.ns, nullptr, nullptr);
}

inline std::string PrintField(const VrmlField& f) {
    std::ostringstream os;
    f.print(os);
    return os.str();
}

// Runs fn and returns what the engine wrote to stderr meanwhile.
template <class Fn> std::string CaptureDiagnostics(Fn fn) {
    testing::internal::CaptureStderr();
    fn();
    return testing::internal::GetCapturedStderr();
}
