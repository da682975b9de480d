#include "formats/mesh/CMayaAsciiIo.h"

#include <new>

CMayaAsciiIo::CMayaAsciiIo(CFileIo& io) : C3DParser(io) {}
CMayaAsciiIo::~CMayaAsciiIo() {}
