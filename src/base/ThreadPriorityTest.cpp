#include "base/ThreadPriority.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace {

int NiceOf(pid_t thread) {
    errno = 0;
    return ::getpriority(PRIO_PROCESS, static_cast<id_t>(thread));
}

} // namespace

TEST(ThreadPriorityTest, OnlyTheThreadThatAsksRunsBehind) {
    const pid_t caller = ::gettid();
    const int before = NiceOf(caller);
    int ahead = 0;
    int inherited = 0;
    bool lowered = false;
    std::thread behind([&] {
        lowered = RunThisThreadBehind();
        ahead = NiceOf(::gettid());
        // A thread it starts runs behind as well.
        std::thread([&] { inherited = NiceOf(::gettid()); }).join();
    });
    behind.join();
    ASSERT_TRUE(lowered);
    EXPECT_EQ(ahead, std::min(before + kAheadNiceness, 19));
    EXPECT_EQ(inherited, ahead);
    EXPECT_EQ(NiceOf(caller), before) << "the thread that started it keeps its priority";
    // A thread started afterwards by the caller runs as the caller does.
    int later = 0;
    std::thread([&] { later = NiceOf(::gettid()); }).join();
    EXPECT_EQ(later, before);
}
