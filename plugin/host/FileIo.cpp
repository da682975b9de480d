#include "plugin/host/FileIo.h"

#include "plugin/host/Options.h"

namespace {
const wchar_t* ResultText(int result) {
    switch (result) {
    case -1: return L"the file cannot be opened";
    case -3: return L"the file is not of this format or is damaged";
    case -8: return L"there is nothing to write";
    case -10: return L"the file holds nothing that can be loaded";
    case -11: return L"cancelled";
    case IO_ERR_NOT_AVAILABLE: return L"this format is not available yet";
    default: return L"input/output error";
    }
}
} // namespace

void CFileIo::SetIoError(int result, CIoOptions* options, int level) {
    m_result = result;
    m_level = level;
    if (options) options->AddLogInfo(level, ResultText(result));
}

void CFileIo::SetIoError(const CXStringW& text, CIoOptions* options, int level) {
    // A message alone is not a failure code: readers use it for warnings too.
    m_text = text;
    m_level = level;
    if (options) options->AddLogInfo(level, text);
}
