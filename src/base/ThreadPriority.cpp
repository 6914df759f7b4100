#include "base/ThreadPriority.h"

#include <cerrno>
#include <sys/resource.h>
#include <unistd.h>

bool RunThisThreadBehind() {
    // On Linux a nice value belongs to the thread: PRIO_PROCESS with a thread's id sets that
    // thread's alone.
    const auto self = static_cast<id_t>(::gettid());
    errno = 0;
    const int now = ::getpriority(PRIO_PROCESS, self);
    if (now == -1 && errno != 0)
        return false;
    return ::setpriority(PRIO_PROCESS, self, now + kAheadNiceness) == 0;
}
