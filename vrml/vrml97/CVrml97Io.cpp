#include "vrml/vrml97/CVrml97Io.h"

#include <new>

CVrml97Io::CVrml97Io(CFileIo& io) : C3DParser(io) {}
CVrml97Io::~CVrml97Io() {}
