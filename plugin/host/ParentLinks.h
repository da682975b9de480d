#pragma once
// Parent links read from a file (index of the parent, -1 for none) made safe to build a
// tree from: a link that closes a cycle is cut where the walk meets it again, and a node
// deeper than `maxDepth` is moved to the top. Linear in the number of nodes.
#include <cstddef>
#include <cstdint>
#include <vector>

void CutParentCycles(std::vector<int64_t>& parent, int maxDepth);
