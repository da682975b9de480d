#include "plugin/host/Keys.h"

#include <algorithm>

C3DKeyCurve::C3DKeyCurve(const C3DKeyCurve& o) : m_type(o.m_type), m_curve(o.m_curve) {
    m_keys.reserve(o.m_keys.size());
    for (auto& k : o.m_keys) m_keys.push_back(k->Clone());
}

int C3DKeyCurve::AddKey(std::unique_ptr<C3DKey> key) {
    auto it = std::lower_bound(m_keys.begin(), m_keys.end(), key->GetTime(),
                               [](const std::unique_ptr<C3DKey>& k, int32_t t) { return k->GetTime() < t; });
    if (it != m_keys.end() && (*it)->GetTime() == key->GetTime()) {
        *it = std::move(key);
    } else {
        it = m_keys.insert(it, std::move(key));
    }
    return static_cast<int>(it - m_keys.begin());
}

namespace {
// Index i with key[i].time <= t < key[i+1].time and the local parameter; clamps at the ends.
bool Locate(const std::vector<std::unique_ptr<C3DKey>>& keys, double t, size_t& i, float& u) {
    if (keys.empty()) return false;
    if (t <= keys.front()->GetTime() || keys.size() == 1) {
        i = 0;
        u = 0;
        return true;
    }
    if (t >= keys.back()->GetTime()) {
        i = keys.size() - 1;
        u = 0;
        return true;
    }
    auto it = std::upper_bound(keys.begin(), keys.end(), t,
                               [](double tt, const std::unique_ptr<C3DKey>& k) { return tt < k->GetTime(); });
    i = static_cast<size_t>(it - keys.begin()) - 1;
    double t0 = keys[i]->GetTime(), t1 = keys[i + 1]->GetTime();
    u = static_cast<float>((t - t0) / (t1 - t0));
    return true;
}

C3DVector VecOf(const C3DKey& k) { return static_cast<const C3DVectorKey&>(k).value; }

// Kochanek-Bartels tangents at key i (outgoing and incoming).
void TcbTangents(const std::vector<std::unique_ptr<C3DKey>>& keys, size_t i, C3DVector& out, C3DVector& in) {
    const CTCBParams& p = keys[i]->tcb;
    C3DVector cur = VecOf(*keys[i]);
    C3DVector prev = i > 0 ? VecOf(*keys[i - 1]) : cur;
    C3DVector next = i + 1 < keys.size() ? VecOf(*keys[i + 1]) : cur;
    C3DVector d0 = cur - prev, d1 = next - cur;
    float t = p.tension, c = p.continuity, b = p.bias;
    out = d0 * ((1 - t) * (1 + c) * (1 + b) / 2) + d1 * ((1 - t) * (1 - c) * (1 - b) / 2);
    in = d0 * ((1 - t) * (1 - c) * (1 + b) / 2) + d1 * ((1 - t) * (1 + c) * (1 - b) / 2);
    if (i == 0) out = in = d1;
    if (i + 1 == keys.size()) out = in = d0;
}
} // namespace

bool C3DKeyCurve::EvaluateVector(double time, C3DVector& out) const {
    size_t i;
    float u;
    if (!Locate(m_keys, time, i, u)) return false;
    if (m_keys[i]->GetType() == KEY_MATRIX || m_keys[i]->GetType() == KEY_ROTATE) return false;
    if (u == 0 || i + 1 >= m_keys.size()) {
        out = VecOf(*m_keys[i]);
        return true;
    }
    C3DVector p0 = VecOf(*m_keys[i]), p1 = VecOf(*m_keys[i + 1]);
    if (m_curve != CURVE_TCB) {
        out = p0 + (p1 - p0) * u;
        return true;
    }
    C3DVector outTan, inTan, o1, in1;
    TcbTangents(m_keys, i, outTan, inTan);
    TcbTangents(m_keys, i + 1, o1, in1);
    float u2 = u * u, u3 = u2 * u;
    float h1 = 2 * u3 - 3 * u2 + 1, h2 = -2 * u3 + 3 * u2, h3 = u3 - 2 * u2 + u, h4 = u3 - u2;
    out = p0 * h1 + p1 * h2 + outTan * h3 + in1 * h4;
    return true;
}

bool C3DKeyCurve::EvaluateRotation(double time, CQuaternion& out) const {
    size_t i;
    float u;
    if (!Locate(m_keys, time, i, u)) return false;
    if (m_keys[i]->GetType() != KEY_ROTATE) return false;
    const auto& a = static_cast<const C3DRotateKey&>(*m_keys[i]).GetQuaternion();
    if (u == 0 || i + 1 >= m_keys.size()) {
        out = a;
        return true;
    }
    const auto& b = static_cast<const C3DRotateKey&>(*m_keys[i + 1]).GetQuaternion();
    out = CQuaternion::Slerp(a, b, u);
    return true;
}

bool C3DKeyCurve::EvaluateMatrix(double time, C4x4Matrix& out) const {
    size_t i;
    float u;
    if (!Locate(m_keys, time, i, u)) return false;
    if (m_keys[i]->GetType() != KEY_MATRIX) return false;
    const C4x4Matrix& a = static_cast<const C3DMatrixKey&>(*m_keys[i]).matrix;
    if (u == 0 || i + 1 >= m_keys.size()) {
        out = a;
        return true;
    }
    const C4x4Matrix& b = static_cast<const C3DMatrixKey&>(*m_keys[i + 1]).matrix;
    C3DPoint ta, sa, tb, sb;
    CQuaternion ra, rb;
    a.Decompose(ta, ra, sa);
    b.Decompose(tb, rb, sb);
    out = C4x4Matrix::Compose(ta + (tb - ta) * u, CQuaternion::Slerp(ra, rb, u), sa + (sb - sa) * u);
    return true;
}

// --- C3DKeyframable ----------------------------------------------------------

C3DKeyframable::C3DKeyframable(const C3DKeyframable& o) { *this = o; }

C3DKeyframable& C3DKeyframable::operator=(const C3DKeyframable& o) {
    if (this == &o) return *this;
    m_tracks.clear();
    m_tracks.reserve(o.m_tracks.size());
    for (auto& t : o.m_tracks) m_tracks.push_back(std::make_unique<C3DKeyCurve>(*t));
    return *this;
}

std::unique_ptr<C3DKey> C3DKeyframable::CreateKey(uint64_t type, int32_t time) {
    if (type == KEY_MATRIX) return std::make_unique<C3DMatrixKey>(time);
    if (type == KEY_ROTATE) return std::make_unique<C3DRotateKey>(time);
    if (type == KEY_TRANSLATE) return std::make_unique<C3DTranslateKey>(time);
    return std::make_unique<C3DVectorKey>(type, time);
}

C3DKeyCurve* C3DKeyframable::GetTrack(uint64_t type) const {
    for (auto& t : m_tracks)
        if (t->GetType() == type) return t.get();
    return nullptr;
}

C3DKeyCurve* C3DKeyframable::GetOrCreateTrack(uint64_t type, uint32_t curveKind) {
    if (C3DKeyCurve* t = GetTrack(type)) return t;
    m_tracks.push_back(std::make_unique<C3DKeyCurve>(type, curveKind));
    return m_tracks.back().get();
}

int C3DKeyframable::AddKey(std::unique_ptr<C3DKey> key, uint32_t curveKind) {
    return GetOrCreateTrack(key->GetType(), curveKind)->AddKey(std::move(key));
}

int C3DKeyframable::GetKeyNbr(uint64_t type) const {
    C3DKeyCurve* t = GetTrack(type);
    return t ? t->GetKeyNbr() : 0;
}

int C3DKeyframable::GetKeyNbr() const {
    int n = 0;
    for (auto& t : m_tracks) n += t->GetKeyNbr();
    return n;
}

C3DKey* C3DKeyframable::GetKeyByIndex(uint64_t type, int i) const {
    C3DKeyCurve* t = GetTrack(type);
    return t && i >= 0 && i < t->GetKeyNbr() ? t->GetKeyByIndex(i) : nullptr;
}

void C3DKeyframable::DeleteKey(uint64_t type, int i) {
    C3DKeyCurve* t = GetTrack(type);
    if (t && i >= 0 && i < t->GetKeyNbr()) t->DeleteKey(i);
}

bool C3DKeyframable::HasKeys() const { return GetKeyNbr() > 0; }

bool C3DKeyframable::Evaluate(double time, C4x4Matrix& out) const {
    if (!HasKeys()) return false;
    if (C3DKeyCurve* m = GetTrack(KEY_MATRIX); m && m->GetKeyNbr() > 0) return m->EvaluateMatrix(time, out);
    C3DVector scale{1, 1, 1}, trans, pivot;
    CQuaternion rot;
    if (C3DKeyCurve* t = GetTrack(KEY_SCALE)) t->EvaluateVector(time, scale);
    if (C3DKeyCurve* t = GetTrack(KEY_ROTATE)) t->EvaluateRotation(time, rot);
    if (C3DKeyCurve* t = GetTrack(KEY_TRANSLATE)) t->EvaluateVector(time, trans);
    if (C3DKeyCurve* t = GetTrack(KEY_PIVOT)) t->EvaluateVector(time, pivot);
    // The pivot key holds the offset added to the object's points before scaling and
    // rotating (minus the pivot point, as 3D Studio stores it).
    out = C4x4Matrix::Translation(pivot.x, pivot.y, pivot.z) * C4x4Matrix::Compose(trans, rot, scale);
    return true;
}
