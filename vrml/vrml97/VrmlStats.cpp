// Node census of a world and gzip input for the command-line tools and tests.
#include "vrml/vrml97/VrmlStats.h"

#include <cstdio>
#include <unordered_set>
#include <vector>
#include <zlib.h>

#include "vrml/vrml97/VrmlNode.h"
#include "vrml/vrml97/VrmlNodeType.h"

size_t VrmlCountNodes(const VrmlMFNode& roots, std::map<std::string, size_t>& counts) {
    std::unordered_set<VrmlNode*> seen;
    std::vector<VrmlNode*> stack;
    for (size_t i = 0; i < roots.size(); ++i)
        if (roots[i]) stack.push_back(roots[i]);
    // Iterative, so deep worlds cannot exhaust the call stack.
    while (!stack.empty()) {
        VrmlNode* n = stack.back();
        stack.pop_back();
        if (!seen.insert(n).second) continue;
        ++counts[n->type()->getName()];
        n->visitChildren([&stack](VrmlNode* c) {
            if (c) stack.push_back(c);
        });
    }
    return seen.size();
}

bool VrmlIsGzipFile(const char* path) {
    FILE* f = std::fopen(path, "rb");
    if (!f) return false;
    unsigned char m[2] = {0, 0};
    size_t n = std::fread(m, 1, 2, f);
    std::fclose(f);
    return n == 2 && m[0] == 0x1f && m[1] == 0x8b;
}

bool VrmlGunzipFile(const char* path, std::string& out, size_t limit) {
    gzFile gz = gzopen(path, "rb");
    if (!gz) return false;
    out.clear();
    char buf[65536];
    for (;;) {
        int n = gzread(gz, buf, sizeof buf);
        if (n < 0) {
            gzclose(gz);
            return false;
        }
        if (n == 0) break;
        if (out.size() + static_cast<size_t>(n) > limit) break;
        out.append(buf, static_cast<size_t>(n));
    }
    gzclose(gz);
    return true;
}
