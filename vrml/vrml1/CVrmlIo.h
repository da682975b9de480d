#pragma once
// VRML 1.0 parser: not built yet; keeps the base Read/Save, which report that the
// format is not available.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

class CVrmlIo : public C3DParser {
public:
    explicit CVrmlIo(CFileIo& io);
    ~CVrmlIo() override;

private:
    CXStringW m_path;
    CHashMap<unsigned, int> m_indexMap{23};
    CStack<C3DSceneNode*> m_nodeStack{5};
    uint32_t m_state0 = 0;
    uint32_t m_state1 = 1;
    struct Aux { uint64_t a = 0, b = 0; };
    Aux* m_aux = nullptr;
};
