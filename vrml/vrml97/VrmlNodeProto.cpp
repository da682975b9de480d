// PROTO instances: lazy cloning of the body into a private namespace, with the
// instance's field values, events and routes forwarded through IS mappings.
#include "vrml/vrml97/VrmlNodeProto.h"

#include <cstring>
#include <ostream>

#include "vrml/vrml97/System.h"
#include "vrml/vrml97/VrmlNamespace.h"
#include "vrml/vrml97/VrmlNodeType.h"
#include "vrml/vrml97/VrmlScene.h"

namespace {
// Nested instantiation (a PROTO body using PROTOs, EXTERNPROTO chains) is capped
// only to keep the call stack bounded; what bounds the work is the total number
// of clones one load may make, however the PROTOs nest or repeat.
int g_instantiateDepth = 0;
constexpr int kMaxInstantiateDepth = kVrmlMaxProtoNesting;
// About 450 bytes a unit (a plain clone): half a million is some 225 MB, made in a second or two.
constexpr size_t kMaxClones = 500000;
// Instances mostly give a few values: below this many the list itself is searched.
constexpr size_t kFieldIndexFrom = 16;
bool g_budgetReported = false;
} // namespace

void VrmlProtoResetBudget() {
    VrmlCloneCount = 0;
    g_budgetReported = false;
}

VrmlNodeProto::VrmlNodeProto(VrmlNodeType* type, VrmlScene* scene) : VrmlNode(type, scene) {}

VrmlNodeProto::VrmlNodeProto(const VrmlNodeProto& o) : VrmlNode(o), d_pendingRoutes(o.d_pendingRoutes) {
    for (const auto& f : o.d_fields) d_fields.emplace_back(f.first, f.second ? f.second->clone() : nullptr);
}

VrmlNodeProto::~VrmlNodeProto() {
    for (auto& f : d_fields) delete f.second;
}

VrmlNode* VrmlNodeProto::firstNode() {
    if (d_instantiated) return d_nodes.size() ? d_nodes[0] : nullptr;
    VrmlMFNode* body = d_type->bodyNodes(); // may fetch an EXTERNPROTO
    return body && body->size() ? (*body)[0] : nullptr;
}

void VrmlNodeProto::cloneChildrenInto(VrmlNamespace* ns) {
    VrmlNode::cloneChildrenInto(ns);
    translateRoutes(d_pendingRoutes, ns);
}

void VrmlNodeProto::instantiate() {
    theSystem->debug("%s::%s instantiate\n", d_type->getName(), name());
    if (d_instantiated || d_instantiating) return;
    if (d_nodes.size()) {
        d_instantiated = true;
        return;
    }
    if (g_instantiateDepth > kMaxInstantiateDepth) {
        theSystem->error("PROTO %s nested too deeply; instance left empty\n", d_type->getName());
        d_instantiated = true;
        return;
    }
    if (VrmlCloneCount > kMaxClones) {
        // Said once: past the budget every further instance is left empty too.
        if (!g_budgetReported)
            theSystem->error("PROTO %s: too many nodes cloned; instance left empty (and every later one)\n",
                             d_type->getName());
        g_budgetReported = true;
        d_instantiated = true;
        return;
    }
    d_instantiating = true;
    VrmlMFNode* body = d_type->bodyNodes();
    d_scope = std::make_shared<VrmlNamespace>();
    if (body) {
        for (size_t i = 0; i < body->size(); ++i)
            if ((*body)[i]) (*body)[i]->clearVisited();
        // Clone every top-level node first, then their children, so shared
        // nodes inside the body stay shared in the copy.
        std::vector<VrmlNode*> fresh;
        for (size_t i = 0; i < body->size(); ++i) {
            VrmlNode* orig = (*body)[i];
            if (!orig) continue;
            bool isNew = !(orig->visited());
            VrmlNode* c = orig->cloneInto(d_scope.get());
            d_nodes.add(c);
            if (isNew) fresh.push_back(c);
        }
        for (VrmlNode* c : fresh) c->cloneChildrenInto(d_scope.get());
        for (size_t i = 0; i < body->size(); ++i)
            if ((*body)[i]) (*body)[i]->clearVisited();
    }
    const VrmlNodeType* t = d_type;
    for (const Route& r : d_pendingRoutes) {
        const auto* maps = t->getEventOutISMap(r.fromEventOut.c_str());
        if (!maps) continue;
        for (const auto& m : *maps) {
            VrmlNode* c = m.node ? d_scope->findNode(m.node->name()) : nullptr;
            if (c) c->addRoute(m.field.c_str(), r.toNode, r.toEventIn.c_str());
        }
    }
    d_pendingRoutes.clear();
    for (const auto& f : d_fields) {
        if (!f.second) continue;
        const auto* maps = t->getFieldISMap(f.first.c_str());
        if (!maps) continue;
        for (const auto& m : *maps) {
            VrmlNode* c = m.node ? d_scope->findNode(m.node->name()) : nullptr;
            if (c) c->setField(m.field.c_str(), *f.second);
        }
    }
    d_instantiating = false;
    d_instantiated = true;
}

void VrmlNodeProto::addToScene(VrmlScene* scene, const char* relativeUrl) {
    if (d_scene == scene && scene && d_instantiated) return;
    theSystem->debug("VrmlNodeProto::%s addToScene\n", name());
    d_scene = scene;
    ++g_instantiateDepth;
    instantiate();
    theSystem->debug("VrmlNodeProto::%s addToScene(%d nodes)\n", name(), static_cast<int>(d_nodes.size()));
    for (size_t i = 0; i < d_nodes.size(); ++i)
        if (d_nodes[i]) d_nodes[i]->addToScene(scene, relativeUrl);
    --g_instantiateDepth;
}

std::ostream& VrmlNodeProto::printFields(std::ostream& os, int) const {
    // Instances are not written out: neither their values nor their clones.
    return os << "#VrmlNodeProto::printFields not implemented yet...\n";
}

void VrmlNodeProto::eventIn(double timeStamp, const char* eventName, const VrmlField* value) {
    if (!d_instantiated) {
        theSystem->debug("VrmlNodeProto::%s eventIn before instantiation\n", name());
        instantiate();
    }
    const auto* maps = d_type->getEventInISMap(eventName);
    if (!maps || maps->empty()) {
        std::string alt =
            std::strncmp(eventName, "set_", 4) == 0 ? std::string(eventName + 4) : "set_" + std::string(eventName);
        maps = d_type->getEventInISMap(alt.c_str());
    }
    if (!maps || maps->empty()) {
        // An exposedField's IS sits on its field entry: forward as the
        // implementation's own set_ event.
        const char* stripped = std::strncmp(eventName, "set_", 4) == 0 ? eventName + 4 : eventName;
        if (d_type->hasExposedField(stripped)) {
            if (const auto* fm = d_type->getFieldISMap(stripped))
                for (const auto& m : *fm) {
                    VrmlNode* c = m.node && d_scope ? d_scope->findNode(m.node->name()) : nullptr;
                    std::string ev = "set_" + m.field;
                    if (c) c->eventIn(timeStamp, ev.c_str(), value);
                }
        }
        return;
    }
    for (const auto& m : *maps) {
        VrmlNode* c = m.node && d_scope ? d_scope->findNode(m.node->name()) : nullptr;
        if (c) c->eventIn(timeStamp, m.field.c_str(), value);
    }
}

void VrmlNodeProto::setField(const char* fieldName, const VrmlField& value) {
    if (!d_type->hasField(fieldName)) {
        VrmlNode::setField(fieldName, value);
        return;
    }
    if (value.fieldType() != d_type->hasField(fieldName)) {
        theSystem->error("Invalid type (%s) for %s field of %s node (expected %s).\n", value.typeName(), fieldName,
                         d_type->getName(), VrmlField::typeName(d_type->hasField(fieldName)));
        return;
    }
    if (size_t at = findValue(fieldName); at < d_fields.size()) {
        delete d_fields[at].second;
        d_fields[at].second = value.clone();
        return;
    }
    if (!d_fieldIndex.empty()) d_fieldIndex.emplace(fieldName, d_fields.size());
    d_fields.emplace_back(fieldName, value.clone());
    if (d_instantiated) {
        if (const auto* maps = d_type->getFieldISMap(fieldName))
            for (const auto& m : *maps) {
                VrmlNode* c = m.node && d_scope ? d_scope->findNode(m.node->name()) : nullptr;
                if (c) c->setField(m.field.c_str(), value);
            }
    }
}

size_t VrmlNodeProto::findValue(const char* fieldName) const {
    if (d_fields.size() < kFieldIndexFrom) {
        for (size_t i = 0; i < d_fields.size(); ++i)
            if (d_fields[i].first == fieldName) return i;
        return d_fields.size();
    }
    if (d_fieldIndex.empty())
        for (size_t i = 0; i < d_fields.size(); ++i) d_fieldIndex.emplace(d_fields[i].first, i);
    auto it = d_fieldIndex.find(fieldName);
    return it == d_fieldIndex.end() ? d_fields.size() : it->second;
}

const VrmlField* VrmlNodeProto::getField(const char* fieldName) const {
    if (size_t at = findValue(fieldName); at < d_fields.size()) return d_fields[at].second;
    return d_type->fieldDefault(fieldName);
}

void VrmlNodeProto::render() {
    if (!d_instantiated) theSystem->debug("VrmlNodeProto::%s render before instantiation\n", name());
}

void VrmlNodeProto::accumTrans(const double* parentTransform) {
    if (!d_instantiated) {
        theSystem->debug("VrmlNodeProto::%s accumTrans before instantiation\n", name());
        return;
    }
    for (size_t i = 0; i < d_nodes.size(); ++i)
        if (d_nodes[i]) d_nodes[i]->accumTrans(parentTransform);
}

void VrmlNodeProto::visitFields(const FieldVisitor& v) {
    for (auto& f : d_fields)
        if (f.second) v(f.first.c_str(), *f.second);
}

void VrmlNodeProto::visitChildren(const std::function<void(VrmlNode*)>& f) {
    // Instance field values (nodes given to the instance) and the clones.
    VrmlNode::visitChildren(f);
    for (size_t i = 0; i < d_nodes.size(); ++i) f(d_nodes[i]);
}

void VrmlNodeProto::addRoute(const char* fromEventOut, VrmlNode* toNode, const char* toEventIn) {
    VrmlNode::addRoute(fromEventOut, toNode, toEventIn); // kept for writing the world back
    if (!d_instantiated) {
        d_pendingRoutes.push_back({fromEventOut, toNode, toEventIn});
        return;
    }
    if (const auto* maps = d_type->getEventOutISMap(fromEventOut))
        for (const auto& m : *maps) {
            VrmlNode* c = m.node && d_scope ? d_scope->findNode(m.node->name()) : nullptr;
            if (c) c->addRoute(m.field.c_str(), toNode, toEventIn);
        }
}

void VrmlNodeProto::emit(double timeStamp, const char* eventOut, const VrmlField& value) {
    VrmlNode::emit(timeStamp, eventOut, value);
}
