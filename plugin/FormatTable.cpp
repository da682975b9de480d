// The format rows as data: the list of FormatList.h without its parser classes.
#include "plugin/FormatTable.h"

#include "plugin/FormatList.h"
#include "plugin/host/Parser.h"
#include "plugin/host/XString.h"

#define ORBISCOPE_ROW(cls, id, desc, exts, flags, probe) {desc, exts, FourCC(id), flags, probe},
const FormatRow kFormatTable[14] = {ORBISCOPE_FORMATS(ORBISCOPE_ROW)};
#undef ORBISCOPE_ROW

uint32_t FormatRow::ReadProvider() const { return CanRead() ? PROVIDER_PLUGIN : PROVIDER_NONE; }
uint32_t FormatRow::WriteProvider() const { return CanWrite() ? PROVIDER_PLUGIN : PROVIDER_NONE; }

bool FormatRow::ClaimsExtension(std::string_view ext) const {
    std::string_view list(extensions);
    while (!list.empty()) {
        const size_t bar = list.find('|');
        const std::string_view one = list.substr(0, bar);
        if (CXStringA(one).CompareNoCase(ext) == 0) return true;
        list = bar == std::string_view::npos ? std::string_view() : list.substr(bar + 1);
    }
    return false;
}

int FindFormatIndex(uint32_t typeID) {
    for (size_t i = 0; i < kFormatCount; ++i)
        if (kFormatTable[i].typeID == typeID) return static_cast<int>(i);
    return -1;
}

uint32_t GuessReader(std::string_view ext, std::span<const uint8_t> head, uint64_t size) {
    const FormatRow* best = nullptr;
    ProbeResult bestSays = ProbeResult::No;
    for (const FormatRow& row : kFormatTable) {
        if (!row.CanRead() || !row.ClaimsExtension(ext)) continue;
        const ProbeResult says = row.probe ? row.probe(head, size) : ProbeResult::Maybe;
        if (!best || says > bestSays) {
            best = &row;
            bestSays = says;
        }
    }
    return best ? best->typeID : 0;
}
