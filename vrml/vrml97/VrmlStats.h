#pragma once
// Counting the nodes of a world by type name (each shared node once).
#include <cstddef>
#include <map>
#include <string>

class VrmlNode;
class VrmlMFNode;

// Adds every node reachable from the list (PROTO clones included) to counts.
size_t VrmlCountNodes(const VrmlMFNode& roots, std::map<std::string, size_t>& counts);
