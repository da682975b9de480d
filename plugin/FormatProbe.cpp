// Content probes for the format rows. Signatures are checked byte for byte; text
// formats skip leading blanks and line ends only.
#include "plugin/FormatProbe.h"

#include <string_view>

#include "plugin/host/TextHelpers.h"
#include "plugin/host/XString.h"

namespace {
std::string_view Text(std::span<const uint8_t> head) {
    return {reinterpret_cast<const char*>(head.data()), head.size()};
}

bool StartsWith(std::span<const uint8_t> head, std::string_view sig, size_t at = 0) {
    return head.size() >= at + sig.size() && Text(head).substr(at, sig.size()) == sig;
}

std::string_view SkipSpace(std::string_view s) {
    size_t i = 0;
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\r' || s[i] == '\n')) ++i;
    return s.substr(i);
}

// IFF container: "FORM", a size, then the form type.
bool IsForm(std::span<const uint8_t> head, std::string_view type) {
    return StartsWith(head, "FORM") && StartsWith(head, type, 8);
}

bool IsGzip(std::span<const uint8_t> head) { return head.size() >= 2 && head[0] == 0x1F && head[1] == 0x8B; }

bool IsVrml2Header(std::span<const uint8_t> head) {
    return StartsWith(head, "#VRML V2.0") || StartsWith(head, "#VRML Draft #2");
}
bool IsVrml1Header(std::span<const uint8_t> head) {
    return StartsWith(head, "#VRML V1.0") || StartsWith(head, "#Inventor");
}

// One line of a DXF group pair, trimmed.
std::string_view NextLine(std::string_view& s) {
    size_t e = s.find('\n');
    std::string_view line = s.substr(0, e);
    s = e == std::string_view::npos ? std::string_view() : s.substr(e + 1);
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
    while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
    return line;
}
} // namespace

ProbeResult Probe3ds(std::span<const uint8_t> head, uint64_t size) {
    // The ids the reader accepts as the file's first chunk: a model, a mesh editor block, a project.
    if (head.size() < 6 || size < 6) return ProbeResult::No;
    const unsigned id = head[0] | unsigned(head[1]) << 8;
    return id == 0x4D4D || id == 0x3D3D || id == 0xC23D ? ProbeResult::Yes : ProbeResult::No;
}

ProbeResult ProbeLwo(std::span<const uint8_t> head, uint64_t) {
    return IsForm(head, "LWO2") || IsForm(head, "LWOB") || IsForm(head, "LWLO") ? ProbeResult::Yes : ProbeResult::No;
}

ProbeResult ProbeLws(std::span<const uint8_t> head, uint64_t) {
    return StartsWith(head, "LWSC") ? ProbeResult::Yes : ProbeResult::No;
}

ProbeResult ProbeAmapi(std::span<const uint8_t> head, uint64_t) {
    return StartsWith(head, "AMAP") ? ProbeResult::Yes : ProbeResult::No;
}

ProbeResult ProbeDxf(std::span<const uint8_t> head, uint64_t) {
    std::string_view s = SkipSpace(Text(head));
    if (s.empty() || s[0] < '0' || s[0] > '9') return ProbeResult::No;
    std::string_view code = NextLine(s), value = NextLine(s);
    if (code == "999") { // a comment may come before the first section
        code = NextLine(s);
        value = NextLine(s);
    }
    return code == "0" && value == "SECTION" ? ProbeResult::Yes : ProbeResult::Maybe;
}

ProbeResult ProbeObj(std::span<const uint8_t>, uint64_t) {
    return ProbeResult::Maybe; // no signature: any text (even UTF-16) may be one
}

ProbeResult ProbeCob(std::span<const uint8_t> head, uint64_t) {
    return StartsWith(head, "Caligari ") ? ProbeResult::Yes : ProbeResult::No;
}

ProbeResult ProbeVrml1(std::span<const uint8_t> head, uint64_t) {
    if (IsVrml1Header(head)) return ProbeResult::Yes;
    return IsVrml2Header(head) || IsGzip(head) ? ProbeResult::No : ProbeResult::Maybe;
}

ProbeResult ProbeVrml97(std::span<const uint8_t> head, uint64_t) {
    // Compressed worlds are VRML97 only (".wrz", ".wrl.gz").
    if (IsVrml2Header(head) || IsGzip(head)) return ProbeResult::Yes;
    return IsVrml1Header(head) ? ProbeResult::No : ProbeResult::Maybe;
}

ProbeResult ProbeStl(std::span<const uint8_t> head, uint64_t size) {
    // Binary: the record count at offset 80 accounts for the whole length exactly.
    if (head.size() >= 84) {
        const uint64_t n = head[80] | uint64_t(head[81]) << 8 | uint64_t(head[82]) << 16 | uint64_t(head[83]) << 24;
        if (n != 0 && size == n * 50 + 84) return ProbeResult::Yes;
    }
    return StartsWithNoCase(SkipSpace(Text(head)), "solid") ? ProbeResult::Yes : ProbeResult::Maybe;
}

ProbeResult ProbeKmz(std::span<const uint8_t> head, uint64_t) {
    return StartsWith(head, std::string_view("PK\x03\x04", 4)) ? ProbeResult::Yes : ProbeResult::No;
}

ProbeResult ProbeLxo(std::span<const uint8_t> head, uint64_t) {
    return IsForm(head, "LXOB") ? ProbeResult::Yes : ProbeResult::No;
}
