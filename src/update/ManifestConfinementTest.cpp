#include "update/ManifestConfinement.h"

#include "TestSupport.h"
#include "base/Xml.h"
#include "target/DirTokenResolver.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <unistd.h>
#include <unordered_set>
#include <vector>

namespace fs = std::filesystem;

namespace {

class ManifestConfinementTest : public ::testing::Test {
protected:
    ManifestConfinementTest() : _resolver(PlatformPaths::defaults(), std::string("tester")) {}

    std::optional<std::string> problemOf(const std::string& path) const {
        return ManifestConfinement(_resolver, _app).pathProblem(path);
    }
    std::optional<std::string> manifestProblem(const std::string& sets) const {
        const auto parsed = XmlDocument::parseMemory("<Manifest>" + sets + "</Manifest>");
        EXPECT_TRUE(parsed.document);
        return ManifestConfinement(_resolver, _app)
            .manifestProblem(XmlDocument::root(parsed.document));
    }

    TempDir _dir;
    const std::string _app = _dir.file("Suite");
    DirTokenResolver _resolver;
};

TEST_F(ManifestConfinementTest, APathMustStartWithATokenAndStayInsideItsFolder) {
    struct Case {
        std::string path;
        std::optional<std::string> problem;
    };
    const std::string noToken = "\" does not start with a directory token of a known folder";
    const std::vector<Case> cases = {
        {"[INSTALLDIR]/Editor.app/Contents/x", std::nullopt},
        {"[INSTALLDIR]", std::nullopt},
        {"[INSTALLDIR]/a..b/..c/c..", std::nullopt},
        {"[Library]/Fonts/x.ttf", std::nullopt},
        {"[UserPreferences]/com.orvel.plist", std::nullopt},
        {"[INSTALLDIR]/../../../var/opt/x",
         "\"[INSTALLDIR]/../../../var/opt/x\" has a \"..\" component"},
        {"[INSTALLDIR]/a/..", "\"[INSTALLDIR]/a/..\" has a \"..\" component"},
        {"[Library]/Fonts/../../../etc/x",
         "\"[Library]/Fonts/../../../etc/x\" has a \"..\" component"},
        {"/var/opt/Orvel/x", "\"/var/opt/Orvel/x" + noToken},
        {"Contents/x", "\"Contents/x" + noToken},
        {"", "\"" + noToken},
        {"[Bogus]/x", "\"[Bogus]/x" + noToken},
        {"[installdir]/x", "\"[installdir]/x" + noToken},
        {"[INSTALLDIR]x", "\"[INSTALLDIR]x\" does not lie inside the folder [INSTALLDIR] names"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.path);
        EXPECT_EQ(problemOf(c.path), c.problem);
    }
    std::string expanded;
    std::string base;
    EXPECT_FALSE(ManifestConfinement(_resolver, _app)
                     .pathProblem("[INSTALLDIR]/Editor.app/x", &expanded, &base));
    EXPECT_EQ(expanded, _app + "/Editor.app/x");
    EXPECT_EQ(base, _app);
}

TEST_F(ManifestConfinementTest, ALinkOnTheWayIsFoundButNotTheLastComponent) {
    fs::create_directories(_app + "/Editor.app/Contents/Resources");
    fs::create_directories(_dir.file("elsewhere"));
    ASSERT_EQ(
        ::symlink(_dir.file("elsewhere").c_str(), (_app + "/Editor.app/Contents/Link").c_str()), 0);
    using C = ManifestConfinement;
    EXPECT_FALSE(C::linkOnTheWay(_app, _app + "/Editor.app/Contents/Resources/x"));
    EXPECT_FALSE(C::linkOnTheWay(_app, _app + "/Editor.app/Contents/Missing/Deeper/x"));
    EXPECT_FALSE(C::linkOnTheWay(_app, _app + "/Editor.app/Contents/Link"));
    EXPECT_EQ(C::linkOnTheWay(_app, _app + "/Editor.app/Contents/Link/x"),
              _app + "/Editor.app/Contents/Link");
    EXPECT_EQ(C::linkOnTheWay(_app, _app + "/Editor.app/Contents/Link/Deeper/x"),
              _app + "/Editor.app/Contents/Link");
    // The token's own folder may be reached through links of the system's.
    ASSERT_EQ(::symlink(_app.c_str(), _dir.file("SuiteLink").c_str()), 0);
    EXPECT_FALSE(C::linkOnTheWay(_dir.file("SuiteLink"), _dir.file("SuiteLink/Editor.app/x")));
}

// Folders found free of links are not looked at again until the caller forgets them.
TEST_F(ManifestConfinementTest, AFolderFoundFreeOfLinksIsLookedAtAgainOnlyOnceForgotten) {
    fs::create_directories(_app + "/Editor.app/Contents/Resources");
    fs::create_directories(_dir.file("elsewhere"));
    const ManifestConfinement confinement(_resolver, _app);
    std::unordered_set<std::string> linkFree;
    const std::string path = "[INSTALLDIR]/Editor.app/Contents/Resources/file.txt";
    EXPECT_FALSE(confinement.useProblem(path, linkFree));
    EXPECT_EQ(linkFree.count(_app + "/Editor.app/Contents/Resources"), 1u);

    // A link put in place of the folder since: not seen while the folder is remembered...
    fs::rename(_app + "/Editor.app/Contents/Resources", _dir.file("moved"));
    ASSERT_EQ(::symlink(_dir.file("elsewhere").c_str(),
                        (_app + "/Editor.app/Contents/Resources").c_str()),
              0);
    EXPECT_FALSE(confinement.useProblem(path, linkFree));
    // ...found once it is forgotten, and as without remembering.
    linkFree.clear();
    const auto problem = confinement.useProblem(path, linkFree);
    ASSERT_TRUE(problem);
    EXPECT_EQ(problem, confinement.useProblem(path));
    EXPECT_TRUE(linkFree.empty());
}

TEST_F(ManifestConfinementTest, EveryPathOfEverySetIsCheckedBeforeAnythingIsTouched) {
    auto file = [](const std::string& operation, const std::string& dir, const std::string& name,
                   const std::string& extra = "") {
        return "<File><Operation>" + operation + "</Operation><DestinationPath dir=\"" + dir +
               "\" defName=\"" + name + "\">" + extra + "</DestinationPath></File>";
    };
    const std::string good = file("ADD", "[INSTALLDIR]/Editor.app", "a");
    EXPECT_EQ(manifestProblem("<FileSet>" + good + good + "</FileSet>"), std::nullopt);
    EXPECT_EQ(
        manifestProblem("<FileSet>" + good + good + file("REMOVE", "/var/opt", "x") + "</FileSet>"),
        "File 3: \"/var/opt/x\" does not start with a directory token of a known folder");
    EXPECT_EQ(manifestProblem(
                  "<FileSet>" +
                  file("ADD", "[INSTALLDIR]", "a", "<FileName lang=\"de_DE\">../../x</FileName>") +
                  "</FileSet>"),
              "File 1: \"[INSTALLDIR]/../../x\" has a \"..\" component");
    // A link's content is written, never followed; a rename's target is a path of its own.
    EXPECT_EQ(manifestProblem("<FileSet><File><Operation>CREATELINK</Operation>"
                              "<DestinationPath dir=\"[INSTALLDIR]\" defName=\"l\"/>"
                              "<RenamePath dir=\"../../etc\" defName=\"passwd\"/></File>"
                              "</FileSet>"),
              std::nullopt);
    EXPECT_EQ(manifestProblem("<FileSet><File><Operation>RENAME</Operation>"
                              "<DestinationPath dir=\"[INSTALLDIR]\" defName=\"a\"/>"
                              "<RenamePath dir=\"/etc\" defName=\"a\"/></File></FileSet>"),
              "File 1: \"/etc/a\" does not start with a directory token of a known folder");
    EXPECT_EQ(manifestProblem("<BundleSet><Bundle Path=\"/etc/Info.plist\" Version=\"1\">" + good +
                              "</Bundle></BundleSet>"),
              "Bundle 1: \"/etc/Info.plist\" does not start with a directory token of a known "
              "folder");
    EXPECT_EQ(manifestProblem("<BundleSet><Bundle Path=\"[INSTALLDIR]/Info.plist\" Version=\"1\">" +
                              good + file("ADD", "[INSTALLDIR]/..", "x") + "</Bundle></BundleSet>"),
              "Bundle 1, File 2: \"[INSTALLDIR]/../x\" has a \"..\" component");
    EXPECT_EQ(manifestProblem("<DirectorySet><Directory><Operation>ADD</Operation>"
                              "<DirectoryBase>[INSTALLDIR]/../../etc/cron.d</DirectoryBase>"
                              "</Directory></DirectorySet>"),
              "Directory 1: \"[INSTALLDIR]/../../etc/cron.d\" has a \"..\" component");

    fs::create_directories(_app + "/Editor.app");
    fs::create_directories(_dir.file("rootonly"));
    ASSERT_EQ(::symlink(_dir.file("rootonly").c_str(), (_app + "/Editor.app/Contents").c_str()), 0);
    EXPECT_EQ(manifestProblem("<FileSet>" + file("ADD", "[INSTALLDIR]/Editor.app/Contents", "x") +
                              "</FileSet>"),
              "File 1: \"[INSTALLDIR]/Editor.app/Contents/x\" is reached through the symbolic "
              "link " +
                  _app + "/Editor.app/Contents");
}

} // namespace
