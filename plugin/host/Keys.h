#pragma once
// Animation keys: a keyframable holds tracks named by 64-bit key tags (MATR, TRAN,
// ROTA, SCAL, VECT, PIVO), each a list of keys at integer ticks with a curve kind.
#include <cstdint>
#include <memory>
#include <vector>

#include "plugin/host/HostTypes.h"
#include "plugin/host/Math3D.h"

// TCB parameters of a key (tension, continuity, bias, ease in/out).
struct CTCBParams {
    float tension = 0, continuity = 0, bias = 0, easeIn = 0, easeOut = 0;
    bool operator==(const CTCBParams&) const = default;
};

class C3DKey {
public:
    explicit C3DKey(uint64_t type, int32_t time = 0) : m_type(type), m_time(time) {}
    virtual ~C3DKey() = default;
    virtual std::unique_ptr<C3DKey> Clone() const = 0;
    uint64_t GetType() const { return m_type; }
    int32_t GetTime() const { return m_time; }
    void SetTime(int32_t t) { m_time = t; }
    CTCBParams tcb;
protected:
    uint64_t m_type;
    int32_t m_time;
};

class C3DMatrixKey : public C3DKey {
public:
    explicit C3DMatrixKey(int32_t t = 0) : C3DKey(KEY_MATRIX, t) {}
    std::unique_ptr<C3DKey> Clone() const override { return std::make_unique<C3DMatrixKey>(*this); }
    C4x4Matrix matrix;
};

// Translation, scale, pivot and plain vector keys.
class C3DVectorKey : public C3DKey {
public:
    explicit C3DVectorKey(uint64_t type = KEY_VECTOR, int32_t t = 0) : C3DKey(type, t) {}
    std::unique_ptr<C3DKey> Clone() const override { return std::make_unique<C3DVectorKey>(*this); }
    C3DVector value;
};
class C3DTranslateKey : public C3DVectorKey {
public:
    explicit C3DTranslateKey(int32_t t = 0) : C3DVectorKey(KEY_TRANSLATE, t) {}
    std::unique_ptr<C3DKey> Clone() const override { return std::make_unique<C3DTranslateKey>(*this); }
};

// Rotation: absolute orientation. The host's angle turns clockwise about its axis when
// seen from the axis tip (3D Studio files store their keys this way), so the key's turn
// is the right-handed rotation by the negated angle. Angle and axis are kept as given.
class C3DRotateKey : public C3DKey {
public:
    explicit C3DRotateKey(int32_t t = 0) : C3DKey(KEY_ROTATE, t) {}
    std::unique_ptr<C3DKey> Clone() const override { return std::make_unique<C3DRotateKey>(*this); }
    void SetRotation(float angle, const C3DVector& axis) {
        m_axis = axis;
        m_angle = angle;
        m_q = CQuaternion::FromAxisAngle(axis, -angle);
    }
    void SetQuaternion(const CQuaternion& q) {
        m_q = q.Normalized();
        AngleAxisOf(m_q, m_angle, m_axis);
    }
    const CQuaternion& GetQuaternion() const { return m_q; }
    C3DVector GetAxis() const { return m_axis; }
    float GetAngle() const { return m_angle; }
    // The host's angle and axis of the turn `q` (what SetRotation takes back to q).
    static void AngleAxisOf(const CQuaternion& q, float& angle, C3DVector& axis) {
        q.ToAxisAngle(axis, angle);
        angle = -angle;
    }
private:
    CQuaternion m_q;
    C3DVector m_axis{0, 0, 1};
    float m_angle = 0;
};

// A track: keys of one type sorted by time, interpolated by its curve kind.
class C3DKeyCurve {
public:
    C3DKeyCurve(uint64_t type, uint32_t curveKind) : m_type(type), m_curve(curveKind) {}
    C3DKeyCurve(const C3DKeyCurve& o);
    uint64_t GetType() const { return m_type; }
    uint32_t GetCurveKind() const { return m_curve; }
    void SetCurveKind(uint32_t c) { m_curve = c; }
    int GetKeyNbr() const { return static_cast<int>(m_keys.size()); }
    C3DKey* GetKeyByIndex(int i) const { return m_keys[static_cast<size_t>(i)].get(); }
    // Inserts in time order; a key at an existing time replaces it. Returns the index.
    int AddKey(std::unique_ptr<C3DKey> key);
    void DeleteKey(int i) { m_keys.erase(m_keys.begin() + i); }
    void DeleteAllKeys() { m_keys.clear(); }
    // Interpolated value at `time` (clamped at both ends); false when the track is empty.
    bool EvaluateVector(double time, C3DVector& out) const;
    bool EvaluateRotation(double time, CQuaternion& out) const;
    bool EvaluateMatrix(double time, C4x4Matrix& out) const;
private:
    uint64_t m_type;
    uint32_t m_curve;
    std::vector<std::unique_ptr<C3DKey>> m_keys;
};
using C3DTCBCurve = C3DKeyCurve; // a key curve whose kind is CURVE_TCB

class C3DKeyframable {
public:
    C3DKeyframable() = default;
    C3DKeyframable(const C3DKeyframable& o);
    C3DKeyframable& operator=(const C3DKeyframable& o);
    virtual ~C3DKeyframable() = default;

    // A new key of the class that goes with `type` (not yet added).
    static std::unique_ptr<C3DKey> CreateKey(uint64_t type, int32_t time);
    // Adds to the track of the key's type (created with `curveKind` when missing).
    int AddKey(std::unique_ptr<C3DKey> key, uint32_t curveKind = CURVE_TCB);
    C3DKeyCurve* GetTrack(uint64_t type) const;
    C3DKeyCurve* GetOrCreateTrack(uint64_t type, uint32_t curveKind = CURVE_TCB);
    int GetTrackCount() const { return static_cast<int>(m_tracks.size()); }
    C3DKeyCurve* GetTrackByIndex(int i) const { return m_tracks[static_cast<size_t>(i)].get(); }
    int GetKeyNbr(uint64_t type) const;
    int GetKeyNbr() const; // all tracks
    C3DKey* GetKeyByIndex(uint64_t type, int i) const;
    void DeleteKey(uint64_t type, int i);
    void DeleteAllKeys() { m_tracks.clear(); }
    bool HasKeys() const;
    // The local transform at `time` from the tracks: MATR if present, else
    // the pivot offset, then scale, rotation, translation; false when there are no tracks.
    bool Evaluate(double time, C4x4Matrix& out) const;
private:
    std::vector<std::unique_ptr<C3DKeyCurve>> m_tracks;
};
