#pragma once

#include "base/FileUtil.h"
#include "runtime/PlatformPaths.h"

#include <optional>
#include <string>

// The results of a silent run, by the numbers the return-code file holds. Codes 1, 2 and 4
// are never written.
enum class SilentReturnCode : int {
    Updated = 0,
    AlreadyUpToDate = 3,
    ApplicationNotFound = 5,
    NotValidForUpdate = 6,
    NotEnoughDiskSpace = 7,       // on the application's volume or the system volume
    ApplicationsStillRunning = 8, // applications of the family that must be quit
    CancelledOrRolledBack = 9,    // cancelled, or failed and rolled back
    RollbackFailed = 10,          // failed, and the rollback failed too
    NotSignedByTrustedKey = 11,   // unsigned, badly signed, untrusted, a downgrade or for
                                  // another installation: nothing was changed
    AnotherPatcherRunning = 12,   // another patcher kept the machine busy past the wait
};

// The result of a silent run: the return-code file (the table's returnCodeFile, normally
// "/tmp/OrvelQX3/retVal"), holding the code in decimal without a line end, replacing what it
// held before.
//
// The folder is in /tmp, where any local user can make names: the code goes only into a
// real folder (not a symbolic link) that belongs to root or to this run's user and that no
// one else may write, and always as a new file renamed into place, so that nothing planted
// there is written through. Otherwise the code goes nowhere, with a log line.
class SilentReturnHandler {
public:
    // Creates the file's folder when missing.
    static void setReturnCode(SilentReturnCode code, const PlatformPaths& paths);
    // Removes the code an earlier run left, so that a caller never reads it as this run's;
    // a folder that fails the checks above is left alone.
    static void removeReturnCode(const PlatformPaths& paths);
    // The last code this process set, written or not; none before the first.
    static std::optional<SilentReturnCode> lastReturnCode();
    // A handle of folder (made when missing) when it passes the checks above; else none,
    // logged.
    static UniqueFd openResultFolder(const std::string& folder);
};
