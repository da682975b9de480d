#include "formats/classic/CTruespaceIo.h"

#include <new>

CTruespaceIo::CTruespaceIo(CFileIo& io) : C3DParser(io) {}
CTruespaceIo::~CTruespaceIo() {}
