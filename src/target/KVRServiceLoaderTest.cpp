#include "target/KVRServiceLoader.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <dlfcn.h>

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

TEST(KVRServiceLoader, TheProcessHasOneLoader) {
    EXPECT_EQ(&KVRServiceLoader::sharedInstance(), &KVRServiceLoader::sharedInstance());
}

} // namespace
