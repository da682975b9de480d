// Text decoding shared by the mesh readers.
#include "formats/mesh/MeshText.h"

namespace meshio {

std::string_view PrepareText(std::span<const uint8_t> data, int textMode, std::string& storage) {
    std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
    if (textMode != TEXT_MODE_ANSI && text.size() >= 3 && text.substr(0, 3) == "\xEF\xBB\xBF") return text.substr(3);
    const bool utf16 = text.size() >= 2 && ((uint8_t(text[0]) == 0xFF && uint8_t(text[1]) == 0xFE) ||
                                            (uint8_t(text[0]) == 0xFE && uint8_t(text[1]) == 0xFF));
    if (textMode == TEXT_MODE_AUTO && utf16) {
        IoFile f(true, TEXT_MODE_AUTO);
        f.OpenMemory(data.data(), data.size());
        CXStringW line;
        storage.clear();
        storage.reserve(data.size() / 2 + 16);
        while (f.ReadString(line)) {
            storage += WideToUtf8(line.view());
            storage += '\n';
        }
        f.CloseFile();
        return storage;
    }
    return text;
}

} // namespace meshio
