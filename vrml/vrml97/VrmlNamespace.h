#pragma once
// DEF names and node types in scope: one per world, per PROTO body and per PROTO
// instance. Types fall back to the enclosing scope and then to the built-in table;
// node names never leave their own namespace.
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

class VrmlNode;
class VrmlNodeType;

class VrmlNamespace : public std::enable_shared_from_this<VrmlNamespace> {
public:
    // A scope whose types fall back to parent (kept alive when shared-owned).
    static std::shared_ptr<VrmlNamespace> createChild(VrmlNamespace* parent);
    explicit VrmlNamespace(std::shared_ptr<VrmlNamespace> parent = nullptr);
    ~VrmlNamespace();
    VrmlNamespace(const VrmlNamespace&) = delete;
    VrmlNamespace& operator=(const VrmlNamespace&) = delete;

    // Registers a type (takes a reference); false and a warning when the name is taken.
    bool addNodeType(VrmlNodeType* type);
    VrmlNodeType* findType(const char* name) const;
    // A PROTO declared in this namespace itself (no parents, no built-ins).
    VrmlNodeType* findOwnType(const char* name) const;
    // First PROTO or EXTERNPROTO declared in this namespace itself.
    VrmlNodeType* firstType() const { return d_types.empty() ? nullptr : d_types.front(); }
    const std::vector<VrmlNodeType*>& types() const { return d_types; }

    void addNodeName(VrmlNode* node);
    VrmlNode* findNode(const char* name) const;

    // The built-in node types (created once per process).
    static VrmlNodeType* findBuiltinType(const char* name);

private:
    // The enclosing scope, held weakly: it owns the PROTO types whose bodies
    // own this namespace, so a strong reference would be a cycle.
    std::weak_ptr<VrmlNamespace> d_parentWeak;
    VrmlNamespace* d_parent = nullptr; // used only when the parent is not shared-owned
    bool d_parentShared = false;
    std::vector<VrmlNodeType*> d_types; // in declaration order
    std::unordered_map<std::string, VrmlNodeType*> d_typeByName;
    std::unordered_map<std::string, VrmlNode*> d_names;
    // Every node ever named here stays referenced until the namespace dies, so a
    // redefined name cannot leave a route pointing at a freed node.
    std::vector<VrmlNode*> d_held;
};
