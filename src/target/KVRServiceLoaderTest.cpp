#include "target/KVRServiceLoader.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <dlfcn.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

TEST(KVRServiceLoader, OpensANamedLibraryAtTheFirstLookup) {
    KVRServiceLoader loader;
    loader.AddLibraryName(ZOTH_LIBRARY_PATH);
    EXPECT_TRUE(loader.HasLibraryName(ZOTH_LIBRARY_PATH));
    EXPECT_FALSE(loader.IsLibraryOpen(ZOTH_LIBRARY_PATH));
    EXPECT_NE(loader.FunctionPointerForName(ZOTH_LIBRARY_PATH, "zothOpenSession"), nullptr);
    EXPECT_TRUE(loader.IsLibraryOpen(ZOTH_LIBRARY_PATH));
    EXPECT_EQ(loader.FunctionPointerForName(ZOTH_LIBRARY_PATH, "zothNoSuchFunction"), nullptr);
    EXPECT_EQ(loader.FunctionPointerForName(ZOTH_LIBRARY_PATH, "zothopensession"), nullptr);
    // Entering the name again keeps the open handle.
    loader.AddLibraryName(ZOTH_LIBRARY_PATH);
    EXPECT_TRUE(loader.IsLibraryOpen(ZOTH_LIBRARY_PATH));
}

TEST(KVRServiceLoader, LibrariesNotEnteredAreOpenedToo) {
    KVRServiceLoader loader;
    EXPECT_NE(loader.FunctionPointerForName(ZOTH_LIBRARY_PATH, "zothGetPayload"), nullptr);
    EXPECT_TRUE(loader.LoadLibraryWithName(ZOTH_LIBRARY_PATH));
}

TEST(KVRServiceLoader, MissingAndBrokenLibrariesGiveNoFunction) {
    TempDir dir;
    WriteTextFile(dir.file("orvel_zoth"), "this is not a shared object\n");
    KVRServiceLoader loader;
    for (const std::string& path :
         {dir.file("absent/orvel_zoth"), dir.file("orvel_zoth"), dir.path(), std::string()}) {
        loader.AddLibraryName(path);
        EXPECT_EQ(loader.FunctionPointerForName(path, "zothOpenSession"), nullptr) << path;
        EXPECT_FALSE(loader.LoadLibraryWithName(path));
        EXPECT_FALSE(loader.IsLibraryOpen(path));
        // The failure leaves nothing behind in the dynamic loader's error state.
        EXPECT_EQ(::dlerror(), nullptr);
    }
    // A library that exists but lacks the function.
    EXPECT_EQ(loader.FunctionPointerForName("libc.so.6", "zothOpenSession"), nullptr);
    EXPECT_TRUE(loader.IsLibraryOpen("libc.so.6"));
    EXPECT_NE(loader.FunctionPointerForName("libc.so.6", "strlen"), nullptr);
}

TEST(KVRServiceLoader, ALibraryThatAppearsLaterIsOpenedThen) {
    TempDir dir;
    const std::string path = dir.file("orvel_zoth");
    KVRServiceLoader loader;
    loader.AddLibraryName(path);
    EXPECT_EQ(loader.FunctionPointerForName(path, "zothOpenSession"), nullptr);
    WriteTextFile(path, ReadTextFile(ZOTH_LIBRARY_PATH));
    EXPECT_NE(loader.FunctionPointerForName(path, "zothOpenSession"), nullptr);
}

// A root process loads a library only when no one but root could have changed it: a copy
// that its group may write counts as missing, with one log line, until it is made root's
// alone again.
TEST(KVRServiceLoader, ARootProcessLoadsOnlyALibraryNoOneElseCouldChange) {
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root";
    TempDir dir;
    const std::string path = dir.file("orvel_zoth");
    WriteTextFile(path, ReadTextFile(ZOTH_LIBRARY_PATH));
    for (const auto& [mode, owner] :
         std::vector<std::pair<mode_t, uid_t>>{{0664, 0}, {0646, 0}, {0644, 65534}}) {
        SCOPED_TRACE(std::to_string(mode) + " " + std::to_string(owner));
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        ASSERT_EQ(::chown(path.c_str(), owner, 0), 0);
        KVRServiceLoader loader;
        LogCapture log;
        EXPECT_EQ(loader.FunctionPointerForName(path, "zothOpenSession"), nullptr);
        EXPECT_EQ(loader.FunctionPointerForName(path, "zothOpenSession"), nullptr);
        EXPECT_FALSE(loader.IsLibraryOpen(path));
        char modeText[8];
        std::snprintf(modeText, sizeof modeText, "%03o", static_cast<unsigned>(mode));
        EXPECT_EQ(log.lines(),
                  std::vector<std::string>{"The library " + path + " is not loaded: " + path +
                                           " belongs to user " + std::to_string(owner) +
                                           " with mode " + modeText});
    }
    ASSERT_EQ(::chown(path.c_str(), 0, 0), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    KVRServiceLoader loader;
    EXPECT_NE(loader.FunctionPointerForName(path, "zothOpenSession"), nullptr);
}

TEST(KVRServiceLoader, TheProcessHasOneLoader) {
    EXPECT_EQ(&KVRServiceLoader::sharedInstance(), &KVRServiceLoader::sharedInstance());
}

} // namespace
