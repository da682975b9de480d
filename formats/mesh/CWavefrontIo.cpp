#include "formats/mesh/CWavefrontIo.h"

#include <new>

CWavefrontIo::CWavefrontIo(CFileIo& io) : C3DParser(io) {}
CWavefrontIo::~CWavefrontIo() {}
