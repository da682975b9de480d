#include "formats/lxo/CLxoIo.h"

#include <new>

CLxoIo::CLxoIo(CFileIo& io) : C3DParser(io) {}
CLxoIo::~CLxoIo() {}
