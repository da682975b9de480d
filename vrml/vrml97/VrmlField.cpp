// VRML97 field values: storage, sharing and the text forms the world writer uses.
// Numbers print like a default text stream (six significant digits, "%g") through
// the host's number formatter, so no locale can turn the decimal point into a comma.
#include "vrml/vrml97/VrmlField.h"

#include <cmath>
#include <cstring>
#include <ostream>
#include <string>

#include "plugin/host/NumberFormat.h"
#include "vrml/vrml97/VrmlNode.h"

namespace {

const char* const kTypeNames[] = {"SFBool",   "SFColor", "SFFloat",  "SFInt32", "SFRotation", "SFTime",  "SFVec2f",
                                  "SFVec3f",  "SFImage", "SFString", "MFColor", "MFFloat",    "MFInt32", "MFRotation",
                                  "MFString", "MFVec2f", "MFVec3f",  "SFNode",  "MFNode"};

char* dupString(const char* s) {
    if (!s) return nullptr;
    size_t n = std::strlen(s) + 1;
    char* d = new char[n];
    std::memcpy(d, s, n);
    return d;
}

} // namespace

void VrmlWriteNumber(std::ostream& os, double v) {
    std::string text;
    numfmt::AppendGeneral(text, v, 6);
    os.write(text.data(), static_cast<std::streamsize>(text.size()));
}

void VrmlWriteNumber(std::ostream& os, float v) { VrmlWriteNumber(os, static_cast<double>(v)); }

void VrmlWriteNumber(std::ostream& os, int32_t v) {
    char buf[24];
    os.write(buf, numfmt::WriteInt(buf, v) - buf);
}

static void VrmlWriteNumber(std::ostream& os, uint32_t v) {
    char buf[24];
    os.write(buf, numfmt::WriteUInt(buf, v) - buf);
}

static void writeComponents(std::ostream& os, const float* v, int n) {
    for (int i = 0; i < n; ++i) {
        if (i) os << ' ';
        VrmlWriteNumber(os, v[i]);
    }
}

VrmlField::~VrmlField() = default;
VrmlField::VrmlFieldType VrmlField::fieldType() const { return NO_FIELD; }

const char* VrmlField::typeName(int type) {
    if (type < 1 || type > 19) return "<invalid field type>";
    return kTypeNames[type - 1];
}

VrmlField::VrmlFieldType VrmlField::typeFromName(const char* name) {
    if (!name) return NO_FIELD;
    for (int i = 0; i < 19; ++i)
        if (std::strcmp(name, kTypeNames[i]) == 0) return static_cast<VrmlFieldType>(i + 1);
    return NO_FIELD;
}

bool VrmlField::assign(VrmlField& dst, const VrmlField& src) {
    if (dst.fieldType() != src.fieldType()) return false;
    switch (dst.fieldType()) {
#define CASE(E, T)                                                                                                     \
    case E: *dst.as##T() = *src.as##T(); return true;
        CASE(SFBOOL, SFBool)
        CASE(SFCOLOR, SFColor)
        CASE(SFFLOAT, SFFloat)
        CASE(SFINT32, SFInt)
        CASE(SFROTATION, SFRotation)
        CASE(SFTIME, SFTime)
        CASE(SFVEC2F, SFVec2f)
        CASE(SFVEC3F, SFVec3f)
        CASE(SFIMAGE, SFImage)
        CASE(SFSTRING, SFString)
        CASE(MFCOLOR, MFColor)
        CASE(MFFLOAT, MFFloat)
        CASE(MFINT32, MFInt)
        CASE(MFROTATION, MFRotation)
        CASE(MFSTRING, MFString)
        CASE(MFVEC2F, MFVec2f)
        CASE(MFVEC3F, MFVec3f)
        CASE(SFNODE, SFNode)
        CASE(MFNODE, MFNode)
#undef CASE
    default: return false;
    }
}

std::ostream& operator<<(std::ostream& os, const VrmlField& f) { return f.print(os); }

// ---- single values

std::ostream& VrmlSFBool::print(std::ostream& os) const { return os << (d_value ? "TRUE" : "FALSE"); }

std::ostream& VrmlSFColor::print(std::ostream& os) const {
    writeComponents(os, d_rgb, 3);
    return os;
}

void VrmlSFColor::RGBtoHSV(const float rgb[3], float hsv[3]) {
    float r = rgb[0], g = rgb[1], b = rgb[2];
    float v = std::max(r, std::max(g, b));
    float mn = std::min(r, std::min(g, b));
    float delta = v - mn;
    float s = v > 0 ? delta / v : 0.0f;
    double h = 0;
    if (s != 0.0f) {
        float rc = (v - r) / delta, gc = (v - g) / delta, bc = (v - b) / delta;
        if (r == v) h = bc - gc;
        else if (g == v) h = 2 + rc - bc;
        else h = 4 + gc - rc;
        h *= 60.0;
        if (h < 0) h += 360.0;
    }
    hsv[0] = static_cast<float>(h);
    hsv[1] = s;
    hsv[2] = v;
}

void VrmlSFColor::HSVtoRGB(const float hsv[3], float rgb[3]) {
    float h = hsv[0], s = hsv[1], v = hsv[2];
    if (s == 0.0f) {
        rgb[0] = rgb[1] = rgb[2] = v;
        return;
    }
    if (h >= 360.0f) h -= 360.0f;
    h /= 60.0f;
    double fi = std::floor(h);
    float f = h - static_cast<float>(fi);
    float p = (1 - s) * v, q = (1 - s * f) * v, t = (1 - s * (1 - f)) * v;
    int i = (fi >= 0 && fi < 6) ? static_cast<int>(fi) : -1;
    float out[3];
    switch (i) {
    case 1:
        out[0] = q;
        out[1] = v;
        out[2] = p;
        break;
    case 2:
        out[0] = p;
        out[1] = v;
        out[2] = t;
        break;
    case 3:
        out[0] = p;
        out[1] = q;
        out[2] = v;
        break;
    case 4:
        out[0] = t;
        out[1] = p;
        out[2] = v;
        break;
    case 5:
        out[0] = v;
        out[1] = p;
        out[2] = q;
        break;
    default:
        out[0] = v;
        out[1] = t;
        out[2] = p;
        break;
    }
    std::memcpy(rgb, out, sizeof out);
}

void VrmlSFColor::setHSV(float h, float s, float v) {
    float hsv[3] = {h, s, v};
    HSVtoRGB(hsv, d_rgb);
}

std::ostream& VrmlSFFloat::print(std::ostream& os) const {
    VrmlWriteNumber(os, d_value);
    return os;
}
std::ostream& VrmlSFInt::print(std::ostream& os) const {
    VrmlWriteNumber(os, d_value);
    return os;
}
std::ostream& VrmlSFTime::print(std::ostream& os) const {
    VrmlWriteNumber(os, d_value);
    return os;
}
std::ostream& VrmlSFRotation::print(std::ostream& os) const {
    writeComponents(os, d_x, 4);
    return os;
}
std::ostream& VrmlSFVec2f::print(std::ostream& os) const {
    writeComponents(os, d_x, 2);
    return os;
}
std::ostream& VrmlSFVec3f::print(std::ostream& os) const {
    writeComponents(os, d_x, 3);
    return os;
}

float VrmlSFVec2f::length() const { return std::sqrt(d_x[0] * d_x[0] + d_x[1] * d_x[1]); }
void VrmlSFVec2f::normalize() {
    float l = length();
    d_x[0] /= l;
    d_x[1] /= l;
}

void VrmlSFVec3f::add(const VrmlSFVec3f& o) {
    for (int i = 0; i < 3; ++i) d_x[i] += o.d_x[i];
}
void VrmlSFVec3f::subtract(const VrmlSFVec3f& o) {
    for (int i = 0; i < 3; ++i) d_x[i] -= o.d_x[i];
}
void VrmlSFVec3f::divide(float s) {
    for (float& c : d_x) c /= s;
}
void VrmlSFVec3f::multiply(float s) {
    for (float& c : d_x) c *= s;
}
void VrmlSFVec3f::negate() {
    for (float& c : d_x) c = -c;
}
float VrmlSFVec3f::dot(const VrmlSFVec3f& o) const { return d_x[0] * o.d_x[0] + d_x[1] * o.d_x[1] + d_x[2] * o.d_x[2]; }
void VrmlSFVec3f::cross(const VrmlSFVec3f& o) {
    float x = d_x[1] * o.d_x[2] - d_x[2] * o.d_x[1];
    float y = d_x[2] * o.d_x[0] - d_x[0] * o.d_x[2];
    float z = d_x[0] * o.d_x[1] - d_x[1] * o.d_x[0];
    set(x, y, z);
}
float VrmlSFVec3f::length() const { return std::sqrt(dot(*this)); }
void VrmlSFVec3f::normalize() { divide(length()); }

VrmlSFString::VrmlSFString(const char* s) : d_s(dupString(s)) {}
VrmlSFString::VrmlSFString(const VrmlSFString& o) : VrmlField(o), d_s(dupString(o.d_s)) {}
VrmlSFString& VrmlSFString::operator=(const VrmlSFString& o) {
    if (this != &o) set(o.d_s);
    return *this;
}
VrmlSFString::~VrmlSFString() { delete[] d_s; }
void VrmlSFString::set(const char* s) {
    char* n = dupString(s);
    delete[] d_s;
    d_s = n;
}
std::ostream& VrmlSFString::print(std::ostream& os) const { return os << '"' << (d_s ? d_s : "") << '"'; }

VrmlSFImage::VrmlSFImage(int32_t w, int32_t h, int32_t nc, const unsigned char* pixels) { set(w, h, nc, pixels); }
VrmlSFImage::VrmlSFImage(const VrmlSFImage& o) : VrmlField(o) { set(o.d_w, o.d_h, o.d_nc, o.d_pixels); }
VrmlSFImage& VrmlSFImage::operator=(const VrmlSFImage& o) {
    if (this != &o) set(o.d_w, o.d_h, o.d_nc, o.d_pixels);
    return *this;
}
VrmlSFImage::~VrmlSFImage() { delete[] d_pixels; }
void VrmlSFImage::set(int32_t w, int32_t h, int32_t nc, const unsigned char* pixels) {
    delete[] d_pixels;
    d_pixels = nullptr;
    d_w = d_h = d_nc = 0;
    if (w <= 0 || h <= 0 || nc <= 0) return;
    size_t n = static_cast<size_t>(w) * static_cast<size_t>(h) * static_cast<size_t>(nc);
    d_pixels = new unsigned char[n]();
    if (pixels) std::memcpy(d_pixels, pixels, n);
    d_w = w;
    d_h = h;
    d_nc = nc;
}
void VrmlSFImage::adopt(int32_t w, int32_t h, int32_t nc, unsigned char* pixels) {
    delete[] d_pixels;
    d_w = w;
    d_h = h;
    d_nc = nc;
    d_pixels = pixels;
}
std::ostream& VrmlSFImage::print(std::ostream& os) const {
    VrmlWriteNumber(os, d_w);
    os << ' ';
    VrmlWriteNumber(os, d_h);
    os << ' ';
    VrmlWriteNumber(os, d_nc);
    // No separator before the first pixel: kept as the format has always been written.
    if (!d_pixels) return os;
    size_t np = static_cast<size_t>(d_w) * static_cast<size_t>(d_h);
    const unsigned char* p = d_pixels;
    for (size_t i = 0; i < np; ++i) {
        uint32_t v = 0;
        for (int c = 0; c < d_nc; ++c) v = (v << 8) | *p++;
        VrmlWriteNumber(os, v);
        os << ' ';
    }
    return os;
}

VrmlSFNode::VrmlSFNode(VrmlNode* n) : d_value(n) {
    if (n) n->addRef();
}
VrmlSFNode::VrmlSFNode(const VrmlSFNode& o) : VrmlField(o), d_value(o.d_value) {
    if (d_value) d_value->addRef();
}
VrmlSFNode& VrmlSFNode::operator=(const VrmlSFNode& o) {
    set(o.d_value);
    return *this;
}
VrmlSFNode::~VrmlSFNode() {
    if (d_value) d_value->release();
}
void VrmlSFNode::set(VrmlNode* n) {
    if (n) n->addRef();
    if (d_value) d_value->release();
    d_value = n;
}
std::ostream& VrmlSFNode::print(std::ostream& os) const {
    if (d_value) d_value->print(os, 0);
    else os << "NULL";
    return os << '\n';
}

// ---- numeric arrays

template <class T, int W> std::ostream& VrmlMFNumeric<T, W>::printValues(std::ostream& os) const {
    size_t n = size();
    const T* v = get();
    auto element = [&](size_t i) {
        for (int c = 0; c < W; ++c) {
            if (c) os << ' ';
            VrmlWriteNumber(os, v[i * W + c]);
        }
    };
    if (n == 1) {
        element(0);
        return os;
    }
    os << '[';
    for (size_t i = 0; i < n; ++i) {
        element(i);
        os << (i + 1 < n ? ", " : " ");
    }
    return os << ']';
}

template class VrmlMFNumeric<float, 1>;
template class VrmlMFNumeric<float, 2>;
template class VrmlMFNumeric<float, 3>;
template class VrmlMFNumeric<float, 4>;
template class VrmlMFNumeric<int32_t, 1>;

std::ostream& VrmlMFColor::print(std::ostream& os) const { return printValues(os); }
std::ostream& VrmlMFFloat::print(std::ostream& os) const { return printValues(os); }
std::ostream& VrmlMFInt::print(std::ostream& os) const { return printValues(os); }
std::ostream& VrmlMFRotation::print(std::ostream& os) const { return printValues(os); }
std::ostream& VrmlMFVec2f::print(std::ostream& os) const { return printValues(os); }
std::ostream& VrmlMFVec3f::print(std::ostream& os) const { return printValues(os); }

// ---- MFString

VrmlMFString::VrmlMFString(size_t n, const char* const* s) {
    if (n == 0) return;
    d_v = new char*[n];
    d_allocated = d_size = static_cast<int32_t>(n);
    for (size_t i = 0; i < n; ++i) d_v[i] = s ? dupString(s[i]) : nullptr;
}
VrmlMFString::VrmlMFString(const char* s) : VrmlMFString(1, &s) {}
VrmlMFString::VrmlMFString(const VrmlMFString& o) : VrmlField(o) {
    if (o.d_size == 0) return;
    d_v = new char*[o.d_size];
    d_allocated = d_size = o.d_size;
    for (int32_t i = 0; i < d_size; ++i) d_v[i] = dupString(o.d_v[i]);
}
VrmlMFString& VrmlMFString::operator=(const VrmlMFString& o) {
    if (this == &o) return *this;
    clear();
    if (o.d_size) {
        d_v = new char*[o.d_size];
        d_allocated = d_size = o.d_size;
        for (int32_t i = 0; i < d_size; ++i) d_v[i] = dupString(o.d_v[i]);
    }
    return *this;
}
VrmlMFString::~VrmlMFString() { clear(); }
void VrmlMFString::clear() {
    for (int32_t i = 0; i < d_size; ++i) delete[] d_v[i];
    delete[] d_v;
    d_v = nullptr;
    d_allocated = d_size = 0;
}
void VrmlMFString::append(const char* s) {
    if (d_size == d_allocated) {
        int32_t cap = d_allocated ? d_allocated * 2 : 4;
        char** nv = new char*[cap];
        if (d_size) std::memcpy(nv, d_v, sizeof(char*) * d_size);
        delete[] d_v;
        d_v = nv;
        d_allocated = cap;
    }
    d_v[d_size++] = dupString(s);
}
std::ostream& VrmlMFString::print(std::ostream& os) const {
    if (d_size != 1) os << '[';
    for (int32_t i = 0; i < d_size; ++i) os << '"' << (d_v[i] ? d_v[i] : "") << "\" ";
    if (d_size != 1) os << ']';
    return os;
}

// ---- MFNode

namespace {
constexpr int32_t kIndexThreshold = 64;
}

VrmlMFNode::VrmlMFNode(size_t n, VrmlNode* const* nodes) {
    if (n == 0) return;
    d_v = new VrmlNode*[n];
    d_allocated = d_size = static_cast<int32_t>(n);
    for (size_t i = 0; i < n; ++i) {
        d_v[i] = nodes ? nodes[i] : nullptr;
        if (d_v[i]) d_v[i]->addRef();
    }
    indexIfLarge();
}
VrmlMFNode::VrmlMFNode(VrmlNode* n) : VrmlMFNode(1, &n) {}
VrmlMFNode::VrmlMFNode(const VrmlMFNode& o) : VrmlField(o) {
    if (o.d_size == 0) return;
    d_v = new VrmlNode*[o.d_size];
    d_allocated = d_size = o.d_size;
    for (int32_t i = 0; i < d_size; ++i) {
        d_v[i] = o.d_v[i];
        if (d_v[i]) d_v[i]->addRef();
    }
    indexIfLarge();
}
VrmlMFNode& VrmlMFNode::operator=(const VrmlMFNode& o) {
    if (this == &o) return *this;
    // Reference the new entries before releasing the old ones: they may overlap.
    for (int32_t i = 0; i < o.d_size; ++i)
        if (o.d_v[i]) o.d_v[i]->addRef();
    for (int32_t i = 0; i < d_size; ++i)
        if (d_v[i]) d_v[i]->release();
    if (d_allocated < o.d_size) {
        delete[] d_v;
        d_v = new VrmlNode*[o.d_size];
        d_allocated = o.d_size;
    }
    for (int32_t i = 0; i < o.d_size; ++i) d_v[i] = o.d_v[i];
    d_size = o.d_size;
    d_index.reset();
    indexIfLarge();
    return *this;
}
VrmlMFNode::~VrmlMFNode() { removeAll(); }

void VrmlMFNode::removeAll() {
    // Detach first: releasing may reach code that looks at this list again.
    VrmlNode** v = d_v;
    int32_t n = d_size;
    d_v = nullptr;
    d_size = d_allocated = 0;
    d_index.reset();
    for (int32_t i = 0; i < n; ++i)
        if (v[i]) v[i]->release();
    delete[] v;
}

void VrmlMFNode::indexIfLarge() {
    if (d_index || d_size < kIndexThreshold) return;
    d_index = std::make_unique<std::unordered_set<const VrmlNode*>>();
    for (int32_t i = 0; i < d_size; ++i) d_index->insert(d_v[i]);
}

bool VrmlMFNode::contains(const VrmlNode* n) const {
    if (d_index) return d_index->count(n) != 0;
    for (int32_t i = 0; i < d_size; ++i)
        if (d_v[i] == n) return true;
    return false;
}

void VrmlMFNode::add(VrmlNode* n) {
    if (contains(n)) return;
    if (d_allocated < d_size + 1) {
        // Small lists of children: grow by ten, as the format's lists usually are short.
        // Long lists grow geometrically so that big worlds do not go quadratic.
        int32_t grow = d_allocated >= 1000 ? d_allocated / 2 : 10;
        VrmlNode** nv = new VrmlNode*[d_allocated + grow];
        if (d_size) std::memcpy(nv, d_v, sizeof(VrmlNode*) * d_size);
        delete[] d_v;
        d_v = nv;
        d_allocated += grow;
    }
    if (n) n->addRef();
    d_v[d_size++] = n;
    if (d_index) d_index->insert(n);
    else indexIfLarge();
}

void VrmlMFNode::remove(const VrmlNode* n) {
    for (int32_t i = 0; i < d_size; ++i) {
        if (d_v[i] != n) continue;
        VrmlNode* victim = d_v[i];
        std::memmove(d_v + i, d_v + i + 1, sizeof(VrmlNode*) * (d_size - i - 1));
        --d_size;
        if (d_index) d_index->erase(n);
        if (victim) victim->release();
        return;
    }
}

std::ostream& VrmlMFNode::print(std::ostream& os) const {
    if (d_size != 1) os << '[';
    for (int32_t i = 0; i < d_size; ++i) {
        if (d_v[i]) d_v[i]->print(os, 0);
        else os << "NULL";
        os << '\n';
    }
    if (d_size != 1) os << ']';
    return os;
}
