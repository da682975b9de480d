// Grouping, light and indexed-set base behaviour.
#include "vrml/vrml97/VrmlNodeKinds.h"

#include <cstring>

#include "vrml/vrml97/System.h"
#include "vrml/vrml97/VrmlNodeProto.h"
#include "vrml/vrml97/VrmlNodeType.h"
#include "vrml/vrml97/VrmlScene.h"

bool VrmlNodeGroup::acceptsAsChild(VrmlNode* n) {
    // A PROTO instance is a child when its first body node is one (PROTOs
    // built on PROTOs are followed a few levels down).
    for (int level = 0; n && level <= kVrmlMaxProtoNesting; ++level) {
        if (n->asChild()) return true;
        VrmlNodeProto* p = n->asProto();
        if (!p) return false;
        VrmlNode* first = p->firstNode();
        if (first == n) return false;
        n = first;
    }
    return false;
}

void VrmlNodeGroup::addChildren(const VrmlMFNode& children) {
    size_t before = d_children.size();
    for (size_t i = 0; i < children.size(); ++i) {
        VrmlNode* child = children[i];
        if (!child) {
            d_children.add(nullptr);
            continue;
        }
        if (!acceptsAsChild(child)) {
            theSystem->error("Error: Attempt to add a %s node as a child of a %s node.\n", child->type()->getName(),
                             d_type->getName());
            continue;
        }
        if (d_children.contains(child)) continue;
        d_children.add(child);
        if (d_scene) child->addToScene(d_scene, d_relative.c_str());
        child->accumTrans(d_parentTransform);
    }
    if (d_children.size() != before) markModified();
}

void VrmlNodeGroup::removeChildren(const VrmlMFNode& children) {
    size_t before = d_children.size();
    for (size_t i = 0; i < children.size(); ++i)
        if (children[i] && d_children.contains(children[i])) d_children.remove(children[i]);
    if (d_children.size() != before) markModified();
}

void VrmlNodeGroup::removeChildren() {
    if (d_children.size()) markModified();
    d_children.removeAll();
}

void VrmlNodeGroup::eventIn(double timeStamp, const char* eventName, const VrmlField* value) {
    bool add = std::strcmp(eventName, "addChildren") == 0;
    if (add || std::strcmp(eventName, "removeChildren") == 0) {
        const VrmlMFNode* nodes = value ? value->asMFNode() : nullptr;
        if (!nodes) {
            theSystem->error("VrmlNodeGroup.%s %s eventIn invalid field type.\n", name(), eventName);
            return;
        }
        if (add) addChildren(*nodes);
        else removeChildren(*nodes);
        return;
    }
    VrmlNode::eventIn(timeStamp, eventName, value);
}

void VrmlNodeGroup::addToScene(VrmlScene* scene, const char* relativeUrl) {
    theSystem->debug("VrmlNodeGroup::addToScene( %s )\n", relativeUrl ? relativeUrl : "<null>");
    if (d_scene == scene && scene) return;
    d_relative = relativeUrl ? relativeUrl : "";
    d_scene = nullptr; // let the base record the scene and walk the children
    VrmlNode::addToScene(scene, relativeUrl);
}

void VrmlNodeGroup::accumTrans(const double* parentTransform) {
    if (parentTransform) std::memcpy(d_parentTransform, parentTransform, sizeof d_parentTransform);
}

void VrmlNodeLight::addToScene(VrmlScene* scene, const char* relativeUrl) {
    if (scene && d_scene != scene) {
        VrmlNode::addToScene(scene, relativeUrl);
        scene->addToLists(this);
    }
}
