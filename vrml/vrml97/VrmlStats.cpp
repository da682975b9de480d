// Node census of a world for the command-line tools and tests.
#include "vrml/vrml97/VrmlStats.h"

#include <unordered_set>
#include <vector>

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
