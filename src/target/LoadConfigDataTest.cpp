#include "target/LoadConfigData.h"

#include "TestSupport.h"
#include "runtime/Environment.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

using Lines = std::vector<std::string>;

const char* const kFullConfiguration = R"(<?xml version="1.0" encoding="UTF-8"?>
<PatcherConfig>
  <Family>Orvel Creative</Family>
  <Name>Orvel Paint</Name>
  <ComboPatch>true</ComboPatch>
  <PatcherID>PNT-502-01</PatcherID>
  <BuildNumber>417</BuildNumber>
  <PatchExecutableName>OrvelPaintUpdater</PatchExecutableName>
  <Version>5.0.2</Version>
  <ProductData>
    <AppName>Orvel Paint.app</AppName>
    <BundleIdentifier>com.orvel.paint</BundleIdentifier>
    <OldVersion>5.0.1</OldVersion>
    <NewVersion>5.0.2</NewVersion>
    <KVRFilePath>[INSTALLDIR]/Contents/Resources/kvr.plist</KVRFilePath>
    <KOR>
      <AppID>PNT5</AppID>
      <Version>2.1</Version>
    </KOR>
    <PDS><Mac><ORDB>PaintDB</ORDB></Mac></PDS>
    <OrvelCode>
      <GUID>{A1B2-0001}</GUID>
      <GUID>{A1B2-0002}</GUID>
    </OrvelCode>
    <AliasList><Alias>[ProgramFiles]/Paint alias</Alias></AliasList>
    <PathList>
      <Path>[ProgramFiles]/Orvel/Orvel Paint.app</Path>
      <Path>[OrvelProgramFiles]/Paint/Orvel Paint.app</Path>
    </PathList>
    <ShowDestinationDialog>true</ShowDestinationDialog>
  </ProductData>
  <PrePatchValidation>
    <AppRunningList>
      <AppRunning>Orvel Paint</AppRunning>
      <AppRunning>Orvel Bridge</AppRunning>
    </AppRunningList>
    <OSVersion>10.4.11</OSVersion>
    <AppValidityCheck>
      <KeyFilePathList><KeyFilePath>[INSTALLDIR]/Contents/MacOS/Paint</KeyFilePath></KeyFilePathList>
      <MD5Check>
        <Path>[INSTALLDIR]/Contents/MacOS/Paint</Path>
        <MD5Value>0123456789abcdef0123456789abcdef</MD5Value>
      </MD5Check>
      <BundleIdentifier>com.orvel.paint.check</BundleIdentifier>
      <PDS><Mac><ORDB>PaintCheckDB</ORDB></Mac></PDS>
      <KeyValuePairs><KeyValuePair>CFBundleVersion=5.0.1</KeyValuePair></KeyValuePairs>
    </AppValidityCheck>
    <SpaceRequirement>
      <System>20480</System>
      <Target>102400</Target>
    </SpaceRequirement>
  </PrePatchValidation>
</PatcherConfig>
)";

class LoadConfigDataTest : public ::testing::Test {
protected:
    void SetUp() override { SetENVverbosityLevel("debug"); }
    void TearDown() override { SetENVverbosityLevel("debug"); }

    std::string write(const std::string& name, const std::string& text) {
        const std::string path = _dir.file(name);
        WriteTextFile(path, text);
        return path;
    }

    TempDir _dir;
};

std::vector<std::string> StringValues(const std::vector<XmlNode>& nodes) {
    std::vector<std::string> values;
    for (const XmlNode& node : nodes)
        values.push_back(node.stringValue());
    return values;
}

TEST_F(LoadConfigDataTest, EveryElementIsReadAndLoggedInTableOrder) {
    const std::string path = write("config.xml", kFullConfiguration);
    LogCapture log;
    {
        LoadConfigData loader;
        ASSERT_EQ(loader.loadConfigInfoFromFile(path), &loader);

        EXPECT_EQ(loader.getProductFamily(), "Orvel Creative");
        EXPECT_EQ(loader.getProductName(), "Orvel Paint");
        EXPECT_EQ(loader.getComboFlag(), "true");
        EXPECT_EQ(loader.getPatcherID(), "PNT-502-01");
        EXPECT_EQ(loader.getPatcherName(), "OrvelPaintUpdater");
        EXPECT_EQ(loader.getProductNewVersion(), "5.0.2");
        EXPECT_EQ(loader.getProductOldVersion(), "5.0.1");
        EXPECT_EQ(loader.getAppGUID(), std::nullopt);

        const ProductData& product = loader.getAppLocateInfo();
        EXPECT_EQ(product.appName, "Orvel Paint.app");
        EXPECT_EQ(product.currKORVersion, "2.1");
        EXPECT_EQ(product.oldVersion, "5.0.1");
        EXPECT_EQ(product.newVersion, "5.0.2");
        EXPECT_EQ(product.kvrFilePath, "[INSTALLDIR]/Contents/Resources/kvr.plist");
        EXPECT_EQ(product.appID, "PNT5");
        EXPECT_EQ(StringValues(product.appORDBData), Lines{"PaintDB"});
        EXPECT_EQ(StringValues(product.appOrvelCodeGUIDList),
                  (Lines{"{A1B2-0001}", "{A1B2-0002}"}));
        EXPECT_EQ(StringValues(product.appAliasList), Lines{"[ProgramFiles]/Paint alias"});
        EXPECT_EQ(StringValues(product.appFixedPathList),
                  (Lines{"[ProgramFiles]/Orvel/Orvel Paint.app",
                         "[OrvelProgramFiles]/Paint/Orvel Paint.app"}));
        EXPECT_EQ(product.showDestinationDialog, "true");

        const AppValidationData& validation = loader.getAppValidationInfo();
        EXPECT_EQ(StringValues(validation.appRunning), (Lines{"Orvel Paint", "Orvel Bridge"}));
        EXPECT_EQ(validation.patcherID, "PNT-502-01");
        EXPECT_EQ(validation.appBundleIdentifier, "com.orvel.paint.check");
        EXPECT_EQ(StringValues(validation.appKeyFilePath),
                  Lines{"[INSTALLDIR]/Contents/MacOS/Paint"});
        EXPECT_EQ(StringValues(validation.appORDBData), Lines{"PaintCheckDB"});
        EXPECT_EQ(validation.appMD5CheckPath, "[INSTALLDIR]/Contents/MacOS/Paint");
        EXPECT_EQ(validation.appMD5CheckValue, "0123456789abcdef0123456789abcdef");
        EXPECT_EQ(StringValues(validation.keyValuePairs), Lines{"CFBundleVersion=5.0.1"});
        EXPECT_EQ(validation.versionOSX, "10.4.11");
        EXPECT_EQ(validation.spaceRequiedOnOSVolume, "20480");
        EXPECT_EQ(validation.spaceRequiedOnAppVolume, "102400");
        for (const XmlNode& node : product.appFixedPathList)
            EXPECT_EQ(node.name(), "Path");
    }
    const Lines expected = {
        "PRODUCT DETAILS:",
        "Product Family is : Orvel Creative",
        "Product Name is : Orvel Paint",
        "Combo Patch : true",
        "Patcher ID is : PNT-502-01",
        "Patcher BuildNumber is : 417",
        "Patcher name : OrvelPaintUpdater",
        "Product new version : 5.0.2",
        "Application name : Orvel Paint.app",
        "Application BundleIdentifier : com.orvel.paint",
        "Old Application Version expected : 5.0.1",
        "New Application Version after update : 5.0.2",
        "KVR file path : [INSTALLDIR]/Contents/Resources/kvr.plist",
        "Current Application AppID is : PNT5",
        "Current KOR version used : 2.1",
        "OrvelCode ORDB Data (0) : <ORDB>PaintDB</ORDB>",
        "OrvelCode GUID (0) : <GUID>{A1B2-0001}</GUID>",
        "OrvelCode GUID (1) : <GUID>{A1B2-0002}</GUID>",
        "Alias (0) : <Alias>[ProgramFiles]/Paint alias</Alias>",
        "Fixed Location (0) : <Path>[ProgramFiles]/Orvel/Orvel Paint.app</Path>",
        "Fixed Location (1) : <Path>[OrvelProgramFiles]/Paint/Orvel Paint.app</Path>",
        "ShowDestinationDialog : true",
        "Running Application (0) : <AppRunning>Orvel Paint</AppRunning>",
        "Running Application (1) : <AppRunning>Orvel Bridge</AppRunning>",
        "Min OS-X version required : 10.4.11",
        "Key File (0) : <KeyFilePath>[INSTALLDIR]/Contents/MacOS/Paint</KeyFilePath>",
        "Key MD5 file : [INSTALLDIR]/Contents/MacOS/Paint",
        "Key MD5 file checksum: 0123456789abcdef0123456789abcdef",
        "Application BundleIdentifier: com.orvel.paint.check",
        "OrvelCode ORDB Data (0) : <ORDB>PaintCheckDB</ORDB>",
        "Key Value Pairs (0) : <KeyValuePair>CFBundleVersion=5.0.1</KeyValuePair>",
        "Space required on OS Volume : 20480 KBs",
        "Space required on App Volume : 102400 KBs",
        "dealloc LoadconfigData",
        "dealloc ProductData",
        "dealloc AppValidationData",
    };
    EXPECT_EQ(log.lines(), expected);
}

TEST_F(LoadConfigDataTest, RootOnlyTakesTheDefaultsAndLeavesEverythingElseEmpty) {
    const std::string path = write("config.xml", "<PatcherConfig/>");
    LogCapture log;
    LoadConfigData loader;
    ASSERT_EQ(loader.loadConfigInfoFromFile(path), &loader);
    EXPECT_EQ(loader.getProductFamily(), "Tavrin");
    EXPECT_EQ(loader.getProductName(), "Orvel universal Updater");
    EXPECT_EQ(loader.getComboFlag(), "false");
    EXPECT_EQ(loader.getPatcherName(), "UpdaterApplication");
    EXPECT_EQ(loader.getProductNewVersion(), "1.0.1");
    EXPECT_EQ(loader.getPatcherID(), std::nullopt);
    EXPECT_EQ(loader.getProductOldVersion(), std::nullopt);
    const ProductData& product = loader.getAppLocateInfo();
    EXPECT_FALSE(product.appName || product.currKORVersion || product.newVersion ||
                 product.kvrFilePath || product.appID || product.showDestinationDialog);
    EXPECT_TRUE(product.appORDBData.empty() && product.appOrvelCodeGUIDList.empty() &&
                product.appAliasList.empty() && product.appFixedPathList.empty());
    const AppValidationData& validation = loader.getAppValidationInfo();
    EXPECT_FALSE(validation.appBundleIdentifier || validation.appMD5CheckPath ||
                 validation.appMD5CheckValue || validation.versionOSX ||
                 validation.spaceRequiedOnOSVolume || validation.spaceRequiedOnAppVolume);
    EXPECT_TRUE(validation.appRunning.empty() && validation.appKeyFilePath.empty() &&
                validation.appORDBData.empty() && validation.keyValuePairs.empty());
    EXPECT_EQ(log.lines(), (Lines{
                               "PRODUCT DETAILS:",
                               "Product Family is : Tavrin",
                               "Product Name is : Orvel universal Updater",
                               "Combo Patch : false",
                               "Error: Patcher ID is not present in configuration file. ",
                               "Patcher name : UpdaterApplication",
                               "Product new version : 1.0.1",
                               "Product information is not present in configuration file.",
                               "Pre Patch validation info is not present in configuration file.",
                           }));
}

TEST_F(LoadConfigDataTest, EmptyContainersLogEveryAbsentRow) {
    const std::string path =
        write("config.xml", "<PatcherConfig><ProductData/><PrePatchValidation><AppValidityCheck/>"
                            "<SpaceRequirement/></PrePatchValidation></PatcherConfig>");
    LogCapture log;
    LoadConfigData loader;
    ASSERT_EQ(loader.loadConfigInfoFromFile(path), &loader);
    EXPECT_EQ(loader.getAppValidationInfo().spaceRequiedOnOSVolume, std::nullopt);
    const Lines lines = log.lines();
    const Lines expected = {
        "PRODUCT DETAILS:",
        "Product Family is : Tavrin",
        "Product Name is : Orvel universal Updater",
        "Combo Patch : false",
        "Error: Patcher ID is not present in configuration file. ",
        "Patcher name : UpdaterApplication",
        "Product new version : 1.0.1",
        "Error: Application name is not present in configuration file. ",
        "Application BundleIdentifier is not present in configuration file.",
        "Application old version is not present in configuration file.",
        "Application new version is not present in configuration file.",
        "KVR file path is not present in configuration file.",
        "KOR Application AppID is not present in configuration file.",
        "KOR version is not present in configuration file.",
        "Application ORDB Data name not present in configuration file.",
        "OrvelCode GUIDs are not present in configuration file.",
        "Alias Lists are not present in configuration file.",
        "Fixed Locations are not present in configuration file.",
        "ShowDestinationDialog Key is not present in configuration file.",
        "Running Application list is not present in configuration file.",
        "Min OS-X version is not present in configuration file.",
        "Key File Path list is not present in configuration file.",
        "Key MD5 file is not present in configuration file.",
        "Key MD5 file checksum is not present in configuration file.",
        "BundleIdentifier is not present in configuration file.",
        "Application ORDB Data name not present in configuration file.",
        "Key Value Pairs are not present in configuration file.",
        "Space required on OS Volume is not present in configuration file.",
        "Space required on OS Volume :  KBs",
        "Space required on App Volume is not present in configuration file.",
        "Space required on App Volume :  KBs",
    };
    EXPECT_EQ(lines, expected);
}

TEST_F(LoadConfigDataTest, MissingInnerContainersLogTheirOwnMessage) {
    const std::string path =
        write("config.xml", "<PatcherConfig><PrePatchValidation><OSVersion>10.5</OSVersion>"
                            "</PrePatchValidation></PatcherConfig>");
    LogCapture log;
    LoadConfigData loader;
    ASSERT_EQ(loader.loadConfigInfoFromFile(path), &loader);
    const Lines lines = log.lines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(Lines(lines.end() - 4, lines.end()),
              (Lines{"Running Application list is not present in configuration file.",
                     "Min OS-X version required : 10.5",
                     "Application Validity check info is not present in configuration file.",
                     "Application Space requirement check info is not present in configuration "
                     "file."}));
}

TEST_F(LoadConfigDataTest, TwoLikeElementsCountAsAbsent) {
    const std::string path =
        write("config.xml", "<PatcherConfig><Family>A</Family><Family>B</Family><ProductData>"
                            "<AppName>X</AppName><AppName>Y</AppName></ProductData>"
                            "<ProductData/></PatcherConfig>");
    LogCapture log;
    LoadConfigData loader;
    ASSERT_EQ(loader.loadConfigInfoFromFile(path), &loader);
    EXPECT_EQ(loader.getProductFamily(), "Tavrin");
    EXPECT_EQ(loader.getAppLocateInfo().appName, std::nullopt);
    EXPECT_TRUE(log.contains("Product Family is : Tavrin"));
    // Two ProductData containers count as none.
    EXPECT_TRUE(log.contains("Product information is not present in configuration file."));
}

TEST_F(LoadConfigDataTest, AThousandFamilyElementsCountAsAbsent) {
    std::string text = "<PatcherConfig>";
    for (int i = 0; i < 1000; ++i)
        text += "<Family>F" + std::to_string(i) + "</Family>\n";
    text += "<Name>Kept</Name></PatcherConfig>";
    const std::string path = write("config.xml", text);
    LoadConfigData loader;
    ASSERT_EQ(loader.loadConfigInfoFromFile(path), &loader);
    EXPECT_EQ(loader.getProductFamily(), "Tavrin");
    EXPECT_EQ(loader.getProductName(), "Kept");
}

TEST_F(LoadConfigDataTest, ValuesAreTakenAsTheyStand) {
    const std::string path =
        write("config.xml", "<PatcherConfig><Name>  Orvel <![CDATA[<Paint> & Co]]>\n</Name>"
                            "<Version></Version><ComboPatch><b>tr</b>ue</ComboPatch>"
                            "</PatcherConfig>");
    LoadConfigData loader;
    ASSERT_EQ(loader.loadConfigInfoFromFile(path), &loader);
    EXPECT_EQ(loader.getProductName(), "  Orvel <Paint> & Co\n");
    // Present but empty is not absent: no default.
    EXPECT_EQ(loader.getProductNewVersion(), "");
    EXPECT_EQ(loader.getComboFlag(), "true");
}

TEST_F(LoadConfigDataTest, LaterBundleIdentifierWins) {
    const std::string both = write(
        "both.xml", "<PatcherConfig><ProductData><BundleIdentifier>com.a</BundleIdentifier>"
                    "</ProductData><PrePatchValidation><AppValidityCheck><BundleIdentifier>com.b"
                    "</BundleIdentifier></AppValidityCheck></PrePatchValidation></PatcherConfig>");
    LoadConfigData loader;
    ASSERT_EQ(loader.loadConfigInfoFromFile(both), &loader);
    EXPECT_EQ(loader.getAppValidationInfo().appBundleIdentifier, "com.b");

    const std::string first = write(
        "first.xml", "<PatcherConfig><ProductData><BundleIdentifier>com.a</BundleIdentifier>"
                     "</ProductData><PrePatchValidation><AppValidityCheck/></PrePatchValidation>"
                     "</PatcherConfig>");
    LoadConfigData other;
    ASSERT_EQ(other.loadConfigInfoFromFile(first), &other);
    EXPECT_EQ(other.getAppValidationInfo().appBundleIdentifier, "com.a");
}

TEST_F(LoadConfigDataTest, BuildNumberIsOnlyLogged) {
    const std::string path =
        write("config.xml", "<PatcherConfig><BuildNumber>B-9931</BuildNumber></PatcherConfig>");
    LogCapture log;
    LoadConfigData loader;
    ASSERT_EQ(loader.loadConfigInfoFromFile(path), &loader);
    EXPECT_TRUE(log.contains("Patcher BuildNumber is : B-9931"));
    for (const auto* value :
         {&loader.getProductFamily(), &loader.getProductName(), &loader.getComboFlag(),
          &loader.getPatcherID(), &loader.getPatcherName(), &loader.getProductNewVersion(),
          &loader.getProductOldVersion(), &loader.getAppGUID()})
        EXPECT_NE(*value, "B-9931");
}

TEST_F(LoadConfigDataTest, ExtensionDecidesWhatIsRead) {
    const char* const text = "<PatcherConfig><Family>Read</Family></PatcherConfig>";
    for (const char* name : {"config.plist", "config.PLIST", "config.Csl", "config.csl"}) {
        const std::string path = write(name, text);
        LogCapture log;
        LoadConfigData loader;
        EXPECT_EQ(loader.loadConfigInfoFromFile(path), &loader) << name;
        // Accepted as it stands: nothing read, nothing defaulted.
        EXPECT_EQ(loader.getProductFamily(), std::nullopt) << name;
        EXPECT_FALSE(log.contains("PRODUCT DETAILS:")) << name;
    }
    // Nothing is read, so the file need not even exist.
    LoadConfigData missing;
    EXPECT_EQ(missing.loadConfigInfoFromFile(_dir.file("absent.plist")), &missing);

    for (const char* name : {"config.XML", "config.Xml"}) {
        LoadConfigData loader;
        EXPECT_EQ(loader.loadConfigInfoFromFile(write(name, text)), &loader) << name;
        EXPECT_EQ(loader.getProductFamily(), "Read") << name;
    }
}

TEST_F(LoadConfigDataTest, OtherExtensionsAreNotSupported) {
    for (const char* name : {"config.txt", "config", "config.xml.bak", ".xml"}) {
        const std::string path = write(name, "<PatcherConfig/>");
        LogCapture log;
        LoadConfigData loader;
        EXPECT_EQ(loader.loadConfigInfoFromFile(path), nullptr) << name;
        EXPECT_EQ(log.lines(), Lines{"Provided File Type of file " + path + " is not supported"});
    }
}

TEST_F(LoadConfigDataTest, NoPathFails) {
    LogCapture log;
    LoadConfigData loader;
    EXPECT_EQ(loader.loadConfigInfoFromFile(std::nullopt), nullptr);
    EXPECT_EQ(log.lines(), Lines{"File Path is NULL"});
}

TEST_F(LoadConfigDataTest, PathThatNamesNoFileGivesMinusOne) {
    LogCapture log;
    LoadConfigData loader;
    EXPECT_EQ(loader.loadInfoFromXML(""), -1);
    EXPECT_EQ(loader.loadInfoFromXML(std::string("a\0b.xml", 7)), -1);
    EXPECT_TRUE(log.contains("Can't create an URL from file ."));
}

TEST_F(LoadConfigDataTest, UnreadableDocumentsFailWithTheReversedPlaceholderMessage) {
    struct Case {
        const char* name;
        std::string text;
    };
    std::string binary;
    for (int i = 0; i < 4096; ++i)
        binary += static_cast<char>((i * 7919) & 0xff);
    const Case cases[] = {
        {"notxml.xml", "This is a plain text file.\nNothing here is markup.\n"},
        {"empty.xml", ""},
        {"binary.xml", binary},
        {"whitespace.xml", "   \n\t  "},
    };
    for (const Case& c : cases) {
        const std::string path = write(c.name, c.text);
        LoadConfigData direct;
        EXPECT_EQ(direct.loadInfoFromXML(path), 1) << c.name;

        LogCapture log;
        LoadConfigData loader;
        EXPECT_EQ(loader.loadConfigInfoFromFile(path), nullptr) << c.name;
        const Lines lines = log.lines();
        ASSERT_FALSE(lines.empty()) << c.name;
        EXPECT_EQ(lines.back(), "Unable to read information from \"@%\" XML file") << c.name;
        EXPECT_FALSE(log.contains("PRODUCT DETAILS:")) << c.name;
    }
    LoadConfigData loader;
    EXPECT_EQ(loader.loadInfoFromXML(_dir.file("missing.xml")), 1);
}

TEST_F(LoadConfigDataTest, PipeOrFolderIsNotRead) {
    const std::string pipe = _dir.file("pipe.xml");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    LoadConfigData loader;
    EXPECT_EQ(loader.loadInfoFromXML(pipe), 1); // returns instead of waiting for a writer
    const std::string folder = _dir.file("folder.xml");
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    EXPECT_EQ(loader.loadConfigInfoFromFile(folder), nullptr);
}

TEST_F(LoadConfigDataTest, MalformedDocumentIsRepairedAndItsErrorCodeLogged) {
    const std::string path =
        write("config.xml", "<PatcherConfig><Family>Orvel</Family><Name>Paint</PatcherConfig>");
    LogCapture log;
    LoadConfigData loader;
    ASSERT_EQ(loader.loadConfigInfoFromFile(path), &loader);
    EXPECT_EQ(loader.getProductFamily(), "Orvel");
    const Lines lines = log.lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front().rfind(" Error Code returned : ", 0), 0u) << lines.front();
    EXPECT_NE(lines.front(), " Error Code returned : 0");
}

TEST_F(LoadConfigDataTest, ErrorCodeIsLoggedOnlyAboveInfoLevel) {
    const std::string path = write("config.xml", "<PatcherConfig><Family>Orvel</PatcherConfig>");
    SetENVverbosityLevel("info");
    LogCapture log;
    {
        LoadConfigData loader;
        ASSERT_EQ(loader.loadConfigInfoFromFile(path), &loader);
        EXPECT_EQ(loader.getProductFamily(), "Orvel");
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(LoadConfigDataTest, HandleErrorWritesTheCode) {
    LogCapture log;
    LoadConfigData::handleError(XmlError{76, 3, "Opening and ending tag mismatch"});
    EXPECT_EQ(log.lines(), Lines{" Error Code returned : 76"});
}

TEST_F(LoadConfigDataTest, IsSingleElementType) {
    auto parsed = XmlDocument::parseMemory("<r><a>x</a><b/><b/></r>");
    ASSERT_TRUE(parsed.document);
    const XmlNode root = XmlDocument::root(parsed.document);
    EXPECT_TRUE(LoadConfigData::isSingleElementType(root.select("/r/a")));
    EXPECT_FALSE(LoadConfigData::isSingleElementType(root.select("/r/b")));
    EXPECT_FALSE(LoadConfigData::isSingleElementType(root.select("/r/c")));
    EXPECT_FALSE(LoadConfigData::isSingleElementType(root.select("/r/a/text()")));
}

TEST_F(LoadConfigDataTest, ForeignRootLoadsWithDefaults) {
    const std::string path = write("config.xml", "<plist><Family>Other</Family></plist>");
    LoadConfigData loader;
    ASSERT_EQ(loader.loadConfigInfoFromFile(path), &loader);
    EXPECT_EQ(loader.getProductFamily(), "Tavrin");
}

TEST_F(LoadConfigDataTest, ListNodesStayValidWhileTheLoaderLives) {
    const std::string path = write("config.xml", kFullConfiguration);
    LoadConfigData loader;
    ASSERT_EQ(loader.loadConfigInfoFromFile(path), &loader);
    ASSERT_EQ(::unlink(path.c_str()), 0);
    const auto& guids = loader.getAppLocateInfo().appOrvelCodeGUIDList;
    ASSERT_EQ(guids.size(), 2u);
    EXPECT_EQ(guids[1].stringValue(), "{A1B2-0002}");
    EXPECT_EQ(guids[1].parent().name(), "OrvelCode");
}

long PeakResidentKilobytes() {
    struct rusage usage {};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

TEST_F(LoadConfigDataTest, FiftyMegabyteDocumentLoadsInBoundedMemory) {
    const std::string path = _dir.file("config.xml");
    {
        std::ofstream out(path, std::ios::binary);
        out << "<PatcherConfig>\n<Family>Big</Family>\n<ProductData><AppName>Big.app</AppName>"
               "</ProductData>\n";
        const std::string filler(1000, 'x');
        size_t written = 0;
        while (written < 50u * 1024 * 1024) {
            out << "<Filler>" << filler << "</Filler>\n";
            written += filler.size() + std::strlen("<Filler></Filler>\n");
        }
        out << "</PatcherConfig>\n";
    }
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    ASSERT_GE(info.st_size, 50 * 1024 * 1024);
    LoadConfigData loader;
    ASSERT_EQ(loader.loadConfigInfoFromFile(path), &loader);
    EXPECT_EQ(loader.getProductFamily(), "Big");
    EXPECT_EQ(loader.getAppLocateInfo().appName, "Big.app");
    // The file, the text read and the document together stay within a small multiple of the
    // file's size.
    EXPECT_LT(PeakResidentKilobytes(), 1024L * 1024);
}

TEST_F(LoadConfigDataTest, FiftyMegabyteTextNodeIsHandled) {
    const std::string path = _dir.file("config.xml");
    {
        std::ofstream out(path, std::ios::binary);
        out << "<PatcherConfig><Family>Huge</Family><Name>";
        const std::string chunk(1024 * 1024, 'n');
        for (int i = 0; i < 50; ++i)
            out << chunk;
        out << "</Name></PatcherConfig>";
    }
    LogCapture log;
    LoadConfigData loader;
    LoadConfigData* result = loader.loadConfigInfoFromFile(path);

    // Read whole and taken as it stands, like any other value.
    ASSERT_EQ(result, &loader);
    EXPECT_EQ(loader.getProductFamily(), "Huge");
    ASSERT_TRUE(loader.getProductName());
    EXPECT_EQ(loader.getProductName()->size(), 50u * 1024 * 1024);
    EXPECT_FALSE(log.text().find(" Error Code returned : ") != std::string::npos);
    EXPECT_LT(PeakResidentKilobytes(), 1024L * 1024);
}

} // namespace
