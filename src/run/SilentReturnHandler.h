#pragma once

#include "system/PlatformPaths.h"

// The result of a silent run: the return-code file ("/tmp/OrvelQX3/retVal"), holding the
// code in decimal without a line end, replacing what it held before.
class SilentReturnHandler {
public:
    // Codes: 0 updated, 3 already up to date, 5 not located, 6 not valid, 7 not enough space,
    // 8 applications still running, 9 cancelled or rolled back, 10 rollback failed.
    // An unwritable file is skipped silently.
    static void setReturnCode(int code, const PlatformPaths& paths = PlatformPaths::defaults());
};
