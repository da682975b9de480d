// IoFile: reads serve everything from one mapping of the file (or a copy read with
// read() when mapping is impossible, or caller memory); writes collect in a 1 MiB
// buffer. No system call per element either way.
#include "plugin/host/IoFile.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "plugin/host/Cancel.h"
#include "plugin/host/TextHelpers.h"
#include "plugin/host/TextScanner.h"

namespace {
constexpr size_t kWriteBuffer = 1u << 20;
constexpr size_t kDirectWrite = 1u << 16; // pieces this large bypass the write buffer
constexpr int64_t kReportStep = 1 << 20;
// Pipes and devices are read into memory; this bounds what they may cost.
constexpr size_t kMaxStreamBytes = size_t(4) << 30;

enum Encoding { ENC_UTF8 = 0, ENC_LATIN1 = 1, ENC_UTF16LE = 2, ENC_UTF16BE = 3 };

// The whole range to the file, resuming after short writes and EINTR.
bool WriteAll(int fd, const uint8_t* p, size_t n, int64_t& written) {
    while (n > 0) {
        const ssize_t w = ::write(fd, p, n);
        if (w < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (w == 0) { // nothing taken and no reason given: do not spin
            errno = EIO;
            return false;
        }
        p += w;
        n -= static_cast<size_t>(w);
        written += w;
    }
    return true;
}

void SetError(std::string* error, int err) {
    if (error) *error = std::generic_category().message(err);
}

thread_local IoWriteFailure t_writeFailure;

bool ReadAllFd(int fd, std::vector<uint8_t>& out, size_t expect) {
    out.clear();
    out.resize(expect ? expect : 65536);
    size_t got = 0;
    for (;;) {
        if (got == out.size()) {
            if (out.size() >= kMaxStreamBytes) return false;
            out.resize(std::min(out.size() * 2, kMaxStreamBytes));
        }
        ssize_t r = ::read(fd, out.data() + got, out.size() - got);
        if (r < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (r == 0) break;
        got += static_cast<size_t>(r);
    }
    out.resize(got);
    return true;
}

} // namespace

IoWriteFailure IoFileLastWriteFailure() { return t_writeFailure; }
void IoFileClearWriteFailure() { t_writeFailure = IoWriteFailure(); }

IoFile::IoFile(bool silent) : m_silent(silent) {}

void IoFile::NoteWriteError(int err) {
    m_writeError = true;
    if (m_writeErrno == 0) {
        m_writeErrno = err ? err : EIO;
        t_writeFailure = {m_writeErrno, false};
    }
}

IoFile::IoFile(bool silent, int textMode) : m_silent(silent), m_textMode(textMode) {}

IoFile::~IoFile() { CloseFile(); }

bool IoFile::OpenFile(const CXStringW& path, bool forReading, std::string* error) {
    return OpenFile(WideToUtf8(path.view()), forReading, error);
}

bool IoFile::RewriteFile(const CXStringW& path, std::string* error) {
    return OpenForWriting(WideToUtf8(path.view()), O_WRONLY | O_TRUNC | O_CLOEXEC, error);
}

bool IoFile::OpenForWriting(const std::string& utf8Path, int flags, std::string* error) {
    CloseFile();
    m_writeError = false;
    m_writeErrno = 0;
    if (utf8Path.empty() || utf8Path.find('\0') != std::string::npos) {
        SetError(error, ENOENT);
        return false;
    }
    int fd = ::open(utf8Path.c_str(), flags, 0666);
    if (fd < 0) {
        t_writeFailure = {errno, true};
        SetError(error, errno);
        return false;
    }
    m_fd = fd;
    m_open = true;
    m_writing = true;
    m_written = 0;
    m_wbuf.clear();
    m_wbuf.reserve(kWriteBuffer);
    return true;
}

bool IoFile::OpenFile(const std::string& utf8Path, bool forReading, std::string* error) {
    if (!forReading) return OpenForWriting(utf8Path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, error);
    CloseFile();
    m_writeError = false;
    m_writeErrno = 0;
    if (utf8Path.empty() || utf8Path.find('\0') != std::string::npos) {
        SetError(error, ENOENT);
        return false;
    }
    int fd = ::open(utf8Path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        SetError(error, errno);
        return false;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        int e = errno;
        ::close(fd);
        SetError(error, e);
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        ::close(fd);
        SetError(error, EISDIR);
        return false;
    }
    bool ok = true;
    if (S_ISREG(st.st_mode)) {
        size_t size = static_cast<size_t>(st.st_size);
        if (size > 0) {
            // A file truncated by someone else while mapped would fault; we accept
            // that for the speed of reading straight from the page cache.
            void* map = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
            if (map != MAP_FAILED) {
                madvise(map, size, MADV_SEQUENTIAL);
                m_data = static_cast<const uint8_t*>(map);
                m_size = static_cast<int64_t>(size);
                m_mapped = true;
            } else {
                ok = ReadAllFd(fd, m_owned, size);
            }
        }
    } else {
        ok = ReadAllFd(fd, m_owned, 0);
    }
    int readErr = errno;
    ::close(fd);
    if (!ok) {
        m_owned.clear();
        m_owned.shrink_to_fit();
        SetError(error, readErr ? readErr : EFBIG);
        return false;
    }
    if (!m_mapped) {
        m_data = m_owned.data();
        m_size = static_cast<int64_t>(m_owned.size());
    }
    m_open = true;
    m_writing = false;
    m_pos = 0;
    m_nextReport = 0;
    m_releasedTo = 0;
    return true;
}

bool IoFile::OpenMemory(const void* data, size_t size) {
    CloseFile();
    m_writeError = false;
    m_data = static_cast<const uint8_t*>(data);
    m_size = data ? static_cast<int64_t>(size) : 0;
    m_open = true;
    m_writing = false;
    m_pos = 0;
    m_nextReport = 0;
    m_releasedTo = 0;
    return true;
}

bool IoFile::CloseFile() {
    if (!m_open) return true;
    bool ok = true;
    if (m_writing) {
        ok = FlushWrite();
        // Some file systems report a full disk or a lost connection only here.
        if (::close(m_fd) != 0) {
            NoteWriteError(errno);
            ok = false;
        }
        m_fd = -1;
        m_wbuf.clear();
        m_wbuf.shrink_to_fit();
        ok = ok && !m_writeError;
    } else {
        if (m_size > 0 && m_pos >= m_size) ReportThreadProgress(m_size, m_size);
        if (m_mapped) munmap(const_cast<uint8_t*>(m_data), static_cast<size_t>(m_size));
        m_owned.clear();
        m_owned.shrink_to_fit();
    }
    m_open = false;
    m_writing = false;
    m_mapped = false;
    m_data = nullptr;
    m_size = 0;
    m_pos = 0;
    m_written = 0;
    m_bomChecked = false;
    m_encoding = ENC_UTF8;
    m_nextLf = nullptr;
    m_utf8Valid = true;
    return ok;
}

void IoFile::ReleaseBefore(int64_t pos) const {
    if (!m_mapped || pos <= 0) return;
    const int64_t page = sysconf(_SC_PAGESIZE);
    const int64_t end = std::min(pos, m_size) / page * page;
    // Only the stretch not given back yet: walking the whole prefix each time would make
    // a read that releases as it goes quadratic in page-table work.
    if (end > m_releasedTo) {
        madvise(const_cast<uint8_t*>(m_data) + m_releasedTo, static_cast<size_t>(end - m_releasedTo), MADV_DONTNEED);
        m_releasedTo = end;
    } else if (end < m_releasedTo) {
        m_releasedTo = end; // a new pass from the start: pages behind it were touched again
        if (end > 0) madvise(const_cast<uint8_t*>(m_data), static_cast<size_t>(end), MADV_DONTNEED);
    }
}

void IoFile::ReportProgress(int64_t pos) const {
    if (pos >= m_nextReport || pos >= m_size) {
        ReportThreadProgress(pos, m_size);
        m_nextReport = pos + kReportStep;
    }
}

bool IoFile::FileRead(void* buffer, size_t bytes) {
    if (!m_open || m_writing) return false;
    size_t left = static_cast<size_t>(m_size - m_pos);
    size_t n = std::min(bytes, left);
    if (n) std::memcpy(buffer, m_data + m_pos, n);
    // A short read leaves no uninitialised bytes behind for the caller to trip on.
    if (n < bytes) std::memset(static_cast<uint8_t*>(buffer) + n, 0, bytes - n);
    m_pos += static_cast<int64_t>(n);
    if (m_pos >= m_nextReport) ReportProgress(m_pos);
    return n == bytes;
}

bool IoFile::FileReverseRead(void* buffer, size_t bytes) {
    bool ok = FileRead(buffer, bytes);
    auto* b = static_cast<uint8_t*>(buffer);
    std::reverse(b, b + bytes);
    return ok;
}

bool IoFile::FlushWrite() {
    if (!m_writing || m_wbuf.empty()) return !m_writeError;
    // Writers do not poll the cancel flag themselves: a cancelled write fails at its next
    // buffer, and the host drops what was written. A write's size is not known beforehand,
    // so its progress goes out with no total.
    if (!m_writeError && ShouldCancelThread(0)) NoteWriteError(ECANCELED);
    if (!m_writeError && !WriteAll(m_fd, m_wbuf.data(), m_wbuf.size(), m_written)) NoteWriteError(errno);
    m_wbuf.clear();
    if (!m_writeError) ReportThreadProgress(m_written, 0);
    return !m_writeError;
}

bool IoFile::FileWrite(const void* buffer, size_t bytes) {
    if (!m_open || !m_writing || m_writeError) return false;
    const auto* b = static_cast<const uint8_t*>(buffer);
    // A writer's own large chunk goes to the file as it is: copying it through the
    // buffer first would only cost a second pass over the bytes.
    if (bytes >= kDirectWrite) {
        if (!FlushWrite()) return false;
        if (ShouldCancelThread(0)) NoteWriteError(ECANCELED);
        else if (!WriteAll(m_fd, b, bytes, m_written)) NoteWriteError(errno);
        else ReportThreadProgress(m_written, 0);
        return !m_writeError;
    }
    if (m_wbuf.size() + bytes > kWriteBuffer && !FlushWrite()) return false;
    m_wbuf.insert(m_wbuf.end(), b, b + bytes);
    return true;
}

bool IoFile::FileReverseWrite(const void* buffer, size_t bytes) {
    uint8_t small[16];
    std::vector<uint8_t> big;
    uint8_t* tmp = small;
    if (bytes > sizeof(small)) {
        big.resize(bytes);
        tmp = big.data();
    }
    const auto* b = static_cast<const uint8_t*>(buffer);
    for (size_t i = 0; i < bytes; ++i) tmp[i] = b[bytes - 1 - i];
    return FileWrite(tmp, bytes);
}

bool IoFile::FileSeek(int64_t offset, int from) {
    if (!m_open) return false;
    if (m_writing) {
        if (!FlushWrite()) return false;
        int whence = from == 0 ? SEEK_SET : (from == 1 ? SEEK_CUR : SEEK_END);
        off_t r = ::lseek(m_fd, static_cast<off_t>(offset), whence);
        if (r < 0) return false;
        m_written = r;
        return true;
    }
    if (from < 0 || from > 2) return false;
    int64_t base = from == 0 ? 0 : (from == 1 ? m_pos : m_size);
    // Overflow-safe: both operands are bounded by the file size or the caller's value.
    if ((offset > 0 && base > INT64_MAX - offset) || (offset < 0 && base < INT64_MIN - offset)) return false;
    int64_t p = base + offset;
    if (p < 0 || p > m_size) return false;
    m_pos = p;
    m_nextLf = nullptr;
    return true;
}

int64_t IoFile::FileGetPosition() const {
    if (m_writing) return m_written + static_cast<int64_t>(m_wbuf.size());
    return m_pos;
}

int64_t IoFile::FileGetLength() const {
    if (!m_writing) return m_size;
    struct stat st;
    int64_t onDisk = (m_fd >= 0 && fstat(m_fd, &st) == 0) ? static_cast<int64_t>(st.st_size) : 0;
    return std::max(onDisk, FileGetPosition());
}

bool IoFile::ReadLine(std::string_view& line) {
    if (!m_open || m_writing || m_pos >= m_size) return false;
    const char* base = reinterpret_cast<const char*>(m_data);
    const char* p = base + m_pos;
    size_t eol;
    const char* e = textscan::FindLineEnd(p, base + m_size, eol, m_nextLf);
    line = std::string_view(p, static_cast<size_t>(e - p));
    m_pos = (e - base) + static_cast<int64_t>(eol);
    if (m_pos >= m_nextReport) ReportProgress(m_pos);
    return true;
}

bool IoFile::ReadString(CXStringW& line) {
    if (!m_open || m_writing) return false;
    if (!m_bomChecked) {
        m_bomChecked = true;
        const uint8_t* d = m_data;
        const int64_t n = m_size;
        // The encoding is decided once; a BOM only counts at the very start.
        bool atStart = m_pos == 0;
        m_encoding = ENC_LATIN1;
        if (m_textMode == TEXT_MODE_UTF8 || m_textMode == TEXT_MODE_AUTO) {
            m_encoding = ENC_UTF8;
            if (atStart && n >= 3 && d[0] == 0xEF && d[1] == 0xBB && d[2] == 0xBF) {
                m_pos = 3;
            } else if (m_textMode == TEXT_MODE_AUTO && atStart && n >= 2 && d[0] == 0xFF && d[1] == 0xFE) {
                m_encoding = ENC_UTF16LE;
                m_pos = 2;
            } else if (m_textMode == TEXT_MODE_AUTO && atStart && n >= 2 && d[0] == 0xFE && d[1] == 0xFF) {
                m_encoding = ENC_UTF16BE;
                m_pos = 2;
            } else if (m_textMode == TEXT_MODE_AUTO) {
                m_utf8Valid = IsValidUtf8({reinterpret_cast<const char*>(d + m_pos), static_cast<size_t>(n - m_pos)});
                if (!m_utf8Valid) m_encoding = ENC_LATIN1;
            }
        }
    }
    if (m_pos >= m_size) return false;
    std::wstring& out = line.str();
    out.clear();
    if (m_encoding == ENC_UTF16LE || m_encoding == ENC_UTF16BE) {
        const bool le = m_encoding == ENC_UTF16LE;
        auto unit = [&](int64_t at) -> uint32_t {
            return le ? (uint32_t(m_data[at]) | (uint32_t(m_data[at + 1]) << 8))
                      : ((uint32_t(m_data[at]) << 8) | uint32_t(m_data[at + 1]));
        };
        int64_t p = m_pos;
        while (p + 1 < m_size) {
            uint32_t u = unit(p);
            p += 2;
            if (u == '\n') break;
            if (u == '\r') {
                if (p + 1 < m_size && unit(p) == '\n') p += 2;
                break;
            }
            if (u >= 0xD800 && u <= 0xDBFF) {
                if (p + 1 < m_size) {
                    uint32_t v = unit(p);
                    if (v >= 0xDC00 && v <= 0xDFFF) {
                        p += 2;
                        out += static_cast<wchar_t>(0x10000 + ((u - 0xD800) << 10) + (v - 0xDC00));
                        continue;
                    }
                }
                out += L'\xFFFD';
            } else if (u >= 0xDC00 && u <= 0xDFFF) {
                out += L'\xFFFD';
            } else {
                out += static_cast<wchar_t>(u);
            }
        }
        if (p + 1 == m_size) {
            // An odd byte at the very end: half a character.
            out += L'\xFFFD';
            p = m_size;
        }
        m_pos = p;
        if (m_pos >= m_nextReport) ReportProgress(m_pos);
        return true;
    }
    std::string_view raw;
    ReadLine(raw);
    if (m_encoding == ENC_UTF8) {
        AppendUtf8ToWide(out, raw);
    } else {
        out.resize(raw.size());
        for (size_t i = 0; i < raw.size(); ++i) out[i] = static_cast<wchar_t>(static_cast<uint8_t>(raw[i]));
    }
    return true;
}

bool IoFile::WriteString(std::string_view s) { return FileWrite(s.data(), s.size()); }

bool IoFile::WriteString(const CXStringW& s) {
    std::string& tmp = m_decodeScratch;
    tmp.clear();
    if (m_textMode == TEXT_MODE_ANSI) {
        AppendLatin1(tmp, s.view());
    } else {
        tmp = WideToUtf8(s.view());
    }
    return FileWrite(tmp.data(), tmp.size());
}
