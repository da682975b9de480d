#include "formats/mesh/CPlyIo.h"

#include <new>

CPlyIo::CPlyIo(CFileIo& io) : C3DParser(io) {}
CPlyIo::~CPlyIo() {}
