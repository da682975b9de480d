#include "vrml/vrml1/QvFields.h"

#include <cstring>
#include <type_traits>

#include "vrml/vrml1/QvIn.h"
#include "vrml/vrml1/QvNode.h"

namespace {

struct TypeName {
    const char* name;
    QvFieldType type;
};
constexpr TypeName kTypeNames[] = {
    {"SFBitMask", QvFieldType::SFBitMask},   {"SFBool", QvFieldType::SFBool},     {"SFColor", QvFieldType::SFColor},
    {"SFEnum", QvFieldType::SFEnum},         {"SFFloat", QvFieldType::SFFloat},   {"SFImage", QvFieldType::SFImage},
    {"SFLong", QvFieldType::SFLong},         {"SFInt32", QvFieldType::SFLong},    {"SFMatrix", QvFieldType::SFMatrix},
    {"SFRotation", QvFieldType::SFRotation}, {"SFString", QvFieldType::SFString}, {"SFUShort", QvFieldType::SFUShort},
    {"SFShort", QvFieldType::SFLong},        {"SFULong", QvFieldType::SFLong},    {"SFUInt32", QvFieldType::SFLong},
    {"SFVec2f", QvFieldType::SFVec2f},       {"SFVec3f", QvFieldType::SFVec3f},   {"MFColor", QvFieldType::MFColor},
    {"MFFloat", QvFieldType::MFFloat},       {"MFInt32", QvFieldType::MFInt32},   {"MFLong", QvFieldType::MFLong},
    {"MFULong", QvFieldType::MFLong},        {"MFUInt32", QvFieldType::MFLong},   {"MFShort", QvFieldType::MFLong},
    {"MFUShort", QvFieldType::MFLong},       {"MFString", QvFieldType::MFString}, {"MFVec2f", QvFieldType::MFVec2f},
    {"MFVec3f", QvFieldType::MFVec3f},       {"SFNode", QvFieldType::SFNode},
};

bool ReadFloats(QvIn& in, float* out, int n) {
    for (int i = 0; i < n; ++i)
        if (!in.readFloat(out[i])) return false;
    return true;
}

} // namespace

bool QvFieldTypeFromName(std::string_view name, QvFieldType& type) {
    for (const TypeName& t : kTypeNames) {
        if (name == t.name) {
            type = t.type;
            return true;
        }
    }
    return false;
}

bool QvEnumTable::lookup(std::string_view name, int32_t& value) const {
    for (int i = 0; i < count; ++i) {
        if (name == entries[i].name) {
            value = entries[i].value;
            return true;
        }
    }
    return false;
}

bool QvSFBool::read(QvIn& in) {
    char c;
    if (!in.peek(c)) return false;
    if ((c >= '0' && c <= '9') || c == '-' || c == '+') {
        int32_t v;
        if (!in.readInt(v)) return false;
        if (v != 0 && v != 1) {
            in.readError(QvFormat("Illegal value for QvSFBool: %d (must be 0 or 1)", v));
            return false;
        }
        value = v == 1;
        return true;
    }
    std::string_view w = in.readName();
    if (w == "TRUE") value = true;
    else if (w == "FALSE") value = false;
    else {
        in.readError(QvFormat("Unknown value (\"%.*s\") for QvSFBool (must be TRUE or FALSE)",
                              static_cast<int>(w.size()), w.data()));
        return false;
    }
    return true;
}

bool QvSFFloat::read(QvIn& in) { return in.readFloat(value); }
bool QvSFLong::read(QvIn& in) { return in.readInt(value); }

bool QvSFUShort::read(QvIn& in) {
    int32_t v;
    if (!in.readInt(v)) return false;
    value = static_cast<uint16_t>(v);
    return true;
}

bool QvSFVec2f::read(QvIn& in) { return ReadFloats(in, value, 2); }
bool QvSFVec3f::read(QvIn& in) { return ReadFloats(in, value, 3); }
bool QvSFRotation::read(QvIn& in) { return ReadFloats(in, axis, 3) && in.readFloat(angle); }

QvSFMatrix::QvSFMatrix() : QvSField(QvFieldType::SFMatrix) {
    for (int r = 0; r < 4; ++r)
        for (int c = 0; c < 4; ++c) value[r][c] = r == c ? 1.0f : 0.0f;
}
bool QvSFMatrix::read(QvIn& in) { return ReadFloats(in, &value[0][0], 16); }

bool QvSFString::read(QvIn& in) { return in.readString(value); }

bool QvSFEnum::read(QvIn& in) {
    std::string_view w = in.readName();
    if (w.empty()) return false;
    if (!m_table) { // an unknown node's enum: any name will do
        value = -1;
        return true;
    }
    if (!m_table->lookup(w, value)) {
        in.readError(QvFormat("Unknown QvSFEnum enumeration value \"%.*s\"", static_cast<int>(w.size()), w.data()));
        return false;
    }
    return true;
}

bool QvSFBitMask::read(QvIn& in) {
    auto one = [&](std::string_view w, int32_t& bits) {
        int32_t v = 0;
        if (m_table && !m_table->lookup(w, v)) {
            in.readError(QvFormat("Unknown QvSFBitMask bit mask value \"%.*s\"", static_cast<int>(w.size()), w.data()));
            return false;
        }
        bits |= v;
        return true;
    };
    char c;
    if (!in.peek(c)) return false;
    if (c != '(') {
        std::string_view w = in.readName();
        if (w.empty()) return false;
        int32_t bits = 0;
        if (!one(std::string(w), bits)) return false;
        value = bits;
        return true;
    }
    in.get(c);
    int32_t bits = 0;
    for (;;) {
        std::string w(in.readName());
        if (w.empty()) {
            if (in.eof()) in.readError("EOF reached before ')' in QvSFBitMask value");
            return false;
        }
        if (!one(w, bits)) return false;
        if (!in.skipWhite() || !in.get(c)) {
            in.readError("EOF reached before ')' in QvSFBitMask value");
            return false;
        }
        if (c == ')') break;
        if (c != '|') {
            in.readError(QvFormat("Expected '%c' or '%c', got '%c'", '|', ')', c));
            return false;
        }
    }
    value = bits;
    return true;
}

bool QvSFImage::read(QvIn& in) {
    int32_t w, h, nc;
    if (!in.readInt(w) || !in.readInt(h) || !in.readInt(nc)) return false;
    bytes.clear();
    if (w == 0 || h == 0 || nc == 0) {
        width = height = components = 0;
        if (w >= 0 && h >= 0 && nc >= 0 && nc <= 4) return true;
        return false;
    }
    if (w < 0 || h < 0 || nc < 1 || nc > 4) return false;
    // Each pixel takes at least two characters: never more pixels than the input could hold.
    const uint64_t pixels = static_cast<uint64_t>(w) * static_cast<uint64_t>(h);
    if (pixels > in.remaining() / 2 + 1) return false;
    bytes.resize(pixels * static_cast<uint64_t>(nc));
    uint8_t* out = bytes.data();
    for (uint64_t i = 0; i < pixels; ++i) {
        uint32_t p;
        if (!in.readUInt(p)) {
            bytes.clear();
            return false;
        }
        for (int k = nc - 1; k >= 0; --k) out[k] = static_cast<uint8_t>(p >> (8 * (nc - 1 - k)));
        out += nc;
    }
    width = w;
    height = h;
    components = nc;
    return true;
}

QvSFNode::~QvSFNode() {
    if (value) value->unref();
}

bool QvSFNode::read(QvIn& in) {
    char c;
    if (!in.peek(c)) return false;
    QvNode* n = nullptr;
    if (c == 'N') {
        std::string_view w = in.readName();
        if (w == "NULL") {
            if (value) value->unref();
            value = nullptr;
            return true;
        }
        // Not NULL: the name starts a node; give it back through the node reader.
        if (!QvNode::readAfterName(in, std::string(w), n) || !n) return false;
    } else if (!QvNode::read(in, n) || !n) {
        return false;
    }
    if (value) value->unref();
    value = n; // read() hands over one reference
    return true;
}

bool QvMField::read(QvIn& in) {
    clear();
    char c;
    if (!in.peek(c)) return false;
    if (c != '[') {
        if (!readValue(in)) {
            in.readError(QvFormat("Couldn't read value %d of field", 0));
            return false;
        }
        return true;
    }
    in.get(c);
    int index = 0;
    if (in.peek(c, false) && c == ']') {
        in.get(c);
        return true;
    }
    for (;;) {
        if (!readValue(in)) {
            in.readError(QvFormat("Couldn't read value %d of field", index));
            return false;
        }
        ++index;
        if ((index & 1023) == 0) in.tick();
        if (!in.skipWhite(false) || !in.get(c)) {
            in.readError(QvFormat("Couldn't read value %d of field", index));
            return false;
        }
        if (c == ']') return true;
        if (c != ',') {
            // Exporters often leave the commas out; a value may follow directly.
            if (startsValue(c)) {
                in.putBack(c);
                continue;
            }
            in.readError(QvFormat("Expected '%c' or '%c' but got '%c' while reading value %d", ',', ']', c, index));
            return false;
        }
        // A comma may also close the list: "1, 2, ]".
        if (in.peek(c, false) && c == ']') {
            in.get(c);
            return true;
        }
    }
}

template <typename T, int N, QvFieldType Type> bool QvMFNumbers<T, N, Type>::readValue(QvIn& in) {
    T v[N];
    for (int i = 0; i < N; ++i) {
        bool ok;
        if constexpr (std::is_same_v<T, float>) ok = in.readFloat(v[i]);
        else if constexpr (std::is_same_v<T, uint32_t>) ok = in.readUInt(v[i]);
        else ok = in.readInt(v[i]);
        if (!ok) return false;
    }
    for (int i = 0; i < N; ++i) values.push_back(v[i]);
    return true;
}

template class QvMFNumbers<float, 1, QvFieldType::MFFloat>;
template class QvMFNumbers<float, 2, QvFieldType::MFVec2f>;
template class QvMFNumbers<float, 3, QvFieldType::MFVec3f>;
template class QvMFNumbers<float, 3, QvFieldType::MFColor>;
template class QvMFNumbers<int32_t, 1, QvFieldType::MFLong>;
template class QvMFNumbers<int32_t, 1, QvFieldType::MFInt32>;
template class QvMFNumbers<uint32_t, 1, QvFieldType::MFLong>;

bool QvMField::startsValue(char c) const { return (c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.'; }

bool QvMFString::startsValue(char c) const {
    return c == '"' || (static_cast<unsigned char>(c) > ' ' && c != '}' && c != '[');
}

bool QvMFString::readValue(QvIn& in) {
    std::string s;
    if (!in.readString(s)) return false;
    values.push_back(std::move(s));
    return true;
}

QvField* QvCreateField(QvFieldType type) {
    switch (type) {
    case QvFieldType::SFBitMask: return new QvSFBitMask(nullptr, 0);
    case QvFieldType::SFBool: return new QvSFBool();
    case QvFieldType::SFColor: return new QvSFColor();
    case QvFieldType::SFEnum: return new QvSFEnum(nullptr, 0);
    case QvFieldType::SFFloat: return new QvSFFloat();
    case QvFieldType::SFImage: return new QvSFImage();
    case QvFieldType::SFLong: return new QvSFLong();
    case QvFieldType::SFMatrix: return new QvSFMatrix();
    case QvFieldType::SFRotation: return new QvSFRotation();
    case QvFieldType::SFString: return new QvSFString();
    case QvFieldType::SFUShort: return new QvSFUShort();
    case QvFieldType::SFVec2f: return new QvSFVec2f();
    case QvFieldType::SFVec3f: return new QvSFVec3f();
    case QvFieldType::MFColor: return new QvMFColor();
    case QvFieldType::MFFloat: return new QvMFFloat();
    case QvFieldType::MFInt32: return new QvMFInt32();
    case QvFieldType::MFLong: return new QvMFLong();
    case QvFieldType::MFString: return new QvMFString();
    case QvFieldType::MFVec2f: return new QvMFVec2f();
    case QvFieldType::MFVec3f: return new QvMFVec3f();
    case QvFieldType::SFNode: return new QvSFNode();
    }
    return nullptr;
}
