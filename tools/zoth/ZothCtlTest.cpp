// zothctl run as a program, as installers and tests run it.
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

class ZothCtlTest : public ::testing::Test {
protected:
    int run(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
        std::vector<std::string> argv{ZOTHCTL_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        const int status = RunProgram(argv, env, _dir.file("out"), _dir.file("err"));
        _out = ReadTextFile(_dir.file("out"));
        _err = ReadTextFile(_dir.file("err"));
        return status;
    }
    int withDb(std::vector<std::string> args) {
        args.insert(args.begin(), {"--db", db()});
        return run(args);
    }
    std::string db() const { return _dir.file("zoth.db"); }

    TempDir _dir;
    std::string _out;
    std::string _err;
};

TEST_F(ZothCtlTest, AddShowSetRemove) {
    ASSERT_EQ(withDb({"add", "--code", "{AAA}", "--installdir", "/opt/Orvel/Suite", "--language",
                      "en_GB", "--version", "1.2.3", "--kvr", "/opt/Orvel/Suite/App.kvr",
                      "--installed", "100", "--modified=200"}),
              0)
        << _err;
    ASSERT_EQ(withDb({"show", "--code", "{aaa}"}), 0) << _err;
    EXPECT_EQ(_out, "code: {AAA}\n"
                    "  version: 1.2.3\n"
                    "  installed: 100\n"
                    "  modified: 200\n"
                    "  domain 0: INSTALLDIR = /opt/Orvel/Suite\n"
                    "  domain 0: KVRConfigPath = /opt/Orvel/Suite/App.kvr\n"
                    "  domain 0: installLanguage = en_GB\n"
                    "  domain 4: KVRConfigPath = /opt/Orvel/Suite/App.kvr\n");

    ASSERT_EQ(withDb({"set", "--code", "{AAA}", "INSTALLDIR", "/media/Other/Suite"}), 0) << _err;
    ASSERT_EQ(withDb({"set", "--code", "{AAA}", "--domain", "4", "KVRConfigPath", "/x.kvr"}), 0);
    ASSERT_EQ(withDb({"set", "--code", "{AAA}", "version", "1.2.4"}), 0);
    ASSERT_EQ(withDb({"set", "--code", "{AAA}", "installed", "300"}), 0);
    ASSERT_EQ(withDb({"set", "--code", "{AAA}", "modified", "400"}), 0);
    ASSERT_EQ(withDb({"show", "--code", "{AAA}"}), 0);
    EXPECT_EQ(_out, "code: {AAA}\n"
                    "  version: 1.2.4\n"
                    "  installed: 300\n"
                    "  modified: 400\n"
                    "  domain 0: INSTALLDIR = /media/Other/Suite\n"
                    "  domain 0: KVRConfigPath = /opt/Orvel/Suite/App.kvr\n"
                    "  domain 0: installLanguage = en_GB\n"
                    "  domain 4: KVRConfigPath = /x.kvr\n");

    ASSERT_EQ(withDb({"add", "--code", "{BBB}", "--installdir", "/opt/B", "--installed", "5"}), 0);
    ASSERT_EQ(withDb({"show"}), 0);
    EXPECT_NE(_out.find("code: {AAA}\n"), std::string::npos);
    EXPECT_NE(_out.find("\ncode: {BBB}\n  version: \n  installed: 5\n  modified: 5\n"),
              std::string::npos)
        << _out;

    ASSERT_EQ(withDb({"remove", "--code", "{AAA}"}), 0);
    EXPECT_EQ(withDb({"show", "--code", "{AAA}"}), 1);
    EXPECT_NE(_err.find("no installation with code '{AAA}'"), std::string::npos) << _err;
}

TEST_F(ZothCtlTest, UnknownCodesAndDuplicates) {
    ASSERT_EQ(withDb({"add", "--code", "{A}", "--installdir", "/opt/A"}), 0);
    EXPECT_EQ(withDb({"add", "--code", "{a}", "--installdir", "/opt/A"}), 1);
    EXPECT_NE(_err.find("already"), std::string::npos);
    EXPECT_EQ(withDb({"remove", "--code", "{B}"}), 1);
    EXPECT_EQ(withDb({"set", "--code", "{B}", "INSTALLDIR", "/x"}), 1);
    EXPECT_EQ(withDb({"set", "--code", "{B}", "version", "2"}), 1);
    EXPECT_EQ(withDb({"show", "--code", "{A}' OR '1'='1"}), 1);
    // Quote characters are ordinary characters of a code.
    ASSERT_EQ(withDb({"add", "--code", "{q'\"}", "--installdir", "/opt/Q"}), 0);
    ASSERT_EQ(withDb({"show", "--code", "{q'\"}"}), 0);
    EXPECT_NE(_out.find("INSTALLDIR = /opt/Q"), std::string::npos);
}

TEST_F(ZothCtlTest, BadCommandLines) {
    const std::vector<std::vector<std::string>> bad = {
        {},
        {"frobnicate"},
        {"--db"},
        {"--bogus", "show"},
        {"add", "--installdir", "/x"},
        {"add", "--code", "{A}"},
        {"add", "--code", "{A}", "--installdir", "/x", "--colour", "red"},
        {"add", "--code", "{A}", "--installdir", "/x", "--installed", "yesterday"},
        {"add", "--code", "{A}", "--installdir", "/x", "--installed", "4294967296"},
        {"add", "--code", "{A}", "--installdir", "/x", "--modified", "-1"},
        {"add", "--code", "{A}", "--code", "{B}", "--installdir", "/x"},
        {"add", "--code", "{A}", "--installdir"},
        {"add", "--code", "{A}", "--installdir", "/x", "extra"},
        {"show", "extra"},
        {"set", "--code", "{A}", "KEY"},
        {"set", "--code", "{A}", "--domain", "four", "KEY", "V"},
        {"set", "--code", "{A}", "installed", "soon"},
        {"set", "KEY", "V"},
        {"remove"},
    };
    for (const auto& args : bad) {
        std::vector<std::string> full{"--db", db()};
        full.insert(full.end(), args.begin(), args.end());
        if (!args.empty() && args[0].rfind("--", 0) == 0)
            full = args;
        EXPECT_EQ(run(full), 2) << ::testing::PrintToString(args);
        EXPECT_NE(_err.find("zothctl: "), std::string::npos);
        EXPECT_NE(_err.find("usage: zothctl"), std::string::npos);
    }
    EXPECT_FALSE(FileExists(db()));
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_NE(_out.find("usage: zothctl"), std::string::npos);
}

TEST_F(ZothCtlTest, UnreadableDatabases) {
    EXPECT_EQ(withDb({"show"}), 3);
    EXPECT_NE(_err.find("ZOTH resource missing or damaged error"), std::string::npos) << _err;
    EXPECT_EQ(withDb({"remove", "--code", "{A}"}), 3);
    EXPECT_FALSE(FileExists(db()));

    WriteTextFile(db(), std::string(2048, '\x7f'));
    EXPECT_EQ(withDb({"show"}), 3);
    EXPECT_NE(_err.find("cannot open the installation database"), std::string::npos);
    EXPECT_EQ(withDb({"add", "--code", "{A}", "--installdir", "/x"}), 3);
    EXPECT_EQ(withDb({"set", "--code", "{A}", "K", "V"}), 3);

    EXPECT_EQ(run({"--db", _dir.path(), "show"}), 3);
}

TEST_F(ZothCtlTest, EnvironmentChoosesTheDefaultDatabase) {
    const std::string env = "ORVEL_ZOTH_DB=" + _dir.file("sub/dir/env.db");
    ASSERT_EQ(run({"add", "--code", "{E}", "--installdir", "/opt/E"}, {env}), 0) << _err;
    EXPECT_TRUE(FileExists(_dir.file("sub/dir/env.db")));
    ASSERT_EQ(run({"show", "--code", "{E}"}, {env}), 0);
    EXPECT_NE(_out.find("INSTALLDIR = /opt/E"), std::string::npos);
}

} // namespace
