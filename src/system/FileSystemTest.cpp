#include "system/FileSystem.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

// Below a confined folder no call goes through a symbolic link on the way, and a last name
// that is a link is changed as a link; reading follows a last link only to a file below
// the same folder. Outside, and once the confinement ends, paths are used as they are.
class ConfinedFileSystemTest : public ::testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(app + "/Contents/Resources");
        fs::create_directories(outside);
        WriteTextFile(outside + "/secret", "outside");
        ::chmod((outside + "/secret").c_str(), 0600);
        WriteTextFile(app + "/Contents/Resources/inside.txt", "inside");
        fs::create_directory_symlink(outside, app + "/Contents/Linked");
        fs::create_symlink(outside + "/secret", app + "/Contents/Resources/to-outside");
        fs::create_symlink("inside.txt", app + "/Contents/Resources/to-inside");
    }

    TempDir dir;
    const std::string app = dir.file("Suite");
    const std::string outside = dir.file("outside");
    RealFileSystem& files = RealFileSystem::instance();
};

TEST_F(ConfinedFileSystemTest, NoCallFollowsALinkBelowAConfinedFolder) {
    const FileSystemConfinement confinement({app});
    const std::string through = app + "/Contents/Linked/";
    auto expectRefused = [&](bool done, const std::string& what) {
        EXPECT_FALSE(done) << what;
        // A folder opened as one without following its link: "not a folder".
        EXPECT_TRUE(errno == ELOOP || errno == EXDEV || errno == ENOTDIR)
            << what << ": " << std::strerror(errno);
    };
    expectRefused(files.createFile(through + "new", 0644).valid(), "createFile");
    expectRefused(files.openForWriting(through + "secret").valid(), "openForWriting");
    expectRefused(files.openForReading(through + "secret").valid(), "openForReading");
    expectRefused(files.removeFile(through + "secret"), "removeFile");
    expectRefused(files.removeFilesIn(app + "/Contents/Linked", {"secret"}), "removeFilesIn");
    expectRefused(files.makeFolder(through + "folder", 0755), "makeFolder");
    expectRefused(files.rename(app + "/Contents/Resources/inside.txt", through + "moved"),
                  "rename into");
    expectRefused(files.rename(through + "secret", app + "/Contents/moved"), "rename out of");
    expectRefused(files.link(through + "secret", app + "/Contents/linked"), "link");
    expectRefused(files.symlink("x", through + "link"), "symlink");
    expectRefused(files.setMode(through + "secret", 0666), "setMode");
    expectRefused(files.setOwner(through + "secret", 65534, 65534), "setOwner");
    expectRefused(files.listFolder(through + ".").has_value() ||
                      files.listFolder(app + "/Contents/Linked").has_value(),
                  "listFolder");
    expectRefused(files.firstNamesInFolder(app + "/Contents/Linked", 2).has_value(),
                  "firstNamesInFolder");
    expectRefused(files.syncFolder(app + "/Contents/Linked"), "syncFolder");
    EXPECT_EQ(SnapshotTree(outside, TreeDetail::ContentsAndModes).size(), 1u);
    EXPECT_EQ(ReadTextFile(outside + "/secret"), "outside");
    struct stat info {};
    ASSERT_EQ(::stat((outside + "/secret").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    EXPECT_EQ(info.st_uid, ::geteuid());

    // A last link is the link: removed itself, its mode never set through it.
    const std::string toOutside = app + "/Contents/Resources/to-outside";
    EXPECT_FALSE(files.setMode(toOutside, 0666));
    ASSERT_EQ(::stat((outside + "/secret").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    EXPECT_FALSE(files.openForReading(toOutside).valid());
    const UniqueFd inside = files.openForReading(app + "/Contents/Resources/to-inside");
    EXPECT_TRUE(inside.valid());
    EXPECT_TRUE(files.removeFile(toOutside));
    EXPECT_FALSE(fs::is_symlink(toOutside));
    EXPECT_EQ(ReadTextFile(outside + "/secret"), "outside");

    // Real folders below work as always.
    UniqueFd made = files.createFile(app + "/Contents/Resources/made", 0644);
    EXPECT_TRUE(made.valid());
    EXPECT_TRUE(files.rename(app + "/Contents/Resources/made", app + "/Contents/made"));
    EXPECT_TRUE(files.makeFolder(app + "/Contents/New", 0755));
    EXPECT_TRUE(files.listFolder(app + "/Contents").has_value());
    EXPECT_TRUE(files.syncFolder(app + "/Contents/New"));
    EXPECT_TRUE(files.removeFolder(app + "/Contents/New"));
}

TEST_F(ConfinedFileSystemTest, ManyFilesOfAFolderAreRemovedThroughOneHandleOnIt) {
    const FileSystemConfinement confinement({app});
    const std::string folder = app + "/Contents/Resources";
    std::vector<std::string> names = {"to-outside"}; // a link goes as a link
    for (int i = 0; i < 20; ++i) {
        names.push_back("file" + std::to_string(i));
        WriteTextFile(folder + "/" + names.back(), "contents");
    }
    EXPECT_TRUE(files.removeFilesIn(folder, names));
    for (const std::string& name : names)
        EXPECT_FALSE(fs::exists(fs::symlink_status(folder + "/" + name))) << name;
    EXPECT_TRUE(fs::exists(folder + "/inside.txt"));
    EXPECT_EQ(ReadTextFile(outside + "/secret"), "outside");

    // A name that is not one name of the folder is refused; the names before it are gone.
    WriteTextFile(folder + "/first", "first");
    EXPECT_FALSE(files.removeFilesIn(folder, {"first", "../Resources/inside.txt"}));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(fs::exists(folder + "/first"));
    EXPECT_TRUE(fs::exists(folder + "/inside.txt"));
    // A missing one fails with its error.
    EXPECT_FALSE(files.removeFilesIn(folder, {"missing"}));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(ConfinedFileSystemTest, ARenameOrLinkWithinOneFolderGoesThroughOneHandleOnIt) {
    const FileSystemConfinement confinement({app});
    const std::string folder = app + "/Contents/Resources";
    WriteTextFile(folder + "/.orvel-new.inside.txt", "new inside");
    EXPECT_TRUE(files.rename(folder + "/.orvel-new.inside.txt", folder + "/inside.txt"));
    EXPECT_EQ(ReadTextFile(folder + "/inside.txt"), "new inside");
    EXPECT_TRUE(files.link(folder + "/inside.txt", folder + "/second name"));
    EXPECT_EQ(fs::hard_link_count(folder + "/inside.txt"), 2u);
    // A last name that is a link is renamed as the link.
    EXPECT_TRUE(files.rename(folder + "/to-outside", folder + "/still-to-outside"));
    EXPECT_TRUE(fs::is_symlink(fs::symlink_status(folder + "/still-to-outside")));
    EXPECT_EQ(ReadTextFile(outside + "/secret"), "outside");
    // The folder is still opened without following a link on the way.
    const std::string through = app + "/Contents/Linked";
    EXPECT_FALSE(files.rename(through + "/secret", through + "/moved"));
    EXPECT_FALSE(files.link(through + "/secret", through + "/linked"));
    EXPECT_TRUE(fs::exists(outside + "/secret"));
    EXPECT_FALSE(fs::exists(outside + "/moved"));
    EXPECT_FALSE(fs::exists(outside + "/linked"));
    // A last name that climbs out is no name in the folder.
    EXPECT_FALSE(files.rename(folder + "/inside.txt", folder + "/.."));
    EXPECT_EQ(ReadTextFile(folder + "/inside.txt"), "new inside");
}

TEST_F(ConfinedFileSystemTest, AConfinedFolderMadeAgainIsTheOneReached) {
    const std::string inner = app + "/Contents";
    const FileSystemConfinement confinement({app, inner});
    ASSERT_TRUE(files.makeFolder(inner + "/First", 0755));
    // Removed and made again by someone else: the calls reach the new folder.
    fs::remove_all(inner);
    fs::create_directories(inner);
    ASSERT_TRUE(files.makeFolder(inner + "/Second", 0755));
    EXPECT_TRUE(fs::is_directory(inner + "/Second"));
    // Moved aside through the file system and made again: the same.
    ASSERT_TRUE(files.rename(inner, app + "/Old Contents"));
    fs::create_directories(inner);
    ASSERT_TRUE(files.makeFolder(inner + "/Third", 0755));
    EXPECT_TRUE(fs::is_directory(inner + "/Third"));
    EXPECT_FALSE(fs::exists(app + "/Old Contents/Third"));
    // Removed through it and made again: the same.
    ASSERT_TRUE(files.removeFolder(inner + "/Third"));
    fs::rename(inner, app + "/Older Contents");
    fs::create_directories(inner);
    ASSERT_TRUE(files.removeFolder(app + "/Older Contents"));
    ASSERT_TRUE(files.makeFolder(inner + "/Fourth", 0755));
    EXPECT_TRUE(fs::is_directory(inner + "/Fourth"));
    // Removed and made again, with a folder in it, by someone else: a call below that
    // folder reaches the new one too, and one below a folder not there fails as before.
    fs::remove_all(inner);
    fs::create_directories(inner + "/Sub");
    EXPECT_FALSE(files.makeFolder(inner + "/Missing/Deep", 0755));
    EXPECT_EQ(errno, ENOENT);
    ASSERT_TRUE(files.makeFolder(inner + "/Sub/Deep", 0755)) << std::strerror(errno);
    EXPECT_TRUE(fs::is_directory(inner + "/Sub/Deep"));
    fs::remove_all(inner);
    fs::create_directories(inner + "/Sub");
    ASSERT_TRUE(files.makeFolder(inner + "/Sub/Deeper", 0755)) << std::strerror(errno);
    EXPECT_TRUE(fs::is_directory(inner + "/Sub/Deeper"));
}

TEST_F(ConfinedFileSystemTest, AnUnnamedFileGetsItsNameOnlyWhenLinked) {
    const FileSystemConfinement confinement({app});
    const std::string folder = app + "/Contents/Resources";
    const auto before = SnapshotTree(app, TreeDetail::ContentsAndModes);
    {
        // Written and dropped without a name: nothing was ever in the folder.
        UniqueFd dropped = files.createUnnamedFile(folder, 0600);
        ASSERT_TRUE(dropped.valid()) << std::strerror(errno);
        ASSERT_TRUE(files.write(dropped.get(), "dropped", 7));
    }
    EXPECT_EQ(SnapshotTree(app, TreeDetail::ContentsAndModes), before);

    UniqueFd named = files.createUnnamedFile(folder, 0600);
    ASSERT_TRUE(named.valid());
    ASSERT_TRUE(files.write(named.get(), "named", 5));
    // Never through an existing name, nor through a link on the way.
    EXPECT_FALSE(files.linkFile(named.get(), folder + "/inside.txt"));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_FALSE(files.linkFile(named.get(), app + "/Contents/Linked/planted"));
    EXPECT_FALSE(fs::exists(outside + "/planted"));
    EXPECT_FALSE(files.createUnnamedFile(app + "/Contents/Linked", 0600).valid());
    ASSERT_TRUE(files.linkFile(named.get(), folder + "/.orvel-new.named"));
    EXPECT_TRUE(files.close(named));
    EXPECT_EQ(ReadTextFile(folder + "/.orvel-new.named"), "named");
    struct stat info {};
    ASSERT_EQ(::stat((folder + "/.orvel-new.named").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    EXPECT_EQ(ReadTextFile(outside + "/secret"), "outside");
}

// Without the privilege to name a file by its descriptor alone, it is named through /proc.
TEST(UnnamedFileTest, AnUnprivilegedProcessNamesItsUnnamedFileToo) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    TempDir dir;
    const std::string folder = dir.file("shared");
    fs::create_directory(folder);
    ::chmod(dir.path().c_str(), 0755);
    ::chmod(folder.c_str(), 0777);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(2);
        RealFileSystem& files = RealFileSystem::instance();
        UniqueFd file = files.createUnnamedFile(folder, 0644);
        const bool named = file.valid() && files.write(file.get(), "theirs", 6) &&
                           files.linkFile(file.get(), folder + "/named") && files.close(file);
        ::_exit(named ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(ReadTextFile(folder + "/named"), "theirs");
}

TEST_F(ConfinedFileSystemTest, TheFirstNamesOfAFolderAreSomeOfItsNames) {
    const FileSystemConfinement confinement({app});
    const std::string folder = app + "/Contents/Many";
    fs::create_directories(folder);
    EXPECT_EQ(files.firstNamesInFolder(folder, 2), std::vector<std::string>());
    WriteTextFile(folder + "/.DS_Store", "");
    EXPECT_EQ(files.firstNamesInFolder(folder, 2), std::vector<std::string>{".DS_Store"});
    // Names long enough that a few fill what one read of the folder hands out.
    std::vector<std::string> all = {".DS_Store"};
    for (int i = 0; i < 500; ++i) {
        all.push_back(std::string(200, 'a') + std::to_string(i));
        WriteTextFile(folder + "/" + all.back(), "");
    }
    std::sort(all.begin(), all.end());
    for (size_t count : {1u, 2u, 7u, 40u}) {
        const auto names = files.firstNamesInFolder(folder, count);
        ASSERT_TRUE(names.has_value());
        EXPECT_EQ(names->size(), count);
        for (const std::string& name : *names)
            EXPECT_TRUE(std::binary_search(all.begin(), all.end(), name)) << name;
        std::vector<std::string> distinct = *names;
        std::sort(distinct.begin(), distinct.end());
        EXPECT_EQ(std::unique(distinct.begin(), distinct.end()), distinct.end());
    }
    auto whole = files.firstNamesInFolder(folder, all.size() + 10);
    ASSERT_TRUE(whole.has_value());
    std::sort(whole->begin(), whole->end());
    EXPECT_EQ(*whole, all);
    EXPECT_FALSE(files.firstNamesInFolder(folder + "/.DS_Store", 2).has_value());
    EXPECT_FALSE(files.firstNamesInFolder(app + "/Contents/Missing", 2).has_value());
}

TEST_F(ConfinedFileSystemTest, OutsideAndAfterTheConfinementPathsAreUsedAsTheyAre) {
    {
        const FileSystemConfinement confinement({dir.file("other")});
        UniqueFd fd = files.openForReading(app + "/Contents/Linked/secret");
        EXPECT_TRUE(fd.valid());
    }
    UniqueFd fd = files.openForReading(app + "/Contents/Linked/secret");
    EXPECT_TRUE(fd.valid());
    EXPECT_TRUE(files.makeFolder(app + "/Contents/Linked/made", 0755));
    EXPECT_TRUE(fs::is_directory(outside + "/made"));
}

} // namespace
