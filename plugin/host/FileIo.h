#pragma once
// CFileIo: the host's record of one file request (the file being read or
// written). Parsers report their outcome through SetIoError.
#include <cstdint>

#include "plugin/host/CustomData.h"
#include "plugin/host/XString.h"

class CIoOptions;

// Result recorded by the base Read/Save of a parser whose format is not built.
constexpr int IO_ERR_NOT_AVAILABLE = -20;

class CFileIo {
public:
    CFileIo() = default;
    explicit CFileIo(const CXStringW& path) : m_path(path) {}
    virtual ~CFileIo() = default;

    // Records a result code (negative IO_FILE_RESULT) at `level`; also logged into `options`.
    void SetIoError(int result, CIoOptions* options, int level);
    // Records a message text at `level`.
    void SetIoError(const CXStringW& text, CIoOptions* options, int level);
    int GetIoError() const { return m_result; }
    int GetIoErrorLevel() const { return m_level; }
    const CXStringW& GetIoErrorText() const { return m_text; }
    void ClearIoError() {
        m_result = 0;
        m_level = 0;
        m_text.Empty();
    }

    void SetSilentMode(bool s) { m_silent = s; }
    bool IsSilentMode() const { return m_silent; }
    void* GetParentWnd() const { return nullptr; }
    CCustomData& GetCustomData() { return m_custom; }
    uint32_t GetClass() const { return m_class; }
    void SetClass(uint32_t c) { m_class = c; }
    const CXStringW& GetPath() const { return m_path; }
    void SetPath(const CXStringW& p) { m_path = p; }

private:
    CXStringW m_path;
    CXStringW m_text;
    int m_result = 0;
    int m_level = 0;
    bool m_silent = true;
    uint32_t m_class = 0;
    CCustomData m_custom;
};
