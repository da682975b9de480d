// Node base behaviour: reference counting, the table-driven field access shared
// by every node class, event dispatch through routes, and the text form.
#include "vrml/vrml97/VrmlNode.h"

#include <cstring>
#include <ostream>

#include "vrml/vrml97/System.h"
#include "vrml/vrml97/VrmlNamespace.h"
#include "vrml/vrml97/VrmlNodeType.h"
#include "vrml/vrml97/VrmlNodes.h"
#include "vrml/vrml97/VrmlScene.h"

namespace {
// What a plain clone takes, roughly: the unit of the clone budget.
constexpr size_t kCloneUnitBytes = 450;
// Few routes leave most nodes: below this many the list itself is searched.
constexpr size_t kRouteIndexFrom = 16;

std::string routeKey(const VrmlNode* toNode, const std::string& fromEventOut, const std::string& toEventIn) {
    std::string key(reinterpret_cast<const char*>(&toNode), sizeof toNode);
    key += fromEventOut;
    key += '\0'; // names never hold one
    key += toEventIn;
    return key;
}

size_t g_printBudget = SIZE_MAX;
bool g_printLimited = false; // inside a save: the cut holds until it ends
bool g_printCut = false;
int g_printDepth = 0;
constexpr int kMaxPrintDepth = 2500;
int g_emitDepth = 0;
int g_sceneDepth = 0;
constexpr int kMaxEmitDepth = 512;
constexpr int kMaxSceneDepth = 2500;

void writeIndent(std::ostream& os, int n) {
    for (int i = 0; i < n; ++i) os.put(' ');
}
} // namespace

VrmlNodeType* VrmlNewBuiltinType(const char* name, VrmlNode* (*creator)(VrmlScene*)) {
    return (new VrmlNodeType(name, creator))->reference();
}

size_t VrmlCloneCount = 0;

void VrmlPrintLimit(size_t maxNodes) {
    g_printBudget = maxNodes;
    g_printLimited = maxNodes != SIZE_MAX;
    g_printCut = false;
}

bool VrmlPrintWasCut() { return g_printCut; }

void VrmlWriteEmptyValue(std::ostream& os, int type) {
    switch (type) {
    case VrmlField::SFBOOL: os << "FALSE"; break;
    case VrmlField::SFCOLOR:
    case VrmlField::SFVEC3F: os << "0 0 0"; break;
    case VrmlField::SFROTATION: os << "0 0 1 0"; break;
    case VrmlField::SFVEC2F: os << "0 0"; break;
    case VrmlField::SFFLOAT:
    case VrmlField::SFINT32:
    case VrmlField::SFTIME: os << "0"; break;
    case VrmlField::SFSTRING: os << "\"\""; break;
    case VrmlField::SFIMAGE: os << "0 0 1"; break;
    case VrmlField::SFNODE: os << "NULL"; break;
    default: os << "[]"; break;
    }
}

VrmlNode::VrmlNode(VrmlNodeType* type, VrmlScene* scene) : d_type(type), d_scene(scene) {
    if (d_type) d_type->reference();
}

VrmlNode::VrmlNode(const VrmlNode& o) : d_type(o.d_type), d_name(o.d_name), d_routes(o.d_routes) {
    if (d_type) d_type->reference();
}

VrmlNode::~VrmlNode() {
    if (d_registered && d_scene) d_scene->removeFromLists(this);
    if (d_type) d_type->dereference();
}

void VrmlNode::release() {
    if (--d_refCount > 0) return;
    // Deleting a node releases the nodes it holds, which may delete theirs: a
    // long DEF/USE chain would recurse once per link. Nodes whose count drops
    // to zero while another is being deleted wait in a list instead.
    static thread_local std::vector<VrmlNode*> pending;
    static thread_local bool draining = false;
    pending.push_back(this);
    if (draining) return;
    draining = true;
    while (!pending.empty()) {
        VrmlNode* n = pending.back();
        pending.pop_back();
        delete n;
    }
    draining = false;
}

void VrmlNode::setName(const char* name, VrmlNamespace* ns) {
    d_name = name ? name : "";
    if (ns && !d_name.empty()) ns->addNodeName(this);
}

VrmlNode* VrmlNode::cloneInto(VrmlNamespace* ns) {
    if (d_visited && d_clone) return d_clone;
    VrmlNode* copy = cloneMe();
    // A clone costs a unit, plus one for each string and Script interface it copied and one
    // for each unit's worth of image bytes: a node that holds thousands of them is worth
    // thousands of plain ones to the budget.
    size_t cost = 1;
    if (const VrmlNodeScript* script = copy->asScript()) cost += script->interfaces().size();
    copy->visitFields([&cost](const char*, VrmlField& f) {
        if (const VrmlMFString* strings = f.asMFString()) cost += strings->size();
        else if (const VrmlSFImage* image = f.asSFImage();
                 image && image->width() > 0 && image->height() > 0 && image->componentCount() > 0)
            cost += static_cast<size_t>(image->width()) * static_cast<size_t>(image->height()) *
                    static_cast<size_t>(image->componentCount()) / kCloneUnitBytes;
    });
    VrmlCloneCount += cost;
    if (!d_name.empty()) copy->setName(d_name.c_str(), ns);
    d_visited = true;
    d_clone = copy;
    return copy;
}

void VrmlNode::cloneChildrenInto(VrmlNamespace* ns) {
    // Runs on the copy: its node fields still point at the originals.
    visitFields([ns](const char*, VrmlField& f) {
        if (VrmlSFNode* sf = f.asSFNode()) {
            VrmlNode* orig = sf->get();
            if (!orig) return;
            bool fresh = !(orig->d_visited && orig->d_clone);
            VrmlNode* c = orig->cloneInto(ns);
            sf->set(c);
            if (fresh) c->cloneChildrenInto(ns);
        } else if (VrmlMFNode* mf = f.asMFNode()) {
            VrmlMFNode clones;
            for (size_t i = 0; i < mf->size(); ++i) {
                VrmlNode* orig = (*mf)[i];
                if (!orig) {
                    clones.add(nullptr);
                    continue;
                }
                bool fresh = !(orig->d_visited && orig->d_clone);
                VrmlNode* c = orig->cloneInto(ns);
                clones.add(c);
                if (fresh) c->cloneChildrenInto(ns);
            }
            *mf = clones;
        }
    });
    translateRoutes(d_routes, ns);
    d_routeIndex.reset();
}

void VrmlNode::translateRoutes(std::vector<Route>& routes, VrmlNamespace* ns) {
    // Routes inside a PROTO body lead to the clones of their destinations.
    for (Route& r : routes) {
        VrmlNode* dest = r.toNode;
        if (!dest) continue;
        if (dest->d_visited && dest->d_clone) {
            r.toNode = dest->d_clone;
        } else if (dest->d_name.size() && ns->findNode(dest->d_name.c_str())) {
            r.toNode = ns->findNode(dest->d_name.c_str());
        } else {
            VrmlNode* c = dest->cloneInto(ns);
            r.toNode = c;
            c->cloneChildrenInto(ns);
        }
    }
}

void VrmlNode::addToScene(VrmlScene* scene, const char* relativeUrl) {
    if (d_scene == scene && scene) return; // shared nodes are added once
    d_scene = scene;
    if (g_sceneDepth >= kMaxSceneDepth) return;
    ++g_sceneDepth;
    visitChildren([&](VrmlNode* c) {
        if (c) c->addToScene(scene, relativeUrl);
    });
    --g_sceneDepth;
}

void VrmlNode::accumTrans(const double*) {}

void VrmlNode::clearVisited() {
    if (!d_visited) return;
    d_visited = false;
    d_clone = nullptr;
    visitChildren([](VrmlNode* c) {
        if (c) c->clearVisited();
    });
}

void VrmlNode::visitFields(const FieldVisitor&) {}

void VrmlNode::visitChildren(const std::function<void(VrmlNode*)>& f) {
    visitFields([&f](const char*, VrmlField& v) {
        if (VrmlSFNode* sf = v.asSFNode()) {
            f(sf->get());
        } else if (VrmlMFNode* mf = v.asMFNode()) {
            for (size_t i = 0; i < mf->size(); ++i) f((*mf)[i]);
        }
    });
}

// ---- table-driven field access

bool VrmlNode::setFieldFromTable(const VrmlFieldSpec* t, size_t n, const char* name, const VrmlField& value) {
    for (size_t i = 0; i < n; ++i) {
        const VrmlFieldSpec& s = t[i];
        if (!s.name || !s.member || std::strcmp(s.name, name) != 0) continue;
        VrmlField* dst = s.member(*this);
        if (!VrmlField::assign(*dst, value))
            theSystem->error("Invalid type (%s) for %s field of %s node (expected %s).\n", value.typeName(), name,
                             d_type->getName(), VrmlField::typeName(s.type));
        return true;
    }
    return false;
}

const VrmlField* VrmlNode::getFieldFromTable(const VrmlFieldSpec* t, size_t n, const char* name) const {
    for (size_t i = 0; i < n; ++i)
        if (t[i].name && t[i].member && std::strcmp(t[i].name, name) == 0)
            return t[i].member(const_cast<VrmlNode&>(*this));
    return nullptr;
}

void VrmlNode::visitTable(const VrmlFieldSpec* t, size_t n, const FieldVisitor& v) {
    for (size_t i = 0; i < n; ++i)
        if (t[i].name && t[i].member) v(t[i].name, *t[i].member(*this));
}

void VrmlNode::declareTable(VrmlNodeType* type, const VrmlFieldSpec* t, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const VrmlFieldSpec& s = t[i];
        if (!s.name) continue;
        switch (s.kind) {
        case VrmlInterfaceKind::EventIn: type->addEventIn(s.name, s.type); break;
        case VrmlInterfaceKind::EventOut: type->addEventOut(s.name, s.type); break;
        case VrmlInterfaceKind::Field: type->addField(s.name, s.type); break;
        case VrmlInterfaceKind::ExposedField: type->addExposedField(s.name, s.type); break;
        }
    }
}

void VrmlNode::setField(const char* fieldName, const VrmlField&) {
    theSystem->error("%s::setField: no such field (%s)", d_type->getName(), fieldName);
}

const VrmlField* VrmlNode::getField(const char* fieldName) const {
    theSystem->error("%s::getField: no such field (%s)", d_type->getName(), fieldName);
    return nullptr;
}

const VrmlField* VrmlNode::getEventOut(const char* eventName) const {
    size_t len = std::strlen(eventName);
    static const char kSuffix[] = "_changed";
    constexpr size_t kSuffixLen = sizeof kSuffix - 1;
    if (len > kSuffixLen && std::strcmp(eventName + len - kSuffixLen, kSuffix) == 0 && len - kSuffixLen < 256) {
        std::string base(eventName, len - kSuffixLen);
        if (d_type->hasExposedField(base.c_str())) return getField(base.c_str());
    }
    if (d_type->hasEventOut(eventName) && d_type->hasField(eventName)) return getField(eventName);
    return nullptr;
}

// ---- events

void VrmlNode::eventIn(double timeStamp, const char* eventName, const VrmlField* value) {
    const char* stripped = std::strncmp(eventName, "set_", 4) == 0 ? eventName + 4 : eventName;
    if (value && d_type->hasExposedField(stripped)) {
        setField(stripped, *value);
        std::string out = std::string(stripped) + "_changed";
        emit(timeStamp, out.c_str(), *value);
        markModified();
    } else if (value && d_type->hasEventIn(eventName) && d_type->hasField(stripped)) {
        setField(stripped, *value);
        markModified();
    } else {
        theSystem->error("Error: unhandled eventIn %s::%s.%s\n", d_type->getName(), d_name.c_str(), eventName);
    }
}

void VrmlNode::addRoute(const char* fromEventOut, VrmlNode* toNode, const char* toEventIn) {
    Route route{fromEventOut, toNode, toEventIn};
    if (d_routes.size() < kRouteIndexFrom) {
        for (const Route& r : d_routes)
            if (r.toNode == toNode && r.fromEventOut == route.fromEventOut && r.toEventIn == route.toEventIn) return;
    } else {
        if (!d_routeIndex) {
            d_routeIndex = std::make_unique<std::unordered_set<std::string>>();
            for (const Route& r : d_routes) d_routeIndex->insert(routeKey(r.toNode, r.fromEventOut, r.toEventIn));
        }
        if (!d_routeIndex->insert(routeKey(toNode, route.fromEventOut, route.toEventIn)).second) return;
    }
    d_routes.push_back(std::move(route));
}

void VrmlNode::removeRoute(const char* fromEventOut, VrmlNode* toNode, const char* toEventIn) {
    for (size_t i = 0; i < d_routes.size(); ++i) {
        const Route& r = d_routes[i];
        if (r.toNode == toNode && r.fromEventOut == fromEventOut && r.toEventIn == toEventIn) {
            d_routes.erase(d_routes.begin() + static_cast<std::ptrdiff_t>(i));
            d_routeIndex.reset();
            return;
        }
    }
}

void VrmlNode::emit(double timeStamp, const char* eventOutName, const VrmlField& value) {
    // An eventOut fires at most once per time stamp, so ROUTE loops end.
    bool found = false;
    for (auto& f : d_fired) {
        if (f.first == eventOutName) {
            if (f.second == timeStamp) return;
            f.second = timeStamp;
            found = true;
            break;
        }
    }
    if (!found) d_fired.emplace_back(eventOutName, timeStamp);
    if (g_emitDepth >= kMaxEmitDepth) return;
    ++g_emitDepth;
    // Copy: a handler may add or remove routes of this node.
    std::vector<Route> routes = d_routes;
    for (const Route& r : routes)
        if (r.toNode && r.fromEventOut == eventOutName) r.toNode->eventIn(timeStamp, r.toEventIn.c_str(), &value);
    --g_emitDepth;
}

// ---- printing

std::ostream& VrmlNode::print(std::ostream& os, int indent) const {
    if (g_printDepth == 0 && !g_printLimited) g_printCut = false; // a print of its own
    if (!os.good()) g_printCut = true;                            // nothing more can be written: stop walking
    if (g_printCut) return os;
    if (d_printing && !d_name.empty()) {
        // Only a node that holds itself (through a Script's IS) gets here.
        writeIndent(os, indent);
        return os << "USE " << d_name;
    }
    if (g_printBudget == 0 || g_printDepth >= kMaxPrintDepth || d_printing) {
        g_printCut = true;
        return os;
    }
    --g_printBudget;
    writeIndent(os, indent);
    if (!d_name.empty()) os << "DEF " << d_name << ' ';
    os << d_type->getName() << " { ";
    d_printing = true;
    ++g_printDepth;
    printFields(os, indent + 4);
    --g_printDepth;
    d_printing = false;
    return os << " }";
}

std::ostream& VrmlNode::printFields(std::ostream& os, int) const {
    return os << "# Error: " << d_type->getName() << "::printFields unimplemented.\n";
}

void VrmlNode::printValue(std::ostream& os, int indent, const VrmlField& value) const {
    if (const VrmlSFNode* sf = value.asSFNode()) {
        if (sf->get()) {
            os << '\n';
            sf->get()->print(os, indent + 4);
        } else {
            os << "NULL";
        }
    } else if (const VrmlMFNode* mf = value.asMFNode()) {
        bool bare = mf->size() == 1;
        if (!bare) os << '[';
        for (size_t i = 0; i < mf->size(); ++i) {
            os << '\n';
            if ((*mf)[i]) (*mf)[i]->print(os, indent + 4);
            else writeIndent(os, indent + 4), os << "NULL";
        }
        if (!bare) {
            os << '\n';
            writeIndent(os, indent);
            os << ']';
        }
    } else {
        value.print(os);
    }
}

std::ostream& VrmlNode::printTable(std::ostream& os, int indent, const VrmlFieldSpec* t, size_t n) const {
    for (size_t i = 0; i < n; ++i) {
        const VrmlFieldSpec& s = t[i];
        if (!s.name || !s.member) continue;
        const VrmlField& v = *s.member(const_cast<VrmlNode&>(*this));
        // Empty values are left out: they read back as the field's empty default.
        if (const VrmlSFNode* sf = v.asSFNode(); sf && !sf->get()) continue;
        if (const VrmlMFNode* mf = v.asMFNode(); mf && mf->size() == 0) continue;
        if (const VrmlMFString* ms = v.asMFString(); ms && ms->size() == 0) continue;
        if (const VrmlSFString* ss = v.asSFString(); ss && !ss->get()) continue;
        if (const VrmlSFImage* im = v.asSFImage(); im && im->width() * im->height() == 0) continue;
        os << '\n';
        writeIndent(os, indent);
        os << s.name << ' ';
        printValue(os, indent, v);
    }
    return os;
}

std::ostream& operator<<(std::ostream& os, const VrmlNode& n) { return n.print(os, 0); }
