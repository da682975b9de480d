#include "formats/kmz/CKmzIo.h"

#include <new>

CKmzIo::CKmzIo(CFileIo& io) : C3DParser(io) {}
CKmzIo::~CKmzIo() {}
