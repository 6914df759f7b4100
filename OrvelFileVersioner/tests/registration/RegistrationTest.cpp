// Links OrvelFileVersioner the way an application does (target_link_libraries PRIVATE, no
// whole-archive, no internals) and references nothing but the public headers, to show that
// the linker keeps every versioner and the start-up registration order holds.
#include "TempDirectory.h"
#include "VersionerSamples.h"
#include "xplat/OrvelFileVersioner.h"
#include "xplat/VersionFactory.h"

#include <gtest/gtest.h>

#include <array>

extern "C" int32_t OFVTest_CompareFromC(const char* inPath1, const char* inPath2,
                                        OFV_Result* outCode);
extern "C" OFV_FileType OFVTest_TypeFromC(const char* inPath);

namespace {

using namespace ofv_testing;

// One file per versioner, in registration order, that the versioner recognises on its own,
// with the type that identifies the versioner.
struct Probe {
    const char* name;
    std::string content;
    OFV_FileType type;
};

std::array<Probe, 8> RegistrationOrderProbes() {
    return {{
        {"Orvel-Test-H", MakeCMapText("11.001"), OFV_FileTypeCMap},
        {"Display.icc", MakeICCProfile(2006, 3, 15, 10, 20, 59), OFV_FileTypeColorProfile},
        {"OrvelSans.otf", MakeOpenTypeFont("Version 2.004;ORVL;"), OFV_FileTypeOTFFont},
        {"tiny.pfb", "/version (1.2) readonly def\n", OFV_FileTypePFBFont},
        {"ORVELSYM.TXT", MakeUnicodeMap("3.1"), OFV_FileTypeUnicodeMap},
        {"orvelcnv.cnv", MakeICUData("cnvt", {6, 1, 0, 0}, {3, 0, 0, 0}), OFV_FileTypeICU},
        {"OrvelFontDB.lst", MakeFontDatabase("1.2.3"), OFV_FileTypeFontDatabase},
        {"OrvelTools.jsx", MakeScript("Tools 1.2.3.4"), OFV_FileTypeJSX},
    }};
}

// Only the registry is consulted here, never the registration flags or a versioner class:
// referring to them would make the linker keep their object files for that reason alone.
TEST(VersionerRegistrationTest, AllEightVersionersAreRegisteredAtStartUp) {
    EXPECT_EQ(VersionFactory::GetVersionerFuncs().size(), 8u);
}

TEST(VersionerRegistrationTest, VersionersAreRegisteredInTheirFixedOrder) {
    const TempDirectory folder;
    const std::array<Probe, 8> probes = RegistrationOrderProbes();
    const auto& funcs = VersionFactory::GetVersionerFuncs();
    ASSERT_EQ(funcs.size(), probes.size());

    for (std::size_t i = 0; i < probes.size(); ++i) {
        SCOPED_TRACE(probes[i].name);
        const std::string path = folder.WriteFile(probes[i].name, probes[i].content);
        OFV_FileVersion version;
        OFV_FileType type = OFV_FileTypeUnknown;

        // Each versioner reports only its own type, so the type names the versioner.
        EXPECT_TRUE(funcs[i]()->VersionFile(path, version, type));
        EXPECT_EQ(type, probes[i].type);
    }
}

TEST(VersionerRegistrationTest, TheInterfaceFindsEveryKindOfFile) {
    const TempDirectory folder;
    for (const Probe& probe : RegistrationOrderProbes()) {
        SCOPED_TRACE(probe.name);
        const std::string path = folder.WriteFile(probe.name, probe.content);
        OFV_FileVersion version;
        OFV_FileType type = OFV_FileTypeUnknown;

        EXPECT_EQ(OFV_GetFileVersion(path.c_str(), &version, &type), OFV_Success);
        EXPECT_EQ(type, probe.type);
        EXPECT_TRUE(version.IsValid());
    }
}

TEST(VersionerRegistrationTest, TheInterfaceWorksFromC) {
    const TempDirectory folder;
    const std::string older = folder.WriteFile("old.icc", MakeICCProfile(2006, 3, 15, 10, 20, 30));
    const std::string newer = folder.WriteFile("new.icc", MakeICCProfile(2006, 3, 15, 10, 20, 59));
    OFV_Result code = OFV_ErrorGeneral;

    EXPECT_EQ(OFVTest_CompareFromC(older.c_str(), newer.c_str(), &code), -1);
    EXPECT_EQ(code, OFV_Success);
    EXPECT_EQ(OFVTest_TypeFromC(newer.c_str()), OFV_FileTypeColorProfile);
}

} // namespace
