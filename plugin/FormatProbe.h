#pragma once
// Content probes: a cheap look at a file's first bytes (and its length) that says whether
// it is of a format. "Maybe" where a format has no signature (OBJ, text of unknown
// shape); a reader still decides for itself.
#include <cstddef>
#include <cstdint>
#include <span>

enum class ProbeResult : int { No = 0, Maybe = 1, Yes = 2 };

// How many leading bytes a probe wants to see (it copes with fewer).
constexpr size_t kProbeBytes = 256;

using FormatProbe = ProbeResult (*)(std::span<const uint8_t> head, uint64_t size);

ProbeResult Probe3ds(std::span<const uint8_t> head, uint64_t size);
ProbeResult ProbeLwo(std::span<const uint8_t> head, uint64_t size);
ProbeResult ProbeLws(std::span<const uint8_t> head, uint64_t size);
ProbeResult ProbeAmapi(std::span<const uint8_t> head, uint64_t size);
ProbeResult ProbeDxf(std::span<const uint8_t> head, uint64_t size);
ProbeResult ProbeObj(std::span<const uint8_t> head, uint64_t size);
ProbeResult ProbeCob(std::span<const uint8_t> head, uint64_t size);
ProbeResult ProbeVrml1(std::span<const uint8_t> head, uint64_t size);
ProbeResult ProbeVrml97(std::span<const uint8_t> head, uint64_t size);
ProbeResult ProbeStl(std::span<const uint8_t> head, uint64_t size);
ProbeResult ProbeKmz(std::span<const uint8_t> head, uint64_t size);
ProbeResult ProbeLxo(std::span<const uint8_t> head, uint64_t size);
