#pragma once
// A software renderer for previews: depth-buffered triangles with Gouraud or flat
// lighting, diffuse colours, vertex colours and UV textures, curves as lines, point
// clouds as dots, a ground grid, and a camera fitted to the scene's bounding box.
// The scene's own coordinates are Y-up (as the host's primitives are built) unless
// asked otherwise; "front" looks at the scene from +Z toward -Z.
#include <cstdint>
#include <string>
#include <vector>

#include "plugin/host/Image.h"

class C3DScene;

enum class RenderView { Iso, Front, Back, Left, Right, Top, Bottom, Camera };
enum class RenderShading { Auto, Flat, Smooth };

// Parses "iso", "front", ... ; false for an unknown name.
bool ParseRenderView(const std::string& name, RenderView& out);

struct CRenderOptions {
    int width = 512;
    int height = 512;
    RenderView view = RenderView::Iso;
    RenderShading shading = RenderShading::Auto;
    uint32_t background = 0xF2F2F2FF; // RGBA
    bool textures = true;
    bool grid = true;
    bool zUp = false;                            // the scene's up axis is +Z (else +Y)
    int supersample = 2;                         // samples per pixel along each axis (1..4)
    std::string sceneFolder;                     // where relative texture names are looked up first
    uint64_t fillBudget = 3000000000ull;         // pixel tests before drawing stops (hostile scenes)
    uint64_t textureBytes = uint64_t(256) << 20; // decoded textures of one scene together
};

struct CRenderStats {
    uint64_t triangles = 0; // drawn (after cutting polygons)
    uint64_t lines = 0;
    uint64_t points = 0;
    int texturesLoaded = 0;
    std::vector<std::string> missingTextures; // names as the scene gives them
    std::vector<std::string> notes;           // things the user should know (no camera, cut short)
    bool cutShort = false;
};

enum class RenderResult { Ok, Empty, BadSize };

// Largest side accepted, before supersampling.
constexpr int kMaxRenderSide = 8192;

// Draws `scene` into `out` (width x height RGBA). Empty: nothing that can be drawn
// (no faces, lines or points with finite coordinates); `out` is then left empty.
RenderResult RenderScene(const C3DScene& scene, const CRenderOptions& options, CImage& out,
                         CRenderStats* stats = nullptr);
