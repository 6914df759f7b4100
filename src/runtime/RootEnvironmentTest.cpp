#include "runtime/RootEnvironment.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(RootEnvironment, TheVariablesThatPointTheRunElsewhereAreNamed) {
    const char* env[] = {"HOME=/root",
                         "LD_PRELOAD=/tmp/evil.so",
                         "PATH=/usr/bin",
                         "LD_LIBRARY_PATH=/tmp",
                         "LD_ANYTHING_NEW",
                         "GCONV_PATH=/tmp/gconv",
                         "QT_PLUGIN_PATH=/tmp/plugins",
                         "ORVEL_ZOTH_DB=/tmp/zoth.db",
                         "ORVEL_PATCHER_LOCK_WAIT=5",
                         "XLD_PRELOAD=harmless",
                         "LANG=C.UTF-8",
                         nullptr};
    EXPECT_EQ(VariablesARootRunIgnores(env),
              (std::vector<std::string>{"LD_PRELOAD", "LD_LIBRARY_PATH", "LD_ANYTHING_NEW",
                                        "GCONV_PATH", "QT_PLUGIN_PATH", "ORVEL_ZOTH_DB"}));
    const char* none[] = {"HOME=/root", nullptr};
    EXPECT_TRUE(VariablesARootRunIgnores(none).empty());
    EXPECT_TRUE(VariablesARootRunIgnores(nullptr).empty());
}

} // namespace
