#include "formats/mesh/CStlIo.h"

#include <new>

CStlIo::CStlIo(CFileIo& io) : C3DParser(io) {}
CStlIo::~CStlIo() {}
