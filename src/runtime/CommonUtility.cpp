#include "runtime/CommonUtility.h"

#include "base/Path.h"
#include "runtime/LoggerUtility.h"

#include <boost/regex.hpp>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <grp.h>
#include <map>
#include <mutex>
#include <pwd.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>
#include <vector>

namespace {

// Reads an integer the way a C-style "intValue" does: leading white space, an optional
// sign, the leading digits; no digits give 0; out-of-range values are clamped.
int32_t IntValue(const std::string& piece) {
    size_t i = 0;
    while (i < piece.size() && (piece[i] == ' ' || piece[i] == '\t' || piece[i] == '\n' ||
                                piece[i] == '\r' || piece[i] == '\f' || piece[i] == '\v'))
        ++i;
    bool negative = false;
    if (i < piece.size() && (piece[i] == '+' || piece[i] == '-')) {
        negative = piece[i] == '-';
        ++i;
    }
    long long value = 0;
    for (; i < piece.size() && piece[i] >= '0' && piece[i] <= '9'; ++i) {
        value = value * 10 + (piece[i] - '0');
        if (value > static_cast<long long>(INT_MAX) + 1)
            value = static_cast<long long>(INT_MAX) + 1;
    }
    if (negative)
        value = -value;
    if (value > INT_MAX)
        return INT_MAX;
    if (value < INT_MIN)
        return INT_MIN;
    return static_cast<int32_t>(value);
}

// Calls lookup (a getpw*_r or getgr*_r call over the buffer given) with a buffer that
// grows while the entry does not fit: a group with many members needs more than the usual
// size. True when an entry was found.
template <typename Lookup> bool LookUpAccount(const Lookup& lookup) {
    std::vector<char> buffer(4096);
    for (;;) {
        const int error = lookup(buffer.data(), buffer.size());
        if (error != ERANGE)
            return error == 0;
        if (buffer.size() >= (1u << 24))
            return false;
        buffer.resize(buffer.size() * 4);
    }
}

std::optional<uid_t> ParseUid(const char* text) {
    if (!text || !*text)
        return std::nullopt;
    char* end = nullptr;
    errno = 0;
    unsigned long value = std::strtoul(text, &end, 10);
    if (errno != 0 || *end != '\0' || value >= static_cast<unsigned long>(static_cast<uid_t>(-1)))
        return std::nullopt;
    return static_cast<uid_t>(value);
}

} // namespace

namespace {

// The accounts a run asks about, remembered for the run: every entry of an update asks for
// its file's owner and group, and each question of the system reads nsswitch.conf and the
// account file again. Only answers found are remembered.
template <typename Key, typename Value> class AccountAnswers {
public:
    template <typename Ask> std::optional<Value> get(const Key& key, const Ask& ask) {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            if (const auto found = _answers.find(key); found != _answers.end())
                return found->second;
        }
        std::optional<Value> answer = ask();
        if (answer) {
            std::lock_guard<std::mutex> lock(_mutex);
            _answers.emplace(key, *answer);
        }
        return answer;
    }

private:
    std::mutex _mutex;
    std::map<Key, Value> _answers;
};

} // namespace

std::optional<std::string> UserNameOfUid(uid_t uid) {
    static AccountAnswers<uid_t, std::string> answers;
    return answers.get(uid, [uid]() -> std::optional<std::string> {
        struct passwd entry {};
        struct passwd* result = nullptr;
        std::optional<std::string> name;
        if (LookUpAccount([&](char* buffer, size_t size) {
                const int error = ::getpwuid_r(uid, &entry, buffer, size, &result);
                if (error == 0 && result)
                    name = result->pw_name;
                return error;
            }))
            return name;
        return std::nullopt;
    });
}

std::optional<uid_t> UidOfUserName(const std::string& name) {
    static AccountAnswers<std::string, uid_t> answers;
    return answers.get(name, [&name]() -> std::optional<uid_t> {
        struct passwd entry {};
        struct passwd* result = nullptr;
        if (LookUpAccount([&](char* buffer, size_t size) {
                return ::getpwnam_r(name.c_str(), &entry, buffer, size, &result);
            }) &&
            result)
            return result->pw_uid;
        return std::nullopt;
    });
}

std::optional<std::string> GroupNameOfGid(gid_t gid) {
    static AccountAnswers<gid_t, std::string> answers;
    return answers.get(gid, [gid]() -> std::optional<std::string> {
        struct group entry {};
        struct group* result = nullptr;
        std::optional<std::string> name;
        if (LookUpAccount([&](char* buffer, size_t size) {
                const int error = ::getgrgid_r(gid, &entry, buffer, size, &result);
                if (error == 0 && result)
                    name = result->gr_name;
                return error;
            }))
            return name;
        return std::nullopt;
    });
}

std::optional<gid_t> GidOfGroupName(const std::string& name) {
    static AccountAnswers<std::string, gid_t> answers;
    return answers.get(name, [&name]() -> std::optional<gid_t> {
        struct group entry {};
        struct group* result = nullptr;
        if (LookUpAccount([&](char* buffer, size_t size) {
                return ::getgrnam_r(name.c_str(), &entry, buffer, size, &result);
            }) &&
            result)
            return result->gr_gid;
        return std::nullopt;
    });
}

bool GetDotSeparatedVersion(const std::string& text, DotSeparatedVersion& version) {
    version = DotSeparatedVersion{};
    if (text.empty())
        return false;
    int32_t* fields[] = {&version.major, &version.minor, &version.third, &version.fourth};
    int filled = 0;
    size_t start = 0;
    size_t dot = text.find('.', 1);
    while (dot != std::string::npos && filled < 4) {
        *fields[filled++] = IntValue(text.substr(start, dot - start));
        start = dot + 1;
        dot = text.find('.', start);
    }
    if (start < text.size() && filled < 4)
        *fields[filled] = IntValue(text.substr(start));
    return true;
}

int DotSeparatedVersionCompare(const std::optional<std::string>& a,
                               const std::optional<std::string>& b) {
    if (!a)
        return 0;
    if (b && ::strcasecmp(a->c_str(), b->c_str()) == 0)
        return 0;
    DotSeparatedVersion va;
    DotSeparatedVersion vb;
    const bool haveA = GetDotSeparatedVersion(*a, va);
    const bool haveB = GetDotSeparatedVersion(b.value_or(""), vb);
    if (!haveA || !haveB)
        return 1;
    const int32_t left[] = {va.major, va.minor, va.third, va.fourth};
    const int32_t right[] = {vb.major, vb.minor, vb.third, vb.fourth};
    for (int i = 0; i < 4; ++i) {
        if (left[i] > right[i])
            return 1;
        if (left[i] < right[i])
            return -1;
    }
    return 0;
}

bool DotSeparatedVersionCompareAllowsReplace(const std::optional<std::string>& a,
                                             const std::optional<std::string>& b) {
    return DotSeparatedVersionCompare(a, b) >= 0;
}

bool IsStrEqualToRegEx(const char* text, const char* expression) {
    if (!text || !expression)
        return false;
    try {
        const boost::regex pattern(expression, boost::regex::perl);
        return boost::regex_search(text, pattern);
    } catch (...) {
        return false;
    }
}

bool CreateDirectoryAtPath(const std::string& path) {
    std::optional<uid_t> owner;
    if (auto user = GetUserName())
        owner = UidOfUserName(*user);
    // Only the super-user may give a folder away; otherwise the folder stays the caller's.
    const bool setOwner = owner && ::geteuid() == 0;

    const std::string withSlash = path + "/";
    for (size_t slash = withSlash.find('/', 1); slash != std::string::npos;
         slash = withSlash.find('/', slash + 1)) {
        const std::string level = withSlash.substr(0, slash);
        if (PathExists(level))
            continue;
        if (::mkdir(level.c_str(), 0755) != 0 && errno != EEXIST) {
            NSLevelledLog(0, "Failed to create directory: %@", level);
            return false;
        }
        if (setOwner && ::chown(level.c_str(), *owner, 0) != 0)
            NSLevelledLog(1, "Failed to set the owner of directory: %@", level);
    }
    return true;
}

uint64_t GetFreeDiskSpaceInBytes(const std::string& path) {
    if (path.empty())
        return 0;
    struct statvfs info {};
    if (::statvfs(path.c_str(), &info) != 0)
        return 0;
    return static_cast<uint64_t>(info.f_bavail) * static_cast<uint64_t>(info.f_frsize);
}

std::optional<std::string> GetUserName() {
    if (auto uid = ParseUid(std::getenv("PKEXEC_UID"))) {
        if (auto name = UserNameOfUid(*uid))
            return name;
    }
    if (const char* sudoUser = std::getenv("SUDO_USER"); sudoUser && *sudoUser) {
        if (UidOfUserName(sudoUser))
            return std::string(sudoUser);
    }
    std::ifstream loginUid("/proc/self/loginuid");
    std::string text;
    if (loginUid >> text) {
        if (auto uid = ParseUid(text.c_str())) {
            if (auto name = UserNameOfUid(*uid))
                return name;
        }
    }
    return UserNameOfUid(::getuid());
}

std::optional<uid_t> InvokingUserId() {
    for (const char* variable : {"PKEXEC_UID", "SUDO_UID"}) {
        if (auto uid = ParseUid(std::getenv(variable)))
            return uid;
    }
    return std::nullopt;
}

std::string HomeDirectory() {
    if (const char* home = std::getenv("HOME"); home && *home)
        return home;
    struct passwd entry {};
    struct passwd* result = nullptr;
    std::string home = "/";
    if (LookUpAccount([&](char* buffer, size_t size) {
            return ::getpwuid_r(::getuid(), &entry, buffer, size, &result);
        }) &&
        result)
        home = result->pw_dir; // copied while the buffer lives: it points into it
    return home;
}

std::string ExpandTildeInPath(const std::string& path) {
    if (path == "~")
        return HomeDirectory();
    if (path.rfind("~/", 0) == 0)
        return WithoutTrailingSlashes(HomeDirectory()) + path.substr(1);
    return path;
}

bool GetPathToAppGivenSubDirPath(const std::string& path, std::string& appPath,
                                 const std::vector<std::string>& protectedFolders) {
    appPath.clear();
    std::string current = WithoutTrailingSlashes(path);
    int dottedComponents = 0;
    for (int parents = 0;; ++parents) {
        const std::string component = LastPathComponent(current);
        if (auto dot = component.find('.'); dot != std::string::npos) {
            if (::strcasecmp(component.substr(dot + 1).c_str(), "app") == 0) {
                appPath = current;
                return true;
            }
            if (++dottedComponents > 2)
                return false;
        }
        for (const auto& folder : protectedFolders) {
            if (::strcasecmp(current.c_str(), folder.c_str()) == 0)
                return false;
        }
        if (parents == 4)
            return false;
        current = ParentPath(current);
    }
}

bool IsOSVersionSupported() {
    struct utsname name {};
    if (::uname(&name) != 0)
        return true;
    return DotSeparatedVersionCompareAllowsReplace(std::string(name.release), std::string("5.3"));
}
