#include "system/PlatformPaths.h"

const PlatformPaths& PlatformPaths::defaults() {
    static const PlatformPaths paths;
    return paths;
}
