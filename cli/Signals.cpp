// Signal handling of the CLI: one watcher thread takes the caught signals with sigwait,
// so the clean-up runs as ordinary code (locks, folder removal), never inside a handler.
#include "cli/Signals.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <pthread.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

#include "cli/ExitCodes.h"
#include "plugin/host/FileHelpers.h"

namespace {
std::mutex g_commit;
std::atomic<bool>* g_cancel = nullptr;
sigset_t g_caught;
std::mutex g_childLock;
std::vector<pid_t> g_children;

void PassOn(int sig) {
    std::lock_guard<std::mutex> lock(g_childLock);
    for (pid_t p : g_children) kill(p, sig);
}

[[noreturn]] void EndBySignal(int sig) {
    g_commit.lock();                       // never released: nothing is moved into place any more
    PassOn(sig == SIGINT ? SIGTERM : sig); // the workers clean up after themselves
    fileRemoveTmpOfThisProcess();
    std::signal(sig, SIG_DFL);
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, sig);
    pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
    raise(sig);
    _exit(128 + sig); // not reached: the default action of these signals ends the process
}

void Watch() {
    int interrupts = 0;
    for (;;) {
        int sig = 0;
        if (sigwait(&g_caught, &sig) != 0) continue;
        if (g_cancel) g_cancel->store(true);
        if (sig == SIGINT && ++interrupts == 1) { // cancel; a second one ends at once
            PassOn(SIGINT);
            continue;
        }
        EndBySignal(sig);
    }
}
} // namespace

void InstallSignalHandling(std::atomic<bool>* cancel) {
    g_cancel = cancel;
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    sigemptyset(&g_caught);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&g_caught, sig);
    pthread_sigmask(SIG_BLOCK, &g_caught, nullptr);
    try {
        std::thread(Watch).detach();
    } catch (const std::system_error&) {
        // No thread to take them: the signals keep their default action.
        pthread_sigmask(SIG_UNBLOCK, &g_caught, nullptr);
    }
}

void AddChildProcess(int pid) {
    std::lock_guard<std::mutex> lock(g_childLock);
    g_children.push_back(pid);
}

void RemoveChildProcess(int pid) {
    std::lock_guard<std::mutex> lock(g_childLock);
    std::erase(g_children, pid);
}

CommitSection::CommitSection() { g_commit.lock(); }
CommitSection::~CommitSection() { g_commit.unlock(); }

int FinishStandardOutput(int status) {
    if (std::fflush(stdout) == 0 && !std::ferror(stdout)) return status;
    const int err = errno;
    if (err == EPIPE) return 128 + SIGPIPE;
    std::fprintf(stderr, "orbiscope: cannot write the standard output: %s.\n", std::strerror(err));
    return status == EXIT_OK ? EXIT_CANNOT_WRITE : status;
}
