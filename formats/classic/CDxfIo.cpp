#include "formats/classic/CDxfIo.h"

#include <new>

CDxfIo::CDxfIo(CFileIo& io) : C3DParser(io) {}
CDxfIo::~CDxfIo() {}
