#include "report/SilentReturnHandler.h"

#include "base/FileUtil.h"
#include "base/Path.h"
#include "runtime/CommonUtility.h"
#include "runtime/LoggerUtility.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string ErrorText() {
    return std::strerror(errno);
}

// The folder of the code may belong to root or to the user this run acts for: the one who
// started it (the real user id), or the one sudo or pkexec started it for.
bool TrustedOwner(uid_t owner) {
    return owner == 0 || owner == ::getuid() || InvokingUserId() == owner;
}

} // namespace

UniqueFd SilentReturnHandler::openResultFolder(const std::string& folder) {
    // Made when missing (root's, readable by all), and used only when nobody but its owner,
    // a trusted one, can put anything in it.
    std::string problem;
    UniqueFd handle = OpenPrivateFolder(folder, 0755, TrustedOwner, &problem);
    if (!handle.valid())
        NSLevelledLog(0,
                      "The return code is not written: %@; only a folder of root or of this "
                      "run's user that no one else can write is used",
                      problem);
    return handle;
}

namespace {
std::atomic<int> lastCode{-1};
} // namespace

std::optional<SilentReturnCode> SilentReturnHandler::lastReturnCode() {
    const int code = lastCode.load();
    if (code < 0)
        return std::nullopt;
    return static_cast<SilentReturnCode>(code);
}

void SilentReturnHandler::removeReturnCode(const PlatformPaths& paths) {
    const std::string& file = paths.returnCodeFile;
    const std::string folder = ParentPath(file);
    if (!PathExistsNoFollow(folder.empty() ? "." : folder))
        return;
    const UniqueFd handle = openResultFolder(folder.empty() ? "." : folder);
    if (handle.valid() && ::unlinkat(handle.get(), LastPathComponent(file).c_str(), 0) == 0)
        NSLevelledLog(0, "Removed the return code %@ of an earlier run", file);
}

void SilentReturnHandler::setReturnCode(SilentReturnCode code, const PlatformPaths& paths) {
    lastCode = static_cast<int>(code);
    const std::string& file = paths.returnCodeFile;
    const std::string folder = ParentPath(file);
    const std::string name = LastPathComponent(file);
    const UniqueFd handle = openResultFolder(folder.empty() ? "." : folder);
    if (!handle.valid())
        return;
    // A new file, written whole, then renamed over the old one: a reader sees the old code
    // or the new one, and whatever was planted under the name (a link to some other file)
    // is replaced, never written through.
    const std::string temporary = "." + name + "." + std::to_string(::getpid());
    (void)::unlinkat(handle.get(), temporary.c_str(), 0);
    UniqueFd out(::openat(handle.get(), temporary.c_str(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    const std::string text = std::to_string(static_cast<int>(code));
    bool written = out.valid() && WriteAll(out.get(), text.data(), text.size());
    if (out.valid() && ::close(out.release()) != 0)
        written = false;
    if (!written || ::renameat(handle.get(), temporary.c_str(), handle.get(), name.c_str()) != 0) {
        NSLevelledLog(0, "The return code is not written to %@: %@", file, ErrorText());
        (void)::unlinkat(handle.get(), temporary.c_str(), 0);
    }
}
