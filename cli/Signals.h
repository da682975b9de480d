#pragma once
// How orbiscope ends on signals. A first Ctrl-C cancels: the parsers poll the cancel
// flag and the command ends with the cancelled status. SIGTERM, SIGHUP and a second
// Ctrl-C end the process at once: the temporary files and folders it made are removed,
// then the signal is raised again with its default action, so the parent sees the
// process ended by that signal (the shell's 128+N), as with any program that did not
// catch it. SIGPIPE and SIGXFSZ are ignored: a closed pipe or the file-size limit shows
// as a write error with its reason.
#include <atomic>

// Call first in main, before any thread exists: the caught signals are blocked in every
// thread and taken by one watcher thread.
void InstallSignalHandling(std::atomic<bool>* cancel);

// Worker processes of a batch: the signals this process takes are passed on to them
// (a first Ctrl-C cancels them too; a termination ends them before this process ends).
void AddChildProcess(int pid);
void RemoveChildProcess(int pid);

// Held while finished files are moved into place: a termination waits for the moves to end.
class CommitSection {
public:
    CommitSection();
    ~CommitSection();
    CommitSection(const CommitSection&) = delete;
    CommitSection& operator=(const CommitSection&) = delete;
};

// Flushes standard output once the command is done. A reader that went away (EPIPE)
// ends quietly with 128 + SIGPIPE, the status it would have seen had the signal killed
// us; any other failure is reported and turns a success into the write-failure status.
int FinishStandardOutput(int status);
