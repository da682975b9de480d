#pragma once
// DXF colour numbers: 1..255 index a fixed table; 0 is "by block", 256 "by layer",
// and a negative layer colour means the layer is off (its magnitude is the colour).
#include <cstdint>

constexpr int kDxfByBlock = 0;
constexpr int kDxfByLayer = 256;

// 0xRRGGBB for a colour number (sign ignored); anything outside 1..255 gives 7 (white).
uint32_t DxfAciToRgb(int index);
