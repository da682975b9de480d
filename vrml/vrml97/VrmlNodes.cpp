// Behaviour of the standard nodes beyond storing fields: binding, interpolation,
// Script interfaces, Inline loading, the TimeSensor clock and Transform's matrix.
#include "vrml/vrml97/VrmlNodes.h"

#include <cmath>
#include <cstring>
#include <ostream>

#include "vrml/vrml97/Doc.h"
#include "vrml/vrml97/System.h"
#include "vrml/vrml97/VrmlNamespace.h"
#include "vrml/vrml97/VrmlNodeType.h"
#include "vrml/vrml97/VrmlScene.h"

// ---- bindable nodes

#define VRML_BINDABLE_IMPL(Cls, Kind)                                                                                  \
    void Cls::eventIn(double timeStamp, const char* eventName, const VrmlField* value) {                               \
        if (std::strcmp(eventName, "set_bind") == 0) {                                                                 \
            const VrmlSFBool* b = value ? value->asSFBool() : nullptr;                                                 \
            if (!b) {                                                                                                  \
                theSystem->error("Error: invalid value for " #Kind "::set_bind eventIn");                              \
                return;                                                                                                \
            }                                                                                                          \
            if (d_scene) d_scene->bind##Kind(this, b->get(), timeStamp);                                               \
            else d_isBound.set(b->get());                                                                              \
            return;                                                                                                    \
        }                                                                                                              \
        VrmlNode::eventIn(timeStamp, eventName, value);                                                                \
    }                                                                                                                  \
    void Cls::addToScene(VrmlScene* scene, const char* relativeUrl) {                                                  \
        if (!scene || d_scene == scene) return;                                                                        \
        VrmlNode::addToScene(scene, relativeUrl);                                                                      \
        scene->addToLists(this);                                                                                       \
    }

VRML_BINDABLE_IMPL(VrmlNodeBackground, Background)
VRML_BINDABLE_IMPL(VrmlNodeFog, Fog)
VRML_BINDABLE_IMPL(VrmlNodeNavigationInfo, NavigationInfo)
VRML_BINDABLE_IMPL(VrmlNodeViewpoint, Viewpoint)

// ---- nodes that register with the scene

#define VRML_REGISTERED_IMPL(Cls)                                                                                      \
    void Cls::addToScene(VrmlScene* scene, const char* relativeUrl) {                                                  \
        if (!scene || d_scene == scene) return;                                                                        \
        VrmlNode::addToScene(scene, relativeUrl);                                                                      \
        scene->addToLists(this);                                                                                       \
    }

VRML_REGISTERED_IMPL(VrmlNodeAudioClip)
VRML_REGISTERED_IMPL(VrmlNodeMovieTexture)
VRML_REGISTERED_IMPL(VrmlNodeScript)
VRML_REGISTERED_IMPL(VrmlNodeTimeSensor)

// ---- interpolators

namespace {

// Finds the key interval of f: index i and weight t so the value is
// v[i] + t * (v[i+1] - v[i]). False when there are no keys.
bool keyInterval(const VrmlMFFloat& key, float f, size_t& i, float& t) {
    size_t n = key.size();
    if (n == 0) return false;
    const float* k = key.get();
    t = 0;
    if (f <= k[0]) {
        i = 0;
        return true;
    }
    if (f >= k[n - 1]) {
        i = n - 1;
        return true;
    }
    for (i = 0; i + 1 < n; ++i) {
        if (f >= k[i] && f < k[i + 1]) {
            float span = k[i + 1] - k[i];
            t = span > 0 ? (f - k[i]) / span : 0.0f;
            return true;
        }
    }
    i = n - 1;
    return true;
}

// Element i and i+1 of an array of width w, clamped to what exists.
template <class MF> bool lerpElements(const MF& values, size_t i, float t, int w, float* out) {
    size_t n = values.size();
    if (n == 0) return false;
    if (i >= n) i = n - 1;
    size_t j = i + 1 < n ? i + 1 : i;
    const float* a = values[i];
    const float* b = values[j];
    for (int c = 0; c < w; ++c) out[c] = a[c] + t * (b[c] - a[c]);
    return true;
}

bool checkFraction(const VrmlNode& n, const char* eventName, const VrmlField* value, float& f) {
    const VrmlSFFloat* v = value ? value->asSFFloat() : nullptr;
    if (!v) {
        theSystem->error("Invalid type for %s eventIn %s (expected SFFloat).\n", n.name(), eventName);
        return false;
    }
    f = v->get();
    return true;
}

} // namespace

#define VRML_INTERPOLATOR_EVENT(Cls, Body)                                                                             \
    void Cls::eventIn(double timeStamp, const char* eventName, const VrmlField* value) {                               \
        if (std::strcmp(eventName, "set_fraction") != 0) {                                                             \
            VrmlNode::eventIn(timeStamp, eventName, value);                                                            \
            return;                                                                                                    \
        }                                                                                                              \
        float f;                                                                                                       \
        size_t i;                                                                                                      \
        float t;                                                                                                       \
        if (!checkFraction(*this, eventName, value, f) || !keyInterval(d_key, f, i, t)) return;                        \
        Body emit(timeStamp, "value_changed", d_value);                                                                \
    }

VRML_INTERPOLATOR_EVENT(VrmlNodeScalarInt, {
    float v;
    if (!lerpElements(d_keyValue, i, t, 1, &v)) return;
    d_value.set(v);
})

VRML_INTERPOLATOR_EVENT(VrmlNodeColorInt, {
    float v[3];
    if (!lerpElements(d_keyValue, i, t, 3, v)) return;
    d_value.set(v[0], v[1], v[2]);
})

VRML_INTERPOLATOR_EVENT(VrmlNodePositionInt, {
    float v[3];
    if (!lerpElements(d_keyValue, i, t, 3, v)) return;
    d_value.set(v[0], v[1], v[2]);
})

VRML_INTERPOLATOR_EVENT(VrmlNodeOrientationInt, {
    float v[4];
    if (!lerpElements(d_keyValue, i, t, 4, v)) return;
    d_value.set(v[0], v[1], v[2], v[3]);
})

namespace {
// keyValue holds one run of points per key; interpolate run i towards run i+1.
void lerpRuns(const VrmlMFFloat& key, const VrmlMFVec3f& kv, size_t i, float t, bool normalize, VrmlMFVec3f& out) {
    size_t nk = key.size();
    if (nk == 0 || kv.size() < nk) return;
    size_t m = kv.size() / nk;
    size_t j = i + 1 < nk ? i + 1 : i;
    std::vector<float> v(m * 3);
    for (size_t p = 0; p < m; ++p) {
        const float* a = kv[i * m + p];
        const float* b = kv[j * m + p];
        float* o = &v[p * 3];
        for (int c = 0; c < 3; ++c) o[c] = a[c] + t * (b[c] - a[c]);
        if (normalize) {
            float len = std::sqrt(o[0] * o[0] + o[1] * o[1] + o[2] * o[2]);
            if (len > 0)
                for (int c = 0; c < 3; ++c) o[c] /= len;
        }
    }
    out = VrmlMFVec3f(std::move(v));
}
} // namespace

VRML_INTERPOLATOR_EVENT(VrmlNodeCoordinateInt, { lerpRuns(d_key, d_keyValue, i, t, false, d_value); })
VRML_INTERPOLATOR_EVENT(VrmlNodeNormalInt, { lerpRuns(d_key, d_keyValue, i, t, true, d_value); })

// ---- TimeSensor

void VrmlNodeTimeSensor::eventIn(double timeStamp, const char* eventName, const VrmlField* value) {
    theSystem->debug("TimeSensor.%s eventIn %s\n", name(), eventName);
    VrmlNode::eventIn(timeStamp, eventName, value);
}

void VrmlNodeTimeSensor::update(double time) {
    if (!d_enabled.get()) return;
    double start = d_startTime.get(), stop = d_stopTime.get(), cycle = d_cycleInterval.get();
    bool active = time >= start && (stop <= start || time < stop) && cycle > 0;
    if (active && !d_loop.get() && time >= start + cycle) active = false;
    if (active != d_isActive.get()) {
        d_isActive.set(active);
        emit(time, "isActive", d_isActive);
    }
    if (!active) return;
    double f = std::fmod(time - start, cycle) / cycle;
    emit(time, "fraction_changed", VrmlSFFloat(static_cast<float>(f)));
    emit(time, "time", VrmlSFTime(time));
    d_lastTime = time;
}

// ---- Transform

namespace {

using Mat = double[16];

void identity(Mat m) {
    for (int i = 0; i < 16; ++i) m[i] = (i % 5 == 0) ? 1.0 : 0.0;
}

void multiply(Mat a, const Mat b) { // a = a * b
    Mat r;
    for (int i = 0; i < 4; ++i)
        for (int j = 0; j < 4; ++j) {
            double s = 0;
            for (int k = 0; k < 4; ++k) s += a[i * 4 + k] * b[k * 4 + j];
            r[i * 4 + j] = s;
        }
    std::memcpy(a, r, sizeof r);
}

void translate(Mat m, double x, double y, double z) {
    Mat t;
    identity(t);
    t[3] = x;
    t[7] = y;
    t[11] = z;
    multiply(m, t);
}

void rotate(Mat m, const float* axisAngle, double sign) {
    double x = axisAngle[0], y = axisAngle[1], z = axisAngle[2], a = axisAngle[3] * sign;
    double len = std::sqrt(x * x + y * y + z * z);
    if (len <= 0 || a == 0) return;
    x /= len;
    y /= len;
    z /= len;
    double c = std::cos(a), s = std::sin(a), t = 1 - c;
    Mat r = {t * x * x + c,
             t * x * y - s * z,
             t * x * z + s * y,
             0,
             t * x * y + s * z,
             t * y * y + c,
             t * y * z - s * x,
             0,
             t * x * z - s * y,
             t * y * z + s * x,
             t * z * z + c,
             0,
             0,
             0,
             0,
             1};
    multiply(m, r);
}

} // namespace

void VrmlNodeTransform::getMatrix(double m[16]) const {
    identity(m);
    const float* tr = d_translation.get();
    const float* c = d_center.get();
    const float* s = d_scale.get();
    translate(m, tr[0], tr[1], tr[2]);
    translate(m, c[0], c[1], c[2]);
    rotate(m, d_rotation.get(), 1);
    rotate(m, d_scaleOrientation.get(), 1);
    Mat sc;
    identity(sc);
    sc[0] = s[0];
    sc[5] = s[1];
    sc[10] = s[2];
    multiply(m, sc);
    rotate(m, d_scaleOrientation.get(), -1);
    translate(m, -c[0], -c[1], -c[2]);
}

// ---- Inline

namespace {
int g_inlineDepth = 0;
constexpr int kMaxInlineDepth = 8;
} // namespace

void VrmlNodeInline::addToScene(VrmlScene* scene, const char* relativeUrl) {
    if (!scene || d_scene == scene) return;
    // The depth counts while the loaded children join the scene too, so a
    // world that inlines itself stops after a few levels.
    ++g_inlineDepth;
    if (s_loadOnAdd && !d_loaded && d_url.size() && g_inlineDepth <= kMaxInlineDepth &&
        scene->takeInlineLoad(d_url[0])) {
        d_loaded = true;
        Doc relative(relativeUrl && *relativeUrl ? relativeUrl : nullptr);
        auto ns = std::make_shared<VrmlNamespace>();
        uint64_t bytes = 0;
        VrmlMFNode* nodes = VrmlScene::readWRL(&d_url, &relative, ns.get(), &bytes);
        scene->addInlineBytes(bytes);
        if (nodes) {
            d_children.removeAll();
            for (size_t i = 0; i < nodes->size(); ++i)
                if ((*nodes)[i] && acceptsAsChild((*nodes)[i])) d_children.add((*nodes)[i]);
            delete nodes;
        }
    }
    VrmlNodeGroup::addToScene(scene, relativeUrl);
    --g_inlineDepth;
}

// ---- Script: the table gives url, directOutput and mustEvaluate; each instance
// adds its own interface.

const VrmlFieldSpec VrmlNodeScript::s_fields[] = {
    VRML_F(VrmlNodeScript, ExposedField, MFSTRING, url),
    VRML_F(VrmlNodeScript, Field, SFBOOL, directOutput),
    VRML_F(VrmlNodeScript, Field, SFBOOL, mustEvaluate),
};
const size_t VrmlNodeScript::s_fieldCount = sizeof(s_fields) / sizeof(s_fields[0]);

VrmlNodeType* VrmlNodeScript::defineType(VrmlNodeType* t) {
    static VrmlNodeType* s_type = nullptr;
    if (!t) {
        if (s_type) return s_type;
        t = s_type = VrmlNewBuiltinType("Script", &VrmlNodeScript::creator);
    }
    VrmlNodeChild::defineType(t);
    declareTable(t, s_fields, s_fieldCount);
    return t;
}

VrmlNodeScript::VrmlNodeScript(const VrmlNodeScript& o)
    : VrmlNodeChild(o), d_url(o.d_url), d_directOutput(o.d_directOutput), d_mustEvaluate(o.d_mustEvaluate) {
    for (const Interface& i : o.d_interfaces) add({i.name, i.kind, i.type, i.value ? i.value->clone() : nullptr});
}

VrmlNodeScript::~VrmlNodeScript() {
    for (Interface& i : d_interfaces) delete i.value;
}

namespace {
std::string interfaceKey(VrmlInterfaceKind kind, const char* name) {
    std::string key(1, static_cast<char>('0' + static_cast<int>(kind)));
    return key += name;
}
} // namespace

void VrmlNodeScript::add(Interface i) {
    d_interfaceIndex.emplace(interfaceKey(i.kind, i.name.c_str()), d_interfaces.size());
    d_interfaces.push_back(std::move(i));
}

VrmlNodeScript::Interface* VrmlNodeScript::find(const char* name, VrmlInterfaceKind kind) {
    auto it = d_interfaceIndex.find(interfaceKey(kind, name));
    return it == d_interfaceIndex.end() ? nullptr : &d_interfaces[it->second];
}

const VrmlNodeScript::Interface* VrmlNodeScript::find(const char* name, VrmlInterfaceKind kind) const {
    return const_cast<VrmlNodeScript*>(this)->find(name, kind);
}

void VrmlNodeScript::addEventIn(const char* name, VrmlField::VrmlFieldType type) {
    if (!find(name, VrmlInterfaceKind::EventIn)) add({name, VrmlInterfaceKind::EventIn, type, nullptr});
}
void VrmlNodeScript::addEventOut(const char* name, VrmlField::VrmlFieldType type) {
    if (!find(name, VrmlInterfaceKind::EventOut)) add({name, VrmlInterfaceKind::EventOut, type, nullptr});
}
void VrmlNodeScript::addField(const char* name, VrmlField::VrmlFieldType type, const VrmlField* defaultVal) {
    if (find(name, VrmlInterfaceKind::Field)) return;
    add({name, VrmlInterfaceKind::Field, type, defaultVal ? defaultVal->clone() : nullptr});
}

VrmlField::VrmlFieldType VrmlNodeScript::hasEventIn(const char* name) const {
    const Interface* i = find(name, VrmlInterfaceKind::EventIn);
    return i ? i->type : VrmlField::NO_FIELD;
}
VrmlField::VrmlFieldType VrmlNodeScript::hasEventOut(const char* name) const {
    const Interface* i = find(name, VrmlInterfaceKind::EventOut);
    return i ? i->type : VrmlField::NO_FIELD;
}
VrmlField::VrmlFieldType VrmlNodeScript::hasField(const char* name) const {
    const Interface* i = find(name, VrmlInterfaceKind::Field);
    return i ? i->type : VrmlField::NO_FIELD;
}

void VrmlNodeScript::setField(const char* fieldName, const VrmlField& value) {
    if (setFieldFromTable(s_fields, s_fieldCount, fieldName, value)) return;
    Interface* i = find(fieldName, VrmlInterfaceKind::Field);
    if (!i) {
        VrmlNodeChild::setField(fieldName, value);
        return;
    }
    if (value.fieldType() != i->type) {
        theSystem->error("Invalid type (%s) for %s field of Script node.\n", value.typeName(), fieldName);
        return;
    }
    delete i->value;
    i->value = value.clone();
}

const VrmlField* VrmlNodeScript::getField(const char* fieldName) const {
    if (const VrmlField* f = getFieldFromTable(s_fields, s_fieldCount, fieldName)) return f;
    if (const Interface* i = find(fieldName, VrmlInterfaceKind::Field)) return i->value;
    return VrmlNodeChild::getField(fieldName);
}

void VrmlNodeScript::visitFields(const FieldVisitor& v) {
    visitTable(s_fields, s_fieldCount, v);
    for (Interface& i : d_interfaces)
        if (i.value) v(i.name.c_str(), *i.value);
}

std::ostream& VrmlNodeScript::printFields(std::ostream& os, int indent) const {
    printTable(os, indent, s_fields, s_fieldCount);
    for (const Interface& i : d_interfaces) {
        os << '\n';
        for (int k = 0; k < indent; ++k) os << ' ';
        const char* kw = i.kind == VrmlInterfaceKind::EventIn    ? "eventIn"
                         : i.kind == VrmlInterfaceKind::EventOut ? "eventOut"
                                                                 : "field";
        os << kw << ' ' << VrmlField::typeName(i.type) << ' ' << i.name;
        if (i.kind == VrmlInterfaceKind::Field) {
            os << ' ';
            if (i.value) printValue(os, indent, *i.value);
            else VrmlWriteEmptyValue(os, i.type);
        }
    }
    return os;
}

void VrmlNodeScript::eventIn(double timeStamp, const char* eventName, const VrmlField* value) {
    // No script engine: declared eventIns are accepted and ignored.
    if (find(eventName, VrmlInterfaceKind::EventIn)) return;
    VrmlNode::eventIn(timeStamp, eventName, value);
}
