// Ear clipping on arbitrary outlines: the first byte picks how the rest becomes corners
// (small integers for collinear and coincident corners, raw floats for NaN, infinities and
// huge values; repeated indices or not) and the work budget. Every face must come out as
// exactly n - 2 triangles of three distinct corners, within the budget.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "plugin/host/PointList.h"
#include "plugin/host/Triangulate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const uint8_t mode = data[0];
    ++data;
    --size;
    C3DPointList pts;
    const bool raw = mode & 1;
    const size_t stride = raw ? 12 : 3;
    for (size_t at = 0; at + stride <= size && pts.size() < 2000; at += stride) {
        float c[3];
        for (int k = 0; k < 3; ++k) {
            if (raw) std::memcpy(&c[k], data + at + 4 * k, 4);
            else c[k] = static_cast<float>(static_cast<int8_t>(data[at + k])) * ((mode & 8) ? 0.001f : 1.0f);
        }
        pts.Add(c[0], c[1], c[2]);
    }
    const size_t n = pts.size();
    std::vector<uint32_t> face(n);
    for (size_t i = 0; i < n; ++i)
        face[i] = (mode & 2) && n > 0 ? static_cast<uint32_t>(data[i % size] % n) : static_cast<uint32_t>(i);
    CPolygonTriangulator cut((mode & 4) ? 1000 : 50'000'000);
    std::vector<uint32_t> out;
    cut.Triangulate(pts, face, out);
    const size_t want = n >= 3 ? 3 * (n - 2) : 0;
    if (out.size() != want) std::abort();
    for (size_t i = 0; i < out.size(); i += 3) {
        if (out[i] >= n || out[i + 1] >= n || out[i + 2] >= n) std::abort();
        if (out[i] == out[i + 1] || out[i + 1] == out[i + 2] || out[i] == out[i + 2]) std::abort();
    }
    return 0;
}
