// The `orbiscope` Python module: formats, read, write and convert, and the scene as numpy
// arrays. Arrays are views of the host's own storage (their base is the Scene object,
// which keeps the storage alive); reads and writes run without the GIL on a thread of
// their own, so Ctrl-C in the main thread cancels them.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <chrono>
#include <condition_variable>
#include <dlfcn.h>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

#include "plugin/host/FileHelpers.h"
#include "plugin/host/Scene.h"
#include "plugin/host/Triangulate.h"
#include "python/Session.h"

namespace py = pybind11;
namespace fs = std::filesystem;
using namespace pyorbiscope;

namespace {

std::string Narrow(const CXStringW& w) { return WideToUtf8(w.view()); }
CXStringW Wide(const std::string& s) { return CXStringW(Utf8ToWide(s)); }

// ---- errors and warnings ----------------------------------------------------------

struct Errors {
    py::object base, cannotOpen, format, empty, cancelled, notAvailable, nothingToWrite, cannotWrite, usage;
    py::object warning;
};
Errors* g_errors = nullptr;

py::object NewClass(py::module_& m, const char* name, py::handle base, const char* doc) {
    const std::string qualified = std::string("orbiscope.") + name;
    PyObject* cls = PyErr_NewExceptionWithDoc(qualified.c_str(), doc, base.ptr(), nullptr);
    if (!cls) throw py::error_already_set();
    py::object o = py::reinterpret_steal<py::object>(cls);
    m.add_object(name, o);
    return o;
}

[[noreturn]] void Raise(const Outcome& out) {
    py::object cls = g_errors->base;
    switch (out.result) {
    case IO_ERR_OPEN: cls = g_errors->cannotOpen; break;
    case IO_ERR_FORMAT: cls = g_errors->format; break;
    case IO_ERR_EMPTY: cls = g_errors->empty; break;
    case IO_ERR_CANCELLED: cls = g_errors->cancelled; break;
    case IO_ERR_NOT_AVAILABLE: cls = g_errors->notAvailable; break;
    case IO_ERR_NOTHING_TO_WRITE: cls = g_errors->nothingToWrite; break;
    case RESULT_CANNOT_WRITE: cls = g_errors->cannotWrite; break;
    case RESULT_USAGE: cls = g_errors->usage; break;
    default: break;
    }
    py::object e = cls(out.message);
    e.attr("code") = out.result;
    e.attr("exit_code") = out.exitCode;
    PyErr_SetObject(cls.ptr(), e.ptr());
    throw py::error_already_set();
}

// The options' log as warnings: each distinct text once, with its count when repeated.
// When the call failed, its own error record is the exception, not a warning as well.
void Warn(const std::vector<IoLogInfo>& log, bool failed) {
    std::vector<std::pair<std::string, int>> seen;
    for (const IoLogInfo& l : log) {
        if (failed && l.level >= LOG_ERROR) continue;
        std::string t = Narrow(l.text);
        auto it = std::find_if(seen.begin(), seen.end(), [&](auto& p) { return p.first == t; });
        if (it == seen.end()) seen.emplace_back(std::move(t), 1);
        else ++it->second;
    }
    for (auto& [text, n] : seen) {
        std::string s = n > 1 ? text + " (" + std::to_string(n) + " times)" : text;
        if (PyErr_WarnEx(g_errors->warning.ptr(), s.c_str(), 1) != 0) throw py::error_already_set();
    }
}

// ---- running a read or a write off the GIL -------------------------------------------

struct ProgressBridge {
    py::object fn;
    std::atomic<bool>* cancel = nullptr;
    std::optional<py::error_already_set> error;

    static void Sink(int64_t done, int64_t total, void* user) {
        auto* b = static_cast<ProgressBridge*>(user);
        if (b->cancel->load()) return;
        py::gil_scoped_acquire gil;
        try {
            py::object r = b->fn(done, total);
            if (!r.is_none() && !r.cast<bool>()) b->cancel->store(true);
        } catch (py::error_already_set& e) {
            b->error.emplace(std::move(e));
            b->cancel->store(true);
        }
    }
};

// Runs `work` on a thread of its own while the caller waits without the GIL. A signal
// seen by the main thread (Ctrl-C) cancels the work; its exception is raised once the
// work has stopped.
template <class F> void RunOffTheGil(F&& work, std::atomic<bool>& cancel) {
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    std::exception_ptr failure;
    std::thread worker([&] {
        try {
            work();
        } catch (...) { failure = std::current_exception(); }
        std::lock_guard<std::mutex> g(m);
        done = true;
        cv.notify_all();
    });
    bool interrupted = false;
    for (;;) {
        {
            py::gil_scoped_release nogil;
            std::unique_lock<std::mutex> l(m);
            if (cv.wait_for(l, std::chrono::milliseconds(40), [&] { return done; })) break;
        }
        if (!interrupted && PyErr_CheckSignals() != 0) {
            interrupted = true;
            cancel.store(true);
        }
    }
    {
        py::gil_scoped_release nogil;
        worker.join();
    }
    if (interrupted) throw py::error_already_set();
    if (failure) std::rethrow_exception(failure);
}

Hooks MakeHooks(std::atomic<bool>& cancel, ProgressBridge& bridge, const py::object& progress) {
    Hooks h;
    h.cancel = &cancel;
    bridge.cancel = &cancel;
    if (!progress.is_none()) {
        bridge.fn = progress;
        h.progress = &ProgressBridge::Sink;
        h.user = &bridge;
    }
    return h;
}

std::string PathArg(const py::object& p) { return py::str(py::module_::import("os").attr("fspath")(p)); }

// ---- the scene -------------------------------------------------------------------------

struct SceneBox {
    std::unique_ptr<C3DScene> scene;
    std::string path, format;
};

// Everything below holds the Python Scene object: the views stay valid while it lives.
struct Ref {
    py::object owner;
    SceneBox& box() const { return owner.cast<SceneBox&>(); }
};

template <class T> py::array View(const T* data, std::vector<py::ssize_t> shape, const py::object& owner) {
    size_t n = 1;
    for (auto s : shape) n *= static_cast<size_t>(s);
    if (!data || n == 0) return py::array_t<T>(shape);
    return py::array_t<T>(shape, data, owner);
}

// Matrices as numpy users expect them: column vectors, translation in the last column.
py::array Matrix(const C4x4Matrix& m) {
    py::array_t<double> a({4, 4});
    auto r = a.mutable_unchecked<2>();
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) r(j, i) = m.m[i][j];
    return a;
}

C4x4Matrix MatrixFrom(const py::object& o) {
    auto a = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(o);
    if (!a || a.ndim() != 2 || a.shape(0) != 4 || a.shape(1) != 4) throw py::value_error("a matrix must be 4x4");
    C4x4Matrix m;
    auto r = a.unchecked<2>();
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) m.m[i][j] = static_cast<float>(r(j, i));
    return m;
}

const char* KindName(uint32_t k) {
    switch (k) {
    case KINDOF_MESH: return "mesh";
    case KINDOF_CURVE: return "curve";
    case KINDOF_PATCH: return "patch";
    case KINDOF_GROUP: return "group";
    case KINDOF_CAMERA: return "camera";
    case KINDOF_LIGHT: return "light";
    case KINDOF_POINTCLOUD: return "points";
    default: return "other";
    }
}

const std::map<int, const char*>& UnitNames() {
    static const std::map<int, const char*> names = {{UNIT_NONE, "none"},
                                                     {UNIT_MILLIMETER, "millimeter"},
                                                     {UNIT_CENTIMETER, "centimeter"},
                                                     {UNIT_METER, "meter"},
                                                     {UNIT_KILOMETER, "kilometer"},
                                                     {UNIT_INCH, "inch"},
                                                     {UNIT_FOOT, "foot"},
                                                     {UNIT_MILE, "mile"}};
    return names;
}

std::string FourCCText(uint32_t c) {
    std::string s;
    for (int sh = 24; sh >= 0; sh -= 8) {
        const char ch = static_cast<char>((c >> sh) & 0xFF);
        if (ch) s += ch;
    }
    while (!s.empty() && s.back() == ' ') s.pop_back();
    return s;
}

struct ChannelRef : Ref {
    C3DChannel* c = nullptr;
    std::string Type() const {
        switch (c->GetType()) {
        case CHANNEL_UVW: return "uv";
        case CHANNEL_VC: return "color";
        case CHANNEL_SPEC_NORMAL: return "normal";
        case CHANNEL_FACE_NORMAL: return "face_normal";
        default: return "other";
        }
    }
    py::array Values() const {
        switch (c->GetType()) {
        case CHANNEL_UVW: {
            auto* p = static_cast<CUVWChannel*>(c)->GetUVWPointList();
            return View(p->GetData(), {static_cast<py::ssize_t>(p->size()), 3}, owner);
        }
        case CHANNEL_VC: {
            auto& raw = static_cast<CVCChannel*>(c)->GetVCPointList()->Raw();
            static_assert(sizeof(CRGBColor) == 4);
            return View(reinterpret_cast<const uint8_t*>(raw.data()), {static_cast<py::ssize_t>(raw.size()), 4}, owner);
        }
        case CHANNEL_SPEC_NORMAL: {
            auto* p = static_cast<CSpecNormalChannel*>(c)->GetNormalVectorList();
            return View(p->GetData(), {static_cast<py::ssize_t>(p->size()), 3}, owner);
        }
        case CHANNEL_FACE_NORMAL: {
            auto* p = static_cast<CFaceNormalChannel*>(c)->GetNormalVectorList();
            return View(p->GetData(), {static_cast<py::ssize_t>(p->size()), 3}, owner);
        }
        default: return py::array_t<float>(std::vector<py::ssize_t>{0, 3});
        }
    }
    py::object Offsets() const {
        const CFaceList* f = c->GetFaceList();
        if (!f) return py::none();
        return View(f->GetOffsets().data(), {static_cast<py::ssize_t>(f->GetOffsets().size())}, owner);
    }
    py::object Indices() const {
        const CFaceList* f = c->GetFaceList();
        if (!f) return py::none();
        return View(f->GetIndexes().data(), {static_cast<py::ssize_t>(f->GetIndexes().size())}, owner);
    }
};

struct MeshRef : Ref {
    C3DGeomObject* g = nullptr;

    C3DFaceList* Faces() const { return g->GetFaceList(); }
    py::array Points() const {
        const C3DPointList* p = g->GetPointList();
        if (!p) return py::array_t<float>(std::vector<py::ssize_t>{0, 3});
        return View(p->GetData(), {static_cast<py::ssize_t>(p->size()), 3}, owner);
    }
    py::array Offsets() const {
        if (!Faces()) return py::array_t<uint32_t>(std::vector<py::ssize_t>{1});
        const auto& o = Faces()->GetOffsets();
        return View(o.data(), {static_cast<py::ssize_t>(o.size())}, owner);
    }
    py::array Indices() const {
        if (!Faces()) return py::array_t<uint32_t>(std::vector<py::ssize_t>{0});
        const auto& i = Faces()->GetIndexes();
        return View(i.data(), {static_cast<py::ssize_t>(i.size())}, owner);
    }
    py::array MaterialIDs() const {
        if (!Faces()) return py::array_t<uint32_t>(std::vector<py::ssize_t>{0});
        const auto& m = Faces()->GetMaterialIDs();
        return View(m.data(), {static_cast<py::ssize_t>(m.size())}, owner);
    }
    int FaceCount() const { return Faces() ? Faces()->GetNumberOfFaces() : 0; }

    // Every face cut into triangles on its own plane (concave faces keep their area);
    // faces of fewer than three corners give none. Also the face each triangle came from.
    py::tuple Triangles() const {
        std::vector<uint32_t> tri, from;
        const C3DFaceList* f = Faces();
        const C3DPointList* p = g->GetPointList();
        if (f && p && g->GetKindOf() != KINDOF_CURVE) {
            py::gil_scoped_release nogil;
            const size_t n = f->GetNumberOfIndices();
            tri.reserve(n * 3);
            from.reserve(n);
            CPolygonTriangulator cutter(50'000'000 + 64 * static_cast<uint64_t>(n));
            std::vector<uint32_t> corners;
            const uint32_t count = static_cast<uint32_t>(p->size());
            for (int i = 0; i < f->GetNumberOfFaces(); ++i) {
                auto face = f->Face(i);
                // Faces that point past the point list are left out rather than read past it.
                if (std::any_of(face.begin(), face.end(), [&](uint32_t k) { return k >= count; })) continue;
                corners.clear();
                cutter.Triangulate(*p, face, corners);
                for (uint32_t c : corners) tri.push_back(face[c]);
                from.insert(from.end(), corners.size() / 3, static_cast<uint32_t>(i));
            }
        }
        py::array_t<uint32_t> t({static_cast<py::ssize_t>(tri.size() / 3), py::ssize_t(3)});
        std::copy(tri.begin(), tri.end(), t.mutable_data());
        py::array_t<uint32_t> s({static_cast<py::ssize_t>(from.size())});
        std::copy(from.begin(), from.end(), s.mutable_data());
        return py::make_tuple(t, s);
    }

    std::vector<ChannelRef> Channels() const {
        std::vector<ChannelRef> v;
        for (auto& c : g->GetChannels()) {
            ChannelRef r;
            r.owner = owner;
            r.c = c.get();
            v.push_back(r);
        }
        return v;
    }
    py::object ChannelOf(uint32_t type, int32_t preferred) const {
        C3DChannel* c = preferred >= 0 ? g->GetChannelByID(preferred, type) : nullptr;
        if (!c) c = g->GetChannelByIndex(0, type);
        if (!c) return py::none();
        ChannelRef r;
        r.owner = owner;
        r.c = c;
        return py::cast(r);
    }
};

struct NodeRef : Ref {
    C3DSceneNode* n = nullptr;
    bool operator==(const NodeRef& o) const { return n == o.n; }
};

NodeRef MakeNode(const py::object& owner, C3DSceneNode* n) {
    NodeRef r;
    r.owner = owner;
    r.n = n;
    return r;
}

py::object NodeMesh(const NodeRef& r) {
    C3DGeomObject* g = r.n->GetGeomObject();
    if (!g) return py::none();
    MeshRef m;
    m.owner = r.owner;
    m.g = g;
    return py::cast(m);
}

py::dict CameraDict(const C3DCamera& c) {
    py::dict d;
    d["kind"] = c.GetCameraKind() == CAMERA_TARGET ? "target" : "free";
    d["projection"] = c.GetProjection() == PROJECTION_ORTHOGRAPHIC ? "orthographic" : "perspective";
    d["vfov"] = c.GetVFov();
    d["ortho_zoom"] = c.GetVOrthoZoom();
    d["roll"] = c.GetRoll();
    const C3DPoint t = c.GetTarget();
    d["target"] = py::make_tuple(t.x, t.y, t.z);
    d["near"] = c.GetNear();
    d["far"] = c.GetFar();
    return d;
}

py::dict LightDict(const C3DLight& l) {
    static const char* kinds[] = {"point", "spot", "directional", "ambient"};
    py::dict d;
    const int k = l.GetLightKind();
    d["kind"] = k >= 0 && k < 4 ? kinds[k] : "other";
    d["color"] = py::make_tuple(l.color.r, l.color.g, l.color.b);
    d["intensity"] = l.intensity;
    d["ambient_intensity"] = l.ambientIntensity;
    d["on"] = l.on;
    d["direction"] = py::make_tuple(l.direction.x, l.direction.y, l.direction.z);
    d["location"] = py::make_tuple(l.location.x, l.location.y, l.location.z);
    d["radius"] = l.radius;
    d["attenuation"] = py::make_tuple(l.attenuation.x, l.attenuation.y, l.attenuation.z);
    d["beam_width"] = l.beamWidth;
    d["cutoff_angle"] = l.cutOffAngle;
    return d;
}

// A track: its tag ("TRAN", "ROTA" ...), key times in ticks and one row of values per key
// (3 for vectors, 4 for rotations as x y z w, 16 for matrices in numpy's layout).
py::dict TrackDict(const C3DKeyCurve& t) {
    py::dict d;
    const uint64_t type = t.GetType();
    std::string tag = FourCCText(static_cast<uint32_t>(type >> 32));
    const uint32_t lo = static_cast<uint32_t>(type);
    if (lo && lo != static_cast<uint32_t>(type >> 32)) tag += "/" + FourCCText(lo);
    d["type"] = tag;
    d["curve"] = FourCCText(t.GetCurveKind());
    const int n = t.GetKeyNbr();
    const int width = type == KEY_MATRIX ? 16 : type == KEY_ROTATE ? 4 : 3;
    py::array_t<int32_t> times({static_cast<py::ssize_t>(n)});
    py::array_t<double> values({static_cast<py::ssize_t>(n), static_cast<py::ssize_t>(width)});
    auto tv = times.mutable_unchecked<1>();
    auto vv = values.mutable_unchecked<2>();
    for (int i = 0; i < n; ++i) {
        const C3DKey* k = t.GetKeyByIndex(i);
        tv(i) = k->GetTime();
        if (auto* mk = dynamic_cast<const C3DMatrixKey*>(k)) {
            for (int r = 0; r < 4; ++r)
                for (int c = 0; c < 4; ++c) vv(i, c * 4 + r) = mk->matrix.m[r][c];
        } else if (auto* rk = dynamic_cast<const C3DRotateKey*>(k)) {
            const CQuaternion& q = rk->GetQuaternion();
            vv(i, 0) = q.x, vv(i, 1) = q.y, vv(i, 2) = q.z, vv(i, 3) = q.w;
        } else if (auto* vk = dynamic_cast<const C3DVectorKey*>(k)) {
            vv(i, 0) = vk->value.x, vv(i, 1) = vk->value.y, vv(i, 2) = vk->value.z;
        } else {
            for (int c = 0; c < width; ++c) vv(i, c) = 0;
        }
    }
    d["times"] = times;
    d["values"] = values;
    return d;
}

// ---- materials -----------------------------------------------------------------------

py::tuple Rgba(const CRGBColor& c) { return py::make_tuple(c.r, c.g, c.b, c.a); }

CRGBColor ColorFrom(const py::object& o) {
    auto seq = o.cast<py::sequence>();
    if (seq.size() < 3 || seq.size() > 4) throw py::value_error("a colour has 3 or 4 components");
    bool unit = false;
    for (auto v : seq) unit = unit || py::isinstance<py::float_>(v);
    uint8_t c[4] = {0, 0, 0, 255};
    for (size_t i = 0; i < seq.size(); ++i) {
        double v = seq[i].cast<double>();
        if (unit) v *= 255.0;
        c[i] = static_cast<uint8_t>(std::clamp(v + (unit ? 0.5 : 0.0), 0.0, 255.0));
    }
    return CRGBColor(c[0], c[1], c[2], c[3]);
}

const char* MapTypeName(uint32_t t) {
    static const char* names[] = {"none", "diffuse",    "specular",  "ambient",    "opacity",       "normal",
                                  "bump", "reflection", "shininess", "self_illum", "specular_level"};
    return t < MAP_TYPE_COUNT ? names[t] : "other";
}

// Where the map's file is: as written when it exists, else beside the scene's file, in
// the scene's texture folders, or as a required file of the same name.
std::optional<std::string> ResolveMap(const C3DScene& s, const std::string& sceneFile, const CXStringW& file) {
    if (file.IsEmpty()) return std::nullopt;
    const std::string name = Narrow(file);
    std::error_code ec;
    std::vector<fs::path> tries;
    fs::path p(name);
    const fs::path base = sceneFile.empty() ? fs::path() : fs::path(sceneFile).parent_path();
    if (p.is_absolute()) tries.push_back(p);
    else tries.push_back(base / p);
    const fs::path leaf = fs::path(name).filename();
    tries.push_back(base / leaf);
    for (const CXStringW& d : s.GetTexturePaths()) tries.push_back(fs::path(Narrow(d)) / leaf);
    for (const CXStringW& f : s.GetRequiredFiles())
        if (fs::path(Narrow(f)).filename() == leaf) tries.push_back(Narrow(f));
    for (const fs::path& t : tries)
        if (!t.empty() && fs::is_regular_file(t, ec)) return fs::absolute(t, ec).lexically_normal().string();
    return std::nullopt;
}

struct MaterialRef : Ref {
    uint32_t id = NO_MATERIAL;
    C3DMaterial* Get() const {
        C3DMaterial* m = box().scene->GetMaterialByID(id);
        if (!m) throw py::value_error("the material is no longer in the scene");
        return m;
    }
    C3DStandardMaterial* Standard() const {
        C3DMaterial* m = Get();
        return m->GetClass() == MATERIAL_STANDARD ? static_cast<C3DStandardMaterial*>(m) : nullptr;
    }
    py::list Maps() const {
        py::list l;
        C3DMaterial* m = Get();
        for (int i = 0; i < m->GetMaterialMapCount(); ++i) {
            const CMaterialMap* mm = m->GetMaterialMapByIndex(i);
            py::dict d;
            d["type"] = MapTypeName(mm->type);
            d["file"] = Narrow(mm->file);
            auto r = ResolveMap(*box().scene, box().path, mm->file);
            d["resolved"] = r ? py::cast(*r) : py::none();
            d["found"] = r.has_value();
            d["channel"] = mm->channel;
            d["amount"] = mm->amount;
            d["tile"] = py::make_tuple(mm->tileU, mm->tileV);
            d["scale"] = py::make_tuple(mm->scaleU, mm->scaleV);
            d["translate"] = py::make_tuple(mm->translateU, mm->translateV);
            l.append(d);
        }
        return l;
    }
};

MaterialRef MakeMaterial(const py::object& owner, uint32_t id) {
    MaterialRef r;
    r.owner = owner;
    r.id = id;
    return r;
}

// ---- building scenes from arrays -----------------------------------------------------

using IndexArray = py::array_t<int64_t, py::array::c_style | py::array::forcecast>;

std::pair<std::vector<uint32_t>, std::vector<uint32_t>> FacesFrom(const py::object& faces, const py::object& offsets,
                                                                  const py::object& indices, size_t pointCount) {
    std::vector<uint32_t> off{0}, idx;
    auto check = [&](int64_t v) {
        if (v < 0 || static_cast<uint64_t>(v) >= pointCount)
            throw py::index_error("face index " + std::to_string(v) + " is not one of the " +
                                  std::to_string(pointCount) + " points");
        return static_cast<uint32_t>(v);
    };
    if (!faces.is_none()) {
        if (!offsets.is_none() || !indices.is_none())
            throw py::value_error("give faces, or offsets and indices, not both");
        IndexArray a = IndexArray::ensure(faces);
        if (!a || a.ndim() != 2) throw py::value_error("faces must be an (m, k) array of point indices");
        auto r = a.unchecked<2>();
        idx.reserve(static_cast<size_t>(a.size()));
        for (py::ssize_t i = 0; i < r.shape(0); ++i) {
            for (py::ssize_t j = 0; j < r.shape(1); ++j) idx.push_back(check(r(i, j)));
            off.push_back(static_cast<uint32_t>(idx.size()));
        }
    } else if (!offsets.is_none() && !indices.is_none()) {
        IndexArray o = IndexArray::ensure(offsets), i = IndexArray::ensure(indices);
        if (!o || !i || o.ndim() != 1 || i.ndim() != 1 || o.size() < 1)
            throw py::value_error("offsets and indices must be flat arrays");
        auto ro = o.unchecked<1>();
        auto ri = i.unchecked<1>();
        if (ro(0) != 0 || ro(o.size() - 1) != i.size())
            throw py::value_error("offsets must start at 0 and end at the number of indices");
        for (py::ssize_t k = 1; k < o.size(); ++k)
            if (ro(k) < ro(k - 1)) throw py::value_error("offsets must not decrease");
        idx.reserve(static_cast<size_t>(i.size()));
        for (py::ssize_t k = 0; k < i.size(); ++k) idx.push_back(check(ri(k)));
        off.clear();
        for (py::ssize_t k = 0; k < o.size(); ++k) off.push_back(static_cast<uint32_t>(ro(k)));
    } else if (!offsets.is_none() || !indices.is_none()) {
        throw py::value_error("offsets and indices go together");
    }
    return {std::move(off), std::move(idx)};
}

uint32_t MaterialArg(SceneBox& box, const py::object& material) {
    if (material.is_none()) return NO_MATERIAL;
    uint32_t id = py::isinstance<MaterialRef>(material) ? material.cast<MaterialRef&>().id : material.cast<uint32_t>();
    if (!box.scene->GetMaterialByID(id))
        throw py::value_error("there is no material " + std::to_string(id) + " in the scene");
    return id;
}

C3DSceneNode* ParentArg(SceneBox& box, const py::object& parent) {
    if (parent.is_none()) return nullptr;
    C3DSceneNode* p = parent.cast<NodeRef&>().n;
    if (!box.scene->IsNodeInScene(p)) throw py::value_error("the parent is not a node of this scene");
    return p;
}

NodeRef AddMesh(const py::object& self, const py::object& points, const py::object& faces, const py::object& offsets,
                const py::object& indices, const std::string& name, const py::object& parent,
                const py::object& material, const py::object& matrix, const py::object& uv) {
    SceneBox& box = self.cast<SceneBox&>();
    auto pts = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(points);
    if (!pts || pts.ndim() != 2 || pts.shape(1) != 3) throw py::value_error("points must be an (n, 3) array");
    const size_t n = static_cast<size_t>(pts.shape(0));
    auto [off, idx] = FacesFrom(faces, offsets, indices, n);
    const uint32_t mat = MaterialArg(box, material);
    C3DSceneNode* par = ParentArg(box, parent);

    auto obj = std::make_unique<C3DObject>();
    auto* pl = new C3DPointList;
    pl->SetSize(static_cast<int>(n));
    std::copy(pts.data(), pts.data() + n * 3, pl->GetData());
    obj->SetPointList(pl);
    auto* fl = new C3DFaceList;
    fl->SetCurrentMaterial(mat);
    for (size_t f = 0; f + 1 < off.size(); ++f) fl->AddFace(idx.data() + off[f], static_cast<int>(off[f + 1] - off[f]));
    obj->SetFaceList(fl);
    if (!uv.is_none()) {
        auto u = py::array_t<float, py::array::c_style | py::array::forcecast>::ensure(uv);
        if (!u || u.ndim() != 2 || static_cast<size_t>(u.shape(0)) != n || (u.shape(1) != 2 && u.shape(1) != 3))
            throw py::value_error("uv must be an (n, 2) or (n, 3) array, one row per point");
        auto ch = std::make_unique<CUVWChannel>();
        CUVWPointList* up = ch->GetUVWPointList();
        up->SetSize(static_cast<int>(n));
        auto r = u.unchecked<2>();
        for (size_t i = 0; i < n; ++i)
            up->SetPoint(static_cast<int>(i), {r(i, 0), r(i, 1), u.shape(1) == 3 ? r(i, 2) : 0.0f});
        for (size_t f = 0; f + 1 < off.size(); ++f)
            ch->GetUVWFaceList()->AddFace(idx.data() + off[f], static_cast<int>(off[f + 1] - off[f]));
        obj->SetGlobalUVWChannel(obj->AddChannel(std::move(ch)));
    }
    auto* node = new C3DSceneNode(obj.release());
    node->SetName(Wide(name));
    if (!matrix.is_none()) node->SetNodeLocalTM(MatrixFrom(matrix));
    box.scene->AddNode(par, node);
    return MakeNode(self, node);
}

// ---- module-level functions ----------------------------------------------------------

std::vector<std::string> AnchorDirs() {
    Dl_info info{};
    std::vector<std::string> dirs;
    if (dladdr(reinterpret_cast<void*>(&AnchorDirs), &info) && info.dli_fname) {
        fs::path self = fs::absolute(info.dli_fname).parent_path();
#ifdef ORBISCOPE_MODULE_DIR
        dirs.push_back(ORBISCOPE_MODULE_DIR);
#endif
        dirs.push_back((self.parent_path() / "lib").string());
        // Installed: <prefix>/lib/python3.X/dist-packages beside <prefix>/lib.
        dirs.push_back(self.parent_path().parent_path().string());
        dirs.push_back(self.string());
    }
    return dirs;
}

py::object ReadInto(const std::string& path, const std::string& fmt, const py::object& progress,
                    const std::string& shownPath) {
    std::atomic<bool> cancel{false};
    ProgressBridge bridge;
    Hooks hooks = MakeHooks(cancel, bridge, progress);
    Outcome out;
    std::unique_ptr<C3DScene> scene;
    RunOffTheGil([&] { scene = ReadFile(path, fmt, hooks, out); }, cancel);
    if (bridge.error) throw std::move(*bridge.error);
    Warn(out.log, !scene);
    if (!scene) {
        if (!shownPath.empty()) {
            // The message names what the caller gave, not the memory file behind it.
            for (size_t at; (at = out.message.find(path)) != std::string::npos;)
                out.message.replace(at, path.size(), shownPath);
        }
        Raise(out);
    }
    auto box = std::make_unique<SceneBox>();
    box->scene = std::move(scene);
    box->path = shownPath.empty() ? path : std::string();
    box->format = out.format;
    return py::cast(std::move(box));
}

py::object Read(const py::object& path, const std::optional<std::string>& format, const py::object& progress) {
    return ReadInto(PathArg(path), format.value_or(""), progress, "");
}

// Bytes are read through an anonymous memory file, so the parsers see an ordinary path
// and nothing is written to disk.
py::object ReadBytes(const py::bytes& data, const std::string& format, const py::object& progress) {
    if (format.empty()) throw py::value_error("read_bytes needs the format's type ID (see formats())");
    const int fd = memfd_create("orbiscope-bytes", MFD_CLOEXEC);
    if (fd < 0) throw std::runtime_error("no memory file for the bytes");
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    std::string_view v = data;
    for (size_t done = 0; done < v.size();) {
        const ssize_t w = ::write(fd, v.data() + done, v.size() - done);
        if (w <= 0) {
            if (w < 0 && errno == EINTR) continue;
            throw std::runtime_error("the bytes could not be put in a memory file");
        }
        done += static_cast<size_t>(w);
    }
    return ReadInto("/proc/self/fd/" + std::to_string(fd), format, progress, "<bytes>");
}

void Write(const py::object& sceneObj, const py::object& path, const std::optional<std::string>& format,
           const py::object& progress) {
    SceneBox& box = sceneObj.cast<SceneBox&>();
    const std::string p = PathArg(path);
    std::atomic<bool> cancel{false};
    ProgressBridge bridge;
    Hooks hooks = MakeHooks(cancel, bridge, progress);
    Outcome out;
    bool ok = false;
    RunOffTheGil([&] { ok = WriteFile(*box.scene, p, format.value_or(""), hooks, out); }, cancel);
    if (bridge.error) throw std::move(*bridge.error);
    Warn(out.log, !ok);
    if (!ok) Raise(out);
}

py::list Formats() {
    py::list l;
    for (const CFormatEntry& f : CParserRegistry::Instance().Formats()) {
        py::dict d;
        d["id"] = Narrow(TypeIDToString(f.ext.typeID));
        d["type_id"] = f.ext.typeID;
        d["description"] = Narrow(f.ext.description);
        py::list exts;
        const std::string all = Narrow(f.ext.extensions);
        size_t start = 0;
        for (size_t bar; start <= all.size(); start = bar + 1) {
            bar = all.find_first_of("|;", start);
            if (bar == std::string::npos) bar = all.size();
            if (bar > start) exts.append(all.substr(start, bar - start));
        }
        d["extensions"] = exts;
        d["read"] = f.CanRead();
        d["write"] = f.CanWrite();
        l.append(d);
    }
    return l;
}

} // namespace

PYBIND11_MODULE(orbiscope, m) {
    m.doc() = "Read and write 3D files of fourteen formats; scenes as numpy arrays.";
    static Errors errors;
    g_errors = &errors;
    errors.base = NewClass(m, "Error", PyExc_Exception,
                           "A read or a write failed; `code` is the host's result code, `exit_code` the "
                           "command line's exit status for it.");
    errors.cannotOpen = NewClass(m, "CannotOpenError", errors.base, "The file cannot be opened.");
    errors.format = NewClass(m, "FormatError", errors.base, "Not a file of this format, or a damaged one.");
    errors.empty = NewClass(m, "EmptyError", errors.base, "The file holds nothing that can be loaded.");
    errors.cancelled = NewClass(m, "CancelledError", errors.base, "The read or write was cancelled.");
    errors.notAvailable = NewClass(m, "NotAvailableError", errors.base, "No format reads (or writes) this file.");
    errors.nothingToWrite = NewClass(m, "NothingToWriteError", errors.base, "Nothing in the scene fits the format.");
    errors.cannotWrite = NewClass(m, "CannotWriteError", errors.base, "The output cannot be written.");
    errors.usage = NewClass(m, "UsageError", errors.base, "A format ID that does not exist or does not fit.");
    {
        PyObject* w = PyErr_NewExceptionWithDoc("orbiscope.OrbiscopeWarning", "A note from a reader or writer.",
                                                PyExc_UserWarning, nullptr);
        if (!w) throw py::error_already_set();
        errors.warning = py::reinterpret_steal<py::object>(w);
        m.add_object("OrbiscopeWarning", errors.warning);
    }
    std::string error;
    if (!LoadFormats(AnchorDirs(), error)) throw std::runtime_error(error);

    py::class_<ChannelRef>(m, "Channel", "Per-corner data of a mesh: UVs, colours or normals.")
        .def_property_readonly("type", &ChannelRef::Type)
        .def_property_readonly("id", [](const ChannelRef& c) { return c.c->GetChannelID(); })
        .def_property_readonly("name", [](const ChannelRef& c) { return Narrow(c.c->GetName()); })
        .def_property_readonly("values", &ChannelRef::Values)
        .def_property_readonly("face_offsets", &ChannelRef::Offsets)
        .def_property_readonly("face_indices", &ChannelRef::Indices);

    py::class_<MeshRef>(m, "Mesh", "Points and faces of a node (views of the scene's storage).")
        .def_property_readonly("points", &MeshRef::Points)
        .def_property_readonly("face_offsets", &MeshRef::Offsets)
        .def_property_readonly("face_indices", &MeshRef::Indices)
        .def_property_readonly("material_ids", &MeshRef::MaterialIDs)
        .def_property_readonly("face_count", &MeshRef::FaceCount)
        .def_property_readonly("is_curve", [](const MeshRef& r) { return r.g->GetKindOf() == KINDOF_CURVE; })
        .def(
            "faces",
            [](const MeshRef& r) {
                py::list l;
                const C3DFaceList* f = r.Faces();
                for (int i = 0; f && i < f->GetNumberOfFaces(); ++i) {
                    auto face = f->Face(i);
                    l.append(py::array_t<uint32_t>({static_cast<py::ssize_t>(face.size())}, face.data()));
                }
                return l;
            },
            "Each face as its own small array (a copy; face_offsets/face_indices are the views).")
        .def("triangles", &MeshRef::Triangles,
             "(t, 3) point indices of the faces cut into triangles, and the face each came from.")
        .def_property_readonly("channels", &MeshRef::Channels)
        .def_property_readonly("uv",
                               [](const MeshRef& r) { return r.ChannelOf(CHANNEL_UVW, r.g->GetGlobalUVWChannelID()); })
        .def_property_readonly("colors",
                               [](const MeshRef& r) { return r.ChannelOf(CHANNEL_VC, r.g->GetGlobalVCChannelID()); })
        .def_property_readonly("normals", [](const MeshRef& r) { return r.ChannelOf(CHANNEL_SPEC_NORMAL, -1); })
        .def("bounding_box", [](const MeshRef& r) -> py::object {
            const C3DBox b = r.g->GetBoundingBox();
            if (!b.IsValid()) return py::none();
            return py::make_tuple(py::make_tuple(b.min.x, b.min.y, b.min.z), py::make_tuple(b.max.x, b.max.y, b.max.z));
        });

    py::class_<MaterialRef>(m, "Material")
        .def_property_readonly("id", [](const MaterialRef& r) { return r.id; })
        .def_property_readonly("name", [](const MaterialRef& r) { return Narrow(r.Get()->GetName()); })
        .def_property_readonly("diffuse", [](const MaterialRef& r) { return Rgba(r.Get()->diffuse); })
        .def_property_readonly("diffuse_factor", [](const MaterialRef& r) { return r.Get()->diffuseFactor; })
        .def_property_readonly("transparency", [](const MaterialRef& r) { return r.Get()->transparency; })
        .def_property_readonly("two_sided", [](const MaterialRef& r) { return r.Get()->IsFlagSet(MATF_TWO_SIDED); })
        .def_property_readonly("ambient",
                               [](const MaterialRef& r) -> py::object {
                                   auto* s = r.Standard();
                                   return s ? py::object(Rgba(s->ambient)) : py::none();
                               })
        .def_property_readonly("specular",
                               [](const MaterialRef& r) -> py::object {
                                   auto* s = r.Standard();
                                   return s ? py::object(Rgba(s->specular)) : py::none();
                               })
        .def_property_readonly("specular_factor",
                               [](const MaterialRef& r) -> py::object {
                                   auto* s = r.Standard();
                                   return s ? py::cast(s->specularFactor) : py::none();
                               })
        .def_property_readonly("shininess",
                               [](const MaterialRef& r) -> py::object {
                                   auto* s = r.Standard();
                                   return s ? py::cast(s->shininess) : py::none();
                               })
        .def_property_readonly("emissive",
                               [](const MaterialRef& r) -> py::object {
                                   auto* s = r.Standard();
                                   return s ? py::object(Rgba(s->emissive)) : py::none();
                               })
        .def_property_readonly("maps", &MaterialRef::Maps)
        .def("__repr__", [](const MaterialRef& r) {
            return "<orbiscope.Material " + std::to_string(r.id) + " '" + Narrow(r.Get()->GetName()) + "'>";
        });

    py::class_<NodeRef>(m, "Node")
        .def_property_readonly("name", [](const NodeRef& r) { return Narrow(r.n->GetName()); })
        .def_property_readonly("id", [](const NodeRef& r) { return r.n->GetNodeID(); })
        .def_property_readonly("kind", [](const NodeRef& r) { return KindName(r.n->GetKindOf()); })
        .def_property_readonly("hidden", [](const NodeRef& r) { return r.n->IsFlagSet(NODE_HIDDEN); })
        .def_property_readonly(
            "local",
            [](const NodeRef& r) {
                C4x4Matrix tm;
                r.n->GetNodeLocalTM(0, tm);
                return Matrix(tm);
            },
            "Local transform at time 0 (4x4, column vectors).")
        .def_property_readonly(
            "world",
            [](const NodeRef& r) {
                C4x4Matrix tm;
                r.n->GetNodeTM(0, tm);
                return Matrix(tm);
            },
            "World transform at time 0 (4x4, column vectors).")
        .def_property_readonly("parent",
                               [](const NodeRef& r) -> py::object {
                                   C3DSceneNode* p = r.n->GetParent();
                                   if (!p || p == r.box().scene->GetRoot()) return py::none();
                                   return py::cast(MakeNode(r.owner, p));
                               })
        .def_property_readonly("children",
                               [](const NodeRef& r) {
                                   std::vector<NodeRef> v;
                                   for (C3DSceneNode* c = r.n->GetChildNode(); c; c = c->GetRightNode())
                                       v.push_back(MakeNode(r.owner, c));
                                   return v;
                               })
        .def_property_readonly("mesh", &NodeMesh)
        .def_property_readonly("camera",
                               [](const NodeRef& r) -> py::object {
                                   auto* c = dynamic_cast<C3DCamera*>(r.n->GetBaseObject());
                                   return c ? py::object(CameraDict(*c)) : py::none();
                               })
        .def_property_readonly("light",
                               [](const NodeRef& r) -> py::object {
                                   auto* l = dynamic_cast<C3DLight*>(r.n->GetBaseObject());
                                   return l ? py::object(LightDict(*l)) : py::none();
                               })
        .def_property_readonly("tracks",
                               [](const NodeRef& r) {
                                   py::list l;
                                   for (int i = 0; i < r.n->GetTrackCount(); ++i)
                                       l.append(TrackDict(*r.n->GetTrackByIndex(i)));
                                   return l;
                               })
        .def("__eq__", [](const NodeRef& a, const NodeRef& b) { return a == b; })
        .def("__hash__", [](const NodeRef& r) { return std::hash<const void*>()(r.n); })
        .def("__repr__", [](const NodeRef& r) {
            return std::string("<orbiscope.Node ") + KindName(r.n->GetKindOf()) + " '" + Narrow(r.n->GetName()) + "'>";
        });

    py::class_<SceneBox>(m, "Scene", "A scene read from a file, or built from arrays.")
        .def(py::init([] {
            auto b = std::make_unique<SceneBox>();
            b->scene = std::make_unique<C3DScene>();
            return b;
        }))
        .def_property_readonly("path", [](const SceneBox& b) { return b.path; })
        .def_property_readonly("format", [](const SceneBox& b) { return b.format; })
        .def_property_readonly("roots",
                               [](py::object self) {
                                   std::vector<NodeRef> v;
                                   for (C3DSceneNode* c = self.cast<SceneBox&>().scene->GetRoot()->GetChildNode(); c;
                                        c = c->GetRightNode())
                                       v.push_back(MakeNode(self, c));
                                   return v;
                               })
        .def_property_readonly(
            "nodes",
            [](py::object self) {
                std::vector<NodeRef> v;
                const C3DScene& s = *self.cast<SceneBox&>().scene;
                C3DNodePos pos = s.GetFirstNode();
                while (C3DSceneNode* n = s.GetNextNode(pos)) v.push_back(MakeNode(self, n));
                return v;
            },
            "Every node, parents before their children.")
        .def_property_readonly(
            "meshes",
            [](py::object self) {
                std::vector<MeshRef> v;
                const C3DScene& s = *self.cast<SceneBox&>().scene;
                C3DNodePos pos = s.GetFirstNode(KINDOF_MESH | KINDOF_PATCH | KINDOF_POINTCLOUD);
                while (C3DSceneNode* n = s.GetNextNode(pos))
                    if (C3DGeomObject* g = n->GetGeomObject()) {
                        MeshRef r;
                        r.owner = self;
                        r.g = g;
                        v.push_back(r);
                    }
                return v;
            },
            "The meshes of every node, in node order (each in its node's own coordinates).")
        .def_property_readonly("materials",
                               [](py::object self) {
                                   std::vector<MaterialRef> v;
                                   const C3DScene& s = *self.cast<SceneBox&>().scene;
                                   CMaterialPos pos;
                                   for (C3DMaterial* mat = s.GetFirstMaterial(pos); mat; mat = s.GetNextMaterial(pos))
                                       v.push_back(MakeMaterial(self, mat->GetID()));
                                   return v;
                               })
        .def_property(
            "unit",
            [](const SceneBox& b) {
                auto it = UnitNames().find(b.scene->GetUnit());
                return std::string(it == UnitNames().end() ? "other" : it->second);
            },
            [](SceneBox& b, const std::string& name) {
                for (auto& [code, text] : UnitNames())
                    if (name == text) return b.scene->SetUnit(code);
                throw py::value_error("unknown unit '" + name + "'");
            })
        .def_property_readonly("unit_code", [](const SceneBox& b) { return b.scene->GetUnit(); })
        .def_property_readonly(
            "scale", [](const SceneBox& b) { return b.scene->GetScaleFactor(); }, "Centimetres per file unit.")
        .def_property_readonly("ticks_per_second", [](const SceneBox& b) { return b.scene->GetTickCount(); })
        .def_property_readonly(
            "animation_range",
            [](const SceneBox& b) { return py::make_tuple(b.scene->GetAnimationStart(), b.scene->GetAnimationEnd()); })
        .def_property_readonly(
            "required_files",
            [](const SceneBox& b) {
                py::list l;
                for (const CXStringW& f : b.scene->GetRequiredFiles())
                    l.append(py::make_tuple(Narrow(f), fileExists(f)));
                return l;
            },
            "(path, found) of every file the scene needs.")
        .def(
            "bounding_box",
            [](const SceneBox& b) -> py::object {
                const C3DBox x = b.scene->GetBoundingBox();
                if (!x.IsValid()) return py::none();
                return py::make_tuple(py::make_tuple(x.min.x, x.min.y, x.min.z),
                                      py::make_tuple(x.max.x, x.max.y, x.max.z));
            },
            "World-space box of the geometry at time 0, ((x, y, z), (x, y, z)); None when empty.")
        .def(
            "add_material",
            [](py::object self, const std::string& name, const py::object& diffuse, const py::object& specular,
               float shininess, float transparency, const py::object& texture) {
                SceneBox& b = self.cast<SceneBox&>();
                auto* mat = static_cast<C3DStandardMaterial*>(b.scene->CreateNewMaterial(MATERIAL_STANDARD));
                mat->SetName(Wide(name));
                if (!diffuse.is_none()) mat->diffuse = ColorFrom(diffuse);
                if (!specular.is_none()) mat->specular = ColorFrom(specular);
                mat->shininess = shininess;
                mat->transparency = transparency;
                if (!texture.is_none()) mat->AddMaterialMap(Wide(PathArg(texture)), -1, MAP_DIFFUSE);
                return MakeMaterial(self, mat->GetID());
            },
            py::arg("name") = "", py::arg("diffuse") = py::none(), py::arg("specular") = py::none(),
            py::arg("shininess") = 0.0f, py::arg("transparency") = 0.0f, py::arg("texture") = py::none(),
            "Colours as 0..255 integers or 0..1 floats.")
        .def(
            "add_node",
            [](py::object self, const std::string& name, const py::object& parent, const py::object& matrix) {
                SceneBox& b = self.cast<SceneBox&>();
                C3DSceneNode* par = ParentArg(b, parent);
                auto* node = new C3DSceneNode(new C3DGroup);
                node->SetName(Wide(name));
                if (!matrix.is_none()) node->SetNodeLocalTM(MatrixFrom(matrix));
                b.scene->AddNode(par, node);
                return MakeNode(self, node);
            },
            py::arg("name") = "", py::arg("parent") = py::none(), py::arg("matrix") = py::none())
        .def("add_mesh", &AddMesh, py::arg("points"), py::arg("faces") = py::none(), py::kw_only(),
             py::arg("offsets") = py::none(), py::arg("indices") = py::none(), py::arg("name") = "",
             py::arg("parent") = py::none(), py::arg("material") = py::none(), py::arg("matrix") = py::none(),
             py::arg("uv") = py::none(),
             "A mesh node from (n, 3) points and (m, k) faces, or offsets + indices for mixed faces.")
        .def("__repr__", [](const SceneBox& b) {
            return "<orbiscope.Scene " + std::to_string(b.scene->GetNodeCount()) + " nodes" +
                   (b.path.empty() ? std::string() : " from '" + b.path + "'") + ">";
        });

    m.def("formats", &Formats, "The format rows: id, description, extensions, read, write.");
    m.def("read", &Read, py::arg("path"), py::arg("format") = py::none(), py::arg("progress") = py::none(),
          "Reads a file. `format` is a type ID ('STL', '3DST'...); by default the extension and the "
          "file's first bytes choose. `progress(done, total)` may return False to cancel.");
    m.def("read_bytes", &ReadBytes, py::arg("data"), py::arg("format"), py::arg("progress") = py::none(),
          "Reads a file's bytes; the format's type ID is needed.");
    m.def("write", &Write, py::arg("scene"), py::arg("path"), py::arg("format") = py::none(),
          py::arg("progress") = py::none(), "Writes a scene; the format from the extension or a type ID.");
    m.def(
        "convert",
        [](const py::object& src, const py::object& dst, const std::optional<std::string>& from,
           const std::optional<std::string>& to) {
            py::object s = Read(src, from, py::none());
            Write(s, dst, to, py::none());
        },
        py::arg("src"), py::arg("dst"), py::arg("from_format") = py::none(), py::arg("to_format") = py::none(),
        "Reads src and writes dst.");
}
