// kor-launch: plays the update manager. Starts a patcher bundle's PatcherApp for one client
// application, hands it the client path and a results channel, waits for it to end, and
// prints the result it received:
//
//   kor-launch --client APP_PATH [--id APP_ID] BUNDLE.app [ARGS...]
//
// prints "code: N" and "message: TEXT" ("message:" alone when none) and exits 0 when a
// result arrived; exits 1 when none did, 2 on bad usage or when the patcher cannot start.
// With --id, the identifier is first recorded as "KOR_APP_ID" in the installer-data file
// (~/.local/share/Orvel/Updater/Install/OrvelUpdaterInstallerData.plist), as the update
// manager does before it launches an installer.

#include "base/Version.h"
#include "report/KORInstallerResults.h"

#include <plist/plist.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* kInstallerDataInHome =
    "/.local/share/Orvel/Updater/Install/OrvelUpdaterInstallerData.plist";

int Usage(const char* message) {
    std::fprintf(stderr, "kor-launch: %s\n", message);
    std::fprintf(stderr,
                 "usage: kor-launch --client APP_PATH [--id APP_ID] BUNDLE.app [ARGS...]\n");
    return 2;
}

bool WriteInstallerData(const std::string& appId) {
    const char* home = std::getenv("HOME");
    if (!home || !*home) {
        std::fprintf(stderr, "kor-launch: HOME is not set; cannot record the application id\n");
        return false;
    }
    const std::filesystem::path path = std::string(home) + kInstallerDataInHome;
    std::error_code error;
    std::filesystem::create_directories(path.parent_path(), error);
    plist_t dict = plist_new_dict();
    plist_dict_set_item(dict, "KOR_APP_ID", plist_new_string(appId.c_str()));
    char* xml = nullptr;
    uint32_t length = 0;
    plist_to_xml(dict, &xml, &length);
    plist_free(dict);
    if (!xml)
        return false;
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(xml, length);
    std::free(xml);
    if (!out) {
        std::fprintf(stderr, "kor-launch: cannot write %s\n", path.c_str());
        return false;
    }
    return true;
}

struct Result {
    int code = 0;
    std::optional<std::string> message;
};

std::optional<Result> ParsePacket(const std::string& packet) {
    auto first = packet.find('\n');
    if (first == std::string::npos)
        return std::nullopt;
    auto second = packet.find('\n', first + 1);
    if (second == std::string::npos)
        return std::nullopt;
    Result result;
    char* end = nullptr;
    result.code = static_cast<int>(std::strtol(packet.c_str(), &end, 10));
    if (end != packet.c_str() + first)
        return std::nullopt;
    if (packet.compare(first + 1, second - first - 1, "1") == 0)
        result.message = packet.substr(second + 1);
    return result;
}

} // namespace

int main(int argc, char** argv) {
    std::optional<std::string> client;
    std::optional<std::string> appId;
    int i = 1;
    for (; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::printf("usage: kor-launch --client APP_PATH [--id APP_ID] BUNDLE.app [ARGS...]\n"
                        "       kor-launch --help | --version\n"
                        "Starts the patcher of BUNDLE.app as the update manager does, for the\n"
                        "client application APP_PATH, and prints the result it sends:\n"
                        "\"code: N\" and \"message: TEXT\". Exit status 0 when a result arrived,\n"
                        "1 when none did, 2 on bad usage.\n");
            return 0;
        }
        if (arg == "--version") {
            std::printf("kor-launch (Orvel patcher) %s\n", kOrvelVersion);
            return 0;
        }
        if (arg == "--client" && i + 1 < argc)
            client = argv[++i];
        else if (arg == "--id" && i + 1 < argc)
            appId = argv[++i];
        else if (arg.rfind("--", 0) == 0)
            return Usage(("unknown option " + arg).c_str());
        else
            break;
    }
    if (!client || client->empty())
        return Usage("--client APP_PATH is required");
    if (i >= argc)
        return Usage("BUNDLE.app is required");
    const std::string bundle = argv[i++];
    const std::string program = bundle + "/Contents/MacOS/PatcherApp";
    if (::access(program.c_str(), X_OK) != 0)
        return Usage(("no PatcherApp in " + bundle).c_str());
    if (appId && !WriteInstallerData(*appId))
        return 2;

    int channel[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, channel) != 0) {
        std::perror("kor-launch: socketpair");
        return 2;
    }
    pid_t pid = ::fork();
    if (pid < 0) {
        std::perror("kor-launch: fork");
        return 2;
    }
    if (pid == 0) {
        ::close(channel[0]);
        ::fcntl(channel[1], F_SETFD, 0); // the patcher inherits its end
        ::setenv(KOR_CLIENT_APP_PATH_ENV, client->c_str(), 1);
        ::setenv(KOR_RESULTS_FD_ENV, std::to_string(channel[1]).c_str(), 1);
        std::vector<char*> args = {const_cast<char*>(program.c_str())};
        for (int k = i; k < argc; ++k)
            args.push_back(argv[k]);
        args.push_back(nullptr);
        ::execv(program.c_str(), args.data());
        std::perror("kor-launch: exec");
        ::_exit(127);
    }
    ::close(channel[1]);

    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status))
        std::fprintf(stderr, "kor-launch: PatcherApp ended by signal %d\n", WTERMSIG(status));

    // The patcher has ended; whatever it sent is queued. The last result counts.
    std::optional<Result> result;
    std::vector<char> buffer(128 * 1024);
    for (;;) {
        ssize_t n = ::recv(channel[0], buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        if (auto parsed = ParsePacket(std::string(buffer.data(), static_cast<size_t>(n))))
            result = parsed;
    }
    ::close(channel[0]);
    if (!result) {
        std::fprintf(stderr, "kor-launch: no result received\n");
        return 1;
    }
    std::printf("code: %d\n", result->code);
    if (result->message)
        std::printf("message: %s\n", result->message->c_str());
    else
        std::printf("message:\n");
    return 0;
}
