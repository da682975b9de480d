// IoFile: binary and reversed reads, seeking, text modes, raw lines, buffered
// writes and their failure at close, progress reports.
#include "plugin/host/IoFile.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "plugin/host/Cancel.h"
#include "tests/support/TestSupport.h"

namespace {
std::vector<std::wstring> Lines(const std::string& bytes, int mode) {
    IoFile f(true, mode);
    EXPECT_TRUE(f.OpenMemory(bytes.data(), bytes.size()));
    std::vector<std::wstring> out;
    CXStringW line;
    while (f.ReadString(line)) out.push_back(line.str());
    return out;
}
using W = std::vector<std::wstring>;
// A byte string literal with its embedded NULs.
template <size_t N> std::string Bytes(const char (&s)[N]) { return std::string(s, N - 1); }
} // namespace

TEST(IoFile, BinaryReadsSeeksAndReversedValues) {
    testsupport::TempDir dir;
    const uint8_t bytes[] = {0x01, 0x02, 0x03, 0x04, 0x3F, 0x80, 0x00, 0x00, 0xAA};
    testsupport::WriteFile(dir / "b.bin", std::string(reinterpret_cast<const char*>(bytes), sizeof(bytes)));
    IoFile f(true);
    ASSERT_TRUE(f.OpenFile(CXStringW(Utf8ToWide((dir / "b.bin").string())), true));
    EXPECT_EQ(9, f.FileGetLength());
    uint32_t be = 0;
    ASSERT_TRUE(f.FileReverseRead(&be, 4));
    EXPECT_EQ(0x01020304u, be);
    float fl = 0;
    ASSERT_TRUE(f.FileReverseRead(&fl, 4));
    EXPECT_EQ(1.0f, fl);
    EXPECT_EQ(8, f.FileGetPosition());
    // A read past the end fails, zero-fills what it could not read, stops at the end.
    uint32_t tail = 0xFFFFFFFF;
    EXPECT_FALSE(f.FileRead(&tail, 4));
    EXPECT_EQ(0xAAu, tail);
    EXPECT_TRUE(f.IsEOF());
    EXPECT_TRUE(f.FileSeek(-9, 2));
    EXPECT_EQ(0, f.FileGetPosition());
    EXPECT_TRUE(f.FileSeek(4, 1));
    EXPECT_FALSE(f.FileSeek(6, 1));  // beyond the end
    EXPECT_FALSE(f.FileSeek(-1, 0)); // before the start
    EXPECT_FALSE(f.FileSeek(INT64_MAX, 1));
    EXPECT_FALSE(f.FileSeek(0, 3));
    EXPECT_EQ(4, f.FileGetPosition());
    EXPECT_TRUE(f.FileSeek(9, 0));
    EXPECT_TRUE(f.IsEOF());
    EXPECT_EQ(9u, f.GetData().size());
    EXPECT_TRUE(f.CloseFile());
    EXPECT_FALSE(f.FileRead(&tail, 1));
}

TEST(IoFile, OpenFailuresSayWhy) {
    testsupport::TempDir dir;
    IoFile f(true);
    std::string err;
    EXPECT_FALSE(f.OpenFile((dir / "missing").string(), true, &err));
    EXPECT_NE(std::string::npos, err.find("No such file")) << err;
    EXPECT_FALSE(f.OpenFile(dir.path().string(), true, &err));
    EXPECT_NE(std::string::npos, err.find("directory")) << err;
    EXPECT_FALSE(f.OpenFile((dir / "no" / "such" / "x").string(), false, &err));
    EXPECT_FALSE(f.IsOpen());
    // An empty file opens and reads nothing.
    testsupport::WriteFile(dir / "empty", "");
    ASSERT_TRUE(f.OpenFile((dir / "empty").string(), true));
    CXStringW line;
    EXPECT_FALSE(f.ReadString(line));
    char c;
    EXPECT_FALSE(f.FileRead(&c, 1));
    // Non-regular files are read through read(): a pipe's content arrives whole.
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    ASSERT_EQ(5, write(fds[1], "pipe\n", 5));
    close(fds[1]);
    ASSERT_TRUE(f.OpenFile("/dev/fd/" + std::to_string(fds[0]), true));
    close(fds[0]);
    ASSERT_TRUE(f.ReadString(line));
    EXPECT_EQ(std::wstring(L"pipe"), line.str());
}

TEST(IoFile, TextModes) {
    // UTF-8: invalid bytes become U+FFFD; a BOM is skipped; all three line ends.
    EXPECT_EQ(W({L"a\u00e9", L"\uFFFDb", L"", L"c"}), Lines("\xEF\xBB\xBF"
                                                            "a\xC3\xA9\r\n\xFF"
                                                            "b\r\rc",
                                                            TEXT_MODE_UTF8));
    // ANSI and binary: one character per byte, the BOM kept as bytes.
    EXPECT_EQ(W({L"\u00ef\u00bb\u00bfA\u00e9"}), Lines("\xEF\xBB\xBF"
                                                       "A\xE9",
                                                       TEXT_MODE_ANSI));
    EXPECT_EQ(W({L"x\u00ff"}), Lines("x\xFF\n", TEXT_MODE_BINARY));
    // Auto: UTF-8 when the whole text is valid, Latin-1 as soon as one byte is not.
    EXPECT_EQ(W({L"\u00e9", L"ok"}), Lines("\xC3\xA9\nok", TEXT_MODE_AUTO));
    EXPECT_EQ(W({L"\u00c3\u00a9", L"\u00e9"}), Lines("\xC3\xA9\n\xE9", TEXT_MODE_AUTO));
    EXPECT_EQ(W({L"bom", L"\u00e9"}), Lines("\xEF\xBB\xBF"
                                            "bom\n\xC3\xA9",
                                            TEXT_MODE_AUTO));
    // UTF-16 both ways, with a surrogate pair, CRLF, a lone low surrogate and a dangling byte.
    std::string le = Bytes("\xFF\xFE"
                           "A\0\r\0\n\0\x3D\xD8\x00\xDE\n\0\x00\xDC"
                           "B");
    EXPECT_EQ(W({L"A", L"\U0001F600", L"\uFFFD\uFFFD"}), Lines(le, TEXT_MODE_AUTO));
    std::string be = Bytes("\xFE\xFF\0A\0\r\0B\xD8\x3D");
    EXPECT_EQ(W({L"A", L"B\uFFFD"}), Lines(be, TEXT_MODE_AUTO));
    // Without auto detection the UTF-16 BOM is just bytes.
    EXPECT_EQ(W({std::wstring(L"\uFFFD\uFFFDA\0", 4)}), Lines(Bytes("\xFF\xFE"
                                                                    "A\0"),
                                                              TEXT_MODE_UTF8));
}

TEST(IoFile, RawLinesAndMixedReads) {
    std::string text = "v 1 2 3\r\nf 1 2 3\rlast";
    IoFile f(true);
    ASSERT_TRUE(f.OpenMemory(text.data(), text.size()));
    std::string_view l;
    ASSERT_TRUE(f.ReadLine(l));
    EXPECT_EQ("v 1 2 3", l);
    ASSERT_TRUE(f.ReadLine(l));
    EXPECT_EQ("f 1 2 3", l);
    // Seeking back invalidates what the line splitter remembered.
    ASSERT_TRUE(f.FileSeek(2, 0));
    ASSERT_TRUE(f.ReadLine(l));
    EXPECT_EQ("1 2 3", l);
    ASSERT_TRUE(f.ReadLine(l));
    ASSERT_TRUE(f.ReadLine(l));
    EXPECT_EQ("last", l);
    EXPECT_FALSE(f.ReadLine(l));
}

TEST(IoFile, WritesRoundTripThroughTheBuffer) {
    testsupport::TempDir dir;
    std::string path = (dir / "w.bin").string();
    IoFile w(true);
    ASSERT_TRUE(w.OpenFile(path, false));
    char c;
    EXPECT_FALSE(w.FileRead(&c, 1));
    ASSERT_TRUE(w.WriteInt(-2));
    ASSERT_TRUE(w.WriteFloat(1.5f));
    ASSERT_TRUE(w.WriteUShort(0x1234));
    ASSERT_TRUE(w.WriteUChar(7));
    uint32_t v = 0x0A0B0C0D;
    ASSERT_TRUE(w.FileReverseWrite(&v, 4));
    // More than the buffer in one call, then small writes across the boundary.
    std::string big(3 * 1024 * 1024 + 17, 'x');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 26);
    ASSERT_TRUE(w.FileWrite(big.data(), big.size()));
    for (int i = 0; i < 100000; ++i) ASSERT_TRUE(w.WriteString(std::string_view("0123456789")));
    ASSERT_TRUE(w.WriteString(CXStringW(L"\u00e9\n")));
    EXPECT_EQ(int64_t(15 + big.size() + 1000000 + 3), w.FileGetPosition());
    // Seek back and patch a value, as chunk writers do with sizes.
    ASSERT_TRUE(w.FileSeek(0, 0));
    ASSERT_TRUE(w.WriteInt(99));
    ASSERT_TRUE(w.FileSeek(0, 2));
    ASSERT_TRUE(w.CloseFile());

    std::string got = testsupport::ReadFile(path);
    ASSERT_EQ(15 + big.size() + 1000000 + 3, got.size());
    int32_t first;
    std::memcpy(&first, got.data(), 4);
    EXPECT_EQ(99, first);
    EXPECT_EQ(std::string("\x0A\x0B\x0C\x0D", 4), got.substr(11, 4));
    EXPECT_EQ(big, got.substr(15, big.size()));
    EXPECT_EQ("\xC3\xA9\n", got.substr(got.size() - 3));

    // ANSI mode writes Latin-1, '?' for what it cannot hold.
    IoFile a(true, TEXT_MODE_ANSI);
    ASSERT_TRUE(a.OpenFile(path, false));
    ASSERT_TRUE(a.WriteString(CXStringW(L"\u00e9\u20ac")));
    ASSERT_TRUE(a.CloseFile());
    EXPECT_EQ("\xE9?", testsupport::ReadFile(path));
}

TEST(IoFile, WriteFailureIsReportedAtClose) {
    if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "/dev/full not available";
    IoFile w(true);
    ASSERT_TRUE(w.OpenFile(std::string("/dev/full"), false));
    // Small writes sit in the buffer, so the failure shows when it is flushed.
    EXPECT_TRUE(w.WriteString(std::string_view("hello")));
    EXPECT_FALSE(w.CloseFile());
    EXPECT_TRUE(w.HasWriteError());
}

// The reason of a failed write travels with the file and with the thread, so that the
// host can say "No space left on device" or "File too large" rather than "cannot open".
TEST(IoFile, WriteFailuresKeepTheSystemsReason) {
    IoFileClearWriteFailure();
    EXPECT_EQ(IoFileLastWriteFailure().error, 0);
    testsupport::TempDir dir;
    IoFile missing(true);
    EXPECT_FALSE(missing.OpenFile((dir / "no" / "x.stl").string(), false));
    EXPECT_EQ(IoFileLastWriteFailure().error, ENOENT);
    EXPECT_TRUE(IoFileLastWriteFailure().atOpen);

    if (access("/dev/full", W_OK) == 0) {
        IoFile w(true);
        ASSERT_TRUE(w.OpenFile(std::string("/dev/full"), false));
        EXPECT_TRUE(w.WriteString(std::string_view("hello")));
        EXPECT_FALSE(w.CloseFile());
        EXPECT_EQ(w.GetWriteErrno(), ENOSPC);
        EXPECT_EQ(IoFileLastWriteFailure().error, ENOSPC);
        EXPECT_FALSE(IoFileLastWriteFailure().atOpen);
        // A large piece goes straight to the file and fails at once.
        IoFileClearWriteFailure();
        ASSERT_TRUE(w.OpenFile(std::string("/dev/full"), false));
        EXPECT_EQ(w.GetWriteErrno(), 0);
        const std::vector<uint8_t> big(1 << 20);
        EXPECT_FALSE(w.FileWrite(big.data(), big.size()));
        EXPECT_EQ(IoFileLastWriteFailure().error, ENOSPC);
    }

    // The file-size limit, in a child so the limit stays there.
    const std::string path = (dir / "limited.bin").string();
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit lim = {100000, 100000};
        setrlimit(RLIMIT_FSIZE, &lim);
        IoFile w(true);
        if (!w.OpenFile(path, false)) _exit(10);
        const std::vector<uint8_t> piece(4096);
        bool ok = true;
        for (int i = 0; i < 100 && ok; ++i) ok = w.FileWrite(piece.data(), piece.size());
        ok = w.CloseFile() && ok;
        const IoWriteFailure f = IoFileLastWriteFailure();
        _exit(ok ? 11 : f.atOpen ? 12 : f.error == EFBIG ? 0 : 13);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    ASSERT_TRUE(WIFEXITED(st));
    EXPECT_EQ(WEXITSTATUS(st), 0);
}

namespace {
struct Progress {
    std::vector<std::pair<int64_t, int64_t>> calls;
    static void Sink(int64_t done, int64_t total, void* user) {
        static_cast<Progress*>(user)->calls.emplace_back(done, total);
    }
};
} // namespace

TEST(IoFile, ProgressIsReportedAboutEveryMegabyte) {
    std::string data(5 * 1024 * 1024 + 10, 'a');
    for (size_t i = 99; i < data.size(); i += 100) data[i] = '\n';
    Progress p;
    SetThreadProgressSink(&Progress::Sink, &p);
    {
        IoFile f(true);
        ASSERT_TRUE(f.OpenMemory(data.data(), data.size()));
        std::string_view l;
        size_t lines = 0;
        while (f.ReadLine(l)) ++lines;
        EXPECT_EQ(data.size() / 100 + 1, lines);
        f.CloseFile();
    }
    SetThreadProgressSink(nullptr, nullptr);
    // A handful of reports (not one per line), increasing, ending at the total.
    ASSERT_GE(p.calls.size(), 5u);
    EXPECT_LE(p.calls.size(), 10u);
    for (size_t i = 1; i < p.calls.size(); ++i) EXPECT_GE(p.calls[i].first, p.calls[i - 1].first);
    EXPECT_EQ(int64_t(data.size()), p.calls.back().first);
    EXPECT_EQ(int64_t(data.size()), p.calls.back().second);
}

TEST(IoFile, CancelTokenIsPerThread) {
    std::atomic<bool> token{false};
    SetThreadCancelToken(&token);
    EXPECT_FALSE(ShouldCancelThread(0));
    token = true;
    EXPECT_TRUE(ShouldCancelThread(0));
    bool other = true;
    std::thread t([&] { other = ShouldCancelThread(0); });
    t.join();
    EXPECT_FALSE(other);
    EXPECT_EQ(&token, GetThreadCancelToken());
    SetThreadCancelToken(nullptr);
    EXPECT_FALSE(ShouldCancelThread());
}

// Readers give pages back behind them, pass after pass (the second pass starts below
// what was released before); every byte must read the same afterwards.
TEST(IoFile, PagesGivenBackReadTheSameAndLeaveResidency) {
    testsupport::TempDir dir;
    std::string bytes(size_t(24) << 20, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>((i * 2654435761u) >> 13);
    testsupport::WriteFile(dir / "big.bin", bytes);
    IoFile f;
    ASSERT_TRUE(f.OpenFile((dir / "big.bin").string(), true));
    auto data = f.GetData();
    for (int pass = 0; pass < 2; ++pass) {
        uint64_t sum = 0;
        for (size_t pos = 0; pos < data.size(); pos += 4096) {
            sum += data[pos];
            if (pos % (size_t(1) << 20) == 0) f.ReleaseBefore(static_cast<int64_t>(pos));
        }
        uint64_t expect = 0;
        for (size_t pos = 0; pos < bytes.size(); pos += 4096) expect += static_cast<uint8_t>(bytes[pos]);
        EXPECT_EQ(sum, expect) << "pass " << pass;
        EXPECT_EQ(std::memcmp(data.data(), bytes.data(), bytes.size()), 0) << "pass " << pass;
        f.ReleaseBefore(static_cast<int64_t>(data.size()));
    }
    f.CloseFile();
}
