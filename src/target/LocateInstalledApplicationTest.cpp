// Locating and validating the installed application against the real orvel_zoth library
// and databases made by zothctl, with applications in temporary folders.
#include "target/LocateInstalledApplication.h"

#include "TestSupport.h"
#include "runtime/CommonUtility.h"
#include "runtime/Environment.h"
#include "target/InstalledApp.h"
#include "target/LoadConfigData.h"
#include "target/OrvelCodeFileHandler.h"
#include "target/ZOTHService.h"
#include "target/ZothClientTestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const std::string kCodeA = "{0A0A0A0A-1111-4111-8111-0000000000AA}";
const std::string kCodeB = "{0B0B0B0B-2222-4222-8222-0000000000BB}";

struct ConfigSpec {
    std::vector<std::string> codes{kCodeA};
    std::optional<std::string> appName = "App";
    std::optional<std::string> oldVersion = "2.0";
    std::optional<std::string> newVersion = "2.5";
    std::optional<std::string> kvrFilePath = "[INSTALLDIR]/App.app/Contents/Resources/App.kvr";
    std::optional<std::string> bundleIdentifier = "com.orvel.app";
    std::string keyValuePairs;
    std::optional<std::string> systemSpace = "0";
    std::optional<std::string> targetSpace = "0";

    std::string toXml() const {
        auto element = [](const char* name, const std::optional<std::string>& value) {
            return value ? "<" + std::string(name) + ">" + *value + "</" + name + ">\n"
                         : std::string();
        };
        std::string xml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<PatcherConfig>\n"
                          "<Family>Orvel Studio</Family><Name>Orvel App</Name>\n"
                          "<PatcherID>APP-25-01</PatcherID>\n<ProductData>\n";
        xml += element("AppName", appName) + element("OldVersion", oldVersion) +
               element("NewVersion", newVersion) + element("KVRFilePath", kvrFilePath) +
               element("BundleIdentifier", bundleIdentifier);
        if (!codes.empty()) {
            xml += "<OrvelCode>";
            for (const auto& code : codes)
                xml += "<GUID>" + code + "</GUID>";
            xml += "</OrvelCode>\n";
        }
        xml += "</ProductData>\n<PrePatchValidation>\n<AppValidityCheck>";
        if (!keyValuePairs.empty())
            xml += "<KeyValuePairs>" + keyValuePairs + "</KeyValuePairs>";
        xml += "</AppValidityCheck>\n<SpaceRequirement>" + element("System", systemSpace) +
               element("Target", targetSpace) +
               "</SpaceRequirement>\n</PrePatchValidation>\n</PatcherConfig>\n";
        return xml;
    }
};

std::string InfoPlist(const std::optional<std::string>& version,
                      const std::optional<std::string>& identifier) {
    std::string text =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
        "<key>CFBundleName</key><string>App</string>\n"
        "<key>Edition</key><string>B</string>\n";
    if (version)
        text += "<key>CFBundleVersion</key><string>" + *version + "</string>\n";
    if (identifier)
        text += "<key>CFBundleIdentifier</key><string>" + *identifier + "</string>\n";
    return text + "</dict>\n</plist>\n";
}

void MakeFolders(const std::string& path) {
    std::string partial;
    size_t start = 0;
    while (start <= path.size()) {
        const size_t slash = path.find('/', start);
        partial = path.substr(0, slash);
        if (!partial.empty())
            ::mkdir(partial.c_str(), 0755);
        if (slash == std::string::npos)
            break;
        start = slash + 1;
    }
}

bool Contains(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// Whether the log holds the message; messages of several lines are searched in the text.
bool Logged(const LogCapture& capture, const std::string& message) {
    if (message.find('\n') == std::string::npos)
        return Contains(capture.lines(), message);
    return capture.text().find(message) != std::string::npos;
}

class LocateInstalledApplicationTest : public ::testing::Test {
protected:
    void SetUp() override {
        SetENVverbosityLevel("debug");
        SetENVcomboFlag(false);
        ClearENVinstallLanguage();
        _paths.patchHistoryFolder = _dir.file("history/");
        _paths.tmpVolume = _dir.path();
        MakeFolders(_dir.file("history"));
        InstantiateZOTHService(ZOTH_LIBRARY_PATH);
    }
    void TearDown() override {
        ReleaseZOTHService();
        OrvelCodeFileHandler::releaseInstance();
        SetENVcomboFlag(false);
        ClearENVinstallLanguage();
    }

    LoadConfigData& load(const ConfigSpec& spec) {
        WriteTextFile(_dir.file("config.xml"), spec.toXml());
        _config = std::make_unique<LoadConfigData>();
        EXPECT_NE(_config->loadConfigInfoFromFile(_dir.file("config.xml")), nullptr);
        return *_config;
    }

    // An installation folder holding App.app with its Info.plist and KVR file.
    std::string makeApp(const std::string& folder,
                        const std::optional<std::string>& version = "2.0",
                        const std::optional<std::string>& identifier = "com.orvel.app",
                        const std::string& appName = "App") {
        const std::string resources = folder + "/" + appName + ".app/Contents/Resources";
        MakeFolders(resources);
        WriteTextFile(folder + "/" + appName + ".app/Contents/Info.plist",
                      InfoPlist(version, identifier));
        WriteTextFile(resources + "/App.kvr", "kvr\n");
        return folder;
    }

    void registerCode(const std::string& code, const std::string& folder,
                      const std::string& version = "2.0",
                      const std::optional<std::string>& language = "de_DE",
                      const std::optional<std::string>& kvr = std::nullopt) {
        std::vector<std::string> args{"add",  "--code",     code,    "--installdir",
                                      folder, "--version",  version, "--installed",
                                      "1000", "--modified", "2000"};
        if (language)
            args.insert(args.end(), {"--language", *language});
        if (kvr)
            args.insert(args.end(), {"--kvr", *kvr});
        ASSERT_EQ(RunZothctl(db(), args), 0);
    }

    // The results as their numbers, which the tables below are written in.
    int locate(std::string& path) {
        LocateInstalledApplication locator(*_config, false, _paths);
        return static_cast<int>(locator.locateAndValidateApplication(path));
    }
    int isProper(const std::string& folder) {
        LocateInstalledApplication locator(*_config, false, _paths);
        return static_cast<int>(locator.isProperProduct(folder));
    }

    std::string db() const { return _dir.file("zoth.db"); }

    TempDir _dir;
    ScopedEnvironment _database{"ORVEL_ZOTH_DB", _dir.file("zoth.db")};
    PlatformPaths _paths;
    std::unique_ptr<LoadConfigData> _config;
};

TEST_F(LocateInstalledApplicationTest, NoConfiguredCodeGivesMinusOneWithoutAskingTheDatabase) {
    ConfigSpec spec;
    spec.codes.clear();
    load(spec);
    ReleaseZOTHService();
    LogCapture capture;
    std::string path = "stale";
    EXPECT_EQ(locate(path), -1);
    EXPECT_EQ(path, "");
    EXPECT_EQ(capture.text().find("OrvelCode GUID"), std::string::npos);
}

TEST_F(LocateInstalledApplicationTest, TwoCodesFirstUnknownSecondValid) {
    const std::string folder = makeApp(_dir.file("opt/Orvel/Suite"));
    registerCode(kCodeB, folder, "2.0", "de_DE");
    ConfigSpec spec;
    spec.codes = {kCodeA, kCodeB};
    load(spec);
    LogCapture capture;
    std::string path;
    EXPECT_EQ(locate(path), 0);
    EXPECT_EQ(path, folder);
    EXPECT_EQ(_config->getAppGUID(), kCodeB);
    EXPECT_EQ(GetENVinstallLanguage(), "de_DE");
    const auto lines = capture.lines();
    EXPECT_TRUE(Contains(lines, "No entry for OrvelCode GUID (1) : " + kCodeA));
    EXPECT_TRUE(Contains(lines, "Found entry for OrvelCode GUID (2) : " + kCodeB));
    EXPECT_TRUE(Contains(lines, "Install dir from ZOTH: " + folder));
    EXPECT_TRUE(Contains(lines, "Verifying from zoth:"));
    EXPECT_TRUE(Contains(lines, "Install Mode"));
    EXPECT_TRUE(Contains(lines, "Valid install dir from ZOTH: " + folder));
    EXPECT_TRUE(Contains(lines, "Space availability check ... "));
    EXPECT_TRUE(Contains(lines, "Passed."));
    ASSERT_NE(OrvelCodeFileHandler::getInstance(), nullptr);
    EXPECT_EQ(OrvelCodeFileHandler::getInstance()->getPatcherMode(), 0);
    EXPECT_EQ(OrvelCodeFileHandler::getInstance()->getTsInstalled(), "1000");
    EXPECT_EQ(OrvelCodeFileHandler::getInstance()->getOCPatchFilePath(),
              _dir.file("history/") + kCodeB + ".patch");
}

TEST_F(LocateInstalledApplicationTest, TwoCodesBothUnknown) {
    ConfigSpec spec;
    spec.codes = {kCodeA, kCodeB};
    load(spec);
    LogCapture capture;
    std::string path;
    EXPECT_EQ(locate(path), 1);
    EXPECT_EQ(path, "");
    EXPECT_TRUE(Contains(capture.lines(), "No entry for OrvelCode GUID (2) : " + kCodeB));
}

TEST_F(LocateInstalledApplicationTest, CodesWithQuotesAndAMissingLibraryFindNothing) {
    registerCode(kCodeA, makeApp(_dir.file("opt/Suite")));
    ConfigSpec spec;
    spec.codes = {kCodeA + "' OR '1'='1", "&quot;" + kCodeA + "&quot;"};
    load(spec);
    std::string path;
    EXPECT_EQ(locate(path), 1);

    ReleaseZOTHService();
    InstantiateZOTHService(_dir.file("nowhere/orvel_zoth").c_str());
    spec.codes = {kCodeA};
    load(spec);
    EXPECT_EQ(locate(path), 1);
    EXPECT_EQ(path, "");
}

TEST_F(LocateInstalledApplicationTest, InstallRepairComboAndVersionMismatch) {
    const std::string folder = makeApp(_dir.file("opt/Suite"));
    struct Case {
        std::string installed;
        bool combo;
        int result;
        const char* message;
    };
    const Case cases[] = {
        {"2.0", false, 0, "Install Mode"},
        {"2.5", false, 0, "Repair Mode"},
        {"2.2", true, 0, "ComboPatch Mode"},
        {"2.2", false, -1, "Version does not match."},
        {"1.9", true, -1, "Version does not match."},
        {"2.6", true, -1, "Version does not match."},
        {"2.0.0.0", false, 0, "Install Mode"},
    };
    load(ConfigSpec{});
    for (const auto& c : cases) {
        (void)RunZothctl(db(), {"remove", "--code", kCodeA});
        registerCode(kCodeA, folder, c.installed);
        ReleaseZOTHService();
        InstantiateZOTHService(ZOTH_LIBRARY_PATH);
        SetENVcomboFlag(c.combo);
        LogCapture capture;
        std::string path;
        EXPECT_EQ(locate(path), c.result) << c.installed;
        EXPECT_TRUE(Contains(capture.lines(), c.message)) << c.installed << "\n" << capture.text();
        EXPECT_TRUE(Contains(capture.lines(), "Version Range: [ 2.0 , 2.5 )"));
        EXPECT_TRUE(Contains(capture.lines(), "Version of installed App: " + c.installed));
        EXPECT_EQ(path, c.result == 0 ? folder : "");
    }
}

TEST_F(LocateInstalledApplicationTest, ModeFromThePatchHistoryFile) {
    const std::string folder = makeApp(_dir.file("opt/Suite"));
    registerCode(kCodeA, folder, "1.0");
    load(ConfigSpec{});
    const std::string history = _dir.file("history/") + kCodeA + ".patch";
    auto write = [&](const std::string& entries) {
        WriteTextFile(history,
                      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                      "<PBSHistory ProductName=\"Orvel App\" ProductFamily=\"Orvel Studio\""
                      " tsInstalled=\"1000\" tsModified=\"2000\">" +
                          entries + "</PBSHistory>\n");
    };
    auto entry = [](int sequence, const std::string& newVersion) {
        return "<Patcher SequenceID=\"" + std::to_string(sequence) +
               "\" PatcherID=\"X\"><OldVersion>1.0</OldVersion><NewVersion>" + newVersion +
               "</NewVersion></Patcher>";
    };
    struct Case {
        std::string entries;
        int result;
        const char* mode;
    };
    const Case cases[] = {
        {entry(1, "2.0"), 0, "Install Mode"},
        {entry(1, "2.5"), 0, "Repair Mode"},
        {entry(1, "2.2"), 0, "ComboPatch Mode"},
        {entry(1, "1.5"), -1, nullptr},
        {entry(1, "2.5") + entry(1, "2.5"), -1, nullptr},
    };
    for (const auto& c : cases) {
        write(c.entries);
        LogCapture capture;
        std::string path;
        EXPECT_EQ(locate(path), c.result) << c.entries;
        EXPECT_TRUE(Contains(capture.lines(), "Verifying from patch file:"));
        if (c.mode)
            EXPECT_TRUE(Contains(capture.lines(), c.mode)) << capture.text();
        else
            EXPECT_FALSE(Contains(capture.lines(), "Install Mode"));
    }
}

TEST_F(LocateInstalledApplicationTest, BundleVersionIsComparedAsPlainText) {
    struct Case {
        std::optional<std::string> bundleVersion;
        std::string expected;
        int result;
        std::vector<std::string> messages;
    };
    const Case cases[] = {
        {"2.0", "2.0", 0, {"Bundle Version matched.", "app is proper"}},
        {"2.1", "2.0", 3, {"Application is already up-to-date.", "app is proper"}},
        {"9.0", "10.0", 3, {"Installed App Version : 9.0", "Expected App Version  : 10.0"}},
        {"1.9", "2.0", -1, {"Bundle Version does not match.", "app is NOT proper"}},
        {std::nullopt, "2.0", 0, {"Version info missing in installed application"}},
    };
    int n = 0;
    for (const auto& c : cases) {
        const std::string folder =
            makeApp(_dir.file("opt/" + std::to_string(++n)), c.bundleVersion);
        ConfigSpec spec;
        spec.oldVersion = c.expected;
        spec.newVersion = "20.0";
        load(spec);
        (void)RunZothctl(db(), {"remove", "--code", kCodeA});
        registerCode(kCodeA, folder, c.expected);
        ReleaseZOTHService();
        InstantiateZOTHService(ZOTH_LIBRARY_PATH);
        LogCapture capture;
        std::string path;
        EXPECT_EQ(locate(path), c.result) << n;
        for (const auto& message : c.messages)
            EXPECT_TRUE(Contains(capture.lines(), message)) << message << "\n" << capture.text();
    }
}

TEST_F(LocateInstalledApplicationTest, ExistenceIdentifierAndAppName) {
    const std::string folder = makeApp(_dir.file("opt/Suite"), "2.0", "com.orvel.other");
    registerCode(kCodeA, folder);
    load(ConfigSpec{});
    {
        LogCapture capture;
        std::string path;
        EXPECT_EQ(locate(path), -1);
        EXPECT_TRUE(Contains(capture.lines(), "Bundle Identifier check ..."));
        EXPECT_TRUE(Contains(capture.lines(), "Installed App BundleIdentifier : com.orvel.other"));
        EXPECT_TRUE(Contains(capture.lines(), "Expected BundleIdentifier      : com.orvel.app "));
        EXPECT_TRUE(Contains(capture.lines(), "BundleIdentifier does not match"));
        EXPECT_TRUE(Contains(capture.lines(), "app is NOT proper"));
    }
    makeApp(folder, "2.0", std::nullopt);
    {
        LogCapture capture;
        std::string path;
        EXPECT_EQ(locate(path), 0);
        EXPECT_TRUE(Contains(capture.lines(), "BundleIdentifier missing in installed application"));
        EXPECT_TRUE(
            Contains(capture.lines(), "keyValuesPair is not present in the configuration file."));
    }
    ConfigSpec spec;
    spec.appName = "Missing";
    spec.kvrFilePath.reset();
    load(spec);
    {
        LogCapture capture;
        std::string path;
        EXPECT_EQ(locate(path), -1);
        EXPECT_TRUE(
            Contains(capture.lines(), "Validating Application: " + folder + "/Missing.app "));
        EXPECT_TRUE(Contains(capture.lines(), "Application could not be found."));
    }
    spec.appName.reset();
    load(spec);
    {
        LogCapture capture;
        std::string path;
        EXPECT_EQ(locate(path), 0);
        EXPECT_TRUE(
            Contains(capture.lines(), "TBD. Skipping app validation as app name is not present."));
    }
}

TEST_F(LocateInstalledApplicationTest, MissingFolderOrKVRFile) {
    load(ConfigSpec{});
    EXPECT_EQ(isProper(_dir.file("absent")), 1);
    LocateInstalledApplication locator(*_config, true, _paths);
    EXPECT_TRUE(locator.isRunningUnderKOR());
    EXPECT_EQ(locator.isProperProduct(std::nullopt), LocatorResult::NotFound);
    const std::string folder = makeApp(_dir.file("opt/Suite"));
    ::unlink((folder + "/App.app/Contents/Resources/App.kvr").c_str());
    EXPECT_EQ(isProper(folder), 1);
    // A KVR file that is a loop of symbolic links is missing too.
    ASSERT_EQ(::symlink("App.kvr.b", (folder + "/App.app/Contents/Resources/App.kvr").c_str()), 0);
    ASSERT_EQ(::symlink("App.kvr", (folder + "/App.app/Contents/Resources/App.kvr.b").c_str()), 0);
    EXPECT_EQ(isProper(folder), 1);

    registerCode(kCodeA, _dir.file("opt/Gone"));
    std::string path;
    EXPECT_EQ(locate(path), 1);
    EXPECT_EQ(path, "");
}

TEST_F(LocateInstalledApplicationTest, FollowsAMovedApplicationThroughTheKVRFile) {
    const std::string oldFolder = _dir.file("opt/Suite");
    const std::string newFolder = makeApp(_dir.file("media/Other/Suite"));
    const std::string newKVR = newFolder + "/App.app/Contents/Resources/App.kvr";
    registerCode(kCodeA, oldFolder, "2.0", "it_IT",
                 oldFolder + "/App.app/Contents/Resources/App.kvr");
    ASSERT_EQ(RunZothctl(db(), {"set", "--code", kCodeA, "--domain", "4", "KVRConfigPath", newKVR}),
              0);
    load(ConfigSpec{});
    LogCapture capture;
    std::string path;
    EXPECT_EQ(locate(path), 0) << capture.text();
    EXPECT_EQ(path, newFolder);
    EXPECT_EQ(GetENVinstallLanguage(), "it_IT");
    const auto lines = capture.lines();
    EXPECT_TRUE(Contains(lines, "Found KVR File Path: " + newKVR));
    EXPECT_TRUE(Contains(lines, "Actual App path: " + newFolder + "/App.app"));
    EXPECT_TRUE(Contains(lines, "App path with token: [INSTALLDIR]/App.app"));
    EXPECT_TRUE(Contains(lines, "Application has been moved to " + newFolder + "/App.app"));
    EXPECT_TRUE(Contains(lines, "Map path: [INSTALLDIR]/App.app -> " + newFolder + "/App.app"));
    EXPECT_TRUE(Contains(lines, "[INSTALLDIR]: " + newFolder));
    EXPECT_TRUE(Contains(lines, "Valid install dir from ZOTH: " + newFolder));
}

TEST_F(LocateInstalledApplicationTest, WalksUpTheMatchingComponents) {
    // Installed under opt with "[INSTALLDIR]/Suite/App.app", moved to media/Other/Suite.
    const std::string newParent = _dir.file("media/Other");
    makeApp(newParent + "/Suite");
    registerCode(kCodeA, _dir.file("opt"), "2.0", "de_DE");
    ASSERT_EQ(RunZothctl(db(), {"set", "--code", kCodeA, "--domain", "4", "KVRConfigPath",
                                newParent + "/Suite/App.app/Contents/Resources/App.kvr"}),
              0);
    ConfigSpec spec;
    spec.appName = "Suite/App";
    spec.kvrFilePath = "[INSTALLDIR]/Suite/App.app/Contents/Resources/App.kvr";
    load(spec);
    LogCapture capture;
    std::string path;
    EXPECT_EQ(locate(path), 0) << capture.text();
    EXPECT_EQ(path, newParent);
    EXPECT_TRUE(Contains(capture.lines(), "[INSTALLDIR]: " + newParent));
}

TEST_F(LocateInstalledApplicationTest, MovedApplicationsThatCannotBeFollowed) {
    load(ConfigSpec{});
    const std::string oldFolder = _dir.file("opt/Suite");
    // No value in the KVR domain.
    registerCode(kCodeA, oldFolder);
    {
        LogCapture capture;
        std::string path;
        EXPECT_EQ(locate(path), 1);
        EXPECT_TRUE(Contains(capture.lines(), "No entry of KVR File Path in KVR Domain"));
    }
    auto recordKVR = [&](const std::string& kvr) {
        ASSERT_EQ(
            RunZothctl(db(), {"set", "--code", kCodeA, "--domain", "4", "KVRConfigPath", kvr}), 0);
    };
    // The recorded KVR file does not exist.
    recordKVR(_dir.file("media/Nothing/App.app/Contents/Resources/App.kvr"));
    {
        std::string path;
        EXPECT_EQ(locate(path), 1);
        EXPECT_EQ(path, "");
    }
    // The recorded file lies in a bundle of another name.
    const std::string other = makeApp(_dir.file("media/Other"), "2.0", "com.orvel.app", "Renamed");
    recordKVR(other + "/Renamed.app/Contents/Resources/App.kvr");
    {
        LogCapture capture;
        std::string path;
        EXPECT_EQ(locate(path), 1);
        EXPECT_TRUE(Contains(capture.lines(),
                             "Could not resolve path because zoth is not updated according to new "
                             "location of application. Launch application and click repair may "
                             "fix this problem."));
    }
    // The recorded file is a loop of symbolic links.
    const std::string loop = _dir.file("media/Loop/App.app/Contents/Resources");
    MakeFolders(loop);
    ASSERT_EQ(::symlink("b.kvr", (loop + "/App.kvr").c_str()), 0);
    ASSERT_EQ(::symlink("App.kvr", (loop + "/b.kvr").c_str()), 0);
    recordKVR(loop + "/App.kvr");
    {
        std::string path;
        EXPECT_EQ(locate(path), 1);
    }
    // No bundle around the configured KVR file: nothing to follow.
    ConfigSpec spec;
    spec.kvrFilePath = "[INSTALLDIR]/Resources/App.kvr";
    load(spec);
    makeApp(_dir.file("media/Good/Suite"));
    recordKVR(_dir.file("media/Good/Suite/App.app/Contents/Resources/App.kvr"));
    {
        LogCapture capture;
        std::string path;
        EXPECT_EQ(locate(path), 1);
        EXPECT_FALSE(
            Contains(capture.lines(), "Actual App path: " + _dir.file("media/Good/Suite/App.app")));
    }
}

TEST_F(LocateInstalledApplicationTest, InstallLanguageMissing) {
    registerCode(kCodeA, makeApp(_dir.file("opt/Suite")), "2.0", std::nullopt);
    load(ConfigSpec{});
    LogCapture capture;
    std::string path;
    EXPECT_EQ(locate(path), 0);
    EXPECT_TRUE(Contains(capture.lines(), "Failed to get install language from Orvel ZOTH"));
    EXPECT_EQ(GetENVinstallLanguage(), UserLocale());
}

TEST_F(LocateInstalledApplicationTest, SpaceRequirements) {
    const std::string folder = makeApp(_dir.file("opt/Suite"));
    registerCode(kCodeA, folder);
    struct Case {
        std::optional<std::string> target;
        std::optional<std::string> system;
        int result;
        bool overflow;
    };
    const Case cases[] = {
        {"0", "0", 0, false},
        {std::nullopt, std::nullopt, 0, false},
        {"abc", " 12kb", 0, false},
        {"-5", "0", 6, false},
        {"0", "-5", 5, false},
        {"2147483647", "0", 6, true},
        {"99999999999999", "0", 6, true},
        {"-99999999999999", "0", 6, true},
        {"0", "2147483647", 5, true},
    };
    for (const auto& c : cases) {
        ConfigSpec spec;
        spec.targetSpace = c.target;
        spec.systemSpace = c.system;
        load(spec);
        LogCapture capture;
        std::string path;
        EXPECT_EQ(locate(path), c.result)
            << c.target.value_or("-") << " " << c.system.value_or("-");
        EXPECT_EQ(path, folder);
        EXPECT_EQ(Contains(capture.lines(), "Required size buffer overflow"), c.overflow);
        EXPECT_EQ(Contains(capture.lines(), "Passed."), c.result == 0);
    }
}

// Runs body in a child process with a private mount namespace; its exit status, or -1 when
// namespaces are not available here.
int InMountNamespace(const std::function<int()>& body) {
    const pid_t pid = ::fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            ::_exit(100);
        ::_exit(body());
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    if (!WIFEXITED(status))
        return 128 + (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    return WEXITSTATUS(status) == 100 ? -1 : WEXITSTATUS(status);
}

TEST_F(LocateInstalledApplicationTest, TooLittleSpaceOnTheApplicationsVolume) {
    const std::string volume = _dir.file("volume");
    const std::string osVolume = _dir.file("osvolume");
    MakeFolders(volume);
    MakeFolders(osVolume);
    registerCode(kCodeA, volume + "/Suite");
    // Child exit codes: 10 + result of each step, so the parent can tell them apart.
    const int status = InMountNamespace([&]() -> int {
        if (::mount("tmpfs", volume.c_str(), "tmpfs", 0, "size=1m") != 0 ||
            ::mount("tmpfs", osVolume.c_str(), "tmpfs", 0, "size=2m") != 0)
            return 101;
        makeApp(volume + "/Suite");
        _paths.tmpVolume = osVolume;
        const uint64_t freeKB = GetFreeDiskSpaceInBytes(volume) / 1024;
        const uint64_t osFreeKB = GetFreeDiskSpaceInBytes(osVolume) / 1024;
        if (freeKB == 0 || freeKB >= 1024 || osFreeKB <= 1024)
            return 102;
        ConfigSpec spec;
        // Exactly the free space is not enough: the comparison is strict.
        spec.targetSpace = std::to_string(freeKB);
        load(spec);
        std::string path;
        if (locate(path) != 6 || path != volume + "/Suite")
            return 103;
        spec.targetSpace = std::to_string(freeKB - 1);
        spec.systemSpace = std::to_string(osFreeKB);
        load(spec);
        if (locate(path) != 5 || path != volume + "/Suite")
            return 104;
        spec.systemSpace = std::to_string(osFreeKB - 1);
        load(spec);
        if (locate(path) != 0 || path != volume + "/Suite")
            return 105;
        // More than the small volume holds, though the other volumes have plenty.
        spec.targetSpace = "2048";
        load(spec);
        LocateInstalledApplication locator(*_config, false, _paths);
        if (locator.isSufficientDiskSpace(volume + "/Suite") != LocatorResult::NoSpaceOnAppVolume ||
            locator.isSufficientDiskSpace(_dir.path()) != LocatorResult::EnoughSpace)
            return 106;
        return 0;
    });
    if (status == -1)
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(status, 0);
}

TEST_F(LocateInstalledApplicationTest, FollowsAnApplicationMovedOutOfOpt) {
    // The real folders, over private tmpfs mounts: installed as /opt/Suite/App.app, moved to
    // /media/Other/Suite/App.app with its KVR file.
    registerCode(kCodeA, "/opt/Suite", "2.0", "de_DE",
                 "/opt/Suite/App.app/Contents/Resources/App.kvr");
    ASSERT_EQ(RunZothctl(db(), {"set", "--code", kCodeA, "--domain", "4", "KVRConfigPath",
                                "/media/Other/Suite/App.app/Contents/Resources/App.kvr"}),
              0);
    load(ConfigSpec{});
    const int status = InMountNamespace([&]() -> int {
        if (::mount("tmpfs", "/opt", "tmpfs", 0, "size=4m") != 0 ||
            ::mount("tmpfs", "/media", "tmpfs", 0, "size=4m") != 0)
            return 101;
        makeApp("/opt/Suite");
        std::string path;
        if (locate(path) != 0 || path != "/opt/Suite")
            return 102;
        // Moved to another volume: copied there and removed here.
        makeApp("/media/Other/Suite");
        RemoveTree("/opt/Suite");
        if (FileExists("/opt/Suite"))
            return 103;
        if (locate(path) != 0 || path != "/media/Other/Suite")
            return 104;
        // Renamed without the database knowing: the recorded KVR file is gone.
        if (::rename("/media/Other/Suite/App.app", "/media/Other/Suite/Renamed.app") != 0)
            return 105;
        if (locate(path) != 1 || !path.empty())
            return 106;
        return 0;
    });
    if (status == -1)
        GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(status, 0);
}

TEST_F(LocateInstalledApplicationTest, KeyValuePairsFromAPlistAndAnXMLFile) {
    const std::string folder = makeApp(_dir.file("opt/Suite"));
    registerCode(kCodeA, folder);
    const std::string plist = folder + "/App.app/Contents/Info.plist";
    const std::string xml = folder + "/App.app/Contents/Resources/Settings.xml";
    WriteTextFile(xml, "<Settings><Edition><Name>Pro</Name><Seat>1</Seat><Seat>2</Seat></Edition>"
                       "</Settings>");
    auto entry = [](const std::string& file, const std::string& type, const std::string& key,
                    const std::string& section, const std::vector<std::string>& values) {
        std::string text = "<KeyValuePair><filePath>" + file + "</filePath><fileType>" + type +
                           "</fileType><keyName>" + key + "</keyName><section>" + section +
                           "</section><keyValues>";
        for (const auto& value : values)
            text += "<keyValue>" + value + "</keyValue>";
        return text + "</keyValues></KeyValuePair>";
    };
    struct Case {
        std::string entries;
        std::vector<std::string> present;
        std::vector<std::string> absent;
    };
    const Case cases[] = {
        // Only the last listed value is acceptable: "B" matches, "A" alone would not.
        {entry(plist, "plist", "Edition", "x", {"A", "B"}),
         {"Acceptable keyValues are : (\n    B\n) ",
          "File Type is Plist, fetching information form plist", "Key Value From application : B",
          "Acceptable values are (\n    B\n)"},
         {" B key is not in the list"}},
        {entry(plist, "plist", "Edition", "x", {"B", "A"}),
         {" B key is not in the list", " The List is (\n    A\n) "},
         {}},
        {entry(xml, "plist", "Name", "/Settings/Edition", {"Pro"}),
         {"File Type is XML, fetching information form xml File",
          "Key Value From application : Pro"},
         {" Pro key is not in the list"}},
        {entry(xml, "xml", "Name", "/Settings/Edition", {"Lite"}),
         {" Pro key is not in the list"},
         {}},
        {entry(xml, "xml", "Seat", "/Settings/Edition", {"1"}),
         {"Key Value From application : (null)",
          "KeyType is not valid for keyValuesPair in configuration file for key "},
         {}},
        {entry(xml, "xml", "Missing", "/Settings/Edition", {"1"}),
         {"Missing Key not present in " + xml + " file."},
         {}},
        {entry(folder + "/App.app/Contents/Resources/App.kvr", "ini", "k", "s", {"1"}),
         {"Unable to get File Type info from file extension/configuration file",
          "Provided File Type ini is not supported"},
         {}},
        {"<KeyValuePair><fileType>plist</fileType></KeyValuePair>",
         {"File Path is not present in configuration file.",
          "Key Name is not present in configuration file.",
          "section Name is not present in configuration file.",
          "Acceptable keyValues are not present in configuration file.",
          "Acceptable keyValues are : (null) ", "Key Name is NULL"},
         {}},
    };
    for (const auto& c : cases) {
        ConfigSpec spec;
        spec.keyValuePairs = c.entries;
        load(spec);
        LogCapture capture;
        std::string path;
        EXPECT_EQ(locate(path), 0) << c.entries;
        for (const auto& line : c.present)
            EXPECT_TRUE(Logged(capture, line)) << line << "\n" << capture.text();
        for (const auto& line : c.absent)
            EXPECT_FALSE(Logged(capture, line)) << line;
        EXPECT_TRUE(Contains(capture.lines(), "app is proper"));
    }
}

TEST_F(LocateInstalledApplicationTest, GetKeyValues) {
    load(ConfigSpec{});
    LocateInstalledApplication locator(*_config, false, _paths);
    const std::string xml = _dir.file("a.xml");
    WriteTextFile(xml, "<Root><S><K>1</K><K>2</K><One>x</One></S></Root>");
    const std::string plist = _dir.file("a.plist");
    WriteTextFile(plist, InfoPlist("7.1", "id"));
    {
        LogCapture capture;
        EXPECT_FALSE(locator.getKeyValues(std::nullopt, "s", xml, "xml"));
        EXPECT_FALSE(locator.getKeyValues("k", std::nullopt, xml, "xml"));
        EXPECT_FALSE(locator.getKeyValues("k", "s", std::nullopt, "xml"));
        EXPECT_FALSE(locator.getKeyValues("k", "s", xml, std::nullopt));
        EXPECT_EQ(capture.lines(),
                  (std::vector<std::string>{"Key Name is NULL", "File section is NULL",
                                            "File path is NULL", "File Type is NULL"}));
    }
    auto many = locator.getKeyValues("K", "/Root/S", xml, "XML");
    ASSERT_TRUE(many);
    EXPECT_EQ(many->nodes.size(), 2u);
    EXPECT_FALSE(LocateInstalledApplication::isSingleElementType(many->nodes));
    auto one = locator.getKeyValues("One", "/Root/S", xml, "xml");
    ASSERT_TRUE(one);
    EXPECT_TRUE(LocateInstalledApplication::isSingleElementType(one->nodes));
    EXPECT_EQ(one->nodes.front().stringValue(), "x");
    auto version = locator.getKeyValues("CFBundleVersion", "", plist, "PList");
    ASSERT_TRUE(version);
    EXPECT_EQ(version->plistValue, "7.1");
    EXPECT_FALSE(locator.getKeyValues("Nope", "", plist, "plist"));
    EXPECT_FALSE(locator.getKeyValues("K", "/Root/S", _dir.file("missing.xml"), "xml"));
    EXPECT_FALSE(locator.getKeyValues("K", "/Root/S", "", "xml"));
    {
        LogCapture capture;
        EXPECT_FALSE(locator.getKeyValues("K", "/Root/S", xml, "csl"));
        EXPECT_TRUE(capture.lines().empty());
    }
    // A file that is not XML at all.
    WriteTextFile(_dir.file("bad.xml"), std::string("\0\1\2 not xml", 12));
    EXPECT_FALSE(locator.getKeyValues("K", "/Root/S", _dir.file("bad.xml"), "xml"));
}

TEST_F(LocateInstalledApplicationTest, WaysOfFindingThatLinuxDoesNotHave) {
    load(ConfigSpec{});
    EXPECT_EQ(LocateInstalledApplication::appPathFromLaunchServices("com.orvel.app"), std::nullopt);
    EXPECT_EQ(LocateInstalledApplication::appPathFromAlias("/opt/Suite/App alias"),
              "/opt/Suite/App alias");
    LocateInstalledApplication locator(*_config, false, _paths);
    EXPECT_EQ(locator._appPathFromUser(), std::nullopt);
    EXPECT_EQ(locator._appPathFromUserWithDefault("/opt"), std::nullopt);
    const std::string folder = makeApp(_dir.file("opt/Suite"));
    EXPECT_TRUE(locator.panelShouldShowFilename(folder));
    EXPECT_FALSE(locator.panelShouldShowFilename(folder + "/App.app/Contents/Info.plist"));
    {
        LogCapture capture;
        // Its KVR file is not inside the bundle: "not found" (1), which is still shown.
        EXPECT_TRUE(locator.panelShouldShowFilename(folder + "/App.app"));
        EXPECT_TRUE(
            Contains(capture.lines(), "Found application folder, checking for updatability..."));
    }
    ConfigSpec spec;
    spec.kvrFilePath.reset();
    load(spec);
    LocateInstalledApplication withoutKVR(*_config, false, _paths);
    // Not the right product (-1): hidden.
    EXPECT_FALSE(withoutKVR.panelShouldShowFilename(folder + "/App.app"));
}

TEST(InstalledApp, RecordsPathAndBundle) {
    SetENVverbosityLevel("debug");
    LogCapture capture;
    {
        InstalledApp app("/opt/Suite/App.app", "App");
        EXPECT_EQ(app.path(), "/opt/Suite/App.app");
        EXPECT_EQ(app.bundle().infoPlistPath(), "/opt/Suite/App.app/Contents/Info.plist");
        EXPECT_EQ(app.appName(), "App");
    }
    EXPECT_EQ(capture.lines(), std::vector<std::string>{"dealloc InstalledApp"});
}

} // namespace
