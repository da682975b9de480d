#include "plugin/host/ParentLinks.h"

void CutParentCycles(std::vector<int64_t>& parent, int maxDepth) {
    const size_t n = parent.size();
    // 0 unvisited, 1 on the current walk, 2 done; depth of done nodes.
    std::vector<uint8_t> state(n, 0);
    std::vector<int> depth(n, 0);
    std::vector<size_t> walk;
    for (size_t i = 0; i < n; ++i) {
        if (state[i]) continue;
        walk.clear();
        size_t j = i;
        while (state[j] == 0) {
            state[j] = 1;
            walk.push_back(j);
            if (parent[j] < 0) break;
            const size_t p = static_cast<size_t>(parent[j]);
            if (state[p] == 1) { // closes a cycle: cut it here
                parent[j] = -1;
                break;
            }
            j = p;
        }
        for (size_t k = walk.size(); k-- > 0;) {
            const size_t w = walk[k];
            int d = parent[w] < 0 ? 0 : depth[static_cast<size_t>(parent[w])] + 1;
            if (d > maxDepth) {
                parent[w] = -1;
                d = 0;
            }
            depth[w] = d;
            state[w] = 2;
        }
    }
}
