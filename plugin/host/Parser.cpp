#include "plugin/host/Parser.h"

#include "plugin/host/Cancel.h"
#include "plugin/host/HostTypes.h"
#include "plugin/host/Scene.h"

CFileParser::~CFileParser() = default;

bool CFileParser::ShouldCancelParser() const { return false; }

bool CFileParser::IsCancelled() const { return ShouldCancelParser() || ShouldCancelThread(0); }

C3DParser::~C3DParser() = default;

void C3DParser::LoadDefaultOptions(CSceneImportOptions&) const {}
bool C3DParser::LoadOptionsDialog(CSceneImportOptions&) { return true; }
CXStringW C3DParser::GetLoadParametersInfo(CSceneImportOptions&) { return {}; }

C3DScene* C3DParser::Read(const CXStringW&, CSceneImportOptions& options) {
    m_fileIo.SetIoError(IO_ERR_NOT_AVAILABLE, &options, LOG_ERROR);
    return nullptr;
}

void C3DParser::SaveDefaultOptions(CSceneExportOptions&) const {}

bool C3DParser::CheckSaveOptions(C3DScene* scene, CSceneExportOptions&) const {
    return scene && scene->GetChildCount(nullptr, KINDOF_EXPORTABLE) > 0;
}

bool C3DParser::SaveOptionsDialog(CSceneExportOptions&) { return true; }
CXStringW C3DParser::GetSaveParametersInfo(CSceneExportOptions&) { return {}; }

bool C3DParser::Save(const CXStringW&, C3DScene*, CSceneExportOptions& options) {
    m_fileIo.SetIoError(IO_ERR_NOT_AVAILABLE, &options, LOG_ERROR);
    return false;
}

bool C3DParser::CanUpdate(unsigned int, void*) const { return false; }

bool C3DParser::Update(const CXStringW&, C3DScene*, void*, CSceneExportOptions& options) {
    m_fileIo.SetIoError(IO_ERR_NOT_AVAILABLE, &options, LOG_ERROR);
    return false;
}

bool C3DParser::ReleaseParser(bool, void*) {
    delete this;
    return true;
}
