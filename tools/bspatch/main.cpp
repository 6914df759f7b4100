#include "base/Version.h"
#include "patch/Bspatch.h"

#include <cstdio>
#include <cstring>

// bspatch oldfile newfile patchfile
// Exit status 0 only when newfile was written whole; 1 for any failure, with newfile left as
// it was; 2 for a wrong command line. It names itself as it was called: installed on the
// path it is orvel-bspatch, in a patcher bundle bspatch.
int main(int argc, char** argv) {
    const char* slash = argc > 0 ? std::strrchr(argv[0], '/') : nullptr;
    const char* name = argc > 0 ? (slash ? slash + 1 : argv[0]) : "bspatch";
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::printf("usage: %s oldfile newfile patchfile\n"
                    "       %s --help | --version\n"
                    "Applies a BSDIFF40 patch to oldfile and writes newfile; exit status 0 only\n"
                    "when newfile was written whole, 1 when it was not, 2 for a wrong command\n"
                    "line.\n",
                    name, name);
        return 0;
    }
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("%s (Orvel patcher) %s\n", name, kOrvelVersion);
        return 0;
    }
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s oldfile newfile patchfile\n", name);
        return 2;
    }
    std::string detail;
    const BspatchResult result = ApplyBsdiffPatch(argv[1], argv[2], argv[3], &detail);
    if (result != BspatchResult::Success) {
        std::fprintf(stderr, "%s: %s: %s\n", name, DescribeBspatchResult(result), detail.c_str());
        return 1;
    }
    return 0;
}
