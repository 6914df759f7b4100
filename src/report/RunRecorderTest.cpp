#include "report/RunRecorder.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

// Checks the text with Python's JSON reader; the parsed value printed back with sorted keys.
std::string JsonCheck(const TempDir& dir, const std::string& text, const std::string& script) {
    WriteTextFile(dir.file("in.json"), text);
    WriteTextFile(dir.file("check.py"), "import json,sys\n"
                                        "lines=[json.loads(l) for l in open(sys.argv[1]) if "
                                        "l.strip()]\n" +
                                            script + "\n");
    const int status = RunProgram({"/usr/bin/python3", dir.file("check.py"), dir.file("in.json")},
                                  {}, dir.file("out"), dir.file("err"));
    EXPECT_EQ(status, 0) << ReadTextFile(dir.file("err"));
    return ReadTextFile(dir.file("out"));
}

TEST(RunRecorderTest, TheResultIsOneJsonObjectWithEveryOperation) {
    TempDir dir;
    RunRecorder recorder;
    recorder.setOutputs(-1, dir.file("result.json"));
    recorder.setMode("SILENT MODE");
    recorder.setIdentity("Orvel \"Editor\"", "1.0", "2.0");
    recorder.operation({"ADD", "/opt/a\nb.txt", "done", 12});
    recorder.operation({"REMOVE", "/opt/old.txt", "failed", 0});
    recorder.setRolledBack(true);
    recorder.finish(SilentReturnCode::CancelledOrRolledBack, "Error while updating");
    recorder.finish(SilentReturnCode::Updated, "ignored: the first result counts");
    ASSERT_TRUE(recorder.writeResult());
    const std::string out =
        JsonCheck(dir, ReadTextFile(dir.file("result.json")),
                  "r=lines[0]\n"
                  "assert len(lines)==1\n"
                  "print(r['code'], r['message'], r['mode'], r['product'], r['fromVersion'], "
                  "r['toVersion'], r['rolledBack'], type(r['durationSeconds']).__name__, "
                  "r['startedAt'][-1])\n"
                  "for o in r['operations']: print(o['keyword'], repr(o['path']), o['result'], "
                  "o['bytes'])");
    EXPECT_EQ(out, "9 Error while updating SILENT MODE Orvel \"Editor\" 1.0 2.0 True float Z\n"
                   "ADD '/opt/a\\nb.txt' done 12\n"
                   "REMOVE '/opt/old.txt' failed 0\n");
}

TEST(RunRecorderTest, ProgressLinesGoToTheStatusDescriptorAndEndWithDone) {
    TempDir dir;
    const int fd = ::open(dir.file("status").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    RunRecorder recorder;
    recorder.setOutputs(fd, "");
    recorder.progress("extracting", 0, 0, "/b/Payload.cpio.gz");
    recorder.progress("applying", 1, 3, "/opt/x", 5);
    recorder.progress("undoing", 0, 3, "/opt/x");
    recorder.finish(SilentReturnCode::Updated, "done");
    ASSERT_TRUE(recorder.writeResult());
    ::close(fd);
    EXPECT_EQ(JsonCheck(dir, ReadTextFile(dir.file("status")),
                        "for l in lines: print(l['phase'], l.get('item'), l.get('of'), "
                        "l.get('path'), l.get('bytes'), l.get('code'))"),
              "extracting 0 0 /b/Payload.cpio.gz 0 None\n"
              "applying 1 3 /opt/x 5 None\n"
              "undoing 0 3 /opt/x 0 None\n"
              "done None None None None 0\n");
}

TEST(RunRecorderTest, AReaderThatGoesAwayStopsTheLinesNotTheRun) {
    int pipe[2];
    ASSERT_EQ(::pipe(pipe), 0);
    ::close(pipe[0]);
    const auto previous = ::signal(SIGPIPE, SIG_IGN);
    RunRecorder recorder;
    recorder.setOutputs(pipe[1], "");
    for (int i = 0; i < 3; ++i)
        recorder.progress("applying", i, 3, "/opt/x");
    EXPECT_TRUE(recorder.writeResult());
    ::signal(SIGPIPE, previous);
    ::close(pipe[1]);
}

TEST(RunRecorderTest, AResultThatCannotBeWrittenIsReportedAsSuch) {
    RunRecorder recorder;
    recorder.setOutputs(-1, "/nonexistent-folder/result.json");
    recorder.finish(SilentReturnCode::Updated, "done");
    EXPECT_FALSE(recorder.writeResult());
    EXPECT_EQ(recorder.code(), SilentReturnCode::Updated);
}

} // namespace
