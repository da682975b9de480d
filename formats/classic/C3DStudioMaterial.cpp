#include "formats/classic/C3DStudioMaterial.h"

#include <algorithm>
#include <cmath>
#include <string_view>

#include "plugin/host/ChunkWalker.h"
#include "plugin/host/Color.h"
#include "plugin/host/Material.h"
#include "plugin/host/Parser.h"
#include "plugin/host/Scene.h"

namespace {

// Percentages live in 16 bits in the record; float fractions are truncated into them.
int16_t PercentFromFraction(float f) {
    float p = f * 100.0f;
    if (!(p == p)) return 0;
    if (p >= 32767.0f) return 32767;
    if (p <= -32768.0f) return -32768;
    return static_cast<int16_t>(p);
}

uint8_t ByteFromUnit(float f) {
    float v = f * 255.0f;
    if (!(v > 0.0f)) return 0; // also NaN
    if (v >= 255.0f) return 255;
    return static_cast<uint8_t>(v);
}

bool ReadString(CBinaryCursor& c, std::string& out) {
    std::string_view s;
    if (!c.cstring(s, k3DSMaxString)) return false;
    out.assign(s);
    return true;
}

// Walks the sub-chunks of `body`, calling fn(chunk) for each; false on damage or cancel.
template <typename F> bool Walk(CBinaryCursor& body, const C3DParser& parser, F&& fn) {
    CChunkWalker walker(body, kChunk3DS);
    Chunk c;
    for (;;) {
        ChunkStatus s = walker.Next(c);
        if (s == ChunkStatus::End) return true;
        if (s != ChunkStatus::Ok || parser.IsCancelled()) return false;
        if (!fn(c)) return false;
    }
}

// A colour chunk: its sub-chunks update three registers, and after each one the
// target is recomputed. A linear colour wins only while no 24-bit or float colour came.
bool ParseColor(CBinaryCursor& body, uint8_t target[3], const C3DParser& parser) {
    uint8_t rgb24[3] = {}, linear[3] = {};
    bool seen24 = false, seenLinear = false;
    return Walk(body, parser, [&](Chunk& c) {
        switch (c.id) {
        case 0x0010: {
            float f[3] = {c.payload.f32le(), c.payload.f32le(), c.payload.f32le()};
            if (!c.payload.ok()) return false;
            for (int i = 0; i < 3; ++i) rgb24[i] = ByteFromUnit(f[i]);
            seen24 = true;
            break;
        }
        case 0x0011:
            if (!c.payload.read(rgb24, 3)) return false;
            seen24 = true;
            break;
        case 0x0012:
            if (!c.payload.read(linear, 3)) return false;
            seenLinear = true;
            break;
        default: break;
        }
        if (seenLinear && !seen24) {
            std::copy(linear, linear + 3, target);
        } else {
            CRGBColor g = CGammaColor::GetDegammaColor(CRGBColor(rgb24[0], rgb24[1], rgb24[2]), 1.3f);
            target[0] = g.r;
            target[1] = g.g;
            target[2] = g.b;
        }
        return true;
    });
}

bool ParsePercent(CBinaryCursor& body, int16_t& target, const C3DParser& parser) {
    return Walk(body, parser, [&](Chunk& c) {
        if (c.id == 0x0030) {
            int16_t v = c.payload.i16le();
            if (!c.payload.ok()) return false;
            target = v;
        } else if (c.id == 0x0031) {
            float f = c.payload.f32le();
            if (!c.payload.ok()) return false;
            target = PercentFromFraction(f);
        }
        return true;
    });
}

bool ReadFloat(CBinaryCursor& c, float& out) {
    float v = c.f32le();
    if (!c.ok()) return false;
    out = v;
    return true;
}

bool ParseMap(CBinaryCursor& body, C3DSMapSlot& slot, bool isMask, const C3DParser& parser) {
    C3DSMapPart& part = isMask ? slot.mask : slot.map;
    return Walk(body, parser, [&](Chunk& c) {
        CBinaryCursor& p = c.payload;
        switch (c.id) {
        case 0x0030:
        case 0x0031: {
            int16_t pct = 0;
            if (c.id == 0x0030) pct = p.i16le();
            else pct = PercentFromFraction(p.f32le());
            if (!p.ok()) return false;
            if (!isMask) slot.strength = static_cast<uint32_t>(static_cast<int32_t>(pct));
            return true;
        }
        case 0xA300: return ReadString(p, part.fileName);
        case 0xA350: {
            uint16_t t = p.u16le();
            if (!p.ok()) return false;
            if (t & 1) t |= 0x10;
            part.tiling = t;
            return true;
        }
        case 0xA351: part.tiling = p.u16le(); return p.ok();
        case 0xA352: {
            float x = 0;
            if (!ReadFloat(p, x)) return false;
            float b = (x - 1.0f) / 7.0f;
            part.blur = b > 1.0f ? 1.0f : (b > 0.0f ? b : 0.0f);
            return true;
        }
        case 0xA353: return ReadFloat(p, part.blur);
        case 0xA354: return ReadFloat(p, part.uScale);
        case 0xA356: return ReadFloat(p, part.vScale);
        case 0xA358: return ReadFloat(p, part.uOffset);
        case 0xA35A: return ReadFloat(p, part.vOffset);
        case 0xA35C: {
            float deg = 0;
            if (!ReadFloat(p, deg)) return false;
            double rad = double(deg) * 3.14159265358979323846 / 180.0;
            part.rotSin = static_cast<float>(std::sin(rad));
            part.rotCos = static_cast<float>(std::cos(rad));
            return true;
        }
        case 0xA360:
        case 0xA362:
        case 0xA364:
        case 0xA366:
        case 0xA368: return p.read(part.tints[(c.id - 0xA360) / 2], 3);
        default: return true;
        }
    });
}

// Placement of a map from its map part; the formulas are the format's own, kept as they are.
void PlaceMap(CMaterialMap& m, const C3DSMapPart& part) {
    const float s = part.rotSin, c = part.rotCos;
    const float t = c != 0.0f ? -s / c : 0.0f;
    const float k = std::fabs(c - s);
    float su = k * part.uScale, sv = k * part.vScale;
    if (part.tiling & 0x2) {
        su *= 2.0f;
        sv *= 2.0f;
    }
    m.scaleU = su;
    m.scaleV = sv;
    m.hpb = C3DVector(0.0f, 0.0f, -std::atan2(s, c));
    const float d = t + 1.0f;
    const float tOverD = d != 0.0f ? t / d : 0.0f;
    const float oneOverD = d != 0.0f ? 1.0f / d : 0.0f;
    m.translateU = -(tOverD + part.uOffset);
    m.translateV = -(part.vOffset + oneOverD);
    if (part.tiling & 0x10) {
        m.SetFlag(1, true);
        m.SetFlag(2, true);
    }
}

} // namespace

int StudioMapSlot(uint16_t id, bool& isMask) {
    isMask = false;
    switch (id) {
    case 0xA200: return 0;
    case 0xA33A: return 1;
    case 0xA210: return 2;
    case 0xA230: return 3;
    case 0xA204: return 4;
    case 0xA33C: return 5;
    case 0xA33D: return 6;
    case 0xA220: return 7;
    default: break;
    }
    isMask = true;
    switch (id) {
    case 0xA33E: return 0;
    case 0xA340: return 1;
    case 0xA342: return 2;
    case 0xA344: return 3;
    case 0xA346: return 5; // crossed with 0xA348 in the files, deliberately kept
    case 0xA348: return 4;
    case 0xA34A: return 6;
    case 0xA34C: return 7;
    default: break;
    }
    isMask = false;
    return -1;
}

bool ParseStudioMaterial(CBinaryCursor& payload, C3DSMaterialRecord& rec, const C3DParser& parser) {
    return Walk(payload, parser, [&](Chunk& c) {
        switch (c.id) {
        case 0xA000: return ReadString(c.payload, rec.name);
        case 0xA010: return ParseColor(c.payload, rec.ambient, parser);
        case 0xA020: return ParseColor(c.payload, rec.diffuse, parser);
        case 0xA030: return ParseColor(c.payload, rec.specular, parser);
        case 0xA040: return ParsePercent(c.payload, rec.shininess, parser);
        case 0xA050: return ParsePercent(c.payload, rec.transparency, parser);
        default: break;
        }
        bool isMask = false;
        int slot = StudioMapSlot(static_cast<uint16_t>(c.id), isMask);
        if (slot < 0) return true;
        C3DSMapSlot& s = rec.slots[slot];
        s.present = true;
        return ParseMap(c.payload, s, isMask, parser);
    });
}

C3DMaterial* BuildStudioMaterial(C3DScene& scene, const C3DSMaterialRecord& rec, int32_t uvChannel) {
    C3DMaterial* base = scene.CreateNewMaterial(MATERIAL_STANDARD);
    if (!base) return nullptr;
    auto* m = dynamic_cast<C3DStandardMaterial*>(base);
    if (m) {
        m->ambient.SetColor(rec.ambient[0], rec.ambient[1], rec.ambient[2]);
        m->ambientFactor = 0.2f;
        m->specular.SetColor(rec.specular[0], rec.specular[1], rec.specular[2]);
        m->specularFactor = rec.shininess / 100.0f;
    }
    base->diffuse.SetColor(rec.diffuse[0], rec.diffuse[1], rec.diffuse[2]);
    base->diffuseFactor = 0.7f;
    base->transparency = rec.transparency / 100.0f;

    const C3DSMapSlot& tex = rec.slots[0];
    if (tex.present && !tex.map.fileName.empty()) {
        // The scene's maps are UV-mapped through the mesh's coordinate channel.
        CMaterialMap* mm =
            base->AddMaterialMap(CXStringW(WidenBytes(tex.map.fileName)), uvChannel, MAP_DIFFUSE, PROJ_UV);
        if (mm) PlaceMap(*mm, tex.map);
    }
    const C3DSMapSlot& opa = rec.slots[2];
    if (opa.present && !opa.map.fileName.empty()) {
        CMaterialMap* mm =
            base->AddMaterialMap(CXStringW(WidenBytes(opa.map.fileName)), uvChannel + 1, MAP_OPACITY, PROJ_UV);
        if (mm) PlaceMap(*mm, opa.map);
    }
    base->SetName(CXStringW(WidenBytes(rec.name)));
    return base;
}
