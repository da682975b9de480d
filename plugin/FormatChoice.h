#pragma once
// Choosing the format for a file and naming what went wrong, in the words the command
// line prints; the Python module uses the same. Nothing here prints.
#include <cstdint>
#include <string>

struct CFormatEntry;
struct IoWriteFailure;

// A format named by type ID ("STL", "'STL '") or extension ("stl", ".stl"), in any case,
// that can read (or write). Null with `error` set when there is none.
const CFormatEntry* FindFormat(const std::string& token, bool forWriting, std::string& error);

// The reader for `path`: `fromID` when given, else the extension (the one before ".gz"
// for gzip files) with the formats' content probes choosing among the records that claim it.
const CFormatEntry* PickReader(const std::string& path, const std::string& fromID, std::string& error);

// The writer for `path`: `toID` when given, else the extension.
const CFormatEntry* PickWriter(const std::string& path, const std::string& toID, std::string& error);

// What is wrong with the input before a parser sees it ("" when nothing); `result` is then
// IO_ERR_OPEN (missing, unreadable, a folder) or IO_ERR_EMPTY (no bytes).
std::string InputProblem(const std::string& path, int& result);

// The sentence for a parser's result code on `file`.
std::string ResultSentence(int result, const std::string& file, bool reading);

// What really failed in a write a writer reported as "cannot open".
std::string WriteFailureSentence(const IoWriteFailure& failure, const std::string& out);
