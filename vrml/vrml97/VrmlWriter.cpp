// The VRML97 world writer. Node text comes from VrmlNode::print; this file adds
// what lives outside the nodes: PROTO declarations, IS mappings and ROUTEs.
#include "vrml/vrml97/VrmlWriter.h"

#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "vrml/vrml97/VrmlNamespace.h"
#include "vrml/vrml97/VrmlNode.h"
#include "vrml/vrml97/VrmlNodeType.h"
#include "vrml/vrml97/VrmlNodes.h"

namespace {

// PROTO bodies being written (innermost last) and the routes met so far.
std::vector<const VrmlNodeType*> g_protos;
std::vector<std::vector<const VrmlNode*>>* g_routeSources = nullptr;

void indentTo(std::ostream& os, int n) {
    for (int i = 0; i < n; ++i) os.put(' ');
}

} // namespace

void VrmlWriteEmptyValue(std::ostream& os, int type) {
    switch (type) {
    case VrmlField::SFBOOL: os << "FALSE"; break;
    case VrmlField::SFCOLOR: case VrmlField::SFVEC3F: os << "0 0 0"; break;
    case VrmlField::SFROTATION: os << "0 0 1 0"; break;
    case VrmlField::SFVEC2F: os << "0 0"; break;
    case VrmlField::SFFLOAT: case VrmlField::SFINT32: case VrmlField::SFTIME: os << "0"; break;
    case VrmlField::SFSTRING: os << "\"\""; break;
    case VrmlField::SFIMAGE: os << "0 0 1"; break;
    case VrmlField::SFNODE: os << "NULL"; break;
    default: os << "[]"; break;
    }
}

namespace {

void writeDefault(std::ostream& os, int indent, const VrmlField* v, int type) {
    if (!v) return VrmlWriteEmptyValue(os, type);
    if (const VrmlSFNode* sf = v->asSFNode()) {
        if (!sf->get()) return VrmlWriteEmptyValue(os, type);
        os << '\n';
        sf->get()->print(os, indent + 4);
        return;
    }
    if (const VrmlMFNode* mf = v->asMFNode()) {
        os << '[';
        for (size_t i = 0; i < mf->size(); ++i) {
            if (!(*mf)[i]) continue;
            os << '\n';
            (*mf)[i]->print(os, indent + 4);
        }
        os << " ]";
        return;
    }
    if (const VrmlMFString* ms = v->asMFString(); ms && ms->size() == 0) return VrmlWriteEmptyValue(os, type);
    if (const VrmlSFString* ss = v->asSFString(); ss && !ss->get()) return VrmlWriteEmptyValue(os, type);
    if (const VrmlSFImage* im = v->asSFImage(); im && im->width() * im->height() == 0) return VrmlWriteEmptyValue(os, type);
    v->print(os);
}

bool isExposedEvent(const VrmlNodeType* t, const std::string& name, bool in) {
    if (in) return name.compare(0, 4, "set_") == 0 && t->hasExposedField(name.c_str() + 4);
    const std::string suffix = "_changed";
    if (name.size() <= suffix.size() || name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0)
        return false;
    return t->hasExposedField(name.substr(0, name.size() - suffix.size()).c_str()) != 0;
}

void writeRoutes(std::ostream& os, int indent, const std::vector<const VrmlNode*>& sources) {
    for (const VrmlNode* n : sources) {
        for (const VrmlNode::Route& r : n->routes()) {
            if (!r.toNode || !VrmlIsWritableName(n->name()) || !VrmlIsWritableName(r.toNode->name())) continue;
            indentTo(os, indent);
            os << "ROUTE " << n->name() << '.' << r.fromEventOut << " TO " << r.toNode->name() << '.' << r.toEventIn
               << '\n';
        }
    }
}

void writeTypes(std::ostream& os, int indent, const VrmlNamespace* ns);

void writeType(std::ostream& os, int indent, const VrmlNodeType* t) {
    const VrmlMFString* urls = t->url();
    bool external = urls != nullptr;
    indentTo(os, indent);
    os << (external ? "EXTERNPROTO " : "PROTO ") << t->getName() << " [\n";
    for (const auto& e : t->fields()) {
        indentTo(os, indent + 2);
        bool exposed = t->hasExposedField(e.name.c_str()) != 0;
        os << (exposed ? "exposedField " : "field ") << VrmlField::typeName(e.type) << ' ' << e.name;
        if (!external) {
            os << ' ';
            writeDefault(os, indent + 2, e.defaultValue, e.type);
        }
        os << '\n';
    }
    for (const auto& e : t->eventIns()) {
        if (isExposedEvent(t, e.name, true)) continue;
        indentTo(os, indent + 2);
        os << "eventIn " << VrmlField::typeName(e.type) << ' ' << e.name << '\n';
    }
    for (const auto& e : t->eventOuts()) {
        if (isExposedEvent(t, e.name, false)) continue;
        indentTo(os, indent + 2);
        os << "eventOut " << VrmlField::typeName(e.type) << ' ' << e.name << '\n';
    }
    indentTo(os, indent);
    os << "]";
    if (external) {
        os << ' ';
        urls->print(os);
        os << '\n';
        return;
    }
    os << " {\n";
    g_protos.push_back(t);
    std::vector<std::vector<const VrmlNode*>>* outer = g_routeSources;
    std::vector<std::vector<const VrmlNode*>> sources(1);
    g_routeSources = &sources;
    if (t->scope()) writeTypes(os, indent + 2, t->scope().get());
    if (const VrmlMFNode* body = t->implementationNodes()) {
        for (size_t i = 0; i < body->size(); ++i) {
            if (!(*body)[i]) continue;
            (*body)[i]->print(os, indent + 2);
            os << '\n';
        }
    }
    writeRoutes(os, indent + 2, sources.front());
    g_routeSources = outer;
    g_protos.pop_back();
    indentTo(os, indent);
    os << "}\n";
}

void writeTypes(std::ostream& os, int indent, const VrmlNamespace* ns) {
    for (const VrmlNodeType* t : ns->types()) writeType(os, indent, t);
}

} // namespace

const char* VrmlPrintISName(const VrmlNode* node, const char* fieldOrEvent) {
    if (g_protos.empty()) return nullptr;
    const VrmlNodeType* t = g_protos.back();
    for (const auto* list : {&t->fields(), &t->eventIns(), &t->eventOuts()})
        for (const auto& e : *list)
            for (const auto& m : e.thisIS)
                if (m.node == node && m.field == fieldOrEvent) return e.name.c_str();
    return nullptr;
}

void VrmlPrintEventIS(std::ostream& os, int indent, const VrmlNode* node) {
    if (g_protos.empty()) return;
    const VrmlNodeType* t = g_protos.back();
    for (const auto* list : {&t->eventIns(), &t->eventOuts()})
        for (const auto& e : *list)
            for (const auto& m : e.thisIS) {
                if (m.node != node || node->asScript()) continue; // Scripts write IS with their declarations
                // Exposed fields print their IS with the field itself.
                if (node->type()->hasField(m.field.c_str())) continue;
                if (t->hasField(e.name.c_str())) continue;
                os << '\n';
                indentTo(os, indent);
                os << m.field << " IS " << e.name;
            }
}

void VrmlPrintNoteRoutes(const VrmlNode* node) {
    if (g_routeSources && !node->routes().empty()) g_routeSources->front().push_back(node);
}

void VrmlWriteWorld(std::ostream& os, const VrmlNamespace* ns, const VrmlMFNode& nodes) {
    VrmlPrintBegin();
    std::vector<std::vector<const VrmlNode*>> sources(1);
    g_routeSources = &sources;
    if (ns) writeTypes(os, 0, ns);
    for (size_t i = 0; i < nodes.size(); ++i) {
        if (!nodes[i]) continue;
        nodes[i]->print(os, 0);
        os << '\n';
    }
    writeRoutes(os, 0, sources.front());
    g_routeSources = nullptr;
}
