#include "vrml/vrml1/CVrmlIo.h"

#include <new>

CVrmlIo::CVrmlIo(CFileIo& io) : C3DParser(io) {
    m_aux = new (std::nothrow) Aux();
}
CVrmlIo::~CVrmlIo() { delete m_aux; }
