#pragma once
// The VRML97 node base: hand reference counting, DEF names, routes, event
// dispatch, printing, and one down-cast per node kind (no RTTI). Node classes
// describe their fields in one table each; setField, getField, the type's
// declarations, printing and traversal of child nodes all come from it.
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <type_traits>
#include <unordered_set>
#include <vector>

#include "vrml/vrml97/VrmlField.h"

class VrmlNamespace;
class VrmlNodeType;
class VrmlScene;

// Every standard node class, by the suffix of its class name (VrmlNode<Suffix>).
// clang-format off
#define VRML_NODE_CLASSES(X)                                                                       \
    X(Anchor) X(Appearance) X(AudioClip) X(Background) X(Billboard) X(Box) X(Collision) X(Color)   \
    X(ColorInt) X(Cone) X(Coordinate) X(CoordinateInt) X(Cylinder) X(CylinderSensor) X(DirLight)   \
    X(ElevationGrid) X(Extrusion) X(Fog) X(FontStyle) X(Group) X(ImageTexture) X(IFaceSet)         \
    X(ILineSet) X(Inline) X(LOD) X(Material) X(MovieTexture) X(NavigationInfo) X(Normal)           \
    X(NormalInt) X(OrientationInt) X(PixelTexture) X(PlaneSensor) X(PointLight) X(PointSet)        \
    X(PositionInt) X(ProximitySensor) X(ScalarInt) X(Script) X(Shape) X(Sound) X(Sphere)           \
    X(SphereSensor) X(SpotLight) X(Switch) X(Text) X(TextureCoordinate) X(TextureTransform)        \
    X(TimeSensor) X(TouchSensor) X(Transform) X(Viewpoint) X(VisibilitySensor) X(WorldInfo)

// Intermediate kinds that are not concrete node types of their own.
#define VRML_NODE_KINDS(X) X(Child) X(Geometry) X(Texture) X(Light) X(IndexedSet) X(Proto)

#define VRML_FWD(S) class VrmlNode##S;
VRML_NODE_CLASSES(VRML_FWD)
VRML_NODE_KINDS(VRML_FWD)
#undef VRML_FWD
// clang-format on

enum class VrmlInterfaceKind : uint8_t { EventIn, EventOut, Field, ExposedField };

// One line of a node class's interface table.
struct VrmlFieldSpec {
    const char* name;
    VrmlInterfaceKind kind;
    VrmlField::VrmlFieldType type;
    VrmlField* (*member)(VrmlNode&); // null for pure events
};

class VrmlNode {
public:
    struct Route {
        std::string fromEventOut;
        VrmlNode* toNode;
        std::string toEventIn;
    };
    using FieldVisitor = std::function<void(const char* name, VrmlField& value)>;

    VrmlNode(VrmlNodeType* type, VrmlScene* scene);
    VrmlNode(const VrmlNode& other);
    VrmlNode& operator=(const VrmlNode&) = delete;
    virtual ~VrmlNode();

    VrmlNodeType* type() const { return d_type; }
    VrmlNodeType& nodeType() const { return *d_type; }

    // A copy registered under the same name in ns (once per clone pass, so
    // sharing survives); cloneChildrenInto then clones what the copy refers to.
    virtual VrmlNode* cloneInto(VrmlNamespace* ns);
    virtual void cloneChildrenInto(VrmlNamespace* ns);
    virtual VrmlNode* cloneMe() const = 0;

// clang-format off
#define VRML_CAST(S)                                                                               \
    virtual const VrmlNode##S* as##S() const { return nullptr; }                                  \
    virtual VrmlNode##S* as##S() { return nullptr; }
    VRML_NODE_KINDS(VRML_CAST)
    VRML_NODE_CLASSES(VRML_CAST)
#undef VRML_CAST
    // clang-format on

    virtual void addToScene(VrmlScene* scene, const char* relativeUrl);
    virtual std::ostream& print(std::ostream& os, int indent) const;
    virtual std::ostream& printFields(std::ostream& os, int indent) const;
    virtual void eventIn(double timeStamp, const char* eventName, const VrmlField* value);
    virtual void setField(const char* fieldName, const VrmlField& value);
    virtual const VrmlField* getField(const char* fieldName) const;
    virtual const VrmlField* getEventOut(const char* eventName) const;
    virtual void render() {}
    virtual void accumTrans(const double* parentTransform);
    virtual void clearVisited();
    // Every stored field value, base class first, in declaration order.
    virtual void visitFields(const FieldVisitor& v);
    // Node-valued fields, for traversals; PROTO instances give their clones.
    virtual void visitChildren(const std::function<void(VrmlNode*)>& f);

    VrmlNode* addRef() {
        ++d_refCount;
        return this;
    }
    VrmlNode* reference() { return addRef(); }
    void release();
    void dereference() { release(); }
    int refCount() const { return d_refCount; }

    const char* name() const { return d_name.c_str(); }
    void setName(const char* name, VrmlNamespace* ns = nullptr);
    VrmlScene* scene() const { return d_scene; }

    bool isModified() const { return d_modified; }
    void markModified() { d_modified = true; }
    void clearModified() { d_modified = false; }
    bool visited() const { return d_visited; }
    void setVisited(bool v) { d_visited = v; }

    virtual void addRoute(const char* fromEventOut, VrmlNode* toNode, const char* toEventIn);
    void removeRoute(const char* fromEventOut, VrmlNode* toNode, const char* toEventIn);
    const std::vector<Route>& routes() const { return d_routes; }
    virtual void emit(double timeStamp, const char* eventOut, const VrmlField& value);
    void eventOut(double t, const char* e, const VrmlField& v) { emit(t, e, v); }

    friend class VrmlScene;

protected:
    static void translateRoutes(std::vector<Route>& routes, VrmlNamespace* ns);
    bool setFieldFromTable(const VrmlFieldSpec* table, size_t n, const char* name, const VrmlField& value);
    const VrmlField* getFieldFromTable(const VrmlFieldSpec* table, size_t n, const char* name) const;
    void visitTable(const VrmlFieldSpec* table, size_t n, const FieldVisitor& v);
    static void declareTable(VrmlNodeType* t, const VrmlFieldSpec* table, size_t n);
    static VrmlNodeType* defineType(VrmlNodeType* t) { return t; }
    std::ostream& printTable(std::ostream& os, int indent, const VrmlFieldSpec* table, size_t n) const;
    void printValue(std::ostream& os, int indent, const VrmlField& value) const;

    VrmlNodeType* d_type;
    std::string d_name;
    VrmlScene* d_scene = nullptr;
    std::vector<Route> d_routes;
    VrmlNode* d_clone = nullptr; // valid while d_visited is set by a clone pass
    bool d_registered = false;   // in one of the scene's lists

private:
    int d_refCount = 0;
    bool d_modified = false;
    bool d_visited = false;
    mutable bool d_printing = false; // on the path being printed (a cycle made through IS)
    // Time stamps at which each eventOut last fired (one firing per stamp).
    std::vector<std::pair<std::string, double>> d_fired;
    // The routes already held, for the duplicate check once there are many; made on
    // demand and dropped whenever the routes change other than by addRoute.
    std::unique_ptr<std::unordered_set<std::string>> d_routeIndex;
};

std::ostream& operator<<(std::ostream& os, const VrmlNode& n);
// Nodes cloned for PROTO instances since the last world load (a budget), each weighted by
// the strings and Script interfaces it copied.
extern size_t VrmlCloneCount;
// A named node prints "DEF name" in full wherever it is used, so sharing can
// multiply the text of a small world; a print run is capped at maxNodes nodes
// (and at a nesting depth). VrmlPrintWasCut tells whether the cap was reached.
void VrmlPrintLimit(size_t maxNodes);
bool VrmlPrintWasCut();
// A value of the type that reads back as empty (for values that failed to read).
void VrmlWriteEmptyValue(std::ostream& os, int type);

// ---- class boilerplate generated from each class's interface table

template <class N, auto M> VrmlField* VrmlMemberOf(VrmlNode& n) { return &(static_cast<N&>(n).*M); }

#define VRML_NODE_COMMON(Cls, Base)                                                                                    \
public:                                                                                                                \
    static VrmlNodeType* defineType(VrmlNodeType* t = nullptr);                                                        \
    static const VrmlFieldSpec s_fields[];                                                                             \
    static const size_t s_fieldCount;                                                                                  \
    void setField(const char* fieldName, const VrmlField& value) override;                                             \
    const VrmlField* getField(const char* fieldName) const override;                                                   \
    void visitFields(const FieldVisitor& v) override;                                                                  \
    std::ostream& printFields(std::ostream& os, int indent) const override;                                            \
                                                                                                                       \
protected:                                                                                                             \
    Cls(VrmlNodeType* t, VrmlScene* s) : Base(t, s) {}                                                                 \
                                                                                                                       \
public:

// A concrete node type (name is the VRML type name).
#define VRML_NODE(Cls, Suffix, Base)                                                                                   \
    VRML_NODE_COMMON(Cls, Base)                                                                                        \
    explicit Cls(VrmlScene* s = nullptr) : Cls(defineType(), s) {}                                                     \
    static VrmlNode* creator(VrmlScene* s) { return new Cls(s); }                                                      \
    VrmlNode* cloneMe() const override { return new Cls(*this); }                                                      \
    const Cls* as##Suffix() const override { return this; }                                                            \
    Cls* as##Suffix() override { return this; }

// An intermediate base that only marks a kind.
#define VRML_NODE_KIND(Cls, Suffix, Base)                                                                              \
    VRML_NODE_COMMON(Cls, Base)                                                                                        \
    const Cls* as##Suffix() const override { return this; }                                                            \
    Cls* as##Suffix() override { return this; }

// In the .cpp: the table and the functions made from it.
#define VRML_F(Cls, kind, T, name)                                                                                     \
    { #name, VrmlInterfaceKind::kind, VrmlField::T, &VrmlMemberOf < Cls, &Cls::d_##name> }
#define VRML_E(kind, T, name)                                                                                          \
    { #name, VrmlInterfaceKind::kind, VrmlField::T, nullptr }

#define VRML_NODE_IMPL_COMMON(Cls, Base)                                                                               \
    const size_t Cls::s_fieldCount = sizeof(Cls::s_fields) / sizeof(Cls::s_fields[0]);                                 \
    void Cls::setField(const char* n, const VrmlField& v) {                                                            \
        if (!setFieldFromTable(s_fields, s_fieldCount, n, v)) Base::setField(n, v);                                    \
    }                                                                                                                  \
    const VrmlField* Cls::getField(const char* n) const {                                                              \
        const VrmlField* f = getFieldFromTable(s_fields, s_fieldCount, n);                                             \
        return f ? f : Base::getField(n);                                                                              \
    }                                                                                                                  \
    void Cls::visitFields(const FieldVisitor& v) {                                                                     \
        Base::visitFields(v);                                                                                          \
        visitTable(s_fields, s_fieldCount, v);                                                                         \
    }                                                                                                                  \
    std::ostream& Cls::printFields(std::ostream& os, int indent) const {                                               \
        if constexpr (!std::is_same_v<Base, VrmlNode>) Base::printFields(os, indent);                                  \
        return printTable(os, indent, s_fields, s_fieldCount);                                                         \
    }

#define VRML_NODE_IMPL(Cls, Base, TypeName)                                                                            \
    VRML_NODE_IMPL_COMMON(Cls, Base)                                                                                   \
    VrmlNodeType* Cls::defineType(VrmlNodeType* t) {                                                                   \
        static VrmlNodeType* s_type = nullptr;                                                                         \
        if (!t) {                                                                                                      \
            if (s_type) return s_type;                                                                                 \
            t = s_type = VrmlNewBuiltinType(TypeName, &Cls::creator);                                                  \
        }                                                                                                              \
        Base::defineType(t);                                                                                           \
        declareTable(t, s_fields, s_fieldCount);                                                                       \
        return t;                                                                                                      \
    }

#define VRML_NODE_KIND_IMPL(Cls, Base)                                                                                 \
    VRML_NODE_IMPL_COMMON(Cls, Base)                                                                                   \
    VrmlNodeType* Cls::defineType(VrmlNodeType* t) {                                                                   \
        Base::defineType(t);                                                                                           \
        declareTable(t, s_fields, s_fieldCount);                                                                       \
        return t;                                                                                                      \
    }

// A process-lifetime built-in type (held by its class's cache).
VrmlNodeType* VrmlNewBuiltinType(const char* name, VrmlNode* (*creator)(VrmlScene*));
