#pragma once
// IoFile: the host's file object. Reads map the whole file (or wrap a memory
// buffer) and serve every read from memory; writes go through a 1 MiB buffer.
// Big-endian formats use the Reverse calls. Text lines are decoded per text mode
// (see IOFILE_TEXT_MODE in HostTypes.h). Progress (bytes done / total) is visible
// to the host through the thread's progress sink (Cancel.h).
#include <cstdint>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "plugin/host/HostTypes.h"
#include "plugin/host/XString.h"

// The last failure of a file opened for writing through IoFile on this thread: the
// system's error number (0 when none since the last clear) and whether the open failed
// (else a write or the close did). Writers report such failures as "cannot open"; the
// host reads this to say what really happened ("No space left on device").
struct IoWriteFailure {
    int error = 0;
    bool atOpen = false;
};
IoWriteFailure IoFileLastWriteFailure();
void IoFileClearWriteFailure();

class IoFile {
public:
    explicit IoFile(bool silent = true);
    IoFile(bool silent, int textMode);
    ~IoFile();
    IoFile(const IoFile&) = delete;
    IoFile& operator=(const IoFile&) = delete;

    // Opens `path` for reading (whole file mapped) or for writing (created/truncated).
    // On failure returns false and, when given, fills `error` with the system's reason.
    bool OpenFile(const CXStringW& path, bool forReading, std::string* error = nullptr);
    bool OpenFile(const std::string& utf8Path, bool forReading, std::string* error = nullptr);
    // Writes into a file that must already exist (a temporary name made beforehand): a
    // clean-up that removed the name in between is not undone by creating it again.
    bool RewriteFile(const CXStringW& path, std::string* error = nullptr);
    // Reads from caller-owned memory (kept alive by the caller until CloseFile).
    bool OpenMemory(const void* data, size_t size);
    // Flushes and closes; false when a buffered write failed.
    bool CloseFile();
    bool IsOpen() const { return m_open; }
    bool IsSilent() const { return m_silent; }
    int GetTextMode() const { return m_textMode; }
    void SetTextMode(int m) { m_textMode = m; }

    bool FileRead(void* buffer, size_t bytes);
    // Reads `bytes` and reverses their order (one big-endian value).
    bool FileReverseRead(void* buffer, size_t bytes);
    bool FileWrite(const void* buffer, size_t bytes);
    bool FileReverseWrite(const void* buffer, size_t bytes);
    // from: 0 start, 1 current, 2 end. False when the result is outside the file (reads).
    bool FileSeek(int64_t offset, int from);
    int64_t FileGetPosition() const;
    int64_t FileGetLength() const;
    bool IsEOF() const { return m_pos >= m_size; }
    // The whole readable content (no copy); empty when not open for reading.
    std::span<const uint8_t> GetData() const { return {m_data, static_cast<size_t>(m_size)}; }
    // Marks `pos` as done for progress reporting (readers that parse GetData() directly).
    void ReportProgress(int64_t pos) const;
    // Hint from readers that parse GetData() directly: bytes before `pos` will not be read
    // again soon. A mapped file gives those pages back (they stay in the page cache and
    // come back on the next access); memory buffers and copies are left alone.
    void ReleaseBefore(int64_t pos) const;

    // Next text line without its line end (LF, CRLF or lone CR), decoded per text mode.
    // False at end of file. TEXT_MODE_BINARY decodes like TEXT_MODE_ANSI (lossless, one
    // character per byte); UTF-8 and AUTO skip a UTF-8 BOM at the start of the file.
    bool ReadString(CXStringW& line);
    // The next raw line as bytes (no decoding, no BOM skipping, no copy); valid until the
    // file is closed.
    bool ReadLine(std::string_view& line);

    // Text writes: wide strings are written as UTF-8 (ANSI mode: Latin-1, '?' beyond).
    bool WriteString(const CXStringW& s);
    bool WriteString(std::string_view s);
    // Binary little-endian scalar writes.
    bool WriteInt(int32_t v) { return FileWrite(&v, 4); }
    bool WriteUInt(uint32_t v) { return FileWrite(&v, 4); }
    bool WriteFloat(float v) { return FileWrite(&v, 4); }
    bool WriteUChar(uint8_t v) { return FileWrite(&v, 1); }
    bool WriteUShort(uint16_t v) { return FileWrite(&v, 2); }
    bool HasWriteError() const { return m_writeError; }
    // The system's error number of the failed write or close (0 when none).
    int GetWriteErrno() const { return m_writeErrno; }

private:
    bool OpenForWriting(const std::string& utf8Path, int flags, std::string* error);
    bool FlushWrite();
    void NoteWriteError(int err);
    bool m_silent;
    int m_textMode = TEXT_MODE_BINARY;
    bool m_open = false;
    bool m_writing = false;
    bool m_writeError = false;
    int m_writeErrno = 0;
    bool m_mapped = false;
    bool m_bomChecked = false;
    int m_encoding = 0; // resolved text encoding for reads: 0 utf8, 1 latin1, 2 utf16le, 3 utf16be
    const uint8_t* m_data = nullptr;
    int64_t m_size = 0;
    int64_t m_pos = 0;
    std::vector<uint8_t> m_owned; // fallback when mapping fails
    int m_fd = -1;
    std::vector<uint8_t> m_wbuf;
    int64_t m_written = 0;
    std::string m_decodeScratch;
    mutable int64_t m_nextReport = 0; // next position at which progress is reported
    mutable int64_t m_releasedTo = 0; // mapped bytes before this were given back (ReleaseBefore)
    const char* m_nextLf = nullptr;   // line splitting cache (textscan::FindLineEnd)
    bool m_utf8Valid = true;          // TEXT_MODE_AUTO without BOM: whole content is UTF-8
};
