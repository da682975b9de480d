#include "formats/classic/CLightwaveSceneIo.h"

#include <new>

CLightwaveSceneIo::CLightwaveSceneIo(CFileIo& io) : C3DParser(io) {}
CLightwaveSceneIo::~CLightwaveSceneIo() {}
