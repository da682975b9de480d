#pragma once
// Drawings from before UTF-8 name their single-byte Windows code page in $DWGCODEPAGE
// ("ANSI_1251"); names in them are read through that page's upper half.
#include <string_view>

// Bytes 0x80..0xFF of the named page as UTF-16 (128 entries), or null for a page we do
// not know (the caller then reads bytes as Latin-1).
const char16_t* DxfCodePageHighHalf(std::string_view name);
