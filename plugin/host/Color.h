#pragma once
// CRGBColor (8-bit RGBA) and the host bitmap library's gamma helper.
#include <cstdint>

class CRGBColor {
public:
    uint8_t r = 0, g = 0, b = 0, a = 255;
    CRGBColor() = default;
    CRGBColor(uint8_t ar, uint8_t ag, uint8_t ab, uint8_t aa = 255) : r(ar), g(ag), b(ab), a(aa) {}
    void SetColor(uint8_t ar, uint8_t ag, uint8_t ab, uint8_t aa = 255) {
        r = ar;
        g = ag;
        b = ab;
        a = aa;
    }
    // Floats in 0..1 are scaled by 255 and rounded; values outside are clamped.
    void SetColor4f(float fr, float fg, float fb, float fa = 1.0f);
    // Each byte divided by `scale` (255.0 gives 0..1).
    void GetColor4f(float out[4], float scale) const {
        out[0] = r / scale;
        out[1] = g / scale;
        out[2] = b / scale;
        out[3] = a / scale;
    }
    // Rec. 601 luma, 0..255.
    float GetLuminance() const { return 0.299f * r + 0.587f * g + 0.114f * b; }
    uint32_t GetRGBA() const { return (uint32_t(r) << 24) | (uint32_t(g) << 16) | (uint32_t(b) << 8) | a; }
    bool operator==(const CRGBColor& o) const { return r == o.r && g == o.g && b == o.b && a == o.a; }
    bool operator!=(const CRGBColor& o) const { return !(*this == o); }
};

class CGammaColor {
public:
    // Removes gamma `gamma` from a colour: c' = 255 * (c/255)^gamma per channel, rounded; alpha kept.
    static CRGBColor GetDegammaColor(const CRGBColor& c, float gamma);
};
