#include "plugin/host/ColladaIo.h"

#include <pugixml.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "plugin/host/Channel.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/Object.h"
#include "plugin/host/ReadAdapter.h"

namespace {

constexpr int kMaxNodeDepth = 256;
constexpr uint64_t kMaxInstances = 1u << 20;

CXStringW Wide(std::string_view s) { return CXStringW(Utf8ToWide(s)); }

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

// Numbers of an element's text (blank separated); stops at the first thing that is not one.
template <typename T> void ParseList(const char* s, std::vector<T>& out) {
    out.clear();
    if (!s) return;
    const char* e = s + std::strlen(s);
    while (s < e) {
        while (s < e && IsSpace(*s)) ++s;
        if (s >= e) break;
        T v{};
        if (*s == '+') ++s;
        auto r = std::from_chars(s, e, v);
        if (r.ec == std::errc::result_out_of_range) {
            while (s < e && !IsSpace(*s)) ++s;
            out.push_back(T{});
            continue;
        }
        if (r.ec != std::errc()) {
            if constexpr (std::is_floating_point_v<T>) {
                // NaN, INF and the like: read as 0 rather than stopping the list.
                while (s < e && !IsSpace(*s)) ++s;
                out.push_back(T{});
                continue;
            }
            break;
        }
        out.push_back(v);
        s = r.ptr;
    }
}

std::string_view Fragment(const char* url) {
    if (!url) return {};
    std::string_view u(url);
    return !u.empty() && u[0] == '#' ? u.substr(1) : u;
}

std::string UrlDecode(std::string_view s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size() && std::isxdigit(static_cast<unsigned char>(s[i + 1])) &&
            std::isxdigit(static_cast<unsigned char>(s[i + 2]))) {
            out += static_cast<char>(std::stoi(std::string(s.substr(i + 1, 2)), nullptr, 16));
            i += 2;
        } else {
            out += s[i];
        }
    }
    return out;
}

uint8_t Byte(float v) {
    if (!(v > 0)) return 0;
    if (v >= 1) return 255;
    return static_cast<uint8_t>(v * 255.0f + 0.5f);
}

// A source's accessor over its float array.
struct Source {
    std::vector<float> data;
    size_t count = 0, stride = 1, offset = 0;
    const float* at(size_t i) const { return data.data() + offset + i * stride; }
};

struct Input {
    std::string semantic;
    const Source* source = nullptr;
    size_t offset = 0;
    int set = 0;
};

// One built geometry: its mesh (face material IDs hold the primitive's symbol number) and curves.
struct BuiltGeometry {
    std::unique_ptr<C3DObject> mesh;
    std::vector<std::unique_ptr<C3DCurve>> curves;
    std::vector<std::string> symbols;
};

class Reader {
public:
    Reader(C3DScene& scene, CIoOptions& log, const CFileParser& parser, std::string file)
        : m_scene(scene), m_log(log), m_parser(parser), m_file(std::move(file)) {}

    bool Load(std::span<const uint8_t> data) {
        pugi::xml_parse_result r = m_doc.load_buffer(data.data(), data.size(), pugi::parse_default, pugi::encoding_auto);
        if (!r) return false;
        m_root = m_doc.child("COLLADA");
        if (!m_root) return false;
        m_budget = (64ull << 20) + 16ull * data.size();
        IndexIds(m_root);
        return true;
    }

    void Convert() {
        ReadAsset();
        pugi::xml_node vs;
        if (pugi::xml_node inst = m_root.child("scene").child("instance_visual_scene")) vs = ById(Fragment(inst.attribute("url").value()));
        if (!vs) vs = m_root.child("library_visual_scenes").child("visual_scene");
        if (!vs) return;
        std::vector<pugi::xml_node> stack;
        for (pugi::xml_node n : vs.children("node")) {
            if (Stopped()) break;
            WalkNode(n, nullptr, stack);
        }
    }
    bool Cancelled() const { return m_cancelled; }

private:
    void IndexIds(pugi::xml_node top) {
        // Iterative walk: documents may nest deeper than the stack would like.
        std::vector<pugi::xml_node> todo{top};
        while (!todo.empty()) {
            pugi::xml_node n = todo.back();
            todo.pop_back();
            if (const char* id = n.attribute("id").value(); *id) m_ids.emplace(id, n);
            for (pugi::xml_node c = n.last_child(); c; c = c.previous_sibling())
                if (c.type() == pugi::node_element) todo.push_back(c);
        }
    }
    pugi::xml_node ById(std::string_view id) const {
        auto it = m_ids.find(std::string(id));
        return it == m_ids.end() ? pugi::xml_node() : it->second;
    }
    bool Stopped() const { return m_stopped || m_cancelled; }
    void Log(const std::string& s) { m_log.AddLogInfo(LOG_INFO, Wide(s)); }
    bool Charge(uint64_t n) {
        m_used += n;
        if (m_used > m_budget) {
            if (!m_stopped) Log("Collada: the geometry made would grow past its cap (repeated instances); the rest was left out.");
            m_stopped = true;
            return false;
        }
        return true;
    }

    void ReadAsset() {
        pugi::xml_node unit = m_root.child("asset").child("unit");
        double meter = unit ? unit.attribute("meter").as_double(1.0) : 1.0;
        if (!(meter > 0) || !std::isfinite(meter)) meter = 1.0;
        struct Known {
            double m;
            int code;
        };
        static constexpr Known kUnits[] = {{1.0, UNIT_METER},   {0.01, UNIT_CENTIMETER}, {0.001, UNIT_MILLIMETER},
                                           {1000.0, UNIT_KILOMETER}, {0.0254, UNIT_INCH}, {0.3048, UNIT_FOOT}};
        int code = UNIT_METER;
        for (const Known& k : kUnits)
            if (std::fabs(meter - k.m) < k.m * 1e-6) code = k.code;
        m_scene.SetUnit(code);
        m_scene.SetScaleFactor(meter * 100.0);
    }

    const Source* GetSource(std::string_view id) {
        if (auto it = m_sources.find(std::string(id)); it != m_sources.end()) return &it->second;
        pugi::xml_node n = ById(id);
        if (!n || std::strcmp(n.name(), "source") != 0) return nullptr;
        Source s;
        pugi::xml_node arr = n.child("float_array");
        ParseList(arr.child_value(), s.data);
        pugi::xml_node acc = n.child("technique_common").child("accessor");
        s.stride = std::max<size_t>(1, acc ? acc.attribute("stride").as_ullong(1) : 1);
        s.offset = acc ? acc.attribute("offset").as_ullong(0) : 0;
        uint64_t count = acc ? acc.attribute("count").as_ullong(0) : s.data.size();
        // The accessor may claim more than the array holds: keep what is there.
        const uint64_t fit = s.data.size() > s.offset ? (s.data.size() - s.offset) / s.stride : 0;
        s.count = static_cast<size_t>(std::min<uint64_t>(count, fit));
        if (s.stride > s.data.size() + 16) s.count = 0;
        return &m_sources.emplace(std::string(id), std::move(s)).first->second;
    }

    // Inputs of a primitive; VERTEX expands into the <vertices> element's inputs.
    std::vector<Input> Inputs(pugi::xml_node prim, pugi::xml_node mesh, size_t& stride) {
        std::vector<Input> out;
        size_t maxOffset = 0;
        for (pugi::xml_node in : prim.children("input")) {
            size_t off = std::min<uint64_t>(in.attribute("offset").as_ullong(0), 1024);
            maxOffset = std::max(maxOffset, off);
            std::string sem = in.attribute("semantic").value();
            if (sem == "VERTEX") {
                pugi::xml_node verts = mesh.find_child_by_attribute("vertices", "id", std::string(Fragment(in.attribute("source").value())).c_str());
                for (pugi::xml_node vi : verts.children("input"))
                    out.push_back({vi.attribute("semantic").value(), GetSource(Fragment(vi.attribute("source").value())), off,
                                   vi.attribute("set").as_int(0)});
            } else {
                out.push_back({sem, GetSource(Fragment(in.attribute("source").value())), off, in.attribute("set").as_int(0)});
            }
        }
        stride = maxOffset + 1;
        return out;
    }

    const BuiltGeometry* BuildGeometry(pugi::xml_node geom) {
        const std::string id = geom.attribute("id").value();
        if (auto it = m_geometries.find(id); it != m_geometries.end()) return it->second.get();
        auto built = std::make_unique<BuiltGeometry>();
        pugi::xml_node mesh = geom.child("mesh");
        if (mesh) BuildMesh(mesh, *built);
        return m_geometries.emplace(id, std::move(built)).first->second.get();
    }

    void BuildMesh(pugi::xml_node mesh, BuiltGeometry& out) {
        // Points: the POSITION source of <vertices>, shared by every primitive.
        pugi::xml_node verts = mesh.child("vertices");
        const Source* pos = nullptr;
        for (pugi::xml_node vi : verts.children("input"))
            if (std::strcmp(vi.attribute("semantic").value(), "POSITION") == 0) pos = GetSource(Fragment(vi.attribute("source").value()));
        if (!pos || pos->count == 0) return;
        auto obj = std::make_unique<C3DObject>();
        auto points = std::make_unique<C3DPointList>();
        points->Reserve(pos->count);
        for (size_t i = 0; i < pos->count; ++i) {
            const float* p = pos->at(i);
            points->Add(p[0], pos->stride > 1 ? p[1] : 0, pos->stride > 2 ? p[2] : 0);
        }
        const uint32_t npoints = static_cast<uint32_t>(pos->count);
        auto faces = std::make_unique<C3DFaceList>();
        std::unique_ptr<CUVWChannel> uv;
        std::unique_ptr<CVCChannel> vc;
        const Source* uvSource = nullptr;
        const Source* colorSource = nullptr;
        std::vector<uint32_t> tmp, tmpUv, tmpVc;
        std::vector<uint32_t> p;
        std::vector<uint32_t> vcount;

        for (pugi::xml_node prim : mesh.children()) {
            const std::string kind = prim.name();
            const bool lines = kind == "lines" || kind == "linestrips";
            if (!(kind == "triangles" || kind == "polylist" || kind == "polygons" || kind == "tristrips" ||
                  kind == "trifans" || lines))
                continue;
            if (Stopped()) return;
            size_t stride = 1;
            std::vector<Input> inputs = Inputs(prim, mesh, stride);
            size_t vOff = SIZE_MAX, tOff = SIZE_MAX, cOff = SIZE_MAX;
            int tSet = INT32_MAX;
            for (const Input& in : inputs) {
                if (!in.source) continue;
                if (in.semantic == "POSITION" && in.source == pos) vOff = in.offset;
                if (in.semantic == "TEXCOORD" && in.set < tSet && (!uvSource || in.source == uvSource || !uv)) {
                    tSet = in.set;
                    tOff = in.offset;
                    if (!uvSource) uvSource = in.source;
                }
                if (in.semantic == "COLOR" && (!colorSource || in.source == colorSource)) {
                    cOff = in.offset;
                    if (!colorSource) colorSource = in.source;
                }
            }
            if (vOff == SIZE_MAX) continue;
            if (tOff != SIZE_MAX && !uv) {
                uv = std::make_unique<CUVWChannel>();
                for (size_t i = 0; i < uvSource->count; ++i) {
                    const float* t = uvSource->at(i);
                    uv->GetUVWPointList()->Add(t[0], uvSource->stride > 1 ? t[1] : 0, 0);
                }
                uv->GetUVWPointList()->Add(0, 0, 0); // the corner of faces without coordinates
                for (int f = 0; f < faces->GetNumberOfFaces(); ++f) {
                    tmpUv.assign(static_cast<size_t>(faces->GetFaceSize(f)), static_cast<uint32_t>(uvSource->count));
                    uv->GetUVWFaceList()->AddFace(tmpUv.data(), static_cast<int>(tmpUv.size()));
                }
            }
            if (cOff != SIZE_MAX && !vc) {
                vc = std::make_unique<CVCChannel>();
                for (size_t i = 0; i < colorSource->count; ++i) {
                    const float* c = colorSource->at(i);
                    vc->GetVCPointList()->Add(CRGBColor(Byte(c[0]), colorSource->stride > 1 ? Byte(c[1]) : 0,
                                                        colorSource->stride > 2 ? Byte(c[2]) : 0,
                                                        colorSource->stride > 3 ? Byte(c[3]) : 255));
                }
                vc->GetVCPointList()->Add(CRGBColor(255, 255, 255));
                for (int f = 0; f < faces->GetNumberOfFaces(); ++f) {
                    tmpVc.assign(static_cast<size_t>(faces->GetFaceSize(f)), static_cast<uint32_t>(colorSource->count));
                    vc->GetVCFaceList()->AddFace(tmpVc.data(), static_cast<int>(tmpVc.size()));
                }
            }
            const char* sym = prim.attribute("material").value();
            uint32_t symbol = static_cast<uint32_t>(std::find(out.symbols.begin(), out.symbols.end(), sym) - out.symbols.begin());
            if (symbol == out.symbols.size()) out.symbols.push_back(sym);

            // One polygon given by vertex positions [first, first + n) of `p` (in units of stride).
            std::unique_ptr<C3DCurve> curve;
            std::unique_ptr<C3DFaceList> curveFaces;
            auto addPoly = [&](const std::vector<uint32_t>& src, size_t first, size_t n, bool asLine) {
                if ((first + n) * stride > src.size() || n < (asLine ? 2u : 3u)) return;
                tmp.clear();
                tmpUv.clear();
                tmpVc.clear();
                for (size_t k = 0; k < n; ++k) {
                    const uint32_t* v = src.data() + (first + k) * stride;
                    if (v[vOff] >= npoints) return; // a corner that names no point: the face goes
                    tmp.push_back(v[vOff]);
                    if (uv) tmpUv.push_back(tOff != SIZE_MAX && v[tOff] < uvSource->count ? v[tOff] : static_cast<uint32_t>(uvSource->count));
                    if (vc) tmpVc.push_back(cOff != SIZE_MAX && v[cOff] < colorSource->count ? v[cOff] : static_cast<uint32_t>(colorSource->count));
                }
                if (asLine) {
                    curveFaces->AddFace(tmp.data(), static_cast<int>(tmp.size()));
                    return;
                }
                faces->SetCurrentMaterial(symbol);
                faces->AddFace(tmp.data(), static_cast<int>(tmp.size()));
                if (uv) uv->GetUVWFaceList()->AddFace(tmpUv.data(), static_cast<int>(tmpUv.size()));
                if (vc) vc->GetVCFaceList()->AddFace(tmpVc.data(), static_cast<int>(tmpVc.size()));
            };
            if (lines) {
                curve = std::make_unique<C3DCurve>();
                curveFaces = std::make_unique<C3DFaceList>();
                curveFaces->SetCurrentMaterial(symbol);
            }
            const uint64_t declared = prim.attribute("count").as_ullong(0);
            if (kind == "triangles" || kind == "lines") {
                ParseList(prim.child("p").child_value(), p);
                if (!Charge(p.size())) return;
                const size_t n = kind == "triangles" ? 3 : 2;
                const uint64_t fit = p.size() / (stride * n);
                for (uint64_t i = 0; i < std::min(declared, fit); ++i) addPoly(p, i * n, n, lines);
            } else if (kind == "polylist") {
                ParseList(prim.child("vcount").child_value(), vcount);
                ParseList(prim.child("p").child_value(), p);
                if (!Charge(p.size())) return;
                size_t first = 0;
                for (size_t i = 0; i < vcount.size() && i < declared; ++i) {
                    if (vcount[i] > p.size()) break;
                    addPoly(p, first, vcount[i], false);
                    first += vcount[i];
                }
            } else {
                // polygons, strips, fans and line strips: one <p> each (polygons may hold holes in <ph>).
                std::vector<pugi::xml_node> lists;
                for (pugi::xml_node c : prim.children()) {
                    if (std::strcmp(c.name(), "p") == 0) lists.push_back(c);
                    else if (std::strcmp(c.name(), "ph") == 0) {
                        lists.push_back(c.child("p"));
                        for (pugi::xml_node h : c.children("h")) lists.push_back(h); // holes: faces of their own
                    }
                }
                for (pugi::xml_node l : lists) {
                    ParseList(l.child_value(), p);
                    if (!Charge(p.size() * 3)) return;
                    const size_t n = p.size() / stride;
                    if (kind == "polygons") addPoly(p, 0, n, false);
                    else if (kind == "linestrips") addPoly(p, 0, n, true);
                    else if (kind == "tristrips") {
                        for (size_t k = 0; k + 2 < n; ++k) {
                            std::vector<uint32_t> tri;
                            const size_t order[3] = {k + (k & 1), k + 1 - (k & 1), k + 2};
                            for (size_t o : order) tri.insert(tri.end(), p.begin() + static_cast<long>(o * stride), p.begin() + static_cast<long>((o + 1) * stride));
                            addPoly(tri, 0, 3, false);
                        }
                    } else { // trifans
                        for (size_t k = 1; k + 1 < n; ++k) {
                            std::vector<uint32_t> tri;
                            for (size_t o : {size_t(0), k, k + 1}) tri.insert(tri.end(), p.begin() + static_cast<long>(o * stride), p.begin() + static_cast<long>((o + 1) * stride));
                            addPoly(tri, 0, 3, false);
                        }
                    }
                }
            }
            if (lines && curveFaces->GetNumberOfFaces() > 0) {
                curve->SetPointList(new C3DPointList(*points));
                curve->SetFaceList(curveFaces.release());
                out.curves.push_back(std::move(curve));
            }
        }
        if (faces->GetNumberOfFaces() == 0) return;
        obj->SetPointList(points.release());
        obj->SetFaceList(faces.release());
        if (uv) obj->SetGlobalUVWChannel(obj->AddChannel(uv.release(), 1));
        if (vc) obj->SetGlobalVCChannel(obj->AddChannel(vc.release(), -1));
        out.mesh = std::move(obj);
    }

    std::string ImageFile(pugi::xml_node image) {
        pugi::xml_node init = image.child("init_from");
        std::string ref = init.child("ref") ? init.child("ref").child_value() : init.child_value();
        ref = UrlDecode(ref);
        if (ref.rfind("file://", 0) == 0) ref = ref.substr(7);
        else if (ref.rfind("file:", 0) == 0) ref = ref.substr(5);
        for (char& c : ref)
            if (c == '\\') c = '/';
        std::filesystem::path p(ref);
        if (p.is_relative() && !m_file.empty()) p = std::filesystem::path(m_file).parent_path() / p;
        return p.lexically_normal().string();
    }

    // The image a <texture texture="..."> names: a sampler's surface's image, or an image itself.
    pugi::xml_node TextureImage(pugi::xml_node effect, const char* texture) {
        pugi::xml_node profile = effect.child("profile_COMMON");
        auto param = [&](const char* sid) { return profile.find_child_by_attribute("newparam", "sid", sid); };
        pugi::xml_node sampler = param(texture).child("sampler2D");
        if (sampler) {
            if (pugi::xml_node inst = sampler.child("instance_image")) return ById(Fragment(inst.attribute("url").value()));
            pugi::xml_node surface = param(sampler.child("source").child_value()).child("surface");
            if (surface) return ById(surface.child("init_from").child_value());
        }
        return ById(texture);
    }

    uint32_t Material(std::string_view materialId) {
        if (auto it = m_materials.find(std::string(materialId)); it != m_materials.end()) return it->second;
        pugi::xml_node mat = ById(materialId);
        pugi::xml_node effect = ById(Fragment(mat.child("instance_effect").attribute("url").value()));
        C3DMaterial* hm = m_scene.CreateNewMaterial(MATERIAL_STANDARD);
        const char* name = mat.attribute("name").value();
        hm->SetName(Wide(*name ? name : std::string(materialId).c_str()));
        pugi::xml_node tech = effect.child("profile_COMMON").child("technique");
        pugi::xml_node shader;
        for (const char* s : {"phong", "blinn", "lambert", "constant"})
            if ((shader = tech.child(s))) break;
        auto color = [&](const char* what, float out[4]) {
            std::vector<float> v;
            ParseList(shader.child(what).child("color").child_value(), v);
            if (v.size() < 3) return false;
            for (int i = 0; i < 4; ++i) out[i] = i < static_cast<int>(v.size()) ? v[static_cast<size_t>(i)] : 1.0f;
            return true;
        };
        float c[4];
        if (color("diffuse", c)) hm->SetDiffuseColor(CRGBColor(Byte(c[0]), Byte(c[1]), Byte(c[2])));
        else if (color("emission", c) && std::strcmp(shader.name(), "constant") == 0) hm->SetDiffuseColor(CRGBColor(Byte(c[0]), Byte(c[1]), Byte(c[2])));
        auto* sm = static_cast<C3DStandardMaterial*>(hm);
        if (color("ambient", c)) sm->SetAmbientColor(CRGBColor(Byte(c[0]), Byte(c[1]), Byte(c[2])));
        if (color("specular", c)) sm->SetSpecularColor(CRGBColor(Byte(c[0]), Byte(c[1]), Byte(c[2])));
        if (pugi::xml_node sh = shader.child("shininess").child("float")) {
            float s = static_cast<float>(std::atof(sh.child_value()));
            sm->SetShininess(s);
            sm->SetSpecularFactor(std::clamp(s / 128.0f, 0.0f, 1.0f));
        }
        // Opacity from <transparent> (A_ONE: its alpha; RGB_ZERO: one less its luminance) times <transparency>.
        float factor = 1.0f;
        if (pugi::xml_node t = shader.child("transparency").child("float")) factor = static_cast<float>(std::atof(t.child_value()));
        float alpha = 1.0f;
        if (pugi::xml_node tr = shader.child("transparent")) {
            std::vector<float> v;
            ParseList(tr.child("color").child_value(), v);
            const bool rgbZero = std::strcmp(tr.attribute("opaque").value(), "RGB_ZERO") == 0;
            if (v.size() >= 4 && !rgbZero) alpha = v[3] * factor;
            else if (v.size() >= 3 && rgbZero) alpha = 1.0f - (0.2126f * v[0] + 0.7152f * v[1] + 0.0722f * v[2]) * factor;
            else alpha = factor;
        } else if (shader.child("transparency")) {
            alpha = factor;
        }
        float transparency = std::clamp(1.0f - alpha, 0.0f, 1.0f);
        if (transparency > 0.999f) transparency = 0; // exporters that write the factor the other way round
        hm->SetTransparency(transparency);
        if (pugi::xml_node tex = shader.child("diffuse").child("texture")) {
            pugi::xml_node image = TextureImage(effect, tex.attribute("texture").value());
            if (image) {
                CXStringW file = Wide(ImageFile(image));
                hm->AddMaterialMap(file, 1, MAP_DIFFUSE, PROJ_UV);
                m_scene.AddRequiredFile(file);
            }
        }
        uint32_t id = hm->GetID();
        m_materials.emplace(std::string(materialId), id);
        return id;
    }

    // Transform elements of a node, in document order (each acts before the ones above it).
    C4x4Matrix NodeMatrix(pugi::xml_node node) {
        C4x4Matrix m;
        std::vector<float> v;
        for (pugi::xml_node t : node.children()) {
            const std::string_view name = t.name();
            C4x4Matrix step;
            ParseList(t.child_value(), v);
            if (name == "matrix" && v.size() >= 16) {
                for (int r = 0; r < 4; ++r)
                    for (int c = 0; c < 4; ++c) step.m[c][r] = v[static_cast<size_t>(r * 4 + c)]; // column vectors: transpose
            } else if (name == "translate" && v.size() >= 3) {
                step = C4x4Matrix::Translation(v[0], v[1], v[2]);
            } else if (name == "scale" && v.size() >= 3) {
                step = C4x4Matrix::Scaling(v[0], v[1], v[2]);
            } else if (name == "rotate" && v.size() >= 4) {
                step = Rotation(v[0], v[1], v[2], v[3] * 3.14159265358979f / 180.0f);
            } else if (name == "lookat" && v.size() >= 9) {
                C3DVector eye(v[0], v[1], v[2]), target(v[3], v[4], v[5]), up(v[6], v[7], v[8]);
                C3DVector z = (eye - target).Normalized(), x = up.Cross(z).Normalized(), y = z.Cross(x);
                step.m[0][0] = x.x; step.m[0][1] = x.y; step.m[0][2] = x.z;
                step.m[1][0] = y.x; step.m[1][1] = y.y; step.m[1][2] = y.z;
                step.m[2][0] = z.x; step.m[2][1] = z.y; step.m[2][2] = z.z;
                step.SetTranslation(eye.x, eye.y, eye.z);
            } else {
                continue;
            }
            m = step * m;
        }
        return m;
    }

    static C4x4Matrix Rotation(float ax, float ay, float az, float angle) {
        C4x4Matrix m;
        double len = std::sqrt(double(ax) * ax + double(ay) * ay + double(az) * az);
        if (len < 1e-12 || !std::isfinite(len) || !std::isfinite(angle)) return m;
        double x = ax / len, y = ay / len, z = az / len, c = std::cos(angle), s = std::sin(angle), t = 1 - c;
        double r[3][3] = {{c + x * x * t, x * y * t - z * s, x * z * t + y * s},
                          {y * x * t + z * s, c + y * y * t, y * z * t - x * s},
                          {z * x * t - y * s, z * y * t + x * s, c + z * z * t}};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) m.m[i][j] = static_cast<float>(r[j][i]);
        return m;
    }

    C3DSceneNode* AddNode(C3DSceneNode* parent, C3DBaseObject* obj, const std::string& name) {
        if (++m_instances > kMaxInstances) {
            delete obj;
            if (!m_stopped) Log("Collada: too many instances; the rest was left out.");
            m_stopped = true;
            return nullptr;
        }
        auto* n = new C3DSceneNode(obj);
        n->SetName(Wide(name));
        m_scene.AddNode(parent, n);
        return n;
    }

    void WalkNode(pugi::xml_node node, C3DSceneNode* parent, std::vector<pugi::xml_node>& stack) {
        if (Stopped()) return;
        if (m_parser.IsCancelled()) {
            m_cancelled = true;
            return;
        }
        if (stack.size() >= static_cast<size_t>(kMaxNodeDepth)) {
            if (!m_depthLogged) Log("Collada: nodes nested too deeply were left out.");
            m_depthLogged = true;
            return;
        }
        if (std::find(stack.begin(), stack.end(), node) != stack.end()) {
            Log("Collada: a node instances itself; the inner copy was left out.");
            return;
        }
        const char* nm = node.attribute("name").value();
        C3DSceneNode* me = AddNode(parent, new C3DGroup(), *nm ? nm : node.attribute("id").value());
        if (!me) return;
        me->SetNodeLocalTM(NodeMatrix(node));
        stack.push_back(node);
        for (pugi::xml_node c : node.children()) {
            if (Stopped()) break;
            const std::string_view kind = c.name();
            if (kind == "node") {
                WalkNode(c, me, stack);
            } else if (kind == "instance_node") {
                if (pugi::xml_node target = ById(Fragment(c.attribute("url").value()))) WalkNode(target, me, stack);
            } else if (kind == "instance_geometry") {
                InstanceGeometry(c, me);
            } else if (kind == "instance_camera") {
                pugi::xml_node cam = ById(Fragment(c.attribute("url").value()));
                auto* camera = new C3DCamera();
                pugi::xml_node opt = cam.child("optics").child("technique_common");
                if (pugi::xml_node persp = opt.child("perspective")) {
                    float y = persp.child("yfov").text().as_float(0);
                    float x = persp.child("xfov").text().as_float(0);
                    float aspect = persp.child("aspect_ratio").text().as_float(0);
                    if (y <= 0 && x > 0 && aspect > 0) y = 2 * std::atan(std::tan(x * 3.14159265f / 360) / aspect) * 180 / 3.14159265f;
                    if (y > 0) camera->SetVFov(y * 3.14159265f / 180.0f);
                } else if (pugi::xml_node ortho = opt.child("orthographic")) {
                    camera->SetProjection(PROJECTION_ORTHOGRAPHIC);
                    camera->SetVOrthoZoom(ortho.child("ymag").text().as_float(1));
                }
                AddNode(me, camera, cam.attribute("name").value());
            } else if (kind == "instance_light") {
                pugi::xml_node l = ById(Fragment(c.attribute("url").value())).child("technique_common");
                pugi::xml_node which = l.first_child();
                auto* light = new C3DLight();
                const std::string_view type = which.name();
                light->SetLightKind(type == "spot" ? LIGHT_SPOT : type == "directional" ? LIGHT_DIRECTIONAL
                                                      : type == "ambient"                ? LIGHT_AMBIENT
                                                                                          : LIGHT_POINT);
                std::vector<float> col;
                ParseList(which.child("color").child_value(), col);
                if (col.size() >= 3) light->color = CRGBColor(Byte(col[0]), Byte(col[1]), Byte(col[2]));
                if (type == "spot") light->cutOffAngle = which.child("falloff_angle").text().as_float(45) * 3.14159265f / 360.0f;
                AddNode(me, light, ById(Fragment(c.attribute("url").value())).attribute("name").value());
            }
        }
        stack.pop_back();
    }

    void InstanceGeometry(pugi::xml_node inst, C3DSceneNode* node) {
        pugi::xml_node geom = ById(Fragment(inst.attribute("url").value()));
        if (!geom) return;
        const BuiltGeometry* g = BuildGeometry(geom);
        if (!g || Stopped()) return;
        // Symbols of the geometry's primitives to host materials, through bind_material.
        std::vector<uint32_t> map(g->symbols.size(), NO_MATERIAL);
        for (size_t s = 0; s < g->symbols.size(); ++s) {
            pugi::xml_node im = inst.child("bind_material").child("technique_common").find_child_by_attribute(
                "instance_material", "symbol", g->symbols[s].c_str());
            std::string_view target = im ? Fragment(im.attribute("target").value()) : std::string_view(g->symbols[s]);
            if (!target.empty() && ById(target)) map[s] = Material(target);
        }
        const char* nm = geom.attribute("name").value();
        std::string name = *nm ? nm : geom.attribute("id").value();
        if (g->mesh) {
            const uint64_t cost = g->mesh->GetPointList()->size() * 3 + g->mesh->GetFaceList()->GetNumberOfIndices();
            if (!Charge(cost)) return;
            std::unique_ptr<C3DBaseObject> copy = g->mesh->Clone();
            for (uint32_t& mid : static_cast<C3DGeomObject&>(*copy).GetFaceList()->GetMaterialIDs())
                mid = mid < map.size() ? map[mid] : NO_MATERIAL;
            if (node->GetBaseObject() && node->GetKindOf() == KINDOF_GROUP && !node->GetChildNode()) {
                node->SetObject(copy.release()); // the node's first geometry rides on the node itself
            } else {
                AddNode(node, copy.release(), name);
            }
        }
        for (const auto& c : g->curves) {
            if (!Charge(c->GetPointList()->size() * 3)) return;
            std::unique_ptr<C3DBaseObject> copy = c->Clone();
            for (uint32_t& mid : static_cast<C3DGeomObject&>(*copy).GetFaceList()->GetMaterialIDs())
                mid = mid < map.size() ? map[mid] : NO_MATERIAL;
            AddNode(node, copy.release(), name);
        }
    }

    C3DScene& m_scene;
    CIoOptions& m_log;
    const CFileParser& m_parser;
    std::string m_file;
    pugi::xml_document m_doc;
    pugi::xml_node m_root;
    std::unordered_map<std::string, pugi::xml_node> m_ids;
    std::unordered_map<std::string, Source> m_sources;
    std::unordered_map<std::string, std::unique_ptr<BuiltGeometry>> m_geometries;
    std::unordered_map<std::string, uint32_t> m_materials;
    uint64_t m_budget = 0, m_used = 0, m_instances = 0;
    bool m_stopped = false, m_cancelled = false, m_depthLogged = false;
};

} // namespace

C3DScene* CColladaIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    return ReadThroughFile(*this, path, options, [this, &path](std::span<const uint8_t> data, CReadContext& ctx) {
        return ReadBytes(data, ctx.Options(), path);
    });
}

C3DScene* CColladaIo::ReadMemory(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& path) {
    return ReadThroughMemory(*this, data, options, [this, &path](std::span<const uint8_t> bytes, CReadContext& ctx) {
        return ReadBytes(bytes, ctx.Options(), path);
    });
}

C3DScene* CColladaIo::ReadBytes(std::span<const uint8_t> data, CSceneImportOptions& options, const CXStringW& path) {
    auto scene = std::make_unique<C3DScene>();
    Reader reader(*scene, options, *this, PathToUtf8(path));
    if (!reader.Load(data)) {
        m_fileIo.SetIoError(IO_ERR_FORMAT, &options, LOG_ERROR);
        return nullptr;
    }
    reader.Convert();
    if (reader.Cancelled()) {
        m_fileIo.SetIoError(IO_ERR_CANCELLED, &options, LOG_INFO);
        return nullptr;
    }
    if (scene->GetChildCount(nullptr, KINDOF_EXPORTABLE | KINDOF_CAMERA | KINDOF_LIGHT) == 0) {
        m_fileIo.SetIoError(IO_ERR_EMPTY, &options, LOG_INFO);
        return nullptr;
    }
    SetScene(scene.get());
    return scene.release();
}

bool HostInit3DParser(int action, void* data) {
    if (action == 0 && data) {
        CFileExt rec;
        rec.description = L"Collada files";
        rec.extensions = L".dae";
        rec.typeID = COLLADA_TYPE_ID;
        rec.flags = 0x40011;
        rec.readProvider = PROVIDER_PLUGIN;
        rec.writeProvider = PROVIDER_NONE;
        static_cast<CXArray<CFileExt>*>(data)->Add(rec);
    } else if (action == 1 && data) {
        auto* req = static_cast<C3DParserRequest*>(data);
        if (req->typeID == COLLADA_TYPE_ID && req->fileIo) req->parser = new (std::nothrow) CColladaIo(*req->fileIo);
    }
    return true;
}
