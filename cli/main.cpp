// orbiscope: a thin command-line host. It loads the format module with dlopen and
// drives its parsers exactly as the browser does.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli/Cli.h"
#include "cli/Commands.h"
#include "cli/ExitCodes.h"
#include "cli/Module.h"
#include "cli/Preview.h"
#include "cli/SceneSummary.h"
#include "cli/Signals.h"
#include "cli/ToolCommands.h"
#include "plugin/host/GenericIo.h"
#include <orbiscope/Version.h>

namespace {
const char* kExitStatus = "exit status:\n"
                          "  0 success              1 some inputs of a batch failed\n"
                          "  2 usage error          3 a file cannot be opened\n"
                          "  4 not this format or damaged                    5 nothing to load (empty)\n"
                          "  6 nothing to write     7 cancelled              8 format not available\n"
                          "  9 the output cannot be written                 10 the format module cannot be loaded\n";

int CmdVersion(const std::vector<std::string>& args);
int CmdHelp(const std::vector<std::string>& args);
int CmdLxo(const std::vector<std::string>& args);
int CmdVrml97(const std::vector<std::string>& args);
int CmdPreview(const std::vector<std::string>& args);
int CmdThumbnails(const std::vector<std::string>& args);

struct Command {
    const char* name;
    const char* synopsis; // the line of the general help
    const char* help;     // `orbiscope help NAME`
    int (*run)(const std::vector<std::string>& args);
    bool needsModule;
    bool ownOptions; // its arguments go to it untouched (it parses its own -v, -o)
};

const Command kCommands[] = {
    {"formats", "formats [--json]                list the formats the module offers",
     "usage: orbiscope formats [--json]\n"
     "\n"
     "Lists every format of the module: description, extensions, type ID and whether it\n"
     "can be read, written or both. Type IDs and extensions name formats anywhere a\n"
     "command takes one (--from, --to), in any case: STL, stl, .stl.\n"
     "\n"
     "  --json    one JSON array, an object per format\n",
     CmdFormats, true, false},
    {"info", "info FILE [--json] [--from ID]  read FILE and describe its scene",
     "usage: orbiscope info FILE [--json] [--from ID]\n"
     "\n"
     "Reads FILE and prints its scene: totals, units by name and scale, bounding box,\n"
     "animation range and keys, the node tree (with the IDs the file gave its nodes),\n"
     "materials, and the texture files the scene needs with where they were looked for and\n"
     "whether they are there.\n"
     "\n"
     "  --from ID        read as this format (type ID or extension), not by the file's name\n"
     "  --json           one JSON document; its layout is docs/json-schema/info.schema.json\n"
     "  --format FMT     text (default) or json\n"
     "  -q, -v           hide the reader's warnings / also show informational lines\n",
     CmdInfo, true, false},
    {"convert",
     "convert IN OUT | IN... -o DIR --to FORMAT [-r] [-j N] [--report FILE]\n"
     "                                  convert one file, or many into a folder",
     "usage: orbiscope convert IN OUT [--from ID] [--to ID] [--json]\n"
     "       orbiscope convert IN... -o DIR --to FORMAT [-r] [-j N] [--report FILE] [--json]\n"
     "\n"
     "One file: reads IN and writes OUT; the formats come from the extensions, or from\n"
     "--from and --to (type ID or extension, any case). OUT \"-\" writes to the standard\n"
     "output (with --to) when the format writes a single file. The summary line tells what\n"
     "was written; the writers' notes on what could not be kept (shortened names, dropped\n"
     "curves) come as warnings on stderr.\n"
     "\n"
     "Many files: every IN (a file, a folder, or a pattern such as '*.3ds') is converted\n"
     "into the folder DIR under its own name with the extension of FORMAT. Each file is\n"
     "converted by a worker process of its own, so a file that crashes its reader costs\n"
     "that file only. Ends with a summary line, and a status of 1 when any input failed.\n"
     "\n"
     "  --from ID          read every input as this format\n"
     "  --to ID            write this format (type ID or extension)\n"
     "  -o, --output-dir DIR  the folder to write into (made when missing)\n"
     "  -r, --recursive    take the files of folders below the folders given (their\n"
     "                     layout is kept under DIR)\n"
     "  -j, --jobs N       worker processes at once (default: the number of cores)\n"
     "  --report FILE      one JSON line per input (\"-\": the standard output); see\n"
     "                     docs/json-schema/batch-record.schema.json\n"
     "  --json             the summary as JSON\n"
     "  -q, -v             hide warnings / also show informational lines\n",
     CmdConvert, true, false},
    {"lxo", "lxo dump|copy|replace|update    Modo LXO tools (orbiscope help lxo)",
     "usage: orbiscope lxo dump FILE [-v] [-o OUT]     dump the chunks of a Modo LXO file\n"
     "       orbiscope lxo copy SRC DST                copy an LXO file chunk by chunk\n"
     "       orbiscope lxo replace SRC DST --layer REFID MESHFILE\n"
     "                                                 replace one mesh layer of an LXO file\n"
     "       orbiscope lxo update FILE SCENEFILE [-o OUT]\n"
     "                                                 replace FILE's mesh layers with SCENEFILE's\n"
     "                                                 meshes (by name, then in order); the rest\n"
     "                                                 of FILE is kept\n",
     CmdLxo, true, true},
    {"vrml97", "vrml97 check|print FILE         VRML97 tools (orbiscope help vrml97)",
     "usage: orbiscope vrml97 check FILE [--json]\n"
     "                                      parse a VRML97 world and count its nodes by type\n"
     "       orbiscope vrml97 print FILE    parse a VRML97 world and print it back\n",
     CmdVrml97, true, true},
    {"preview", "preview FILE [-o OUT.png] ...   draw a picture of FILE (orbiscope help preview)", kPreviewUsage,
     CmdPreview, true, true},
    {"thumbnails", "thumbnails DIR --out DIR ...    pictures of a folder's files, with a contact sheet", kPreviewUsage,
     CmdThumbnails, true, true},
    {"version", "version [--json]                the version of orbiscope and of its module",
     "usage: orbiscope version [--json]     (also: orbiscope --version, orbiscope -V)\n"
     "\n"
     "Prints the version of orbiscope, the interface version of the format module and\n"
     "the module file it loaded.\n",
     CmdVersion, false, false},
    {"help", "help [COMMAND]                  this text, or the help of one command",
     "usage: orbiscope help [COMMAND]     (also: orbiscope COMMAND --help)\n", CmdHelp, false, false},
};

const Command* FindCommand(const std::string& name) {
    for (const Command& c : kCommands)
        if (name == c.name) return &c;
    return nullptr;
}

std::vector<std::string> CommandNames() {
    std::vector<std::string> v;
    for (const Command& c : kCommands) v.emplace_back(c.name);
    return v;
}

std::string GeneralHelp() {
    std::string s = "usage: orbiscope [-q|-v] COMMAND [ARGS] [OPTIONS]\n\ncommands:\n";
    for (const Command& c : kCommands) s += std::string("  ") + c.synopsis + "\n";
    s += "\n"
         "options (anywhere on the line): -q quiet, -v verbose, -h/--help, -V/--version,\n"
         "  --json (or --format json) on every command that prints\n"
         "environment: ORBISCOPE_PLUGIN_PATH (the module file or its folder)\n"
         "\n";
    return s + kExitStatus;
}

std::string UnknownCommand(const std::string& name) {
    const std::string near = ClosestWord(name, CommandNames());
    return "unknown command \"" + name + "\"" + (near.empty() ? "" : "; did you mean " + near + "?") + " (see --help).";
}

int CmdHelp(const std::vector<std::string>& args) {
    ParsedArgs a;
    std::string err;
    if (!ParseCommandLine("help", args, {}, a, err)) return Fail(EXIT_USAGE, err);
    if (a.operands.empty()) {
        std::fputs(GeneralHelp().c_str(), stdout);
        return EXIT_OK;
    }
    const Command* c = FindCommand(a.operands[0]);
    if (!c) return Fail(EXIT_USAGE, UnknownCommand(a.operands[0]));
    std::fputs(c->help, stdout);
    return EXIT_OK;
}

int CmdVersion(const std::vector<std::string>& args) {
    ParsedArgs a;
    std::string err;
    if (!ParseCommandLine("version", args, {}, a, err)) return Fail(EXIT_USAGE, err);
    const bool json = ApplyGlobalOptions(a, err);
    if (!err.empty()) return Fail(EXIT_USAGE, err);
    LoadedModule module;
    const bool loaded = LoadFormatModule(module, err);
    const uint32_t v = loaded ? module.version : 0;
    const std::string iface = std::to_string(v >> 16) + "." + std::to_string(v & 0xFFFF);
    if (json) {
        std::printf("{\"version\": \"%s\", \"moduleInterface\": %s, \"module\": %s}\n", ORBISCOPE_VERSION,
                    loaded ? ("\"" + iface + "\"").c_str() : "null", loaded ? JsonString(module.path).c_str() : "null");
    } else if (loaded) {
        std::printf("orbiscope %s (format module interface %s, %s)\n", ORBISCOPE_VERSION, iface.c_str(),
                    module.path.c_str());
    } else {
        std::printf("orbiscope %s (no format module: %s)\n", ORBISCOPE_VERSION, err.c_str());
    }
    return EXIT_OK;
}

// The format tools parse their own arguments; they get the words after their name.
int PassOn(int (*tool)(int, char**), const std::vector<std::string>& args) {
    std::vector<std::string> copy = args;
    std::vector<char*> argv;
    for (std::string& s : copy) argv.push_back(s.data());
    argv.push_back(nullptr);
    return tool(static_cast<int>(copy.size()), argv.data());
}
int CmdLxo(const std::vector<std::string>& args) { return PassOn(RunLxoCommand, args); }
int CmdVrml97(const std::vector<std::string>& args) { return PassOn(RunVrml97Command, args); }

// Pictures read their scenes as `info` does.
int ReadForPicture(const std::string& file, const std::string& from, std::unique_ptr<C3DScene>& scene,
                   std::string& format) {
    const CFormatEntry* entry = nullptr;
    const int rc = ReadScene(file, from, scene, &entry);
    if (entry) format = Narrow(entry->ext.description);
    return rc;
}
int CmdPreview(const std::vector<std::string>& args) {
    return RunPreviewCommand("preview", args, g_verbosity, &g_cancel, ReadForPicture);
}
int CmdThumbnails(const std::vector<std::string>& args) {
    return RunPreviewCommand("thumbnails", args, g_verbosity, &g_cancel, ReadForPicture);
}

bool IsHelp(const std::string& a) { return a == "--help" || a == "-h"; }

int Run(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    // Global options before the command.
    std::vector<std::string> leading;
    size_t i = 0;
    while (i < args.size() && args[i].size() > 1 && args[i][0] == '-') leading.push_back(args[i++]);
    for (const std::string& o : leading) {
        if (o == "-q" || o == "--quiet") g_verbosity = 0;
        else if (o == "-v" || o == "--verbose") g_verbosity = 2;
        else if (o == "--version" || o == "-V")
            return CmdVersion(std::count(leading.begin(), leading.end(), "--json") ? std::vector<std::string>{"--json"}
                                                                                   : std::vector<std::string>{});
        else if (IsHelp(o)) return CmdHelp({});
        else if (o != "--json") {
            std::vector<std::string> known{"-q", "-v", "--quiet", "--verbose", "--help", "--version", "--json"};
            const std::string near = ClosestWord(o, known);
            return Fail(EXIT_USAGE, "unknown option " + o + (near.empty() ? "" : "; did you mean " + near + "?") +
                                        " (see --help).");
        }
    }
    if (i >= args.size()) {
        std::fputs(GeneralHelp().c_str(), stderr);
        return EXIT_USAGE;
    }
    const std::string name = args[i];
    const Command* cmd = FindCommand(name);
    if (!cmd) return Fail(EXIT_USAGE, UnknownCommand(name));
    std::vector<std::string> rest(args.begin() + static_cast<long>(i) + 1, args.end());
    // "--json" before the command counts as if it came after.
    for (const std::string& o : leading)
        if (o == "--json") rest.push_back(o);
    if (cmd->ownOptions ? !rest.empty() && (IsHelp(rest[0]) || rest[0] == "help")
                        : std::any_of(rest.begin(), rest.end(), IsHelp)) {
        std::fputs(cmd->help, stdout);
        return EXIT_OK;
    }
    LoadedModule module;
    std::string err;
    if (cmd->needsModule && !LoadFormatModule(module, err)) return Fail(EXIT_MODULE, err + ".");
    return cmd->run(rest);
}
} // namespace

int main(int argc, char** argv) {
    InstallSignalHandling(&g_cancel);
    return FinishStandardOutput(Run(argc, argv));
}
