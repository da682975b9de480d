// The walk from a VRML97 node graph to host scene nodes. A name is given to every
// unnamed grouping node from the shared counter and written back into the VRML
// node, so that a node USEd twice comes out twice under one name. Shared geometry
// is built once and copied for later uses; shared subtrees are walked again for
// each use (they sit under different transforms), which is what the caps bound.
#include "vrml/vrml97/import/ImportConverter.h"

#include <cmath>
#include <filesystem>

#include "plugin/host/Keys.h"
#include "plugin/host/Primitives.h"
#include "vrml/vrml97/Doc.h"
#include "vrml/vrml97/System.h"
#include "vrml/vrml97/VrmlNamespace.h"
#include "vrml/vrml97/VrmlNodeProto.h"
#include "vrml/vrml97/VrmlNodes.h"
#include "vrml/vrml97/VrmlScene.h"
#include "vrml/vrml97/import/ImportColor.h"
#include "vrml/vrml97/import/ImportGeometry.h"
#include "vrml/vrml97/import/ImportGzip.h"
#include "vrml/vrml97/import/ImportNames.h"

namespace vrml97import {

namespace {

constexpr uint32_t kShadingGroupName = FourCC("SGNM");
constexpr uint32_t kPlacementName = FourCC("P2DT");
constexpr uint32_t kFileRecordName = FourCC("FILE");
constexpr uint32_t kObjectName = FourCC("NAME");

std::string Canonical(const std::string& file) {
    std::error_code ec;
    std::filesystem::path p = std::filesystem::weakly_canonical(file, ec);
    return ec ? file : p.string();
}

CXStringW Wide(const char* s) { return CXStringW(Utf8ToWide(s ? s : "")); }

void AddMatrixKey(C3DSceneNode& node, const C4x4Matrix& m) {
    std::unique_ptr<C3DKey> key = C3DKeyframable::CreateKey(KEY_MATRIX, 0);
    static_cast<C3DMatrixKey*>(key.get())->matrix = m;
    node.AddKey(std::move(key));
}

// The engine's matrix is column-vector (translation in the last column); the
// host's is row-vector (translation in the last row): the transpose.
C4x4Matrix TransformMatrix(const VrmlNodeTransform& t) {
    double v[16];
    t.getMatrix(v);
    C4x4Matrix m;
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) m.m[r][c] = static_cast<float>(v[c * 4 + r]);
    return m;
}

// Children by kind: a group's children, a PROTO instance's instantiated nodes,
// a Switch's choices or an LOD's levels.
const VrmlMFNode* ChildrenOf(VrmlNode& n) {
    if (VrmlNodeGroup* g = n.asGroup()) return &g->d_children;
    if (VrmlNodeProto* p = n.asProto()) {
        if (!p->isInstantiated()) p->instantiate();
        return &p->getNodes();
    }
    if (VrmlNodeSwitch* s = n.asSwitch()) return &s->d_choice;
    if (VrmlNodeLOD* l = n.asLOD()) return &l->d_level;
    return nullptr;
}

const VrmlMFNode* AlternativesOf(VrmlNode& n) {
    if (VrmlNodeSwitch* s = n.asSwitch()) return &s->d_choice;
    if (VrmlNodeLOD* l = n.asLOD()) return &l->d_level;
    return nullptr;
}

C3DVector Vec3(const VrmlSFVec3f& v) { return {v.x(), v.y(), v.z()}; }

// Drops a numeric list held by a node that nothing else can reach any more: the
// node sits in one SFNode field only (no DEF name, no second user).
void ReleaseList(VrmlMFVec3f& v) { v.set(0, nullptr); }
void ReleaseList(VrmlMFVec2f& v) { v.set(0, nullptr); }
void ReleaseList(VrmlMFInt& v) { v.set(0, nullptr); }

// Once a face set has been converted it is copied from the host object for any
// later use, so its big arrays can go before the next mesh is built: the import
// then never holds a mesh twice over. Shared (DEF'd or USEd) data nodes stay.
void ReleaseConverted(VrmlNode& g) {
    VrmlNodeIFaceSet* f = g.asIFaceSet();
    if (!f) return;
    ReleaseList(f->d_coordIndex);
    ReleaseList(f->d_colorIndex);
    ReleaseList(f->d_texCoordIndex);
    ReleaseList(f->d_normalIndex);
    if (VrmlNode* c = f->d_coord.get(); c && c->refCount() == 1 && c->asCoordinate())
        ReleaseList(c->asCoordinate()->d_point);
    if (VrmlNode* t = f->d_texCoord.get(); t && t->refCount() == 1 && t->asTextureCoordinate())
        ReleaseList(t->asTextureCoordinate()->d_point);
    if (VrmlNode* n = f->d_normal.get(); n && n->refCount() == 1 && n->asNormal()) ReleaseList(n->asNormal()->d_vector);
}

} // namespace

CVrml97Converter::CVrml97Converter(C3DScene& scene, const CFileParser& parser, CIoOptions& log, std::string worldFile,
                                   uint64_t inputBytes, ImportLimits limits)
    : m_scene(scene), m_parser(parser), m_log(log), m_limits(limits), m_inputBytes(inputBytes) {
    std::string canonical = Canonical(worldFile);
    m_rootFrame.reset(new InlineFrame{nullptr, std::move(worldFile), std::move(canonical), 0});
}

CVrml97Converter::~CVrml97Converter() = default;

void CVrml97Converter::Log(const CXStringW& text) { m_log.AddLogInfo(LOG_INFO, text); }

uint64_t CVrml97Converter::NodeCap() const {
    return std::min(m_limits.maxNodes, m_limits.baseNodes + m_inputBytes / m_limits.nodeDivisor);
}

void CVrml97Converter::Stop(const wchar_t* why) {
    if (!m_truncated) Log(CXStringW(L"The VRML97 import stopped early: ") + why);
    m_truncated = true;
}

bool CVrml97Converter::Charge(uint64_t elements) {
    m_elements += elements;
    if (m_elements > m_limits.baseElements + m_limits.elementFactor * m_inputBytes) {
        Stop(L"the world's shared geometry would grow past its cap (DEF/USE or PROTO repetition).");
        return false;
    }
    return true;
}

C3DSceneNode* CVrml97Converter::AddNode(C3DSceneNode* parent, C3DBaseObject* object) {
    if (Stopped() || m_nodes >= NodeCap()) {
        delete object;
        if (!Stopped())
            Stop((L"more than " + std::to_wstring(NodeCap()) +
                  L" scene nodes would be made (DEF/USE or PROTO repetition); the rest is left out.")
                     .c_str());
        return nullptr;
    }
    ++m_nodes;
    return m_scene.AddNode(parent, new C3DSceneNode(object));
}

CXStringW CVrml97Converter::NodeName(VrmlNode& node) {
    const char* def = node.name();
    if (*def && !IsGeneratedName(def)) return SanitizeName(def);
    CXStringW name = NumberedName(L"t");
    node.setName(PathToUtf8(name).c_str());
    return name;
}

void CVrml97Converter::ConvertRoot(VrmlNode* root) {
    if (root) ConvertGroup(nullptr, root, CXStringW(), m_rootFrame.get(), 0);
}

void CVrml97Converter::ConvertGroup(C3DSceneNode* parent, VrmlNode* node, const CXStringW& parentPath,
                                    const InlineFrame* frame, int depth) {
    if (Stopped()) return;
    if (depth > m_limits.maxDepth) {
        if (!m_depthReported)
            Log(L"Nodes nested more than " + CXStringW(std::to_wstring(m_limits.maxDepth)) +
                L" levels deep were left out.");
        m_depthReported = true;
        return;
    }
    const VrmlMFNode* kids = ChildrenOf(*node);
    if (!kids || kids->size() == 0) return;
    CXStringW path = JoinPath(parentPath, NodeName(*node));
    for (size_t i = 0; i < kids->size(); ++i) {
        if (m_parser.IsCancelled()) {
            m_cancelled = true;
            return;
        }
        if (Stopped()) return;
        if (++m_visits > m_limits.baseVisits + m_limits.visitFactor * m_inputBytes) {
            Stop(L"too many nodes to walk (DEF/USE or PROTO repetition).");
            return;
        }
        if (VrmlNode* c = (*kids)[i]) ConvertChild(parent, c, path, frame, depth);
    }
}

void CVrml97Converter::ConvertChild(C3DSceneNode* parent, VrmlNode* child, const CXStringW& path,
                                    const InlineFrame* frame, int depth) {
    if (VrmlNodeShape* shape = child->asShape()) {
        if (C3DSceneNode* n = AddNode(parent, nullptr)) ConvertShape(n, *shape, path);
    } else if (VrmlNodeViewpoint* vp = child->asViewpoint()) {
        ConvertViewpoint(parent, *vp);
    } else if (child->asLight()) {
        ConvertLight(parent, *child);
    } else if (const VrmlMFNode* alts = AlternativesOf(*child)) {
        // Every alternative, not only the active one, becomes a node of its own.
        for (size_t i = 0; i < alts->size() && !Stopped(); ++i) {
            VrmlNode* a = (*alts)[i];
            if (!a) continue;
            C3DSceneNode* n = AddNode(parent, new C3DGroup());
            if (!n) return;
            n->SetName(NodeName(*a));
            if (VrmlNodeShape* s = a->asShape()) {
                ConvertShape(n, *s, path);
                continue;
            }
            if (VrmlNodeTransform* t = a->asTransform()) AddMatrixKey(*n, TransformMatrix(*t));
            const InlineFrame* f = a->asInline() ? LoadInline(*a->asInline(), frame) : frame;
            ConvertGroup(n, a, path, f, depth + 1);
        }
    } else if (child->asGroup() || child->asProto()) {
        C3DSceneNode* n = AddNode(parent, new C3DGroup());
        if (!n) return;
        n->SetName(NodeName(*child));
        if (VrmlNodeTransform* t = child->asTransform()) AddMatrixKey(*n, TransformMatrix(*t));
        const InlineFrame* f = child->asInline() ? LoadInline(*child->asInline(), frame) : frame;
        ConvertGroup(n, child, path, f, depth + 1);
    }
}

uint32_t CVrml97Converter::ConvertMaterial(VrmlNode* appearanceNode) {
    VrmlNode* a = ResolveNode(appearanceNode);
    VrmlNodeAppearance* app = a ? a->asAppearance() : nullptr;
    VrmlNode* mn = app ? ResolveNode(app->d_material.get()) : nullptr;
    VrmlNodeMaterial* mat = mn ? mn->asMaterial() : nullptr;
    if (!mat) {
        theSystem->error("Material pointer is Null\n");
        return NO_MATERIAL;
    }
    C3DMaterial* m = m_scene.CreateNewMaterial(MATERIAL_STANDARD);
    CXStringW name = NumberedName(L"Mat");
    m->SetName(name);
    m->GetCustomData().SetString(kShadingGroupName, name + L"SG");
    m->SetDiffuseColor(ColorFromFloats(mat->d_diffuseColor.get()));
    m->SetTransparency(mat->d_transparency.get());
    if (m->GetClass() == MATERIAL_STANDARD) {
        auto* sm = static_cast<C3DStandardMaterial*>(m);
        sm->SetSpecularColor(ColorFromFloats(mat->d_specularColor.get()));
        sm->SetSpecularFactor(mat->d_shininess.get());
    }
    VrmlNode* tn = ResolveNode(app->d_texture.get());
    VrmlNodeImageTexture* tex = tn ? tn->asImageTexture() : nullptr;
    if (tex && tex->d_url.size() > 0 && tex->d_url[0] && *tex->d_url[0]) {
        TextureEntry e;
        e.file = RewriteTexturePath(Wide(tex->d_url[0]));
        e.placement = NumberedName(L"place2dTexture");
        e.record = NumberedName(L"file");
        m->AddMaterialMap(e.file, 1, MAP_DIFFUSE, 1);
        m->GetCustomData().SetString(kPlacementName, e.placement);
        m->GetCustomData().SetString(kFileRecordName, e.record);
        m_textures.push_back(std::move(e));
    }
    return m->GetID();
}

void CVrml97Converter::ConvertShape(C3DSceneNode* node, VrmlNodeShape& shape, const CXStringW& path) {
    uint32_t material = ConvertMaterial(shape.d_appearance.get());
    // The shape's object name; a node that already has a name (an alternative) keeps it.
    CXStringW name = path.IsEmpty() ? NumberedName(L"shape") : path + NumberedName(L"Shape");
    if (node->GetName().IsEmpty()) node->SetName(name);
    std::unique_ptr<C3DBaseObject> obj = ConvertGeometry(ResolveNode(shape.d_geometry.get()), material);
    if (!obj) return;
    obj->GetCustomData().SetString(kObjectName, name);
    node->SetObject(obj.release());
}

std::unique_ptr<C3DBaseObject> CVrml97Converter::ConvertGeometry(VrmlNode* g, uint32_t material) {
    if (!g) return nullptr;
    const C3DPoint origin(0, 0, 0);
    auto fromBuilder = [&](C3DSceneNode* built) -> std::unique_ptr<C3DBaseObject> {
        std::unique_ptr<C3DSceneNode> holder(built);
        std::unique_ptr<C3DBaseObject> o = holder ? holder->ReleaseObject() : nullptr;
        if (o && o->IsGeomObject() && !Charge(GeometryElements(static_cast<C3DGeomObject&>(*o)))) return nullptr;
        return o;
    };
    if (VrmlNodeBox* b = g->asBox()) {
        const float* s = b->d_size.get();
        return fromBuilder(CreateCube(origin, s[0], s[1], s[2], false, material, -1));
    }
    if (VrmlNodeSphere* s = g->asSphere())
        return fromBuilder(CreateSphere(origin, s->d_radius.get(), 16, 16, false, material, -1));
    if (VrmlNodeCone* c = g->asCone())
        return fromBuilder(
            CreateCone(origin, c->d_bottomRadius.get(), c->d_height.get(), 0, 16, 1, false, material, -1));
    if (VrmlNodeCylinder* c = g->asCylinder())
        return fromBuilder(
            CreateCylinder(origin, c->d_radius.get(), c->d_height.get(), 0, 16, 1, true, false, material, -1));

    if (!(g->asIFaceSet() || g->asILineSet() || g->asElevationGrid() || g->asExtrusion())) return nullptr;

    // A geometry node met before: copy the first result under this shape's material.
    if (auto it = m_built.find(g); it != m_built.end()) {
        const auto& src = static_cast<const C3DGeomObject&>(*it->second);
        if (!Charge(GeometryElements(src))) return nullptr;
        std::unique_ptr<C3DBaseObject> copy = src.Clone();
        if (C3DFaceList* fl = static_cast<C3DGeomObject&>(*copy).GetFaceList()) {
            fl->SetAllMaterialIDs(material);
            fl->SetCurrentMaterial(material);
        }
        return copy;
    }

    GeometryReport rep;
    std::unique_ptr<C3DGeomObject> obj;
    if (VrmlNodeIFaceSet* f = g->asIFaceSet()) obj = BuildFaceSet(*f, material, rep);
    else if (VrmlNodeILineSet* l = g->asILineSet()) obj = BuildLineSet(*l, material, rep);
    else if (VrmlNodeElevationGrid* e = g->asElevationGrid()) obj = BuildElevationGrid(*e, material, rep);
    else if (VrmlNodeExtrusion* x = g->asExtrusion()) {
        uint64_t cap = m_limits.baseElements + m_limits.elementFactor * m_inputBytes;
        uint64_t left = cap > m_elements ? cap - m_elements : 0;
        // A sweep point costs about 3 floats, 4 indices and 3 texture floats.
        obj = BuildExtrusion(*x, material, left / 10, rep);
    }
    m_skippedFaces += rep.skippedFaces;
    m_droppedColors += rep.droppedColors;
    m_droppedTexCoords += rep.droppedTexCoords;
    if (rep.tooLarge) {
        Stop(L"an Extrusion would have more points than the import allows.");
        return nullptr;
    }
    if (rep.empty) ++m_emptyGeometry;
    if (!obj || !Charge(GeometryElements(*obj))) return nullptr;
    m_built.emplace(g, obj.get()); // stays valid: the scene node that takes it is never removed
    ReleaseConverted(*g);
    return obj;
}

void CVrml97Converter::ConvertViewpoint(C3DSceneNode* parent, VrmlNodeViewpoint& vp) {
    C4x4Matrix m;
    const float* pos = vp.d_position.get();
    m.SetTranslation(pos[0], pos[1], pos[2]);
    const float* o = vp.d_orientation.get();
    double angle = o[3];
    if (std::fabs(angle) >= 1e-15) {
        C3DVector axis = C3DVector{o[0], o[1], o[2]}.Normalized();
        if (axis.x != 0 || axis.y != 0 || axis.z != 0) {
            // The rotation about the axis by the negated angle, written as a column-vector
            // matrix: in the host's row-vector layout that turns the camera by +angle.
            double c = std::cos(-angle), s = std::sin(-angle), t = 1 - c;
            double x = axis.x, y = axis.y, z = axis.z;
            double r[3][3] = {{c + x * x * t, x * y * t - z * s, x * z * t + y * s},
                              {y * x * t + z * s, c + y * y * t, y * z * t - x * s},
                              {z * x * t - y * s, z * y * t + x * s, c + z * z * t}};
            for (int i = 0; i < 3; ++i)
                for (int j = 0; j < 3; ++j) m.m[i][j] = static_cast<float>(r[i][j]);
        }
    }
    auto* cam = new C3DCamera();
    cam->SetProjection(PROJECTION_PERSPECTIVE);
    cam->SetVFov(vp.d_fieldOfView.get());
    C3DSceneNode* n = AddNode(parent, cam);
    if (!n) return;
    n->SetName(Wide(vp.d_description.get()));
    AddMatrixKey(*n, m);
}

void CVrml97Converter::ConvertLight(C3DSceneNode* parent, VrmlNode& node) {
    VrmlNodeLight* base = node.asLight();
    auto* light = new C3DLight();
    const wchar_t* kindName = L"PointLight";
    if (VrmlNodeDirLight* d = node.asDirLight()) {
        light->SetLightKind(LIGHT_DIRECTIONAL);
        light->direction = Vec3(d->d_direction);
        kindName = L"DirectionalLight";
    } else if (VrmlNodePointLight* p = node.asPointLight()) {
        light->SetLightKind(LIGHT_POINT);
        light->location = Vec3(p->d_location);
        light->attenuation = Vec3(p->d_attenuation);
        light->radius = p->d_radius.get();
    } else if (VrmlNodeSpotLight* s = node.asSpotLight()) {
        light->SetLightKind(LIGHT_SPOT);
        light->location = Vec3(s->d_location);
        light->direction = Vec3(s->d_direction);
        light->attenuation = Vec3(s->d_attenuation);
        light->radius = s->d_radius.get();
        light->beamWidth = s->d_beamWidth.get();
        light->cutOffAngle = s->d_cutOffAngle.get();
        kindName = L"SpotLight";
    } else {
        delete light;
        return;
    }
    light->color = ColorFromFloats(base->d_color.get());
    light->intensity = base->d_intensity.get();
    light->ambientIntensity = base->d_ambientIntensity.get();
    light->on = base->d_on.get();
    C3DSceneNode* n = AddNode(parent, light);
    if (!n) return;
    // Lights take their DEF name or their kind; they do not draw on the shared counter.
    const char* def = node.name();
    n->SetName(*def && !IsGeneratedName(def) ? SanitizeName(def) : CXStringW(kindName));
}

const CVrml97Converter::InlineFrame* CVrml97Converter::LoadInline(VrmlNodeInline& inl, const InlineFrame* frame) {
    if (auto it = m_inlineFrames.find(&inl); it != m_inlineFrames.end()) return it->second.get();
    if (inl.d_loaded) return frame;
    inl.d_loaded = true;
    if (frame->file.empty()) {
        // A world read from memory has no folder to find its Inline worlds in.
        if (!m_inlineDepthReported) Log(L"Inline worlds were not read: the world was read from memory.");
        m_inlineDepthReported = true;
        return frame;
    }
    if (frame->depth >= m_limits.maxInlineDepth) {
        if (!m_inlineDepthReported)
            Log(L"Inline worlds nested more than " + CXStringW(std::to_wstring(m_limits.maxInlineDepth)) +
                L" levels deep were not read.");
        m_inlineDepthReported = true;
        return frame;
    }
    Doc base(frame->file.c_str());
    bool cycleSeen = false;
    for (size_t i = 0; i < inl.d_url.size(); ++i) {
        const char* url = inl.d_url[i];
        if (!url || !*url) continue;
        Doc doc(url, &base);
        const std::string& local = doc.localName();
        if (local.empty()) continue; // not a local file: this build fetches nothing
        std::string canonical = Canonical(local);
        bool cycle = false;
        for (const InlineFrame* f = frame; f && !cycle; f = f->parent) cycle = f->canonical == canonical;
        if (cycle) {
            Log(L"Inline '" + Wide(url) + L"' includes a world that includes it; it was read once.");
            cycleSeen = true;
            continue;
        }
        std::error_code ec;
        if (!std::filesystem::is_regular_file(local, ec)) continue;
        if (m_inlineLoads >= m_limits.maxInlineLoads) {
            Log(L"More than " + CXStringW(std::to_wstring(m_limits.maxInlineLoads)) +
                L" Inline worlds: the rest were not read.");
            return frame;
        }
        ++m_inlineLoads;
        CTempFileGuard temp;
        CXStringW parseFile;
        if (PrepareWorldFile(Wide(local.c_str()), temp, parseFile) == WorldFileState::Failed) {
            Log(L"Inline '" + Wide(url) + L"' is a damaged gzip file.");
            continue;
        }
        Doc source(PathToUtf8(parseFile).c_str());
        auto ns = std::make_shared<VrmlNamespace>();
        std::unique_ptr<VrmlMFNode> nodes(VrmlScene::readWRL(&source, ns.get()));
        if (!nodes) continue;
        uint64_t size = std::filesystem::file_size(PathToUtf8(parseFile), ec);
        if (!ec) m_inputBytes += size;
        VrmlMFNode accepted;
        for (size_t k = 0; k < nodes->size(); ++k)
            if ((*nodes)[k] && VrmlNodeGroup::acceptsAsChild((*nodes)[k])) accepted.add((*nodes)[k]);
        inl.removeChildren();
        inl.addChildren(accepted);
        auto f = std::make_unique<InlineFrame>(InlineFrame{frame, local, canonical, frame->depth + 1});
        const InlineFrame* result = f.get();
        m_inlineFrames.emplace(&inl, std::move(f));
        return result;
    }
    if (!cycleSeen)
        Log(L"An Inline world could not be read: " + Wide(inl.d_url.size() && inl.d_url[0] ? inl.d_url[0] : ""));
    return frame;
}

void CVrml97Converter::FlushReport() {
    if (m_skippedFaces)
        Log(CXStringW(std::to_wstring(m_skippedFaces)) +
            L" faces or lines were left out: too few vertices or an index outside the coordinates.");
    if (m_droppedColors)
        Log(CXStringW(std::to_wstring(m_droppedColors)) +
            L" shapes lost their colours: the colour indices do not cover every face.");
    if (m_droppedTexCoords)
        Log(CXStringW(std::to_wstring(m_droppedTexCoords)) +
            L" shapes lost their texture coordinates: the indices do not cover every face.");
    if (m_emptyGeometry)
        Log(CXStringW(std::to_wstring(m_emptyGeometry)) +
            L" ElevationGrid or Extrusion nodes had too little data to build.");
}

} // namespace vrml97import
