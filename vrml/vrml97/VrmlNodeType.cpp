// Node type descriptors and the lazy PROTO body (EXTERNPROTO fetch, IS defaults).
#include "vrml/vrml97/VrmlNodeType.h"

#include <cstdio>
#include <cstring>

#include "vrml/vrml97/Doc.h"
#include "vrml/vrml97/System.h"
#include "vrml/vrml97/VrmlNamespace.h"
#include "vrml/vrml97/VrmlNode.h"
#include "vrml/vrml97/VrmlNodeProto.h"
#include "vrml/vrml97/VrmlScene.h"

void VrmlNodeType::Entries::add(const char* name, VrmlField::VrmlFieldType type) {
    Entry e;
    e.name = name ? name : "";
    e.type = type;
    byName.emplace(e.name, list.size());
    list.push_back(std::move(e));
}

VrmlNodeType::Entry* VrmlNodeType::Entries::find(const char* name) {
    auto it = byName.find(name);
    return it == byName.end() ? nullptr : &list[it->second];
}

const VrmlNodeType::Entry* VrmlNodeType::Entries::find(const char* name) const {
    auto it = byName.find(name);
    return it == byName.end() ? nullptr : &list[it->second];
}

VrmlNodeType::VrmlNodeType(const char* name, Creator creator)
    : d_name(name ? name : "<unnamed type>"), d_creator(creator) {}

VrmlNodeType::~VrmlNodeType() {
    for (auto& e : d_fields.list) delete e.defaultValue;
}

void VrmlNodeType::dereference() {
    if (--d_refCount <= 0) delete this;
}

VrmlNode* VrmlNodeType::newNode(VrmlScene* scene) const {
    if (d_creator) return d_creator(scene);
    return new VrmlNodeProto(const_cast<VrmlNodeType*>(this), scene);
}

void VrmlNodeType::addEventIn(const char* name, VrmlField::VrmlFieldType type) { d_eventIns.add(name, type); }
void VrmlNodeType::addEventOut(const char* name, VrmlField::VrmlFieldType type) { d_eventOuts.add(name, type); }

void VrmlNodeType::addField(const char* name, VrmlField::VrmlFieldType type, const VrmlField* defaultVal) {
    d_fields.add(name, type);
    if (defaultVal) d_fields.list.back().defaultValue = defaultVal->clone();
}

void VrmlNodeType::addExposedField(const char* name, VrmlField::VrmlFieldType type, const VrmlField* defaultVal) {
    addField(name, type, defaultVal);
    std::string in = std::string("set_") + name;
    std::string out = std::string(name) + "_changed";
    addEventIn(in.c_str(), type);
    addEventOut(out.c_str(), type);
}

void VrmlNodeType::setFieldDefault(const char* name, const VrmlField* value) {
    Entry* e = d_fields.find(name);
    if (!e) {
        theSystem->error("setFieldDefault for field %s of %s failed: no such field.", name, d_name.c_str());
        return;
    }
    if (e->defaultValue) {
        theSystem->error("Default for field %s of %s already set.", name, d_name.c_str());
        delete e->defaultValue;
    }
    e->defaultValue = value ? value->clone() : nullptr;
}

const VrmlField* VrmlNodeType::fieldDefault(const char* name) const {
    const Entry* e = d_fields.find(name);
    return e ? e->defaultValue : nullptr;
}

void VrmlNodeType::addIS(const char* isName, VrmlNode* implNode, const char* implName) {
    theSystem->debug("%s::addIS(%s, %s::%s.%s)\n", d_name.c_str(), isName, implNode->type()->getName(),
                     implNode->name(), implName);
    if (Entry* e = d_fields.find(isName)) e->thisIS.push_back({implNode, implName});
    if (Entry* e = d_eventIns.find(isName)) e->thisIS.push_back({implNode, implName});
    if (Entry* e = d_eventOuts.find(isName)) e->thisIS.push_back({implNode, implName});
}

const std::vector<VrmlNodeType::ISMap>* VrmlNodeType::getFieldISMap(const char* name) const {
    const Entry* e = d_fields.find(name);
    return e ? &e->thisIS : nullptr;
}
const std::vector<VrmlNodeType::ISMap>* VrmlNodeType::getEventInISMap(const char* name) const {
    const Entry* e = d_eventIns.find(name);
    return e ? &e->thisIS : nullptr;
}
const std::vector<VrmlNodeType::ISMap>* VrmlNodeType::getEventOutISMap(const char* name) const {
    const Entry* e = d_eventOuts.find(name);
    return e ? &e->thisIS : nullptr;
}

VrmlField::VrmlFieldType VrmlNodeType::hasEventIn(const char* name) const {
    const Entry* e = d_eventIns.find(name);
    return e ? e->type : VrmlField::NO_FIELD;
}
VrmlField::VrmlFieldType VrmlNodeType::hasEventOut(const char* name) const {
    const Entry* e = d_eventOuts.find(name);
    return e ? e->type : VrmlField::NO_FIELD;
}
VrmlField::VrmlFieldType VrmlNodeType::hasField(const char* name) const {
    const Entry* e = d_fields.find(name);
    return e ? e->type : VrmlField::NO_FIELD;
}

VrmlField::VrmlFieldType VrmlNodeType::hasExposedField(const char* name) const {
    VrmlField::VrmlFieldType t = hasField(name);
    if (!t) return VrmlField::NO_FIELD;
    std::string in = std::string("set_") + name;
    std::string out = std::string(name) + "_changed";
    if (hasEventIn(in.c_str()) == t && hasEventOut(out.c_str()) == t) return t;
    return VrmlField::NO_FIELD;
}

VrmlField::VrmlFieldType VrmlNodeType::hasInterface(const char* name) const {
    if (auto t = hasField(name)) return t;
    if (auto t = hasEventIn(name)) return t;
    return hasEventOut(name);
}

void VrmlNodeType::addNode(VrmlNode* node) {
    if (!d_implementation) d_implementation = std::make_unique<VrmlMFNode>();
    d_implementation->add(node);
}

void VrmlNodeType::setUrl(const VrmlMFString* urls, const Doc* relative) {
    d_url.reset(urls ? new VrmlMFString(*urls) : nullptr);
    d_relativeUrl = relative ? relative->localName() : std::string();
}

VrmlNode* VrmlNodeType::firstNode() const {
    if (!d_implementation || d_implementation->size() == 0) return nullptr;
    return (*d_implementation)[0];
}

void VrmlNodeType::nameImplNode(VrmlNode* node, VrmlNamespace* ns) {
    if (!node || node->name()[0]) return;
    // Named by its address so that each instance finds its own clone again.
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", static_cast<void*>(node));
    node->setName(buf, ns);
}

VrmlMFNode* VrmlNodeType::bodyNodes() {
    if (!d_implementation && d_url && !d_fetchFailed && !d_fetching) {
        d_fetching = true;
        Doc relative(d_relativeUrl.empty() ? nullptr : d_relativeUrl.c_str());
        VrmlNodeType* t = VrmlScene::readPROTO(d_url.get(), d_relativeUrl.empty() ? nullptr : &relative);
        if (t && t != this && t->d_implementation) {
            d_implementation = std::make_unique<VrmlMFNode>(*t->d_implementation);
            d_namespace = t->d_namespace;
            d_actualUrl = t->d_actualUrl;
            auto adopt = [](Entries& mine, const Entries& theirs, bool defaults) {
                for (Entry& e : mine.list) {
                    const Entry* o = theirs.find(e.name.c_str());
                    if (!o || o->type != e.type) continue;
                    e.thisIS = o->thisIS;
                    if (defaults && !e.defaultValue && o->defaultValue) e.defaultValue = o->defaultValue->clone();
                }
            };
            adopt(d_fields, t->d_fields, true);
            adopt(d_eventIns, t->d_eventIns, false);
            adopt(d_eventOuts, t->d_eventOuts, false);
            // The fetched type's own body already carries its defaults.
            d_fieldsInitialized = t->d_fieldsInitialized;
        } else {
            d_fetchFailed = true; // remembered, not retried
        }
        if (t) t->dereference();
        d_fetching = false;
    }
    if (!d_implementation) return nullptr;
    if (d_fieldsInitialized) return d_implementation.get();
    d_fieldsInitialized = true;
    VrmlNamespace* ns = d_namespace.get();
    for (Entry& e : d_fields.list) {
        for (ISMap& m : e.thisIS) {
            nameImplNode(m.node, ns);
            if (e.defaultValue && m.node) m.node->setField(m.field.c_str(), *e.defaultValue);
        }
    }
    for (Entries* entries : {&d_eventIns, &d_eventOuts})
        for (Entry& e : entries->list)
            for (ISMap& m : e.thisIS) nameImplNode(m.node, ns);
    return d_implementation.get();
}
