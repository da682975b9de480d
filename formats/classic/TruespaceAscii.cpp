// trueSpace ASCII bodies: a header line per chunk ("PolH V0.08 Id 1 Parent 0 Size 00000123")
// followed by keyword lines. The Size field is off by one in every known file, so a
// chunk's body runs to the next line shaped like a chunk header, never by its size.
// Counts in the text are checked against the bytes of the chunk before anything is reserved.
#include <cstring>
#include <string>

#include "formats/classic/TruespaceModel.h"
#include "plugin/host/TextScanner.h"

namespace tsio {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsAlpha(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

// Consumes [-]digits at `p`; false when there are none or more than 18.
bool Number(std::string_view s, size_t& p, long long& v, bool allowSign) {
    bool neg = false;
    if (allowSign && p < s.size() && s[p] == '-') {
        neg = true;
        ++p;
    }
    const size_t start = p;
    long long x = 0;
    while (p < s.size() && IsDigit(s[p]) && p - start < 18) x = x * 10 + (s[p++] - '0');
    if (p == start || (p < s.size() && IsDigit(s[p]))) return false;
    v = neg ? -x : x;
    return true;
}

bool Literal(std::string_view s, size_t& p, std::string_view lit) {
    if (s.substr(p, lit.size()) != lit) return false;
    p += lit.size();
    return true;
}

// Moves `c` past the word `w` (after spaces); false when the next word differs.
bool Keyword(textscan::TextCursor& c, std::string_view w) {
    std::string_view got;
    textscan::TextCursor save = c;
    if (!c.ReadWord(got) || got != w) {
        c = save;
        return false;
    }
    return true;
}

bool Floats(textscan::TextCursor& c, float* v, size_t n) {
    for (size_t i = 0; i < n; ++i)
        if (!c.ReadFloat(v[i])) return false;
    return true;
}

// The rest of the current line, trimmed.
std::string_view LineRest(textscan::TextCursor& c) { return textscan::Trim(c.RestOfLine()); }

bool ReadObjectBlock(textscan::TextCursor& c, ObjectBlock& b) {
    if (!Keyword(c, "Name")) return false;
    std::string_view name = LineRest(c);
    // ",<n>" at the end is the duplicate counter.
    const size_t comma = name.rfind(',');
    if (comma != std::string_view::npos && comma + 1 < name.size()) {
        size_t p = comma + 1;
        long long d = 0;
        if (Number(name, p, d, false) && p == name.size() && d <= 0xFFFF) {
            b.dup = static_cast<uint16_t>(d);
            name = name.substr(0, comma);
        }
    }
    b.name = name == "NoName" ? std::string() : std::string(name);
    if (!Keyword(c, "center") || !Floats(c, b.center, 3)) return false;
    const char* axisNames[3] = {"x", "y", "z"};
    for (int a = 0; a < 3; ++a)
        if (!Keyword(c, axisNames[a]) || !Keyword(c, "axis") || !Floats(c, b.axes[a], 3)) return false;
    if (!Keyword(c, "Transform")) return false;
    for (auto& row : b.tm)
        if (!Floats(c, row, 4)) return false;
    float last[4];
    return Floats(c, last, 4);
}

bool ReadCount(textscan::TextCursor& c, std::string_view w1, std::string_view w2, unsigned& n) {
    return Keyword(c, w1) && (w2.empty() || Keyword(c, w2)) && c.ReadUInt(n);
}

bool ReadMesh(textscan::TextCursor& c, Mesh& m, File& file) {
    unsigned nv = 0, nuv = 0, nf = 0;
    // Each count is held against the bytes left: a point needs at least 6 ("0 0 0\n").
    if (!ReadCount(c, "World", "Vertices", nv) || uint64_t(nv) * 6 > c.Remaining().size()) return false;
    m.points->SetSize(static_cast<int>(nv));
    if (!Floats(c, m.points->GetData(), size_t(nv) * 3)) return false;
    if (!ReadCount(c, "Texture", "Vertices", nuv) || uint64_t(nuv) * 4 > c.Remaining().size()) return false;
    if (nuv > 0) {
        m.uv = std::make_unique<CUVWChannel>();
        CUVWPointList* uvp = m.uv->GetUVWPointList();
        uvp->SetSize(static_cast<int>(nuv));
        float* t = uvp->GetData();
        for (unsigned i = 0; i < nuv; ++i)
            if (!Floats(c, t + 3 * i, 2)) return false;
    }
    // "Face verts 0 flags 0 mat 0" is 26 bytes.
    if (!ReadCount(c, "Faces", "", nf) || uint64_t(nf) * 26 > c.Remaining().size()) return false;
    m.faces->Reserve(nf, size_t(nf) * 3);
    if (m.uv) m.uv->GetUVWFaceList()->Reserve(nf, size_t(nf) * 3);
    std::vector<uint32_t> verts, uvs;
    FaceTaker taker{m, nv, nuv};
    for (unsigned f = 0; f < nf; ++f) {
        std::string_view kind;
        if (!c.ReadWord(kind) || (kind != "Face" && kind != "Hole")) return false;
        unsigned n = 0, flags = 0, mat = 0;
        if (!Keyword(c, "verts") || !c.ReadUInt(n) || !Keyword(c, "flags") || !c.ReadUInt(flags)) return false;
        const bool hole = kind == "Hole" || (flags & kFaceHole);
        if (Keyword(c, "mat") && !c.ReadUInt(mat)) return false;
        // "<0,0>" is five bytes.
        if (uint64_t(n) * 5 > c.Remaining().size()) return false;
        verts.resize(n);
        uvs.resize(n);
        for (unsigned i = 0; i < n; ++i)
            if (!c.Match('<') || !c.ReadUInt(verts[i]) || !c.Match(',') || !c.ReadUInt(uvs[i]) || !c.Match('>'))
                return false;
        taker.Take(verts, uvs, hole, static_cast<uint16_t>(mat > 0xFFFF ? 0xFFFF : mat));
    }
    unsigned draw = 0;
    if (Keyword(c, "DrawFlags") && c.ReadUInt(draw)) m.drawFlags = draw;
    taker.Log(file.log);
    return true;
}

// "a,b,c" (the separators may carry spaces).
bool CommaFloats(std::string_view s, float* v, int n) {
    textscan::TextCursor c(s);
    for (int i = 0; i < n; ++i) {
        if (i && !c.Match(',')) return false;
        if (!c.ReadFloat(v[i])) return false;
    }
    return true;
}

// "<len><name>", as texture lines give file names.
std::string LengthPrefixed(std::string_view s) {
    size_t p = 0;
    long long n = 0;
    if (!Number(s, p, n, false)) return std::string(s);
    const size_t len = static_cast<size_t>(n);
    return std::string(s.substr(p, len));
}

void ReadTextureLine(std::string_view value, TextureRef& t) { t.file = LengthPrefixed(textscan::Trim(value)); }

// "offset u,v  repeats u,v  flags f"
void ReadTextureParams(std::string_view line, TextureRef& t) {
    textscan::TextCursor c(line);
    std::string_view w;
    while (c.ReadWord(w)) {
        std::string_view v;
        if (!c.ReadWord(v)) break;
        if (w == "offset") CommaFloats(v, t.offset, 2);
        else if (w == "repeats") CommaFloats(v, t.repeat, 2);
    }
}

bool ReadMaterial(std::string_view body, Material& m) {
    textscan::LineSplitter lines(body);
    std::string_view line;
    bool sawNumber = false;
    TextureRef* lastTexture = nullptr;
    while (lines.Next(line)) {
        textscan::TextCursor c(line);
        std::string_view key;
        if (!c.ReadWord(key)) continue;
        if (key == "mat#") {
            unsigned n = 0;
            if (!c.ReadUInt(n) || n > 0xFFFF) return false;
            m.number = static_cast<uint16_t>(n);
            sawNumber = true;
        } else if (key == "shader:") {
            std::string_view v;
            while (c.ReadWord(v)) {
                if (v == "facet:") {
                    std::string_view f;
                    if (!c.ReadWord(f)) break;
                    if (f.rfind("auto", 0) == 0) {
                        m.facet = 'a';
                        size_t p = 4;
                        long long a = 0;
                        if (Number(f, p, a, false) && a <= 255) m.angle = static_cast<uint8_t>(a);
                    } else if (f == "faceted") {
                        m.facet = 'f';
                    } else if (f == "smooth") {
                        m.facet = 's';
                    }
                } else if (v == "phong") {
                    m.shader = 'p';
                } else if (v == "flat") {
                    m.shader = 'f';
                } else if (v == "metal") {
                    m.shader = 'm';
                }
            }
        } else if (key == "rgb") {
            if (!CommaFloats(c.Remaining(), m.rgb, 3)) return false;
        } else if (key == "alpha") {
            if (!c.ReadFloat(m.alpha)) return false;
            std::string_view k;
            while (c.ReadWord(k)) {
                float v = 0;
                if (!c.ReadFloat(v)) return false;
                if (k == "ka") m.ka = v;
                else if (k == "ks") m.ks = v;
                else if (k == "exp") m.exp = v;
                else if (k == "ior") m.ior = v;
                else if (k == "kd") {
                    m.kd = v;
                    m.hasKd = true;
                }
            }
        } else if (key == "texture:") {
            ReadTextureLine(c.Remaining(), m.texture);
            lastTexture = &m.texture;
        } else if (key == "environment:") {
            ReadTextureLine(c.Remaining(), m.environment);
            lastTexture = &m.environment;
        } else if (key == "bump:") {
            ReadTextureLine(c.Remaining(), m.bump);
            lastTexture = &m.bump;
        } else if (key == "offset" && lastTexture) {
            ReadTextureParams(line, *lastTexture);
        }
    }
    return sawNumber;
}

void ReadShaderBox(std::string_view body, ShaderBox& box) {
    textscan::LineSplitter lines(body);
    std::string_view line;
    bool colourSlot = false;
    std::string_view shader;
    while (lines.Next(line)) {
        line = textscan::Trim(line);
        size_t p = 0;
        if (Literal(line, p, "Shader class:")) {
            colourSlot = textscan::Trim(line.substr(p)) == "color";
            shader = {};
            continue;
        }
        if (Literal(line, p, "Shader name:")) {
            // The internal name is the one in parentheses.
            const size_t open = line.rfind('('), close = line.rfind(')');
            if (open != std::string_view::npos && close != std::string_view::npos && close > open)
                shader = line.substr(open + 1, close - open - 1);
            continue;
        }
        if (!colourSlot) continue;
        const size_t colon = line.find(": ");
        if (colon == std::string_view::npos) continue;
        const std::string_view name = line.substr(0, colon);
        textscan::TextCursor c(line.substr(colon + 2));
        std::string_view type;
        if (!c.ReadWord(type)) continue;
        if (type == "string") {
            std::string_view rest = textscan::Trim(c.Remaining());
            if (rest.size() >= 2 && rest.front() == '"' && rest.back() == '"') rest = rest.substr(1, rest.size() - 2);
            if (shader == "caligari texture" && name == "file name") box.texture.file = std::string(rest);
        } else if (type == "float") {
            float v = 0;
            if (!c.ReadFloat(v) || shader != "caligari texture") continue;
            if (name == "S repeat") box.texture.repeat[0] = v;
            else if (name == "T repeat") box.texture.repeat[1] = v;
            else if (name == "S offset") box.texture.offset[0] = v;
            else if (name == "T offset") box.texture.offset[1] = v;
        } else if (type == "color" && name == "colour") {
            float rgb[3];
            if (!c.Match('(') || !c.ReadFloat(rgb[0]) || !c.Match(',') || !c.ReadFloat(rgb[1]) || !c.Match(',') ||
                !c.ReadFloat(rgb[2]))
                continue;
            box.hasColour = true;
            for (int k = 0; k < 3; ++k) box.colour[k] = rgb[k] / 255.0f;
        }
    }
}

} // namespace

bool ParseAsciiChunkHeader(std::string_view s, ChunkHeader& h) {
    // "TTTT V<major>.<minor> Id <id> Parent <parent> Size <spaces><size>"
    if (s.size() < 30 || !IsAlpha(s[0]) || s[4] != ' ' || s[5] != 'V') return false;
    for (int i = 1; i < 4; ++i)
        if (!IsAlpha(s[i]) && !IsDigit(s[i]) && s[i] != ' ') return false;
    size_t p = 6;
    long long major = 0, minor = 0, id = 0, parent = 0, size = 0;
    if (!Number(s, p, major, false) || !Literal(s, p, ".") || !Number(s, p, minor, false)) return false;
    if (!Literal(s, p, " Id ") || !Number(s, p, id, true)) return false;
    if (!Literal(s, p, " Parent ") || !Number(s, p, parent, true)) return false;
    if (!Literal(s, p, " Size ")) return false;
    while (p < s.size() && s[p] == ' ') ++p;
    if (!Number(s, p, size, false)) return false;
    while (p < s.size() && (s[p] == ' ' || s[p] == '\t')) ++p;
    if (p != s.size()) return false;
    std::memcpy(h.type, s.data(), 4);
    h.major = static_cast<int>(major & 0xFFFF);
    h.minor = static_cast<int>(minor & 0xFFFF);
    h.id = static_cast<int32_t>(id);
    h.parent = static_cast<int32_t>(parent);
    h.size = static_cast<uint64_t>(size);
    return true;
}

bool LooksLikeAsciiChunk(std::string_view body) {
    textscan::LineSplitter lines(body);
    std::string_view line;
    ChunkHeader h;
    return lines.Next(line) && ParseAsciiChunkHeader(line, h);
}

void ParseAscii(std::string_view body, File& out, const CancelQuery& cancel, const ProgressSink& progress) {
    textscan::LineSplitter lines(body);
    std::string_view line;
    ChunkHeader cur, next;
    bool have = false;
    size_t bodyStart = 0;
    // Lines before the first header are not part of any chunk.
    for (;;) {
        const size_t lineStart = lines.Position();
        const bool more = lines.Next(line);
        const bool isHeader = more && ParseAsciiChunkHeader(line, next);
        if (more && !isHeader) continue;
        if (have) {
            if (cancel && cancel()) return;
            if (progress) progress(bodyStart);
            const std::string_view chunk = body.substr(bodyStart, lineStart - bodyStart);
            const std::string_view t(cur.type, 4);
            ++out.chunks;
            if (t == "END ") {
                out.ended = true;
                return;
            }
            textscan::TextCursor c(chunk);
            if (t == "PolH" || t == "Grou" || t == "Lght" || t == "Came") {
                Object o;
                o.kind = t == "PolH"   ? ObjectKind::Mesh
                         : t == "Grou" ? ObjectKind::Group
                         : t == "Lght" ? ObjectKind::Light
                                       : ObjectKind::Camera;
                o.id = cur.id;
                o.parent = cur.parent;
                bool good = ReadObjectBlock(c, o.block);
                if (good && o.kind == ObjectKind::Mesh) {
                    Mesh m;
                    good = ReadMesh(c, m, out);
                    if (good) {
                        o.mesh = static_cast<int>(out.meshes.size());
                        out.meshes.push_back(std::move(m));
                    }
                }
                if (good) out.objects.push_back(std::move(o));
                else {
                    ++out.skipped;
                    out.log.push_back("damaged " + std::string(t) + " chunk " + std::to_string(cur.id) + " skipped");
                }
            } else if (t == "Mat1") {
                Material m;
                m.id = cur.id;
                m.parent = cur.parent;
                if (ReadMaterial(chunk, m)) out.materials.push_back(std::move(m));
                else {
                    ++out.skipped;
                    out.log.push_back("damaged Mat1 chunk " + std::to_string(cur.id) + " skipped");
                }
            } else if (t == "ShBx") {
                ShaderBox b;
                b.id = cur.id;
                b.parent = cur.parent;
                ReadShaderBox(chunk, b);
                out.shaders.push_back(std::move(b));
            } else if (t == "Unit") {
                int code = 0;
                if (Keyword(c, "Units") && c.ReadInt(code)) out.units.push_back({cur.parent, code});
            } else {
                ++out.skipped;
            }
        }
        if (!more) break;
        cur = next;
        have = true;
        bodyStart = lines.Position();
    }
}

} // namespace tsio
