#pragma once
// A loaded VRML97 world: the root group, the world namespace, and the lists in
// which nodes register themselves (bindable stacks, lights, time-dependent
// nodes). Also the static readers: readWRL for worlds and readPROTO for
// EXTERNPROTO bodies.
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "vrml/vrml97/VrmlField.h"

class Doc;
class VrmlNamespace;
class VrmlNode;
class VrmlNodeGroup;
class VrmlNodeType;

class VrmlScene {
public:
    explicit VrmlScene(const char* url = nullptr, const char* localCopy = nullptr);
    ~VrmlScene();
    VrmlScene(const VrmlScene&) = delete;
    VrmlScene& operator=(const VrmlScene&) = delete;

    bool load(const char* url, const char* localCopy = nullptr);
    bool loadFromUrls(const VrmlMFString* urls, const VrmlMFString* parameters = nullptr);
    void replaceWorld(VrmlMFNode& nodes, std::shared_ptr<VrmlNamespace> ns, Doc* urlDoc, Doc* localDoc);

    // bytesRead, when given, receives the size of the file that was parsed.
    static VrmlMFNode* readWRL(Doc* doc, VrmlNamespace* ns, uint64_t* bytesRead = nullptr);
    static VrmlMFNode* readWRL(const VrmlMFString* urls, const Doc* relative, VrmlNamespace* ns,
                               uint64_t* bytesRead = nullptr);
    // Parses an in-memory world (fuzzing, tests); base gives relative URLs.
    static VrmlMFNode* readString(const char* data, size_t size, VrmlNamespace* ns, const Doc* base = nullptr);
    // load() for a world held in memory: no URL, so nothing relative to it resolves.
    bool loadString(const char* data, size_t size);
    // The referenced type (caller dereferences) or null.
    static VrmlNodeType* readPROTO(const VrmlMFString* urls, const Doc* relative);

    // Named nodes print in full at every use, so sharing can multiply a small
    // world's text: a save stops, and fails, past this many nodes or bytes.
    static constexpr size_t kMaxPrintedNodes = 1000000;
    static constexpr uint64_t kMaxSavedBytes = uint64_t{512} << 20;
    bool save(const char* url);
    bool save(std::ostream& os, uint64_t maxBytes = kMaxSavedBytes, size_t maxNodes = kMaxPrintedNodes);
    void update(double time);

    VrmlNodeGroup* root() const { return d_root; }
    VrmlNamespace* scope() const { return d_namespace.get(); }
    const char* urlDoc() const;
    static const char* version();

    // Registration lists.
    void addToLists(VrmlNode* node);
    void removeFromLists(VrmlNode* node);
// clang-format off
#define VRML_SCENE_LIST(Kind)                                                                      \
    void add##Kind(VrmlNode* n) { addTo(d_##Kind, n); }                                           \
    void remove##Kind(VrmlNode* n) { removeFrom(d_##Kind, n); }                                   \
    const std::vector<VrmlNode*>& Kind##List() const { return d_##Kind; }
    VRML_SCENE_LIST(Background) VRML_SCENE_LIST(Fog) VRML_SCENE_LIST(NavigationInfo)
    VRML_SCENE_LIST(Viewpoint) VRML_SCENE_LIST(AudioClip) VRML_SCENE_LIST(ScopedLight)
    VRML_SCENE_LIST(MovieTexture) VRML_SCENE_LIST(Script) VRML_SCENE_LIST(TimeSensor)
#undef VRML_SCENE_LIST
        // clang-format on

        // Binding: the bound node is the top of its stack.
        void bindBackground(VrmlNode* n, bool on, double time) {
        bind(d_BackgroundStack, n, on, time);
    }
    void bindFog(VrmlNode* n, bool on, double time) { bind(d_FogStack, n, on, time); }
    void bindNavigationInfo(VrmlNode* n, bool on, double time) { bind(d_NavigationInfoStack, n, on, time); }
    void bindViewpoint(VrmlNode* n, bool on, double time) { bind(d_ViewpointStack, n, on, time); }
    VrmlNode* bindableBackgroundTop() const { return top(d_BackgroundStack); }
    VrmlNode* bindableFogTop() const { return top(d_FogStack); }
    VrmlNode* bindableNavigationInfoTop() const { return top(d_NavigationInfoStack); }
    VrmlNode* bindableViewpointTop() const { return top(d_ViewpointStack); }

    double delta() const { return d_delta; }

    // Inline worlds read into this world. Each load may bring more Inlines, so a
    // world that inlines itself a few times would multiply its loads at every
    // level; the count and the bytes read are capped per world instead.
    static constexpr int kMaxInlineLoads = 256;
    static constexpr uint64_t kMaxInlineBytes = uint64_t{256} << 20;
    // False (and a warning) when the budget is spent; url names the skipped world.
    bool takeInlineLoad(const char* url);
    void addInlineBytes(uint64_t n) { d_inlineBytes += n; }
    int inlineLoads() const { return d_inlineLoads; }
    int inlinesSkipped() const { return d_inlinesSkipped; }

private:
    void addTo(std::vector<VrmlNode*>& l, VrmlNode* n);
    void removeFrom(std::vector<VrmlNode*>& l, VrmlNode* n);
    static VrmlNode* top(const std::vector<VrmlNode*>& s) { return s.empty() ? nullptr : s.back(); }
    void bind(std::vector<VrmlNode*>& stack, VrmlNode* n, bool on, double time);
    void bindFirst(const std::vector<VrmlNode*>& list, double time);
    void clearWorld();

    VrmlNodeGroup* d_root;
    std::unique_ptr<Doc> d_url;
    std::unique_ptr<Doc> d_urlLocal;
    std::shared_ptr<VrmlNamespace> d_namespace;
    bool d_fragmentBound = false;
    std::vector<VrmlNode*> d_Background, d_BackgroundStack, d_Fog, d_FogStack, d_NavigationInfo, d_NavigationInfoStack,
        d_Viewpoint, d_ViewpointStack, d_AudioClip, d_ScopedLight, d_MovieTexture, d_Script, d_TimeSensor;
    // Which node is in which registration list: a world may register any number of nodes.
    struct ListedHash {
        size_t operator()(const std::pair<const void*, const VrmlNode*>& k) const {
            return std::hash<const void*>()(k.first) * 31 + std::hash<const VrmlNode*>()(k.second);
        }
    };
    std::unordered_set<std::pair<const void*, const VrmlNode*>, ListedHash> d_listed;
    double d_delta = 0.5;
    int d_inlineLoads = 0;
    int d_inlinesSkipped = 0;
    uint64_t d_inlineBytes = 0;
};
