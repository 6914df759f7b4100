#include "report/SilentReturnHandler.h"

#include "base/Path.h"
#include "runtime/CommonUtility.h"

#include <cstdio>

void SilentReturnHandler::setReturnCode(SilentReturnCode code, const PlatformPaths& paths) {
    const std::string& file = paths.returnCodeFile;
    const std::string folder = ParentPath(file);
    if (!folder.empty() && folder != "/")
        (void)CreateDirectoryAtPath(folder);
    std::FILE* out = std::fopen(file.c_str(), "w");
    if (!out)
        return;
    std::fprintf(out, "%d", static_cast<int>(code));
    std::fclose(out);
}
