#pragma once
// The intermediate node kinds: children of groups, geometry, colour, textures,
// lights and the indexed sets. They mark kinds for the down-casts; Group and the
// light and indexed-set bases also declare the interface their families share.
#include "vrml/vrml97/VrmlNode.h"

class VrmlNodeChild : public VrmlNode {
    VRML_NODE_KIND(VrmlNodeChild, Child, VrmlNode)
};

class VrmlNodeGeometry : public VrmlNode {
    VRML_NODE_KIND(VrmlNodeGeometry, Geometry, VrmlNode)
};

class VrmlNodeTexture : public VrmlNode {
    VRML_NODE_KIND(VrmlNodeTexture, Texture, VrmlNode)
};

class VrmlNodeColor : public VrmlNode {
    VRML_NODE(VrmlNodeColor, Color, VrmlNode)
    VrmlMFColor d_color;
};

class VrmlNodeLight : public VrmlNodeChild {
    VRML_NODE_KIND(VrmlNodeLight, Light, VrmlNodeChild)
    void addToScene(VrmlScene* scene, const char* relativeUrl) override;
    VrmlSFFloat d_ambientIntensity{0.0f};
    VrmlSFColor d_color{1, 1, 1};
    VrmlSFFloat d_intensity{1.0f};
    VrmlSFBool d_on{true};
};

class VrmlNodeGroup : public VrmlNodeChild {
    VRML_NODE(VrmlNodeGroup, Group, VrmlNodeChild)
    void addToScene(VrmlScene* scene, const char* relativeUrl) override;
    void accumTrans(const double* parentTransform) override;
    void eventIn(double timeStamp, const char* eventName, const VrmlField* value) override;
    void addChildren(const VrmlMFNode& children);
    void removeChildren(const VrmlMFNode& children);
    void removeChildren();
    size_t size() const { return d_children.size(); }
    VrmlNode* child(size_t i) const { return d_children[i]; }
    const VrmlMFNode& children() const { return d_children; }
    // Only grouping nodes and PROTO instances of them may be children.
    static bool acceptsAsChild(VrmlNode* n);
    void setRelative(const char* url) { d_relative = url ? url : ""; }

    VrmlMFNode d_children;
    VrmlSFVec3f d_bboxCenter;
    VrmlSFVec3f d_bboxSize{-1, -1, -1};

protected:
    std::string d_relative;
    double d_parentTransform[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
};

class VrmlNodeIndexedSet : public VrmlNodeGeometry {
    VRML_NODE_KIND(VrmlNodeIndexedSet, IndexedSet, VrmlNodeGeometry)
    VrmlSFNode d_color;
    VrmlSFNode d_coord;
    VrmlMFInt d_colorIndex;
    VrmlSFBool d_colorPerVertex{true};
    VrmlMFInt d_coordIndex;
};
