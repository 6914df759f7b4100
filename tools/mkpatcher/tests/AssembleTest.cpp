// mkpatcher assemble: the bundle it makes, the payload inside it as the patcher unpacks it,
// its refusals, and the assembled PatcherApp starting from its new place.

#include "BundleAssembler.h"

#include "TestSupport.h"
#include "base/PropertyList.h"
#include "system/FileSystem.h"
#include "update/PayloadHandler.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

const std::string kConfig = "<?xml version=\"1.0\"?>\n<PatcherConfig>\n"
                            "  <Family>Tavrin</Family>\n  <Name>Editor Update</Name>\n"
                            "  <PatcherID>EDITOR-2.0</PatcherID>\n"
                            "  <ProductData><AppName>Editor</AppName>"
                            "<OrvelCode><GUID>NO-SUCH-CODE</GUID></OrvelCode></ProductData>\n"
                            "</PatcherConfig>\n";
const std::string kManifest = "<?xml version=\"1.0\"?>\n<Manifest><FileSet/></Manifest>\n";

unsigned Mode(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

class AssembleTest : public ::testing::Test {
protected:
    void SetUp() override {
        WriteTextFile(temp.file("config.xml"), kConfig);
        WriteTextFile(temp.file("manifest.xml"), kManifest);
        WriteTextFile(payload + "/new.txt", "a new file\n");
        WriteTextFile(payload + "/MacOS/Editor.patch", std::string("BSDIFF40\0\1\2", 11));
        WriteTextFile(payload + "/tool.sh", "#!/bin/sh\n");
        ::chmod((payload + "/tool.sh").c_str(), 0755);
        fs::create_directories(payload + "/Empty");
        fs::create_symlink("new.txt", payload + "/link");
    }

    BundleAssembler::Options Options() const {
        BundleAssembler::Options options;
        options.configPath = temp.file("config.xml");
        options.manifestPath = temp.file("manifest.xml");
        options.payloadDir = payload;
        options.outPath = out;
        options.builtBundle = BUILT_BUNDLE;
        return options;
    }

    int RunTool(const std::vector<std::string>& args) {
        std::vector<std::string> argv{MKPATCHER_PROGRAM};
        argv.insert(argv.end(), args.begin(), args.end());
        return RunProgram(argv, {}, temp.file("stdout"), temp.file("stderr"));
    }

    TempDir temp;
    std::string payload = temp.file("payload");
    std::string out = temp.file("Editor Update.app");
};

TEST_F(AssembleTest, MakesTheBundleLayout) {
    BundleAssembler::Result result;
    std::string error;
    ASSERT_EQ(BundleAssembler::assemble(Options(), &result, &error), 0) << error;
    EXPECT_EQ(result.bundlePath, out);
    EXPECT_EQ(result.payloadFiles, 3u);
    EXPECT_EQ(result.payloadBytes, 11u + 11u + 10u);

    for (const char* part :
         {"Contents/MacOS/PatcherApp", "Contents/Frameworks/orvel_zoth.framework/orvel_zoth",
          "Contents/Frameworks/libKORInstallerResults.so", "Contents/Resources/bspatch",
          "Contents/Resources/locale/en/LC_MESSAGES/PatcherApp.mo",
          "Contents/Resources/locale/de/LC_MESSAGES/PatcherApp.mo",
          "Contents/Resources/Payload.cpio.gz"})
        EXPECT_TRUE(fs::is_regular_file(out + "/" + part)) << part;
    EXPECT_EQ(Mode(out + "/Contents/MacOS/PatcherApp") & 0111, 0111u);
    EXPECT_EQ(Mode(out + "/Contents/Resources/bspatch") & 0111, 0111u);
    EXPECT_EQ(ReadTextFile(out + "/Contents/Resources/config.xml"), kConfig);
    EXPECT_EQ(ReadTextFile(out + "/Contents/Resources/manifest.xml"), kManifest);

    const auto plist = PropertyList::readDictionaryFromFile(out + "/Contents/Info.plist");
    ASSERT_TRUE(plist);
    EXPECT_EQ(plist->stringForKey("CFBundleExecutable"), "PatcherApp");
    EXPECT_EQ(plist->stringForKey("CFBundleName"), "Editor Update");

    // The patcher's own unpacking gives back the payload folder: contents, modes, links,
    // empty folders.
    const std::string unpacked = temp.file("unpacked");
    EXPECT_EQ(PayloadHandler::extractFile(out + "/Contents/Resources", unpacked,
                                          RealFileSystem::instance()),
              0);
    EXPECT_EQ(SnapshotTree(unpacked, TreeDetail::ContentsAndModes),
              SnapshotTree(payload, TreeDetail::ContentsAndModes));
    // Nothing is left beside the bundle: config, manifest, payload, bundle, unpacked.
    EXPECT_EQ(std::distance(fs::directory_iterator(temp.path()), fs::directory_iterator()), 5);
}

TEST_F(AssembleTest, ThePatchFilesComeFirstInThePayload) {
    WriteTextFile(temp.file("manifest.xml"),
                  "<?xml version=\"1.0\"?>\n<Manifest><FileSet>"
                  "<File><Operation>ADD</Operation><ObjectName>new.txt</ObjectName></File>"
                  "<File><Operation>patch</Operation><ObjectName>MacOS/Editor.patch</ObjectName>"
                  "</File></FileSet></Manifest>\n");
    EXPECT_EQ(BundleAssembler::patchFilesOf(temp.file("manifest.xml")),
              std::set<std::string>{"MacOS/Editor.patch"});
    std::string error;
    ASSERT_EQ(BundleAssembler::assemble(Options(), nullptr, &error), 0) << error;

    // Unpacked by the patcher, it gives the patch first (its folder made for it) and the same
    // tree as ever.
    const std::string unpacked = temp.file("unpacked");
    std::vector<std::string> order;
    EXPECT_EQ(PayloadHandler::extractFile(
                  out + "/Contents/Resources", unpacked, RealFileSystem::instance(),
                  PayloadLimits(), nullptr,
                  [&](const std::string& relative) { order.push_back(relative); }),
              0);
    EXPECT_EQ(order, (std::vector<std::string>{"MacOS/Editor.patch", "new.txt", "tool.sh"}));
    EXPECT_EQ(SnapshotTree(unpacked, TreeDetail::ContentsAndModes),
              SnapshotTree(payload, TreeDetail::ContentsAndModes));
}

TEST_F(AssembleTest, WithoutPayloadTheArchiveIsEmpty) {
    auto options = Options();
    options.payloadDir.reset();
    options.name = "Named";
    std::string error;
    ASSERT_EQ(BundleAssembler::assemble(options, nullptr, &error), 0) << error;
    const std::string unpacked = temp.file("unpacked");
    EXPECT_EQ(PayloadHandler::extractFile(out + "/Contents/Resources", unpacked,
                                          RealFileSystem::instance()),
              0);
    EXPECT_TRUE(fs::is_directory(unpacked));
    EXPECT_TRUE(fs::is_empty(unpacked));
    EXPECT_EQ(PropertyList::readDictionaryFromFile(out + "/Contents/Info.plist")
                  ->stringForKey("CFBundleName"),
              "Named");
}

TEST_F(AssembleTest, RefusesWrongInputsWithClearMessages) {
    WriteTextFile(temp.file("wrong-root.xml"), "<Manifest/>");
    WriteTextFile(temp.file("broken.xml"), "<Manifest><FileSet></Manifest>");
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    const std::string config = temp.file("config.xml");
    const std::string manifest = temp.file("manifest.xml");
    const std::vector<Case> cases = {
        {{"--config", temp.file("wrong-root.xml"), "--manifest", manifest, "--out", out},
         "the root element is \"Manifest\", not \"PatcherConfig\""},
        {{"--config", config, "--manifest", temp.file("broken.xml"), "--out", out},
         "not well-formed XML"},
        {{"--config", config, "--manifest", temp.file("absent.xml"), "--out", out},
         "--manifest " + temp.file("absent.xml") + " does not exist"},
        {{"--config", config, "--manifest", manifest, "--out", temp.file("Editor")},
         "must be named <Name>.app"},
        {{"--config", config, "--manifest", manifest, "--out", out, "--payload",
          temp.file("absent")},
         "--payload " + temp.file("absent") + " does not exist"},
        {{"--config", config, "--manifest", manifest, "--out", out, "--payload", config},
         "--payload " + config + " is not a folder"},
        {{"--config", config, "--manifest", manifest, "--out", out, "--from", temp.path()},
         "the built bundle is incomplete"},
        {{"--config", config, "--out", out}, "assemble needs --manifest"},
        {{"--config", config, "--manifest", manifest, "--out", out, "--bogus"},
         "unknown option --bogus"},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args{"assemble"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        SCOPED_TRACE(c.message);
        EXPECT_NE(RunTool(args), 0);
        EXPECT_NE(ReadTextFile(temp.file("stderr")).find(c.message), std::string::npos)
            << ReadTextFile(temp.file("stderr"));
        EXPECT_FALSE(fs::exists(out));
    }
}

TEST_F(AssembleTest, ReplacesANonEmptyOutputOnlyWithForce) {
    WriteTextFile(out + "/keep-me", "precious");
    const std::vector<std::string> args{"assemble",
                                        "--config",
                                        temp.file("config.xml"),
                                        "--manifest",
                                        temp.file("manifest.xml"),
                                        "--payload",
                                        payload,
                                        "--out",
                                        out,
                                        "--from",
                                        BUILT_BUNDLE};
    EXPECT_EQ(RunTool(args), 1);
    EXPECT_NE(ReadTextFile(temp.file("stderr")).find(out + " exists; use --force to replace it"),
              std::string::npos);
    EXPECT_EQ(ReadTextFile(out + "/keep-me"), "precious");

    auto forced = args;
    forced.push_back("--force");
    EXPECT_EQ(RunTool(forced), 0) << ReadTextFile(temp.file("stderr"));
    EXPECT_FALSE(fs::exists(out + "/keep-me"));
    EXPECT_TRUE(fs::is_regular_file(out + "/Contents/MacOS/PatcherApp"));
    EXPECT_NE(ReadTextFile(temp.file("stdout")).find("payload 3 files"), std::string::npos);

    // An existing empty folder is simply filled.
    RemoveTree(out);
    fs::create_directories(out);
    EXPECT_EQ(RunTool(args), 0) << ReadTextFile(temp.file("stderr"));
}

TEST_F(AssembleTest, FindsTheBuiltBundleNextToTheProgram) {
    // mkpatcher lives in the build tree beside PatcherApp.app; no --from is needed.
    EXPECT_EQ(RunTool({"assemble", "--config", temp.file("config.xml"), "--manifest",
                       temp.file("manifest.xml"), "--out", out}),
              0)
        << ReadTextFile(temp.file("stderr"));
    const std::string table = "/Contents/Resources/locale/de/LC_MESSAGES/PatcherApp.mo";
    EXPECT_EQ(ReadTextFile(out + table), ReadTextFile(std::string(BUILT_BUNDLE) + table));
}

// The program, the libraries and the patch tool go into a patcher without their debug
// sections: a patcher of a small change stays small.
#ifdef ORVEL_SANITIZED
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

TEST_F(AssembleTest, APatcherCarriesItsProgramsWithoutDebugSections) {
    EXPECT_EQ(RunTool({"assemble", "--config", temp.file("config.xml"), "--manifest",
                       temp.file("manifest.xml"), "--out", out, "--from", BUILT_BUNDLE}),
              0)
        << ReadTextFile(temp.file("stderr"));
    const auto sections = [this](const std::string& file) {
        const std::string listing = temp.file("sections.txt");
        EXPECT_EQ(RunProgram({"readelf", "-S", "-W", file}, {}, listing), 0);
        return ReadTextFile(listing);
    };
    const std::string program = "/Contents/MacOS/PatcherApp";
    ASSERT_NE(sections(std::string(BUILT_BUNDLE) + program).find(".debug_info"), std::string::npos)
        << "the build has debug information to leave out";
    for (const std::string& part :
         {program, std::string("/Contents/Resources/bspatch"),
          std::string("/Contents/Frameworks/libKORInstallerResults.so"),
          std::string("/Contents/Frameworks/orvel_zoth.framework/orvel_zoth")}) {
        const std::string listing = sections(out + part);
        EXPECT_EQ(listing.find(".debug_info"), std::string::npos) << part;
        // Still a program with its symbols, for a readable backtrace.
        EXPECT_NE(listing.find(".symtab"), std::string::npos) << part;
    }
    std::uintmax_t bytes = 0;
    for (const auto& entry : fs::recursive_directory_iterator(out)) {
        if (entry.is_regular_file())
            bytes += entry.file_size();
    }
    // A sanitized program is larger by its instrumentation, whatever its debug sections.
    if (!kSanitized) {
        EXPECT_LT(bytes, 3u * 1000 * 1000);
    }
    // It still runs.
    EXPECT_EQ(RunProgram({out + program, "--version"}, {}, temp.file("version.txt")), 0);
}

TEST_F(AssembleTest, AssembledPatcherStartsFromItsNewPlace) {
    // A build tree under /tmp would vanish behind the private tmpfs the run mounts there.
    if (std::string(TEST_WORK_FOLDER).rfind("/tmp/", 0) == 0)
        GTEST_SKIP() << "the build tree lies below /tmp, which the run replaces with tmpfs";
    // The run needs a place outside /tmp, which gets a private tmpfs like the machine's
    // installation database folder, so the run touches nothing of this machine.
    fs::create_directories(TEST_WORK_FOLDER);
    std::string work = std::string(TEST_WORK_FOLDER) + "/run-XXXXXX";
    ASSERT_NE(::mkdtemp(work.data()), nullptr);
    struct Cleanup {
        std::string path;
        ~Cleanup() { RemoveTree(path); }
    } cleanup{work};

    auto options = Options();
    options.outPath = work + "/Moved/Editor Update.app";
    std::string error;
    ASSERT_EQ(BundleAssembler::assemble(options, nullptr, &error), 0) << error;
    const std::string home = work + "/home";
    fs::create_directories(home);
    // The bundle is not signed: the private /etc/orvel is a developer's, which allows that.
    const std::string script =
        "mount -t tmpfs tmpfs /tmp && mount -t tmpfs tmpfs /var/opt && mkdir -p /etc/orvel && "
        "mount -t tmpfs tmpfs /etc/orvel && "
        "echo 'allow-unsigned-patchers = yes' > /etc/orvel/patcher.conf && "
        "\"$1\" -Silent; echo $? > \"$2/exit\"; cp /tmp/OrvelQX3/retVal \"$2/retVal\" 2>/dev/null; "
        "exit 0";
    const int status =
        RunProgram({"unshare", "--mount", "--propagation", "private", "sh", "-c", script, "sh",
                    options.outPath + "/Contents/MacOS/PatcherApp", work},
                   {"HOME=" + home}, work + "/stdout", work + "/stderr");
    ASSERT_EQ(status, 0) << ReadTextFile(work + "/stderr");
    const std::string log = home + "/.local/state/Orvel/SoftwareUpdates/OrvelSoftwareUpdate.log";
    ASSERT_TRUE(FileExists(log)) << ReadTextFile(work + "/stderr");
    const std::string text = ReadTextFile(log);
    // It ran silently and read the configuration inside its new bundle.
    EXPECT_NE(text.find("SILENT MODE"), std::string::npos) << text;
    EXPECT_NE(text.find("Patcher ID is : EDITOR-2.0"), std::string::npos) << text;
    EXPECT_NE(text.find("Application name : Editor"), std::string::npos) << text;
    // The database has no entry for the code: the run ends with a return code, not a crash.
    const int exitStatus = std::stoi(ReadTextFile(work + "/exit"));
    EXPECT_LT(exitStatus, 128) << text;
}

} // namespace
