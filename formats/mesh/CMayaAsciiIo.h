#pragma once
// Maya ASCII 2.0, written only: every polygon object becomes a "mesh" node with
// vertices, an edge list and faces as signed edge references (a complement when
// the face runs along an edge backwards); line objects become degree-1 curves.
// The parser's one word of state is the current indentation depth.
#include <cstdint>

#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XArray.h"
#include "plugin/host/XString.h"

namespace meshio {
class COutText;
}

class CMayaAsciiIo : public C3DParser {
public:
    explicit CMayaAsciiIo(CFileIo& io);
    ~CMayaAsciiIo() override;

    void SaveDefaultOptions(CSceneExportOptions& options) const override;
    bool Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) override;

private:
    void WriteCurve(meshio::COutText& out, const CXStringW& name, const C3DGeomObject& obj);
    void WriteMesh(meshio::COutText& out, const CXStringW& name, C3DGeomObject& obj);
    void Line(meshio::COutText& out); // starts a line at the current depth

    int32_t m_state = 0;
};
