#pragma once
// CCustomData: a property bag keyed by 32-bit IDs, with nested bags and
// persistence to a preferences file under the user's configuration folder.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "plugin/host/XString.h"

class CCustomData {
public:
    CCustomData() = default;
    CCustomData(const CCustomData& o);
    CCustomData& operator=(const CCustomData& o);
    CCustomData(CCustomData&&) noexcept = default;
    CCustomData& operator=(CCustomData&&) noexcept = default;
    ~CCustomData() = default;

    // Getters return `def` when the ID is missing or holds another type.
    int32_t GetInt(uint32_t id, int32_t def = 0) const;
    void SetInt(uint32_t id, int32_t v);
    uint32_t GetUInt(uint32_t id, uint32_t def = 0) const;
    void SetUInt(uint32_t id, uint32_t v);
    uint64_t GetUInt64(uint32_t id, uint64_t def = 0) const;
    void SetUInt64(uint32_t id, uint64_t v);
    double GetDouble(uint32_t id, double def = 0) const;
    void SetDouble(uint32_t id, double v);
    CXStringW GetString(uint32_t id, const CXStringW& def = CXStringW()) const;
    void SetString(uint32_t id, const CXStringW& v);
    bool GetBinary(uint32_t id, std::vector<uint8_t>& out) const;
    void SetBinary(uint32_t id, const void* data, size_t size);
    void* GetPtr(uint32_t id) const;
    void SetPtr(uint32_t id, void* p);
    bool GetStringArray(uint32_t id, std::vector<CXStringW>& out) const;
    void SetStringArray(uint32_t id, const std::vector<CXStringW>& v);
    // Nested bag under `id`; created when `create` is set, else null when missing.
    CCustomData* GetCustomData(uint32_t id, bool create = false);
    const CCustomData* GetCustomData(uint32_t id) const;
    // Stores a copy of `bag` under `id`.
    void AddToCustomData(uint32_t id, const CCustomData& bag);

    bool Has(uint32_t id) const { return m_values.count(id) != 0; }
    bool RemoveCustom(uint32_t id) { return m_values.erase(id) != 0; }
    void RemoveAll() { m_values.clear(); }
    int GetCount() const { return static_cast<int>(m_values.size()); }
    bool operator==(const CCustomData& o) const;

    // Binary (de)serialisation; Deserialize rejects damaged input and leaves the bag empty.
    std::vector<uint8_t> Serialize() const;
    bool Deserialize(const uint8_t* data, size_t size);

    // Persistence: $XDG_CONFIG_HOME/orbiscope (or ~/.config/orbiscope), one file per name+ID.
    // Load fails (false) when the file is missing, damaged or of another version, and
    // when preferences are off (ORBISCOPE_NO_PREFS), so tests never see stored values.
    // Save writes a temporary file beside the target and renames it over the old one.
    bool LoadFromPrefs(const CXStringW& name, uint32_t id, uint32_t version);
    bool SaveToPrefs(const CXStringW& name, uint32_t id, uint32_t version) const;
    static std::string PrefsPath(const CXStringW& name, uint32_t id);

private:
    using Bag = std::unique_ptr<CCustomData>;
    using Value = std::variant<int32_t, uint32_t, uint64_t, double, CXStringW, std::vector<uint8_t>, void*,
                               std::vector<CXStringW>, Bag>;
    std::map<uint32_t, Value> m_values;
};

// Whether the host may write preference files (off in tests via ORBISCOPE_NO_PREFS).
bool IsPreferencesSavingEnabled();
