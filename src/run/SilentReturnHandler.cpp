#include "run/SilentReturnHandler.h"

#include "run/CommonUtility.h"

#include <cstdio>

void SilentReturnHandler::setReturnCode(int code, const PlatformPaths& paths) {
    const std::string& file = paths.returnCodeFile;
    const auto slash = file.find_last_of('/');
    if (slash != std::string::npos && slash > 0)
        (void)CreateDirectoryAtPath(file.substr(0, slash));
    std::FILE* out = std::fopen(file.c_str(), "w");
    if (!out)
        return;
    std::fprintf(out, "%d", code);
    std::fclose(out);
}
