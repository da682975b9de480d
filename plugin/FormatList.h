#pragma once
// The module's formats, one row each, in the order the host lists them. This is the
// only list: the records handed to the host and the content probes (FormatTable.cpp),
// parser creation and memory reads (ParserFactory.cpp), the fuzzers, the tests and the
// CLI's format guessing all expand or walk it.
// Columns: parser class, type ID, description, extensions, flags, content probe (or
// nullptr for a format that is only written).
#include "plugin/host/HostTypes.h"

inline constexpr uint32_t FORMAT_READS = FORMAT_EVERY_RECORD | FORMAT_READ;
inline constexpr uint32_t FORMAT_WRITES = FORMAT_EVERY_RECORD | FORMAT_WRITE;
inline constexpr uint32_t FORMAT_READS_WRITES = FORMAT_READS | FORMAT_WRITES;

// clang-format off
#define ORBISCOPE_FORMATS(X)                                                                                  \
    X(C3DStudioIo,       "3DST", "3D Studio files",         ".3ds",                   FORMAT_READS_WRITES, Probe3ds)  \
    X(CLightwaveIo,      "LIGT", "Lightwave Object files",  ".lwo|.lwb|.lw|.lwm",     FORMAT_READS_WRITES, ProbeLwo)  \
    X(CLightwaveSceneIo, "LIGS", "Lightwave Scene files",   ".lws",                   FORMAT_READS,        ProbeLws)  \
    X(CAmapiIo,          "AMAP", "Amapi files",             ".a3d",                   FORMAT_READS,        ProbeAmapi) \
    X(CMayaAsciiIo,      "MYAS", "Maya ASCII files",        ".ma",                    FORMAT_WRITES,       nullptr)   \
    X(CDxfIo,            "DXF4", "Dxf 14 files",            ".dxf",                   FORMAT_READS_WRITES, ProbeDxf)  \
    X(CWavefrontIo,      "WAVF", "Wavefront files",         ".obj",                   FORMAT_READS_WRITES, ProbeObj)  \
    X(CTruespaceIo,      "TRUE", "Truespace files",         ".cob|.scn",              FORMAT_READS_WRITES, ProbeCob)  \
    X(CVrmlIo,           "VRML", "VRML files",              ".wrl|.iv",               FORMAT_READS_WRITES, ProbeVrml1) \
    X(CVrml97Io,         "VR97", "VRML97 files",            ".wrl|.wrl97|.wrz|.vrml", FORMAT_READS | FORMAT_SHARED_EXTENSION, ProbeVrml97) \
    X(CStlIo,            "STL ", "STL files",               ".stl",                   FORMAT_READS_WRITES, ProbeStl)  \
    X(CPlyIo,            "PLYY", "PLY files",               ".ply",                   FORMAT_WRITES,       nullptr)   \
    X(CKmzIo,            "KMZI", "KMZ files",               ".kmz",                   FORMAT_READS,        ProbeKmz)  \
    X(CLxoIo,            "LXOI", "Luxology Modo files",     ".lxo",                   FORMAT_READS_WRITES, ProbeLxo)
// clang-format on
