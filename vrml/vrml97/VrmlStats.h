#pragma once
// Counting the nodes of a world by type name (each shared node once), and
// reading a gzip-compressed world into memory for the tools.
#include <cstddef>
#include <map>
#include <string>

class VrmlNode;
class VrmlMFNode;

// Adds every node reachable from the list (PROTO clones included) to counts.
size_t VrmlCountNodes(const VrmlMFNode& roots, std::map<std::string, size_t>& counts);

// True when the file starts with the gzip magic bytes.
bool VrmlIsGzipFile(const char* path);
// Inflates a gzip file; false when it cannot be read. Output is capped at limit bytes.
bool VrmlGunzipFile(const char* path, std::string& out, size_t limit = size_t{1} << 31);
