#include "plugin/host/Triangulate.h"

#include <algorithm>
#include <cmath>

#include "plugin/host/PointList.h"

namespace {
enum : uint8_t { kConvex = 1, kListed = 2, kGone = 4 };

// Twice the signed area of the corner a-b-c (positive when it turns left).
double Turn(double ax, double ay, double bx, double by, double cx, double cy) {
    return (bx - ax) * (cy - ay) - (by - ay) * (cx - ax);
}
} // namespace

void CPolygonTriangulator::Fan(size_t n, std::vector<uint32_t>& out) {
    for (size_t i = 1; i + 1 < n; ++i) {
        out.push_back(0);
        out.push_back(static_cast<uint32_t>(i));
        out.push_back(static_cast<uint32_t>(i + 1));
    }
}

void CPolygonTriangulator::Triangulate(const C3DPointList& points, std::span<const uint32_t> face,
                                       std::vector<uint32_t>& out) {
    const size_t n = face.size();
    if (n < 3) return;
    if (n == 3) {
        Fan(n, out);
        return;
    }

    // Newell normal: robust for warped faces and independent of where the outline starts.
    const float* xyz = points.GetData();
    double nx = 0, ny = 0, nz = 0;
    double cx = 0, cy = 0, cz = 0;
    for (size_t i = 0; i < n; ++i) {
        const float* a = xyz + size_t(face[i]) * 3;
        const float* b = xyz + size_t(face[(i + 1) % n]) * 3;
        nx += (double(a[1]) - b[1]) * (double(a[2]) + b[2]);
        ny += (double(a[2]) - b[2]) * (double(a[0]) + b[0]);
        nz += (double(a[0]) - b[0]) * (double(a[1]) + b[1]);
        cx += a[0];
        cy += a[1];
        cz += a[2];
    }
    const double len = std::sqrt(nx * nx + ny * ny + nz * nz);
    if (!std::isfinite(len) || !std::isfinite(cx + cy + cz)) {
        ++m_fanned;
        Fan(n, out);
        return;
    }
    if (len == 0) {
        Fan(n, out);
        return;
    } // no area to keep
    nx /= len;
    ny /= len;
    nz /= len;
    // Plane axes u, v with u x v = normal: the outline turns counter-clockwise in (u, v).
    double ux, uy, uz;
    if (std::fabs(nx) <= std::fabs(ny) && std::fabs(nx) <= std::fabs(nz)) {
        ux = 0;
        uy = nz;
        uz = -ny;
    } else if (std::fabs(ny) <= std::fabs(nz)) {
        ux = -nz;
        uy = 0;
        uz = nx;
    } else {
        ux = ny;
        uy = -nx;
        uz = 0;
    }
    const double ul = std::sqrt(ux * ux + uy * uy + uz * uz);
    ux /= ul;
    uy /= ul;
    uz /= ul;
    const double vx = ny * uz - nz * uy, vy = nz * ux - nx * uz, vz = nx * uy - ny * ux;

    // Centred coordinates keep the products small for faces far from the origin.
    cx /= double(n);
    cy /= double(n);
    cz /= double(n);
    m_x.resize(n);
    m_y.resize(n);
    double extent = 0;
    for (size_t i = 0; i < n; ++i) {
        const float* a = xyz + size_t(face[i]) * 3;
        const double px = a[0] - cx, py = a[1] - cy, pz = a[2] - cz;
        m_x[i] = px * ux + py * uy + pz * uz;
        m_y[i] = px * vx + py * vy + pz * vz;
        extent = std::max({extent, std::fabs(m_x[i]), std::fabs(m_y[i])});
    }
    if (!(extent > 0)) {
        Fan(n, out);
        return;
    }
    const double eps = extent * extent * 1e-12;
    if (len <= eps) {
        Fan(n, out);
        return;
    } // collinear outline: no area to keep

    m_prev.resize(n);
    m_next.resize(n);
    m_cross.resize(n);
    m_state.assign(n, 0);
    m_reflex.clear();
    for (size_t i = 0; i < n; ++i) {
        m_prev[i] = static_cast<uint32_t>(i == 0 ? n - 1 : i - 1);
        m_next[i] = static_cast<uint32_t>(i + 1 == n ? 0 : i + 1);
    }
    auto classify = [&](uint32_t i) {
        const uint32_t p = m_prev[i], q = m_next[i];
        m_cross[i] = Turn(m_x[p], m_y[p], m_x[i], m_y[i], m_x[q], m_y[q]);
        if (m_cross[i] > eps) {
            m_state[i] |= kConvex;
        } else {
            m_state[i] &= static_cast<uint8_t>(~kConvex);
            if (!(m_state[i] & kListed)) {
                m_state[i] |= kListed;
                m_reflex.push_back(i);
            }
        }
    };
    for (uint32_t i = 0; i < n; ++i) classify(i);

    // An ear: a convex corner whose triangle holds no reflex or flat corner of the rest.
    // Corners at the same spot as the triangle's own (touching outlines) do not block it.
    size_t dead = 0;
    auto isEar = [&](uint32_t i) {
        const uint32_t p = m_prev[i], q = m_next[i];
        const double ax = m_x[p], ay = m_y[p], bx = m_x[i], by = m_y[i], qx = m_x[q], qy = m_y[q];
        for (uint32_t r : m_reflex) {
            if (m_budget) --m_budget;
            if ((m_state[r] & (kGone | kConvex)) || r == p || r == q || r == i) continue;
            const double rx = m_x[r], ry = m_y[r];
            if ((rx == ax && ry == ay) || (rx == bx && ry == by) || (rx == qx && ry == qy)) continue;
            if (Turn(ax, ay, bx, by, rx, ry) >= -eps && Turn(bx, by, qx, qy, rx, ry) >= -eps &&
                Turn(qx, qy, ax, ay, rx, ry) >= -eps)
                return false;
        }
        return true;
    };
    auto clip = [&](uint32_t i) {
        const uint32_t p = m_prev[i], q = m_next[i];
        out.push_back(p);
        out.push_back(i);
        out.push_back(q);
        m_state[i] |= kGone;
        if (m_state[i] & kListed) ++dead;
        m_next[p] = q;
        m_prev[q] = p;
        classify(p);
        classify(q);
        if (dead > 64 && dead * 2 > m_reflex.size()) {
            auto keep = [&](uint32_t r) {
                if (!(m_state[r] & (kGone | kConvex))) return true;
                m_state[r] &= static_cast<uint8_t>(~kListed);
                return false;
            };
            m_reflex.erase(std::remove_if(m_reflex.begin(), m_reflex.end(), [&](uint32_t r) { return !keep(r); }),
                           m_reflex.end());
            dead = 0;
        }
    };

    // Starting at corner 1 and moving on after each cut gives the plain fan for convex faces.
    size_t left = n, misses = 0;
    uint32_t i = 1;
    while (left > 3) {
        if (m_budget == 0) {
            // Out of work: cut what is left as a fan around the current corner.
            ++m_fanned;
            const uint32_t a = i;
            for (uint32_t b = m_next[a]; m_next[b] != a; b = m_next[b]) {
                out.push_back(a);
                out.push_back(b);
                out.push_back(m_next[b]);
            }
            return;
        }
        if ((m_state[i] & kConvex) && isEar(i)) {
            const uint32_t q = m_next[i];
            clip(i);
            --left;
            i = q;
            misses = 0;
            continue;
        }
        i = m_next[i];
        if (++misses < left) continue;
        // A full turn without an ear. A flat corner (collinear, or a spike folding back)
        // costs no area; otherwise the outline crosses itself and any convex corner goes.
        uint32_t pick = i, flat = n, convex = n;
        uint32_t c = i;
        do {
            if (flat == n && std::fabs(m_cross[c]) <= eps) flat = c;
            if (convex == n && (m_state[c] & kConvex)) convex = c;
            c = m_next[c];
        } while (c != i);
        if (flat != n) pick = flat;
        else {
            if (convex != n) pick = convex;
            ++m_forced;
        }
        i = m_next[pick];
        clip(pick);
        --left;
        misses = 0;
    }
    out.push_back(m_prev[i]);
    out.push_back(i);
    out.push_back(m_next[i]);
}
