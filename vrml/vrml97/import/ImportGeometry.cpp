// VRML97 geometry into host meshes and curves. Index runs come straight from the
// file, so each run is validated before anything is written; per-vertex colour
// and texture index lists that do not cover every kept face give no channel
// rather than a channel that disagrees with the mesh.
#include "vrml/vrml97/import/ImportGeometry.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "vrml/vrml97/VrmlNodeProto.h"
#include "vrml/vrml97/VrmlNodes.h"
#include "vrml/vrml97/import/ImportColor.h"

namespace vrml97import {

namespace {

constexpr int kMaxProtoHops = kVrmlMaxProtoNesting + 1;

// Calls fn(start, length, runNumber) for every non-empty run of indices between -1 entries.
template <class Fn> void ForEachRun(const int32_t* idx, size_t n, Fn&& fn) {
    size_t start = 0;
    size_t run = 0;
    for (size_t i = 0; i <= n; ++i) {
        if (i == n || idx[i] == -1) {
            if (i > start) fn(start, i - start, run++);
            start = i + 1;
        }
    }
}

bool RunValid(const int32_t* idx, size_t start, size_t len, size_t limit) {
    for (size_t k = start; k < start + len; ++k)
        if (idx[k] < 0 || static_cast<size_t>(idx[k]) >= limit) return false;
    return true;
}

template <class T> T* As(VrmlNode* n);
template <> VrmlNodeCoordinate* As(VrmlNode* n) { return n ? n->asCoordinate() : nullptr; }
template <> VrmlNodeColor* As(VrmlNode* n) { return n ? n->asColor() : nullptr; }
template <> VrmlNodeTextureCoordinate* As(VrmlNode* n) { return n ? n->asTextureCoordinate() : nullptr; }

// Corner indices of the kept faces into a per-vertex list (colour or texture coordinates):
// `list` parallel to coordIndex. False when some kept corner has no valid entry.
bool PerVertexValid(const std::vector<std::pair<size_t, size_t>>& faces, const int32_t* list, size_t listSize,
                    size_t valueCount) {
    for (auto [s, len] : faces) {
        if (s + len > listSize) return false;
        if (!RunValid(list, s, len, valueCount)) return false;
    }
    return true;
}

void FillPerVertex(CFaceList& out, const std::vector<std::pair<size_t, size_t>>& faces, const int32_t* list,
                   size_t totalIndices) {
    out.Reserve(faces.size(), totalIndices);
    for (auto [s, len] : faces) {
        uint32_t* d = out.AddFace(static_cast<int>(len));
        for (size_t k = 0; k < len; ++k) d[k] = static_cast<uint32_t>(list[s + k]);
    }
}

void FillPerFace(CFaceList& out, const std::vector<std::pair<size_t, size_t>>& faces,
                 const std::vector<uint32_t>& faceValue, size_t totalIndices) {
    out.Reserve(faces.size(), totalIndices);
    for (size_t f = 0; f < faces.size(); ++f) {
        uint32_t* d = out.AddFace(static_cast<int>(faces[f].second));
        std::fill(d, d + faces[f].second, faceValue[f]);
    }
}

void AddColors(CVCChannel& ch, const float* rgb, size_t n) {
    auto& pts = ch.GetVCPointList()->Raw();
    pts.reserve(n);
    for (size_t i = 0; i < n; ++i) pts.push_back(ColorFromFloats(rgb + 3 * i));
}

void AddTexCoords(CUVWChannel& ch, const float* uv, size_t n) {
    auto& raw = ch.GetUVWPointList()->Raw();
    raw.resize(n * 3);
    for (size_t i = 0; i < n; ++i) {
        raw[3 * i] = uv[2 * i];
        raw[3 * i + 1] = uv[2 * i + 1];
        raw[3 * i + 2] = 0;
    }
}

int32_t AttachColors(C3DObject& obj, CVCChannel* ch) {
    int32_t id = obj.AddChannel(ch, -1);
    obj.SetGlobalVCChannel(id);
    return id;
}

// The UV channel takes ID 1 when free: texture maps name channel 1.
int32_t AttachTexCoords(C3DObject& obj, CUVWChannel* ch) {
    int32_t id = obj.AddChannel(ch, 1);
    obj.SetGlobalUVWChannel(id);
    return id;
}

C3DVector Vec(const float* p) { return {p[0], p[1], p[2]}; }

// Rotation of v about a unit axis by angle (Rodrigues).
C3DVector Rotate(const C3DVector& v, const C3DVector& axis, float angle) {
    float c = std::cos(angle), s = std::sin(angle);
    return v * c + axis.Cross(v) * s + axis * (axis.Dot(v) * (1 - c));
}

bool IsZero(const C3DVector& v) { return v.x == 0 && v.y == 0 && v.z == 0; }

} // namespace

VrmlNode* ResolveNode(VrmlNode* n) {
    for (int hop = 0; n && hop < kMaxProtoHops; ++hop) {
        VrmlNodeProto* p = n->asProto();
        if (!p) return n;
        if (!p->isInstantiated()) p->instantiate();
        n = p->firstNode();
    }
    return n && !n->asProto() ? n : nullptr;
}

std::unique_ptr<C3DObject> BuildFaceSet(VrmlNodeIFaceSet& n, uint32_t material, GeometryReport& rep) {
    auto obj = std::make_unique<C3DObject>();
    VrmlNodeCoordinate* coord = As<VrmlNodeCoordinate>(ResolveNode(n.d_coord.get()));
    const size_t nPts = coord ? coord->d_point.size() : 0;
    if (nPts) obj->GetPointList()->Raw().assign(coord->d_point.get(), coord->d_point.get() + nPts * 3);

    const int32_t* ci = n.d_coordIndex.get();
    const size_t nci = n.d_coordIndex.size();
    std::vector<std::pair<size_t, size_t>> faces; // kept runs: start, length
    std::vector<size_t> runOf;                    // run number of each kept face
    size_t total = 0;
    ForEachRun(ci, nci, [&](size_t s, size_t len, size_t run) {
        if (len < 3 || !RunValid(ci, s, len, nPts)) {
            ++rep.skippedFaces;
            return;
        }
        faces.emplace_back(s, len);
        runOf.push_back(run);
        total += len;
    });

    C3DFaceList& fl = *obj->GetFaceList();
    fl.Reserve(faces.size(), total);
    fl.SetCurrentMaterial(material);
    for (auto [s, len] : faces) {
        uint32_t* d = fl.AddFace(static_cast<int>(len));
        for (size_t k = 0; k < len; ++k) d[k] = static_cast<uint32_t>(ci[s + k]);
    }

    if (VrmlNodeColor* color = As<VrmlNodeColor>(ResolveNode(n.d_color.get())); color && color->d_color.size()) {
        const size_t nColors = color->d_color.size();
        const bool hasIndex = n.d_colorIndex.size() > 0;
        auto ch = std::make_unique<CVCChannel>();
        bool ok;
        if (n.d_colorPerVertex.get()) {
            const int32_t* list = hasIndex ? n.d_colorIndex.get() : ci;
            size_t listSize = hasIndex ? n.d_colorIndex.size() : nci;
            ok = PerVertexValid(faces, list, listSize, nColors);
            if (ok) FillPerVertex(*ch->GetVCFaceList(), faces, list, total);
        } else {
            // One colour per face, by the face's run number (colorIndex picks it when given).
            std::vector<uint32_t> value(faces.size());
            ok = true;
            for (size_t f = 0; f < faces.size() && ok; ++f) {
                size_t run = runOf[f];
                int64_t v = hasIndex ? (run < n.d_colorIndex.size() ? n.d_colorIndex.get()[run] : -1)
                                     : static_cast<int64_t>(run);
                ok = v >= 0 && static_cast<size_t>(v) < nColors;
                if (ok) value[f] = static_cast<uint32_t>(v);
            }
            if (ok) FillPerFace(*ch->GetVCFaceList(), faces, value, total);
        }
        if (ok) {
            AddColors(*ch, color->d_color.get(), nColors);
            AttachColors(*obj, ch.release());
        } else {
            rep.droppedColors = true;
        }
    }

    if (auto* tc = As<VrmlNodeTextureCoordinate>(ResolveNode(n.d_texCoord.get())); tc && tc->d_point.size()) {
        const bool hasIndex = n.d_texCoordIndex.size() > 0;
        const int32_t* list = hasIndex ? n.d_texCoordIndex.get() : ci;
        size_t listSize = hasIndex ? n.d_texCoordIndex.size() : nci;
        if (PerVertexValid(faces, list, listSize, tc->d_point.size())) {
            auto ch = std::make_unique<CUVWChannel>();
            FillPerVertex(*ch->GetUVWFaceList(), faces, list, total);
            AddTexCoords(*ch, tc->d_point.get(), tc->d_point.size());
            AttachTexCoords(*obj, ch.release());
        } else {
            rep.droppedTexCoords = true;
        }
    }

    if (!n.d_ccw.get()) obj->InvertFaceWinding();
    // The crease angle goes over as the file states it (radians), unconverted.
    obj->SetSmoothAngle(n.d_creaseAngle.get());
    return obj;
}

std::unique_ptr<C3DCurve> BuildLineSet(VrmlNodeILineSet& n, uint32_t material, GeometryReport& rep) {
    auto curve = std::make_unique<C3DCurve>();
    VrmlNodeCoordinate* coord = As<VrmlNodeCoordinate>(ResolveNode(n.d_coord.get()));
    const size_t nPts = coord ? coord->d_point.size() : 0;
    if (nPts) curve->GetPointList()->Raw().assign(coord->d_point.get(), coord->d_point.get() + nPts * 3);
    const int32_t* ci = n.d_coordIndex.get();
    C3DFaceList& fl = *curve->GetFaceList();
    fl.SetCurrentMaterial(material);
    ForEachRun(ci, n.d_coordIndex.size(), [&](size_t s, size_t len, size_t) {
        if (len < 2 || !RunValid(ci, s, len, nPts)) {
            ++rep.skippedFaces;
            return;
        }
        uint32_t* d = fl.AddFace(static_cast<int>(len));
        for (size_t k = 0; k < len; ++k) d[k] = static_cast<uint32_t>(ci[s + k]);
    });
    return curve;
}

std::unique_ptr<C3DObject> BuildElevationGrid(VrmlNodeElevationGrid& n, uint32_t material, GeometryReport& rep) {
    const int64_t xd = n.d_xDimension.get(), zd = n.d_zDimension.get();
    // The heights pay for the grid: no more points than the file holds values.
    if (xd < 2 || zd < 2 || static_cast<uint64_t>(xd) * static_cast<uint64_t>(zd) > n.d_height.size()) {
        rep.empty = true;
        return nullptr;
    }
    const size_t nx = static_cast<size_t>(xd), nz = static_cast<size_t>(zd);
    const size_t count = nx * nz, cells = (nx - 1) * (nz - 1);
    const float xs = n.d_xSpacing.get(), zs = n.d_zSpacing.get();
    const float* h = n.d_height.get();

    auto obj = std::make_unique<C3DObject>();
    auto& pts = obj->GetPointList()->Raw();
    pts.resize(count * 3);
    for (size_t j = 0; j < nz; ++j)
        for (size_t i = 0; i < nx; ++i) {
            float* p = &pts[(j * nx + i) * 3];
            p[0] = static_cast<float>(i) * xs;
            p[1] = h[j * nx + i];
            p[2] = static_cast<float>(j) * zs;
        }
    // Counter-clockwise seen from +Y: (i,j) (i,j+1) (i+1,j+1) (i+1,j).
    auto fillQuads = [&](CFaceList& fl) {
        fl.Reserve(cells, cells * 4);
        for (size_t j = 0; j + 1 < nz; ++j)
            for (size_t i = 0; i + 1 < nx; ++i) {
                uint32_t* d = fl.AddFace(4);
                d[0] = static_cast<uint32_t>(j * nx + i);
                d[1] = static_cast<uint32_t>((j + 1) * nx + i);
                d[2] = static_cast<uint32_t>((j + 1) * nx + i + 1);
                d[3] = static_cast<uint32_t>(j * nx + i + 1);
            }
    };
    C3DFaceList& fl = *obj->GetFaceList();
    fl.SetCurrentMaterial(material);
    fillQuads(fl);

    if (VrmlNodeColor* color = As<VrmlNodeColor>(ResolveNode(n.d_color.get())); color && color->d_color.size()) {
        const size_t nColors = color->d_color.size();
        auto ch = std::make_unique<CVCChannel>();
        if (n.d_colorPerVertex.get() && nColors >= count) {
            fillQuads(*ch->GetVCFaceList());
        } else if (!n.d_colorPerVertex.get() && nColors >= cells) {
            CFaceList& cf = *ch->GetVCFaceList();
            cf.Reserve(cells, cells * 4);
            for (size_t c = 0; c < cells; ++c) {
                uint32_t* d = cf.AddFace(4);
                std::fill(d, d + 4, static_cast<uint32_t>(c));
            }
        } else {
            rep.droppedColors = true;
            ch.reset();
        }
        if (ch) {
            AddColors(*ch, color->d_color.get(), nColors);
            AttachColors(*obj, ch.release());
        }
    }

    auto uv = std::make_unique<CUVWChannel>();
    auto* tc = As<VrmlNodeTextureCoordinate>(ResolveNode(n.d_texCoord.get()));
    if (tc && tc->d_point.size() >= count) {
        AddTexCoords(*uv, tc->d_point.get(), tc->d_point.size());
    } else {
        if (tc) rep.droppedTexCoords = true;
        // The default mapping: s across x, t across z, 0..1 over the grid.
        auto& raw = uv->GetUVWPointList()->Raw();
        raw.resize(count * 3);
        for (size_t j = 0; j < nz; ++j)
            for (size_t i = 0; i < nx; ++i) {
                float* p = &raw[(j * nx + i) * 3];
                p[0] = static_cast<float>(i) / static_cast<float>(nx - 1);
                p[1] = static_cast<float>(j) / static_cast<float>(nz - 1);
                p[2] = 0;
            }
    }
    fillQuads(*uv->GetUVWFaceList());
    AttachTexCoords(*obj, uv.release());

    if (!n.d_ccw.get()) obj->InvertFaceWinding();
    obj->SetSmoothAngle(n.d_creaseAngle.get());
    return obj;
}

std::unique_ptr<C3DObject> BuildExtrusion(VrmlNodeExtrusion& n, uint32_t material, uint64_t maxPoints,
                                          GeometryReport& rep) {
    const size_t nS = n.d_spine.size(), nC = n.d_crossSection.size();
    if (nS < 2 || nC < 2) {
        rep.empty = true;
        return nullptr;
    }
    if (static_cast<uint64_t>(nS) * nC > maxPoints) {
        rep.tooLarge = true;
        return nullptr;
    }
    const float* spine = n.d_spine.get();
    const float* cs = n.d_crossSection.get();
    auto sp = [&](size_t i) { return Vec(spine + 3 * i); };
    const bool spineClosed = sp(0) == sp(nS - 1);
    const bool csClosed = cs[0] == cs[2 * (nC - 1)] && cs[1] == cs[2 * (nC - 1) + 1];

    // Spine-aligned cross-section planes: Y along the spine, Z from the bend, X = Y x Z.
    std::vector<C3DVector> X(nS), Y(nS), Z(nS);
    for (size_t i = 0; i < nS; ++i) {
        if (spineClosed && (i == 0 || i == nS - 1)) {
            Y[i] = sp(1) - sp(nS - 2);
            Z[i] = (sp(1) - sp(0)).Cross(sp(nS - 2) - sp(0));
        } else if (i == 0) {
            Y[i] = sp(1) - sp(0);
        } else if (i == nS - 1) {
            Y[i] = sp(nS - 1) - sp(nS - 2);
        } else {
            Y[i] = sp(i + 1) - sp(i - 1);
            Z[i] = (sp(i + 1) - sp(i)).Cross(sp(i - 1) - sp(i));
        }
        Y[i] = Y[i].Normalized();
        if (IsZero(Y[i]) && i > 0) Y[i] = Y[i - 1];
        Z[i] = Z[i].Normalized();
    }
    if (!spineClosed && nS > 2) {
        Z[0] = Z[1];
        Z[nS - 1] = Z[nS - 2];
    }
    bool anyZ = false;
    for (size_t i = 0; i < nS; ++i) {
        if (IsZero(Z[i]) && i > 0) Z[i] = Z[i - 1];
        // Keep neighbouring planes from flipping over.
        if (i > 0 && Z[i].Dot(Z[i - 1]) < 0) Z[i] = -Z[i];
        anyZ = anyZ || !IsZero(Z[i]);
    }
    if (anyZ) {
        // Planes before the first bend take its orientation.
        size_t first = 0;
        while (IsZero(Z[first])) ++first;
        for (size_t i = 0; i < first; ++i) Z[i] = Z[first];
    } else {
        // A straight spine: the plane is Y=0 turned from +Y onto the spine's direction.
        C3DVector dir{0, 1, 0};
        for (size_t i = 0; i < nS; ++i)
            if (!IsZero(Y[i])) {
                dir = Y[i];
                break;
            }
        C3DVector up{0, 1, 0};
        C3DVector axis = up.Cross(dir);
        float angle = std::acos(std::clamp(up.Dot(dir), -1.0f, 1.0f));
        if (IsZero(axis.Normalized())) axis = {1, 0, 0};
        else axis = axis.Normalized();
        C3DVector z = Rotate({0, 0, 1}, axis, angle);
        for (size_t i = 0; i < nS; ++i) {
            Z[i] = z;
            if (IsZero(Y[i])) Y[i] = dir;
        }
    }
    for (size_t i = 0; i < nS; ++i) {
        if (IsZero(Y[i])) Y[i] = {0, 1, 0};
        X[i] = Y[i].Cross(Z[i]).Normalized();
    }

    const size_t rows = spineClosed ? nS - 1 : nS;
    const size_t cols = csClosed ? nC - 1 : nC;
    auto vid = [&](size_t i, size_t j) {
        return static_cast<uint32_t>((spineClosed && i == nS - 1 ? 0 : i) * cols + (csClosed && j == nC - 1 ? 0 : j));
    };
    const size_t nScale = n.d_scale.size(), nOrient = n.d_orientation.size();

    auto obj = std::make_unique<C3DObject>();
    auto& pts = obj->GetPointList()->Raw();
    pts.resize(rows * cols * 3);
    for (size_t i = 0; i < rows; ++i) {
        const float* s = nScale ? n.d_scale[std::min(i, nScale - 1)] : nullptr;
        const float* o = nOrient ? n.d_orientation[std::min(i, nOrient - 1)] : nullptr;
        C3DVector oAxis = o ? C3DVector{o[0], o[1], o[2]}.Normalized() : C3DVector{};
        const bool turn = o && !IsZero(oAxis) && o[3] != 0;
        for (size_t j = 0; j < cols; ++j) {
            C3DVector local{cs[2 * j] * (s ? s[0] : 1), 0, cs[2 * j + 1] * (s ? s[1] : 1)};
            if (turn) local = Rotate(local, oAxis, o[3]);
            C3DVector p = sp(i) + X[i] * local.x + Y[i] * local.y + Z[i] * local.z;
            float* d = &pts[(i * cols + j) * 3];
            d[0] = p.x;
            d[1] = p.y;
            d[2] = p.z;
        }
    }

    // Texture coordinates: s along the cross-section, t along the spine (by length);
    // the caps map the cross-section's square bounds.
    auto cumulative = [](size_t count, auto point, std::vector<float>& out) {
        out.assign(count, 0.0f);
        for (size_t k = 1; k < count; ++k) out[k] = out[k - 1] + (point(k) - point(k - 1)).Length();
        float len = out[count - 1];
        for (float& v : out) v = len > 0 ? v / len : 0;
    };
    std::vector<float> sCoord, tCoord;
    cumulative(
        nC,
        [&](size_t k) {
            return C3DVector{cs[2 * k], 0, cs[2 * k + 1]};
        },
        sCoord);
    cumulative(nS, sp, tCoord);

    auto uv = std::make_unique<CUVWChannel>();
    auto& uvPts = uv->GetUVWPointList()->Raw();
    uvPts.reserve((nS * nC + 2 * nC) * 3);
    for (size_t i = 0; i < nS; ++i)
        for (size_t j = 0; j < nC; ++j) {
            uvPts.push_back(sCoord[j]);
            uvPts.push_back(tCoord[i]);
            uvPts.push_back(0);
        }

    C3DFaceList& fl = *obj->GetFaceList();
    fl.SetCurrentMaterial(material);
    CFaceList& uf = *uv->GetUVWFaceList();
    const size_t sideFaces = (nS - 1) * (nC - 1);
    fl.Reserve(sideFaces + 2, sideFaces * 4 + 2 * nC);
    uf.Reserve(sideFaces + 2, sideFaces * 4 + 2 * nC);
    for (size_t i = 0; i + 1 < nS; ++i)
        for (size_t j = 0; j + 1 < nC; ++j) {
            uint32_t* d = fl.AddFace(4);
            d[0] = vid(i, j);
            d[1] = vid(i, j + 1);
            d[2] = vid(i + 1, j + 1);
            d[3] = vid(i + 1, j);
            uint32_t* t = uf.AddFace(4);
            t[0] = static_cast<uint32_t>(i * nC + j);
            t[1] = static_cast<uint32_t>(i * nC + j + 1);
            t[2] = static_cast<uint32_t>((i + 1) * nC + j + 1);
            t[3] = static_cast<uint32_t>((i + 1) * nC + j);
        }

    const size_t capCount = cols;
    // A closed spine has no ends to cap.
    if (capCount >= 3 && !spineClosed && (n.d_beginCap.get() || n.d_endCap.get())) {
        float minX = cs[0], maxX = cs[0], minZ = cs[1], maxZ = cs[1];
        for (size_t j = 0; j < nC; ++j) {
            minX = std::min(minX, cs[2 * j]);
            maxX = std::max(maxX, cs[2 * j]);
            minZ = std::min(minZ, cs[2 * j + 1]);
            maxZ = std::max(maxZ, cs[2 * j + 1]);
        }
        float size = std::max(maxX - minX, maxZ - minZ);
        uint32_t capUV = static_cast<uint32_t>(uvPts.size() / 3);
        for (size_t j = 0; j < capCount; ++j) {
            uvPts.push_back(size > 0 ? (cs[2 * j] - minX) / size : 0);
            uvPts.push_back(size > 0 ? (cs[2 * j + 1] - minZ) / size : 0);
            uvPts.push_back(0);
        }
        // The begin cap runs against the cross-section so that it faces away from the spine.
        if (n.d_beginCap.get()) {
            uint32_t* d = fl.AddFace(static_cast<int>(capCount));
            uint32_t* t = uf.AddFace(static_cast<int>(capCount));
            for (size_t k = 0; k < capCount; ++k) {
                d[k] = vid(0, capCount - 1 - k);
                t[k] = capUV + static_cast<uint32_t>(capCount - 1 - k);
            }
        }
        if (n.d_endCap.get()) {
            uint32_t* d = fl.AddFace(static_cast<int>(capCount));
            uint32_t* t = uf.AddFace(static_cast<int>(capCount));
            for (size_t k = 0; k < capCount; ++k) {
                d[k] = vid(nS - 1, k);
                t[k] = capUV + static_cast<uint32_t>(k);
            }
        }
    }
    AttachTexCoords(*obj, uv.release());

    if (!n.d_ccw.get()) obj->InvertFaceWinding();
    obj->SetSmoothAngle(n.d_creaseAngle.get());
    return obj;
}

uint64_t GeometryElements(const C3DGeomObject& o) {
    uint64_t n = 0;
    if (const C3DPointList* p = o.GetPointList()) n += p->Raw().size();
    if (const C3DFaceList* f = o.GetFaceList())
        n += f->GetNumberOfIndices() + static_cast<uint64_t>(f->GetNumberOfFaces());
    for (const auto& ch : o.GetChannels()) {
        if (const CFaceList* f = ch->GetFaceList())
            n += f->GetNumberOfIndices() + static_cast<uint64_t>(f->GetNumberOfFaces());
        n += ch->MemoryBytes() / 8; // points, roughly
    }
    return n;
}

} // namespace vrml97import
