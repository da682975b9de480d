#pragma once
// The commands of orbiscope, each with its help text. main.cpp keeps them in one table;
// a new command is a function here and a row there.
#include <string>
#include <vector>

// Each takes the arguments after its own name and returns the exit status.
int CmdFormats(const std::vector<std::string>& args);
int CmdInfo(const std::vector<std::string>& args);
int CmdConvert(const std::vector<std::string>& args);

// Many inputs to an output folder, one worker process per file (Batch.cpp).
struct BatchOptions {
    std::vector<std::string> inputs; // files, folders, patterns
    std::string outputDir, to, from, report;
    bool recursive = false;
    bool json = false;
    int jobs = 0; // 0: one per core
};
int RunBatch(const BatchOptions& options);
