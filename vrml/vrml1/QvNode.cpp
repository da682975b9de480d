#include "vrml/vrml1/QvNode.h"

#include <atomic>
#include <cstring>

#include "vrml/vrml1/QvIn.h"

namespace {

#define QV_TABLE(name, ...)                                                                                            \
    constexpr QvEnumEntry name##Entries[] = {__VA_ARGS__};                                                             \
    constexpr QvEnumTable name{name##Entries, static_cast<int>(sizeof(name##Entries) / sizeof(QvEnumEntry))};

QV_TABLE(kBinding, {"DEFAULT", QV_BIND_DEFAULT}, {"OVERALL", QV_BIND_OVERALL}, {"PER_PART", QV_BIND_PER_PART},
         {"PER_PART_INDEXED", QV_BIND_PER_PART_INDEXED}, {"PER_FACE", QV_BIND_PER_FACE},
         {"PER_FACE_INDEXED", QV_BIND_PER_FACE_INDEXED}, {"PER_VERTEX", QV_BIND_PER_VERTEX},
         {"PER_VERTEX_INDEXED", QV_BIND_PER_VERTEX_INDEXED})
QV_TABLE(kVertexOrdering, {"UNKNOWN_ORDERING", QV_UNKNOWN_ORDERING}, {"CLOCKWISE", QV_CLOCKWISE},
         {"COUNTERCLOCKWISE", QV_COUNTERCLOCKWISE})
QV_TABLE(kShapeType, {"UNKNOWN_SHAPE_TYPE", 0}, {"SOLID", 1})
QV_TABLE(kFaceType, {"UNKNOWN_FACE_TYPE", 0}, {"CONVEX", 1})
QV_TABLE(kWrap, {"REPEAT", 0}, {"CLAMP", 1})
QV_TABLE(kModel, {"MODULATE", 0}, {"DECAL", 1}, {"BLEND", 2}, {"REPLACE", 3})
QV_TABLE(kJustification, {"LEFT", 0}, {"CENTER", 1}, {"RIGHT", 2})
QV_TABLE(kFamily, {"SERIF", 0}, {"SANS", 1}, {"TYPEWRITER", 2})
QV_TABLE(kStyle, {"NONE", 0}, {"BOLD", 1}, {"ITALIC", 2})
QV_TABLE(kConeParts, {"SIDES", QV_CONE_SIDES}, {"BOTTOM", QV_CONE_BOTTOM}, {"ALL", QV_CONE_SIDES | QV_CONE_BOTTOM})
QV_TABLE(kCylinderParts, {"SIDES", QV_CYL_SIDES}, {"TOP", QV_CYL_TOP}, {"BOTTOM", QV_CYL_BOTTOM},
         {"ALL", QV_CYL_SIDES | QV_CYL_TOP | QV_CYL_BOTTOM})
QV_TABLE(kDrawStyle, {"FILLED", 0}, {"LINES", 1}, {"POINTS", 2}, {"INVISIBLE", 3})
QV_TABLE(kLightModel, {"BASE_COLOR", 0}, {"PHONG", 1})
QV_TABLE(kCulling, {"ON", 0}, {"OFF", 1}, {"AUTO", 2})
QV_TABLE(kAxis, {"X", 0}, {"Y", 1}, {"Z", 2})
QV_TABLE(kComplexity, {"OBJECT_SPACE", 0}, {"SCREEN_SPACE", 1}, {"BOUNDING_BOX", 2})
QV_TABLE(kUnits, {"METERS", 0}, {"CENTIMETERS", 1}, {"MILLIMETERS", 2}, {"MICROMETERS", 3}, {"MICRONS", 4},
         {"NANOMETERS", 5}, {"ANGSTROMS", 6}, {"KILOMETERS", 7}, {"FEET", 8}, {"INCHES", 9}, {"POINTS", 10},
         {"YARDS", 11}, {"MILES", 12}, {"NAUTICAL_MILES", 13})
QV_TABLE(kReset, {"TRANSFORM", 1}, {"BBOX", 2})
QV_TABLE(kViewport, {"CROP_VIEWPORT_FILL_FRAME", 0}, {"CROP_VIEWPORT_LINE_FRAME", 1}, {"CROP_VIEWPORT_NO_FRAME", 2},
         {"ADJUST_CAMERA", 3}, {"LEAVE_ALONE", 4})
QV_TABLE(kAnchorMap, {"NONE", 0}, {"POINT", 1})
QV_TABLE(kArrayOrigin, {"FIRST", 0}, {"CENTER", 1}, {"LAST", 2})

#undef QV_TABLE

// Inventor classes met in real files that carry nothing the import uses: their bodies
// are skipped by brace matching instead of being refused as unknown classes.
constexpr const char* kSkippedClasses[] = {
    "Font",
    "Text2",
    "Text3",
    "ProfileCoordinate2",
    "ProfileCoordinate3",
    "LinearProfile",
    "NurbsProfile",
    "NurbsCurve",
    "NurbsSurface",
    "IndexedNurbsCurve",
    "IndexedNurbsSurface",
    "Coordinate4",
    "MultipleCopy",
    "Environment",
    "PickStyle",
    "Blinker",
    "Rotor",
    "Pendulum",
    "Shuttle",
    "TextureCoordinateDefault",
    "TextureCoordinatePlane",
    "TextureCoordinateEnvironment",
    "SurroundScale",
    "AntiSquish",
    "Callback",
    "EventCallback",
    "Clip",
    "ClipPlane",
    "Image",
    "MaterialIndex",
    "TextureCoordinateFunction",
};

bool IsSkippedClass(std::string_view cls) {
    for (const char* s : kSkippedClasses)
        if (cls == s) return true;
    return false;
}

// Depth of the reader's recursion, undone on every way out.
struct DepthGuard {
    QvIn& in;
    explicit DepthGuard(QvIn& i) : in(i) { ++in.depth; }
    ~DepthGuard() { --in.depth; }
};

bool ExpectChar(QvIn& in, char want) {
    char c;
    if (!in.skipWhite() || !in.get(c)) {
        if (!in.hasError()) in.readError(QvFormat("Expected '%c'; got EOF", want));
        return false;
    }
    if (c != want) {
        in.readError(QvFormat("Expected '%c'; got '%c'", want, c));
        return false;
    }
    return true;
}

thread_local std::vector<QvNode*>* g_releasing = nullptr;

} // namespace

QvNode::QvNode(QvNodeType type, const char* className) : m_type(type), m_className(className) {
    static std::atomic<uint64_t> next{1};
    m_serial = next.fetch_add(1, std::memory_order_relaxed);
}

void QvNode::releaseChildren() {
    std::vector<QvNode*> children;
    children.swap(m_children);
    for (QvNode* c : children) c->unref();
}

QvNode::~QvNode() {
    for (QvNode* c : m_children) c->unref();
    for (QvField* f : m_owned) delete f;
}

void QvNode::unref() {
    if (--m_refs > 0) return;
    if (g_releasing) {
        g_releasing->push_back(this);
        return;
    }
    std::vector<QvNode*> pending{this};
    g_releasing = &pending;
    while (!pending.empty()) {
        QvNode* n = pending.back();
        pending.pop_back();
        delete n; // its children land in `pending` instead of recursing
    }
    g_releasing = nullptr;
}

QvField* QvNode::findField(std::string_view name) const {
    if (const auto* index = fieldIndex()) {
        auto it = index->find(std::string(name));
        return it == index->end() ? nullptr : it->second;
    }
    for (const FieldEntry& e : m_fields)
        if (e.name == name) return e.field;
    return nullptr;
}

bool QvNode::read(QvIn& in, QvNode*& node) {
    node = nullptr;
    std::string_view name = in.readName();
    if (name.empty()) return !in.hasError();
    return readAfterName(in, std::string(name), node);
}

bool QvNode::readAfterName(QvIn& in, const std::string& name, QvNode*& node) {
    node = nullptr;
    DepthGuard guard(in);
    if (in.depth > QvIn::kMaxDepth) {
        in.readError(QvFormat("Nodes nested more than %d levels deep", QvIn::kMaxDepth));
        return false;
    }
    if (name == "DEF") {
        if (!in.skipWhite()) {
            if (!in.hasError()) in.readError("Premature end of file after DEF");
            return false;
        }
        std::string defName(in.readName());
        if (defName.empty()) {
            in.readError("No name given after DEF");
            return false;
        }
        std::string cls(in.readName());
        if (cls.empty()) {
            if (!in.hasError()) in.readError(QvFormat("Invalid definition of %s", defName.c_str()));
            return false;
        }
        QvNode* n = nullptr;
        if (!readAfterName(in, cls, n)) return false;
        if (!n) {
            in.readError(QvFormat("Invalid definition of %s", defName.c_str()));
            return false;
        }
        // Registered once complete, so a USE inside its own DEF does not find it.
        n->setName(defName);
        in.addName(defName, n);
        node = n;
        return true;
    }
    if (name == "USE") {
        if (!in.skipWhite()) {
            if (!in.hasError()) in.readError("Premature end of file after USE");
            return false;
        }
        std::string ref(in.readName());
        QvNode* n = in.findName(ref);
        if (!n) {
            in.readError(QvFormat("Unknown reference \"%s\"", ref.c_str()));
            return false;
        }
        n->ref();
        node = n;
        return true;
    }
    if (QvNode* n = create(name)) {
        if (!n->readInstance(in)) {
            n->unref();
            return false;
        }
        node = n;
        return true;
    }
    if (IsSkippedClass(name)) {
        auto* n = new QvUnknownNode(name);
        n->m_type = QvNodeType::Skipped;
        if (!n->skipInstance(in)) {
            n->unref();
            return false;
        }
        node = n;
        return true;
    }
    return readUnknown(in, name, node);
}

bool QvNode::readInstance(QvIn& in) { return ExpectChar(in, '{') && readBody(in); }

bool QvNode::readBody(QvIn& in) {
    for (;;) {
        char c;
        if (!in.skipWhite() || !in.get(c)) {
            if (!in.hasError()) in.readError("Expected '}'; got EOF");
            return false;
        }
        if (c == '}') return true;
        in.putBack(c);
        in.tick();
        std::string name(in.readName());
        if (name.empty()) {
            in.get(c);
            in.readError(QvFormat("Expected '%c'; got '%c'", '}', c));
            return false;
        }
        QvField* f = m_children.empty() ? findField(name) : nullptr;
        if (f) {
            if (!f->read(in)) {
                in.readError(QvFormat("Couldn't read value for field \"%s\"", name.c_str()));
                return false;
            }
            f->setDefault(false);
            // Inventor marks ignored values with a tilde.
            if (in.peek(c) && c == '~') in.get(c);
            continue;
        }
        if (!isGroup()) {
            in.readError(QvFormat("Unknown field \"%s\"", name.c_str()));
            return false;
        }
        QvNode* child = nullptr;
        if (!readAfterName(in, name, child)) return false;
        if (child) m_children.push_back(child);
    }
}

bool QvNode::skipInstance(QvIn& in) {
    if (!ExpectChar(in, '{')) return false;
    int open = 1;
    char c;
    while (open > 0) {
        if (!in.skipWhite() || !in.get(c)) {
            if (!in.hasError()) in.readError("Expected '}'; got EOF");
            return false;
        }
        if (c == '{') ++open;
        else if (c == '}') --open;
        else if (c == '"') {
            in.putBack(c);
            std::string s;
            if (!in.readString(s)) {
                if (!in.hasError()) in.readError("Expected '}'; got EOF");
                return false;
            }
        }
    }
    return true;
}

bool QvNode::readUnknown(QvIn& in, const std::string& className, QvNode*& node) {
    auto* n = new QvUnknownNode(className);
    auto fail = [&] {
        n->unref();
        return false;
    };
    if (!ExpectChar(in, '{')) return fail();
    std::string_view kw = in.readName();
    if (kw != "fields") {
        if (!in.hasError()) in.readError(QvFormat("Unknown class \"%s\"", className.c_str()));
        return fail();
    }
    char c;
    if (!in.skipWhite() || !in.get(c) || c != '[') {
        if (!in.hasError()) in.readError("Bad field specifications for node");
        return fail();
    }
    for (;;) {
        if (!in.peek(c)) {
            if (!in.hasError()) in.readError("Bad field specifications for node");
            return fail();
        }
        if (c == ']') {
            in.get(c);
            break;
        }
        std::string typeName(in.readName());
        std::string fieldName(in.readName());
        QvFieldType t;
        if (typeName.empty() || fieldName.empty() || !QvFieldTypeFromName(typeName, t)) {
            if (!in.hasError()) in.readError("Bad field specifications for node");
            return fail();
        }
        n->addDeclaredField(fieldName, QvCreateField(t));
    }
    // Inventor's "isA" names the classes the node stands for; it is read and left aside.
    if (in.peek(c) && c == 'i') {
        QvIn::Mark before = in.mark();
        std::string_view w = in.readName();
        if (w == "isA") {
            QvMFString alt;
            if (!alt.read(in)) {
                in.readError("Couldn't read value for field \"isA\"");
                return fail();
            }
        } else {
            in.reset(before); // not "isA": the body reader sees the name again
        }
    }
    if (!n->readBody(in)) return fail();
    node = n;
    return true;
}

QvUnknownNode::QvUnknownNode(std::string className)
    : QvGroup(QvNodeType::Unknown, "UnknownNode"), m_unknownClass(std::move(className)) {}

void QvUnknownNode::addDeclaredField(const std::string& name, QvField* f) {
    m_owned.push_back(f);
    m_fields.push_back({name, f});
    m_fieldIndex.emplace(name, f);
}

QvSeparator::QvSeparator(const char* cls)
    : QvGroup(QvNodeType::Separator, cls), renderCulling(&kCulling, 2), boundingBoxCaching(&kCulling, 2),
      renderCaching(&kCulling, 2), pickCulling(&kCulling, 2) {
    addField("renderCulling", &renderCulling);
    addField("boundingBoxCaching", &boundingBoxCaching);
    addField("renderCaching", &renderCaching);
    addField("pickCulling", &pickCulling);
}
QvSwitch::QvSwitch() : QvGroup(QvNodeType::Switch, "Switch") { addField("whichChild", &whichChild); }
QvLOD::QvLOD(const char* cls) : QvGroup(QvNodeType::LOD, cls) {
    addField("range", &range);
    addField("center", &center);
    addField("screenArea", &range); // Inventor's LevelOfDetail
}
QvWWWAnchor::QvWWWAnchor() : QvGroup(QvNodeType::WWWAnchor, "WWWAnchor"), map(&kAnchorMap, 0) {
    addField("name", &name);
    addField("description", &description);
    addField("map", &map);
}
QvArray::QvArray() : QvGroup(QvNodeType::Array, "Array"), origin(&kArrayOrigin, 0) {
    addField("origin", &origin);
    addField("numElements1", &numElements1);
    addField("numElements2", &numElements2);
    addField("numElements3", &numElements3);
    addField("separation1", &separation1);
    addField("separation2", &separation2);
    addField("separation3", &separation3);
}
QvCoordinate3::QvCoordinate3() : QvNode(QvNodeType::Coordinate3, "Coordinate3") { addField("point", &point); }
QvNormal::QvNormal() : QvNode(QvNodeType::Normal, "Normal") { addField("vector", &vector); }
QvTextureCoordinate2::QvTextureCoordinate2() : QvNode(QvNodeType::TextureCoordinate2, "TextureCoordinate2") {
    addField("point", &point);
}
QvMaterial::QvMaterial() : QvNode(QvNodeType::Material, "Material") {
    addField("ambientColor", &ambientColor);
    addField("diffuseColor", &diffuseColor);
    addField("specularColor", &specularColor);
    addField("emissiveColor", &emissiveColor);
    addField("shininess", &shininess);
    addField("transparency", &transparency);
}
QvBaseColor::QvBaseColor() : QvNode(QvNodeType::BaseColor, "BaseColor") { addField("rgb", &rgb); }
QvPackedColor::QvPackedColor() : QvNode(QvNodeType::PackedColor, "PackedColor") {
    addField("orderedRGBA", &orderedRGBA);
    addField("rgba", &orderedRGBA); // the older spelling
}
QvMaterialBinding::QvMaterialBinding()
    : QvNode(QvNodeType::MaterialBinding, "MaterialBinding"), value(&kBinding, QV_BIND_DEFAULT) {
    addField("value", &value);
}
QvNormalBinding::QvNormalBinding()
    : QvNode(QvNodeType::NormalBinding, "NormalBinding"), value(&kBinding, QV_BIND_DEFAULT) {
    addField("value", &value);
}
QvTextureCoordinateBinding::QvTextureCoordinateBinding()
    : QvNode(QvNodeType::TextureCoordinateBinding, "TextureCoordinateBinding"), value(&kBinding, QV_BIND_DEFAULT) {
    addField("value", &value);
}
QvShapeHints::QvShapeHints()
    : QvNode(QvNodeType::ShapeHints, "ShapeHints"), vertexOrdering(&kVertexOrdering, QV_UNKNOWN_ORDERING),
      shapeType(&kShapeType, 0), faceType(&kFaceType, 1) {
    addField("vertexOrdering", &vertexOrdering);
    addField("shapeType", &shapeType);
    addField("faceType", &faceType);
    addField("creaseAngle", &creaseAngle);
}
QvTexture2::QvTexture2()
    : QvNode(QvNodeType::Texture2, "Texture2"), wrapS(&kWrap, 0), wrapT(&kWrap, 0), model(&kModel, 0) {
    addField("filename", &filename);
    addField("image", &image);
    addField("wrapS", &wrapS);
    addField("wrapT", &wrapT);
    addField("model", &model);
    addField("blendColor", &blendColor);
}
QvTexture2Transform::QvTexture2Transform() : QvNode(QvNodeType::Texture2Transform, "Texture2Transform") {
    addField("translation", &translation);
    addField("rotation", &rotation);
    addField("scaleFactor", &scaleFactor);
    addField("center", &center);
}
QvFontStyle::QvFontStyle() : QvNode(QvNodeType::FontStyle, "FontStyle"), family(&kFamily, 0), style(&kStyle, 0) {
    addField("size", &size);
    addField("family", &family);
    addField("style", &style);
}
QvInfo::QvInfo() : QvNode(QvNodeType::Info, "Info") { addField("string", &string); }
QvLabel::QvLabel() : QvNode(QvNodeType::Label, "Label") { addField("label", &label); }
QvDrawStyle::QvDrawStyle() : QvNode(QvNodeType::DrawStyle, "DrawStyle"), style(&kDrawStyle, 0) {
    addField("style", &style);
    addField("pointSize", &pointSize);
    addField("lineWidth", &lineWidth);
    addField("linePattern", &linePattern);
}
QvLightModel::QvLightModel() : QvNode(QvNodeType::LightModel, "LightModel"), model(&kLightModel, 1) {
    addField("model", &model);
}
QvComplexity::QvComplexity() : QvNode(QvNodeType::Complexity, "Complexity"), type(&kComplexity, 0) {
    addField("type", &type);
    addField("value", &value);
    addField("textureQuality", &textureQuality);
}
QvUnits::QvUnits() : QvNode(QvNodeType::Units, "Units"), units(&kUnits, 0) { addField("units", &units); }
QvVertexProperty::QvVertexProperty()
    : QvNode(QvNodeType::VertexProperty, "VertexProperty"), materialBinding(&kBinding, QV_BIND_OVERALL),
      normalBinding(&kBinding, QV_BIND_PER_VERTEX_INDEXED) {
    addField("vertex", &vertex);
    addField("normal", &normal);
    addField("texCoord", &texCoord);
    addField("orderedRGBA", &orderedRGBA);
    addField("materialBinding", &materialBinding);
    addField("normalBinding", &normalBinding);
}
QvTransform::QvTransform() : QvNode(QvNodeType::Transform, "Transform") {
    addField("translation", &translation);
    addField("rotation", &rotation);
    addField("scaleFactor", &scaleFactor);
    addField("scaleOrientation", &scaleOrientation);
    addField("center", &center);
}
QvTranslation::QvTranslation() : QvNode(QvNodeType::Translation, "Translation") {
    addField("translation", &translation);
}
QvRotation::QvRotation() : QvNode(QvNodeType::Rotation, "Rotation") { addField("rotation", &rotation); }
QvRotationXYZ::QvRotationXYZ() : QvNode(QvNodeType::RotationXYZ, "RotationXYZ"), axis(&kAxis, 0) {
    addField("axis", &axis);
    addField("angle", &angle);
}
QvScale::QvScale() : QvNode(QvNodeType::Scale, "Scale") { addField("scaleFactor", &scaleFactor); }
QvMatrixTransform::QvMatrixTransform() : QvNode(QvNodeType::MatrixTransform, "MatrixTransform") {
    addField("matrix", &matrix);
}
QvResetTransform::QvResetTransform() : QvNode(QvNodeType::ResetTransform, "ResetTransform"), whatToReset(&kReset, 1) {
    addField("whatToReset", &whatToReset);
}
QvCube::QvCube() : QvNode(QvNodeType::Cube, "Cube") {
    addField("width", &width);
    addField("height", &height);
    addField("depth", &depth);
}
QvSphere::QvSphere() : QvNode(QvNodeType::Sphere, "Sphere") { addField("radius", &radius); }
QvCone::QvCone() : QvNode(QvNodeType::Cone, "Cone"), parts(&kConeParts, QV_CONE_SIDES | QV_CONE_BOTTOM) {
    addField("parts", &parts);
    addField("bottomRadius", &bottomRadius);
    addField("height", &height);
}
QvCylinder::QvCylinder()
    : QvNode(QvNodeType::Cylinder, "Cylinder"), parts(&kCylinderParts, QV_CYL_SIDES | QV_CYL_TOP | QV_CYL_BOTTOM) {
    addField("parts", &parts);
    addField("radius", &radius);
    addField("height", &height);
}
QvVertexShape::QvVertexShape(QvNodeType t, const char* cls) : QvNode(t, cls) {
    addField("vertexProperty", &vertexProperty);
}
QvIndexedShape::QvIndexedShape(QvNodeType t, const char* cls) : QvVertexShape(t, cls) {
    addField("coordIndex", &coordIndex);
    addField("materialIndex", &materialIndex);
    addField("normalIndex", &normalIndex);
    addField("textureCoordIndex", &textureCoordIndex);
}
QvNonIndexedShape::QvNonIndexedShape(QvNodeType t, const char* cls) : QvVertexShape(t, cls) {
    addField("startIndex", &startIndex);
    addField("numVertices", &numVertices);
}
QvQuadMesh::QvQuadMesh() : QvVertexShape(QvNodeType::QuadMesh, "QuadMesh") {
    addField("startIndex", &startIndex);
    addField("verticesPerColumn", &verticesPerColumn);
    addField("verticesPerRow", &verticesPerRow);
}
QvPointSet::QvPointSet() : QvVertexShape(QvNodeType::PointSet, "PointSet") {
    addField("startIndex", &startIndex);
    addField("numPoints", &numPoints);
}
QvAsciiText::QvAsciiText() : QvNode(QvNodeType::AsciiText, "AsciiText"), justification(&kJustification, 0) {
    addField("string", &string);
    addField("spacing", &spacing);
    addField("justification", &justification);
    addField("width", &width);
}
QvCamera::QvCamera(QvNodeType t, const char* cls) : QvNode(t, cls), viewportMapping(&kViewport, 3) {
    addField("position", &position);
    addField("orientation", &orientation);
    addField("focalDistance", &focalDistance);
    addField("nearDistance", &nearDistance);
    addField("farDistance", &farDistance);
    addField("aspectRatio", &aspectRatio);
    addField("viewportMapping", &viewportMapping);
}
QvPerspectiveCamera::QvPerspectiveCamera() : QvCamera(QvNodeType::PerspectiveCamera, "PerspectiveCamera") {
    addField("heightAngle", &heightAngle);
}
QvOrthographicCamera::QvOrthographicCamera() : QvCamera(QvNodeType::OrthographicCamera, "OrthographicCamera") {
    addField("height", &height);
}
QvLight::QvLight(QvNodeType t, const char* cls) : QvNode(t, cls) {
    addField("on", &on);
    addField("intensity", &intensity);
    addField("color", &color);
}
QvDirectionalLight::QvDirectionalLight() : QvLight(QvNodeType::DirectionalLight, "DirectionalLight") {
    addField("direction", &direction);
}
QvPointLight::QvPointLight() : QvLight(QvNodeType::PointLight, "PointLight") { addField("location", &location); }
QvSpotLight::QvSpotLight() : QvLight(QvNodeType::SpotLight, "SpotLight") {
    addField("location", &location);
    addField("direction", &direction);
    addField("dropOffRate", &dropOffRate);
    addField("cutOffAngle", &cutOffAngle);
}
QvWWWInline::QvWWWInline() : QvNode(QvNodeType::WWWInline, "WWWInline") {
    addField("name", &name);
    addField("bboxSize", &bboxSize);
    addField("bboxCenter", &bboxCenter);
}
QvFile::QvFile() : QvNode(QvNodeType::File, "File") { addField("name", &name); }

QvNode* QvNode::create(std::string_view cls) {
    struct Maker {
        const char* name;
        QvNode* (*make)();
    };
    static constexpr Maker kMakers[] = {
        {"Separator", []() -> QvNode* { return new QvSeparator(); }},
        {"Group", []() -> QvNode* { return new QvGroup(); }},
        {"Switch", []() -> QvNode* { return new QvSwitch(); }},
        {"TransformSeparator", []() -> QvNode* { return new QvTransformSeparator(); }},
        {"LOD", []() -> QvNode* { return new QvLOD(); }},
        {"LevelOfDetail", []() -> QvNode* { return new QvLOD("LevelOfDetail"); }},
        {"WWWAnchor", []() -> QvNode* { return new QvWWWAnchor(); }},
        {"Selection", []() -> QvNode* { return new QvSeparator("Selection"); }},
        {"Annotation", []() -> QvNode* { return new QvSeparator("Annotation"); }},
        {"Array", []() -> QvNode* { return new QvArray(); }},
        {"Coordinate3", []() -> QvNode* { return new QvCoordinate3(); }},
        {"Normal", []() -> QvNode* { return new QvNormal(); }},
        {"TextureCoordinate2", []() -> QvNode* { return new QvTextureCoordinate2(); }},
        {"Material", []() -> QvNode* { return new QvMaterial(); }},
        {"BaseColor", []() -> QvNode* { return new QvBaseColor(); }},
        {"PackedColor", []() -> QvNode* { return new QvPackedColor(); }},
        {"MaterialBinding", []() -> QvNode* { return new QvMaterialBinding(); }},
        {"NormalBinding", []() -> QvNode* { return new QvNormalBinding(); }},
        {"TextureCoordinateBinding", []() -> QvNode* { return new QvTextureCoordinateBinding(); }},
        {"ShapeHints", []() -> QvNode* { return new QvShapeHints(); }},
        {"Texture2", []() -> QvNode* { return new QvTexture2(); }},
        {"Texture2Transform", []() -> QvNode* { return new QvTexture2Transform(); }},
        {"FontStyle", []() -> QvNode* { return new QvFontStyle(); }},
        {"Info", []() -> QvNode* { return new QvInfo(); }},
        {"Label", []() -> QvNode* { return new QvLabel(); }},
        {"DrawStyle", []() -> QvNode* { return new QvDrawStyle(); }},
        {"LightModel", []() -> QvNode* { return new QvLightModel(); }},
        {"Complexity", []() -> QvNode* { return new QvComplexity(); }},
        {"Units", []() -> QvNode* { return new QvUnits(); }},
        {"VertexProperty", []() -> QvNode* { return new QvVertexProperty(); }},
        {"Transform", []() -> QvNode* { return new QvTransform(); }},
        {"Translation", []() -> QvNode* { return new QvTranslation(); }},
        {"Rotation", []() -> QvNode* { return new QvRotation(); }},
        {"RotationXYZ", []() -> QvNode* { return new QvRotationXYZ(); }},
        {"Scale", []() -> QvNode* { return new QvScale(); }},
        {"MatrixTransform", []() -> QvNode* { return new QvMatrixTransform(); }},
        {"ResetTransform", []() -> QvNode* { return new QvResetTransform(); }},
        {"Cube", []() -> QvNode* { return new QvCube(); }},
        {"Sphere", []() -> QvNode* { return new QvSphere(); }},
        {"Cone", []() -> QvNode* { return new QvCone(); }},
        {"Cylinder", []() -> QvNode* { return new QvCylinder(); }},
        {"IndexedFaceSet", []() -> QvNode* { return new QvIndexedFaceSet(); }},
        {"IndexedLineSet", []() -> QvNode* { return new QvIndexedLineSet(); }},
        {"IndexedTriangleStripSet", []() -> QvNode* { return new QvIndexedTriangleStripSet(); }},
        {"IndexedTriangleMesh", []() -> QvNode* { return new QvIndexedTriangleStripSet(); }},
        {"FaceSet", []() -> QvNode* { return new QvFaceSet(); }},
        {"LineSet", []() -> QvNode* { return new QvLineSet(); }},
        {"TriangleStripSet", []() -> QvNode* { return new QvTriangleStripSet(); }},
        {"QuadMesh", []() -> QvNode* { return new QvQuadMesh(); }},
        {"PointSet", []() -> QvNode* { return new QvPointSet(); }},
        {"AsciiText", []() -> QvNode* { return new QvAsciiText(); }},
        {"PerspectiveCamera", []() -> QvNode* { return new QvPerspectiveCamera(); }},
        {"OrthographicCamera", []() -> QvNode* { return new QvOrthographicCamera(); }},
        {"DirectionalLight", []() -> QvNode* { return new QvDirectionalLight(); }},
        {"PointLight", []() -> QvNode* { return new QvPointLight(); }},
        {"SpotLight", []() -> QvNode* { return new QvSpotLight(); }},
        {"WWWInline", []() -> QvNode* { return new QvWWWInline(); }},
        {"File", []() -> QvNode* { return new QvFile(); }},
    };
    for (const Maker& m : kMakers)
        if (cls == m.name) return m.make();
    return nullptr;
}

QvFileContents::~QvFileContents() {
    for (QvNode* n : nodes) n->unref();
}

bool QvReadFile(QvIn& in, QvFileContents& out) {
    if (!in.readHeader()) return false;
    for (;;) {
        QvNode* n = nullptr;
        if (!QvNode::read(in, n)) return false;
        if (!n) break;
        out.nodes.push_back(n);
    }
    char c;
    if (in.skipWhite() && in.get(c)) {
        in.readError(QvFormat("Extra characters ('%c') found in input", c));
        return false;
    }
    return !in.hasError();
}
