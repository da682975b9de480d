// Loading, replacing, writing and updating a VRML97 world.
#include "vrml/vrml97/VrmlScene.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <set>
#include <streambuf>
#include <unordered_map>

#include "vrml/vrml97/Doc.h"
#include "vrml/vrml97/System.h"
#include "vrml/vrml97/VrmlNamespace.h"
#include "vrml/vrml97/VrmlNodeProto.h"
#include "vrml/vrml97/VrmlNodeType.h"
#include "vrml/vrml97/VrmlNodes.h"
#include "vrml/vrml97/VrmlParser.h"
#include <orbiscope/Version.h>

void VrmlProtoResetBudget();

namespace {
// Files being read for EXTERNPROTO bodies right now: reading one again is a cycle.
std::set<std::string> g_fetching;
constexpr size_t kMaxFetchDepth = 8;
// Files read for EXTERNPROTO bodies from the world itself (not from inside another such
// read, whose cycles block what a read from the world would not), kept for the rest of
// the load: any number of EXTERNPROTOs may name one file, which is then read once.
struct Fetched {
    std::shared_ptr<VrmlNamespace> ns;
    int err = 0;
};
std::unordered_map<std::string, Fetched> g_fetched;

bool isUrn(const char* url) { return std::strncmp(url, "urn:", 4) == 0; }

void setBound(VrmlNode* n, bool on, double time) {
    VrmlSFBool* flag = nullptr;
    if (auto* b = n->asBackground()) flag = &b->d_isBound;
    else if (auto* f = n->asFog()) flag = &f->d_isBound;
    else if (auto* ni = n->asNavigationInfo()) flag = &ni->d_isBound;
    else if (auto* v = n->asViewpoint()) flag = &v->d_isBound;
    if (!flag) return;
    flag->set(on);
    n->emit(time, "isBound", *flag);
    if (auto* v = n->asViewpoint(); v && on) n->emit(time, "bindTime", VrmlSFTime(time));
}
} // namespace

VrmlScene::VrmlScene(const char* url, const char* localCopy) {
    d_root = new VrmlNodeGroup(this);
    d_root->addRef();
    d_namespace = std::make_shared<VrmlNamespace>();
    if (url && !load(url, localCopy)) theSystem->error("Couldn't load '%s'.\n", url);
}

VrmlScene::~VrmlScene() {
    g_fetched.clear();
    clearWorld();
    d_root->release();
    d_namespace.reset();
}

void VrmlScene::clearWorld() {
    // Nodes that outlive the scene must not find their way back to it.
    for (auto* list : {&d_Background, &d_Fog, &d_NavigationInfo, &d_Viewpoint, &d_AudioClip, &d_ScopedLight,
                       &d_MovieTexture, &d_Script, &d_TimeSensor}) {
        for (VrmlNode* n : *list) n->d_registered = false;
        list->clear();
    }
    d_listed.clear();
    d_BackgroundStack.clear();
    d_FogStack.clear();
    d_NavigationInfoStack.clear();
    d_ViewpointStack.clear();
}

const char* VrmlScene::urlDoc() const { return d_url ? d_url->url() : ""; }

const char* VrmlScene::version() { return ORBISCOPE_VERSION; }

bool VrmlScene::load(const char* url, const char* localCopy) {
    if (!url) return false;
    if (url[0] == '#') {
        VrmlNode* n = d_namespace ? d_namespace->findNode(url + 1) : nullptr;
        if (n) {
            VrmlSFBool on(true);
            n->eventIn(theSystem->time(), "set_bind", &on);
            d_fragmentBound = true;
        }
        return true;
    }
    VrmlProtoResetBudget();
    g_fetched.clear();
    auto urlDoc = std::make_unique<Doc>(url, d_url.get());
    std::unique_ptr<Doc> localDoc = localCopy ? std::make_unique<Doc>(localCopy) : nullptr;
    auto ns = std::make_shared<VrmlNamespace>();
    VrmlMFNode* nodes = readWRL(localDoc ? localDoc.get() : urlDoc.get(), ns.get());
    if (!nodes) return false;
    std::string fragment = urlDoc->fragment();
    replaceWorld(*nodes, ns, urlDoc.release(), localDoc.release());
    delete nodes;
    if (fragment.size() > 1) {
        if (VrmlNode* n = d_namespace->findNode(fragment.c_str() + 1)) {
            VrmlSFBool on(true);
            n->eventIn(theSystem->time(), "set_bind", &on);
        }
    }
    return true;
}

bool VrmlScene::loadString(const char* data, size_t size) {
    VrmlProtoResetBudget();
    g_fetched.clear();
    auto ns = std::make_shared<VrmlNamespace>();
    VrmlMFNode* nodes = readString(data, size, ns.get());
    if (!nodes) return false;
    replaceWorld(*nodes, ns, nullptr, nullptr);
    delete nodes;
    return true;
}

bool VrmlScene::loadFromUrls(const VrmlMFString* urls, const VrmlMFString* parameters) {
    if (!urls) return false;
    for (size_t i = 0; i < urls->size(); ++i) {
        const char* url = (*urls)[i];
        if (!url) continue;
        bool ok;
        if (url[0] == '#') {
            ok = load(url);
        } else {
            // Only the backslash separates folders here, as worlds have always been named.
            const char* slash = std::strrchr(url, '\\');
            std::string part = slash ? slash + 1 : url;
            size_t hash = part.find('#');
            if (hash != std::string::npos) part.erase(hash);
            auto endsWith = [&part](const char* s) {
                size_t n = std::strlen(s);
                return part.size() >= n && part.compare(part.size() - n, n, s) == 0;
            };
            bool world =
                (part.size() > 4 && (endsWith(".wrl") || endsWith(".wrz") || endsWith(".WRL") || endsWith(".WRZ"))) ||
                (part.size() >= 8 && endsWith(".wrl.gz"));
            if (world) ok = load(url);
            else
                ok = theSystem->openInBrowser(url, parameters ? static_cast<int>(parameters->size()) : 0,
                                              parameters ? parameters->get() : nullptr);
        }
        if (ok) return true;
    }
    return false;
}

void VrmlScene::replaceWorld(VrmlMFNode& nodes, std::shared_ptr<VrmlNamespace> ns, Doc* urlDoc, Doc* localDoc) {
    theSystem->debug("replaceWorld( url %s )\n", urlDoc ? urlDoc->url() : "");
    d_inlineLoads = d_inlinesSkipped = 0;
    d_inlineBytes = 0;
    VrmlProtoResetBudget(); // the clone budget is per world
    g_fetched.clear();
    d_root->removeChildren();
    clearWorld();
    d_namespace = std::move(ns);
    d_url.reset(urlDoc);
    d_urlLocal.reset(localDoc);
    const char* base = d_urlLocal ? d_urlLocal->localName().c_str() : d_url ? d_url->localName().c_str() : "";
    d_root->setRelative(base);
    d_root->addChildren(nodes);
    if (d_inlinesSkipped > 1)
        theSystem->warn("%d Inline worlds were not loaded: this world already read %d of them (%llu bytes).\n",
                        d_inlinesSkipped, d_inlineLoads, static_cast<unsigned long long>(d_inlineBytes));
    if (!d_fragmentBound) {
        double now = theSystem->time();
        VrmlSFBool on(true);
        for (auto* list : {&d_Background, &d_Fog, &d_NavigationInfo, &d_Viewpoint})
            if (!list->empty()) list->front()->eventIn(now, "set_bind", &on);
    }
}

bool VrmlScene::takeInlineLoad(const char* url) {
    if (d_inlineLoads < kMaxInlineLoads && d_inlineBytes < kMaxInlineBytes) {
        ++d_inlineLoads;
        return true;
    }
    if (d_inlinesSkipped++ == 0)
        theSystem->warn("Inline '%s' not loaded: this world already read %d Inline worlds (%llu bytes).\n",
                        url ? url : "", d_inlineLoads, static_cast<unsigned long long>(d_inlineBytes));
    return false;
}

VrmlMFNode* VrmlScene::readWRL(Doc* doc, VrmlNamespace* ns, uint64_t* bytesRead) {
    if (!doc) return nullptr;
    theSystem->debug("readWRL %s\n", doc->url());
    FILE* fp = doc->fopen("rb");
    if (!fp) return nullptr;
    auto temp = std::make_shared<VrmlNamespace>();
    VrmlLexer lexer(fp);
    VrmlParser parser(lexer, ns ? ns : temp.get(), doc);
    VrmlMFNode* nodes = parser.parse();
    if (bytesRead) *bytesRead = lexer.inputSize();
    doc->fclose();
    return nodes;
}

VrmlMFNode* VrmlScene::readWRL(const VrmlMFString* urls, const Doc* relative, VrmlNamespace* ns, uint64_t* bytesRead) {
    if (!urls) return nullptr;
    for (size_t i = 0; i < urls->size(); ++i) {
        const char* url = (*urls)[i];
        if (!url) continue;
        Doc doc(url, relative);
        errno = 0;
        VrmlMFNode* nodes = readWRL(&doc, ns, bytesRead);
        if (nodes) return nodes;
        // The last URL's failure is left to the caller to report.
        if (i + 1 < urls->size() && !isUrn(url))
            theSystem->warn("Couldn't read url '%s': %s\n", url, std::strerror(errno ? errno : ENOENT));
    }
    return nullptr;
}

VrmlMFNode* VrmlScene::readString(const char* data, size_t size, VrmlNamespace* ns, const Doc* base) {
    auto temp = std::make_shared<VrmlNamespace>();
    VrmlLexer lexer(data, size);
    VrmlParser parser(lexer, ns ? ns : temp.get(), base);
    return parser.parse();
}

VrmlNodeType* VrmlScene::readPROTO(const VrmlMFString* urls, const Doc* relative) {
    theSystem->debug("readPROTO\n");
    if (!urls) return nullptr;
    for (size_t i = 0; i < urls->size(); ++i) {
        const char* url = (*urls)[i];
        if (!url) continue;
        Doc doc(url, relative);
        VrmlNodeType* found = nullptr;
        errno = 0;
        const std::string& file = doc.localName();
        if (!file.empty() && !g_fetching.count(file) && g_fetching.size() < kMaxFetchDepth) {
            const bool fromWorld = g_fetching.empty();
            auto cached = fromWorld ? g_fetched.find(file) : g_fetched.end();
            const bool hit = cached != g_fetched.end();
            const int hitErr = hit ? cached->second.err : 0;
            std::shared_ptr<VrmlNamespace> ns;
            if (hit) {
                ns = cached->second.ns;
            } else {
                ns = std::make_shared<VrmlNamespace>();
                g_fetching.insert(file);
                VrmlMFNode* nodes = readWRL(&doc, ns.get());
                delete nodes;
            }
            std::string fragment = doc.fragment();
            found = fragment.size() > 1 ? ns->findOwnType(fragment.c_str() + 1) : ns->firstType();
            if (found) {
                found->setActualUrl(doc.url());
                found->reference();
                // An EXTERNPROTO pointing further is resolved while this file is
                // still marked, so a chain back to it fails instead of looping.
                found->bodyNodes();
            }
            if (hit) {
                errno = hitErr;
            } else {
                g_fetching.erase(file);
                if (fromWorld) g_fetched[file] = {ns, errno};
            }
        }
        if (found) return found;
        if (i + 1 < urls->size() && !isUrn(url))
            theSystem->warn("Couldn't read EXTERNPROTO url '%s': %s\n", url, std::strerror(errno ? errno : ENOENT));
    }
    return nullptr;
}

bool VrmlScene::save(const char* url) {
    Doc doc(url, nullptr);
    std::ostream* os = doc.outputStream();
    if (!os || !os->good()) return false;
    return save(*os);
}

namespace {
// Passes at most `left` bytes on to `out`, then fails every write.
class CappedBuffer : public std::streambuf {
public:
    CappedBuffer(std::streambuf* out, uint64_t left) : d_out(out), d_left(left) {}
    bool cut() const { return d_cut; }

protected:
    int overflow(int c) override {
        if (c == traits_type::eof()) return traits_type::not_eof(c);
        char ch = static_cast<char>(c);
        return xsputn(&ch, 1) == 1 ? c : traits_type::eof();
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        if (d_cut || static_cast<uint64_t>(n) > d_left) {
            d_cut = true;
            return 0;
        }
        d_left -= static_cast<uint64_t>(n);
        return d_out->sputn(s, n);
    }
    int sync() override { return d_out->pubsync(); }

private:
    std::streambuf* d_out;
    uint64_t d_left;
    bool d_cut = false;
};
} // namespace

bool VrmlScene::save(std::ostream& os, uint64_t maxBytes, size_t maxNodes) {
    if (!os.rdbuf()) return false;
    CappedBuffer buffer(os.rdbuf(), maxBytes);
    std::ostream capped(&buffer);
    capped << "#VRML V2.0 utf8\n";
    // The root group is written as a Group node of its own (the file reads back
    // one level deeper); PROTO declarations and ROUTEs are not written.
    VrmlPrintLimit(maxNodes);
    d_root->print(capped, 0);
    bool cut = VrmlPrintWasCut() || buffer.cut();
    VrmlPrintLimit(SIZE_MAX);
    capped.flush();
    if (cut) {
        theSystem->error("VrmlScene::save: the world prints as more than %zu nodes or %llu bytes; not written.\n",
                         maxNodes, static_cast<unsigned long long>(maxBytes));
        return false;
    }
    return capped.good() && os.good();
}

void VrmlScene::update(double time) {
    std::vector<VrmlNode*> sensors = d_TimeSensor;
    for (VrmlNode* n : sensors) {
        if (!n->scene()) {
            theSystem->error("VrmlScene::update: %s::%s is not in the scene graph yet.\n", n->type()->getName(),
                             n->name());
            continue;
        }
        if (auto* ts = n->asTimeSensor()) ts->update(time);
    }
}

void VrmlScene::addTo(std::vector<VrmlNode*>& l, VrmlNode* n) {
    if (d_listed.emplace(&l, n).second) l.push_back(n);
}

void VrmlScene::removeFrom(std::vector<VrmlNode*>& l, VrmlNode* n) {
    d_listed.erase({&l, n});
    auto it = std::find(l.begin(), l.end(), n);
    if (it != l.end()) l.erase(it);
}

void VrmlScene::addToLists(VrmlNode* n) {
    n->d_registered = true;
    if (n->asBackground()) addBackground(n);
    else if (n->asFog()) addFog(n);
    else if (n->asNavigationInfo()) addNavigationInfo(n);
    else if (n->asViewpoint()) addViewpoint(n);
    else if (n->asAudioClip()) addAudioClip(n);
    else if (n->asLight()) addScopedLight(n);
    else if (n->asMovieTexture()) addMovieTexture(n);
    else if (n->asScript()) addScript(n);
    else if (n->asTimeSensor()) addTimeSensor(n);
    else n->d_registered = false;
}

void VrmlScene::removeFromLists(VrmlNode* n) {
    for (auto* list :
         {&d_Background, &d_BackgroundStack, &d_Fog, &d_FogStack, &d_NavigationInfo, &d_NavigationInfoStack,
          &d_Viewpoint, &d_ViewpointStack, &d_AudioClip, &d_ScopedLight, &d_MovieTexture, &d_Script, &d_TimeSensor})
        removeFrom(*list, n);
    n->d_registered = false;
}

void VrmlScene::bind(std::vector<VrmlNode*>& stack, VrmlNode* n, bool on, double time) {
    VrmlNode* oldTop = top(stack);
    if (on) {
        if (oldTop == n) return;
        removeFrom(stack, n);
        stack.push_back(n);
        if (oldTop) setBound(oldTop, false, time);
        setBound(n, true, time);
    } else {
        bool wasTop = oldTop == n;
        removeFrom(stack, n);
        setBound(n, false, time);
        if (wasTop && top(stack)) setBound(top(stack), true, time);
    }
}
