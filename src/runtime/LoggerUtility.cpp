#include "runtime/LoggerUtility.h"

#include "base/FileUtil.h"
#include "base/Path.h"
#include "runtime/CommonUtility.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <string>
#include <strings.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::string_view kSeparators[] = {
    "*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*=*",
    "=================================================================",
    "-----------------------------------------------------------------",
    ".................................................................",
};

// The process and thread ids of the prefix, asked of the kernel once (a line costs one
// system call, its write); a forked child asks again.
std::atomic<pid_t> gProcessId{0};
thread_local pid_t tThreadId = 0;
thread_local pid_t tThreadIdOfProcess = 0;

void ForgetProcessId() {
    gProcessId.store(0, std::memory_order_relaxed);
}

pid_t ProcessId() {
    static const bool watching = ::pthread_atfork(nullptr, nullptr, ForgetProcessId) == 0;
    (void)watching;
    pid_t known = gProcessId.load(std::memory_order_relaxed);
    if (known == 0) {
        known = ::getpid();
        gProcessId.store(known, std::memory_order_relaxed);
    }
    return known;
}

pid_t ThreadId() {
    const pid_t process = ProcessId();
    if (tThreadId == 0 || tThreadIdOfProcess != process) {
        tThreadId = static_cast<pid_t>(::syscall(SYS_gettid));
        tThreadIdOfProcess = process;
    }
    return tThreadId;
}

// The message with the log prefix and a newline.
std::string ComposeLogLine(std::string_view message) {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const std::time_t seconds = system_clock::to_time_t(now);
    const auto millis = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    // The date and time to the second, made once a second for each thread: the local time
    // costs more than the rest of a line.
    thread_local std::time_t stampSecond = -1;
    thread_local char stamp[32];
    thread_local size_t stampLength = 0;
    if (seconds != stampSecond) {
        std::tm local{};
        ::localtime_r(&seconds, &local);
        const int length = std::snprintf(stamp, sizeof stamp, "%04d-%02d-%02d %02d:%02d:%02d.",
                                         local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                                         local.tm_hour, local.tm_min, local.tm_sec);
        stampLength = length > 0 ? std::min(static_cast<size_t>(length), sizeof stamp - 1) : 0;
        stampSecond = seconds;
    }
    const char digits[4] = {static_cast<char>('0' + millis / 100 % 10),
                            static_cast<char>('0' + millis / 10 % 10),
                            static_cast<char>('0' + millis % 10), ' '};
    const std::string_view name = program_invocation_short_name;
    const std::string process = std::to_string(ProcessId());
    const std::string thread = std::to_string(ThreadId());
    std::string line;
    line.reserve(stampLength + sizeof digits + name.size() + process.size() + thread.size() +
                 message.size() + 5);
    line.append(stamp, stampLength);
    line.append(digits, sizeof digits);
    line += name;
    line += '[';
    line += process;
    line += ':';
    line += thread;
    line += "] ";
    line += message;
    if (line.back() != '\n')
        line += '\n';
    return line;
}

} // namespace

namespace {

// The file-system ids of the calling thread (setfsuid is a thread's own, unlike setuid),
// set for the life of this object.
class FileSystemIds {
public:
    FileSystemIds(uid_t uid, gid_t gid)
        : _gid(static_cast<gid_t>(::setfsgid(gid))), _uid(static_cast<uid_t>(::setfsuid(uid))) {}
    ~FileSystemIds() {
        (void)::setfsuid(_uid);
        (void)::setfsgid(_gid);
    }
    FileSystemIds(const FileSystemIds&) = delete;
    FileSystemIds& operator=(const FileSystemIds&) = delete;

private:
    gid_t _gid;
    uid_t _uid;
};

std::string Reason(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

// Gives a folder or file that a root run made to owner (a file only while it has this one
// name, so that nothing reachable by another name is given away).
void GiveRootsToOwner(int fd, const struct stat& owner) {
    struct stat info {};
    if (::fstat(fd, &info) == 0 && info.st_uid == 0 &&
        (S_ISDIR(info.st_mode) || (S_ISREG(info.st_mode) && info.st_nlink == 1))) {
        // Left root's when this fails: the log is still written, only not the user's to remove.
        if (::fchown(fd, owner.st_uid, owner.st_gid) != 0)
            return;
    }
}

// The log's folder, reached by the walk from the home folder without following a link,
// and what every later change in it needs: the log's name there and whose ids to act with.
struct LogPlace {
    UniqueFd folder;
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    bool asOwner = false; // changes are made with the owner's file-system ids
};

// The log name in the folder, made where missing, opened for appending without following
// a link or waiting on a FIFO. With giveTo, a log a root run made is given to that owner.
UniqueFd OpenLogIn(int folder, const std::string& name, std::string& problem,
                   const struct stat* giveTo = nullptr) {
    UniqueFd file(::openat(folder, name.c_str(),
                           O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                           0644));
    if (!file.valid()) {
        problem = Reason("cannot open " + name);
        return UniqueFd();
    }
    if (giveTo)
        GiveRootsToOwner(file.get(), *giveTo);
    return file;
}

// Only a regular file is written to, and writing to it may wait (it was opened without
// waiting only so that a FIFO could not hold the run up).
bool ReadyForWriting(int fd, std::string& problem) {
    struct stat info {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        problem = "the log is not a regular file";
        return false;
    }
    const int flags = ::fcntl(fd, F_GETFL);
    if (flags < 0 || ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        problem = Reason("cannot set up the log");
        return false;
    }
    return true;
}

// The log file at relativePath below the folder handle, made where missing, and the place
// holding it. With giveTo, what a root run made on the way is given to that owner.
UniqueFd OpenLogBelow(int top, const std::string& relativePath, std::string& problem,
                      LogPlace& place, const struct stat* giveTo = nullptr) {
    std::vector<std::string> names;
    for (size_t start = 0; start < relativePath.size();) {
        const size_t end = std::min(relativePath.find('/', start), relativePath.size());
        const std::string name = relativePath.substr(start, end - start);
        if (name == "..") {
            problem = "\"..\" in " + relativePath;
            return UniqueFd();
        }
        if (!name.empty() && name != ".")
            names.push_back(name);
        start = end + 1;
    }
    if (names.empty()) {
        problem = "no file name";
        return UniqueFd();
    }
    UniqueFd folder(::fcntl(top, F_DUPFD_CLOEXEC, 0));
    for (size_t i = 0; i + 1 < names.size(); ++i) {
        const char* name = names[i].c_str();
        if (::mkdirat(folder.get(), name, 0755) != 0 && errno != EEXIST) {
            problem = Reason("cannot make the folder " + names[i]);
            return UniqueFd();
        }
        UniqueFd next(
            ::openat(folder.get(), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!next.valid()) {
            problem = Reason(names[i] + " is not a folder that can be opened without following "
                                        "a link");
            return UniqueFd();
        }
        if (giveTo)
            GiveRootsToOwner(next.get(), *giveTo);
        folder = std::move(next);
    }
    UniqueFd file = OpenLogIn(folder.get(), names.back(), problem, giveTo);
    if (file.valid()) {
        place.folder = std::move(folder);
        place.name = names.back();
    }
    return file;
}

std::string RotatedName(const std::string& name, int number) {
    return name + "." + std::to_string(number);
}

// Moves the old logs one number up ("<log>.2" onto "<log>.3", dropping the oldest, then
// "<log>.1" onto "<log>.2") and the log open as current to "<log>.1", then makes and opens
// a new log, all with the owner's ids and by name within the verified folder handle, so
// that nothing is reached through a link and nothing is done the owner could not do.
//
// Only regular files are carried along. Anything else at a rotated name (a symbolic link,
// a FIFO) is neither opened nor moved: the file moved onto its name replaces the entry
// itself (a rename never follows a link, so what the link points to stays untouched), and
// one nothing replaces stays as it is. So the rotated names hold only files this log
// wrote, and the old logs are only renamed, never opened or written through. Should a
// link be swapped in between the check and the rename, the link is what moves, which is
// just as harmless. A folder at a rotated name makes its rename fail, and the rotation.
//
// When the log's name no longer holds the open file (another run rotated it first),
// nothing is moved and what the name holds now is opened. shifted tells which happened.
UniqueFd RotateLog(const LogPlace& place, int current, bool& shifted, std::string& problem) {
    shifted = false;
    std::optional<FileSystemIds> ids;
    if (place.asOwner) {
        ids.emplace(place.uid, place.gid);
        // setfsuid reports no failure; asking with an invalid id gives the ids in force.
        if (static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1))) != place.uid ||
            static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1))) != place.gid) {
            problem = "cannot act as the owner of the log's folder";
            return UniqueFd();
        }
    }
    const int folder = place.folder.get();
    struct stat open {};
    if (::fstat(current, &open) != 0) {
        problem = Reason("cannot look at the open log");
        return UniqueFd();
    }
    struct stat named {};
    if (::fstatat(folder, place.name.c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno != ENOENT) {
            problem = Reason("cannot look at " + place.name);
            return UniqueFd();
        }
    } else if (named.st_dev == open.st_dev && named.st_ino == open.st_ino) {
        for (int number = kLogRotationKept - 1; number >= 1; --number) {
            const std::string from = RotatedName(place.name, number);
            struct stat info {};
            if (::fstatat(folder, from.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
                if (errno == ENOENT)
                    continue;
                problem = Reason("cannot look at " + from);
                return UniqueFd();
            }
            if (!S_ISREG(info.st_mode))
                continue;
            const std::string to = RotatedName(place.name, number + 1);
            if (::renameat(folder, from.c_str(), folder, to.c_str()) != 0) {
                problem = Reason("cannot rename " + from + " to " + to);
                return UniqueFd();
            }
        }
        const std::string first = RotatedName(place.name, 1);
        if (::renameat(folder, place.name.c_str(), folder, first.c_str()) != 0) {
            problem = Reason("cannot rename " + place.name + " to " + first);
            return UniqueFd();
        }
        shifted = true;
    }
    UniqueFd fresh = OpenLogIn(folder, place.name, problem);
    if (!fresh.valid() || !ReadyForWriting(fresh.get(), problem))
        return UniqueFd();
    return fresh;
}

std::string RotationFailure(const std::string& problem) {
    return "The log could not be rotated (" + problem +
           "); this run goes on writing to the file it has open and does not try again";
}

// What rotating during a run needs, set by StartLogging. The log's size is counted in
// memory (its size when opened plus every line written), so a line costs no system call
// more; only a count that reaches the limit asks the file itself, since what the programs
// the run starts write to the shared standard error is not counted, and standard error
// may no longer be the log.
struct Rotation {
    std::mutex mutex;
    LogPlace place;
    // The log standard error was pointed at; holding it open keeps its inode from being
    // reused, so comparing it with standard error tells whether that still is the log.
    UniqueFd log;
};

Rotation& TheRotation() {
    // Never destroyed: a thread may still log while the process exits.
    static Rotation* const rotation = new Rotation;
    return *rotation;
}

std::atomic<bool> gRotating{false};
std::atomic<std::uint64_t> gLogBytes{0};

// Lines waiting to be written together, once a run batches them (BatchLogLines). Every
// write is of whole lines, so a line still lands whole with O_APPEND and other writers.
// Two locks: mutex guards the pending lines and is held only to add to them or take them;
// writing is held from taking lines to writing them, so batches land in the order taken
// while the threads that log never wait for a write.
struct LineBatch {
    std::mutex writing;
    std::string taken; // guarded by writing
    std::mutex mutex;
    std::condition_variable linesWaiting;
    std::string pending;
    bool enabled = false;
    bool writerIdle = false; // the batching thread waits for a first line, not for its time
};

constexpr size_t kBatchBytes = 64 * 1024;
constexpr auto kBatchDelay = std::chrono::milliseconds(10);

LineBatch& TheBatch() {
    // Never destroyed: the flushing thread and the exit handler use it to the end.
    static LineBatch* const batch = new LineBatch;
    return *batch;
}

// Writes the pending lines; with stop, later lines are written one by one.
void WritePending(LineBatch& batch, bool stop = false) {
    std::lock_guard<std::mutex> writing(batch.writing);
    batch.taken.clear();
    {
        std::lock_guard<std::mutex> lock(batch.mutex);
        std::swap(batch.taken, batch.pending);
        if (stop)
            batch.enabled = false;
    }
    if (!batch.taken.empty())
        (void)WriteAll(STDERR_FILENO, batch.taken.data(), batch.taken.size());
}

void WriteLine(const std::string& line) {
    gLogBytes.fetch_add(line.size(), std::memory_order_relaxed);
    LineBatch& batch = TheBatch();
    {
        std::unique_lock<std::mutex> lock(batch.mutex);
        if (batch.enabled) {
            const bool first = batch.pending.empty();
            batch.pending += line;
            if (batch.pending.size() >= kBatchBytes) {
                lock.unlock();
                WritePending(batch);
            } else if (first && batch.writerIdle) {
                batch.linesWaiting.notify_one();
            }
            return;
        }
    }
    // One write per line: with O_APPEND the line lands whole even with concurrent writers.
    (void)WriteAll(STDERR_FILENO, line.data(), line.size());
}

// The batching thread: writes what has gathered once its first line is kBatchDelay old, so
// a reader of the log (a person, a test) sees a line a few milliseconds after it was made.
void WriteBatches() {
    LineBatch& batch = TheBatch();
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(batch.mutex);
            batch.writerIdle = true;
            batch.linesWaiting.wait(lock, [&batch] { return !batch.pending.empty(); });
            batch.writerIdle = false;
            // Lines that come meanwhile join the batch; a flush meanwhile leaves less to write.
            const auto due = std::chrono::steady_clock::now() + kBatchDelay;
            (void)batch.linesWaiting.wait_until(lock, due, [] { return false; });
        }
        WritePending(batch);
    }
}

// Around fork: the lines so far are written first, so that they come before anything the
// child writes to the same log; the child starts with no batch and writes line by line.
void LockBatchForFork() {
    LineBatch& batch = TheBatch();
    batch.writing.lock();
    batch.mutex.lock();
    if (!batch.pending.empty())
        (void)WriteAll(STDERR_FILENO, batch.pending.data(), batch.pending.size());
    batch.pending.clear();
}
void UnlockBatchInParent() {
    LineBatch& batch = TheBatch();
    batch.mutex.unlock();
    batch.writing.unlock();
}
void UnlockBatchInChild() {
    LineBatch& batch = TheBatch();
    batch.enabled = false;
    batch.mutex.unlock();
    batch.writing.unlock();
}

// At exit the lines gathered are written, and what is logged after (by destructors) is
// written line by line.
void FlushLogAtExit() {
    WritePending(TheBatch(), true);
}

// Rotates the log when the line of next bytes would take it past the limit. Lines other
// threads write meanwhile go whole to the old or the new file (the switch is one dup2).
void RotateDuringRun(size_t next) {
    Rotation& rotation = TheRotation();
    std::lock_guard<std::mutex> lock(rotation.mutex);
    if (!gRotating.load(std::memory_order_relaxed) ||
        gLogBytes.load(std::memory_order_relaxed) + next <= kLogRotationBytes)
        return; // another thread rotated it meanwhile
    struct stat standardError {};
    struct stat log {};
    if (::fstat(STDERR_FILENO, &standardError) != 0 || ::fstat(rotation.log.get(), &log) != 0 ||
        standardError.st_dev != log.st_dev || standardError.st_ino != log.st_ino) {
        // Standard error was pointed elsewhere since: that is not the log's to rotate.
        gRotating.store(false, std::memory_order_relaxed);
        return;
    }
    const auto size = static_cast<std::uint64_t>(log.st_size);
    if (size == 0 || size + next <= kLogRotationBytes) {
        gLogBytes.store(size, std::memory_order_relaxed);
        return;
    }
    std::string problem;
    bool shifted = false;
    // The lines made so far belong to the file that is moved aside.
    FlushLog();
    UniqueFd fresh = RotateLog(rotation.place, rotation.log.get(), shifted, problem);
    std::fflush(stderr);
    if (fresh.valid() && ::dup2(fresh.get(), STDERR_FILENO) < 0) {
        problem = Reason("cannot redirect the log");
        fresh.reset();
    }
    if (!fresh.valid()) {
        gRotating.store(false, std::memory_order_relaxed);
        WriteLine(ComposeLogLine(RotationFailure(problem)));
        return;
    }
    struct stat info {};
    gLogBytes.store(::fstat(fresh.get(), &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0,
                    std::memory_order_relaxed);
    rotation.log = std::move(fresh);
    if (shifted)
        WriteLine(ComposeLogLine("The log was rotated; the earlier lines of this run are in " +
                                 RotatedName(rotation.place.name, 1)));
}

} // namespace

void BatchLogLines() {
    static std::once_flag started;
    std::call_once(started, [] {
        ::pthread_atfork(LockBatchForFork, UnlockBatchInParent, UnlockBatchInChild);
        std::atexit(FlushLogAtExit);
        std::thread(WriteBatches).detach();
    });
    std::lock_guard<std::mutex> lock(TheBatch().mutex);
    TheBatch().enabled = true;
}

void FlushLog() {
    WritePending(TheBatch());
}

bool StartLogging(const std::string& folder, const std::string& relativePath,
                  std::string* problem) {
    std::string why;
    auto fail = [&](std::string reason) {
        if (problem)
            *problem = std::move(reason);
        return false;
    };
    if (folder.empty() || relativePath.empty())
        return fail("no log file");
    // The folder itself is the account's (a home folder may well be a link); what lies
    // below it is its owner's, and is reached as its owner.
    UniqueFd top(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct stat owner {};
    if (!top.valid() || ::fstat(top.get(), &owner) != 0)
        return fail(Reason("cannot open " + folder));
    const bool asOwner = ::geteuid() == 0 && owner.st_uid != 0;
    LogPlace place;
    place.uid = owner.st_uid;
    place.gid = owner.st_gid;
    place.asOwner = asOwner;
    UniqueFd file;
    int error = 0;
    {
        std::optional<FileSystemIds> ids;
        if (asOwner)
            ids.emplace(owner.st_uid, owner.st_gid);
        file = OpenLogBelow(top.get(), relativePath, why, place);
        error = errno;
    }
    if (!file.valid() && asOwner && error == EACCES) {
        // Folders or a log that a root run made before the log was opened as its owner:
        // they are given to the owner, and the log is used.
        std::string rootWhy;
        file = OpenLogBelow(top.get(), relativePath, rootWhy, place, &owner);
        struct stat info {};
        if (file.valid() && (::fstat(file.get(), &info) != 0 || info.st_uid != owner.st_uid))
            file.reset();
    }
    if (!file.valid())
        return fail(why);
    if (!ReadyForWriting(file.get(), why))
        return fail(why);
    struct stat info {};
    if (::fstat(file.get(), &info) != 0)
        return fail(Reason("cannot look at the log"));
    std::string rotationProblem;
    if (static_cast<std::uint64_t>(info.st_size) >= kLogRotationBytes) {
        bool shifted = false;
        UniqueFd fresh = RotateLog(place, file.get(), shifted, rotationProblem);
        if (fresh.valid() && ::fstat(fresh.get(), &info) == 0)
            file = std::move(fresh);
        else if (rotationProblem.empty())
            rotationProblem = Reason("cannot look at the new log");
    }
    FlushLog();
    std::fflush(stderr);
    if (::dup2(file.get(), STDERR_FILENO) < 0)
        return fail(Reason("cannot redirect the log"));
    {
        Rotation& rotation = TheRotation();
        std::lock_guard<std::mutex> lock(rotation.mutex);
        rotation.place = std::move(place);
        rotation.log = std::move(file);
        gLogBytes.store(static_cast<std::uint64_t>(info.st_size), std::memory_order_relaxed);
        // After a failure every line would try again: the run keeps to the file it has.
        gRotating.store(rotationProblem.empty(), std::memory_order_relaxed);
    }
    if (!rotationProblem.empty())
        NSLog(RotationFailure(rotationProblem));
    return true;
}

unsigned ResolveLogLevelString(const std::string& name) {
    struct Entry {
        const char* name;
        unsigned level;
    };
    static constexpr Entry kNames[] = {{"error", 0}, {"0", 0}, {"warning", 1}, {"1", 1},
                                       {"info", 2},  {"2", 2}, {"debug", 3},   {"3", 3}};
    for (const auto& entry : kNames) {
        if (::strcasecmp(name.c_str(), entry.name) == 0)
            return entry.level;
    }
    return 0;
}

std::string GetSeparatorStringGivenType(int type) {
    if (type < 0 || type > 3)
        return std::to_string(type);
    return std::string(kSeparators[type]);
}

void NSLog(std::string_view message) {
    const std::string line = ComposeLogLine(message);
    if (gRotating.load(std::memory_order_relaxed) &&
        gLogBytes.load(std::memory_order_relaxed) + line.size() > kLogRotationBytes)
        RotateDuringRun(line.size());
    WriteLine(line);
}

std::string ComposeHeadingLine(int type, const std::string& heading) {
    const std::string separator = GetSeparatorStringGivenType(type);
    if (separator.size() > 4 && heading.size() < separator.size() - 4) {
        const size_t padLength = (65 - heading.size() - 2) / 2;
        const std::string pad = separator.substr(0, padLength);
        return pad + " " + heading + " " + pad;
    }
    return heading;
}

void NSFormatLog(int type) {
    NSLog(GetSeparatorStringGivenType(type));
}
