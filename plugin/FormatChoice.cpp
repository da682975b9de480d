#include "plugin/FormatChoice.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "plugin/FormatTable.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/GenericIo.h"
#include "plugin/host/IoFile.h"

namespace fs = std::filesystem;

namespace {
std::string Narrow(const CXStringW& w) { return WideToUtf8(w.view()); }
CXStringW Wide(const std::string& s) { return CXStringW(Utf8ToWide(s)); }

// A type ID as people type it: any case, trailing blanks left out.
std::string IdKey(std::string s) {
    while (!s.empty() && s.back() == ' ') s.pop_back();
    for (char& c : s) c = static_cast<char>(c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c);
    return s;
}

std::string ExtensionSentence(const std::string& path, const CXStringW& ext, bool reading) {
    return "the extension of " + path + " (" + (ext.IsEmpty() ? std::string("none") : Narrow(ext)) +
           ") is not a format the module " + (reading ? "reads." : "writes.");
}
} // namespace

const CFormatEntry* FindFormat(const std::string& token, bool forWriting, std::string& error) {
    auto& reg = CParserRegistry::Instance();
    const std::string wanted = IdKey(token);
    const CFormatEntry* found = nullptr;
    if (!wanted.empty() && wanted.size() <= 4)
        for (const auto& f : reg.Formats())
            if (IdKey(Narrow(TypeIDToString(f.ext.typeID))) == wanted) found = &f;
    if (!found && !token.empty()) {
        const std::string ext = token[0] == '.' ? token : "." + token;
        found = reg.FindByExtension(Wide(ext), !forWriting);
        if (!found) found = reg.FindByExtension(Wide(ext), forWriting); // to say why it cannot be used
    }
    if (!found) {
        error = "there is no format with the type ID or extension \"" + token + "\" (see orbiscope formats).";
        return nullptr;
    }
    if (forWriting ? !found->CanWrite() : !found->CanRead()) {
        error =
            "the format " + Narrow(found->ext.description) + (forWriting ? " cannot be written." : " cannot be read.");
        return nullptr;
    }
    return found;
}

const CFormatEntry* PickReader(const std::string& path, const std::string& fromID, std::string& error) {
    auto& reg = CParserRegistry::Instance();
    if (!fromID.empty()) return FindFormat(fromID, false, error);
    CXStringW ext = fileGetExtension(Wide(path));
    // "world.wrl.gz": the extension before ".gz" names the format.
    if (ext.CompareNoCase(L".gz") == 0) ext = fileGetExtension(fileRemoveExtension(Wide(path)));
    uint8_t head[kProbeBytes];
    size_t n = 0;
    std::error_code ec;
    const uint64_t size = fs::file_size(path, ec);
    if (FILE* f = std::fopen(path.c_str(), "rb")) {
        n = std::fread(head, 1, sizeof head, f);
        std::fclose(f);
    }
    if (const uint32_t id = GuessReader(Narrow(ext), {head, n}, ec ? 0 : size))
        if (const CFormatEntry* e = reg.FindByTypeID(id)) return e;
    const CFormatEntry* e = reg.FindByExtension(ext, true);
    if (!e)
        error = reg.FindByExtension(ext, false) ? "the format of " + path + " can be written but not read."
                                                : ExtensionSentence(path, ext, true);
    return e;
}

const CFormatEntry* PickWriter(const std::string& path, const std::string& toID, std::string& error) {
    if (!toID.empty()) return FindFormat(toID, true, error);
    auto& reg = CParserRegistry::Instance();
    const CXStringW ext = fileGetExtension(Wide(path));
    const CFormatEntry* e = reg.FindByExtension(ext, false);
    if (!e)
        error = reg.FindByExtension(ext, true) ? "the format of " + path + " can be read but not written."
                                               : ExtensionSentence(path, ext, false);
    return e;
}

std::string InputProblem(const std::string& path, int& result) {
    result = IO_ERR_OPEN;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return "cannot open " + path + ": " + std::strerror(errno) + ".";
    if (S_ISDIR(st.st_mode)) return "cannot open " + path + ": it is a folder, not a file.";
    if (access(path.c_str(), R_OK) != 0) return "cannot open " + path + ": " + std::strerror(errno) + ".";
    result = IO_ERR_EMPTY;
    if (st.st_size == 0 && S_ISREG(st.st_mode)) return path + " is empty.";
    result = 0;
    return "";
}

std::string ResultSentence(int result, const std::string& file, bool reading) {
    switch (result) {
    case IO_ERR_OPEN: return "cannot open " + file + (reading ? " for reading." : " for writing.");
    case IO_ERR_FORMAT: return file + " is not a file of this format, or it is damaged.";
    case IO_ERR_NOTHING_TO_WRITE: return "there is nothing in the scene that can be written to " + file + ".";
    case IO_ERR_EMPTY: return file + " holds nothing that can be loaded (empty scene).";
    case IO_ERR_CANCELLED: return std::string("cancelled while ") + (reading ? "reading " : "writing ") + file + ".";
    case IO_ERR_NOT_AVAILABLE: return "the format of " + file + " is not available yet.";
    default: return (reading ? "reading " : "writing ") + file + " failed (error " + std::to_string(result) + ").";
    }
}

std::string WriteFailureSentence(const IoWriteFailure& f, const std::string& out) {
    if (f.atOpen) return "cannot open " + out + " for writing: " + std::strerror(f.error) + ".";
    return "cannot write " + out + ": " + std::strerror(f.error) + ".";
}
