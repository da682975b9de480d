// Wavefront OBJ parser class: opening files in the WVEN text mode, reporting, and
// the OBJ + MTL writer. The reading engine itself lives in ObjReader.
#include "formats/mesh/CWavefrontIo.h"

#include <algorithm>
#include <filesystem>
#include <memory>
#include <unordered_map>
#include <vector>

#include "formats/mesh/MeshText.h"
#include "formats/mesh/ObjReader.h"
#include "plugin/host/Cancel.h"
#include "plugin/host/FileHelpers.h"
#include "plugin/host/IoFile.h"
#include "plugin/host/ReadAdapter.h"
#include "plugin/host/SwitchLocale.h"

namespace {
constexpr uint64_t kObjPrepFlags =
    PREP_SPLIT_LARGE | PREP_DROP_EMPTY | PREP_KEEP_NORMALS | PREP_WORLD_SPACE | PREP_MATERIALS | PREP_MESHES;
constexpr uint64_t kObjPrepFlags2 = 0x20000;
constexpr uint32_t kObjTextOptions = 0x3000000;
constexpr const char* kObjComment2 = "# https://orbiscope.org\n";
constexpr const char* kObjComment3 = "# One group per scene node; texture v is stored negated.\n";

CXStringW MaterialName(const C3DMaterial& m) {
    if (!m.GetName().IsEmpty()) return meshio::SanitizeName(m.GetName());
    std::string n = "material" + std::to_string(m.GetID());
    return CXStringW(WidenBytes(n));
}

void ColorLine(meshio::COutText& out, const char* key, const CRGBColor& c) {
    out.Put(key);
    out.F6(c.r / 255.0);
    out.Put(' ');
    out.F6(c.g / 255.0);
    out.Put(' ');
    out.F6(c.b / 255.0);
    out.Put('\n');
}
} // namespace

CWavefrontIo::CWavefrontIo(CFileIo& io) : C3DParser(io) {}
CWavefrontIo::~CWavefrontIo() {}

int CWavefrontIo::TextModeFor(uint32_t wven) {
    switch (wven) {
    case 1: return TEXT_MODE_UTF8;
    case 2: return TEXT_MODE_ANSI;
    default: return TEXT_MODE_AUTO;
    }
}

void CWavefrontIo::SaveDefaultOptions(CSceneExportOptions& options) const {
    if (options.GetParserOptions().GetUInt(kWvenKey, 0) == 2) {
        options.writeBom = 1;
        options.writeBomMtl = 1;
    }
    options.textOptions[0] = kObjTextOptions;
    options.textOptions[1] = kObjTextOptions;
    options.prepFlags = kObjPrepFlags;
    options.prepFlags2 = kObjPrepFlags2;
}

namespace {
C3DScene* Report(CWavefrontIo& parser, CFileIo& io, meshio::ObjReadResult res, CSceneImportOptions& options) {
    if (res.status == meshio::ObjStatus::Cancelled || parser.IsCancelled()) {
        delete res.scene;
        io.SetIoError(IO_ERR_CANCELLED, &options, LOG_INFO);
        return nullptr;
    }
    if (!res.scene) io.SetIoError(IO_ERR_EMPTY, &options, LOG_ERROR);
    return res.scene;
}
} // namespace

C3DScene* CWavefrontIo::Read(const CXStringW& path, CSceneImportOptions& options) {
    const int mode = TextModeFor(options.GetParserOptions().GetUInt(kWvenKey, 0));
    auto read = [&](std::span<const uint8_t> data, CReadContext& ctx) {
        // Material libraries are looked up beside the OBJ file.
        const CXStringW folder = fileStripName(ctx.Path());
        const bool silent = IsSilentMode();
        meshio::MtlLoader loader = [&](std::string_view name, std::string& key, std::string* bytes) {
            std::wstring w = Utf8ToWide(name);
            std::replace(w.begin(), w.end(), L'\\', L'/');
            CXStringW p(w);
            if (fileIsPathRelative(p)) p = folder + p;
            // The canonical path: "./m.mtl", ".//m.mtl", "sub/../m.mtl" and links are one file.
            std::error_code ec;
            const std::filesystem::path canonical =
                std::filesystem::canonical(std::filesystem::path(PathToUtf8(p)), ec);
            if (ec || std::filesystem::is_directory(canonical, ec)) return false;
            key = canonical.string();
            if (!bytes) return true;
            IoFile mtl(silent, mode);
            if (!mtl.OpenFile(key, true)) return false;
            auto d = mtl.GetData();
            bytes->assign(reinterpret_cast<const char*>(d.data()), d.size());
            mtl.CloseFile();
            return true;
        };
        meshio::ObjReadResult res = meshio::ReadObj(data, mode, loader, m_fileIo, ctx.Options(), ctx.File());
        ctx.File()->CloseFile();
        return Report(*this, m_fileIo, res, ctx.Options());
    };
    return ReadThroughFile(*this, path, options, read, mode);
}

C3DScene* CWavefrontIo::ReadMemory(std::span<const uint8_t> obj, std::span<const uint8_t> mtl,
                                   CSceneImportOptions& options) {
    const int mode = TextModeFor(options.GetParserOptions().GetUInt(kWvenKey, 0));
    auto read = [&](std::span<const uint8_t> data, CReadContext& ctx) {
        // One library in memory, whatever name the file gives it.
        meshio::MtlLoader loader = [&](std::string_view, std::string& key, std::string* bytes) {
            key.clear();
            if (bytes) bytes->assign(reinterpret_cast<const char*>(mtl.data()), mtl.size());
            return true;
        };
        return Report(*this, m_fileIo, meshio::ReadObj(data, mode, loader, m_fileIo, ctx.Options()), ctx.Options());
    };
    return ReadThroughMemory(*this, obj, options, read, mode);
}

bool CWavefrontIo::Save(const CXStringW& path, C3DScene* scene, CSceneExportOptions& options) {
    CSwitchLocale locale(LC_NUMERIC, "English");
    const int mode = TextModeFor(options.GetParserOptions().GetUInt(kWvenKey, 0));
    IoFile file(IsSilentMode(), mode);
    if (!file.OpenFile(path, false)) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    const CXStringW baseName = CFileInfo(path).GetNameWithoutExt();
    const CXStringW mtlName = baseName + L".mtl";
    bool ok = true;
    {
        meshio::COutText out(file);
        out.Put("# Wavefront OBJ generated by Orbiscope\n");
        out.Put(kObjComment2);
        out.Put(kObjComment3);
        out.Put("\nmtllib ");
        out.Wide(mtlName);
        out.Put('\n');

        uint64_t vBase = 0, tBase = 0, nBase = 0;
        std::vector<int32_t> normalNumber;
        std::vector<int> order;
        if (scene) {
            C3DNodePos pos = scene->GetFirstNode(KINDOF_ALL, 0, nullptr, nullptr);
            C3DBaseObject* o = nullptr;
            while (C3DSceneNode* node = scene->GetNextNode(o, pos)) {
                if (!o || o->IsFlagSet(OBJF_HIDDEN) || !(o->GetKindOf() & (KINDOF_MESH | KINDOF_PATCH))) continue;
                auto* obj = static_cast<C3DGeomObject*>(o);
                const C3DPointList* points = obj->GetPointList();
                const C3DFaceList* faces = obj->GetFaceList();
                if (!points || !faces) continue;
                const int np = points->GetSize();
                const int nf = faces->GetNumberOfFaces();

                out.Put("\n# Coordinates\n");
                const float* p = points->GetData();
                for (int i = 0; i < np; ++i, p += 3) {
                    out.Put("v ");
                    out.F6(p[0]);
                    out.Put(' ');
                    out.F6(p[1]);
                    out.Put(' ');
                    out.F6(p[2]);
                    out.Put('\n');
                }

                // Normals: the explicit channel, or smooth normals made for this write only.
                const CSpecNormalChannel* sn =
                    static_cast<const CSpecNormalChannel*>(obj->GetChannelByIndex(0, CHANNEL_SPEC_NORMAL));
                std::unique_ptr<CSpecNormalChannel> generated;
                if (!sn) {
                    generated = std::make_unique<CSpecNormalChannel>();
                    generated->GenerateNormals(*points, *faces, obj->GetSmoothAngle());
                    sn = generated.get();
                }
                const CNormalFaceList* nfl = sn->GetNormalFaceList();
                const C3DVectorList* nvl = sn->GetNormalVectorList();
                const int nvCount = nvl->GetSize();
                auto normalFaceOk = [&](int f) {
                    if (f >= nfl->GetNumberOfFaces() || nfl->IsFaceFlagSet(f, FACE_SKIP | FACE_HIDDEN) ||
                        nfl->GetFaceSize(f) != faces->GetFaceSize(f))
                        return false;
                    for (uint32_t i : nfl->Face(f))
                        if (i >= static_cast<uint32_t>(nvCount)) return false;
                    return true;
                };
                // Number the vectors that written faces use, in list order.
                normalNumber.assign(static_cast<size_t>(nvCount), -1);
                for (int f = 0; f < nf; ++f) {
                    if (faces->IsFaceFlagSet(f, FACE_SKIP) || !normalFaceOk(f)) continue;
                    for (uint32_t i : nfl->Face(f)) normalNumber[i] = 0;
                }
                int32_t nUsed = 0;
                for (auto& n : normalNumber)
                    if (n == 0) n = ++nUsed; // 1-based within the object
                if (nUsed > 0) {
                    out.Put("\n# Normals\n");
                    const float* v = nvl->GetData();
                    for (int i = 0; i < nvCount; ++i) {
                        if (normalNumber[static_cast<size_t>(i)] <= 0) continue;
                        out.Put("vn ");
                        out.F6(v[i * 3]);
                        out.Put(' ');
                        out.F6(v[i * 3 + 1]);
                        out.Put(' ');
                        out.F6(v[i * 3 + 2]);
                        out.Put('\n');
                    }
                }

                // UVs: the channel the colour map names, else the global or first UV channel.
                const CUVWChannel* uv = nullptr;
                for (int f = 0; f < nf && !uv; ++f) {
                    const C3DMaterial* m = scene->GetMaterialByID(faces->GetMaterialID(f));
                    const CMaterialMap* map = m ? m->GetMaterialMap(MAP_DIFFUSE) : nullptr;
                    if (map) uv = static_cast<const CUVWChannel*>(obj->GetChannelByID(map->channel, CHANNEL_UVW));
                    if (m) break;
                }
                if (!uv) uv = obj->GetGlobalUVWChannel();
                if (!uv) uv = static_cast<const CUVWChannel*>(obj->GetChannelByIndex(0, CHANNEL_UVW));
                const CUVWFaceList* ufl = uv ? uv->GetUVWFaceList() : nullptr;
                const int uvCount = uv ? uv->GetUVWPointList()->GetSize() : 0;
                if (uv && uvCount > 0) {
                    out.Put("\n# UV Coordinates\n");
                    const float* t = uv->GetUVWPointList()->GetData();
                    for (int i = 0; i < uvCount; ++i) {
                        out.Put("vt ");
                        out.F6(t[i * 3]);
                        out.Put(' ');
                        out.F6(-t[i * 3 + 1]);
                        out.Put('\n');
                    }
                }
                auto uvFaceOk = [&](int f) {
                    if (!ufl || f >= ufl->GetNumberOfFaces() || (ufl->GetFaceFlags(f) & 0x3) ||
                        ufl->GetFaceSize(f) != faces->GetFaceSize(f))
                        return false;
                    for (uint32_t i : ufl->Face(f))
                        if (i >= static_cast<uint32_t>(uvCount)) return false;
                    return true;
                };

                // Faces grouped by material, materials in order of first use.
                std::unordered_map<uint32_t, int> bucketOf;
                std::vector<uint32_t> bucketMaterial;
                std::vector<int> bucketSize;
                std::vector<int> faceBucket(static_cast<size_t>(nf), -1);
                uint32_t lastID = 0;
                int lastBucket = -1; // runs of faces share a material: look it up once per run
                for (int f = 0; f < nf; ++f) {
                    if (faces->IsFaceFlagSet(f, FACE_SKIP)) continue;
                    bool valid = faces->GetFaceSize(f) > 0;
                    for (uint32_t i : faces->Face(f)) valid = valid && i < static_cast<uint32_t>(np);
                    if (!valid) continue;
                    const uint32_t faceID = faces->GetMaterialID(f);
                    if (lastBucket < 0 || faceID != lastID) {
                        uint32_t id = faceID;
                        if (!scene->GetMaterialByID(id)) id = 0; // faces without material use material 0
                        auto it = bucketOf.find(id);
                        if (it == bucketOf.end()) {
                            it = bucketOf.emplace(id, static_cast<int>(bucketMaterial.size())).first;
                            bucketMaterial.push_back(id);
                            bucketSize.push_back(0);
                        }
                        lastID = faceID;
                        lastBucket = it->second;
                    }
                    faceBucket[static_cast<size_t>(f)] = lastBucket;
                    ++bucketSize[static_cast<size_t>(lastBucket)];
                }
                std::vector<int> start(bucketSize.size() + 1, 0);
                for (size_t b = 0; b < bucketSize.size(); ++b) start[b + 1] = start[b] + bucketSize[b];
                order.assign(static_cast<size_t>(start.back()), 0);
                {
                    std::vector<int> fill(start.begin(), start.end() - 1);
                    for (int f = 0; f < nf; ++f) {
                        const int b = faceBucket[static_cast<size_t>(f)];
                        if (b >= 0) order[static_cast<size_t>(fill[static_cast<size_t>(b)]++)] = f;
                    }
                }

                out.Put("\n# Faces\n");
                const CXStringW nodeName = meshio::SanitizeName(node->GetName());
                for (size_t b = 0; b < bucketMaterial.size(); ++b) {
                    if (b == 0) {
                        out.Put("# TVL:NODEID:");
                        out.UInt64(node->GetNodeID());
                        out.Put('\n');
                    }
                    out.Put("g ");
                    out.Wide(nodeName);
                    out.Put("\nusemtl ");
                    const C3DMaterial* m = scene->GetMaterialByID(bucketMaterial[b], true, MATERIAL_STANDARD);
                    out.Wide(MaterialName(*m));
                    out.Put('\n');
                    for (int k = start[b]; k < start[b + 1]; ++k) {
                        const int f = order[static_cast<size_t>(k)];
                        const bool hasUv = uvFaceOk(f);
                        const bool hasN = nUsed > 0 && normalFaceOk(f);
                        const auto fi = faces->Face(f);
                        const uint32_t* ti = hasUv ? ufl->GetFaceIndices(f) : nullptr;
                        const uint32_t* ni = hasN ? nfl->GetFaceIndices(f) : nullptr;
                        out.Put("f ");
                        for (size_t v = 0; v < fi.size(); ++v) {
                            out.UInt64(vBase + fi[v] + 1);
                            if (hasUv) {
                                out.Put('/');
                                out.UInt64(tBase + ti[v] + 1);
                                if (hasN) {
                                    out.Put('/');
                                    out.UInt64(nBase + static_cast<uint64_t>(normalNumber[ni[v]]));
                                }
                            } else if (hasN) {
                                out.Put("//");
                                out.UInt64(nBase + static_cast<uint64_t>(normalNumber[ni[v]]));
                            }
                            out.Put(' ');
                        }
                        out.Put('\n');
                        out.Check();
                    }
                }
                vBase += static_cast<uint64_t>(np);
                tBase += static_cast<uint64_t>(uvCount);
                nBase += static_cast<uint64_t>(nUsed);
            }
        }
        ok = out.Flush();
    }
    ok = file.CloseFile() && ok;

    // The material library beside the OBJ file.
    IoFile mtl(IsSilentMode(), mode);
    const CXStringW mtlPath = fileStripName(path) + mtlName;
    if (!ok || !mtl.OpenFile(mtlPath, false)) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    {
        meshio::COutText out(mtl);
        out.Put("# Wavefront MTL generated by Orbiscope\n");
        out.Put(kObjComment2);
        out.Put(kObjComment3);
        if (scene) {
            CMaterialPos mp;
            for (C3DMaterial* m = scene->GetFirstMaterial(mp); m; m = scene->GetNextMaterial(mp)) {
                const auto* sm = dynamic_cast<const C3DStandardMaterial*>(m);
                out.Put("newmtl ");
                out.Wide(MaterialName(*m));
                out.Put('\n');
                ColorLine(out, "Ka ", sm ? sm->ambient : CRGBColor(0, 0, 0));
                ColorLine(out, "Kd ", m->diffuse);
                ColorLine(out, "Ks ", sm ? sm->specular : CRGBColor(0, 0, 0));
                const double opacity = 1.0 - m->transparency;
                out.Put("Tr ");
                out.F6(opacity);
                out.Put("\nd ");
                out.F6(opacity);
                out.Put("\nNs ");
                out.F6((sm ? sm->specularFactor : 0.0f) * 1000.0);
                out.Put('\n');
                if (const CMaterialMap* map = m->GetMaterialMap(MAP_DIFFUSE)) {
                    out.Put("map_Kd ");
                    out.Wide(map->GetFileName());
                    out.Put('\n');
                }
                if (const CMaterialMap* map = m->GetMaterialMap(MAP_BUMP)) {
                    out.Put("map_bump ");
                    out.Wide(map->GetFileName());
                    out.Put('\n');
                }
            }
        }
        ok = out.Flush();
    }
    if (!mtl.CloseFile() || !ok) {
        m_fileIo.SetIoError(IO_ERR_OPEN, &options, LOG_ERROR);
        return false;
    }
    return true;
}
