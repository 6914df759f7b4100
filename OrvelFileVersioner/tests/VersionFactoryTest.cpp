#include "xplat/VersionFactory.h"

#include "xplat/CMapVersioner.h"
#include "xplat/ColorProfileVersioner.h"
#include "xplat/FontDatabaseVersioner.h"
#include "xplat/ICUVersioner.h"
#include "xplat/JSXVersioner.h"
#include "xplat/OTFFontVersioner.h"
#include "xplat/PFBFontVersioner.h"
#include "xplat/UnicodeMapVersioner.h"

#include "ReadRecorder.h"
#include "VersionerSamples.h"
#include "VersionerTestSupport.h"

#include <gtest/gtest.h>

#include <typeindex>
#include <typeinfo>

namespace ofv_testing {
namespace {

class VersionFactoryTest : public VersionerTest {};

TEST_F(VersionFactoryTest, RegistersTheEightVersionersInTheirFixedOrder) {
    const std::vector<std::type_index> expected = {
        typeid(CMapVersioner),         typeid(ColorProfileVersioner), typeid(OTFFontVersioner),
        typeid(PFBFontVersioner),      typeid(UnicodeMapVersioner),   typeid(ICUVersioner),
        typeid(FontDatabaseVersioner), typeid(JSXVersioner)};

    std::vector<std::type_index> registered;
    for (VersionFactory::CreateVersionerFunc create : VersionFactory::GetVersionerFuncs()) {
        const std::unique_ptr<VersionerABC> versioner = create();
        registered.emplace_back(typeid(*versioner));
    }

    EXPECT_EQ(registered, expected);
}

TEST_F(VersionFactoryTest, EveryRegistrationSucceeded) {
    EXPECT_TRUE(VersionFactory::RegisterCMapVersioner);
    EXPECT_TRUE(VersionFactory::RegisterColorProfileVersioner);
    EXPECT_TRUE(VersionFactory::RegisterOTFFontVersioner);
    EXPECT_TRUE(VersionFactory::RegisterPFBFontVersioner);
    EXPECT_TRUE(VersionFactory::RegisterUnicodeMapVersioner);
    EXPECT_TRUE(VersionFactory::RegisterICUVersioner);
    EXPECT_TRUE(VersionFactory::RegisterFontDatabaseVersioner);
    EXPECT_TRUE(VersionFactory::RegisterJSXVersioner);
}

TEST_F(VersionFactoryTest, AnUnknownFileIsReadOnceByEachVersionerThatLooksAtContent) {
    const std::string path = Write("notes.txt", std::string(10000, 'x'));
    ReadRecorder recorder;
    OFV_FileVersion version = UnsetVersion();
    OFV_FileType type = OFV_FileTypeUnknown;

    EXPECT_FALSE(VersionFactory::GetFileVersion(path, version, type));

    // CMap, OTF, PFB, Unicode map, ICU, font database, script; the colour-profile versioner
    // rejects the name without reading.
    EXPECT_EQ(recorder.requestedCounts(),
              (std::vector<std::size_t>{8192, 8192, 4096, 4096, 1024, 2048, 1024}));
    for (const ReadRecorder::Read& read : recorder.reads()) {
        EXPECT_EQ(read.read, read.requested);
    }
}

TEST_F(VersionFactoryTest, StopsAtTheFirstVersionerThatRecognisesTheFile) {
    // A CMap mark under a colour-profile name, with a script line too: the CMap versioner wins
    // and nothing after it reads the file.
    const std::string path =
        Write("profile.icc", MakeCMapText("4.5") + "// @@@BUILDINFO@@@ x 1.2.3.4\n");
    ReadRecorder recorder;
    OFV_FileVersion version = UnsetVersion();
    OFV_FileType type = OFV_FileTypeUnknown;

    EXPECT_TRUE(VersionFactory::GetFileVersion(path, version, type));

    EXPECT_EQ(type, OFV_FileTypeCMap);
    EXPECT_EQ(PartsOf(version), (Parts{4, 5, 0, 0}));
    EXPECT_EQ(recorder.requestedCounts(), (std::vector<std::size_t>{8192}));
}

TEST_F(VersionFactoryTest, LaterVersionersGetTheirTurn) {
    const std::string path = Write("OrvelTools.jsx", MakeScript("Tools 1.2.3.4"));
    OFV_FileVersion version = UnsetVersion();
    OFV_FileType type = OFV_FileTypeUnknown;

    EXPECT_TRUE(VersionFactory::GetFileVersion(path, version, type));

    EXPECT_EQ(type, OFV_FileTypeJSX);
    EXPECT_EQ(PartsOf(version), (Parts{1, 2, 3, 4}));
}

} // namespace
} // namespace ofv_testing
