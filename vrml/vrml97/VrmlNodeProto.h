#pragma once
// An instance of a PROTO or EXTERNPROTO. The body is cloned into a private
// namespace only when first needed; field values and routes given before that
// are kept and forwarded through the type's IS mappings at instantiation.
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "vrml/vrml97/VrmlNode.h"

// PROTOs built on PROTOs: instances nested deeper than this are left empty, and
// chains of first body nodes are followed no further.
constexpr int kVrmlMaxProtoNesting = 128;

class VrmlNodeProto : public VrmlNode {
public:
    VrmlNodeProto(VrmlNodeType* type, VrmlScene* scene);
    VrmlNodeProto(const VrmlNodeProto& other);
    ~VrmlNodeProto() override;

    VrmlNode* cloneMe() const override { return new VrmlNodeProto(*this); }
    const VrmlNodeProto* asProto() const override { return this; }
    VrmlNodeProto* asProto() override { return this; }
    void cloneChildrenInto(VrmlNamespace* ns) override;

    void addToScene(VrmlScene* scene, const char* relativeUrl) override;
    std::ostream& printFields(std::ostream& os, int indent) const override;
    void eventIn(double timeStamp, const char* eventName, const VrmlField* value) override;
    void setField(const char* fieldName, const VrmlField& value) override;
    const VrmlField* getField(const char* fieldName) const override;
    void render() override;
    void accumTrans(const double* parentTransform) override;
    void visitFields(const FieldVisitor& v) override;
    void visitChildren(const std::function<void(VrmlNode*)>& f) override;
    void addRoute(const char* fromEventOut, VrmlNode* toNode, const char* toEventIn) override;
    void emit(double timeStamp, const char* eventOut, const VrmlField& value) override;

    void instantiate();
    bool isInstantiated() const { return d_instantiated; }
    // The cloned body (empty before instantiation).
    const VrmlMFNode& getNodes() const { return d_nodes; }
    VrmlNode* firstNode();
    // Field values given on the instance, in order.
    const std::vector<std::pair<std::string, VrmlField*>>& fieldValues() const { return d_fields; }

private:
    // The position of a field value given on the instance, or d_fields.size().
    size_t findValue(const char* fieldName) const;
    std::vector<std::pair<std::string, VrmlField*>> d_fields;
    // Positions in d_fields by name, made once an instance gives many values.
    mutable std::unordered_map<std::string, size_t> d_fieldIndex;
    std::vector<Route> d_pendingRoutes;
    std::shared_ptr<VrmlNamespace> d_scope;
    VrmlMFNode d_nodes;
    bool d_instantiated = false;
    bool d_instantiating = false;
};
