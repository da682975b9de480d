// Readers run with the C locale's numbers whatever the process locale says. Observed
// from inside the read: the cancel query runs on the reading thread mid-parse.
#include <gtest/gtest.h>

#include <clocale>
#include <memory>
#include <string>
#include <vector>

#include "formats/classic/C3DStudioIo.h"
#include "formats/classic/CAmapiIo.h"
#include "formats/mesh/CWavefrontIo.h"
#include "plugin/host/Scene.h"
#include "tests/host/CommaLocale.h"

namespace {
template <class Base> class LocaleSpy : public Base {
public:
    using Base::Base;
    bool ShouldCancelParser() const override {
        seen.push_back(std::localeconv()->decimal_point);
        return false;
    }
    mutable std::vector<std::string> seen;
};

std::span<const uint8_t> Bytes(const std::string& s) { return {reinterpret_cast<const uint8_t*>(s.data()), s.size()}; }
} // namespace

TEST(LocaleGuard, EveryReaderSeesADecimalPointUnderACommaLocale) {
    testsupport::CommaLocaleScope comma;
    if (!comma.ok()) GTEST_SKIP() << "no comma-decimal locale available";
    ASSERT_EQ(std::string(std::localeconv()->decimal_point), ",");
    {
        CFileIo io;
        LocaleSpy<CWavefrontIo> obj(io);
        CSceneImportOptions options;
        std::unique_ptr<C3DScene> s(obj.ReadMemory(Bytes("v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n"), {}, options));
        ASSERT_FALSE(obj.seen.empty());
        for (const auto& d : obj.seen) EXPECT_EQ(d, ".") << "OBJ";
    }
    {
        CFileIo io;
        LocaleSpy<C3DStudioIo> studio(io);
        CSceneImportOptions options;
        const std::string file("\x4D\x4D\x06\x00\x00\x00", 6);
        std::unique_ptr<C3DScene> s(studio.ReadMemory(file.data(), file.size(), options));
        ASSERT_FALSE(studio.seen.empty());
        for (const auto& d : studio.seen) EXPECT_EQ(d, ".") << "3DS";
    }
    {
        CFileIo io;
        LocaleSpy<CAmapiIo> amapi(io);
        CSceneImportOptions options;
        const std::string file = "AMAP";
        std::unique_ptr<C3DScene> s(amapi.ReadMemory(file.data(), file.size(), options));
        ASSERT_FALSE(amapi.seen.empty());
        for (const auto& d : amapi.seen) EXPECT_EQ(d, ".") << "Amapi";
    }
    EXPECT_EQ(std::string(std::localeconv()->decimal_point), ",") << "the guard must end with the read";
}
