// mkpatcher create: patchers made from two versions of a generated application, applied by
// the manifest processor as the patcher runs it. The result must equal the new version
// (contents, links, modes); a second run must change nothing; a run on a modified old
// version must fail its checksums and leave the tree as it was.

#include "PatcherBuilder.h"

#include "TestSupport.h"
#include "base/Xml.h"
#include "report/KORInstallerResultsWrapper.h"
#include "runtime/Environment.h"
#include "runtime/MainLoop.h"
#include "target/LoadConfigData.h"
#include "target/OrvelCodeFileHandler.h"
#include "update/MD5cksum.h"
#include "update/ProcessManifest.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

const std::string kCode1 = "{C0DE0001-0000-4000-8000-00000000ED17}";
const std::string kCode2 = "{C0DE0002-0000-4000-8000-00000000ED17}";

void Write(const std::string& path, const std::string& data, unsigned mode = 0644) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(data.data(), static_cast<std::streamsize>(data.size()));
    out.close();
    ::chmod(path.c_str(), mode);
}

unsigned Mode(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

std::string Plist(const std::string& version) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
           "<key>CFBundleName</key><string>Orvel Editor</string>"
           "<key>CFBundleIdentifier</key><string>com.orvel.editor</string>"
           "<key>CFBundleExecutable</key><string>Editor</string>"
           "<key>CFBundleVersion</key><string>" +
           version + "</string></dict></plist>\n";
}

// Two versions of an application with every kind of change the builder knows.
void MakeVersions(const std::string& oldApp, const std::string& newApp) {
    const std::string program = ReadTextFile(CRYPTO_LIBRARY).substr(0, 400000);
    std::string newProgram = program;
    for (size_t i = 1000; i < newProgram.size(); i += 9000)
        newProgram[i] = static_cast<char>(newProgram[i] + 3);
    newProgram.insert(200000, "inserted in version two");

    for (const auto& [app, two] : {std::pair{oldApp, false}, std::pair{newApp, true}}) {
        const std::string c = app + "/Contents";
        Write(c + "/Info.plist", Plist(two ? "2.0" : "1.0"));
        Write(c + "/MacOS/Editor", two ? newProgram : program, 0755);
        Write(c + "/Resources/same.txt", "the same in both\n");
        Write(c + "/Resources/keep.txt", two ? "version two\n" : "version one\n");
        Write(c + "/Resources/tool.sh", "#!/bin/sh\necho tool\n", two ? 0755 : 0644);
        // Changed and made executable: a patch and a mode.
        Write(c + "/Resources/data.bin",
              two ? newProgram.substr(0, 100000) + "x" : program.substr(0, 100000),
              two ? 0750 : 0644);
        fs::create_directories(c + "/Private");
        ::chmod((c + "/Private").c_str(), two ? 0700 : 0755);
        Write(c + "/Private/secret.txt", "secret\n", 0600);
        fs::create_symlink(two ? "Resources/keep.txt" : "Resources/same.txt", c + "/curlink");
        if (two) {
            Write(c + "/Resources/new.txt", "a new file\n");
            Write(c + "/Resources/de.lproj/Localizable.strings", "\"Hello\" = \"Hallo\";\n");
            fs::create_symlink("Resources/new.txt", c + "/newlink");
            fs::create_directories(c + "/PlugIns/Filters");
            fs::create_directories(c + "/Cache");
            fs::create_symlink("same.txt", c + "/Resources/was-file");
            Write(c + "/Resources/was-link", "now a file\n");
        } else {
            Write(c + "/Resources/old.txt", "to be removed\n");
            fs::create_symlink("Resources/same.txt", c + "/oldlink");
            fs::create_directories(c + "/Obsolete");
            Write(c + "/Legacy/a.txt", "legacy a\n");
            Write(c + "/Legacy/Deeper/b.txt", "legacy b\n");
            Write(c + "/Cache/cached.bin", "cached\n");
            Write(c + "/Resources/was-file", "a file in version one\n");
            fs::create_symlink("same.txt", c + "/Resources/was-link");
        }
    }
}

class CreateTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::umask(022);
        SetENVsilentFlag(true);
        ClearENVinstallLanguage();
        paths.returnCodeFile = root + "/retVal/retVal";
        paths.patchHistoryFolder = root + "/history/";
        paths.protectedFolders = {root, installDir};
        MakeVersions(root + "/v1/Editor.app", root + "/v2/Editor.app");
        fs::create_directories(installDir);
        fs::copy(root + "/v1/Editor.app", app,
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        ASSERT_EQ(SnapshotTree(app, TreeDetail::ContentsAndModes),
                  SnapshotTree(root + "/v1/Editor.app", TreeDetail::ContentsAndModes));
    }

    void TearDown() override {
        (void)OrvelCodeFileHandler::releaseInstance();
        SetENVsilentFlag(false);
    }

    PatcherBuilder::Options Options() const {
        PatcherBuilder::Options options;
        options.oldTree = root + "/v1/Editor.app";
        options.newTree = root + "/v2/Editor.app";
        options.outPath = patcher;
        options.builtBundle = BUILT_BUNDLE;
        options.identity.installationCodes = {"EDITOR-CODE-1"};
        return options;
    }

    // Applies the patcher's manifest to the installed copy as a silent run does; returns the
    // return code it wrote.
    std::string Apply() {
        const std::string resources = patcher + "/Contents/Resources";
        LoadConfigData config;
        EXPECT_NE(config.loadConfigInfoFromFile(resources + "/config.xml"), nullptr);
        HeadlessMainLoop loop;
        ManifestRunEnvironment environment;
        environment.loop = &loop;
        environment.paths = paths;
        environment.history = OrvelCodeFileHandler::getInstance();
        environment.silent = GetENVsilentFlag();
        environment.reporter = &reporter;
        environment.cmdOptions.protectedFolders = paths.protectedFolders;
        fs::remove(paths.returnCodeFile);
        auto processor = std::make_unique<ProcessManifest>(
            resources + "/manifest.xml", root + "/work/run", installDir, resources, &config,
            std::move(environment));
        if (!processor->performAction(nullptr))
            return "not started";
        loop.run();
        processor.reset();
        return FileExists(paths.returnCodeFile) ? ReadTextFile(paths.returnCodeFile) : "";
    }

    TempDir temp;
    std::string root = temp.path();
    std::string installDir = root + "/opt/Suite";
    std::string app = installDir + "/Editor.app";
    std::string patcher = root + "/out/Editor Update.app";
    PlatformPaths paths;
    KORInstallerResultsWrapper reporter{ReportingContext{}};
};

TEST_F(CreateTest, ManifestAndConfigurationDescribeTheUpdate) {
    PatcherBuilder::Report report;
    std::string error;
    ASSERT_EQ(PatcherBuilder::create(Options(), &report, &error), 0) << error;
    EXPECT_EQ(report.added, 2);        // new.txt, Localizable.strings
    EXPECT_EQ(report.patched, 2);      // the program and data.bin
    EXPECT_EQ(report.overwritten, 3);  // keep.txt, was-link, Info.plist
    EXPECT_EQ(report.removed, 4);      // old.txt, a.txt, b.txt, cached.bin
    EXPECT_EQ(report.linksCreated, 3); // newlink, curlink, was-file
    EXPECT_EQ(report.linksRemoved, 1);
    EXPECT_EQ(report.permissionChanges, 2); // tool.sh, Private
    EXPECT_EQ(report.unchanged, 2);         // same.txt, secret.txt

    const auto manifest =
        XmlDocument::parseFile(patcher + "/Contents/Resources/manifest.xml", XmlParseMode::Strict);
    ASSERT_TRUE(manifest.document);
    const XmlNode root = XmlDocument::root(manifest.document);
    std::set<std::string> objectNames;
    const auto files = root.select("//File");
    for (const auto& file : files) {
        const std::string operation = file.evaluateString("string(Operation)").value_or("");
        const std::string name = file.evaluateString("string(ObjectName)").value_or("");
        EXPECT_FALSE(name.empty());
        EXPECT_TRUE(objectNames.insert(name).second) << "ObjectName used twice: " << name;
        EXPECT_EQ(file.select("DestinationPath")
                      .front()
                      .attribute("dir")
                      ->rfind("[INSTALLDIR]/Editor.app", 0),
                  0u);
        const bool folderMode =
            operation == "CHANGEPERM" &&
            file.select("DestinationPath").front().attribute("defName") == "Private";
        if (!folderMode) {
            EXPECT_EQ(file.select("Checksum/BeforePatch").size(), 1u) << name;
            EXPECT_EQ(file.select("Checksum/AfterPatch").size(), 1u) << name;
        }
    }
    EXPECT_EQ(files.size(), 17u);
    const auto bundles = root.select("/Manifest/BundleSet/Bundle");
    ASSERT_EQ(bundles.size(), 1u);
    EXPECT_EQ(bundles[0].attribute("Path"), "[INSTALLDIR]/Editor.app/Contents/Info.plist");
    EXPECT_EQ(bundles[0].attribute("Version"), "1.0");
    EXPECT_EQ(bundles[0].attribute("Verify"), "TRUE");
    EXPECT_EQ(bundles[0].evaluateString("string(File/DestinationPath/@defName)"), "Info.plist");
    EXPECT_EQ(root.evaluateString("count(/Manifest/DirectorySet/Directory[Operation='ADD'])"),
              "2"); // PlugIns/Filters, Cache (emptied)
    EXPECT_EQ(root.evaluateString("string(/Manifest/DirectorySet/Directory[Operation='ADD'][1]/"
                                  "DirectoryBase)"),
              "[INSTALLDIR]/Editor.app/Contents/Cache");
    EXPECT_EQ(root.evaluateString(
                  "string(//File[DestinationPath/@defName='tool.sh']/Permissions/mac/Permission)"),
              "755");

    // The configuration, as the patcher's own loader reads it.
    LoadConfigData config;
    ASSERT_NE(config.loadConfigInfoFromFile(patcher + "/Contents/Resources/config.xml"), nullptr);
    const auto& product = config.getAppLocateInfo();
    EXPECT_EQ(product.appName, "Editor");
    EXPECT_EQ(product.oldVersion, "1.0");
    EXPECT_EQ(product.newVersion, "2.0");
    ASSERT_EQ(product.appOrvelCodeGUIDList.size(), 1u);
    EXPECT_EQ(product.appOrvelCodeGUIDList[0].stringValue(), "EDITOR-CODE-1");
    EXPECT_EQ(config.getAppValidationInfo().appBundleIdentifier, "com.orvel.editor");
    ASSERT_EQ(config.getAppValidationInfo().appRunning.size(), 1u);
    EXPECT_EQ(config.getAppValidationInfo().appRunning[0].stringValue(), "Orvel Editor");
    EXPECT_EQ(config.getPatcherID(), "Editor-1.0-2.0");
    EXPECT_GT(std::stoull(config.getAppValidationInfo().spaceRequiedOnAppVolume.value_or("0")), 0u);
}

TEST_F(CreateTest, AppliedToTheOldVersionGivesTheNewOneAndASecondRunChangesNothing) {
    std::string error;
    ASSERT_EQ(PatcherBuilder::create(Options(), nullptr, &error), 0) << error;
    const auto wanted = SnapshotTree(root + "/v2/Editor.app", TreeDetail::ContentsAndModes);
    {
        LogCapture log;
        EXPECT_EQ(Apply(), "0") << log.text();
        EXPECT_EQ(SnapshotTree(app, TreeDetail::ContentsAndModes), wanted);
    }
    LogCapture log;
    EXPECT_EQ(Apply(), "0") << log.text();
    EXPECT_EQ(SnapshotTree(app, TreeDetail::ContentsAndModes), wanted);
    // Nothing was copied or patched again; the bundle's version is already the new one.
    EXPECT_FALSE(log.contains("Successfully performed \"PATCH\" file Operation"));
    EXPECT_FALSE(log.contains("Successfully performed \"ADD\" file Operation")) << log.text();
    EXPECT_FALSE(log.contains("Bundle is valid for update"));
}

TEST_F(CreateTest, ModifiedOldVersionFailsItsChecksumsAndIsRolledBack) {
    std::string error;
    ASSERT_EQ(PatcherBuilder::create(Options(), nullptr, &error), 0) << error;
    // Somebody changed files of the installed copy, so their checksums are not the old
    // version's: one patched late in the run, one overwritten early.
    for (const char* changed : {"Contents/Resources/keep.txt", "Contents/MacOS/Editor"}) {
        SCOPED_TRACE(changed);
        RemoveTree(app);
        fs::copy(root + "/v1/Editor.app", app,
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        Write(app + "/" + changed, "changed by somebody\n", Mode(app + "/" + changed));
        const auto before = SnapshotTree(app, TreeDetail::ContentsAndModes);
        LogCapture log;
        EXPECT_EQ(Apply(), "9") << log.text();
        EXPECT_TRUE(log.contains("Rollback successful"));
        EXPECT_EQ(SnapshotTree(app, TreeDetail::ContentsAndModes), before) << log.text();
    }
}

TEST_F(CreateTest, ProgramReportsWhatItDid) {
    const std::vector<std::string> args{MKPATCHER_PROGRAM, "create",
                                        "--old",           root + "/v1/Editor.app",
                                        "--new",           root + "/v2/Editor.app",
                                        "--out",           patcher,
                                        "--from",          BUILT_BUNDLE,
                                        "--code",          kCode1,
                                        "--code",          kCode2,
                                        "--patcher-id",    "EDITOR-2.0-PATCH",
                                        "--running-app",   "Editor Helper",
                                        "--space-target",  "5000"};
    ASSERT_EQ(RunProgram(args, {}, temp.file("stdout"), temp.file("stderr")), 0)
        << ReadTextFile(temp.file("stderr"));
    const std::string out = ReadTextFile(temp.file("stdout"));
    for (const char* line :
         {"files added:        2", "files patched:      2", "files overwritten:  3",
          "files removed:      4", "links created:      3, removed: 1", "permission changes: 2",
          "folders added:      2, removed: 3", "payload: "})
        EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
    const auto config =
        XmlDocument::parseFile(patcher + "/Contents/Resources/config.xml", XmlParseMode::Strict);
    const XmlNode r = XmlDocument::root(config.document);
    EXPECT_EQ(r.evaluateString("string(/PatcherConfig/PatcherID)"), "EDITOR-2.0-PATCH");
    EXPECT_EQ(r.evaluateString("count(/PatcherConfig/ProductData/OrvelCode/GUID)"), "2");
    EXPECT_EQ(r.evaluateString("string(//AppRunning)"), "Editor Helper");
    EXPECT_EQ(r.evaluateString("string(//SpaceRequirement/Target)"), "5000");

    // Refusals: no installation code; an existing output without --force.
    auto noCode = args;
    noCode.resize(10);
    EXPECT_EQ(RunProgram(noCode, {}, temp.file("stdout"), temp.file("stderr")), 1);
    EXPECT_NE(ReadTextFile(temp.file("stderr")).find("no installation code"), std::string::npos);
    auto again = args;
    EXPECT_EQ(RunProgram(again, {}, temp.file("stdout"), temp.file("stderr")), 1);
    EXPECT_EQ(ReadTextFile(temp.file("stderr")),
              "mkpatcher create: " + patcher + " exists; use --force to replace it\n");
    // Nothing of the work is left beside the output.
    for (const auto& item : fs::directory_iterator(root + "/out"))
        EXPECT_EQ(item.path().filename(), "Editor Update.app");
}

TEST_F(CreateTest, TemplateGivesTheIdentityAndOptionsOverrideIt) {
    Write(temp.file("template.xml"),
          "<PatcherConfig><Family>Quill</Family><Name>Orvel Editor Suite</Name>"
          "<PatcherID>FROM-TEMPLATE</PatcherID>"
          "<ProductData><OrvelCode><GUID>T-1</GUID></OrvelCode>"
          "<KVRFilePath>[INSTALLDIR]/Editor.app/Contents/Resources/same.txt</KVRFilePath>"
          "</ProductData><PrePatchValidation><SpaceRequirement><System>77</System>"
          "</SpaceRequirement></PrePatchValidation></PatcherConfig>");
    std::string error;
    auto identity = PatcherIdentity::fromTemplate(temp.file("template.xml"), &error);
    ASSERT_TRUE(identity) << error;
    PatcherIdentity given;
    given.patcherId = "FROM-OPTION";
    identity->overrideWith(given);
    auto options = Options();
    options.identity = *identity;
    PatcherBuilder::Report report;
    ASSERT_EQ(PatcherBuilder::create(options, &report, &error), 0) << error;
    LoadConfigData config;
    ASSERT_NE(config.loadConfigInfoFromFile(patcher + "/Contents/Resources/config.xml"), nullptr);
    EXPECT_EQ(config.getProductFamily(), "Quill");
    EXPECT_EQ(config.getProductName(), "Orvel Editor Suite");
    EXPECT_EQ(config.getPatcherID(), "FROM-OPTION");
    EXPECT_EQ(config.getAppLocateInfo().kvrFilePath,
              "[INSTALLDIR]/Editor.app/Contents/Resources/same.txt");
    EXPECT_EQ(config.getAppValidationInfo().spaceRequiedOnOSVolume, "77");
    EXPECT_EQ(config.getAppLocateInfo().appOrvelCodeGUIDList.front().stringValue(), "T-1");

    WriteTextFile(temp.file("wrong.xml"), "<Manifest/>");
    EXPECT_FALSE(PatcherIdentity::fromTemplate(temp.file("wrong.xml"), &error));
    EXPECT_NE(error.find("not \"PatcherConfig\""), std::string::npos);
}

TEST_F(CreateTest, AFolderBecomingAFileAndTheReverseAreRefused) {
    // The rollback could not undo them: its journal is replayed in the order it was written.
    fs::create_directories(root + "/v1/Editor.app/Contents/Folder");
    Write(root + "/v2/Editor.app/Contents/Folder", "a file now\n");
    std::string error;
    EXPECT_EQ(PatcherBuilder::create(Options(), nullptr, &error), 1);
    EXPECT_NE(error.find("the folder Contents/Folder becomes a file"), std::string::npos) << error;
    EXPECT_FALSE(fs::exists(patcher));

    RemoveTree(root + "/v1/Editor.app/Contents/Folder");
    RemoveTree(root + "/v2/Editor.app/Contents/Folder");
    Write(root + "/v1/Editor.app/Contents/Thing", "a file\n");
    Write(root + "/v2/Editor.app/Contents/Thing/inside.txt", "now in a folder\n");
    EXPECT_EQ(PatcherBuilder::create(Options(), nullptr, &error), 1);
    EXPECT_NE(error.find("the file Contents/Thing becomes a folder"), std::string::npos) << error;
    EXPECT_FALSE(fs::exists(patcher));
}

} // namespace
