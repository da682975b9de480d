#include "plugin/host/Color.h"

#include <cmath>

namespace {
uint8_t ToByte(float f) {
    if (!(f > 0)) return 0; // also NaN
    if (f >= 1) return 255;
    return static_cast<uint8_t>(std::lround(f * 255.0f));
}
} // namespace

void CRGBColor::SetColor4f(float fr, float fg, float fb, float fa) {
    r = ToByte(fr);
    g = ToByte(fg);
    b = ToByte(fb);
    a = ToByte(fa);
}

CRGBColor CGammaColor::GetDegammaColor(const CRGBColor& c, float gamma) {
    auto de = [gamma](uint8_t v) {
        return static_cast<uint8_t>(std::lround(255.0 * std::pow(v / 255.0, static_cast<double>(gamma))));
    };
    return {de(c.r), de(c.g), de(c.b), c.a};
}
