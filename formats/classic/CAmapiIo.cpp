#include "formats/classic/CAmapiIo.h"

#include <new>

CAmapiIo::CAmapiIo(CFileIo& io) : C3DParser(io) {}
CAmapiIo::~CAmapiIo() {}
