#include "target/OrvelCodeFileHandler.h"

#include "TestSupport.h"
#include "base/Xml.h"
#include "runtime/Environment.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

using Lines = std::vector<std::string>;
using S = std::optional<std::string>;

constexpr int64_t kInstalled = 1700000000;
constexpr int64_t kModified = 1700003600;

std::string Manifest(const std::string& version) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<Manifest>\n"
           "  <FileSet>\n"
           "    <File Action=\"Patch\" Version=\"" +
           version +
           "\">\n"
           "      <DestinationPath defName=\"Paint\" dir=\"[INSTALLDIR]/Contents/MacOS\"/>\n"
           "      <Name> keep  these blanks </Name>\n"
           "    </File>\n"
           "  </FileSet>\n"
           "</Manifest>\n";
}

class OrvelCodeFileHandlerTest : public ::testing::Test {
protected:
    void SetUp() override {
        SetENVverbosityLevel("debug");
        _history = _dir.file("Installers/{6F1E-0042}.patch");
    }
    void TearDown() override { (void)OrvelCodeFileHandler::releaseInstance(); }

    OrvelCodeFileHandler handler(const S& oldVersion, const S& newVersion,
                                 int64_t installed = kInstalled) {
        return OrvelCodeFileHandler(_history, S("PID-" + oldVersion.value_or("none")), oldVersion,
                                    newVersion, S("Orvel Paint"), S("Orvel Creative"), installed,
                                    kModified);
    }

    std::string manifest(const std::string& version) {
        const std::string path = _dir.file("manifest-" + version + ".xml");
        WriteTextFile(path, Manifest(version));
        return path;
    }

    // Runs one patch as a run would: decide the mode, then record the patch.
    void applyPatch(const std::string& oldVersion, const std::string& newVersion) {
        OrvelCodeFileHandler run = handler(oldVersion, newVersion);
        S found;
        ASSERT_EQ(run.getPatcherModeAndInstalledAppBuildVersion(found), 0);
        ASSERT_EQ(found, oldVersion);
        ASSERT_TRUE(run.addPatcherEntry(manifest(newVersion)));
    }

    // A history holding the patches 1.0 -> 1.1, 1.1 -> 1.2 and 1.2 -> 1.3.
    void buildThreeEntryHistory() {
        applyPatch("1.0", "1.1");
        applyPatch("1.1", "1.2");
        applyPatch("1.2", "1.3");
    }

    int modeFor(const S& oldVersion, const S& newVersion, S& found) {
        OrvelCodeFileHandler run = handler(oldVersion, newVersion);
        return run.getPatcherModeAndInstalledAppBuildVersion(found);
    }

    TempDir _dir;
    std::string _history;
};

TEST_F(OrvelCodeFileHandlerTest, NoHistoryMeansInstallAndTheFirstEntryIsOne) {
    OrvelCodeFileHandler run = handler(S("1.0"), S("1.1"));
    S found;
    EXPECT_EQ(run.getPatcherModeAndInstalledAppBuildVersion(found), 0);
    EXPECT_EQ(run.getPatcherMode(), 0);
    EXPECT_EQ(found, "1.0");
    EXPECT_EQ(run.getInstVer(), "1.0");
    EXPECT_FALSE(FileExists(_history));

    ASSERT_TRUE(run.addPatcherEntry(manifest("1.1")));
    auto parsed = XmlDocument::parseFile(_history, XmlParseMode::Strict);
    ASSERT_TRUE(parsed.document);
    const XmlNode root = XmlDocument::root(parsed.document);
    EXPECT_EQ(root.name(), "PBSHistory");
    EXPECT_EQ(root.attribute("ProductName"), "Orvel Paint");
    EXPECT_EQ(root.attribute("ProductFamily"), "Orvel Creative");
    EXPECT_EQ(root.attribute("tsInstalled"), "1700000000");
    EXPECT_EQ(root.attribute("tsModified"), "1700003600");
    const auto entries = root.childElements();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].name(), "Patcher");
    EXPECT_EQ(entries[0].attribute("SequenceID"), "1");
    EXPECT_EQ(entries[0].attribute("PatcherID"), "PID-1.0");
    const auto children = entries[0].childElements();
    ASSERT_EQ(children.size(), 3u);
    EXPECT_EQ(children[0].name(), "OldVersion");
    EXPECT_EQ(children[0].stringValue(), "1.0");
    EXPECT_EQ(children[1].name(), "NewVersion");
    EXPECT_EQ(children[1].stringValue(), "1.1");
    EXPECT_EQ(children[2].name(), "Manifest");
}

TEST_F(OrvelCodeFileHandlerTest, CreatedFileHoldsOnlyTheRootWithItsAttributesInOrder) {
    OrvelCodeFileHandler run(_history, S("P"), S("1.0"), S("1.1"), S("Orvel \"Paint\" 'X' & <Y>"),
                             S("Orvel"), 5000000000, -7);
    ASSERT_TRUE(run.createOCPatchFile());
    const std::string text = ReadTextFile(_history);
    EXPECT_EQ(text.rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n", 0), 0u) << text;
    EXPECT_NE(text.find("<PBSHistory ProductName=\"Orvel &quot;Paint&quot; 'X' &amp; &lt;Y&gt;\" "
                        "ProductFamily=\"Orvel\" tsInstalled=\"5000000000\" tsModified=\"-7\"/>"),
              std::string::npos)
        << text;
    auto parsed = XmlDocument::parseFile(_history, XmlParseMode::Strict);
    ASSERT_TRUE(parsed.document);
    EXPECT_EQ(XmlDocument::root(parsed.document).attribute("ProductName"),
              "Orvel \"Paint\" 'X' & <Y>");
}

TEST_F(OrvelCodeFileHandlerTest, ThreeEntriesAreReadBackForEveryMode) {
    buildThreeEntryHistory();

    auto parsed = XmlDocument::parseFile(_history, XmlParseMode::Strict);
    ASSERT_TRUE(parsed.document);
    const XmlNode root = XmlDocument::root(parsed.document);
    const auto entries = root.childElements();
    ASSERT_EQ(entries.size(), 3u);
    const Lines versions = {"1.0", "1.1", "1.2", "1.3"};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(entries[i].attribute("SequenceID"), std::to_string(i + 1));
        EXPECT_EQ(entries[i].attribute("PatcherID"), "PID-" + versions[i]);
        EXPECT_EQ(entries[i].select("./OldVersion")[0].stringValue(), versions[i]);
        EXPECT_EQ(entries[i].select("./NewVersion")[0].stringValue(), versions[i + 1]);
        // The manifest's root element, whole.
        const auto copies = entries[i].select("./Manifest");
        ASSERT_EQ(copies.size(), 1u);
        EXPECT_EQ(copies[0].select("./FileSet/File")[0].attribute("Version"), versions[i + 1]);
        EXPECT_EQ(copies[0].select("./FileSet/File/DestinationPath")[0].attribute("dir"),
                  "[INSTALLDIR]/Contents/MacOS");
        EXPECT_EQ(copies[0].select("./FileSet/File/Name")[0].stringValue(), " keep  these blanks ");
    }
    // Written pretty-printed: every entry indented alike.
    const std::string text = ReadTextFile(_history);
    EXPECT_NE(text.find("\n  <Patcher SequenceID=\"1\" PatcherID=\"PID-1.0\">\n"
                        "    <OldVersion>1.0</OldVersion>\n"
                        "    <NewVersion>1.1</NewVersion>\n"
                        "    <Manifest>\n"
                        "      <FileSet>\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\n  <Patcher SequenceID=\"3\" PatcherID=\"PID-1.2\">\n"),
              std::string::npos)
        << text;

    S found;
    // Install: the configured old version is what the history ends with.
    EXPECT_EQ(modeFor(S("1.3"), S("1.4"), found), 0);
    EXPECT_EQ(found, "1.3");
    // Repair: the configured new version is already installed.
    EXPECT_EQ(modeFor(S("1.2"), S("1.3"), found), 1);
    EXPECT_EQ(found, "1.3");
    // Combo patch: the installed version lies between old and new.
    EXPECT_EQ(modeFor(S("1.0"), S("1.4"), found), 2);
    EXPECT_EQ(found, "1.3");
    // Not patchable: installed version older than the patch's base, or newer than its target.
    EXPECT_EQ(modeFor(S("1.4"), S("1.5"), found), -1);
    EXPECT_EQ(found, "1.3");
    EXPECT_EQ(modeFor(S("1.0"), S("1.2"), found), -1);
    // Missing configured versions leave the mode at -1.
    EXPECT_EQ(modeFor(std::nullopt, S("1.4"), found), -1);
    EXPECT_EQ(modeFor(S("1.3"), std::nullopt, found), -1);
    EXPECT_TRUE(FileExists(_history));
    EXPECT_FALSE(FileExists(_history + "_backup1"));

    // Corrupted: a second entry claiming the last sequence number.
    const std::string before = ReadTextFile(_history);
    std::string corrupted = before;
    const std::string tag = "<Patcher SequenceID=\"2\"";
    corrupted.replace(corrupted.find(tag), tag.size(), "<Patcher SequenceID=\"3\"");
    WriteTextFile(_history, corrupted);
    {
        LogCapture log;
        EXPECT_EQ(modeFor(S("1.3"), S("1.4"), found), -1);
        EXPECT_EQ(found, std::nullopt);
        EXPECT_TRUE(
            log.contains("Patch file is corrupted. Multiple entries found for SequenceID: 3"));
    }
    EXPECT_EQ(ReadTextFile(_history), corrupted);

    // Out of date: the same history, but the installation is another one.
    WriteTextFile(_history, before);
    {
        LogCapture log;
        OrvelCodeFileHandler other = handler(S("1.3"), S("1.4"), kInstalled + 1);
        EXPECT_EQ(other.getPatcherModeAndInstalledAppBuildVersion(found), 0);
        EXPECT_EQ(found, "1.3");
        EXPECT_TRUE(log.contains("Patch file is out of date."));
        EXPECT_TRUE(log.contains("Moving file " + _history + " to " + _history + "_backup1"));
    }
    EXPECT_FALSE(FileExists(_history));
    EXPECT_EQ(ReadTextFile(_history + "_backup1"), before);
}

TEST_F(OrvelCodeFileHandlerTest, LastEntryEqualToNewVersionIsRepair) {
    applyPatch("2.0", "2.1");
    S found;
    EXPECT_EQ(modeFor(S("2.0"), S("2.1"), found), 1);
    EXPECT_EQ(found, "2.1");
}

TEST_F(OrvelCodeFileHandlerTest, RepeatedCreationReplacesTheSingleHandler) {
    EXPECT_EQ(OrvelCodeFileHandler::getInstance(), nullptr);
    OrvelCodeFileHandler* first = OrvelCodeFileHandler::createInstance(
        _history, S("P1"), S("1.0"), S("1.1"), S("Paint"), S("Orvel"), kInstalled, kModified);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(OrvelCodeFileHandler::getInstance(), first);
    EXPECT_EQ(first->getPatcherMode(), 0); // computed at creation
    ASSERT_TRUE(first->addPatcherEntry(manifest("1.1")));

    OrvelCodeFileHandler* second = OrvelCodeFileHandler::createInstance(
        _history, S("P2"), S("1.0"), S("1.1"), S("Paint"), S("Orvel"), kInstalled, kModified);
    EXPECT_EQ(OrvelCodeFileHandler::getInstance(), second);
    EXPECT_EQ(second->getPatcherMode(), 1);
    EXPECT_EQ(second->getTsInstalled(), "1700000000");
    EXPECT_EQ(second->getTsModified(), "1700003600");
    EXPECT_EQ(second->getOCPatchFilePath(), _history);

    EXPECT_TRUE(OrvelCodeFileHandler::releaseInstance());
    EXPECT_EQ(OrvelCodeFileHandler::getInstance(), nullptr);
    EXPECT_TRUE(OrvelCodeFileHandler::releaseInstance());
}

TEST_F(OrvelCodeFileHandlerTest, PathForCodeUsesTheHistoryFolderOfTheTable) {
    PlatformPaths paths;
    EXPECT_EQ(OrvelCodeFileHandler::patchFilePathForCode(paths, "{AB-12}"),
              "/var/opt/Orvel/Installers/{AB-12}.patch");
    paths.patchHistoryFolder = _dir.path();
    EXPECT_EQ(OrvelCodeFileHandler::patchFilePathForCode(paths, "C"), _dir.path() + "/C.patch");
}

TEST_F(OrvelCodeFileHandlerTest, OutOfDateFileGoesToTheNextFreeBackupName) {
    applyPatch("1.0", "1.1");
    const std::string original = ReadTextFile(_history);
    WriteTextFile(_history + "_backup1", "older backup");
    LogCapture log;
    OrvelCodeFileHandler other = handler(S("1.0"), S("1.1"), 99);
    S found;
    EXPECT_EQ(other.getPatcherModeAndInstalledAppBuildVersion(found), 0);
    EXPECT_EQ(found, "1.0");
    EXPECT_EQ(ReadTextFile(_history + "_backup1"), "older backup");
    EXPECT_EQ(ReadTextFile(_history + "_backup2"), original);
    EXPECT_TRUE(log.contains("Moving file " + _history + " to " + _history + "_backup2"));

    // The run goes on as a first install in a new file.
    ASSERT_TRUE(other.addPatcherEntry(manifest("1.1")));
    auto parsed = XmlDocument::parseFile(_history, XmlParseMode::Strict);
    ASSERT_TRUE(parsed.document);
    const XmlNode root = XmlDocument::root(parsed.document);
    EXPECT_EQ(root.attribute("tsInstalled"), "99");
    ASSERT_EQ(root.childElements().size(), 1u);
    EXPECT_EQ(root.childElements()[0].attribute("SequenceID"), "1");
}

TEST_F(OrvelCodeFileHandlerTest, HistoryWithoutEntriesIsMovedAside) {
    OrvelCodeFileHandler run = handler(S("1.0"), S("1.1"));
    ASSERT_TRUE(run.createOCPatchFile());
    LogCapture log;
    S found;
    EXPECT_EQ(run.getPatcherModeAndInstalledAppBuildVersion(found), 0);
    EXPECT_EQ(found, "1.0");
    EXPECT_TRUE(FileExists(_history + "_backup1"));
    EXPECT_FALSE(log.contains("Patch file is out of date."));
}

TEST_F(OrvelCodeFileHandlerTest, ForeignXmlIsMovedAsideNeverEdited) {
    ASSERT_EQ(::mkdir(_dir.file("Installers").c_str(), 0755), 0);
    const std::string foreign =
        "<?xml version=\"1.0\"?>\n<plist version=\"1.0\"><dict>"
        "<key>tsInstalled</key><string>1700000000</string></dict></plist>\n";
    WriteTextFile(_history, foreign);
    LogCapture log;
    OrvelCodeFileHandler run = handler(S("1.0"), S("1.1"));
    S found;
    EXPECT_EQ(run.getPatcherModeAndInstalledAppBuildVersion(found), 0);
    EXPECT_EQ(found, "1.0");
    EXPECT_TRUE(log.contains("Patch file is out of date."));
    EXPECT_EQ(ReadTextFile(_history + "_backup1"), foreign);
    EXPECT_FALSE(FileExists(_history));
}

TEST_F(OrvelCodeFileHandlerTest, OutOfDateFileThatCannotBeMovedAsideStopsThePatch) {
    ASSERT_EQ(::mkdir(_dir.file("Installers").c_str(), 0755), 0);
    // A name so long that no backup name can be made beside it.
    _history = _dir.file("Installers/" + std::string(244, 'c') + ".patch");
    const std::string old = "<PBSHistory tsInstalled=\"5\"><Patcher SequenceID=\"1\">"
                            "<NewVersion>1.0</NewVersion></Patcher></PBSHistory>";
    WriteTextFile(_history, old);
    LogCapture log;
    S found;
    EXPECT_EQ(modeFor(S("1.0"), S("1.1"), found), -1);
    EXPECT_EQ(found, std::nullopt);
    EXPECT_TRUE(log.contains("Failed to move file " + _history + " aside"));
    EXPECT_EQ(ReadTextFile(_history), old);
}

TEST_F(OrvelCodeFileHandlerTest, ForeignOrOutOfDateFileIsNeverAppendedTo) {
    ASSERT_EQ(::mkdir(_dir.file("Installers").c_str(), 0755), 0);
    const std::string foreign = "<PBSHistory tsInstalled=\"1\"><Patcher SequenceID=\"1\">"
                                "<NewVersion>1.0</NewVersion></Patcher></PBSHistory>";
    WriteTextFile(_history, foreign);
    OrvelCodeFileHandler run = handler(S("1.0"), S("1.1"));
    LogCapture log;
    EXPECT_FALSE(run.addPatcherEntry(manifest("1.1")));
    EXPECT_TRUE(log.contains("Patch file is out of date."));
    EXPECT_EQ(ReadTextFile(_history), foreign);

    WriteTextFile(_history, "<Other tsInstalled=\"1700000000\"/>");
    EXPECT_FALSE(run.addPatcherEntry(manifest("1.1")));
    EXPECT_EQ(ReadTextFile(_history), "<Other tsInstalled=\"1700000000\"/>");
}

TEST_F(OrvelCodeFileHandlerTest, TruncatedHistoryGivesInstallWithoutVersionAndStaysAsItIs) {
    buildThreeEntryHistory();
    const std::string whole = ReadTextFile(_history);
    const std::string truncated = whole.substr(0, whole.size() / 2);
    WriteTextFile(_history, truncated);

    S found;
    EXPECT_EQ(modeFor(S("1.3"), S("1.4"), found), 0);
    EXPECT_EQ(found, std::nullopt);
    OrvelCodeFileHandler run = handler(S("1.3"), S("1.4"));
    EXPECT_EQ(run.getPatcherModeAndInstalledAppBuildVersion(found), 0);
    EXPECT_EQ(run.getInstVer(), "");
    EXPECT_FALSE(run.addPatcherEntry(manifest("1.4")));
    EXPECT_EQ(ReadTextFile(_history), truncated);
    EXPECT_FALSE(FileExists(_history + "_backup1"));
}

TEST_F(OrvelCodeFileHandlerTest, UnreadableHistoryGivesInstallWithoutVersion) {
    ASSERT_EQ(::mkdir(_dir.file("Installers").c_str(), 0755), 0);
    // A folder where the file should be, then a pipe (which must not block the run).
    ASSERT_EQ(::mkdir(_history.c_str(), 0755), 0);
    S found;
    EXPECT_EQ(modeFor(S("1.0"), S("1.1"), found), 0);
    EXPECT_EQ(found, std::nullopt);
    OrvelCodeFileHandler run = handler(S("1.0"), S("1.1"));
    EXPECT_FALSE(run.addPatcherEntry(manifest("1.1")));
    struct stat info {};
    EXPECT_EQ(::stat(_history.c_str(), &info), 0);
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    ASSERT_EQ(::rmdir(_history.c_str()), 0);

    ASSERT_EQ(::mkfifo(_history.c_str(), 0600), 0);
    EXPECT_EQ(modeFor(S("1.0"), S("1.1"), found), 0);
    EXPECT_EQ(found, std::nullopt);
    EXPECT_FALSE(run.addPatcherEntry(manifest("1.1")));
}

TEST_F(OrvelCodeFileHandlerTest, QuoteCharactersInTheFileAreCompared) {
    ASSERT_EQ(::mkdir(_dir.file("Installers").c_str(), 0755), 0);
    // A value that would close a quoted literal pasted into the expression.
    const std::string file = "<PBSHistory tsInstalled=\"1700000000&quot;] | /*[&quot;\">"
                             "<Patcher SequenceID=\"1\"><NewVersion>1.0</NewVersion></Patcher>"
                             "</PBSHistory>";
    WriteTextFile(_history, file);
    S found;
    EXPECT_EQ(modeFor(S("1.0"), S("1.1"), found), 0);
    EXPECT_EQ(ReadTextFile(_history + "_backup1"), file);

    // Current installation, but the last entry's number carries quotes.
    const std::string quoted = "<PBSHistory tsInstalled=\"1700000000\">"
                               "<Patcher SequenceID=\"1&quot;'\"><NewVersion>1.0</NewVersion>"
                               "</Patcher></PBSHistory>";
    WriteTextFile(_history, quoted);
    LogCapture log;
    EXPECT_EQ(modeFor(S("1.0"), S("1.1"), found), -1);
    EXPECT_TRUE(log.contains("Patch file is corrupted. Multiple entries found for SequenceID: 1"));
    EXPECT_EQ(ReadTextFile(_history), quoted);
}

TEST_F(OrvelCodeFileHandlerTest, QuoteCharactersInValuesAreWrittenAndReadBack) {
    OrvelCodeFileHandler run(_history, S("ID\"'<&>"), S("1.0"), S("1.1\"'"), S("Paint \"Pro\""),
                             S("Fam'ily"), kInstalled, kModified);
    S found;
    EXPECT_EQ(run.getPatcherModeAndInstalledAppBuildVersion(found), 0);
    ASSERT_TRUE(run.addPatcherEntry(manifest("1.1")));
    auto parsed = XmlDocument::parseFile(_history, XmlParseMode::Strict);
    ASSERT_TRUE(parsed.document);
    const XmlNode root = XmlDocument::root(parsed.document);
    EXPECT_EQ(root.attribute("ProductName"), "Paint \"Pro\"");
    EXPECT_EQ(root.attribute("ProductFamily"), "Fam'ily");
    EXPECT_EQ(root.childElements()[0].attribute("PatcherID"), "ID\"'<&>");
    EXPECT_EQ(root.select("/PBSHistory/Patcher/NewVersion")[0].stringValue(), "1.1\"'");
    OrvelCodeFileHandler next = handler(S("1.1\"'"), S("1.2"));
    EXPECT_EQ(next.getPatcherModeAndInstalledAppBuildVersion(found), 0);
    EXPECT_EQ(found, "1.1\"'");
}

TEST_F(OrvelCodeFileHandlerTest, MissingNewVersionIsCorruption) {
    ASSERT_EQ(::mkdir(_dir.file("Installers").c_str(), 0755), 0);
    WriteTextFile(_history, "<PBSHistory tsInstalled=\"1700000000\">\n"
                            "  <Patcher SequenceID=\"1\"><NewVersion>1.0</NewVersion></Patcher>\n"
                            "  <Patcher SequenceID=\"2\"><OldVersion>1.0</OldVersion></Patcher>\n"
                            "</PBSHistory>\n");
    LogCapture log;
    S found;
    EXPECT_EQ(modeFor(S("1.0"), S("1.1"), found), -1);
    EXPECT_EQ(found, std::nullopt);
    EXPECT_TRUE(log.contains("Patch file is corrupted. New version is missing for SequenceID: 2"));
    EXPECT_FALSE(log.contains("Patch file is out of date."));
}

TEST_F(OrvelCodeFileHandlerTest, EmptyPathNamesNoFile) {
    LogCapture log;
    OrvelCodeFileHandler run("", S("P"), S("1.0"), S("1.1"), S("N"), S("F"), 1, 2);
    S found;
    EXPECT_EQ(run.getPatcherModeAndInstalledAppBuildVersion(found), 0);
    EXPECT_EQ(found, std::nullopt);
    EXPECT_TRUE(log.contains("Can't create an URL from file path ."));
    EXPECT_FALSE(run.addPatcherEntry(manifest("1.1")));
}

TEST_F(OrvelCodeFileHandlerTest, UnreadableManifestFailsTheEntryAndLeavesTheFile) {
    applyPatch("1.0", "1.1");
    const std::string before = ReadTextFile(_history);
    OrvelCodeFileHandler run = handler(S("1.1"), S("1.2"));
    S found;
    ASSERT_EQ(run.getPatcherModeAndInstalledAppBuildVersion(found), 0);
    WriteTextFile(_dir.file("broken.xml"), "<Manifest><FileSet></Manifest>");
    LogCapture log;
    EXPECT_FALSE(run.addPatcherEntry(_dir.file("broken.xml")));
    EXPECT_FALSE(run.addPatcherEntry(_dir.file("missing.xml")));
    EXPECT_FALSE(run.addPatcherEntry(""));
    EXPECT_TRUE(log.contains(_dir.file("broken.xml")));
    EXPECT_TRUE(log.contains("Can't create an URL from file path ."));
    EXPECT_EQ(ReadTextFile(_history), before);
}

TEST_F(OrvelCodeFileHandlerTest, FailureToCreateTheFileIsLogged) {
    // The history folder's place is taken by a plain file.
    WriteTextFile(_dir.file("Installers"), "not a folder");
    OrvelCodeFileHandler run = handler(S("1.0"), S("1.1"));
    LogCapture log;
    EXPECT_FALSE(run.addPatcherEntry(manifest("1.1")));
    EXPECT_TRUE(log.contains("Failed to create Patch file"));
}

TEST_F(OrvelCodeFileHandlerTest, RemovesEveryPatchFileBelowAFolder) {
    const std::string root = _dir.file("tree");
    ASSERT_EQ(::mkdir(root.c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((root + "/sub").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((root + "/sub/folder.patch").c_str(), 0755), 0);
    for (const char* name : {"a.patch", "sub/b.patch", "sub/folder.patch/c.patch", "keep.txt",
                             "a.patch_backup1", "d.PATCH", "sub/e.patch.xml"})
        WriteTextFile(root + "/" + name, "x");
    ASSERT_EQ(::symlink("/nonexistent", (root + "/link.patch").c_str()), 0);

    EXPECT_TRUE(OrvelCodeFileHandler::removeAllOCPatchFilesAtGivenPath(root));
    for (const char* gone : {"a.patch", "sub/b.patch", "sub/folder.patch/c.patch"})
        EXPECT_FALSE(FileExists(root + "/" + gone)) << gone;
    struct stat info {};
    EXPECT_NE(::lstat((root + "/link.patch").c_str(), &info), 0);
    for (const char* kept : {"keep.txt", "a.patch_backup1", "d.PATCH", "sub/e.patch.xml"})
        EXPECT_TRUE(FileExists(root + "/" + kept)) << kept;
    EXPECT_TRUE(FileExists(root + "/sub/folder.patch"));

    EXPECT_TRUE(OrvelCodeFileHandler::removeAllOCPatchFilesAtGivenPath(_dir.file("missing")));
}

} // namespace

// The entry made ahead is the very file the entry made at the end would be, and it is used
// only while the history and the manifest are those it was made from.
TEST_F(OrvelCodeFileHandlerTest, AnEntryMadeAheadIsWrittenOnlyWhileItsFilesAreUnchanged) {
    buildThreeEntryHistory();
    const std::string history = ReadTextFile(_history);
    const std::string next = manifest("1.4");
    OrvelCodeFileHandler run = handler(S("1.3"), S("1.4"));
    S found;
    ASSERT_EQ(run.getPatcherModeAndInstalledAppBuildVersion(found), 0);

    // Made ahead, nothing is logged and nothing changes on disk.
    LogCapture quiet;
    const auto prepared = run.preparePatcherEntry(next);
    ASSERT_TRUE(prepared);
    EXPECT_TRUE(quiet.lines().empty()) << quiet.text();
    EXPECT_EQ(ReadTextFile(_history), history);

    const std::string madeAtTheEnd = _dir.file("at-the-end");
    const std::string madeAhead = _dir.file("ahead");
    LogCapture atTheEnd;
    ASSERT_TRUE(run.addPatcherEntry(next, madeAtTheEnd, std::nullopt));
    LogCapture ahead;
    ASSERT_TRUE(run.addPatcherEntry(next, madeAhead, prepared));
    EXPECT_EQ(ReadTextFile(madeAhead), ReadTextFile(madeAtTheEnd));
    EXPECT_EQ(ahead.lines(), atTheEnd.lines());

    // A manifest changed since is copied afresh.
    WriteTextFile(next, Manifest("1.4-changed"));
    ASSERT_TRUE(run.addPatcherEntry(next, madeAhead, prepared));
    EXPECT_NE(ReadTextFile(madeAhead).find("1.4-changed"), std::string::npos);
    // So is a history changed since: here one that no longer is the installation's.
    WriteTextFile(_history, "<PBSHistory tsInstalled=\"1\"/>\n");
    LogCapture refused;
    EXPECT_FALSE(run.addPatcherEntry(next, madeAhead, prepared));
    EXPECT_EQ(refused.lines(), Lines{"Patch file is out of date."});
    // Nothing is made ahead from a foreign or unreadable history.
    EXPECT_FALSE(run.preparePatcherEntry(next));
    WriteTextFile(_history, "<PBSHistory");
    EXPECT_FALSE(run.preparePatcherEntry(next));
}

TEST_F(OrvelCodeFileHandlerTest,
       AnEntryMadeAheadOfAFirstPatchMakesTheHistoryAsTheEntryAtTheEndDoes) {
    OrvelCodeFileHandler run = handler(S("1.0"), S("1.1"));
    S found;
    ASSERT_EQ(run.getPatcherModeAndInstalledAppBuildVersion(found), 0);
    ASSERT_FALSE(FileExists(_history));
    const std::string next = manifest("1.1");
    const auto prepared = run.preparePatcherEntry(next);
    ASSERT_TRUE(prepared);
    EXPECT_FALSE(FileExists(_history)); // nothing on disk yet

    const std::string madeAhead = _dir.file("ahead");
    LogCapture ahead;
    ASSERT_TRUE(run.addPatcherEntry(next, madeAhead, prepared));
    const std::string bareHistory = ReadTextFile(_history);
    ASSERT_EQ(::unlink(_history.c_str()), 0);
    const std::string madeAtTheEnd = _dir.file("at-the-end");
    LogCapture atTheEnd;
    ASSERT_TRUE(run.addPatcherEntry(next, madeAtTheEnd, std::nullopt));
    EXPECT_EQ(ReadTextFile(madeAhead), ReadTextFile(madeAtTheEnd));
    EXPECT_EQ(ReadTextFile(_history), bareHistory);
    EXPECT_EQ(ahead.lines(), atTheEnd.lines());
    // Made for a missing history, it is not used once a history is there.
    const std::string other = _dir.file("other");
    ASSERT_TRUE(run.addPatcherEntry(next, other, prepared));
    EXPECT_EQ(ReadTextFile(other), ReadTextFile(madeAtTheEnd));
}
