// Per-thread cancel token and progress sink. Plain thread_local slots: the host
// sets them on the thread that runs the parser, nothing is shared between threads.
#include "plugin/host/Cancel.h"

namespace {
thread_local std::atomic<bool>* t_token = nullptr;
thread_local ProgressSink t_sink = nullptr;
thread_local void* t_sinkUser = nullptr;
} // namespace

bool ShouldCancelThread(int) { return t_token != nullptr && t_token->load(std::memory_order_relaxed); }

void SetThreadCancelToken(std::atomic<bool>* token) { t_token = token; }

std::atomic<bool>* GetThreadCancelToken() { return t_token; }

void SetThreadProgressSink(ProgressSink sink, void* user) {
    t_sink = sink;
    t_sinkUser = user;
}

void ReportThreadProgress(int64_t done, int64_t total) {
    if (t_sink) t_sink(done, total, t_sinkUser);
}
