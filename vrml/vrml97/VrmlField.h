#pragma once
// VRML97 field values: nineteen value classes under one abstract base. Numeric
// MF values share one reference-counted block between copies (meshes are big);
// MFString and MFNode deep-copy. MFNode never holds the same node twice.
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <unordered_set>
#include <vector>

class VrmlNode;

class VrmlSFBool;
class VrmlSFColor;
class VrmlSFFloat;
class VrmlSFImage;
class VrmlSFInt;
class VrmlSFNode;
class VrmlSFRotation;
class VrmlSFString;
class VrmlSFTime;
class VrmlSFVec2f;
class VrmlSFVec3f;
class VrmlMFColor;
class VrmlMFFloat;
class VrmlMFInt;
class VrmlMFNode;
class VrmlMFRotation;
class VrmlMFString;
class VrmlMFVec2f;
class VrmlMFVec3f;

class VrmlField {
public:
    // The numbers index the name table and are compared by the parser.
    enum VrmlFieldType {
        NO_FIELD = 0,
        SFBOOL,
        SFCOLOR,
        SFFLOAT,
        SFINT32,
        SFROTATION,
        SFTIME,
        SFVEC2F,
        SFVEC3F,
        SFIMAGE,
        SFSTRING,
        MFCOLOR,
        MFFLOAT,
        MFINT32,
        MFROTATION,
        MFSTRING,
        MFVEC2F,
        MFVEC3F,
        SFNODE,
        MFNODE
    };

    virtual ~VrmlField();
    virtual VrmlField* clone() const = 0;
    virtual std::ostream& print(std::ostream& os) const = 0;
    virtual VrmlFieldType fieldType() const;

// clang-format off
#define VRML_FIELD_CAST(T)                                                                         \
    virtual const Vrml##T* as##T() const { return nullptr; }                                      \
    virtual Vrml##T* as##T() { return nullptr; }
    VRML_FIELD_CAST(SFBool) VRML_FIELD_CAST(SFColor) VRML_FIELD_CAST(SFFloat)
    VRML_FIELD_CAST(SFImage) VRML_FIELD_CAST(SFInt) VRML_FIELD_CAST(SFNode)
    VRML_FIELD_CAST(SFRotation) VRML_FIELD_CAST(SFString) VRML_FIELD_CAST(SFTime)
    VRML_FIELD_CAST(SFVec2f) VRML_FIELD_CAST(SFVec3f) VRML_FIELD_CAST(MFColor)
    VRML_FIELD_CAST(MFFloat) VRML_FIELD_CAST(MFInt) VRML_FIELD_CAST(MFNode)
    VRML_FIELD_CAST(MFRotation) VRML_FIELD_CAST(MFString) VRML_FIELD_CAST(MFVec2f)
    VRML_FIELD_CAST(MFVec3f)
#undef VRML_FIELD_CAST
        // clang-format on

        const char* typeName() const {
        return typeName(fieldType());
    }
    static const char* typeName(int type);
    static VrmlFieldType typeFromName(const char* name);
    // Copies src into dst when both are of one class; false otherwise.
    static bool assign(VrmlField& dst, const VrmlField& src);
};

std::ostream& operator<<(std::ostream& os, const VrmlField& f);

// Locale-free number output in the default stream form (six significant digits).
void VrmlWriteNumber(std::ostream& os, double v);
void VrmlWriteNumber(std::ostream& os, float v);
void VrmlWriteNumber(std::ostream& os, int32_t v);

#define VRML_FIELD_OVERRIDES(T, E)                                                                                     \
    VrmlField* clone() const override { return new Vrml##T(*this); }                                                   \
    std::ostream& print(std::ostream& os) const override;                                                              \
    VrmlFieldType fieldType() const override { return E; }                                                             \
    const Vrml##T* as##T() const override { return this; }                                                             \
    Vrml##T* as##T() override { return this; }

class VrmlSFBool : public VrmlField {
public:
    explicit VrmlSFBool(bool v = false) : d_value(v) {}
    VRML_FIELD_OVERRIDES(SFBool, SFBOOL)
    bool get() const { return d_value; }
    void set(bool v) { d_value = v; }
private:
    bool d_value;
};

class VrmlSFColor : public VrmlField {
public:
    VrmlSFColor(float r = 0, float g = 0, float b = 0) : d_rgb{r, g, b} {}
    VRML_FIELD_OVERRIDES(SFColor, SFCOLOR)
    const float* get() const { return d_rgb; }
    void set(float r, float g, float b) {
        d_rgb[0] = r;
        d_rgb[1] = g;
        d_rgb[2] = b;
    }
    float r() const { return d_rgb[0]; }
    float g() const { return d_rgb[1]; }
    float b() const { return d_rgb[2]; }
    static void RGBtoHSV(const float rgb[3], float hsv[3]);
    static void HSVtoRGB(const float hsv[3], float rgb[3]);
    void getHSV(float hsv[3]) const { RGBtoHSV(d_rgb, hsv); }
    void setHSV(float h, float s, float v);
private:
    float d_rgb[3];
};

class VrmlSFFloat : public VrmlField {
public:
    explicit VrmlSFFloat(float v = 0) : d_value(v) {}
    VRML_FIELD_OVERRIDES(SFFloat, SFFLOAT)
    float get() const { return d_value; }
    void set(float v) { d_value = v; }
private:
    float d_value;
};

class VrmlSFInt : public VrmlField {
public:
    explicit VrmlSFInt(int32_t v = 0) : d_value(v) {}
    VRML_FIELD_OVERRIDES(SFInt, SFINT32)
    int32_t get() const { return d_value; }
    void set(int32_t v) { d_value = v; }
private:
    int32_t d_value;
};

class VrmlSFRotation : public VrmlField {
public:
    VrmlSFRotation(float x = 0, float y = 0, float z = 1, float r = 0) : d_x{x, y, z, r} {}
    VRML_FIELD_OVERRIDES(SFRotation, SFROTATION)
    const float* get() const { return d_x; }
    float x() const { return d_x[0]; }
    float y() const { return d_x[1]; }
    float z() const { return d_x[2]; }
    float r() const { return d_x[3]; }
    void set(float x, float y, float z, float r) {
        d_x[0] = x;
        d_x[1] = y;
        d_x[2] = z;
        d_x[3] = r;
    }
    void invert() { d_x[3] = -d_x[3]; }
private:
    float d_x[4];
};

class VrmlSFTime : public VrmlField {
public:
    explicit VrmlSFTime(double v = 0) : d_value(v) {}
    VRML_FIELD_OVERRIDES(SFTime, SFTIME)
    double get() const { return d_value; }
    void set(double v) { d_value = v; }
private:
    double d_value;
};

class VrmlSFVec2f : public VrmlField {
public:
    VrmlSFVec2f(float x = 0, float y = 0) : d_x{x, y} {}
    VRML_FIELD_OVERRIDES(SFVec2f, SFVEC2F)
    const float* get() const { return d_x; }
    float x() const { return d_x[0]; }
    float y() const { return d_x[1]; }
    void set(float x, float y) {
        d_x[0] = x;
        d_x[1] = y;
    }
    void add(const VrmlSFVec2f& o) {
        d_x[0] += o.d_x[0];
        d_x[1] += o.d_x[1];
    }
    void subtract(const VrmlSFVec2f& o) {
        d_x[0] -= o.d_x[0];
        d_x[1] -= o.d_x[1];
    }
    void divide(float s) {
        d_x[0] /= s;
        d_x[1] /= s;
    }
    void multiply(float s) {
        d_x[0] *= s;
        d_x[1] *= s;
    }
    float dot(const VrmlSFVec2f& o) const { return d_x[0] * o.d_x[0] + d_x[1] * o.d_x[1]; }
    float length() const;
    void normalize();
    void negate() {
        d_x[0] = -d_x[0];
        d_x[1] = -d_x[1];
    }
private:
    float d_x[2];
};

class VrmlSFVec3f : public VrmlField {
public:
    VrmlSFVec3f(float x = 0, float y = 0, float z = 0) : d_x{x, y, z} {}
    VRML_FIELD_OVERRIDES(SFVec3f, SFVEC3F)
    const float* get() const { return d_x; }
    float x() const { return d_x[0]; }
    float y() const { return d_x[1]; }
    float z() const { return d_x[2]; }
    void set(float x, float y, float z) {
        d_x[0] = x;
        d_x[1] = y;
        d_x[2] = z;
    }
    void add(const VrmlSFVec3f& o);
    void subtract(const VrmlSFVec3f& o);
    void divide(float s);
    void multiply(float s);
    float dot(const VrmlSFVec3f& o) const;
    void cross(const VrmlSFVec3f& o);
    float length() const;
    void normalize();
    void negate();
private:
    float d_x[3];
};

class VrmlSFString : public VrmlField {
public:
    explicit VrmlSFString(const char* s = nullptr);
    VrmlSFString(const VrmlSFString& o);
    VrmlSFString& operator=(const VrmlSFString& o);
    ~VrmlSFString() override;
    VRML_FIELD_OVERRIDES(SFString, SFSTRING)
    const char* get() const { return d_s; }
    void set(const char* s);
private:
    char* d_s = nullptr;
};

class VrmlSFImage : public VrmlField {
public:
    VrmlSFImage() = default;
    // pixels holds w*h*nc bytes (copied); null leaves them zero.
    VrmlSFImage(int32_t w, int32_t h, int32_t nc, const unsigned char* pixels);
    VrmlSFImage(const VrmlSFImage& o);
    VrmlSFImage& operator=(const VrmlSFImage& o);
    ~VrmlSFImage() override;
    VRML_FIELD_OVERRIDES(SFImage, SFIMAGE)
    int32_t width() const { return d_w; }
    int32_t height() const { return d_h; }
    int32_t componentCount() const { return d_nc; }
    const unsigned char* pixels() const { return d_pixels; }
    void set(int32_t w, int32_t h, int32_t nc, const unsigned char* pixels);
    // Takes ownership of a new[] buffer of w*h*nc bytes (the scanner's).
    void adopt(int32_t w, int32_t h, int32_t nc, unsigned char* pixels);
private:
    int32_t d_w = 0, d_h = 0, d_nc = 0;
    unsigned char* d_pixels = nullptr;
};

class VrmlSFNode : public VrmlField {
public:
    explicit VrmlSFNode(VrmlNode* n = nullptr);
    VrmlSFNode(const VrmlSFNode& o);
    VrmlSFNode& operator=(const VrmlSFNode& o);
    ~VrmlSFNode() override;
    VRML_FIELD_OVERRIDES(SFNode, SFNODE)
    VrmlNode* get() const { return d_value; }
    void set(VrmlNode* n);
private:
    VrmlNode* d_value = nullptr;
};

// Shared storage of the numeric MF values.
template <class T> struct VrmlMFData {
    int32_t d_refs = 1;
    std::vector<T> d_v; // the scalars
};

template <class T, int W> class VrmlMFNumeric : public VrmlField {
public:
    VrmlMFNumeric() : d_data(new VrmlMFData<T>) {}
    VrmlMFNumeric(size_t n, const T* src) : d_data(new VrmlMFData<T>) {
        if (n == 0) return;
        if (src) d_data->d_v.assign(src, src + n * W);
        else d_data->d_v.resize(n * W);
    }
    // Adopts scalars (a whole number of elements) without copying them.
    explicit VrmlMFNumeric(std::vector<T>&& scalars) : d_data(new VrmlMFData<T>) { d_data->d_v = std::move(scalars); }
    VrmlMFNumeric(const VrmlMFNumeric& o) : VrmlField(o), d_data(o.d_data) { ++d_data->d_refs; }
    VrmlMFNumeric& operator=(const VrmlMFNumeric& o) {
        if (this == &o || d_data == o.d_data) return *this;
        unref();
        d_data = o.d_data;
        ++d_data->d_refs;
        return *this;
    }
    ~VrmlMFNumeric() override { unref(); }
    size_t size() const { return d_data->d_v.size() / W; }
    const T* get() const { return d_data->d_v.data(); }
    const T* operator[](size_t i) const { return d_data->d_v.data() + i * W; }
    // Writable access copies a shared block first.
    T* writable() {
        if (d_data->d_refs > 1) {
            auto* copy = new VrmlMFData<T>;
            copy->d_v = d_data->d_v;
            unref();
            d_data = copy;
        }
        return d_data->d_v.data();
    }
    void set(size_t n, const T* src) {
        auto* block = new VrmlMFData<T>;
        if (n && src) block->d_v.assign(src, src + n * W);
        else if (n) block->d_v.resize(n * W);
        unref();
        d_data = block;
    }
    // True when both values share one block (no copy was made).
    bool sharesWith(const VrmlMFNumeric& o) const { return d_data == o.d_data; }
    std::ostream& printValues(std::ostream& os) const;
private:
    void unref() {
        if (--d_data->d_refs == 0) delete d_data;
    }
    VrmlMFData<T>* d_data;
};

#define VRML_MF_NUMERIC(T, S, W, E)                                                                                    \
    class Vrml##T : public VrmlMFNumeric<S, W> {                                                                       \
    public:                                                                                                            \
        using VrmlMFNumeric<S, W>::VrmlMFNumeric;                                                                      \
        VRML_FIELD_OVERRIDES(T, E)                                                                                     \
    };

// clang-format off
VRML_MF_NUMERIC(MFColor, float, 3, MFCOLOR)
VRML_MF_NUMERIC(MFFloat, float, 1, MFFLOAT)
VRML_MF_NUMERIC(MFInt, int32_t, 1, MFINT32)
VRML_MF_NUMERIC(MFRotation, float, 4, MFROTATION)
VRML_MF_NUMERIC(MFVec2f, float, 2, MFVEC2F)
VRML_MF_NUMERIC(MFVec3f, float, 3, MFVEC3F)
#undef VRML_MF_NUMERIC
// clang-format on

class VrmlMFString : public VrmlField {
public:
    VrmlMFString() = default;
    VrmlMFString(size_t n, const char* const* s);
    explicit VrmlMFString(const char* s);
    VrmlMFString(const VrmlMFString& o);
    VrmlMFString& operator=(const VrmlMFString& o);
    ~VrmlMFString() override;
    VRML_FIELD_OVERRIDES(MFString, MFSTRING)
    size_t size() const { return d_size; }
    const char* operator[](size_t i) const { return d_v[i]; }
    char** get() const { return d_v; }
    // Appends an owned copy (the parser's growth path).
    void append(const char* s);
private:
    void clear();
    char** d_v = nullptr;
    int32_t d_allocated = 0;
    int32_t d_size = 0;
};

class VrmlMFNode : public VrmlField {
public:
    VrmlMFNode() = default;
    VrmlMFNode(size_t n, VrmlNode* const* nodes);
    explicit VrmlMFNode(VrmlNode* n);
    VrmlMFNode(const VrmlMFNode& o);
    VrmlMFNode& operator=(const VrmlMFNode& o);
    ~VrmlMFNode() override;
    VRML_FIELD_OVERRIDES(MFNode, MFNODE)
    size_t size() const { return d_size; }
    VrmlNode* operator[](size_t i) const { return d_v[i]; }
    VrmlNode** get() const { return d_v; }
    int32_t capacity() const { return d_allocated; }
    bool contains(const VrmlNode* n) const;
    void add(VrmlNode* n);
    void remove(const VrmlNode* n);
    void removeAll();
private:
    void indexIfLarge();
    VrmlNode** d_v = nullptr;
    int32_t d_allocated = 0;
    int32_t d_size = 0;
    // Membership index, kept only for long lists so that contains stays cheap.
    std::unique_ptr<std::unordered_set<const VrmlNode*>> d_index;
};

#undef VRML_FIELD_OVERRIDES
