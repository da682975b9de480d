#pragma once
// A test-only writer of the Amapi block layout: big-endian words, "BLOK" blocks
// holding shapes made of "blok" sub-blocks. No real Amapi files are at hand, so the
// reader's tests (and fuzz seeds) are made with this.
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace classictest {

class AmapiWriter {
public:
    using Body = std::function<void(AmapiWriter&)>;

    explicit AmapiWriter(bool header = true, uint32_t version = 2) {
        if (header) Tag("AMAP").U32(version);
    }
    const std::string& Bytes() const { return m_b; }

    AmapiWriter& U8(uint8_t v) {
        m_b.push_back(static_cast<char>(v));
        return *this;
    }
    AmapiWriter& U32(uint32_t v) {
        for (int s = 24; s >= 0; s -= 8) U8(static_cast<uint8_t>(v >> s));
        return *this;
    }
    AmapiWriter& F32(float f) {
        uint32_t v;
        std::memcpy(&v, &f, 4);
        return U32(v);
    }
    AmapiWriter& Tag(const char (&t)[5]) {
        m_b.append(t, 4);
        return *this;
    }
    AmapiWriter& Raw(const std::string& s) {
        m_b += s;
        return *this;
    }

    // A top-level block; its size is patched after `body`.
    AmapiWriter& Block(const char (&type)[5], const Body& body) {
        Tag("BLOK").Tag(type);
        return Sized(body);
    }
    // A "SHAP" block with one shape: `body` writes its sub-blocks; the end marker follows
    // unless the shape ends with a ctrl block (whose "eof " marker ends it).
    AmapiWriter& Shape(const Body& body, bool endMarker = true) {
        return Block("SHAP", [&](AmapiWriter& w) {
            body(w);
            if (endMarker) w.EndMarker();
        });
    }
    AmapiWriter& Sub(const char (&type)[5], const Body& body) {
        Tag("blok").Tag(type);
        return Sized(body);
    }
    AmapiWriter& EndMarker() { return Tag("blok").U32(0).U32(0); }

    AmapiWriter& Name(const std::string& name) {
        return Sub("name", [&](AmapiWriter& w) {
            std::string n = name;
            n.resize(20, '\0');
            w.Raw(n);
        });
    }
    AmapiWriter& Color(uint8_t r, uint8_t g, uint8_t b) {
        return Sub("colr", [&](AmapiWriter& w) { w.U8(r).U8(g).U8(b); });
    }
    // Geometry: points (x y z triples; a fourth float is written per point), faces as index lists.
    AmapiWriter& Geom(const std::vector<float>& xyz, const std::vector<std::vector<uint32_t>>& faces, uint8_t flags = 0,
                      uint8_t closed = 0, uint8_t visible = 1, uint32_t skipped = 0) {
        return Sub("geom", [&](AmapiWriter& w) {
            uint32_t words = 0;
            for (auto& f : faces) words += 1 + static_cast<uint32_t>(f.size());
            w.U8(flags).U8(closed).U8(visible);
            w.U32(static_cast<uint32_t>(xyz.size() / 3)).U32(skipped).U32(static_cast<uint32_t>(faces.size()));
            w.U32(words);
            for (int i = 0; i < 5; ++i) w.U32(0);
            for (size_t i = 0; i < xyz.size(); i += 3) w.F32(xyz[i]).F32(xyz[i + 1]).F32(xyz[i + 2]).F32(1);
            for (uint32_t i = 0; i < skipped; ++i) w.U32(0xDEADBEEF).U32(0xDEADBEEF);
            for (auto& f : faces) {
                w.U32(static_cast<uint32_t>(f.size()));
                for (uint32_t v : f) w.U32(v);
            }
        });
    }
    // A group: the child count, then each child shape (its sub-blocks and end marker).
    AmapiWriter& Group(const std::vector<Body>& children) {
        return Sub("grup", [&](AmapiWriter& w) {
            w.U32(static_cast<uint32_t>(children.size()));
            for (auto& c : children) {
                c(w);
                w.EndMarker();
            }
        });
    }
    // A nested shape in a ctrl block, then the "eof " marker that closes it.
    AmapiWriter& Ctrl(const Body& nested) {
        Sub("ctrl", [&](AmapiWriter& w) {
            nested(w);
            w.EndMarker();
        });
        return Tag("eof ");
    }

private:
    AmapiWriter& Sized(const Body& body) {
        size_t at = m_b.size();
        U32(0);
        body(*this);
        uint32_t size = static_cast<uint32_t>(m_b.size() - at - 4);
        for (int i = 0; i < 4; ++i) m_b[at + i] = static_cast<char>(size >> (24 - 8 * i));
        return *this;
    }
    std::string m_b;
};

} // namespace classictest
