// trueSpace binary bodies: 20-byte chunk headers (type, major, minor, id, parent,
// size) in the byte order the file header names. Sizes are trusted only as far as
// the file goes; an object chunk whose fields run past its size is dropped whole.
#include <bit>
#include <cstring>
#include <string>

#include "formats/classic/TruespaceModel.h"
#include "plugin/host/BinaryCursor.h"
#include "plugin/host/HostTypes.h"

namespace tsio {

bool ReadHeader(std::span<const uint8_t> data, char& encoding, bool& bigEndian) {
    if (data.size() < kHeaderBytes || std::memcmp(data.data(), kSignature.data(), kSignature.size()) != 0) return false;
    encoding = static_cast<char>(data[15]);
    bigEndian = data[16] == 'H' && data[17] == 'L';
    return true;
}

void FaceTaker::Take(std::vector<uint32_t>& verts, std::vector<uint32_t>& uvs, bool hole, uint16_t material) {
    const auto n = static_cast<uint32_t>(verts.size());
    bool good = n >= 1;
    for (uint32_t i = 0; i < n; ++i) {
        if (verts[i] >= points) good = false;
        if (uvs[i] >= uvCount) {
            if (uvCount) ++badUvs;
            uvs[i] = 0;
        }
    }
    if (!good) {
        ++badFaces;
        return;
    }
    if (hole) {
        const int outer = mesh.faces->GetNumberOfFaces() - 1;
        if (outer < 0) ++badFaces;
        else mesh.holes.push_back({static_cast<uint32_t>(outer), verts, uvs});
        return;
    }
    mesh.faces->SetCurrentMaterial(material);
    uint32_t* f = mesh.faces->AddFace(static_cast<int>(n));
    for (uint32_t i = 0; i < n; ++i) f[i] = verts[n - 1 - i];
    if (mesh.uv) {
        uint32_t* t = mesh.uv->GetUVWFaceList()->AddFace(static_cast<int>(n));
        for (uint32_t i = 0; i < n; ++i) t[i] = uvs[n - 1 - i];
    }
}

void FaceTaker::Log(std::vector<std::string>& log) const {
    if (badFaces) log.push_back(std::to_string(badFaces) + " faces with vertex indices out of range dropped");
    if (badUvs) log.push_back(std::to_string(badUvs) + " texture vertex indices out of range set to 0");
}

bool LooksLikeBinaryChunk(std::span<const uint8_t> body, bool bigEndian) {
    if (body.size() < 20) return false;
    for (int i = 0; i < 4; ++i) {
        const uint8_t c = body[static_cast<size_t>(i)];
        const bool letter = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9');
        if (!letter && !(i > 0 && c == ' ')) return false;
    }
    CBinaryCursor c(body.subspan(4, 4));
    const uint16_t major = bigEndian ? c.u16be() : c.u16le();
    const uint16_t minor = bigEndian ? c.u16be() : c.u16le();
    return major < 100 && minor < 100;
}

namespace {

// Little- or big-endian reads over one chunk.
class Reader {
public:
    Reader(CBinaryCursor c, bool be) : m_c(c), m_be(be) {}
    uint8_t u8() { return m_c.u8(); }
    uint16_t u16() { return m_be ? m_c.u16be() : m_c.u16le(); }
    uint32_t u32() { return m_be ? m_c.u32be() : m_c.u32le(); }
    int32_t i32() { return static_cast<int32_t>(u32()); }
    float f32() { return m_be ? m_c.f32be() : m_c.f32le(); }
    bool ok() const { return m_c.ok(); }
    bool bigEndian() const { return m_be; }
    size_t remaining() const { return m_c.remaining(); }
    bool canRead(uint64_t n, uint64_t size) const { return m_c.canRead(n, size); }
    // U2 length + that many characters.
    std::string str() {
        const uint16_t n = u16();
        std::string s;
        if (!ok()) return s;
        auto b = m_c.bytes(n);
        s.assign(reinterpret_cast<const char*>(b.data()), b.size());
        return s;
    }
    bool peek(const char* tag2) const { return m_c.remaining() >= 2 && std::memcmp(m_c.current(), tag2, 2) == 0; }
    void skip(size_t n) { m_c.skip(n); }
    CBinaryCursor& cursor() { return m_c; }

private:
    CBinaryCursor m_c;
    bool m_be;
};

bool ReadObjectBlock(Reader& r, ObjectBlock& b) {
    b.dup = r.u16();
    b.name = r.str();
    for (float& v : b.center) v = r.f32();
    for (auto& axis : b.axes)
        for (float& v : axis) v = r.f32();
    for (auto& row : b.tm)
        for (float& v : row) v = r.f32();
    return r.ok();
}

bool ReadMesh(Reader& r, Mesh& m, File& file, int minor) {
    const uint32_t nv = r.u32();
    if (!r.ok() || !r.canRead(nv, 12)) return false;
    m.points->SetSize(static_cast<int>(nv));
    float* p = m.points->GetData();
    if (nv == 0) {
        // nothing to copy (and no array to copy into)
    } else if (!r.bigEndian() && std::endian::native == std::endian::little) {
        r.cursor().read(p, size_t(nv) * 12);
    } else {
        for (uint64_t i = 0; i < uint64_t(nv) * 3; ++i) p[i] = r.f32();
    }
    const uint32_t nuv = r.u32();
    if (!r.ok() || !r.canRead(nuv, 8)) return false;
    if (nuv > 0) {
        m.uv = std::make_unique<CUVWChannel>();
        CUVWPointList* uvp = m.uv->GetUVWPointList();
        uvp->SetSize(static_cast<int>(nuv));
        float* t = uvp->GetData();
        for (uint32_t i = 0; i < nuv; ++i) {
            t[3 * i] = r.f32();
            t[3 * i + 1] = r.f32();
        }
    }
    const uint32_t nf = r.u32();
    // The smallest face is its flags and count: three bytes.
    if (!r.ok() || !r.canRead(nf, 3)) return false;
    // A first pass over the faces counts the corners, so the lists are reserved exactly.
    uint64_t corners = 0;
    {
        Reader scan = r;
        for (uint32_t f = 0; f < nf && scan.ok(); ++f) {
            const uint8_t flags = scan.u8();
            const uint16_t n = scan.u16();
            if (!(flags & kFaceHole)) scan.u16();
            scan.skip(size_t(n) * 8);
            corners += n;
        }
        if (!scan.ok()) return false;
    }
    m.faces->Reserve(nf, corners);
    if (m.uv) m.uv->GetUVWFaceList()->Reserve(nf, corners);
    std::vector<uint32_t> verts, uvs;
    FaceTaker taker{m, nv, nuv};
    for (uint32_t f = 0; f < nf; ++f) {
        const uint8_t flags = r.u8();
        const uint16_t n = r.u16();
        const bool hole = (flags & kFaceHole) != 0;
        const uint16_t mat = hole ? 0 : r.u16();
        if (!r.ok() || !r.canRead(n, 8)) return false;
        verts.resize(n);
        uvs.resize(n);
        // The corners were checked to be there: read them without a check each.
        const uint8_t* src = r.cursor().current();
        r.skip(size_t(n) * 8);
        for (uint32_t i = 0; i < n; ++i, src += 8) {
            std::memcpy(&verts[i], src, 4);
            std::memcpy(&uvs[i], src + 4, 4);
            if (r.bigEndian() != (std::endian::native == std::endian::big)) {
                verts[i] = __builtin_bswap32(verts[i]);
                uvs[i] = __builtin_bswap32(uvs[i]);
            }
        }
        taker.Take(verts, uvs, hole, mat);
    }
    if (minor >= 8 && r.remaining() >= 4) m.drawFlags = r.u32();
    taker.Log(file.log);
    return r.ok();
}

bool ReadTextureRecord(Reader& r, TextureRef& t, bool amplitude) {
    r.u8(); // flags
    t.file = r.str();
    t.offset[0] = r.f32();
    t.offset[1] = r.f32();
    t.repeat[0] = r.f32();
    t.repeat[1] = r.f32();
    if (amplitude) r.f32();
    return r.ok();
}

bool ReadMaterial(Reader& r, Material& m) {
    m.number = r.u16();
    m.shader = static_cast<char>(r.u8());
    m.facet = static_cast<char>(r.u8());
    m.angle = r.u8();
    for (float& c : m.rgb) c = r.f32();
    m.alpha = r.f32();
    m.ka = r.f32();
    m.ks = r.f32();
    m.exp = r.f32();
    m.ior = r.f32();
    if (!r.ok()) return false;
    // Later versions add the diffuse factor; texture records start with a two-letter tag.
    if (r.remaining() >= 4 && !r.peek("t:") && !r.peek("e:") && !r.peek("b:")) {
        m.kd = r.f32();
        m.hasKd = true;
    }
    while (r.remaining() >= 2) {
        TextureRef t;
        if (r.peek("t:")) {
            r.skip(2);
            if (!ReadTextureRecord(r, m.texture, false)) break;
        } else if (r.peek("e:")) {
            r.skip(2);
            if (!ReadTextureRecord(r, m.environment, false)) break;
        } else if (r.peek("b:")) {
            r.skip(2);
            if (!ReadTextureRecord(r, m.bump, true)) break;
        } else {
            break;
        }
    }
    return true;
}

// The four shader slots; only the colour slot's texture or plain colour is kept.
void ReadShaderBox(Reader& r, ShaderBox& box, int minor) {
    for (int slot = 0; slot < 4 && r.remaining() > 0; ++slot) {
        const uint8_t cls = r.u8();
        const std::string shader = r.str();
        const uint32_t count = r.u32();
        // A parameter is at least its name length and type.
        if (!r.ok() || !r.canRead(count, 6)) return;
        for (uint32_t i = 0; i < count; ++i) {
            const std::string name = r.str();
            const uint32_t type = r.u32();
            float f[3] = {0, 0, 0};
            std::string s;
            switch (type) {
            case 3: f[0] = r.f32(); break;
            case 6: r.u32(); break;
            case 7:
                for (float& v : f) v = r.f32();
                break;
            case 10: s = r.str(); break;
            default: return; // a type of unknown size: nothing after it can be read
            }
            if (!r.ok()) return;
            if (cls != 0) continue;
            if (shader == "caligari texture") {
                if (name == "file name") box.texture.file = s;
                else if (name == "S repeat") box.texture.repeat[0] = f[0];
                else if (name == "T repeat") box.texture.repeat[1] = f[0];
                else if (name == "S offset") box.texture.offset[0] = f[0];
                else if (name == "T offset") box.texture.offset[1] = f[0];
            } else if (type == 7 && name == "colour") {
                box.hasColour = true;
                for (int k = 0; k < 3; ++k) box.colour[k] = f[k];
            }
        }
        if (minor >= 4) r.u16(); // slot flags
        if (!r.ok()) return;
    }
}

} // namespace

void ParseBinary(std::span<const uint8_t> body, bool bigEndian, File& out, const CancelQuery& cancel,
                 const ProgressSink& progress) {
    CBinaryCursor cur(body);
    while (cur.remaining() >= 20) {
        if (cancel && cancel()) return;
        if (progress) progress(cur.pos());
        char type[4];
        cur.read(type, 4);
        Reader h(cur.sub(16), bigEndian);
        h.u16(); // major
        const int minor = h.u16();
        const int32_t id = h.i32();
        const int32_t parent = h.i32();
        uint64_t size = h.u32();
        ++out.chunks;
        if (std::memcmp(type, "END ", 4) == 0) {
            out.ended = true;
            return;
        }
        if (size > cur.remaining()) {
            out.log.push_back("chunk " + std::string(type, 4) + " claims more bytes than the file holds");
            size = cur.remaining();
        }
        Reader r(cur.sub(size), bigEndian);
        const std::string_view t(type, 4);
        if (t == "PolH" || t == "Grou" || t == "Lght" || t == "Came") {
            Object o;
            o.kind = t == "PolH"   ? ObjectKind::Mesh
                     : t == "Grou" ? ObjectKind::Group
                     : t == "Lght" ? ObjectKind::Light
                                   : ObjectKind::Camera;
            o.id = id;
            o.parent = parent;
            bool good = ReadObjectBlock(r, o.block);
            if (good && o.kind == ObjectKind::Mesh) {
                Mesh m;
                good = ReadMesh(r, m, out, minor);
                if (good) {
                    o.mesh = static_cast<int>(out.meshes.size());
                    out.meshes.push_back(std::move(m));
                }
            }
            if (good) out.objects.push_back(std::move(o));
            else {
                ++out.skipped;
                out.log.push_back("damaged " + std::string(t) + " chunk " + std::to_string(id) + " skipped");
            }
        } else if (t == "Mat1") {
            Material m;
            m.id = id;
            m.parent = parent;
            if (ReadMaterial(r, m)) out.materials.push_back(std::move(m));
            else {
                ++out.skipped;
                out.log.push_back("damaged Mat1 chunk " + std::to_string(id) + " skipped");
            }
        } else if (t == "ShBx") {
            ShaderBox b;
            b.id = id;
            b.parent = parent;
            ReadShaderBox(r, b, minor);
            out.shaders.push_back(std::move(b));
        } else if (t == "Unit") {
            const uint16_t code = r.u16();
            if (r.ok()) out.units.push_back({parent, code});
        } else {
            ++out.skipped;
        }
    }
    if (cur.remaining() > 0) out.log.push_back("file ends inside a chunk header");
}

} // namespace tsio
