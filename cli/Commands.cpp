// formats, info and convert (one file); the batch form of convert is in Batch.cpp.
#include "cli/Commands.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "cli/Cli.h"
#include "cli/ExitCodes.h"
#include "cli/SceneSummary.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/GenericIo.h"
#include "plugin/host/Scene.h"

int CmdFormats(const std::vector<std::string>& args) {
    ParsedArgs a;
    std::string err;
    if (!ParseCommandLine("formats", args, {}, a, err)) return Fail(EXIT_USAGE, err);
    const bool json = ApplyGlobalOptions(a, err);
    if (!err.empty()) return Fail(EXIT_USAGE, err);
    if (!a.operands.empty()) return Fail(EXIT_USAGE, "formats takes no operands (see orbiscope help formats).");
    if (json) {
        std::string s = "[";
        bool first = true;
        for (auto& f : CParserRegistry::Instance().Formats()) {
            s += first ? "\n" : ",\n";
            first = false;
            s += "  {\"description\": " + JsonString(Narrow(f.ext.description)) +
                 ", \"extensions\": " + JsonString(Narrow(f.ext.extensions)) +
                 ", \"id\": " + JsonString(Narrow(TypeIDToString(f.ext.typeID))) +
                 ", \"typeId\": " + std::to_string(f.ext.typeID) + ", \"read\": " + (f.CanRead() ? "true" : "false") +
                 ", \"write\": " + (f.CanWrite() ? "true" : "false") + "}";
        }
        s += first ? "]\n" : "\n]\n";
        std::fputs(s.c_str(), stdout);
        return EXIT_OK;
    }
    std::printf("%-26s %-26s %-6s %-10s %s\n", "description", "extensions", "ID", "hex", "read/write");
    for (auto& f : CParserRegistry::Instance().Formats()) {
        std::string rw = std::string(f.CanRead() ? "read" : "") + (f.CanRead() && f.CanWrite() ? "+" : "") +
                         (f.CanWrite() ? "write" : "");
        std::printf("%-26s %-26s %-6s 0x%08X %s\n", Narrow(f.ext.description).c_str(), Narrow(f.ext.extensions).c_str(),
                    ("\"" + Narrow(TypeIDToString(f.ext.typeID)) + "\"").c_str(), f.ext.typeID, rw.c_str());
    }
    return EXIT_OK;
}

int CmdInfo(const std::vector<std::string>& args) {
    ParsedArgs a;
    std::string err;
    if (!ParseCommandLine("info", args, {{"--from", 0, true}}, a, err)) return Fail(EXIT_USAGE, err);
    const bool json = ApplyGlobalOptions(a, err);
    if (!err.empty()) return Fail(EXIT_USAGE, err);
    if (a.operands.empty()) return Fail(EXIT_USAGE, "info needs a file (see --help).");
    if (a.operands.size() > 1) return Fail(EXIT_USAGE, "info takes one file (see --help).");
    const std::string& file = a.operands[0];
    std::unique_ptr<C3DScene> scene;
    const CFormatEntry* entry = nullptr;
    if (int rc = ReadScene(file, a.Get("--from"), scene, &entry)) return rc;
    const std::string fmt = Narrow(entry->ext.description);
    if (json) {
        std::fputs(DescribeSceneJson(*scene, file, fmt).c_str(), stdout);
    } else {
        std::printf("file: %s (%s)\n", file.c_str(), fmt.c_str());
        std::fputs(DescribeScene(*scene, file).c_str(), stdout);
    }
    return EXIT_OK;
}

namespace {
int ParseJobs(const std::string& text, int& jobs) {
    char* end = nullptr;
    const long v = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || v < 1 || v > 1024)
        return Fail(EXIT_USAGE, "the option --jobs takes a number of processes from 1 to 1024, not \"" + text + "\".");
    jobs = static_cast<int>(v);
    return EXIT_OK;
}
} // namespace

int CmdConvert(const std::vector<std::string>& args) {
    ParsedArgs a;
    std::string err;
    const std::vector<OptionDef> defs = {{"--from", 0, true},         {"--to", 0, true},
                                         {"--output-dir", 'o', true}, {"--recursive", 'r', false},
                                         {"--jobs", 'j', true},       {"--report", 0, true}};
    if (!ParseCommandLine("convert", args, defs, a, err)) return Fail(EXIT_USAGE, err);
    const bool json = ApplyGlobalOptions(a, err);
    if (!err.empty()) return Fail(EXIT_USAGE, err);
    const std::string from = a.Get("--from"), to = a.Get("--to");

    if (a.Has("--output-dir") || a.Has("--recursive") || a.Has("--jobs") || a.Has("--report")) {
        BatchOptions b;
        b.inputs = a.operands;
        b.outputDir = a.Get("--output-dir");
        b.to = to;
        b.from = from;
        b.report = a.Get("--report");
        b.recursive = a.Has("--recursive");
        b.json = json;
        if (a.Has("--jobs"))
            if (int rc = ParseJobs(a.Get("--jobs"), b.jobs)) return rc;
        if (b.outputDir.empty())
            return Fail(EXIT_USAGE,
                        "converting many files needs an output folder (-o DIR) (see orbiscope help convert).");
        if (b.to.empty())
            return Fail(EXIT_USAGE,
                        "converting many files needs the format to write (--to FORMAT) (see orbiscope help convert).");
        if (b.inputs.empty()) return Fail(EXIT_USAGE, "convert needs at least one input (see orbiscope help convert).");
        return RunBatch(b);
    }
    if (a.operands.size() > 2)
        return Fail(EXIT_USAGE, "convert of several files needs an output folder and a format: -o DIR --to FORMAT "
                                "(see orbiscope help convert).");
    if (a.operands.size() != 2) return Fail(EXIT_USAGE, "convert needs an input and an output file (see --help).");
    const std::string& in = a.operands[0];
    const std::string& out = a.operands[1];
    if (out != "-" && (in == out || SameFile(in, out)))
        return Fail(EXIT_USAGE, "the input and the output are the same file (" + out + "); choose another output.");
    const CFormatEntry* writer = nullptr;
    if (!to.empty()) {
        writer = FindFormat(to, true, err);
    } else if (out == "-") {
        return Fail(EXIT_USAGE, "writing to the standard output needs the format (--to FORMAT).");
    } else {
        writer = PickWriter(out, "", err);
    }
    if (!writer) return Fail(err.find("type ID") != std::string::npos ? EXIT_USAGE : EXIT_NOT_AVAILABLE, err);
    const auto start = std::chrono::steady_clock::now();
    std::unique_ptr<C3DScene> scene;
    const CFormatEntry* reader = nullptr;
    if (int rc = ReadScene(in, from, scene, &reader)) return rc;
    WriteResult written;
    if (int rc = WriteScene(*scene, out, *writer, written)) return rc;
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::string files;
    for (const WrittenFile& f : written.files)
        files += (files.empty() ? "" : ", ") + f.path + " " + std::to_string(f.bytes) + " bytes";
    if (json) {
        std::string s = "{\"input\": " + JsonString(in) + ", \"output\": " + JsonString(out) +
                        ", \"from\": " + JsonString(Narrow(reader->ext.description)) +
                        ", \"to\": " + JsonString(Narrow(writer->ext.description)) +
                        ", \"read\": " + TotalsJson(CountScene(*scene)) +
                        ", \"written\": " + TotalsJson(CountScene(*written.prepared)) + ", \"files\": [";
        for (size_t i = 0; i < written.files.size(); ++i)
            s += std::string(i ? ", " : "") + "{\"path\": " + JsonString(written.files[i].path) +
                 ", \"bytes\": " + std::to_string(written.files[i].bytes) + "}";
        char t[48];
        std::snprintf(t, sizeof t, "%.3f", seconds);
        s += std::string("], \"seconds\": ") + t + "}\n";
        // Standard output carries the file itself when it is the target.
        std::fputs(s.c_str(), out == "-" ? stderr : stdout);
    } else if (g_verbosity >= 1) {
        std::fprintf(out == "-" ? stderr : stdout, "%s -> %s: wrote %s (%s)\n", in.c_str(), out.c_str(),
                     SummaryLine(*written.prepared).c_str(), files.c_str());
    }
    return EXIT_OK;
}
