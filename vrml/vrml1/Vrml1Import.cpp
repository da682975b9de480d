#include "vrml/vrml1/Vrml1Import.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <unordered_map>

#include "plugin/host/Channel.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Object.h"
#include "plugin/host/Primitives.h"
#include "vrml/vrml1/QvIn.h"
#include "vrml/vrml1/QvNode.h"

namespace vrml1import {

namespace {

CXStringW Wide(const std::string& s) { return CXStringW(Utf8ToWide(s)); }

uint8_t Byte(float v) {
    if (!(v > 0)) return 0;
    if (v >= 1) return 255;
    return static_cast<uint8_t>(v * 255.0f + 0.5f);
}

CRGBColor Color(const float* rgb) { return CRGBColor(Byte(rgb[0]), Byte(rgb[1]), Byte(rgb[2])); }

// Rotation about a unit axis as a row-vector matrix (p' = p * M), right-handed.
C4x4Matrix AxisAngle(float ax, float ay, float az, float angle) {
    C4x4Matrix m;
    double len = std::sqrt(double(ax) * ax + double(ay) * ay + double(az) * az);
    if (len < 1e-12 || !std::isfinite(len) || !std::isfinite(angle) || angle == 0) return m;
    double x = ax / len, y = ay / len, z = az / len;
    double c = std::cos(angle), s = std::sin(angle), t = 1 - c;
    double r[3][3] = {{c + x * x * t, x * y * t - z * s, x * z * t + y * s},
                      {y * x * t + z * s, c + y * y * t, y * z * t - x * s},
                      {z * x * t - y * s, z * y * t + x * s, c + z * z * t}};
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j) m.m[i][j] = static_cast<float>(r[j][i]);
    return m;
}

C4x4Matrix Translate(const float* v) { return C4x4Matrix::Translation(v[0], v[1], v[2]); }
C4x4Matrix Scale(const float* v) { return C4x4Matrix::Scaling(v[0], v[1], v[2]); }

// A Transform node as one matrix: translation, centre, rotation, scale orientation, scale,
// and back, each acting before the one written to its left.
C4x4Matrix TransformMatrix(const QvTransform& t) {
    const float* c = t.center.value;
    const float* so = t.scaleOrientation.axis;
    const float nc[3] = {-c[0], -c[1], -c[2]};
    const C4x4Matrix steps[] = {Translate(t.translation.value),
                                Translate(c),
                                AxisAngle(t.rotation.axis[0], t.rotation.axis[1], t.rotation.axis[2], t.rotation.angle),
                                AxisAngle(so[0], so[1], so[2], t.scaleOrientation.angle),
                                Scale(t.scaleFactor.value),
                                AxisAngle(so[0], so[1], so[2], -t.scaleOrientation.angle),
                                Translate(nc)};
    C4x4Matrix m;
    for (const C4x4Matrix& s : steps) m = s * m;
    return m;
}

double MetresPerUnit(int32_t units) {
    static constexpr double kFactors[] = {1,    0.01,   0.001,  1e-6,        1e-6,   1e-9,     1e-10,
                                          1000, 0.3048, 0.0254, 0.0254 / 72, 0.9144, 1609.344, 1852};
    return units >= 0 && units < 14 ? kFactors[units] : 1;
}

template <typename T> const T* As(const QvNode* n) { return static_cast<const T*>(n); }

// Lists an indexed shape's optional index field: [-1] (or empty) means "use coordIndex".
bool UsesOwnIndices(const QvMFLong& f) { return !(f.values.empty() || (f.values.size() == 1 && f.values[0] < 0)); }

int32_t At(const std::vector<int32_t>& v, size_t i) { return i < v.size() ? v[i] : (v.empty() ? 0 : v.back()); }

} // namespace

struct CVrml1Converter::Corners {
    std::vector<uint32_t> faceStart{0}; // faces + 1
    std::vector<int32_t> coord;         // per corner: coordinate index
    std::vector<int32_t> pos;           // per corner: position in coordIndex (or the vertex number)
    std::vector<int32_t> ref;           // per corner: count of vertex references before it
    std::vector<int32_t> part;          // per face: part (strip, polyline) ordinal
    std::vector<int32_t> ordinal;       // per face: face ordinal (dropped faces count too)
    bool indexed = false;
    size_t faces() const { return faceStart.size() - 1; }
    void reserve(size_t corners, size_t faceCount) {
        coord.reserve(corners);
        pos.reserve(corners);
        ref.reserve(corners);
        faceStart.reserve(faceCount + 1);
        part.reserve(faceCount);
        ordinal.reserve(faceCount);
    }
    void corner(int32_t c, int32_t p, int32_t r) {
        coord.push_back(c);
        pos.push_back(p);
        ref.push_back(r);
    }
    void endFace(int32_t prt, int32_t ord) {
        faceStart.push_back(static_cast<uint32_t>(coord.size()));
        part.push_back(prt);
        ordinal.push_back(ord);
    }
    void dropFace() {
        coord.resize(faceStart.back());
        pos.resize(faceStart.back());
        ref.resize(faceStart.back());
    }
};

CVrml1Converter::CVrml1Converter(C3DScene& scene, const CFileParser& parser, CIoOptions& log, std::string file,
                                 uint64_t inputBytes, Limits limits)
    : m_scene(scene), m_parser(parser), m_log(log), m_rootFile(std::move(file)), m_inputBytes(inputBytes),
      m_limits(limits) {
    if (!m_rootFile.empty()) {
        std::error_code ec;
        std::filesystem::path p = std::filesystem::weakly_canonical(std::filesystem::path(m_rootFile), ec);
        if (ec) p = std::filesystem::absolute(std::filesystem::path(m_rootFile), ec);
        m_rootFolder = p.parent_path().string();
        m_inlineStack.push_back(p.string());
    }
}

CVrml1Converter::~CVrml1Converter() = default;

void CVrml1Converter::Log(const CXStringW& text) { m_log.AddLogInfo(LOG_INFO, text); }

void CVrml1Converter::Stop(const wchar_t* why) {
    if (!m_stopped) Log(CXStringW(L"The VRML 1.0 import stopped early: ") + why);
    m_stopped = true;
}

bool CVrml1Converter::Charge(uint64_t elements) {
    m_elements += elements;
    if (m_elements > m_limits.baseElements + m_limits.elementFactor * m_inputBytes) {
        Stop(L"the geometry made would grow past its cap (DEF/USE repetition).");
        return false;
    }
    return true;
}

const C4x4Matrix& CVrml1Converter::Relative() const { return m_state.top(QvElement::Transformation)->matrix; }

void CVrml1Converter::ApplyTransform(const C4x4Matrix& m) {
    QvElement* e = m_state.push(QvElement::Transformation, nullptr);
    e->matrix = m * e->matrix;
}

void CVrml1Converter::Convert(const QvFileContents& contents) {
    m_scene.SetUnit(UNIT_METER);
    m_scene.SetScaleFactor(100.0);
    m_state.push(QvElement::Transformation, nullptr); // identity
    m_state.push(QvElement::Texture2Transformation, nullptr);
    Frame top{nullptr, C4x4Matrix(), &m_rootFile, nullptr};
    for (QvNode* n : contents.nodes) {
        if (Stopped()) break;
        Walk(n, top, 0, n->refs() == 1);
    }
    if (m_droppedFaces)
        Log(L"VRML 1.0: " + CXStringW(std::to_wstring(m_droppedFaces)) +
            L" faces with fewer corners than their kind needs or with coordinates that do not exist were left out.");
}

C3DSceneNode* CVrml1Converter::OpenNode(Frame& f, const std::string& name, Frame& inner) {
    if (m_nodes >= m_limits.baseNodes + m_inputBytes / 8) {
        Stop(L"too many scene nodes would be made (DEF/USE repetition).");
        return nullptr;
    }
    ++m_nodes;
    auto* n = new C3DSceneNode(new C3DGroup());
    n->SetName(Wide(name));
    n->SetNodeLocalTM(Relative());
    m_scene.AddNode(f.node, n);
    inner.node = n;
    inner.world = Relative() * f.world;
    inner.file = f.file;
    inner.scope = n;
    return n;
}

void CVrml1Converter::CloseNode(C3DSceneNode* n) {
    // Unnamed groups that end up empty are noise; named ones are kept for their name.
    if (n && !n->GetChildNode() && n->GetName().IsEmpty()) m_scene.RemoveNode(n);
}

void CVrml1Converter::WalkChildren(QvNode* n, Frame& f, int depth, bool once) {
    for (QvNode* c : n->children()) {
        if (Stopped()) return;
        Walk(c, f, depth + 1, once && c->refs() == 1);
    }
}

void CVrml1Converter::Walk(QvNode* n, Frame& f, int depth, bool once) {
    if (Stopped()) return;
    if (m_parser.IsCancelled()) {
        m_cancelled = true;
        return;
    }
    if (depth > 1000) {
        if (!m_reportedDepth) Log(L"VRML 1.0: nodes nested more than 1000 levels deep were left out.");
        m_reportedDepth = true;
        return;
    }
    if (!Charge(1)) return;
    m_currentFile = f.file;
    switch (n->type()) {
    case QvNodeType::Separator:
    case QvNodeType::WWWAnchor: {
        Frame inner;
        C3DSceneNode* hn = OpenNode(f, n->getName(), inner);
        if (!hn) return;
        if (n->type() == QvNodeType::WWWAnchor) {
            const std::string& url = As<QvWWWAnchor>(n)->name.value;
            if (!url.empty()) hn->GetBaseObject()->GetCustomData().SetString(kLinkID, Wide(url));
        }
        m_state.push();
        m_state.push(QvElement::Transformation, n)->matrix.SetIdentity();
        WalkChildren(n, inner, depth, once);
        m_state.pop();
        // Nothing of this part is in the state any more, and nothing walks it again.
        if (once) n->releaseChildren();
        CloseNode(hn);
        return;
    }
    case QvNodeType::TransformSeparator: {
        QvElement* mark = m_state.top(QvElement::Transformation);
        Frame inner;
        C3DSceneNode* hn = OpenNode(f, n->getName(), inner);
        if (!hn) return;
        inner.scope = f.scope; // only the transform is kept to itself
        m_state.push(QvElement::Transformation, n)->matrix.SetIdentity();
        WalkChildren(n, inner, depth, once);
        m_state.popTo(QvElement::Transformation, mark);
        CloseNode(hn);
        return;
    }
    case QvNodeType::Group:
    case QvNodeType::Unknown: WalkChildren(n, f, depth, once); return;
    case QvNodeType::Switch: {
        int32_t which = As<QvSwitch>(n)->whichChild.value;
        if (which == -3) {
            WalkChildren(n, f, depth, once);
        } else if (which >= 0 && static_cast<size_t>(which) < n->children().size()) {
            QvNode* c = n->children()[static_cast<size_t>(which)];
            Walk(c, f, depth + 1, once && c->refs() == 1);
        }
        return;
    }
    case QvNodeType::LOD:
        // The most detailed level, kept to itself.
        if (!n->children().empty()) {
            QvNode* c = n->children()[0];
            m_state.push();
            Walk(c, f, depth + 1, once && c->refs() == 1);
            m_state.pop();
        }
        return;
    case QvNodeType::Array: {
        const QvArray* a = As<QvArray>(n);
        int64_t n1 = std::max(1, a->numElements1.value), n2 = std::max(1, a->numElements2.value),
                n3 = std::max(1, a->numElements3.value);
        if (n1 * n2 * n3 > m_limits.maxArrayCopies) {
            Log(L"VRML 1.0: an Array of more copies than allowed was read as one copy.");
            n1 = n2 = n3 = 1;
        }
        const float* s1 = a->separation1.value;
        const float* s2 = a->separation2.value;
        const float* s3 = a->separation3.value;
        // FIRST puts copy 0 at the origin; CENTER and LAST shift the block back.
        float shift = a->origin.value == 1 ? 0.5f : a->origin.value == 2 ? 1.0f : 0.0f;
        for (int64_t i = 0; i < n1 && !Stopped(); ++i)
            for (int64_t j = 0; j < n2 && !Stopped(); ++j)
                for (int64_t k = 0; k < n3 && !Stopped(); ++k) {
                    float fi = float(i) - shift * float(n1 - 1), fj = float(j) - shift * float(n2 - 1),
                          fk = float(k) - shift * float(n3 - 1);
                    float t[3];
                    for (int c = 0; c < 3; ++c) t[c] = fi * s1[c] + fj * s2[c] + fk * s3[c];
                    m_state.push();
                    ApplyTransform(Translate(t));
                    WalkChildren(n, f, depth);
                    m_state.pop();
                }
        return;
    }
    case QvNodeType::Transform: ApplyTransform(TransformMatrix(*As<QvTransform>(n))); return;
    case QvNodeType::Translation: ApplyTransform(Translate(As<QvTranslation>(n)->translation.value)); return;
    case QvNodeType::Rotation: {
        const QvSFRotation& r = As<QvRotation>(n)->rotation;
        ApplyTransform(AxisAngle(r.axis[0], r.axis[1], r.axis[2], r.angle));
        return;
    }
    case QvNodeType::RotationXYZ: {
        const QvRotationXYZ* r = As<QvRotationXYZ>(n);
        float axis[3] = {0, 0, 0};
        axis[std::clamp(r->axis.value, 0, 2)] = 1;
        ApplyTransform(AxisAngle(axis[0], axis[1], axis[2], r->angle.value));
        return;
    }
    case QvNodeType::Scale: ApplyTransform(Scale(As<QvScale>(n)->scaleFactor.value)); return;
    case QvNodeType::MatrixTransform: {
        C4x4Matrix m;
        const QvSFMatrix& src = As<QvMatrixTransform>(n)->matrix;
        for (int r = 0; r < 4; ++r)
            for (int c = 0; c < 4; ++c) m.m[r][c] = src.value[r][c];
        ApplyTransform(m);
        return;
    }
    case QvNodeType::Units: {
        float s = static_cast<float>(MetresPerUnit(As<QvUnits>(n)->units.value));
        ApplyTransform(C4x4Matrix::Scaling(s, s, s));
        return;
    }
    case QvNodeType::ResetTransform:
        if (As<QvResetTransform>(n)->whatToReset.value & 1) {
            // Back to the identity in the world: undo the frame's own placement.
            C4x4Matrix inv;
            if (!f.world.Invert(inv)) inv.SetIdentity();
            m_state.push(QvElement::Transformation, n)->matrix = inv;
        }
        return;
    case QvNodeType::Coordinate3: m_state.push(QvElement::Coordinate3, n); return;
    case QvNodeType::Normal: m_state.push(QvElement::Normal, n); return;
    case QvNodeType::TextureCoordinate2: m_state.push(QvElement::TextureCoordinate2, n); return;
    case QvNodeType::Material: m_state.push(QvElement::Material, n); return;
    case QvNodeType::BaseColor:
    case QvNodeType::PackedColor: m_state.push(QvElement::BaseColor, n); return;
    case QvNodeType::MaterialBinding: m_state.push(QvElement::MaterialBinding, n); return;
    case QvNodeType::NormalBinding: m_state.push(QvElement::NormalBinding, n); return;
    case QvNodeType::TextureCoordinateBinding: m_state.push(QvElement::TextureCoordinateBinding, n); return;
    case QvNodeType::ShapeHints: m_state.push(QvElement::ShapeHints, n); return;
    case QvNodeType::Texture2: m_state.push(QvElement::Texture2, n); return;
    case QvNodeType::Texture2Transform: {
        const QvTexture2Transform* t = As<QvTexture2Transform>(n);
        // Scale about the centre, rotate about it, then translate (row-vector order).
        const float* c = t->center.value;
        C4x4Matrix m = C4x4Matrix::Translation(-c[0], -c[1], 0) *
                       C4x4Matrix::Scaling(t->scaleFactor.value[0], t->scaleFactor.value[1], 1) *
                       AxisAngle(0, 0, 1, t->rotation.value) *
                       C4x4Matrix::Translation(c[0] + t->translation.value[0], c[1] + t->translation.value[1], 0);
        QvElement* e = m_state.push(QvElement::Texture2Transformation, n);
        e->matrix = m * e->matrix;
        return;
    }
    case QvNodeType::Info: m_state.push(QvElement::Info, n); return;
    case QvNodeType::DrawStyle: m_state.push(QvElement::DrawStyle, n); return;
    case QvNodeType::LightModel: m_state.push(QvElement::LightModel, n); return;
    case QvNodeType::Cube:
    case QvNodeType::Sphere:
    case QvNodeType::Cone:
    case QvNodeType::Cylinder: BuildPrimitive(n, f); return;
    case QvNodeType::IndexedFaceSet:
    case QvNodeType::IndexedLineSet:
    case QvNodeType::IndexedTriangleStripSet:
    case QvNodeType::FaceSet:
    case QvNodeType::LineSet:
    case QvNodeType::TriangleStripSet:
    case QvNodeType::QuadMesh:
    case QvNodeType::PointSet: BuildShape(n, f); return;
    case QvNodeType::PerspectiveCamera:
    case QvNodeType::OrthographicCamera:
        m_state.push(QvElement::Camera, n);
        BuildCamera(n, f);
        return;
    case QvNodeType::DirectionalLight:
    case QvNodeType::PointLight:
    case QvNodeType::SpotLight:
        m_state.push(QvElement::Light, n);
        BuildLight(n, f);
        return;
    case QvNodeType::WWWInline:
    case QvNodeType::File: BuildInline(n, f, depth); return;
    case QvNodeType::AsciiText: {
        // No glyphs in the file: the text stays as a named node that carries its lines.
        const QvAsciiText* t = As<QvAsciiText>(n);
        uint64_t bytes = 0;
        for (const std::string& line : t->string.values) bytes += line.size();
        // Charged by size: a USEd text is copied at every use.
        if (!Charge(1 + t->string.values.size() + bytes / 4)) return;
        std::vector<CXStringW> lines;
        for (const std::string& line : t->string.values) lines.push_back(Wide(line));
        auto* group = new C3DGroup();
        group->GetCustomData().SetStringArray(kTextID, lines);
        AttachShape(n, group, f);
        return;
    }
    default: return; // text, fonts, complexity, labels, skipped Inventor classes
    }
}

C3DSceneNode* CVrml1Converter::AttachShape(QvNode* shape, C3DBaseObject* object, Frame& f) {
    if (m_nodes >= m_limits.baseNodes + m_inputBytes / 8) {
        delete object;
        Stop(L"too many scene nodes would be made (DEF/USE repetition).");
        return nullptr;
    }
    ++m_nodes;
    auto* n = new C3DSceneNode(object);
    n->SetName(Wide(shape->getName().empty() ? std::string(shape->className()) : shape->getName()));
    n->SetNodeLocalTM(Relative());
    m_scene.AddNode(f.node, n);
    return n;
}

namespace {
// A Texture2 that textures: a file name, or else an image of its own.
const QvTexture2* ActiveTexture(const QvElement* e) {
    if (!e) return nullptr;
    const QvTexture2* t = As<QvTexture2>(e->node);
    return !t->filename.value.empty() || !t->image.bytes.empty() ? t : nullptr;
}
} // namespace

bool CVrml1Converter::Textured() const { return ActiveTexture(m_state.top(QvElement::Texture2)) != nullptr; }

bool CVrml1Converter::MaterialColors(std::vector<float>& rgb) const {
    const QvElement* me = m_state.top(QvElement::Material);
    const QvElement* be = m_state.top(QvElement::BaseColor);
    rgb.clear();
    if (be && (!me || be->seq > me->seq)) {
        if (be->node->type() == QvNodeType::BaseColor) {
            rgb = As<QvBaseColor>(be->node)->rgb.values;
        } else {
            for (uint32_t u : As<QvPackedColor>(be->node)->orderedRGBA.values) {
                rgb.insert(rgb.end(), {float((u >> 24) & 255) / 255.0f, float((u >> 16) & 255) / 255.0f,
                                       float((u >> 8) & 255) / 255.0f});
            }
        }
    } else if (me) {
        rgb = As<QvMaterial>(me->node)->diffuseColor.values;
    }
    return rgb.size() >= 3;
}

CXStringW CVrml1Converter::ResolvePath(const std::string& ref, const std::string& base) const {
    std::string r = ref;
    if (r.rfind("file://", 0) == 0) r = r.substr(7);
    else if (r.rfind("file:", 0) == 0) r = r.substr(5);
    std::filesystem::path p(r);
    if (p.is_relative() && !base.empty()) p = std::filesystem::path(base).parent_path() / p;
    return Wide(p.lexically_normal().string());
}

uint32_t CVrml1Converter::Material(int index) {
    const QvElement* me = m_state.top(QvElement::Material);
    const QvElement* be = m_state.top(QvElement::BaseColor);
    const QvElement* te = m_state.top(QvElement::Texture2);
    const QvNode* base = be && (!me || be->seq > me->seq) ? be->node : nullptr;
    const QvMaterial* mat = me ? As<QvMaterial>(me->node) : nullptr;
    const QvTexture2* tex = ActiveTexture(te);
    // Every list cycles with its own length; the combination repeats with the longest one.
    size_t period = 1;
    if (mat) {
        for (size_t n : {mat->ambientColor.num(), mat->diffuseColor.num(), mat->specularColor.num(),
                         mat->emissiveColor.num(), mat->shininess.num(), mat->transparency.num()})
            period = std::max(period, n);
    }
    std::vector<float> baseRgb;
    if (base) {
        MaterialColors(baseRgb);
        period = std::max(period, baseRgb.size() / 3);
    }
    size_t i = index < 0 ? 0 : static_cast<size_t>(index) % period;
    auto key = std::make_tuple(mat ? mat->serial() : 0, base ? base->serial() : 0, tex ? tex->serial() : 0,
                               static_cast<int>(i));
    if (auto it = m_materials.find(key); it != m_materials.end()) return it->second;

    static const QvMaterial kDefault;
    const QvMaterial& m = mat ? *mat : kDefault;
    auto pick = [&](const auto& field, size_t k, const float* fallback) -> const float* {
        return field.num() ? field[k % field.num()] : fallback;
    };
    static const float kZero[3] = {0, 0, 0};
    C3DMaterial* hm = m_scene.CreateNewMaterial(MATERIAL_STANDARD);
    std::string name = mat && !mat->getName().empty() ? mat->getName() : std::string("Material");
    hm->SetName(Wide(name + std::to_string(m_materials.size() + 1)));
    const float* diffuse = pick(m.diffuseColor, i, kZero);
    float transparency = *pick(m.transparency, i, kZero);
    if (base && baseRgb.size() >= 3) {
        diffuse = &baseRgb[(i % (baseRgb.size() / 3)) * 3];
        if (base->type() == QvNodeType::PackedColor) {
            const auto& packed = As<QvPackedColor>(base)->orderedRGBA.values;
            uint32_t u = packed[i % packed.size()];
            transparency = 1.0f - float(u & 255) / 255.0f;
        }
    }
    hm->SetDiffuseColor(Color(diffuse));
    hm->SetTransparency(transparency);
    if (hm->GetClass() == MATERIAL_STANDARD) {
        auto* sm = static_cast<C3DStandardMaterial*>(hm);
        sm->SetAmbientColor(Color(pick(m.ambientColor, i, kZero)));
        sm->SetSpecularColor(Color(pick(m.specularColor, i, kZero)));
        float shininess = *pick(m.shininess, i, kZero);
        sm->SetSpecularFactor(shininess);
        sm->SetShininess(shininess);
    }
    if (tex && tex->filename.value.empty()) {
        // An image written in the file: there is no file to name, so the material keeps the
        // pixels themselves (as read: bottom row first, `components` bytes a pixel).
        const QvSFImage& img = tex->image;
        // Every material made from the texture keeps its own copy: those copies are capped
        // against the input, or a long material list would multiply a large image.
        m_imageBytes += img.bytes.size();
        if (m_imageBytes > m_limits.baseImageBytes + m_limits.imageFactor * m_inputBytes) {
            if (!m_reportedImages) Log(L"VRML 1.0: texture images were left out of materials past the size allowed.");
            m_reportedImages = true;
        } else {
            CCustomData* bag = hm->GetCustomData().GetCustomData(kImageID, true);
            bag->SetInt(kImageWidth, img.width);
            bag->SetInt(kImageHeight, img.height);
            bag->SetInt(kImageComponents, img.components);
            bag->SetInt(kImageWrap, (tex->wrapS.value == 0 ? 1 : 0) | (tex->wrapT.value == 0 ? 2 : 0));
            bag->SetBinary(kImagePixels, img.bytes.data(), img.bytes.size());
        }
    } else if (tex) {
        CXStringW file = ResolvePath(tex->filename.value, m_currentFile ? *m_currentFile : m_rootFile);
        if (CMaterialMap* map = hm->AddMaterialMap(file, 1, MAP_DIFFUSE, PROJ_UV)) {
            map->SetFlag(MAPF_TILE_U, tex->wrapS.value == 0);
            map->SetFlag(MAPF_TILE_V, tex->wrapT.value == 0);
        }
        m_scene.AddRequiredFile(file);
    }
    uint32_t id = hm->GetID();
    m_materials.emplace(key, id);
    return id;
}

void CVrml1Converter::BuildPrimitive(QvNode* n, Frame& f) {
    const C3DPoint origin(0, 0, 0);
    const bool uv = Textured();
    const uint32_t material = Material(0);
    C3DSceneNode* built = nullptr;
    switch (n->type()) {
    case QvNodeType::Cube: {
        const QvCube* c = As<QvCube>(n);
        built = CreateCube(origin, c->width.value, c->height.value, c->depth.value, uv, material, -1);
        break;
    }
    case QvNodeType::Sphere:
        built = CreateSphere(origin, As<QvSphere>(n)->radius.value, 16, 16, uv, material, -1);
        break;
    case QvNodeType::Cone: {
        const QvCone* c = As<QvCone>(n);
        if (!(c->parts.value & (QV_CONE_SIDES | QV_CONE_BOTTOM))) return;
        built = CreateCone(origin, c->bottomRadius.value, c->height.value, 0, 16, 1, uv, material, -1);
        break;
    }
    case QvNodeType::Cylinder: {
        const QvCylinder* c = As<QvCylinder>(n);
        const bool caps = (c->parts.value & (QV_CYL_TOP | QV_CYL_BOTTOM)) != 0;
        if (!caps && !(c->parts.value & QV_CYL_SIDES)) return;
        built = CreateCylinder(origin, c->radius.value, c->height.value, 0, 16, 1, caps, uv, material, -1);
        break;
    }
    default: return;
    }
    std::unique_ptr<C3DSceneNode> holder(built);
    std::unique_ptr<C3DBaseObject> obj = holder ? holder->ReleaseObject() : nullptr;
    if (!obj) return;
    if (obj->IsGeomObject()) {
        const auto& g = static_cast<const C3DGeomObject&>(*obj);
        uint64_t cost = (g.GetPointList() ? g.GetPointList()->size() * 3 : 0) +
                        (g.GetFaceList() ? g.GetFaceList()->GetNumberOfIndices() : 0);
        if (!Charge(cost)) return;
    }
    AttachShape(n, obj.release(), f);
}

const QvVertexProperty* CVrml1Converter::OwnVertices(const QvNode* shape) {
    const QvNode* p = As<QvVertexShape>(shape)->vertexProperty.value;
    return p && p->type() == QvNodeType::VertexProperty ? As<QvVertexProperty>(p) : nullptr;
}

// Vertices: the shape's own vertexProperty, else the state's coordinates, else the default.
const QvMFVec3f& CVrml1Converter::Coordinates(const QvVertexProperty* own) const {
    static const QvCoordinate3 kDefaultCoords;
    if (own && own->vertex.num()) return own->vertex;
    if (const QvElement* e = m_state.top(QvElement::Coordinate3)) return As<QvCoordinate3>(e->node)->point;
    return kDefaultCoords.point;
}

void CVrml1Converter::BuildShape(QvNode* n, Frame& f) {
    const QvVertexProperty* vp = OwnVertices(n);
    const QvMFVec3f* coords = &Coordinates(vp);
    const int64_t ncoords = static_cast<int64_t>(coords->num());

    if (n->type() == QvNodeType::PointSet) {
        BuildPoints(n, f);
        return;
    }

    Corners c;
    const QvNodeType t = n->type();
    const bool lines = t == QvNodeType::IndexedLineSet || t == QvNodeType::LineSet;
    const size_t minCorners = lines ? 2 : 3;
    auto inRange = [&](int64_t i) { return i >= 0 && i < ncoords; };

    if (t == QvNodeType::IndexedFaceSet || t == QvNodeType::IndexedLineSet) {
        const auto& idx = As<QvIndexedShape>(n)->coordIndex.values;
        if (!Charge(idx.size())) return;
        c.indexed = true;
        c.reserve(idx.size(), idx.size() / 3 + 1);
        int32_t ordinal = 0, ref = 0;
        bool bad = false;
        for (size_t p = 0; p <= idx.size(); ++p) {
            if (p == idx.size() || idx[p] < 0) {
                size_t count = c.coord.size() - c.faceStart.back();
                if (count == 0 && p == idx.size()) break;
                if (bad || count < minCorners) {
                    c.dropFace();
                    ++m_droppedFaces;
                } else {
                    c.endFace(ordinal, ordinal);
                }
                ++ordinal;
                bad = false;
                continue;
            }
            if (!inRange(idx[p])) bad = true;
            c.corner(idx[p], static_cast<int32_t>(p), ref++);
        }
    } else if (t == QvNodeType::IndexedTriangleStripSet) {
        const auto& idx = As<QvIndexedShape>(n)->coordIndex.values;
        if (!Charge(idx.size() * 3)) return;
        c.indexed = true;
        int32_t strip = 0, ordinal = 0;
        size_t s = 0;
        for (size_t p = 0; p <= idx.size(); ++p) {
            if (p < idx.size() && idx[p] >= 0) continue;
            // Positions s..p-1 form one strip; every other triangle turns the other way.
            for (size_t k = s; k + 2 < p; ++k) {
                size_t a = k, b = k + 1, d = k + 2;
                if ((k - s) & 1) std::swap(a, b);
                if (inRange(idx[a]) && inRange(idx[b]) && inRange(idx[d])) {
                    c.corner(idx[a], int32_t(a), int32_t(a - strip));
                    c.corner(idx[b], int32_t(b), int32_t(b - strip));
                    c.corner(idx[d], int32_t(d), int32_t(d - strip));
                    c.endFace(strip, ordinal);
                } else {
                    ++m_droppedFaces;
                }
                ++ordinal;
            }
            ++strip;
            s = p + 1;
        }
    } else if (t == QvNodeType::FaceSet || t == QvNodeType::LineSet || t == QvNodeType::TriangleStripSet) {
        const QvNonIndexedShape* ns = As<QvNonIndexedShape>(n);
        int64_t v = std::max<int64_t>(0, ns->startIndex.value);
        const int64_t start = v;
        int32_t ordinal = 0, partNo = 0;
        for (int32_t count : ns->numVertices.values) {
            if (v >= ncoords) break;
            int64_t k = count < 0 ? ncoords - v : count;
            if (k > ncoords - v) {
                ++m_droppedFaces;
                break;
            }
            if (!Charge(static_cast<uint64_t>(k) * 3)) return;
            if (t == QvNodeType::TriangleStripSet) {
                for (int64_t i = 0; i + 2 < k; ++i) {
                    int64_t a = v + i, b = v + i + 1, d = v + i + 2;
                    if (i & 1) std::swap(a, b);
                    for (int64_t x : {a, b, d}) c.corner(int32_t(x), int32_t(x), int32_t(x - start));
                    c.endFace(partNo, ordinal++);
                }
            } else if (static_cast<size_t>(k) >= minCorners) {
                for (int64_t i = 0; i < k; ++i) c.corner(int32_t(v + i), int32_t(v + i), int32_t(v + i - start));
                c.endFace(partNo, ordinal++);
            } else {
                ++m_droppedFaces;
                ++ordinal;
            }
            ++partNo;
            v += k;
        }
    } else if (t == QvNodeType::QuadMesh) {
        const QvQuadMesh* q = As<QvQuadMesh>(n);
        const int64_t start = std::max<int64_t>(0, q->startIndex.value);
        const int64_t cols = q->verticesPerRow.value, rows = q->verticesPerColumn.value;
        if (cols < 2 || rows < 2 || start >= ncoords) return;
        const int64_t usableRows = std::min<int64_t>(rows, (ncoords - start) / cols);
        if (usableRows < rows) ++m_droppedFaces;
        if (usableRows < 2 || !Charge(static_cast<uint64_t>(usableRows) * static_cast<uint64_t>(cols) * 4)) return;
        int32_t ordinal = 0;
        for (int64_t r = 0; r + 1 < usableRows; ++r)
            for (int64_t k = 0; k + 1 < cols; ++k) {
                const int64_t a = start + r * cols + k;
                for (int64_t x : {a, a + cols, a + cols + 1, a + 1})
                    c.corner(int32_t(x), int32_t(x), int32_t(x - start));
                c.endFace(int32_t(r), ordinal++);
            }
    } else {
        return;
    }
    if (c.faces() == 0) return;
    if (lines) BuildLines(n, c, f);
    else BuildMesh(n, c, f);
}

namespace {

// The points a shape uses, renumbered in order of first use.
struct Renumbered {
    std::vector<uint32_t> corners; // per corner: new point index
    std::vector<int32_t> used;     // per new point: the coordinate index
};

Renumbered Renumber(const std::vector<int32_t>& coord, int64_t ncoords) {
    Renumbered r;
    r.corners.resize(coord.size());
    if (static_cast<uint64_t>(ncoords) <= coord.size() * 4 + 1024) {
        std::vector<int32_t> map(static_cast<size_t>(ncoords), -1);
        for (size_t i = 0; i < coord.size(); ++i) {
            int32_t& m = map[static_cast<size_t>(coord[i])];
            if (m < 0) {
                m = static_cast<int32_t>(r.used.size());
                r.used.push_back(coord[i]);
            }
            r.corners[i] = static_cast<uint32_t>(m);
        }
    } else {
        std::unordered_map<int32_t, uint32_t> map;
        for (size_t i = 0; i < coord.size(); ++i) {
            auto [it, fresh] = map.try_emplace(coord[i], static_cast<uint32_t>(r.used.size()));
            if (fresh) r.used.push_back(coord[i]);
            r.corners[i] = it->second;
        }
    }
    return r;
}

} // namespace

void CVrml1Converter::BuildMesh(QvNode* n, const Corners& c, Frame& f) {
    const QvVertexProperty* vp = OwnVertices(n);
    const QvMFVec3f* coords = &Coordinates(vp);

    Renumbered rn = Renumber(c.coord, static_cast<int64_t>(coords->num()));
    auto obj = std::make_unique<C3DObject>();
    auto points = std::make_unique<C3DPointList>();
    points->Reserve(rn.used.size());
    for (int32_t i : rn.used) {
        const float* p = (*coords)[static_cast<size_t>(i)];
        points->Add(p[0], p[1], p[2]);
    }
    const QvIndexedShape* ix = c.indexed ? As<QvIndexedShape>(n) : nullptr;

    // Materials.
    int32_t binding = QV_BIND_DEFAULT;
    if (const QvElement* e = m_state.top(QvElement::MaterialBinding))
        binding = As<QvMaterialBinding>(e->node)->value.value;
    auto faces = std::make_unique<C3DFaceList>();
    faces->Reserve(c.faces(), c.coord.size());
    const bool perVertex = binding == QV_BIND_PER_VERTEX || binding == QV_BIND_PER_VERTEX_INDEXED;
    // Host materials of this shape by material index, so each is looked up once per shape.
    std::unordered_map<int, uint32_t> shapeMaterials;
    auto materialOf = [&](int i) {
        auto [it, fresh] = shapeMaterials.try_emplace(i, 0u);
        if (fresh) it->second = Material(i);
        return it->second;
    };
    for (size_t fi = 0; fi < c.faces(); ++fi) {
        int matIndex = 0;
        switch (binding) {
        case QV_BIND_PER_PART: matIndex = c.part[fi]; break;
        case QV_BIND_PER_FACE: matIndex = c.ordinal[fi]; break;
        case QV_BIND_PER_PART_INDEXED:
        case QV_BIND_PER_FACE_INDEXED: {
            const int32_t ord = binding == QV_BIND_PER_PART_INDEXED ? c.part[fi] : c.ordinal[fi];
            matIndex =
                ix && UsesOwnIndices(ix->materialIndex) ? At(ix->materialIndex.values, static_cast<size_t>(ord)) : ord;
            break;
        }
        default: break;
        }
        faces->SetCurrentMaterial(materialOf(matIndex));
        const uint32_t b = c.faceStart[fi], e = c.faceStart[fi + 1];
        faces->AddFace(rn.corners.data() + b, static_cast<int>(e - b));
    }
    obj->SetPointList(points.release());
    obj->SetFaceList(faces.release());

    // Per-vertex materials become vertex colours.
    std::vector<float> rgb;
    if (perVertex && MaterialColors(rgb)) {
        auto ch = std::make_unique<CVCChannel>();
        const size_t ncolors = rgb.size() / 3;
        for (size_t k = 0; k < ncolors; ++k) ch->GetVCPointList()->Add(Color(&rgb[k * 3]));
        CVCFaceList* vf = ch->GetVCFaceList();
        std::vector<uint32_t> idx;
        for (size_t fi = 0; fi < c.faces(); ++fi) {
            idx.clear();
            for (uint32_t k = c.faceStart[fi]; k < c.faceStart[fi + 1]; ++k) {
                int64_t ci;
                if (binding == QV_BIND_PER_VERTEX) ci = c.ref[k];
                else if (ix && UsesOwnIndices(ix->materialIndex))
                    ci = At(ix->materialIndex.values, static_cast<size_t>(c.pos[k]));
                else ci = c.coord[k];
                ci = ci < 0 ? 0 : ci % static_cast<int64_t>(ncolors);
                idx.push_back(static_cast<uint32_t>(ci));
            }
            vf->AddFace(idx.data(), static_cast<int>(idx.size()));
        }
        int32_t id = obj->AddChannel(ch.release(), -1);
        obj->SetGlobalVCChannel(id);
    }

    // Texture coordinates: explicit ones, else a box projection when a texture is on.
    const QvMFVec2f* uvs = nullptr;
    if (vp && vp->texCoord.num()) uvs = &vp->texCoord;
    else if (const QvElement* e = m_state.top(QvElement::TextureCoordinate2))
        uvs = &As<QvTextureCoordinate2>(e->node)->point;
    const C4x4Matrix& tm = m_state.top(QvElement::Texture2Transformation)->matrix;
    auto addUV = [&](CUVWPointList& list, float u, float v) {
        C3DPoint p = tm.TransformPoint(C3DPoint(u, v, 0));
        list.Add(p.x, p.y, 0);
    };
    if (uvs && uvs->num()) {
        auto ch = std::make_unique<CUVWChannel>();
        for (size_t k = 0; k < uvs->num(); ++k) addUV(*ch->GetUVWPointList(), (*uvs)[k][0], (*uvs)[k][1]);
        int32_t tb = QV_BIND_DEFAULT;
        if (const QvElement* e = m_state.top(QvElement::TextureCoordinateBinding))
            tb = As<QvTextureCoordinateBinding>(e->node)->value.value;
        const int64_t nuv = static_cast<int64_t>(uvs->num());
        std::vector<uint32_t> idx;
        for (size_t fi = 0; fi < c.faces(); ++fi) {
            idx.clear();
            for (uint32_t k = c.faceStart[fi]; k < c.faceStart[fi + 1]; ++k) {
                int64_t ti;
                if (tb == QV_BIND_PER_VERTEX) ti = c.ref[k];
                else if (ix && UsesOwnIndices(ix->textureCoordIndex))
                    ti = At(ix->textureCoordIndex.values, static_cast<size_t>(c.pos[k]));
                else ti = c.coord[k];
                idx.push_back(static_cast<uint32_t>(std::clamp<int64_t>(ti, 0, nuv - 1)));
            }
            ch->GetUVWFaceList()->AddFace(idx.data(), static_cast<int>(idx.size()));
        }
        int32_t id = obj->AddChannel(ch.release(), 1);
        obj->SetGlobalUVWChannel(id);
    } else if (Textured()) {
        const C3DBox box = obj->GetPointList()->GetBoundingBox();
        float size[3] = {box.max.x - box.min.x, box.max.y - box.min.y, box.max.z - box.min.z};
        float lo[3] = {box.min.x, box.min.y, box.min.z};
        int s = 0;
        for (int a = 1; a < 3; ++a)
            if (size[a] > size[s]) s = a;
        int t = s == 0 ? 1 : 0;
        for (int a = 0; a < 3; ++a)
            if (a != s && size[a] > size[t]) t = a;
        const float len = size[s] > 0 ? size[s] : 1;
        auto ch = std::make_unique<CUVWChannel>();
        const C3DPointList& pts = *obj->GetPointList();
        for (int k = 0; k < pts.GetSize(); ++k) {
            C3DPoint p = pts.GetPoint(k);
            const float v[3] = {p.x, p.y, p.z};
            addUV(*ch->GetUVWPointList(), (v[s] - lo[s]) / len, (v[t] - lo[t]) / len);
        }
        const C3DFaceList& fl = *obj->GetFaceList();
        for (int fi = 0; fi < fl.GetNumberOfFaces(); ++fi)
            ch->GetUVWFaceList()->AddFace(fl.GetFaceIndices(fi), fl.GetFaceSize(fi));
        int32_t id = obj->AddChannel(ch.release(), 1);
        obj->SetGlobalUVWChannel(id);
    }

    AddNormals(*obj, n, c, vp);

    if (const QvElement* e = m_state.top(QvElement::ShapeHints)) {
        const QvShapeHints* h = As<QvShapeHints>(e->node);
        obj->SetSmoothAngle(h->creaseAngle.value * 57.29578f);
        if (h->vertexOrdering.value == QV_CLOCKWISE) obj->InvertFaceWinding();
    } else {
        obj->SetSmoothAngle(0.5f * 57.29578f);
    }
    AttachShape(n, obj.release(), f);
}

// Normals given in the file, bound as the state (or the shape's own vertexProperty) says.
// With too few of them for the binding the mesh is left to the smoothing angle instead.
void CVrml1Converter::AddNormals(C3DObject& obj, const QvNode* n, const Corners& c, const QvVertexProperty* vp) {
    const QvMFVec3f* normals = nullptr;
    int32_t binding = QV_BIND_DEFAULT;
    if (vp && vp->normal.num()) {
        normals = &vp->normal;
        binding = vp->normalBinding.value;
    } else if (const QvElement* e = m_state.top(QvElement::Normal)) {
        normals = &As<QvNormal>(e->node)->vector;
        if (const QvElement* b = m_state.top(QvElement::NormalBinding))
            binding = As<QvNormalBinding>(b->node)->value.value;
    }
    if (!normals || normals->num() == 0 || normals->num() > INT32_MAX) return;
    const int64_t count = static_cast<int64_t>(normals->num());
    const QvIndexedShape* ix = c.indexed ? As<QvIndexedShape>(n) : nullptr;
    const bool ownIndices = ix && UsesOwnIndices(ix->normalIndex);
    auto indexed = [&](size_t at, int64_t fallback) -> int64_t {
        if (!ownIndices) return fallback;
        return at < ix->normalIndex.values.size() ? ix->normalIndex.values[at] : -1;
    };
    std::vector<int32_t> picked(c.coord.size());
    for (size_t fi = 0; fi < c.faces(); ++fi) {
        for (uint32_t k = c.faceStart[fi]; k < c.faceStart[fi + 1]; ++k) {
            int64_t v;
            switch (binding) {
            case QV_BIND_OVERALL: v = 0; break;
            case QV_BIND_PER_PART: v = c.part[fi]; break;
            case QV_BIND_PER_FACE: v = c.ordinal[fi]; break;
            case QV_BIND_PER_PART_INDEXED: v = indexed(static_cast<size_t>(c.part[fi]), c.part[fi]); break;
            case QV_BIND_PER_FACE_INDEXED: v = indexed(static_cast<size_t>(c.ordinal[fi]), c.ordinal[fi]); break;
            case QV_BIND_PER_VERTEX: v = c.ref[k]; break;
            default: v = indexed(static_cast<size_t>(c.pos[k]), c.coord[k]); break; // DEFAULT, PER_VERTEX_INDEXED
            }
            if (v < 0 || v >= count) return;
            picked[k] = static_cast<int32_t>(v);
        }
    }
    // Only the vectors the shape uses: one long Normal list serves many small shapes.
    Renumbered rn = Renumber(picked, count);
    if (!Charge(rn.used.size() * 3 + picked.size())) return;
    auto ch = std::make_unique<CSpecNormalChannel>();
    C3DVectorList* vectors = ch->GetNormalVectorList();
    vectors->Reserve(rn.used.size());
    for (int32_t i : rn.used) {
        const float* v = (*normals)[static_cast<size_t>(i)];
        vectors->Add(v[0], v[1], v[2]);
    }
    CFaceList::IndexArray offsets(c.faceStart.size()), idx(rn.corners.size());
    std::copy(c.faceStart.begin(), c.faceStart.end(), offsets.begin());
    std::copy(rn.corners.begin(), rn.corners.end(), idx.begin());
    CFaceList::FlagArray flags(c.faces());
    if (ch->GetNormalFaceList()->Adopt(std::move(offsets), std::move(idx), std::move(flags)))
        obj.AddChannel(ch.release(), -1);
}

void CVrml1Converter::BuildLines(QvNode* n, const Corners& c, Frame& f) {
    const QvVertexProperty* vp = OwnVertices(n);
    const QvMFVec3f* coords = &Coordinates(vp);

    Renumbered rn = Renumber(c.coord, static_cast<int64_t>(coords->num()));
    auto curve = std::make_unique<C3DCurve>();
    auto points = std::make_unique<C3DPointList>();
    points->Reserve(rn.used.size());
    for (int32_t i : rn.used) {
        const float* p = (*coords)[static_cast<size_t>(i)];
        points->Add(p[0], p[1], p[2]);
    }
    auto faces = std::make_unique<C3DFaceList>();
    faces->SetCurrentMaterial(Material(0));
    for (size_t fi = 0; fi < c.faces(); ++fi) {
        const uint32_t b = c.faceStart[fi], e = c.faceStart[fi + 1];
        faces->AddFace(rn.corners.data() + b, static_cast<int>(e - b));
    }
    curve->SetPointList(points.release());
    curve->SetFaceList(faces.release());
    curve->SetDegree(1);
    AttachShape(n, curve.release(), f);
}

void CVrml1Converter::BuildPoints(QvNode* n, Frame& f) {
    const QvPointSet* ps = As<QvPointSet>(n);
    const QvMFVec3f* coords = &Coordinates(OwnVertices(n));
    const int64_t ncoords = static_cast<int64_t>(coords->num());
    const int64_t start = std::max<int64_t>(0, ps->startIndex.value);
    if (start >= ncoords) return;
    int64_t count = ps->numPoints.value < 0 ? ncoords - start : std::min<int64_t>(ps->numPoints.value, ncoords - start);
    if (count <= 0 || !Charge(static_cast<uint64_t>(count) * 3)) return;
    auto obj = std::make_unique<C3DObject>();
    auto points = std::make_unique<C3DPointList>();
    points->Reserve(static_cast<size_t>(count));
    for (int64_t i = 0; i < count; ++i) {
        const float* p = (*coords)[static_cast<size_t>(start + i)];
        points->Add(p[0], p[1], p[2]);
    }
    obj->SetPointList(points.release());
    obj->SetFaceList(new C3DFaceList());
    AttachShape(n, obj.release(), f);
}

void CVrml1Converter::BuildCamera(QvNode* n, Frame& f) {
    const QvCamera* cam = As<QvCamera>(n);
    auto* c = new C3DCamera();
    if (n->type() == QvNodeType::PerspectiveCamera) {
        c->SetProjection(PROJECTION_PERSPECTIVE);
        c->SetVFov(As<QvPerspectiveCamera>(n)->heightAngle.value);
    } else {
        c->SetProjection(PROJECTION_ORTHOGRAPHIC);
        c->SetVOrthoZoom(As<QvOrthographicCamera>(n)->height.value);
    }
    C3DSceneNode* node = AttachShape(n, c, f);
    if (!node) return;
    const QvSFRotation& o = cam->orientation;
    node->SetNodeLocalTM(AxisAngle(o.axis[0], o.axis[1], o.axis[2], o.angle) * Translate(cam->position.value) *
                         Relative());
}

void CVrml1Converter::BuildLight(QvNode* n, Frame& f) {
    const QvLight* l = As<QvLight>(n);
    auto* light = new C3DLight();
    light->color = Color(l->color.value);
    light->intensity = l->intensity.value;
    light->on = l->on.value;
    switch (n->type()) {
    case QvNodeType::DirectionalLight: {
        light->SetLightKind(LIGHT_DIRECTIONAL);
        const float* d = As<QvDirectionalLight>(n)->direction.value;
        light->direction = C3DVector(d[0], d[1], d[2]);
        break;
    }
    case QvNodeType::PointLight: {
        light->SetLightKind(LIGHT_POINT);
        const float* p = As<QvPointLight>(n)->location.value;
        light->location = C3DPoint(p[0], p[1], p[2]);
        break;
    }
    default: {
        const QvSpotLight* s = As<QvSpotLight>(n);
        light->SetLightKind(LIGHT_SPOT);
        light->location = C3DPoint(s->location.value[0], s->location.value[1], s->location.value[2]);
        light->direction = C3DVector(s->direction.value[0], s->direction.value[1], s->direction.value[2]);
        light->cutOffAngle = s->cutOffAngle.value;
        break;
    }
    }
    // Host lights light everything; the Separator whose shapes this one lights is kept
    // beside it (0: the whole scene).
    light->GetCustomData().SetUInt64(kLightScopeID, f.scope ? f.scope->GetNodeID() : 0);
    AttachShape(n, light, f);
}

void CVrml1Converter::BuildInline(QvNode* n, Frame& f, int depth) {
    const std::string& url =
        n->type() == QvNodeType::WWWInline ? As<QvWWWInline>(n)->name.value : As<QvFile>(n)->name.value;
    if (url.empty()) return;
    if (m_rootFile.empty()) {
        Log(Wide("VRML 1.0: '" + url + "' was not read (the file was read from memory)."));
        return;
    }
    if (url.find("://") != std::string::npos && url.rfind("file://", 0) != 0) {
        Log(Wide("VRML 1.0: '" + url + "' is not a local file; it was not read."));
        return;
    }
    if (static_cast<int>(m_inlineStack.size()) > m_limits.maxInlineDepth || m_inlineLoads >= m_limits.maxInlineLoads) {
        Log(Wide("VRML 1.0: '" + url + "' was not read (too many inlined files, or nested too deeply)."));
        return;
    }
    const std::string path = PathToUtf8(ResolvePath(url, *f.file));
    std::error_code ec;
    std::string canonical = std::filesystem::weakly_canonical(std::filesystem::path(path), ec).string();
    if (ec) canonical = path;
    // Only files inside the folder tree of the file the user opened.
    if (canonical.compare(0, m_rootFolder.size(), m_rootFolder) != 0 ||
        (canonical.size() > m_rootFolder.size() && canonical[m_rootFolder.size()] != '/')) {
        Log(Wide("VRML 1.0: '" + url + "' lies outside the folder of the file; it was not read."));
        return;
    }
    if (std::find(m_inlineStack.begin(), m_inlineStack.end(), canonical) != m_inlineStack.end()) {
        Log(Wide("VRML 1.0: '" + url + "' includes itself; the inner copy was not read."));
        return;
    }
    ++m_inlineLoads;
    IoFile file(m_parser.IsSilentMode());
    if (!file.OpenFile(canonical, true)) {
        Log(Wide("VRML 1.0: '" + url + "' could not be opened."));
        return;
    }
    auto contents = std::make_unique<QvFileContents>();
    {
        // The input (and its DEF names' references) goes before the walk, which then
        // frees the parts it is done with.
        QvIn in(file.GetData());
        std::string errors;
        in.setSink([&](const std::string& s) { errors += s; });
        if (!QvReadFile(in, *contents)) {
            Log(Wide("VRML 1.0: '" + url + "' could not be read: " + errors));
            return;
        }
    }
    m_inputBytes += file.GetData().size();
    file.CloseFile();
    m_files.push_back(std::make_unique<std::string>(canonical));
    Frame inner;
    C3DSceneNode* hn =
        OpenNode(f, n->getName().empty() ? std::filesystem::path(canonical).stem().string() : n->getName(), inner);
    if (!hn) return;
    inner.file = m_files.back().get();
    m_inlineStack.push_back(canonical);
    m_state.push();
    m_state.push(QvElement::Transformation, n)->matrix.SetIdentity();
    for (QvNode* c : contents->nodes) {
        if (Stopped()) break;
        Walk(c, inner, depth + 1, c->refs() == 1);
    }
    m_state.pop();
    m_inlineStack.pop_back();
    m_inlined.push_back(std::move(contents));
    CloseNode(hn);
}

} // namespace vrml1import
