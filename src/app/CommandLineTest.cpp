#include "app/CommandLine.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

CommandLine Parse(std::vector<const char*> args) {
    args.insert(args.begin(), "PatcherApp");
    return CommandLine::parse(static_cast<int>(args.size()), args.data());
}

TEST(CommandLineTest, HelpAndVersionAreRecognisedAnywhere) {
    EXPECT_TRUE(Parse({"--help"}).help);
    EXPECT_TRUE(Parse({"-h"}).help);
    EXPECT_TRUE(Parse({"-Silent", "--help"}).help);
    EXPECT_TRUE(Parse({"--version"}).version);
    EXPECT_FALSE(Parse({"-Silent"}).help);
    EXPECT_NE(PatcherUsage().find("-Silent"), std::string::npos);
    EXPECT_EQ(PatcherVersionText().rfind("PatcherApp (Orvel patcher) ", 0), 0u);
}

TEST(CommandLineTest, TheRunFlagsAndTheNewOptionsAreAccepted) {
    const CommandLine line = Parse({"-Silent", "-logLevel=warning", "--dry-run", "--result-json",
                                    "/tmp/r.json", "--status-fd=3"});
    EXPECT_TRUE(line.error.empty()) << line.error;
    EXPECT_TRUE(line.dryRun);
    EXPECT_EQ(line.resultJson, "/tmp/r.json");
    EXPECT_EQ(line.statusFd, 3);
    EXPECT_EQ(Parse({"--result-json=/x.json", "--status-fd", "7"}).resultJson, "/x.json");
    EXPECT_TRUE(Parse({}).error.empty());
}

TEST(CommandLineTest, NearMissesOfAnOptionAreRefused) {
    for (const auto& args : std::vector<std::vector<const char*>>{{"-Silnet"},
                                                                  {"-Slient"},
                                                                  {"--hlep"},
                                                                  {"--verison"},
                                                                  {"--dryrun"},
                                                                  {"-logLevl=info"},
                                                                  {"--result-json"},
                                                                  {"--status-fd", "x"},
                                                                  {"--status-fd=-1"},
                                                                  {"--dry-run=yes"}}) {
        const CommandLine line = Parse(args);
        EXPECT_FALSE(line.error.empty()) << args.front();
    }
    EXPECT_EQ(Parse({"-Silnet"}).error, "unknown option -Silnet (did you mean -Silent?)");
}

TEST(CommandLineTest, TheRunFlagsAreFoundAsTheyAlwaysWereAndOtherArgumentsLeftAlone) {
    for (const auto& args : std::vector<std::vector<const char*>>{{"-SILENT"},
                                                                  {"--silent"},
                                                                  {"x-Silenty"},
                                                                  {"-logLevel=", "info"},
                                                                  {"-LOGLEVEL=warning"},
                                                                  {"-psn_0_12345"},
                                                                  {"some", "words", "-Silent"},
                                                                  {"-platform", "offscreen"}}) {
        const CommandLine line = Parse(args);
        EXPECT_TRUE(line.error.empty()) << args.front() << ": " << line.error;
    }
}

} // namespace
