#pragma once
// Triangulation of one polygon face by ear clipping on its best-fit plane (Newell normal),
// for writers that hold only triangles. Concave and slightly warped faces keep their area;
// degenerate ones (collinear corners, zero area, self-crossing outlines) always finish.
#include <cstdint>
#include <span>
#include <vector>

class C3DPointList;

class CPolygonTriangulator {
public:
    // `budget` bounds the corner tests of all calls together; once it is spent, the
    // remaining faces are cut as fans (counted in FannedFaces()).
    explicit CPolygonTriangulator(uint64_t budget) : m_budget(budget) {}

    // Appends one corner triple (positions 0..n-1 within `face`, in the face's winding)
    // per triangle to `out`: n - 2 triples for a face of n >= 3 corners, none below.
    void Triangulate(const C3DPointList& points, std::span<const uint32_t> face, std::vector<uint32_t>& out);

    // Faces cut as a fan because no exact cut was affordable or possible (work budget,
    // corners that are not finite numbers). Faces without area are not counted.
    uint64_t FannedFaces() const { return m_fanned; }
    // Corners clipped although they were no ear (self-crossing outlines).
    uint64_t ForcedCuts() const { return m_forced; }

private:
    static void Fan(size_t n, std::vector<uint32_t>& out);
    uint64_t m_budget;
    uint64_t m_fanned = 0;
    uint64_t m_forced = 0;
    // Scratch reused between faces.
    std::vector<double> m_x, m_y, m_cross;
    std::vector<uint32_t> m_prev, m_next, m_reflex;
    std::vector<uint8_t> m_state;
};
