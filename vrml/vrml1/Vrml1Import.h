#pragma once
// Conversion of a parsed VRML 1.0 / Inventor tree into a host scene. The file is a
// program: a depth-first walk carries the traversal state, property nodes change it and
// shapes are built with the state at their place. Separators (and TransformSeparators,
// WWWAnchors, inlined files) become scene nodes holding the transform accumulated since
// the enclosing one; each shape becomes a node of its own under it. USE re-walks the
// node, so the geometry made is capped against the size of the input.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "plugin/host/Options.h"
#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "vrml/vrml1/QvFields.h"
#include "vrml/vrml1/QvState.h"

class QvNode;
class QvIndexedShape;
class QvVertexProperty;
class QvVertexShape;
struct QvFileContents;

namespace vrml1import {

struct Limits {
    int maxInlineDepth = 8;            // inlined files within inlined files
    int maxInlineLoads = 64;           // files inlined per import
    uint64_t baseElements = 64u << 20; // geometry floats and indices made: base + factor x input bytes
    uint64_t elementFactor = 16;
    uint64_t baseNodes = 65536;          // scene nodes made: base + input bytes / 8
    int maxArrayCopies = 4096;           // copies one Inventor Array node makes
    uint64_t baseImageBytes = 64u << 20; // texture image bytes kept by materials: base + factor x input
    uint64_t imageFactor = 4;
};

// Object custom-data ID that carries a WWWAnchor's URL on its scene node.
constexpr uint32_t kLinkID = 0x4C494E4B; // 'LINK'
// Material custom-data bag of a texture image given in the file itself (Texture2 image
// without a filename): its size, components (1-4), wrap bits (1 repeat S, 2 repeat T)
// and pixel bytes, bottom row first as in the file.
// Object custom data: an AsciiText node's lines (string array); a light's scope, the ID of
// the scene node whose shapes it lights (0: the whole scene).
constexpr uint32_t kTextID = 0x54455854;       // 'TEXT'
constexpr uint32_t kLightScopeID = 0x53434F50; // 'SCOP'
constexpr uint32_t kImageID = 0x494D4147;      // 'IMAG'
constexpr uint32_t kImageWidth = 1, kImageHeight = 2, kImageComponents = 3, kImageWrap = 4, kImagePixels = 5;

class CVrml1Converter {
public:
    // `file`: the file as the user named it (UTF-8; the base of inlined and texture paths),
    // empty for a read from memory (nothing is inlined then).
    CVrml1Converter(C3DScene& scene, const CFileParser& parser, CIoOptions& log, std::string file, uint64_t inputBytes,
                    Limits limits = {});
    ~CVrml1Converter();
    CVrml1Converter(const CVrml1Converter&) = delete;
    CVrml1Converter& operator=(const CVrml1Converter&) = delete;

    void Convert(const QvFileContents& contents);
    bool WasCancelled() const { return m_cancelled; }
    // The traversal state (for its debug listing).
    const QvState& State() const { return m_state; }

private:
    struct Frame {
        C3DSceneNode* node;      // host node shapes go under (null: the scene's top level)
        C4x4Matrix world;        // that node's world transform
        const std::string* file; // the file being walked (base of relative paths)
        C3DSceneNode* scope;     // the node of the Separator the walk is in (lights' reach)
    };
    struct Corners;

    // `once`: nothing will walk `n` again (no USE of it or of a node above it, no Array
    // above it), so a Separator's part of the tree is freed when its walk ends.
    void Walk(QvNode* n, Frame& f, int depth, bool once = false);
    void WalkChildren(QvNode* n, Frame& f, int depth, bool once = false);
    // A new scene node under the frame's node with the transform accumulated since it.
    C3DSceneNode* OpenNode(Frame& f, const std::string& name, Frame& inner);
    void CloseNode(C3DSceneNode* n);
    void ApplyTransform(const C4x4Matrix& m);
    const C4x4Matrix& Relative() const;

    void BuildShape(QvNode* shape, Frame& f);
    void BuildPrimitive(QvNode* shape, Frame& f);
    void BuildCamera(QvNode* cam, Frame& f);
    void BuildLight(QvNode* light, Frame& f);
    void BuildInline(QvNode* n, Frame& f, int depth);
    void BuildMesh(QvNode* shape, const Corners& c, Frame& f);
    void BuildLines(QvNode* shape, const Corners& c, Frame& f);
    void AddNormals(C3DObject& obj, const QvNode* shape, const Corners& c, const QvVertexProperty* own);
    void BuildPoints(QvNode* shape, Frame& f);
    C3DSceneNode* AttachShape(QvNode* shape, C3DBaseObject* object, Frame& f);
    static const QvVertexProperty* OwnVertices(const QvNode* shape);
    const QvMFVec3f& Coordinates(const QvVertexProperty* own) const;

    // The material of index `i` under the current state (one host material per combination).
    uint32_t Material(int i);
    bool MaterialColors(std::vector<float>& rgb) const;
    bool Textured() const;
    CXStringW ResolvePath(const std::string& ref, const std::string& base) const;

    bool Charge(uint64_t elements);
    bool Stopped() const { return m_stopped || m_cancelled; }
    void Stop(const wchar_t* why);
    void Log(const CXStringW& text);

    C3DScene& m_scene;
    const CFileParser& m_parser;
    CIoOptions& m_log;
    std::string m_rootFile;
    std::string m_rootFolder;
    uint64_t m_inputBytes;
    Limits m_limits;
    QvState m_state;
    uint64_t m_elements = 0;
    uint64_t m_nodes = 0;
    bool m_stopped = false;
    bool m_cancelled = false;
    int m_inlineLoads = 0;
    std::vector<std::string> m_inlineStack; // canonical paths being walked
    std::vector<std::unique_ptr<std::string>> m_files;
    std::vector<std::unique_ptr<QvFileContents>> m_inlined;
    // Host materials by (Material, BaseColor or PackedColor, Texture2) node serials and index.
    std::map<std::tuple<uint64_t, uint64_t, uint64_t, int>, uint32_t> m_materials;
    uint64_t m_droppedFaces = 0;
    const std::string* m_currentFile = nullptr; // the file whose nodes are being walked
    bool m_reportedDepth = false;
    uint64_t m_imageBytes = 0;
    bool m_reportedImages = false;
};

} // namespace vrml1import
