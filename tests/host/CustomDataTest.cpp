// CCustomData: typed values, deep copies of nested bags, the binary encoding under
// damage, and preference files.
#include "plugin/host/CustomData.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <random>

#include "tests/support/TestSupport.h"

namespace {
CCustomData Sample() {
    CCustomData d;
    d.SetInt(1, -5);
    d.SetUInt(2, 0xFFFFFFFFu);
    d.SetUInt64(3, 0x123456789ABCDEF0ull);
    d.SetDouble(4, -0.0);
    d.SetString(5, L"n\u00e4me \U0001F600");
    const uint8_t bin[] = {0, 1, 2, 255};
    d.SetBinary(6, bin, sizeof(bin));
    d.SetStringArray(7, {L"a", L"", L"\u00df"});
    CCustomData* inner = d.GetCustomData(8, true);
    inner->SetInt(1, 42);
    inner->GetCustomData(9, true)->SetString(1, L"deep");
    d.SetDouble(10, std::nan(""));
    return d;
}

// Sets an environment variable for one scope.
class EnvScope {
public:
    EnvScope(const char* name, const char* value) : m_name(name) {
        if (const char* v = std::getenv(name)) m_old = v, m_had = true;
        if (value) setenv(name, value, 1);
        else unsetenv(name);
    }
    ~EnvScope() {
        if (m_had) setenv(m_name, m_old.c_str(), 1);
        else unsetenv(m_name);
    }
private:
    const char* m_name;
    std::string m_old;
    bool m_had = false;
};
} // namespace

TEST(CustomData, TypedValuesAndDefaults) {
    CCustomData d = Sample();
    EXPECT_EQ(-5, d.GetInt(1));
    EXPECT_EQ(0xFFFFFFFFu, d.GetUInt(2));
    EXPECT_EQ(0x123456789ABCDEF0ull, d.GetUInt64(3));
    EXPECT_TRUE(std::signbit(d.GetDouble(4, 1.0)));
    EXPECT_EQ(std::wstring(L"n\u00e4me \U0001F600"), d.GetString(5).str());
    // Another type under the ID or no ID at all: the default.
    EXPECT_EQ(7, d.GetInt(2, 7));
    EXPECT_EQ(9u, d.GetUInt(1, 9));
    EXPECT_EQ(std::wstring(L"def"), d.GetString(1, L"def").str());
    EXPECT_EQ(3, d.GetInt(999, 3));
    std::vector<uint8_t> bin;
    EXPECT_TRUE(d.GetBinary(6, bin));
    EXPECT_EQ(4u, bin.size());
    EXPECT_FALSE(d.GetBinary(1, bin));
    std::vector<CXStringW> arr;
    EXPECT_TRUE(d.GetStringArray(7, arr));
    EXPECT_EQ(3u, arr.size());
    EXPECT_EQ(nullptr, d.GetCustomData(1));
    EXPECT_EQ(nullptr, d.GetCustomData(555, false));
    int x = 0;
    d.SetPtr(11, &x);
    EXPECT_EQ(&x, d.GetPtr(11));
    EXPECT_EQ(nullptr, d.GetPtr(1));
    // Setting replaces whatever type was there.
    d.SetString(1, L"now text");
    EXPECT_EQ(0, d.GetInt(1));
    EXPECT_TRUE(d.RemoveCustom(1));
    EXPECT_FALSE(d.RemoveCustom(1));
    EXPECT_FALSE(d.Has(1));
    d.RemoveAll();
    EXPECT_EQ(0, d.GetCount());
}

TEST(CustomData, NestedBagsAreCopiedDeeply) {
    CCustomData a = Sample();
    CCustomData b = a;
    EXPECT_TRUE(a == b);
    b.GetCustomData(8, true)->GetCustomData(9, true)->SetString(1, L"changed");
    EXPECT_EQ(std::wstring(L"deep"), a.GetCustomData(8)->GetCustomData(9)->GetString(1).str());
    EXPECT_FALSE(a == b);
    // AddToCustomData stores a copy, even of a bag that lives inside the target.
    a.AddToCustomData(8, *a.GetCustomData(8));
    EXPECT_EQ(42, a.GetCustomData(8)->GetInt(1));
    CCustomData c;
    c = a;
    a.RemoveAll();
    EXPECT_EQ(42, c.GetCustomData(8)->GetInt(1));
    c = c; // self-assignment keeps the content
    EXPECT_EQ(42, c.GetCustomData(8)->GetInt(1));
}

TEST(CustomData, SerializeRoundTripAndHostileBytes) {
    CCustomData a = Sample();
    int x;
    a.SetPtr(11, &x); // pointers are not stored
    std::vector<uint8_t> bytes = a.Serialize();
    CCustomData b;
    ASSERT_TRUE(b.Deserialize(bytes.data(), bytes.size()));
    a.RemoveCustom(11);
    EXPECT_TRUE(a == b);
    // Every truncation fails and leaves the bag empty.
    for (size_t n = 0; n < bytes.size(); ++n) {
        CCustomData c = Sample();
        EXPECT_FALSE(c.Deserialize(bytes.data(), n)) << n;
        EXPECT_EQ(0, c.GetCount());
    }
    std::vector<uint8_t> longer = bytes;
    longer.push_back(0);
    EXPECT_FALSE(b.Deserialize(longer.data(), longer.size()));
    // Random damage never crashes; a huge count is refused before anything is allocated.
    std::mt19937 rng(3);
    for (int it = 0; it < 20000; ++it) {
        std::vector<uint8_t> m = bytes;
        for (int k = 0, e = 1 + static_cast<int>(rng() % 4); k < e; ++k)
            m[rng() % m.size()] = static_cast<uint8_t>(rng());
        CCustomData c;
        c.Deserialize(m.data(), m.size());
    }
    std::vector<uint8_t> huge = {'O', 'C', 'D', 1, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 7, 0xFF, 0xFF, 0xFF, 0x7F};
    EXPECT_FALSE(b.Deserialize(huge.data(), huge.size()));
    // Deep nesting is bounded.
    CCustomData deep;
    CCustomData* cur = &deep;
    for (int i = 0; i < 100; ++i) cur = cur->GetCustomData(1, true);
    std::vector<uint8_t> d = deep.Serialize();
    EXPECT_FALSE(b.Deserialize(d.data(), d.size()));
    EXPECT_FALSE(b.Deserialize(nullptr, 0));
}

TEST(CustomData, PreferencesPersistAtomically) {
    testsupport::TempDir dir;
    EnvScope xdg("XDG_CONFIG_HOME", dir.path().c_str());
    EnvScope off("ORBISCOPE_NO_PREFS", nullptr);
    ASSERT_TRUE(IsPreferencesSavingEnabled());
    std::string path = CCustomData::PrefsPath(L"LXO Options/../x", 0x4C584F49);
    EXPECT_EQ(dir.path().string() + "/orbiscope/LXO_Options_.._x-4C584F49.prefs", path);

    CCustomData a = Sample();
    ASSERT_TRUE(a.SaveToPrefs(L"LXO Options/../x", 0x4C584F49, 3));
    CCustomData b;
    ASSERT_TRUE(b.LoadFromPrefs(L"LXO Options/../x", 0x4C584F49, 3));
    EXPECT_TRUE(a == b);
    // Another version or ID does not load; nothing but the file itself is left behind.
    EXPECT_FALSE(b.LoadFromPrefs(L"LXO Options/../x", 0x4C584F49, 4));
    EXPECT_FALSE(b.LoadFromPrefs(L"LXO Options/../x", 1, 3));
    size_t files = 0;
    for (auto& e : std::filesystem::directory_iterator(dir.path() / "orbiscope")) ++files, (void)e;
    EXPECT_EQ(1u, files);
    // A damaged file is refused and the bag keeps its content.
    testsupport::WriteFile(path, "OPRF\x03\0\0\0garbage");
    CCustomData c = Sample();
    EXPECT_FALSE(c.LoadFromPrefs(L"LXO Options/../x", 0x4C584F49, 3));
    EXPECT_EQ(-5, c.GetInt(1));
    // A relative XDG_CONFIG_HOME is ignored in favour of ~/.config.
    {
        EnvScope rel("XDG_CONFIG_HOME", "relative/dir");
        EnvScope home("HOME", dir.path().c_str());
        EXPECT_EQ(dir.path().string() + "/.config/orbiscope/n-00000001.prefs", CCustomData::PrefsPath(L"n", 1));
    }
    // With preferences off nothing is written or read.
    EnvScope no("ORBISCOPE_NO_PREFS", "1");
    EXPECT_FALSE(IsPreferencesSavingEnabled());
    EXPECT_FALSE(a.SaveToPrefs(L"other", 1, 1));
    EXPECT_FALSE(std::filesystem::exists(CCustomData::PrefsPath(L"other", 1)));
}
