// Scopes of DEF names and node types.
#include "vrml/vrml97/VrmlNamespace.h"

#include "vrml/vrml97/System.h"
#include "vrml/vrml97/VrmlNode.h"
#include "vrml/vrml97/VrmlNodeType.h"
#include "vrml/vrml97/VrmlNodes.h"

VrmlNamespace::VrmlNamespace(std::shared_ptr<VrmlNamespace> parent)
    : d_parentWeak(parent), d_parent(parent.get()), d_parentShared(parent != nullptr) {}

std::shared_ptr<VrmlNamespace> VrmlNamespace::createChild(VrmlNamespace* parent) {
    std::shared_ptr<VrmlNamespace> owner = parent ? parent->weak_from_this().lock() : nullptr;
    auto ns = std::make_shared<VrmlNamespace>(owner);
    ns->d_parent = parent;
    return ns;
}

VrmlNamespace::~VrmlNamespace() {
    d_names.clear();
    for (VrmlNode* n : d_held) n->release();
    for (VrmlNodeType* t : d_types) t->dereference();
}

bool VrmlNamespace::addNodeType(VrmlNodeType* type) {
    // The built-in types belong to every namespace: a PROTO cannot replace one.
    if (findBuiltinType(type->getName()) || d_typeByName.count(type->getName())) {
        theSystem->warn("PROTO %s already defined\n", type->getName());
        return false;
    }
    d_types.push_back(type->reference());
    d_typeByName.emplace(type->getName(), type);
    return true;
}

VrmlNodeType* VrmlNamespace::findType(const char* name) const {
    std::shared_ptr<VrmlNamespace> hold; // keeps a shared parent alive while it is searched
    for (const VrmlNamespace* ns = this; ns;) {
        if (VrmlNodeType* t = ns->findOwnType(name)) return t;
        if (ns->d_parentShared) {
            hold = ns->d_parentWeak.lock();
            ns = hold.get();
        } else {
            ns = ns->d_parent;
        }
    }
    return findBuiltinType(name);
}

VrmlNodeType* VrmlNamespace::findOwnType(const char* name) const {
    auto it = d_typeByName.find(name);
    return it == d_typeByName.end() ? nullptr : it->second;
}

void VrmlNamespace::addNodeName(VrmlNode* node) {
    node->addRef();
    d_held.push_back(node);
    d_names[node->name()] = node;
}

VrmlNode* VrmlNamespace::findNode(const char* name) const {
    auto it = d_names.find(name);
    return it == d_names.end() ? nullptr : it->second;
}

VrmlNodeType* VrmlNamespace::findBuiltinType(const char* name) {
    struct Entry {
        const char* name;
        VrmlNodeType* (*define)(VrmlNodeType*);
    };
#define VRML_BUILTIN(S) {nullptr, &VrmlNode##S::defineType},
    static const Entry kTypes[] = {VRML_NODE_CLASSES(VRML_BUILTIN)};
#undef VRML_BUILTIN
    static std::unordered_map<std::string, VrmlNodeType*> table = [] {
        std::unordered_map<std::string, VrmlNodeType*> m;
        for (const Entry& e : kTypes) {
            VrmlNodeType* t = e.define(nullptr);
            m[t->getName()] = t;
        }
        return m;
    }();
    auto it = table.find(name);
    return it == table.end() ? nullptr : it->second;
}
