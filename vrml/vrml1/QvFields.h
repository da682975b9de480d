#pragma once
// VRML 1.0 field values. Single-valued fields read one value; multi-valued ones read a
// value or a bracketed, comma-separated list. Enum and bit-mask fields carry the name
// table of the node that owns them. Readers report their own errors through QvIn.
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class QvIn;
class QvNode;

enum class QvFieldType : uint8_t {
    SFBitMask,
    SFBool,
    SFColor,
    SFEnum,
    SFFloat,
    SFImage,
    SFLong,
    SFMatrix,
    SFRotation,
    SFString,
    SFUShort,
    SFVec2f,
    SFVec3f,
    MFColor,
    MFFloat,
    MFInt32,
    MFLong,
    MFString,
    MFVec2f,
    MFVec3f,
    SFNode, // Inventor's vertexProperty and the like: a node as a field value
};

// The type named in an unknown node's "fields" declaration; false when it is not a type.
bool QvFieldTypeFromName(std::string_view name, QvFieldType& type);

struct QvEnumEntry {
    const char* name;
    int32_t value;
};
struct QvEnumTable {
    const QvEnumEntry* entries;
    int count;
    bool lookup(std::string_view name, int32_t& value) const;
};

class QvField {
public:
    explicit QvField(QvFieldType t) : m_type(t) {}
    virtual ~QvField() = default;
    QvFieldType type() const { return m_type; }
    // Reads a value from `in`; false (after reporting) when it cannot.
    virtual bool read(QvIn& in) = 0;
    bool isDefault() const { return m_default; }
    void setDefault(bool d) { m_default = d; }

private:
    QvFieldType m_type;
    bool m_default = true;
};

class QvSField : public QvField {
public:
    using QvField::QvField;
};

class QvMField : public QvField {
public:
    using QvField::QvField;
    bool read(QvIn& in) override;
    // Element count and allocated count (in elements).
    virtual size_t num() const = 0;
    virtual size_t allocated() const = 0;

protected:
    virtual void clear() = 0;
    virtual bool readValue(QvIn& in) = 0;
    // Whether `c` can begin a value (a list whose commas were left out goes on).
    virtual bool startsValue(char c) const;
};

class QvSFBool : public QvSField {
public:
    explicit QvSFBool(bool v = false) : QvSField(QvFieldType::SFBool), value(v) {}
    bool read(QvIn& in) override;
    bool value;
};

class QvSFFloat : public QvSField {
public:
    explicit QvSFFloat(float v = 0) : QvSField(QvFieldType::SFFloat), value(v) {}
    bool read(QvIn& in) override;
    float value;
};

class QvSFLong : public QvSField {
public:
    explicit QvSFLong(int32_t v = 0) : QvSField(QvFieldType::SFLong), value(v) {}
    bool read(QvIn& in) override;
    int32_t value;
};

class QvSFUShort : public QvSField {
public:
    explicit QvSFUShort(uint16_t v = 0) : QvSField(QvFieldType::SFUShort), value(v) {}
    bool read(QvIn& in) override;
    uint16_t value;
};

class QvSFVec2f : public QvSField {
public:
    QvSFVec2f(float x = 0, float y = 0) : QvSField(QvFieldType::SFVec2f), value{x, y} {}
    bool read(QvIn& in) override;
    float value[2];
};

class QvSFVec3f : public QvSField {
public:
    QvSFVec3f(float x = 0, float y = 0, float z = 0, QvFieldType t = QvFieldType::SFVec3f)
        : QvSField(t), value{x, y, z} {}
    bool read(QvIn& in) override;
    float value[3];
};

class QvSFColor : public QvSFVec3f {
public:
    QvSFColor(float r = 0, float g = 0, float b = 0) : QvSFVec3f(r, g, b, QvFieldType::SFColor) {}
};

class QvSFRotation : public QvSField {
public:
    QvSFRotation(float x = 0, float y = 0, float z = 1, float a = 0)
        : QvSField(QvFieldType::SFRotation), axis{x, y, z}, angle(a) {}
    bool read(QvIn& in) override;
    float axis[3];
    float angle;
};

class QvSFMatrix : public QvSField {
public:
    QvSFMatrix();
    bool read(QvIn& in) override;
    float value[4][4]; // as written: four rows of four
};

class QvSFString : public QvSField {
public:
    explicit QvSFString(std::string v = {}) : QvSField(QvFieldType::SFString), value(std::move(v)) {}
    bool read(QvIn& in) override;
    std::string value;
};

class QvSFEnum : public QvSField {
public:
    QvSFEnum(const QvEnumTable* table, int32_t v, QvFieldType t = QvFieldType::SFEnum)
        : QvSField(t), value(v), m_table(table) {}
    bool read(QvIn& in) override;
    int32_t value;

protected:
    const QvEnumTable* m_table;
};

class QvSFBitMask : public QvSFEnum {
public:
    QvSFBitMask(const QvEnumTable* table, int32_t v) : QvSFEnum(table, v, QvFieldType::SFBitMask) {}
    bool read(QvIn& in) override;
};

class QvSFImage : public QvSField {
public:
    QvSFImage() : QvSField(QvFieldType::SFImage) {}
    bool read(QvIn& in) override;
    int32_t width = 0, height = 0, components = 0;
    std::vector<uint8_t> bytes; // width x height x components, bottom row first
};

// A node-valued field (or NULL); holds a reference.
class QvSFNode : public QvSField {
public:
    QvSFNode() : QvSField(QvFieldType::SFNode) {}
    ~QvSFNode() override;
    bool read(QvIn& in) override;
    QvNode* value = nullptr;
};

template <typename T, int N, QvFieldType Type> class QvMFNumbers : public QvMField {
public:
    QvMFNumbers() : QvMField(Type) {}
    QvMFNumbers(std::initializer_list<T> init) : QvMField(Type), values(init) {}
    size_t num() const override { return values.size() / N; }
    size_t allocated() const override { return values.capacity() / N; }
    const T* operator[](size_t i) const { return values.data() + i * N; }
    std::vector<T> values; // N per element

protected:
    void clear() override { values.clear(); }
    bool readValue(QvIn& in) override;
};

using QvMFFloat = QvMFNumbers<float, 1, QvFieldType::MFFloat>;
using QvMFVec2f = QvMFNumbers<float, 2, QvFieldType::MFVec2f>;
using QvMFVec3f = QvMFNumbers<float, 3, QvFieldType::MFVec3f>;
using QvMFColor = QvMFNumbers<float, 3, QvFieldType::MFColor>;
using QvMFLong = QvMFNumbers<int32_t, 1, QvFieldType::MFLong>;
using QvMFInt32 = QvMFNumbers<int32_t, 1, QvFieldType::MFInt32>;
// Packed colours (0xRRGGBBAA): read as unsigned 32-bit values.
using QvMFUInt32 = QvMFNumbers<uint32_t, 1, QvFieldType::MFLong>;

class QvMFString : public QvMField {
public:
    QvMFString() : QvMField(QvFieldType::MFString) {}
    size_t num() const override { return values.size(); }
    size_t allocated() const override { return values.capacity(); }
    std::vector<std::string> values;

protected:
    void clear() override { values.clear(); }
    bool readValue(QvIn& in) override;
    bool startsValue(char c) const override;
};

// A field of the type an unknown node's "fields" list names.
QvField* QvCreateField(QvFieldType type);
