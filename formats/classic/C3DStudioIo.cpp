#include "formats/classic/C3DStudioIo.h"

#include <new>

C3DStudioIo::C3DStudioIo(CFileIo& io) : C3DParser(io) {}
C3DStudioIo::~C3DStudioIo() {}
