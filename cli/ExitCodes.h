#pragma once
// Exit statuses of orbiscope (documented in --help).
enum ExitCode : int {
    EXIT_OK = 0,
    EXIT_SOME_FAILED = 1, // a batch: at least one input was not converted
    EXIT_USAGE = 2,
    EXIT_CANNOT_OPEN = 3,
    EXIT_BAD_FORMAT = 4,
    EXIT_EMPTY = 5,
    EXIT_NOTHING_TO_WRITE = 6,
    EXIT_CANCELLED = 7,
    EXIT_NOT_AVAILABLE = 8,
    EXIT_CANNOT_WRITE = 9,
    EXIT_MODULE = 10,
};
