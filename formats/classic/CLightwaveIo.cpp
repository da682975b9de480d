#include "formats/classic/CLightwaveIo.h"

#include <new>

CLightwaveIo::CLightwaveIo(CFileIo& io) : C3DParser(io) {}
CLightwaveIo::~CLightwaveIo() {}
