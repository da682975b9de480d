#pragma once
// VRML 1.0 / Inventor node tree. One class per node ("Qv" + the node's name) with its
// fields and the defaults of the VRML 1.0 node reference; group nodes keep children.
// Nodes are reference counted: a DEF'd node used twice is one object. Classes the
// reader does not know must declare their fields ("fields [ SFFloat a, ... ]");
// Inventor classes that are known but carry nothing we import are skipped by braces.
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "vrml/vrml1/QvFields.h"

class QvIn;

enum class QvNodeType : uint8_t {
    Unknown,
    Skipped,
    // groups
    Group,
    Separator,
    Switch,
    TransformSeparator,
    LOD,
    WWWAnchor,
    Array,
    // properties
    Coordinate3,
    Normal,
    TextureCoordinate2,
    Material,
    BaseColor,
    PackedColor,
    MaterialBinding,
    NormalBinding,
    TextureCoordinateBinding,
    ShapeHints,
    Texture2,
    Texture2Transform,
    FontStyle,
    Info,
    Label,
    DrawStyle,
    LightModel,
    Complexity,
    Units,
    VertexProperty,
    // transforms
    Transform,
    Translation,
    Rotation,
    RotationXYZ,
    Scale,
    MatrixTransform,
    ResetTransform,
    // shapes
    Cube,
    Sphere,
    Cone,
    Cylinder,
    IndexedFaceSet,
    IndexedLineSet,
    IndexedTriangleStripSet,
    FaceSet,
    LineSet,
    TriangleStripSet,
    QuadMesh,
    PointSet,
    AsciiText,
    // cameras, lights, external files
    PerspectiveCamera,
    OrthographicCamera,
    DirectionalLight,
    PointLight,
    SpotLight,
    WWWInline,
    File,
};

class QvNode {
public:
    QvNode(QvNodeType type, const char* className);
    virtual ~QvNode();
    QvNode(const QvNode&) = delete;
    QvNode& operator=(const QvNode&) = delete;

    void ref() { ++m_refs; }
    // Releases one reference; nodes that reach zero are deleted without recursion, so
    // long chains of nested nodes cannot exhaust the stack.
    void unref();
    int refs() const { return m_refs; }
    // Unique for the life of the process (addresses are not: nodes freed during an import
    // make room for the nodes of files it inlines).
    uint64_t serial() const { return m_serial; }

    QvNodeType type() const { return m_type; }
    const char* className() const { return m_className; }
    const std::string& getName() const { return m_name; }
    void setName(std::string n) { m_name = std::move(n); }

    QvField* findField(std::string_view name) const;
    struct FieldEntry {
        std::string name;
        QvField* field;
    };
    const std::vector<FieldEntry>& fields() const { return m_fields; }

    // Children (group classes and unknown nodes only).
    virtual bool isGroup() const { return false; }
    const std::vector<QvNode*>& children() const { return m_children; }
    // Lets go of the children (an import done with a part of the tree frees it as it goes).
    void releaseChildren();

    // Reads one node (with DEF and USE); `node` is null at a point where no node starts.
    // The node comes back with one reference for the caller. False after a read error.
    static bool read(QvIn& in, QvNode*& node);
    // Same, when the first name has already been read.
    static bool readAfterName(QvIn& in, const std::string& name, QvNode*& node);
    // A new node of a built-in class (one reference), or null for an unknown class name.
    static QvNode* create(std::string_view className);

protected:
    void addField(const char* name, QvField* f) { m_fields.push_back({name, f}); }
    // Fields by name where a node has an index of them (the first of each name), else null.
    virtual const std::unordered_map<std::string, QvField*>* fieldIndex() const { return nullptr; }
    // Reads "{ fields/children }" after the class name.
    bool readInstance(QvIn& in);
    // Skips a brace-balanced body (known Inventor classes we carry no fields for).
    bool skipInstance(QvIn& in);
    bool readBody(QvIn& in);

    std::vector<FieldEntry> m_fields;
    std::vector<QvNode*> m_children;
    std::vector<QvField*> m_owned; // fields allocated per instance (unknown nodes)

private:
    static bool readUnknown(QvIn& in, const std::string& className, QvNode*& node);
    friend class QvUnknownNode;

    QvNodeType m_type;
    const char* m_className;
    std::string m_name;
    int m_refs = 1;
    uint64_t m_serial;
};

class QvGroup : public QvNode {
public:
    explicit QvGroup(QvNodeType t = QvNodeType::Group, const char* cls = "Group") : QvNode(t, cls) {}
    bool isGroup() const override { return true; }
};

class QvSeparator : public QvGroup {
public:
    explicit QvSeparator(const char* cls = "Separator");
    QvSFEnum renderCulling, boundingBoxCaching, renderCaching, pickCulling;
};
class QvSwitch : public QvGroup {
public:
    QvSwitch();
    QvSFLong whichChild{-1};
};
class QvTransformSeparator : public QvGroup {
public:
    QvTransformSeparator() : QvGroup(QvNodeType::TransformSeparator, "TransformSeparator") {}
};
class QvLOD : public QvGroup {
public:
    explicit QvLOD(const char* cls = "LOD");
    QvMFFloat range;
    QvSFVec3f center;
};
class QvWWWAnchor : public QvGroup {
public:
    QvWWWAnchor();
    QvSFString name, description;
    QvSFEnum map;
};
class QvArray : public QvGroup {
public:
    QvArray();
    QvSFEnum origin;
    QvSFLong numElements1{1}, numElements2{1}, numElements3{1};
    QvSFVec3f separation1{1, 0, 0}, separation2{0, 1, 0}, separation3{0, 0, 1};
};

class QvUnknownNode : public QvGroup {
public:
    explicit QvUnknownNode(std::string className);
    const std::string& getClassName() const { return m_unknownClass; }
    void addDeclaredField(const std::string& name, QvField* f);

protected:
    const std::unordered_map<std::string, QvField*>* fieldIndex() const override { return &m_fieldIndex; }

private:
    std::string m_unknownClass;
    // A file declares an unknown node's fields: any number of them, each value found by name.
    std::unordered_map<std::string, QvField*> m_fieldIndex;
};

class QvCoordinate3 : public QvNode {
public:
    QvCoordinate3();
    QvMFVec3f point{0, 0, 0};
};
class QvNormal : public QvNode {
public:
    QvNormal();
    QvMFVec3f vector;
};
class QvTextureCoordinate2 : public QvNode {
public:
    QvTextureCoordinate2();
    QvMFVec2f point{0, 0};
};
class QvMaterial : public QvNode {
public:
    QvMaterial();
    QvMFColor ambientColor{0.2f, 0.2f, 0.2f}, diffuseColor{0.8f, 0.8f, 0.8f}, specularColor{0, 0, 0},
        emissiveColor{0, 0, 0};
    QvMFFloat shininess{0.2f}, transparency{0};
};
class QvBaseColor : public QvNode {
public:
    QvBaseColor();
    QvMFColor rgb{0.8f, 0.8f, 0.8f};
};
class QvPackedColor : public QvNode {
public:
    QvPackedColor();
    QvMFUInt32 orderedRGBA; // 0xRRGGBBAA
};

enum QvBinding : int32_t {
    QV_BIND_DEFAULT,
    QV_BIND_OVERALL,
    QV_BIND_PER_PART,
    QV_BIND_PER_PART_INDEXED,
    QV_BIND_PER_FACE,
    QV_BIND_PER_FACE_INDEXED,
    QV_BIND_PER_VERTEX,
    QV_BIND_PER_VERTEX_INDEXED,
};
class QvMaterialBinding : public QvNode {
public:
    QvMaterialBinding();
    QvSFEnum value;
};
class QvNormalBinding : public QvNode {
public:
    QvNormalBinding();
    QvSFEnum value;
};
class QvTextureCoordinateBinding : public QvNode {
public:
    QvTextureCoordinateBinding();
    QvSFEnum value;
};

enum QvVertexOrdering : int32_t { QV_UNKNOWN_ORDERING, QV_CLOCKWISE, QV_COUNTERCLOCKWISE };
class QvShapeHints : public QvNode {
public:
    QvShapeHints();
    QvSFEnum vertexOrdering, shapeType, faceType;
    QvSFFloat creaseAngle{0.5f};
};
class QvTexture2 : public QvNode {
public:
    QvTexture2();
    QvSFString filename;
    QvSFImage image;
    QvSFEnum wrapS, wrapT, model;
    QvSFColor blendColor;
};
class QvTexture2Transform : public QvNode {
public:
    QvTexture2Transform();
    QvSFVec2f translation, scaleFactor{1, 1}, center;
    QvSFFloat rotation;
};
class QvFontStyle : public QvNode {
public:
    QvFontStyle();
    QvSFFloat size{10};
    QvSFEnum family;
    QvSFBitMask style;
};
class QvInfo : public QvNode {
public:
    QvInfo();
    QvSFString string{"<Undefined info>"};
};
class QvLabel : public QvNode {
public:
    QvLabel();
    QvSFString label{"<Undefined label>"};
};
class QvDrawStyle : public QvNode {
public:
    QvDrawStyle();
    QvSFEnum style;
    QvSFFloat pointSize, lineWidth;
    QvSFUShort linePattern{0xFFFF};
};
class QvLightModel : public QvNode {
public:
    QvLightModel();
    QvSFEnum model;
};
class QvComplexity : public QvNode {
public:
    QvComplexity();
    QvSFEnum type;
    QvSFFloat value{0.5f}, textureQuality{0.5f};
};
class QvUnits : public QvNode {
public:
    QvUnits();
    QvSFEnum units;
};
class QvVertexProperty : public QvNode {
public:
    QvVertexProperty();
    QvMFVec3f vertex, normal;
    QvMFVec2f texCoord;
    QvMFUInt32 orderedRGBA;
    QvSFEnum materialBinding, normalBinding;
};

class QvTransform : public QvNode {
public:
    QvTransform();
    QvSFVec3f translation, scaleFactor{1, 1, 1}, center;
    QvSFRotation rotation, scaleOrientation;
};
class QvTranslation : public QvNode {
public:
    QvTranslation();
    QvSFVec3f translation;
};
class QvRotation : public QvNode {
public:
    QvRotation();
    QvSFRotation rotation;
};
class QvRotationXYZ : public QvNode {
public:
    QvRotationXYZ();
    QvSFEnum axis;
    QvSFFloat angle;
};
class QvScale : public QvNode {
public:
    QvScale();
    QvSFVec3f scaleFactor{1, 1, 1};
};
class QvMatrixTransform : public QvNode {
public:
    QvMatrixTransform();
    QvSFMatrix matrix;
};
class QvResetTransform : public QvNode {
public:
    QvResetTransform();
    QvSFBitMask whatToReset;
};

class QvCube : public QvNode {
public:
    QvCube();
    QvSFFloat width{2}, height{2}, depth{2};
};
class QvSphere : public QvNode {
public:
    QvSphere();
    QvSFFloat radius{1};
};
enum : int32_t { QV_CONE_SIDES = 1, QV_CONE_BOTTOM = 2 };
class QvCone : public QvNode {
public:
    QvCone();
    QvSFBitMask parts;
    QvSFFloat bottomRadius{1}, height{2};
};
enum : int32_t { QV_CYL_SIDES = 1, QV_CYL_TOP = 2, QV_CYL_BOTTOM = 4 };
class QvCylinder : public QvNode {
public:
    QvCylinder();
    QvSFBitMask parts;
    QvSFFloat radius{1}, height{2};
};

// Shapes that take vertices from the state (or their own vertexProperty).
class QvVertexShape : public QvNode {
public:
    QvVertexShape(QvNodeType t, const char* cls);
    QvSFNode vertexProperty;
};
class QvIndexedShape : public QvVertexShape {
public:
    QvIndexedShape(QvNodeType t, const char* cls);
    QvMFLong coordIndex{0}, materialIndex{-1}, normalIndex{-1}, textureCoordIndex{-1};
};
class QvIndexedFaceSet : public QvIndexedShape {
public:
    QvIndexedFaceSet() : QvIndexedShape(QvNodeType::IndexedFaceSet, "IndexedFaceSet") {}
};
class QvIndexedLineSet : public QvIndexedShape {
public:
    QvIndexedLineSet() : QvIndexedShape(QvNodeType::IndexedLineSet, "IndexedLineSet") {}
};
class QvIndexedTriangleStripSet : public QvIndexedShape {
public:
    QvIndexedTriangleStripSet() : QvIndexedShape(QvNodeType::IndexedTriangleStripSet, "IndexedTriangleStripSet") {}
};
class QvNonIndexedShape : public QvVertexShape {
public:
    QvNonIndexedShape(QvNodeType t, const char* cls);
    QvSFLong startIndex{0};
    QvMFLong numVertices{-1};
};
class QvFaceSet : public QvNonIndexedShape {
public:
    QvFaceSet() : QvNonIndexedShape(QvNodeType::FaceSet, "FaceSet") {}
};
class QvLineSet : public QvNonIndexedShape {
public:
    QvLineSet() : QvNonIndexedShape(QvNodeType::LineSet, "LineSet") {}
};
class QvTriangleStripSet : public QvNonIndexedShape {
public:
    QvTriangleStripSet() : QvNonIndexedShape(QvNodeType::TriangleStripSet, "TriangleStripSet") {}
};
class QvQuadMesh : public QvVertexShape {
public:
    QvQuadMesh();
    QvSFLong startIndex{0}, verticesPerColumn{1}, verticesPerRow{1};
};
class QvPointSet : public QvVertexShape {
public:
    QvPointSet();
    QvSFLong startIndex{0}, numPoints{-1};
};
class QvAsciiText : public QvNode {
public:
    QvAsciiText();
    QvMFString string;
    QvSFFloat spacing{1};
    QvSFEnum justification;
    QvMFFloat width;
};

class QvCamera : public QvNode {
public:
    QvCamera(QvNodeType t, const char* cls);
    QvSFVec3f position{0, 0, 1};
    QvSFRotation orientation;
    QvSFFloat focalDistance{5}, nearDistance{1}, farDistance{10}, aspectRatio{1};
    QvSFEnum viewportMapping;
};
class QvPerspectiveCamera : public QvCamera {
public:
    QvPerspectiveCamera();
    QvSFFloat heightAngle{0.785398f};
};
class QvOrthographicCamera : public QvCamera {
public:
    QvOrthographicCamera();
    QvSFFloat height{2};
};
class QvLight : public QvNode {
public:
    QvLight(QvNodeType t, const char* cls);
    QvSFBool on{true};
    QvSFFloat intensity{1};
    QvSFColor color{1, 1, 1};
};
class QvDirectionalLight : public QvLight {
public:
    QvDirectionalLight();
    QvSFVec3f direction{0, 0, -1};
};
class QvPointLight : public QvLight {
public:
    QvPointLight();
    QvSFVec3f location{0, 0, 1};
};
class QvSpotLight : public QvLight {
public:
    QvSpotLight();
    QvSFVec3f location{0, 0, 1}, direction{0, 0, -1};
    QvSFFloat dropOffRate{0}, cutOffAngle{0.785398f};
};
class QvWWWInline : public QvNode {
public:
    QvWWWInline();
    QvSFString name;
    QvSFVec3f bboxSize, bboxCenter;
};
class QvFile : public QvNode {
public:
    QvFile();
    QvSFString name;
};

// The nodes of a whole file: every top-level node, in order (one reference each).
struct QvFileContents {
    std::vector<QvNode*> nodes;
    QvFileContents() = default;
    QvFileContents(const QvFileContents&) = delete;
    QvFileContents& operator=(const QvFileContents&) = delete;
    ~QvFileContents();
};
// Reads the header and every node up to the end; false after a read error.
bool QvReadFile(QvIn& in, QvFileContents& out);
