#pragma once
// Per-thread cancellation and progress. The host (CLI) installs a cancel token
// and a progress sink for the thread that runs a parser; readers poll
// ShouldCancelThread between records and IoFile reports progress.
#include <atomic>
#include <cstdint>

// True when the calling thread's cancel token is set. The argument is unused (host signature).
bool ShouldCancelThread(int unused = 0);
void SetThreadCancelToken(std::atomic<bool>* token);
std::atomic<bool>* GetThreadCancelToken();

using ProgressSink = void (*)(int64_t done, int64_t total, void* user);
void SetThreadProgressSink(ProgressSink sink, void* user);
void ReportThreadProgress(int64_t done, int64_t total);
