// A stand-in patcher for the update-manager tests: reports through the real wrapper and
// the real results library what its arguments ask for, and prints what it saw.
//   KorProbe uptodate|failed TEXT|cancel|tryagain NAMES|none

#include "report/KORInstallerResultsWrapper.h"

#include <cstdio>
#include <cstdlib>
#include <string>

int main(int argc, char** argv) {
    const std::string action = argc > 1 ? argv[1] : "none";
    const std::string text = argc > 2 ? argv[2] : "";
    // The linked results library and no user interface: panels go to the log.
    const KORInstallerResultsWrapper reporter{ReportingContext{}};
    const bool managed = reporter.runningUnderKOR();
    std::printf("managed: %d\n", managed ? 1 : 0);
    std::printf("client: %s\n", reporter.clientAppPath().value_or("").c_str());
    // The hand-over never reaches programs started from here.
    const bool cleared =
        !std::getenv("ORVEL_KOR_CLIENT_APP_PATH") && !std::getenv("ORVEL_KOR_RESULTS_FD");
    std::printf("env-cleared: %d\n", cleared ? 1 : 0);
    std::fflush(stdout);
    if (action == "uptodate")
        reporter.reportUpToDate(text);
    else if (action == "failed")
        reporter.reportUpdateFailed(text);
    else if (action == "cancel")
        reporter.reportUpdateCancelled();
    else if (action == "tryagain")
        reporter.reportUpdateFailedTryAgain(text);
    return 0;
}
