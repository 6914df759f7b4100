// mkpatcher checks what it is given before it does any work: each refused input ends the
// real program with its exit status and one line naming the input, and leaves every folder as
// it was. Every command prints its help on --help.

#include "BundleAssembler.h"
#include "PatcherBuilder.h"

#include "TestSupport.h"
#include "base/Version.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

const std::string kCode = "{0DE30DE3-0000-4000-8000-0000000000E1}";

std::string Plist(const std::string& version) {
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
                       "<key>CFBundleName</key><string>Orvel Editor</string>"
                       "<key>CFBundleIdentifier</key><string>com.orvel.editor</string>";
    if (!version.empty())
        text += "<key>CFBundleVersion</key><string>" + version + "</string>";
    return text + "</dict></plist>\n";
}

// A small application bundle of a version (none: no CFBundleVersion); the program's text
// tells the versions apart.
void MakeApp(const std::string& app, const std::string& version, const std::string& program) {
    WriteTextFile(app + "/Contents/Info.plist", Plist(version));
    WriteTextFile(app + "/Contents/MacOS/Editor", program);
    ::chmod((app + "/Contents/MacOS/Editor").c_str(), 0755);
    WriteTextFile(app + "/Contents/Resources/same.txt", "the same in both\n");
    fs::create_symlink("same.txt", app + "/Contents/Resources/link");
}

void CopyTree(const std::string& from, const std::string& to) {
    fs::create_directories(fs::path(to).parent_path());
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
}

// The arguments with option's value replaced, or the option added.
std::vector<std::string> With(std::vector<std::string> args, const std::string& option,
                              const std::string& value) {
    for (size_t i = 0; i + 1 < args.size(); ++i) {
        if (args[i] == option) {
            args[i + 1] = value;
            return args;
        }
    }
    args.insert(args.end(), {option, value});
    return args;
}

std::vector<std::string> Plus(std::vector<std::string> args, const std::string& flag) {
    args.push_back(flag);
    return args;
}

std::string Real(const std::string& path) {
    return fs::canonical(path).string();
}

class InputCheckTest : public ::testing::Test {
protected:
    void SetUp() override {
        MakeApp(oldApp, "1.0", "program one\n");
        MakeApp(newApp, "1.1", "program two, a little longer\n");
    }

    // Runs mkpatcher; its output and errors are in out and err afterwards.
    int Run(const std::vector<std::string>& args) {
        std::vector<std::string> argv{MKPATCHER_PROGRAM};
        argv.insert(argv.end(), args.begin(), args.end());
        const int status = RunProgram(argv, {}, temp.file("stdout"), temp.file("stderr"));
        out = ReadTextFile(temp.file("stdout"));
        err = ReadTextFile(temp.file("stderr"));
        return status;
    }

    std::vector<std::string> CreateArgs() const {
        return {"create", "--old",  oldApp, "--new",  newApp,      "--out",
                outApp,   "--code", kCode,  "--from", BUILT_BUNDLE};
    }

    // Everything the program could write to: the trees, the output's folder, the inputs.
    std::map<std::string, std::string> Snapshot() const {
        return SnapshotTree(work, TreeDetail::ContentsAndModes);
    }

    // The program refuses the arguments with the status and, for status 1, exactly the one
    // line given; it writes nothing.
    void ExpectRefused(const std::vector<std::string>& args, int status,
                       const std::string& message) {
        const auto before = Snapshot();
        EXPECT_EQ(Run(args), status) << out << err;
        const std::string command = args.front();
        if (status == 1) {
            EXPECT_EQ(err, "mkpatcher " + command + ": " + message + "\n");
        } else {
            EXPECT_EQ(err.rfind("mkpatcher: " + message + "\nusage: mkpatcher " + command, 0), 0u)
                << err;
        }
        EXPECT_EQ(out, "");
        EXPECT_EQ(Snapshot(), before);
    }

    PatcherBuilder::Options Options() const {
        PatcherBuilder::Options options;
        options.oldTree = oldApp;
        options.newTree = newApp;
        options.outPath = outApp;
        options.identity.installationCodes = {kCode};
        return options;
    }

    TempDir temp;
    std::string work = temp.file("work");
    std::string oldApp = work + "/v1/Editor.app";
    std::string newApp = work + "/v2/Editor.app";
    std::string outApp = work + "/out/EditorUpdate.app";
    std::string out;
    std::string err;
};

TEST_F(InputCheckTest, MissingTreesAndFoldersThatAreNoBundlesAreRefused) {
    const std::string nope = work + "/nope.app";
    ExpectRefused(With(CreateArgs(), "--old", nope), 1, "--old " + nope + " does not exist");
    ExpectRefused(With(CreateArgs(), "--new", nope), 1, "--new " + nope + " does not exist");

    const std::string plain = work + "/plain/Editor.app";
    WriteTextFile(plain + "/Contents/MacOS/Editor", "program\n");
    ExpectRefused(With(CreateArgs(), "--old", plain), 1,
                  "--old " + plain + " is not an application bundle (no Contents/Info.plist)");
    ExpectRefused(With(CreateArgs(), "--new", plain), 1,
                  "--new " + plain + " is not an application bundle (no Contents/Info.plist)");

    const std::string file = work + "/File.app";
    WriteTextFile(file, "a file\n");
    ExpectRefused(With(CreateArgs(), "--new", file), 1,
                  "--new " + file + " is not an application bundle (not a folder)");

    const std::string unnamed = work + "/v3/Editor";
    CopyTree(newApp, unnamed);
    ExpectRefused(With(CreateArgs(), "--new", unnamed), 1,
                  "--new " + unnamed +
                      " is not an application bundle (its name does not end in "
                      ".app)");
}

TEST_F(InputCheckTest, EachTreeNeedsAVersion) {
    const std::string unversioned = work + "/v0/Editor.app";
    MakeApp(unversioned, "", "program zero\n");
    ExpectRefused(With(CreateArgs(), "--old", unversioned), 1,
                  "--old " + unversioned +
                      " has no version (no CFBundleVersion in its Contents/Info.plist; give "
                      "--old-version)");
    ExpectRefused(With(CreateArgs(), "--new", unversioned), 1,
                  "--new " + unversioned +
                      " has no version (no CFBundleVersion in its Contents/Info.plist; give "
                      "--new-version)");

    // A version given on the command line stands in for the missing one.
    auto args = With(With(CreateArgs(), "--old", unversioned), "--old-version", "0.9");
    ASSERT_EQ(Run(args), 0) << err;
    EXPECT_NE(out.find("0.9 -> 1.1"), std::string::npos) << out;
}

TEST_F(InputCheckTest, TheNewVersionMustBeNewerUnlessADowngradeIsAllowed) {
    // 1.1 to 1.0: the trees swapped.
    auto downgrade = With(With(CreateArgs(), "--old", newApp), "--new", oldApp);
    ExpectRefused(downgrade, 1,
                  "the new version 1.0 is not newer than the old version 1.1 (use "
                  "--allow-downgrade)");
    ExpectRefused(With(CreateArgs(), "--new-version", "1.0"), 1,
                  "the new version 1.0 is not newer than the old version 1.0 (use "
                  "--allow-downgrade)");
    // Versions are ordered as numbers, part by part.
    ExpectRefused(With(With(CreateArgs(), "--old-version", "1.10"), "--new-version", "1.9"), 1,
                  "the new version 1.9 is not newer than the old version 1.10 (use "
                  "--allow-downgrade)");

    ASSERT_EQ(Run(With(With(CreateArgs(), "--old-version", "1.9"), "--new-version", "1.10")), 0)
        << err;
    EXPECT_NE(out.find("1.9 -> 1.10"), std::string::npos) << out;
    RemoveTree(outApp);

    ASSERT_EQ(Run(Plus(downgrade, "--allow-downgrade")), 0) << err;
    EXPECT_NE(out.find("1.1 -> 1.0"), std::string::npos) << out;
    EXPECT_TRUE(fs::is_regular_file(outApp + "/Contents/Resources/manifest.xml"));
}

TEST_F(InputCheckTest, IdenticalTreesAreRefused) {
    const std::string copy = work + "/copy/Editor.app";
    CopyTree(oldApp, copy);
    const std::string message = "--old and --new are the same: nothing to update";
    // Equal contents, even with versions given that differ.
    ExpectRefused(With(With(CreateArgs(), "--new", copy), "--new-version", "1.1"), 1, message);
    // The same folder, by its name and through a link.
    ExpectRefused(With(With(CreateArgs(), "--new", oldApp), "--new-version", "1.1"), 1, message);
    fs::create_symlink(oldApp, work + "/Alias.app");
    ExpectRefused(With(With(CreateArgs(), "--new", work + "/Alias.app"), "--new-version", "1.1"), 1,
                  message);
}

TEST_F(InputCheckTest, TreesDifferingInOneContentModeOrLinkAreAccepted) {
    // Nothing but the version differs between the copy and the old tree, and the version
    // text has the same size: the contents decide.
    const std::string copy = work + "/copy/Editor.app";
    CopyTree(oldApp, copy);
    WriteTextFile(copy + "/Contents/Info.plist", Plist("1.2"));
    auto options = Options();
    options.newTree = copy;
    std::string error;
    EXPECT_EQ(PatcherBuilder::checkInputs(options, &error), 0) << error;

    // Only a mode, only a link target.
    WriteTextFile(copy + "/Contents/Info.plist", Plist("1.0"));
    options.identity.newVersion = "1.2";
    EXPECT_EQ(PatcherBuilder::checkInputs(options, &error), 1);
    EXPECT_EQ(error, "--old and --new are the same: nothing to update");
    ::chmod((copy + "/Contents/MacOS/Editor").c_str(), 0700);
    EXPECT_EQ(PatcherBuilder::checkInputs(options, &error), 0) << error;
    ::chmod((copy + "/Contents/MacOS/Editor").c_str(), 0755);
    fs::remove(copy + "/Contents/Resources/link");
    fs::create_symlink("./same.txt", copy + "/Contents/Resources/link");
    EXPECT_EQ(PatcherBuilder::checkInputs(options, &error), 0) << error;
    EXPECT_FALSE(fs::exists(outApp));
}

TEST_F(InputCheckTest, AnOutputInsideOrAroundATreeIsRefused) {
    const std::string prefix = "--out must be outside --old and --new: ";
    const std::string inNew = newApp + "/Contents/EditorUpdate.app";
    ExpectRefused(With(CreateArgs(), "--out", inNew), 1,
                  prefix + inNew + " lies in --new " + Real(newApp));
    const std::string inOld = oldApp + "/Contents/Resources/Update.app";
    ExpectRefused(With(CreateArgs(), "--out", inOld), 1,
                  prefix + inOld + " lies in --old " + Real(oldApp));
    // The tree itself, even with --force.
    ExpectRefused(Plus(With(CreateArgs(), "--out", oldApp), "--force"), 1,
                  prefix + oldApp + " is --old " + Real(oldApp));
    // Through a link, after ".." and with a trailing separator.
    fs::create_symlink(newApp + "/Contents", work + "/contents-link");
    const std::string linked = work + "/contents-link/Update.app";
    ExpectRefused(With(CreateArgs(), "--out", linked), 1,
                  prefix + linked + " lies in --new " + Real(newApp));
    const std::string dotted = work + "/v1/../v2/Editor.app/Update.app/";
    ExpectRefused(With(CreateArgs(), "--out", dotted), 1,
                  prefix + dotted + " lies in --new " + Real(newApp));

    // An output holding a tree would take the tree with it when replaced.
    const std::string outer = work + "/Outer.app";
    CopyTree(oldApp, outer + "/Editor.app");
    ExpectRefused(
        Plus(With(With(CreateArgs(), "--old", outer + "/Editor.app"), "--out", outer), "--force"),
        1, prefix + outer + " holds --old " + Real(outer + "/Editor.app"));

    const std::string unnamed = work + "/out/EditorUpdate";
    ExpectRefused(With(CreateArgs(), "--out", unnamed), 1,
                  "--out " + unnamed + " is not named <Name>.app");
}

TEST_F(InputCheckTest, EveryCodeMustBeAGuid) {
    for (const std::string code :
         {"notaguid", "{0E2E-ED17-0001}", "0DE30DE3-0000-4000-8000-0000000000E", // one short
          "{0DE30DE3-0000-4000-8000-0000000000E1", "0DE30DE3-0000-4000-8000-0000000000E1}",
          "0DE30DE300004000800000000000000E1", "0DE30DE3-0000-4000-8000-0000000000G1",
          "{0DE30DE3-0000-4000-8000-0000000000E1}x", ""}) {
        SCOPED_TRACE(code);
        ExpectRefused(With(CreateArgs(), "--code", code), 1, "--code " + code + " is not a GUID");
        // The second code as well as the first.
        ExpectRefused(Plus(Plus(CreateArgs(), "--code"), code), 1,
                      "--code " + code + " is not a GUID");
    }
    EXPECT_TRUE(PatcherBuilder::isGuid(kCode));
    EXPECT_TRUE(PatcherBuilder::isGuid("0de30de3-0000-4000-8000-0000000000e1"));
    EXPECT_FALSE(PatcherBuilder::isGuid("{}"));

    // With and without braces, upper and lower case.
    auto args = Plus(Plus(CreateArgs(), "--code"), "0de30de3-0000-4000-8000-0000000000e2");
    ASSERT_EQ(Run(args), 0) << err;
    const std::string config = ReadTextFile(outApp + "/Contents/Resources/config.xml");
    EXPECT_NE(config.find(kCode), std::string::npos) << config;
    EXPECT_NE(config.find("0de30de3-0000-4000-8000-0000000000e2"), std::string::npos) << config;
}

TEST_F(InputCheckTest, AnExistingOutputIsRefusedAtOnceWithoutForce) {
    WriteTextFile(outApp + "/keep-me", "precious\n");
    const std::string message = outApp + " exists; use --force to replace it";
    ExpectRefused(CreateArgs(), 1, message);
    // Before the trees are compared: identical trees give the same refusal.
    const std::string copy = work + "/copy/Editor.app";
    CopyTree(oldApp, copy);
    ExpectRefused(With(With(CreateArgs(), "--new", copy), "--new-version", "1.1"), 1, message);
    // A file in its place is taken as well.
    RemoveTree(outApp);
    WriteTextFile(outApp, "a file\n");
    ExpectRefused(CreateArgs(), 1, message);

    // An empty folder is free; with --force a taken one is replaced.
    RemoveTree(outApp);
    fs::create_directories(outApp);
    ASSERT_EQ(Run(CreateArgs()), 0) << err;
    EXPECT_NE(out.find("Created " + outApp), std::string::npos) << out;
    ExpectRefused(CreateArgs(), 1, message);
    ASSERT_EQ(Run(Plus(CreateArgs(), "--force")), 0) << err;
}

TEST_F(InputCheckTest, MissingRequiredOptionsAreUsageErrors) {
    auto args = CreateArgs();
    for (const char* option : {"--old", "--new", "--out"}) {
        SCOPED_TRACE(option);
        std::vector<std::string> without;
        for (size_t i = 0; i < args.size(); ++i) {
            if (args[i] == option)
                ++i;
            else
                without.push_back(args[i]);
        }
        ExpectRefused(without, 2, std::string("create needs ") + option);
    }
    ExpectRefused(Plus(CreateArgs(), "--downgrade"), 2, "unknown option --downgrade");
}

TEST_F(InputCheckTest, AssembleChecksItsInputsAndOutputBeforeWork) {
    const std::string config = work + "/in/config.xml";
    const std::string manifest = work + "/in/manifest.xml";
    const std::string payload = work + "/in/payload";
    const std::string bundle = work + "/out/Assembled.app";
    // A hand-written configuration: its codes are taken as they are.
    WriteTextFile(config, "<?xml version=\"1.0\"?>\n<PatcherConfig><Family>Tavrin</Family>"
                          "<Name>Editor Update</Name><PatcherID>EDITOR-2.0</PatcherID>"
                          "<ProductData><AppName>Editor</AppName><OrvelCode>"
                          "<GUID>{0E2E-ED17-0001}</GUID></OrvelCode></ProductData>"
                          "</PatcherConfig>\n");
    WriteTextFile(manifest, "<?xml version=\"1.0\"?>\n<Manifest><FileSet/></Manifest>\n");
    WriteTextFile(payload + "/new.txt", "a new file\n");
    const std::vector<std::string> args{"assemble", "--config",  config,      "--manifest",
                                        manifest,   "--payload", payload,     "--out",
                                        bundle,     "--from",    BUILT_BUNDLE};
    const std::string absent = work + "/in/absent";
    ExpectRefused(With(args, "--config", absent), 1, "--config " + absent + " does not exist");
    ExpectRefused(With(args, "--manifest", absent), 1, "--manifest " + absent + " does not exist");
    ExpectRefused(With(args, "--payload", absent), 1, "--payload " + absent + " does not exist");
    ExpectRefused(With(args, "--payload", config), 1, "--payload " + config + " is not a folder");

    ASSERT_EQ(Run(args), 0) << err;
    EXPECT_NE(out.find("Assembled " + bundle), std::string::npos) << out;
    // Now taken: refused before anything is read, even a configuration that is no XML.
    const std::string message = bundle + " exists; use --force to replace it";
    ExpectRefused(args, 1, message);
    WriteTextFile(work + "/in/broken.xml", "<PatcherConfig>");
    ExpectRefused(With(args, "--config", work + "/in/broken.xml"), 1, message);
    ASSERT_EQ(Run(Plus(args, "--force")), 0) << err;

    // The library refuses it the same way.
    BundleAssembler::Options options;
    options.configPath = config;
    options.manifestPath = manifest;
    options.outPath = bundle;
    options.builtBundle = BUILT_BUNDLE;
    std::string error;
    EXPECT_EQ(BundleAssembler::assemble(options, nullptr, &error), 1);
    EXPECT_EQ(error, message);
}

TEST_F(InputCheckTest, EveryCommandHasHelp) {
    const std::map<std::string, std::vector<std::string>> commands = {
        {"create",
         {"--old",
          "--new",
          "--out",
          "--code",
          "--force",
          "--allow-downgrade",
          "--sign-key",
          "--from",
          "--name",
          "--config-template",
          "--family",
          "--product-name",
          "--patcher-id",
          "--build-number",
          "--app-name",
          "--bundle-id",
          "--old-version",
          "--new-version",
          "--kvr-path",
          "--running-app",
          "--space-system",
          "--space-target",
          "--combo",
          "--patch-ratio",
          "--min-patch-size",
          "-h, --help"}},
        {"assemble",
         {"--config", "--manifest", "--out", "--payload", "--name", "--from", "--force",
          "--sign-key", "-h, --help"}},
        {"bsdiff", {"OLD", "NEW", "PATCH", "-h, --help"}},
        {"keygen", {"--private", "--public", "-h, --help"}},
        {"sign", {"BUNDLE.app", "--key", "-h, --help"}},
        {"verify", {"BUNDLE.app", "--key", "--json", "-h, --help"}},
    };
    for (const auto& [command, options] : commands) {
        for (const char* help : {"--help", "-h"}) {
            SCOPED_TRACE(command + " " + help);
            ASSERT_EQ(Run({command, help}), 0) << err;
            EXPECT_EQ(err, "");
            EXPECT_EQ(out.rfind("usage: mkpatcher " + command, 0), 0u) << out;
            for (const auto& option : options) {
                // One line each: the option, then its description.
                const size_t at = out.find("\n  " + option + " ");
                ASSERT_NE(at, std::string::npos) << option << "\n" << out;
                const size_t end = out.find('\n', at + 1);
                EXPECT_GT(end - at, 3 + option.size() + 10) << option << "\n" << out;
            }
        }
    }

    // Help does nothing else, whatever else is given.
    const auto before = Snapshot();
    EXPECT_EQ(Run(Plus(CreateArgs(), "--help")), 0) << err;
    EXPECT_EQ(Run({"create", "--bogus", "-h"}), 0) << err;
    EXPECT_EQ(Run({"bsdiff", oldApp + "/Contents/MacOS/Editor", newApp + "/Contents/MacOS/Editor",
                   work + "/patch", "--help"}),
              0)
        << err;
    EXPECT_EQ(Run({"keygen", "--private", work + "/key.pem", "--public", work + "/key.pub", "-h"}),
              0)
        << err;
    EXPECT_EQ(Snapshot(), before);

    // The program's own help lists the commands, a line each.
    for (const char* help : {"--help", "-h", "help"}) {
        SCOPED_TRACE(help);
        ASSERT_EQ(Run({help}), 0) << err;
        EXPECT_EQ(err, "");
        for (const auto& [command, options] : commands)
            EXPECT_NE(out.find("\n  " + command + " "), std::string::npos) << command << out;
    }
    ASSERT_EQ(Run({"help", "sign"}), 0) << err;
    EXPECT_EQ(out.rfind("usage: mkpatcher sign", 0), 0u) << out;

    ASSERT_EQ(Run({"--version"}), 0) << err;
    EXPECT_EQ(out, std::string("mkpatcher (Orvel patcher) ") + kOrvelVersion + "\n");
}

TEST_F(InputCheckTest, VersionsAreOrderedAsDottedNumbers) {
    struct Case {
        const char* older;
        const char* newer;
    };
    for (const auto& c : std::vector<Case>{{"1.9", "1.10"},
                                           {"1.0", "1.1"},
                                           {"1.0", "2"},
                                           {"1.0", "1.0.1"},
                                           {"9", "10"},
                                           {"1.0b2", "1.0"},
                                           {"1.0b1", "1.0b2"},
                                           {"1.0b9", "1.0.1"},
                                           {"99999999999999999999", "100000000000000000000"}}) {
        SCOPED_TRACE(std::string(c.older) + " < " + c.newer);
        EXPECT_LT(PatcherBuilder::compareVersions(c.older, c.newer), 0);
        EXPECT_GT(PatcherBuilder::compareVersions(c.newer, c.older), 0);
    }
    EXPECT_EQ(PatcherBuilder::compareVersions("1.0", "1.0.0"), 0);
    EXPECT_EQ(PatcherBuilder::compareVersions("1.01", "1.1"), 0);
    EXPECT_EQ(PatcherBuilder::compareVersions("2.0", "2.0"), 0);
}

} // namespace
