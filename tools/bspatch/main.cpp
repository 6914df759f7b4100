#include "base/Version.h"
#include "patch/Bspatch.h"

#include <cstdio>
#include <cstring>

// bspatch oldfile newfile patchfile
// Exit status 0 only when newfile was written whole; 1 for any failure, with newfile left as
// it was.
int main(int argc, char** argv) {
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::printf("usage: bspatch oldfile newfile patchfile\n"
                    "Applies a BSDIFF40 patch to oldfile and writes newfile; exit status 0 only\n"
                    "when newfile was written whole.\n");
        return 0;
    }
    if (argc == 2 && std::strcmp(argv[1], "--version") == 0) {
        std::printf("bspatch (Orvel patcher) %s\n", kOrvelVersion);
        return 0;
    }
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s oldfile newfile patchfile\n",
                     argc > 0 ? argv[0] : "bspatch");
        return 1;
    }
    std::string detail;
    const BspatchResult result = ApplyBsdiffPatch(argv[1], argv[2], argv[3], &detail);
    if (result != BspatchResult::Success) {
        std::fprintf(stderr, "bspatch: %s: %s\n", DescribeBspatchResult(result), detail.c_str());
        return 1;
    }
    return 0;
}
