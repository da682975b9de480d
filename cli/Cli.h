#pragma once
// Shared pieces of the orbiscope commands: verbosity, the cancel flag, the one-sentence
// failure, the command-line parser and the read/write steps every command builds on.
#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "plugin/FormatChoice.h"
#include "plugin/host/XString.h"

class C3DScene;
struct CFormatEntry;
class CIoOptions;

extern int g_verbosity; // 0 quiet, 1 normal, 2 verbose
extern std::atomic<bool> g_cancel;

int Fail(int code, const std::string& sentence);

// --- The command line -------------------------------------------------------------
// One option a command accepts. Every command also takes the global ones (-q, -v, -h,
// --json, --format). Options may stand anywhere among the operands; "--" ends them.
struct OptionDef {
    const char* name; // "--to"
    char shortName;   // 'o', or 0
    bool takesValue;
};

struct ParsedArgs {
    std::vector<std::string> operands;
    std::map<std::string, std::vector<std::string>> values; // "--to" -> {"stl"}; flags get ""
    bool Has(const std::string& name) const { return values.count(name) != 0; }
    std::string Get(const std::string& name, const std::string& fallback = "") const {
        auto it = values.find(name);
        return it == values.end() || it->second.empty() ? fallback : it->second.back();
    }
};

// Parses `args` for command `cmd`. On a mistake returns false with a sentence in `error`
// that names the option and, where one is close, the option meant.
bool ParseCommandLine(const std::string& cmd, const std::vector<std::string>& args, const std::vector<OptionDef>& defs,
                      ParsedArgs& out, std::string& error);
// The closest of `known` to `word` when it is near enough to be a typing slip; "" if none.
std::string ClosestWord(const std::string& word, const std::vector<std::string>& known);
// Applies -q/-v and answers whether JSON output was asked for (--json, --format json).
bool ApplyGlobalOptions(const ParsedArgs& a, std::string& error);

// The extension a writer's files get (".stl"), from its record.
std::string PrimaryExtension(const CFormatEntry& entry);
std::string Narrow(const CXStringW& w);
CXStringW Wide(const std::string& s);

// --- Reading and writing ----------------------------------------------------------
// The options' log of a read or write as the user sees it: errors and warnings once per
// text with a count, on stderr; informational lines only with -v; nothing with -q.
void ShowLog(const CIoOptions& options, const std::string& file);

int ReadScene(const std::string& path, const std::string& fromID, std::unique_ptr<C3DScene>& scene,
              const CFormatEntry** used);

struct WrittenFile {
    std::string path;
    unsigned long long bytes = 0;
};
struct WriteResult {
    std::unique_ptr<C3DScene> prepared; // the scene as the writer got it
    std::vector<WrittenFile> files;
};
// Writes `scene` to `out` ("-": standard output, when the format writes one file).
int WriteScene(const C3DScene& scene, const std::string& out, const CFormatEntry& entry, WriteResult& result);
bool SameFile(const std::string& a, const std::string& b);
