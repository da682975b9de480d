#pragma once
// Node type descriptors: the built-in ones and PROTO/EXTERNPROTO declarations.
// An exposedField is stored as a field plus "set_" eventIn plus "_changed" eventOut.
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "vrml/vrml97/VrmlField.h"

class Doc;
class VrmlNamespace;
class VrmlNode;
class VrmlScene;

class VrmlNodeType {
public:
    using Creator = VrmlNode* (*)(VrmlScene*);
    struct ISMap {
        VrmlNode* node;
        std::string field;
    };
    struct Entry {
        std::string name;
        VrmlField::VrmlFieldType type = VrmlField::NO_FIELD;
        VrmlField* defaultValue = nullptr;
        std::vector<ISMap> thisIS;
    };
    using EntryList = std::vector<Entry>;

    explicit VrmlNodeType(const char* name = nullptr, Creator creator = nullptr);
    ~VrmlNodeType();
    VrmlNodeType(const VrmlNodeType&) = delete;
    VrmlNodeType& operator=(const VrmlNodeType&) = delete;

    VrmlNodeType* reference() {
        ++d_refCount;
        return this;
    }
    void dereference();

    const char* getName() const { return d_name.c_str(); }
    VrmlNode* newNode(VrmlScene* scene = nullptr) const;
    VrmlNode* create(VrmlScene* scene = nullptr) const { return newNode(scene); }
    bool isProto() const { return d_creator == nullptr; }

    void addEventIn(const char* name, VrmlField::VrmlFieldType type);
    void addEventOut(const char* name, VrmlField::VrmlFieldType type);
    void addField(const char* name, VrmlField::VrmlFieldType type, const VrmlField* defaultVal = nullptr);
    void addExposedField(const char* name, VrmlField::VrmlFieldType type, const VrmlField* defaultVal = nullptr);
    void declareEventIn(const char* n, VrmlField::VrmlFieldType t) { addEventIn(n, t); }
    void declareEventOut(const char* n, VrmlField::VrmlFieldType t) { addEventOut(n, t); }
    void declareField(const char* n, VrmlField::VrmlFieldType t, const VrmlField* d = nullptr) { addField(n, t, d); }
    void declareExposedField(const char* n, VrmlField::VrmlFieldType t, const VrmlField* d = nullptr) {
        addExposedField(n, t, d);
    }
    void setFieldDefault(const char* name, const VrmlField* value);
    const VrmlField* fieldDefault(const char* name) const;
    const VrmlField* defaultOf(const char* name) const { return fieldDefault(name); }

    void addIS(const char* isName, VrmlNode* implNode, const char* implName);
    const std::vector<ISMap>* getFieldISMap(const char* name) const;
    const std::vector<ISMap>* getEventInISMap(const char* name) const;
    const std::vector<ISMap>* getEventOutISMap(const char* name) const;

    VrmlField::VrmlFieldType hasEventIn(const char* name) const;
    VrmlField::VrmlFieldType hasEventOut(const char* name) const;
    VrmlField::VrmlFieldType hasField(const char* name) const;
    VrmlField::VrmlFieldType hasExposedField(const char* name) const;
    VrmlField::VrmlFieldType hasInterface(const char* name) const;
    VrmlField::VrmlFieldType findEventIn(const char* n) const { return hasEventIn(n); }
    VrmlField::VrmlFieldType findEventOut(const char* n) const { return hasEventOut(n); }
    VrmlField::VrmlFieldType findField(const char* n) const { return hasField(n); }
    VrmlField::VrmlFieldType findExposedField(const char* n) const { return hasExposedField(n); }

    const EntryList& eventIns() const { return d_eventIns.list; }
    const EntryList& eventOuts() const { return d_eventOuts.list; }
    const EntryList& fields() const { return d_fields.list; }

    // PROTO implementation.
    void addNode(VrmlNode* node);
    void setScope(std::shared_ptr<VrmlNamespace> ns) { d_namespace = std::move(ns); }
    const std::shared_ptr<VrmlNamespace>& scope() const { return d_namespace; }
    void setUrl(const VrmlMFString* urls, const Doc* relative);
    void setActualUrl(const char* url) { d_actualUrl = url ? url : ""; }
    void setLoadedFrom(const char* url) { setActualUrl(url); }
    const char* actualUrl() const { return d_actualUrl.c_str(); }
    const VrmlMFString* url() const { return d_url.get(); }
    // The body's top-level nodes, fetching an EXTERNPROTO first and pushing the
    // IS defaults into the body once. May be null.
    VrmlMFNode* bodyNodes();
    const VrmlMFNode* implementationNodes() const { return d_implementation.get(); }
    VrmlNode* firstNode() const;

private:
    // A list of interface entries with its names indexed: a type may declare any number,
    // and every field an instance gives is looked up by name.
    struct Entries {
        EntryList list;
        std::unordered_map<std::string, size_t> byName; // the first entry of each name
        void add(const char* name, VrmlField::VrmlFieldType type);
        Entry* find(const char* name);
        const Entry* find(const char* name) const;
    };
    static void nameImplNode(VrmlNode* node, VrmlNamespace* ns);
    std::string d_name;
    Creator d_creator;
    int d_refCount = 0;
    Entries d_eventIns, d_eventOuts, d_fields;
    std::unique_ptr<VrmlMFNode> d_implementation;
    std::unique_ptr<VrmlMFString> d_url;
    std::string d_relativeUrl;
    std::string d_actualUrl;
    std::shared_ptr<VrmlNamespace> d_namespace;
    bool d_fieldsInitialized = false;
    bool d_fetchFailed = false;
    bool d_fetching = false;
};
