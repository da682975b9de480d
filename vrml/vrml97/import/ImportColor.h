#pragma once
// VRML colours (floats, nominally 0..1) as host 8-bit colours: each component is
// clamped to 0..1 (NaN counts as 0), multiplied by 255.0 and cut to a byte.
#include <cstdint>

#include "plugin/host/Color.h"

namespace vrml97import {

inline uint8_t ColorByte(float c) {
    double v = c > 0 ? (c < 1 ? static_cast<double>(c) : 1.0) : 0.0; // NaN fails both tests: 0
    return static_cast<uint8_t>(v * 255.0);
}

inline CRGBColor ColorFromFloats(const float* rgb) {
    CRGBColor c;
    c.SetColor(ColorByte(rgb[0]), ColorByte(rgb[1]), ColorByte(rgb[2]), 255);
    return c;
}

} // namespace vrml97import
