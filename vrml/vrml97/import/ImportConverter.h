#pragma once
// Conversion of a loaded VRML97 world into a host scene: grouping nodes become
// scene nodes with C3DGroup objects (Transforms with a MATR key), Shapes become
// meshes, curves or primitives with a material, Viewpoints cameras, lights host
// lights, and local Inline worlds are read in as they are met. Every walk is
// bounded: nesting depth, host nodes made, nodes visited and geometry produced
// are capped against the size of the input (DEF/USE and PROTO explosions), and
// each cap that trips is reported in the import log.
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "plugin/host/Options.h"
#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"

class VrmlNode;
class VrmlNodeInline;
class VrmlNodeShape;
class VrmlNodeTransform;
class VrmlNodeViewpoint;
class VrmlNodeLight;

namespace vrml97import {

struct ImportLimits {
    int maxDepth = 1200;        // nesting of grouping nodes, PROTO bodies and Inlines
    int maxInlineDepth = 8;     // Inline worlds within Inline worlds
    int maxInlineLoads = 256;   // Inline files read per import
    uint64_t baseNodes = 65536; // host nodes: base + input bytes / nodeDivisor ...
    uint64_t nodeDivisor = 16;
    uint64_t maxNodes = 4u << 20;    // ... but never more than this
    uint64_t baseVisits = 32u << 20; // child entries walked: base + visitFactor x input bytes
    uint64_t visitFactor = 32;
    uint64_t baseElements = 128u << 20; // geometry floats and indices: base + elementFactor x input bytes
    uint64_t elementFactor = 16;
};

// A texture the conversion referenced, with the names of its placement and file records.
struct TextureEntry {
    CXStringW file;
    CXStringW placement;
    CXStringW record;
};

class CVrml97Converter {
public:
    // worldFile: the world as the user named it (UTF-8; the base of Inline URLs);
    // inputBytes: the size of what was parsed (the caps scale with it).
    CVrml97Converter(C3DScene& scene, const CFileParser& parser, CIoOptions& log, std::string worldFile,
                     uint64_t inputBytes, ImportLimits limits = {});
    ~CVrml97Converter();
    CVrml97Converter(const CVrml97Converter&) = delete;
    CVrml97Converter& operator=(const CVrml97Converter&) = delete;

    // Converts the world's root group into the scene's top level.
    void ConvertRoot(VrmlNode* root);
    // Writes the summary of what was left out into the log.
    void FlushReport();

    bool WasCancelled() const { return m_cancelled; }
    bool WasTruncated() const { return m_truncated; }
    uint64_t NodesMade() const { return m_nodes; }
    const std::vector<TextureEntry>& Textures() const { return m_textures; }

private:
    struct InlineFrame {
        const InlineFrame* parent;
        std::string file;      // the world file, as resolved (the base of its Inline URLs)
        std::string canonical; // for include-cycle checks
        int depth;
    };

    void ConvertGroup(C3DSceneNode* parent, VrmlNode* node, const CXStringW& parentPath, const InlineFrame* frame,
                      int depth);
    void ConvertChild(C3DSceneNode* parent, VrmlNode* child, const CXStringW& path, const InlineFrame* frame,
                      int depth);
    void ConvertShape(C3DSceneNode* node, VrmlNodeShape& shape, const CXStringW& path);
    void ConvertViewpoint(C3DSceneNode* parent, VrmlNodeViewpoint& vp);
    void ConvertLight(C3DSceneNode* parent, VrmlNode& light);
    uint32_t ConvertMaterial(VrmlNode* appearance);
    std::unique_ptr<C3DBaseObject> ConvertGeometry(VrmlNode* geometry, uint32_t material);
    const InlineFrame* LoadInline(VrmlNodeInline& inl, const InlineFrame* frame);

    C3DSceneNode* AddNode(C3DSceneNode* parent, C3DBaseObject* object);
    CXStringW NodeName(VrmlNode& node);
    bool Charge(uint64_t elements);
    void Stop(const wchar_t* why);
    bool Stopped() const { return m_cancelled || m_truncated; }
    uint64_t NodeCap() const;
    void Log(const CXStringW& text);

    C3DScene& m_scene;
    const CFileParser& m_parser;
    CIoOptions& m_log;
    ImportLimits m_limits;
    uint64_t m_inputBytes;
    std::unique_ptr<InlineFrame> m_rootFrame;
    std::unordered_map<VrmlNode*, std::unique_ptr<InlineFrame>> m_inlineFrames;
    // Geometry already built, by VRML node: a USEd geometry is copied, not rebuilt.
    std::unordered_map<VrmlNode*, const C3DBaseObject*> m_built;
    std::vector<TextureEntry> m_textures;
    uint64_t m_nodes = 0, m_visits = 0, m_elements = 0;
    int m_inlineLoads = 0;
    bool m_cancelled = false, m_truncated = false;
    bool m_depthReported = false, m_inlineDepthReported = false;
    // Counts for the closing report.
    int m_skippedFaces = 0, m_droppedColors = 0, m_droppedTexCoords = 0, m_emptyGeometry = 0;
};

} // namespace vrml97import
