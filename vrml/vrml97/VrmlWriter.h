#pragma once
// Writing a world back as VRML97 text: PROTO and EXTERNPROTO declarations of a
// namespace (with their IS mappings and body ROUTEs), the nodes, then the ROUTEs.
#include <iosfwd>

class VrmlMFNode;
class VrmlNamespace;
class VrmlNode;

void VrmlWriteWorld(std::ostream& os, const VrmlNamespace* ns, const VrmlMFNode& nodes);

// Hooks for node printing while a world is written.
void VrmlPrintEventIS(std::ostream& os, int indent, const VrmlNode* node);
void VrmlPrintNoteRoutes(const VrmlNode* node);
// A value of the type that reads back as empty (for values that failed to read).
void VrmlWriteEmptyValue(std::ostream& os, int type);
