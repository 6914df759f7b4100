#include "runtime/Environment.h"

#include "TestSupport.h"
#include "runtime/LoggerUtility.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

void RunWith(std::initializer_list<const char*> args) {
    std::vector<const char*> argv = {"PatcherApp"};
    argv.insert(argv.end(), args.begin(), args.end());
    ReadRunFlags(static_cast<int>(argv.size()), argv.data());
}

class EnvironmentTest : public ::testing::Test {
protected:
    void TearDown() override {
        SetENVverbosityLevel("debug");
        SetENVsilentFlag(false);
        ClearENVinstallLanguage();
    }
};

TEST_F(EnvironmentTest, NoArgumentsGiveNotSilentAndDebug) {
    SetENVsilentFlag(true);
    SetENVverbosityLevel("error");
    RunWith({});
    EXPECT_FALSE(GetENVsilentFlag());
    EXPECT_EQ(GetENVverbosityLevel(), 3u);
}

TEST_F(EnvironmentTest, WarningThenSilent) {
    RunWith({"-logLevel=warning", "-Silent"});
    EXPECT_TRUE(GetENVsilentFlag());
    EXPECT_EQ(GetENVverbosityLevel(), 1u);
}

TEST_F(EnvironmentTest, OptionNamesAndValuesIgnoreCase) {
    RunWith({"-loglevel=INFO"});
    EXPECT_EQ(GetENVverbosityLevel(), 2u);
    EXPECT_FALSE(GetENVsilentFlag());
    RunWith({"-SILENT"});
    EXPECT_TRUE(GetENVsilentFlag());
    // Any argument containing the option selects it.
    RunWith({"--not-Silently"});
    EXPECT_TRUE(GetENVsilentFlag());
    RunWith({"-logLevel=2"});
    EXPECT_EQ(GetENVverbosityLevel(), 2u);
}

TEST_F(EnvironmentTest, EmptyAndUnknownLevelNamesGiveErrorsOnly) {
    RunWith({"-logLevel=", "-Silent"});
    EXPECT_EQ(GetENVverbosityLevel(), 0u);
    EXPECT_TRUE(GetENVsilentFlag());
    RunWith({"-logLevel=verbose"});
    EXPECT_EQ(GetENVverbosityLevel(), 0u);
}

TEST_F(EnvironmentTest, GetArgValueLogsTheValueAtLevelThree) {
    LogCapture log;
    RunWith({"-logLevel=debug"});
    EXPECT_TRUE(log.contains("debug"));
}

TEST_F(EnvironmentTest, ContainsStringReportsTheRange) {
    StringRange range;
    EXPECT_TRUE(ContainsString("a -SILENT b ", "-Silent", range));
    EXPECT_EQ(range.location, 2u);
    EXPECT_EQ(range.length, 7u);
    EXPECT_FALSE(ContainsString("abc", "-Silent", range));
    EXPECT_EQ(range.location, StringRange::kNotFound);
    EXPECT_EQ(range.length, 0u);
    EXPECT_FALSE(ContainsString("abc", "", range));
}

TEST_F(EnvironmentTest, GetArgValueNeedsATrailingBlank) {
    EXPECT_EQ(GetArgValue("-logLevel=info ", 0, 10), "info");
    EXPECT_EQ(GetArgValue("-logLevel= ", 0, 10), "");
    EXPECT_FALSE(GetArgValue("-logLevel=info", 0, 10));
    EXPECT_FALSE(GetArgValue("x", 5, 10));
}

TEST_F(EnvironmentTest, FlagsStoreAndLoad) {
    SetENVcomboFlag(true);
    EXPECT_TRUE(GetENVcomboFlag());
    SetENVcomboFlag(false);
    EXPECT_FALSE(GetENVcomboFlag());
    SetENVrunningUnderKORFlag(true);
    EXPECT_TRUE(GetENVrunningUnderKORFlag());
    SetENVshowUIFlag(true);
    EXPECT_TRUE(GetENVshowUIFlag());
    EXPECT_EQ(SetENVverbosityLevel("WARNING"), 1u);
}

class ScopedEnv {
public:
    ScopedEnv(const char* name, const char* value) : _name(name) {
        if (const char* old = std::getenv(name))
            _old = old;
        if (value)
            ::setenv(name, value, 1);
        else
            ::unsetenv(name);
    }
    ~ScopedEnv() {
        if (_old)
            ::setenv(_name.c_str(), _old->c_str(), 1);
        else
            ::unsetenv(_name.c_str());
    }

private:
    std::string _name;
    std::optional<std::string> _old;
};

TEST_F(EnvironmentTest, UserLocaleComesFromTheProcessLocale) {
    ScopedEnv all("LC_ALL", nullptr);
    ScopedEnv messages("LC_MESSAGES", nullptr);
    {
        ScopedEnv lang("LANG", "de_DE.UTF-8");
        EXPECT_EQ(UserLocale(), "de_DE");
    }
    {
        ScopedEnv lang("LANG", "en_US");
        ScopedEnv lcAll("LC_ALL", "fr_CA.UTF-8@euro");
        EXPECT_EQ(UserLocale(), "fr_CA");
    }
    {
        ScopedEnv lang("LANG", "C.UTF-8");
        EXPECT_EQ(UserLocale(), "en_US");
    }
    {
        ScopedEnv lang("LANG", nullptr);
        EXPECT_EQ(UserLocale(), "en_US");
    }
    {
        ScopedEnv lang("LANG", "ja");
        EXPECT_EQ(UserLocale(), "ja");
    }
}

TEST_F(EnvironmentTest, InstallLanguageFallsBackToTheUserLocale) {
    ScopedEnv all("LC_ALL", "de_DE.UTF-8");
    EXPECT_EQ(GetENVinstallLanguage(), "de_DE");
    SetENVinstallLanguage("fr_FR");
    EXPECT_EQ(GetENVinstallLanguage(), "fr_FR");
    SetENVinstallLanguage("ja_JP");
    EXPECT_EQ(GetENVinstallLanguage(), "ja_JP");
}

} // namespace
