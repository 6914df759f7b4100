#include "base/PropertyList.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <plist/plist.h>

#include <cstdlib>

namespace {

const char* kInfoPlist = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0">
<dict>
  <key>CFBundleIdentifier</key><string>com.orvel.editor</string>
  <key>CFBundleVersion</key><string>9.0.1</string>
  <key>Count</key><integer>12</integer>
  <key>Enabled</key><true/>
  <key>Nested</key><dict><key>a</key><string>b</string></dict>
</dict>
</plist>)";

TEST(PropertyListTest, ReadsXmlDictionary) {
    TempDir dir;
    WriteTextFile(dir.file("Info.plist"), kInfoPlist);
    auto plist = PropertyList::readDictionaryFromFile(dir.file("Info.plist"));
    ASSERT_TRUE(plist);
    EXPECT_EQ(plist->stringForKey("CFBundleVersion"), "9.0.1");
    EXPECT_EQ(plist->stringForKey("CFBundleIdentifier"), "com.orvel.editor");
    EXPECT_EQ(plist->stringForKey("Count"), "12");
    EXPECT_EQ(plist->stringForKey("Enabled"), "1");
    EXPECT_FALSE(plist->stringForKey("Nested"));
    EXPECT_TRUE(plist->hasKey("Nested"));
    EXPECT_FALSE(plist->stringForKey("Missing"));
    EXPECT_EQ(plist->keys().size(), 5u);
    EXPECT_EQ(plist->description(), "{\n    CFBundleIdentifier = com.orvel.editor;\n"
                                    "    CFBundleVersion = 9.0.1;\n    Count = 12;\n"
                                    "    Enabled = 1;\n    Nested = {...};\n}");
}

TEST(PropertyListTest, ReadsBinaryDictionary) {
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "KOR_APP_ID", plist_new_string("APP-42"));
    char* bin = nullptr;
    uint32_t length = 0;
    plist_to_bin(dict, &bin, &length);
    plist_free(dict);
    ASSERT_NE(bin, nullptr);
    TempDir dir;
    WriteTextFile(dir.file("data.plist"), std::string(bin, length));
    std::free(bin);
    auto plist = PropertyList::readDictionaryFromFile(dir.file("data.plist"));
    ASSERT_TRUE(plist);
    EXPECT_EQ(plist->stringForKey("KOR_APP_ID"), "APP-42");
}

TEST(PropertyListTest, BadFilesGiveNothing) {
    TempDir dir;
    EXPECT_FALSE(PropertyList::readDictionaryFromFile(dir.file("missing.plist")));
    WriteTextFile(dir.file("empty.plist"), "");
    EXPECT_FALSE(PropertyList::readDictionaryFromFile(dir.file("empty.plist")));
    WriteTextFile(dir.file("garbage.plist"), "\x01\x02garbage<<<");
    EXPECT_FALSE(PropertyList::readDictionaryFromFile(dir.file("garbage.plist")));
    WriteTextFile(dir.file("array.plist"),
                  "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>a</string>"
                  "</array></plist>");
    EXPECT_FALSE(PropertyList::readDictionaryFromFile(dir.file("array.plist")));
    WriteTextFile(dir.file("truncated.plist"), std::string(kInfoPlist).substr(0, 200));
    EXPECT_FALSE(PropertyList::readDictionaryFromFile(dir.file("truncated.plist")));
}

} // namespace
