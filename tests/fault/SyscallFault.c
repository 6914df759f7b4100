// A preloaded library that counts the system calls of a process that change files below
// chosen folders and, at the Nth of them (counted across all threads and all kinds), kills
// the process with SIGKILL or fails that one call with an errno, before it reaches the
// kernel. It lets a test cut the real patcher short at any step, as a crash or a full or
// failing disk would, and then look at what the step left.
//
//   ORVEL_FAULT_PROGRAM   only a process of this name is touched (others pass through)
//   ORVEL_FAULT_PATHS     colon-separated folders whose files count (default: all)
//   ORVEL_FAULT_AT        the call to act on, from 1; 0 or unset: count only
//   ORVEL_FAULT_ERROR     ENOSPC or EIO: fail the call; unset: SIGKILL
//   ORVEL_FAULT_ONWARD    1: fail every counted call from the Nth on, as a disk that has
//                         gone bad (with ORVEL_FAULT_ERROR)
//   ORVEL_FAULT_SIGNAL    TERM, HUP or INT: send that signal instead and let the call go on
//   ORVEL_FAULT_COUNT     a file that receives the number of counted calls at exit
//
// Calls counted: write, pwrite, writev, sendfile, copy_file_range, ftruncate, fsync,
// fdatasync, fchmod, fchown, futimens (by descriptor); open and openat that create or
// truncate, rename, renameat, renameat2, link, linkat, symlink, symlinkat, unlink,
// unlinkat, mkdir, mkdirat, rmdir, chmod, fchmodat, chown, lchown, fchownat, utimensat,
// truncate (by path).

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#define MAX_PREFIXES 16

static int g_active;
static long long g_at;
static int g_error;  // 0: SIGKILL
static int g_signal; // sent instead of SIGKILL, the call going on
static int g_onward; // every call from g_at on fails
static atomic_llong g_count;
static char* g_prefixes[MAX_PREFIXES];
static size_t g_prefixCount;
static const char* g_countFile;

__attribute__((constructor)) static void FaultInit(void) {
    const char* program = getenv("ORVEL_FAULT_PROGRAM");
    if (program && strcmp(program, program_invocation_short_name) != 0)
        return;
    const char* at = getenv("ORVEL_FAULT_AT");
    g_at = at ? atoll(at) : 0;
    const char* error = getenv("ORVEL_FAULT_ERROR");
    if (error && strcmp(error, "ENOSPC") == 0)
        g_error = ENOSPC;
    else if (error && strcmp(error, "EIO") == 0)
        g_error = EIO;
    const char* signal = getenv("ORVEL_FAULT_SIGNAL");
    if (signal && strcmp(signal, "TERM") == 0)
        g_signal = SIGTERM;
    else if (signal && strcmp(signal, "HUP") == 0)
        g_signal = SIGHUP;
    else if (signal && strcmp(signal, "INT") == 0)
        g_signal = SIGINT;
    const char* paths = getenv("ORVEL_FAULT_PATHS");
    if (paths && *paths) {
        char* copy = strdup(paths);
        for (char *save = NULL, *part = strtok_r(copy, ":", &save);
             part && g_prefixCount < MAX_PREFIXES; part = strtok_r(NULL, ":", &save))
            g_prefixes[g_prefixCount++] = part;
    }
    g_countFile = getenv("ORVEL_FAULT_COUNT");
    const char* onward = getenv("ORVEL_FAULT_ONWARD");
    g_onward = onward && strcmp(onward, "1") == 0;
    // Children (and the patcher's own re-execution) start counting afresh.
    unsetenv("LD_PRELOAD");
    g_active = 1;
}

__attribute__((destructor)) static void FaultFini(void) {
    if (!g_active || !g_countFile)
        return;
    FILE* out = fopen(g_countFile, "w");
    if (out) {
        fprintf(out, "%lld\n", (long long)atomic_load(&g_count));
        fclose(out);
    }
}

static int Covered(const char* path) {
    if (g_prefixCount == 0)
        return 1;
    for (size_t i = 0; i < g_prefixCount; ++i) {
        const size_t n = strlen(g_prefixes[i]);
        if (strncmp(path, g_prefixes[i], n) == 0 && (path[n] == '/' || path[n] == '\0'))
            return 1;
    }
    return 0;
}

static int CoveredFd(int fd) {
    if (g_prefixCount == 0)
        return 1;
    char link[64], target[PATH_MAX];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, target, sizeof target - 1);
    if (n <= 0)
        return 0;
    target[n] = '\0';
    return Covered(target);
}

static int CoveredAt(int dirfd, const char* path) {
    if (!path)
        return 0;
    if (path[0] == '/' || dirfd == AT_FDCWD) {
        if (path[0] == '/')
            return Covered(path);
        char cwd[PATH_MAX], full[PATH_MAX * 2];
        if (!getcwd(cwd, sizeof cwd))
            return 0;
        snprintf(full, sizeof full, "%s/%s", cwd, path);
        return Covered(full);
    }
    return CoveredFd(dirfd);
}

// 0: go on with the call; -1: fail it (errno set). Never returns when the call is the one
// that kills.
static int Step(int covered) {
    if (!g_active || !covered)
        return 0;
    const long long n = atomic_fetch_add(&g_count, 1) + 1;
    if (g_at == 0 || n < g_at || (n > g_at && !(g_onward && g_error != 0)))
        return 0;
    if (g_signal != 0) {
        kill(getpid(), g_signal);
        return 0;
    }
    if (g_error == 0) {
        kill(getpid(), SIGKILL);
        for (;;)
            pause();
    }
    errno = g_error;
    return -1;
}

#define REAL(name) ((__typeof__(&name))dlsym(RTLD_NEXT, #name))

ssize_t write(int fd, const void* data, size_t size) {
    if (Step(g_active && CoveredFd(fd)))
        return -1;
    return REAL(write)(fd, data, size);
}
ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
    if (Step(g_active && CoveredFd(fd)))
        return -1;
    return REAL(pwrite)(fd, data, size, offset);
}
ssize_t pwrite64(int fd, const void* data, size_t size, off64_t offset) {
    if (Step(g_active && CoveredFd(fd)))
        return -1;
    return REAL(pwrite64)(fd, data, size, offset);
}
ssize_t writev(int fd, const struct iovec* iov, int count) {
    if (Step(g_active && CoveredFd(fd)))
        return -1;
    return REAL(writev)(fd, iov, count);
}
ssize_t sendfile(int out, int in, off_t* offset, size_t count) {
    if (Step(g_active && CoveredFd(out)))
        return -1;
    return REAL(sendfile)(out, in, offset, count);
}
ssize_t sendfile64(int out, int in, off64_t* offset, size_t count) {
    if (Step(g_active && CoveredFd(out)))
        return -1;
    return REAL(sendfile64)(out, in, offset, count);
}
ssize_t copy_file_range(int in, off64_t* inOffset, int out, off64_t* outOffset, size_t size,
                        unsigned flags) {
    if (Step(g_active && CoveredFd(out)))
        return -1;
    return REAL(copy_file_range)(in, inOffset, out, outOffset, size, flags);
}
int ftruncate(int fd, off_t size) {
    if (Step(g_active && CoveredFd(fd)))
        return -1;
    return REAL(ftruncate)(fd, size);
}
int ftruncate64(int fd, off64_t size) {
    if (Step(g_active && CoveredFd(fd)))
        return -1;
    return REAL(ftruncate64)(fd, size);
}
int fsync(int fd) {
    if (Step(g_active && CoveredFd(fd)))
        return -1;
    return REAL(fsync)(fd);
}
int fdatasync(int fd) {
    if (Step(g_active && CoveredFd(fd)))
        return -1;
    return REAL(fdatasync)(fd);
}
int fchmod(int fd, mode_t mode) {
    if (Step(g_active && CoveredFd(fd)))
        return -1;
    return REAL(fchmod)(fd, mode);
}
int fchown(int fd, uid_t uid, gid_t gid) {
    if (Step(g_active && CoveredFd(fd)))
        return -1;
    return REAL(fchown)(fd, uid, gid);
}
int futimens(int fd, const struct timespec times[2]) {
    if (Step(g_active && CoveredFd(fd)))
        return -1;
    return REAL(futimens)(fd, times);
}

// The mode argument of open and openat, present only when the call may create a file.
#define TAKE_MODE(flags, mode)                                                                     \
    do {                                                                                           \
        if ((flags) & (O_CREAT | O_TMPFILE)) {                                                     \
            va_list args;                                                                          \
            va_start(args, flags);                                                                 \
            mode = va_arg(args, mode_t);                                                           \
            va_end(args);                                                                          \
        }                                                                                          \
    } while (0)

static int Creates(int flags) {
    return (flags & (O_CREAT | O_TRUNC)) != 0;
}

int open(const char* path, int flags, ...) {
    mode_t mode = 0;
    TAKE_MODE(flags, mode);
    if (Step(g_active && Creates(flags) && CoveredAt(AT_FDCWD, path)))
        return -1;
    return REAL(open)(path, flags, mode);
}
int open64(const char* path, int flags, ...) {
    mode_t mode = 0;
    TAKE_MODE(flags, mode);
    if (Step(g_active && Creates(flags) && CoveredAt(AT_FDCWD, path)))
        return -1;
    return REAL(open64)(path, flags, mode);
}
int openat(int dirfd, const char* path, int flags, ...) {
    mode_t mode = 0;
    TAKE_MODE(flags, mode);
    if (Step(g_active && Creates(flags) && CoveredAt(dirfd, path)))
        return -1;
    return REAL(openat)(dirfd, path, flags, mode);
}
int openat64(int dirfd, const char* path, int flags, ...) {
    mode_t mode = 0;
    TAKE_MODE(flags, mode);
    if (Step(g_active && Creates(flags) && CoveredAt(dirfd, path)))
        return -1;
    return REAL(openat64)(dirfd, path, flags, mode);
}

int rename(const char* from, const char* to) {
    if (Step(g_active && (CoveredAt(AT_FDCWD, from) || CoveredAt(AT_FDCWD, to))))
        return -1;
    return REAL(rename)(from, to);
}
int renameat(int fromDir, const char* from, int toDir, const char* to) {
    if (Step(g_active && (CoveredAt(fromDir, from) || CoveredAt(toDir, to))))
        return -1;
    return REAL(renameat)(fromDir, from, toDir, to);
}
int renameat2(int fromDir, const char* from, int toDir, const char* to, unsigned flags) {
    if (Step(g_active && (CoveredAt(fromDir, from) || CoveredAt(toDir, to))))
        return -1;
    return REAL(renameat2)(fromDir, from, toDir, to, flags);
}
int link(const char* existing, const char* path) {
    if (Step(g_active && CoveredAt(AT_FDCWD, path)))
        return -1;
    return REAL(link)(existing, path);
}
int linkat(int fromDir, const char* existing, int toDir, const char* path, int flags) {
    if (Step(g_active && CoveredAt(toDir, path)))
        return -1;
    return REAL(linkat)(fromDir, existing, toDir, path, flags);
}
int symlink(const char* content, const char* path) {
    if (Step(g_active && CoveredAt(AT_FDCWD, path)))
        return -1;
    return REAL(symlink)(content, path);
}
int symlinkat(const char* content, int dirfd, const char* path) {
    if (Step(g_active && CoveredAt(dirfd, path)))
        return -1;
    return REAL(symlinkat)(content, dirfd, path);
}
int unlink(const char* path) {
    if (Step(g_active && CoveredAt(AT_FDCWD, path)))
        return -1;
    return REAL(unlink)(path);
}
int unlinkat(int dirfd, const char* path, int flags) {
    if (Step(g_active && CoveredAt(dirfd, path)))
        return -1;
    return REAL(unlinkat)(dirfd, path, flags);
}
int mkdir(const char* path, mode_t mode) {
    if (Step(g_active && CoveredAt(AT_FDCWD, path)))
        return -1;
    return REAL(mkdir)(path, mode);
}
int mkdirat(int dirfd, const char* path, mode_t mode) {
    if (Step(g_active && CoveredAt(dirfd, path)))
        return -1;
    return REAL(mkdirat)(dirfd, path, mode);
}
int rmdir(const char* path) {
    if (Step(g_active && CoveredAt(AT_FDCWD, path)))
        return -1;
    return REAL(rmdir)(path);
}
int chmod(const char* path, mode_t mode) {
    if (Step(g_active && CoveredAt(AT_FDCWD, path)))
        return -1;
    return REAL(chmod)(path, mode);
}
int fchmodat(int dirfd, const char* path, mode_t mode, int flags) {
    if (Step(g_active && CoveredAt(dirfd, path)))
        return -1;
    return REAL(fchmodat)(dirfd, path, mode, flags);
}
int chown(const char* path, uid_t uid, gid_t gid) {
    if (Step(g_active && CoveredAt(AT_FDCWD, path)))
        return -1;
    return REAL(chown)(path, uid, gid);
}
int lchown(const char* path, uid_t uid, gid_t gid) {
    if (Step(g_active && CoveredAt(AT_FDCWD, path)))
        return -1;
    return REAL(lchown)(path, uid, gid);
}
int fchownat(int dirfd, const char* path, uid_t uid, gid_t gid, int flags) {
    if (Step(g_active && CoveredAt(dirfd, path)))
        return -1;
    return REAL(fchownat)(dirfd, path, uid, gid, flags);
}
int utimensat(int dirfd, const char* path, const struct timespec times[2], int flags) {
    // Declared never null, yet futimens reaches here with none.
    const char* volatile given = path;
    if (Step(g_active && (given ? CoveredAt(dirfd, given) : CoveredFd(dirfd))))
        return -1;
    return REAL(utimensat)(dirfd, path, times, flags);
}
int truncate(const char* path, off_t size) {
    if (Step(g_active && CoveredAt(AT_FDCWD, path)))
        return -1;
    return REAL(truncate)(path, size);
}
