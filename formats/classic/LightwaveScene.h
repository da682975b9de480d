#pragma once
// Lightwave scene reading (.lws): items, hierarchy, envelopes, cameras and lights, with the
// objects loaded from the LWO files the scene names (looked for around `folder`).
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "plugin/host/Options.h"
#include "plugin/host/Scene.h"
#include "plugin/host/XString.h"

namespace lightwave {

// One animated channel: keys with the span type into each key (0 TCB, 1 Hermite,
// 2 1-D Bezier, 3 linear, 4 stepped, 5 2-D Bezier) and the behaviours outside the keys
// (0 reset, 1 constant, 2 repeat, 3 oscillate, 4 offset repeat, 5 linear).
struct EnvelopeKey {
    double value = 0, time = 0;
    int span = 0;
    double p[6] = {0, 0, 0, 0, 0, 0};
};
struct Envelope {
    std::vector<EnvelopeKey> keys;
    int pre = 1, post = 1;
    double Evaluate(double time) const;
};

// Every object item is a copy of what its file holds; the copies of one scene hold at most
// this many points and corners, plus 4 per byte of the scene and of the files it loads (a
// short line can name a large object again). Later items get no geometry.
constexpr uint64_t kCopyAllowance = uint64_t(1) << 26;

// IO_OK and a scene, or IO_ERR_FORMAT / IO_ERR_EMPTY / IO_ERR_CANCELLED.
int ReadScene(std::span<const uint8_t> data, const CXStringW& folder, CSceneImportOptions& options,
              const std::function<bool()>& cancelled, std::unique_ptr<C3DScene>& out,
              uint64_t copyAllowance = kCopyAllowance);

} // namespace lightwave
