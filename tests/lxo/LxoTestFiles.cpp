#include "LxoTestFiles.h"

#include <bit>
#include <cstring>

namespace lxotest {

static uint32_t Be32(const std::string& s, size_t at) {
    return (uint32_t(uint8_t(s[at])) << 24) | (uint32_t(uint8_t(s[at + 1])) << 16) |
           (uint32_t(uint8_t(s[at + 2])) << 8) | uint8_t(s[at + 3]);
}

std::vector<RawChunk> ListChunks(const std::string& b) {
    std::vector<RawChunk> out;
    size_t p = 12;
    while (p + 8 <= b.size()) {
        RawChunk c{Be32(b, p), Be32(b, p + 4), {}};
        c.payload = b.substr(p + 8, c.size);
        p += 8 + size_t(c.size);
        out.push_back(std::move(c));
    }
    return out;
}

std::vector<RawChunk> ListSubChunks(const std::string& payload, size_t p) {
    std::vector<RawChunk> out;
    while (p + 6 <= payload.size()) {
        RawChunk c{Be32(payload, p), (uint32_t(uint8_t(payload[p + 4])) << 8) | uint8_t(payload[p + 5]), {}};
        c.payload = payload.substr(p + 6, c.size);
        p += 6 + c.size;
        out.push_back(std::move(c));
    }
    return out;
}

std::string IdText(uint32_t id) {
    std::string s(4, ' ');
    for (int i = 0; i < 4; ++i) s[i] = char(id >> (24 - 8 * i));
    return s;
}

std::string U4(uint32_t v) {
    std::string s(4, 0);
    for (int i = 0; i < 4; ++i) s[i] = char(v >> (24 - 8 * i));
    return s;
}
std::string U2(uint16_t v) { return std::string{char(v >> 8), char(v)}; }
std::string F4(float f) { return U4(std::bit_cast<uint32_t>(f)); }
std::string Chunk(const char* id, const std::string& payload) {
    return std::string(id, 4) + U4(uint32_t(payload.size())) + payload;
}
std::string Sub(const char* id, const std::string& payload) {
    return std::string(id, 4) + U2(uint16_t(payload.size())) + payload;
}
std::string Form(const std::string& chunks) { return "FORM" + U4(uint32_t(chunks.size() + 4)) + "LXOB" + chunks; }

void WriteDumpSample(const std::string& path) {
    using namespace lxoid;
    LxoWriter w(path.c_str());
    LxoFileChunk form(w);
    { LxoVersionChunk c(w, 2, 1, "orbiscope"); }
    {
        LxoChunk c(w, APPV);
        const uint32_t v[4] = {301, 1, 2, 3};
        w.WriteU4(v, 4);
        w.WriteS0("app");
    }
    { LxoTagsChunk c(w, {"Default", "Metal"}); }
    { LxoChannelNamesChunk c(w, {"unknown", "size", "pos"}); }
    {
        LxoLayerInfo l;
        l.index = 1;
        l.flags = 0x105;
        l.pivot[1] = 0.5f;
        l.name = "Body";
        l.block5[0] = std::bit_cast<uint32_t>(2.0f);
        l.block5[1] = std::bit_cast<uint32_t>(0.25f);
        l.referenceID = 7;
        l.tail[0] = 16;
        LxoLayerChunk c(w, l);
    }
    {
        const float pts[9] = {0, 0, 0, 1, 0, 0, 0, 1.5f, -2};
        LxoPointsChunk c(w, pts, 3);
    }
    {
        LxoChunk c(w, BBOX);
        const float b[6] = {0, 0, -2, 1, 1.5f, 0};
        w.WriteF4(b, 6);
    }
    {
        LxoChunk c(w, VMPA);
        w.WriteU4(1);
        w.WriteU4(6);
    }
    {
        LxoVertexMapChunk c(w, TXUV, 2, "Texture");
        const float a[2] = {0, 1}, b[2] = {0.5f, 0.25f};
        c.Add(0, a);
        c.Add(0x12345, b);
    }
    {
        LxoPolygonsChunk c(w, FACE);
        const uint32_t tri[3] = {0, 1, 2};
        c.AddPolygon(tri, 3);
    }
    {
        LxoPolygonsChunk c(w, CURV);
        const uint32_t line[2] = {2, 0};
        c.AddPolygon(line, 2, 3);
    }
    {
        LxoVertexMapDiscChunkEx c(w, TXUV, 2, "Texture");
        const float a[2] = {1, 0};
        c.Add(1, 0, a);
    }
    {
        LxoPolyTagChunk c(w, MATR);
        c.Add(0, 1);
        c.Add(1, 5);
    }
    {
        LxoChunk c(w, THUM);
        w.WriteU2(4);
        w.WriteU2(2);
        w.WriteU1(2);
        w.WriteU1(0);
        const uint8_t px[16] = {};
        w.WriteBytes(px, sizeof(px));
    }
    {
        LxoChunk c(w, PRVW);
        w.WriteU2(1);
        w.WriteU2(1);
        w.WriteU4(0x103);
        w.WriteU4(1);
        w.WriteBytes("abc", 3);
    }
    {
        LxoChunk c(w, ITEM);
        uint32_t ref = 0;
        w.WriteItemHeader("mesh", "Body", ref);
        { LxoUniqueSubChunk s(w, "mesh001"); }
        { LxoLayerSubChunk s(w, 1, 5, 0xc8c8c8ff); }
        { LxoLinkSubChunk s(w, "parent", 3, 0); }
        { LxoChannelValueSubChunk s(w, "size", 1.0f); }
        { LxoChannelValueSubChunk s(w, "pos", int32_t(-4)); }
        {
            LxoSubChunk s(w, CHAN); // named, a hint string with stepped interpolation
            w.WriteS0("order");
            w.WriteU2(0x413);
            w.WriteS0("zxy");
        }
        {
            LxoSubChunk s(w, CHAN); // envelope-driven integer: prints its envelope index
            w.WriteS0("visible");
            w.WriteU2(0x11);
            w.WriteU4(2);
        }
        {
            LxoSubChunk s(w, CHAN); // the special float type word
            w.WriteS0("scale");
            w.WriteU2(0x4E56);
            w.WriteF4(0.5f);
        }
        {
            LxoSubChunk s(w, CHNV);
            w.WriteS0("pos");
            w.WriteU2(2);
            w.WriteU2(2);
            w.WriteS0("X");
            w.WriteF4(1.0f);
            w.WriteS0("Y");
            w.WriteF4(-1.0f);
        }
        {
            LxoSubChunk s(w, CHNS);
            w.WriteS0("ptag");
            w.WriteS0("Default");
        }
        {
            LxoSubChunk s(w, GRAD);
            w.WriteS0("diffAmt");
            w.WriteVX(3);
            w.WriteU4(1);
            w.WriteS0("time");
        }
        {
            LxoSubChunk s(w, ITAG);
            w.WriteU4(LxoId('L', 'O', 'C', 'K'));
            w.WriteS0("locked");
        }
        {
            LxoSubChunk s(w, LxoId('Z', 'Z', 'Z', 'Z'));
            w.WriteU2(9);
        }
    }
    {
        LxoChunk c(w, ENVL);
        w.WriteVX(0);
        w.WriteU4(0);
        {
            LxoSubChunk s(w, PRE_);
            w.WriteU2(1);
        }
        {
            LxoSubChunk s(w, POST);
            w.WriteU2(2);
        }
        {
            LxoSubChunk s(w, KEY_);
            w.WriteF4(0.5f);
            w.WriteF4(2.0f);
        }
        {
            LxoSubChunk s(w, TANI);
            w.WriteU2(0);
            w.WriteU2(6);
            const float f[3] = {0.5f, 1, 2};
            w.WriteF4(f, 3);
        }
        {
            LxoSubChunk s(w, TANO);
            w.WriteU2(1);
            w.WriteU2(3);
            w.WriteU2(0);
            const float f[3] = {0, 0.5f, 1};
            w.WriteF4(f, 3);
        }
        {
            LxoSubChunk s(w, FLAG);
            w.WriteU4(0x10);
        }
    }
    {
        LxoChunk c(w, ACTN);
        w.WriteS0("setup");
        w.WriteS0("");
        w.WriteU4(2);
        {
            LxoSubChunk s(w, PRNT);
            w.WriteU4(1);
        }
        {
            LxoSubChunk s(w, ITEM);
            w.WriteU4(0);
        }
        {
            LxoSubChunk s(w, CHAN);
            w.WriteU2(1);
            w.WriteU2(2);
            w.WriteU2(0);
            w.WriteF4(4.0f);
        }
        {
            LxoSubChunk s(w, CHAN);
            w.WriteU2(2);
            w.WriteU2(0x12);
            w.WriteU2(5);
            w.WriteF4(1.0f);
        }
        {
            LxoSubChunk s(w, AAIT);
            w.WriteU4(12);
        }
    }
    {
        LxoChunk c(w, LxoId('A', 'B', 'C', 'D'));
        w.WriteU4(1);
    }
}

static void WriteLayer(LxoWriter& w, uint16_t index, uint32_t ref, float offset) {
    using namespace lxoid;
    LxoLayerInfo l;
    l.index = index;
    l.referenceID = ref;
    l.name = "L" + std::to_string(index);
    { LxoLayerChunk c(w, l); }
    const float pts[12] = {offset, 0, 0, offset + 1, 0, 0, offset + 1, 1, 0, offset, 1, 0};
    { LxoPointsChunk c(w, pts, 4); }
    {
        LxoChunk c(w, BBOX);
        const float b[6] = {offset, 0, 0, offset + 1, 1, 0};
        w.WriteF4(b, 6);
    }
    {
        LxoChunk c(w, VMPA);
        w.WriteU4(1);
        w.WriteU4(6);
    }
    {
        LxoVertexMapChunk c(w, TXUV, 2, "Texture");
        for (uint32_t i = 0; i < 4; ++i) c.Add(i, pts + 3 * i);
    }
    {
        LxoPolygonsChunk c(w, FACE);
        const uint32_t q[4] = {0, 1, 2, 3};
        c.AddPolygon(q, 4);
    }
    {
        LxoPolyTagChunk c(w, MATR);
        c.Add(0, 0);
    }
}

void WriteTwoLayers(const std::string& path) {
    using namespace lxoid;
    LxoWriter w(path.c_str());
    LxoFileChunk form(w);
    { LxoVersionChunk c(w, 2, 1, "orbiscope"); }
    { LxoTagsChunk c(w, {"Default"}); }
    WriteLayer(w, 1, 7, 0);
    WriteLayer(w, 2, 9, 10);
    { LxoChannelNamesChunk c(w, {"unknown", "size"}); }
    for (uint32_t ref : {7u, 9u}) {
        LxoChunk c(w, ITEM);
        uint32_t id = ref;
        w.WriteItemHeader("mesh", "", id);
        { LxoUniqueSubChunk s(w, "mesh" + std::to_string(ref)); }
        { LxoLayerSubChunk s(w, ref == 7 ? 1 : 2, 5, 0xc8c8c8ff); }
        { LxoChannelValueSubChunk s(w, "size", 1.0f); }
    }
}

} // namespace lxotest
