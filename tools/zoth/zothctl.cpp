// zothctl: registers, shows, changes and removes installations in the installation
// database, as the product family's installers do.
//
// Exit status: 0 done; 1 the code is not registered (or already registered, for add);
// 2 wrong command line; 3 the database could not be opened, read or written.
#include "ZothStore.h"
#include "base/Version.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitNotFound = 1;
constexpr int kExitUsage = 2;
constexpr int kExitDatabase = 3;

constexpr const char* kUsage =
    "usage: zothctl [--db FILE] add --code GUID --installdir DIR [--language L] [--version V]\n"
    "                           [--kvr PATH] [--installed T] [--modified T]\n"
    "       zothctl [--db FILE] show [--code GUID]\n"
    "       zothctl [--db FILE] set --code GUID [--domain N] KEY VALUE\n"
    "       zothctl [--db FILE] remove --code GUID\n"
    "       zothctl --help | --version\n"
    "\n"
    "Without --db the library's default database is used ($ORVEL_ZOTH_DB when set, else\n"
    "/var/opt/Orvel/zoth/zoth.db). Times are seconds since 1970 (0 to 2147483647); add\n"
    "takes the current time when --installed is missing, and the installation time when\n"
    "--modified is. For set, KEY \"version\", \"installed\" and \"modified\" change the\n"
    "payload record; any other KEY (or any KEY with --domain) is a data key of domain N\n"
    "(default 0: INSTALLDIR, installLanguage, KVRConfigPath; 4: the KVR domain).\n";

int UsageError(const std::string& message) {
    std::fprintf(stderr, "zothctl: %s\n%s", message.c_str(), kUsage);
    return kExitUsage;
}

struct Arguments {
    std::map<std::string, std::string> options;
    std::vector<std::string> positional;
};

// Reads "--name VALUE" and "--name=VALUE" options (each at most once, only the allowed
// ones) and the positional arguments.
std::optional<std::string> ParseOptions(const std::vector<std::string>& args, size_t first,
                                        const std::set<std::string>& allowed, Arguments& out) {
    for (size_t i = first; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (arg == "--") {
            out.positional.insert(out.positional.end(), args.begin() + i + 1, args.end());
            break;
        }
        if (arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
            out.positional.push_back(arg);
            continue;
        }
        std::string name = arg.substr(2);
        std::optional<std::string> value;
        if (auto equals = name.find('='); equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.resize(equals);
        }
        if (!allowed.count(name))
            return "unknown option '--" + name + "'";
        if (!value) {
            if (i + 1 >= args.size())
                return "option '--" + name + "' needs a value";
            value = args[++i];
        }
        if (!out.options.emplace(name, *value).second)
            return "option '--" + name + "' given twice";
    }
    return std::nullopt;
}

std::optional<int64_t> ParseTime(const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || value > INT32_MAX)
        return std::nullopt;
    return value;
}

std::optional<int32_t> ParseDomain(const std::string& text) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
        text.size() > 9)
        return std::nullopt;
    return static_cast<int32_t>(std::strtol(text.c_str(), nullptr, 10));
}

bool HasControlCharacters(const std::string& text) {
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f)
            return true;
    }
    return false;
}

class Command {
public:
    explicit Command(std::string databasePath) : _path(std::move(databasePath)) {}

    int open(zoth::OpenMode mode) {
        const int status = zoth::Store::open(_path, mode, _store);
        if (status != kZothNoError) {
            std::fprintf(stderr, "zothctl: cannot open the installation database '%s': %s\n",
                         _path.c_str(), ZothStatusText(status));
            return kExitDatabase;
        }
        return kExitOk;
    }

    // Reports a failed operation on the code; the exit status for it.
    int failed(int status, const std::string& code) const {
        if (status == kZothRecordNotFoundError) {
            std::fprintf(stderr, "zothctl: no installation with code '%s' in '%s'\n", code.c_str(),
                         _path.c_str());
            return kExitNotFound;
        }
        if (status == kZothRecordExistsError) {
            std::fprintf(stderr, "zothctl: an installation with code '%s' is already in '%s'\n",
                         code.c_str(), _path.c_str());
            return kExitNotFound;
        }
        std::fprintf(stderr, "zothctl: the installation database '%s' failed: %s\n", _path.c_str(),
                     ZothStatusText(status));
        return kExitDatabase;
    }

    zoth::Store& store() { return *_store; }

    int show(const std::string& code) {
        zoth::PayloadInfo payload;
        if (int status = _store->getPayload(code, payload))
            return failed(status, code);
        std::vector<ZothCollectionID> collections;
        int status = _store->getCollections(code, ZOTH_COLLECTION_KIND_INSTALLATION, collections);
        if (status != kZothNoError && status != kZothRecordNotFoundError)
            return failed(status, code);
        std::vector<zoth::DomainValue> values;
        if ((status = _store->allData(code, values)))
            return failed(status, code);
        std::printf("code: %s\n", payload.code.c_str());
        std::printf("  version: %s\n", payload.version.c_str());
        for (ZothCollectionID id : collections) {
            zoth::CollectionInfo collection;
            if ((status = _store->getCollection(id, collection)))
                return failed(status, code);
            std::printf("  installed: %lld\n", static_cast<long long>(collection.installed));
            std::printf("  modified: %lld\n", static_cast<long long>(collection.modified));
        }
        for (const auto& value : values)
            std::printf("  domain %d: %s = %s\n", value.domain, value.key.c_str(),
                        value.value.c_str());
        return kExitOk;
    }

private:
    std::string _path;
    std::unique_ptr<zoth::Store> _store;
};

int RunAdd(const std::string& db, const std::vector<std::string>& args, size_t first) {
    Arguments parsed;
    if (auto error = ParseOptions(
            args, first,
            {"code", "installdir", "language", "version", "kvr", "installed", "modified"}, parsed))
        return UsageError("add: " + *error);
    if (!parsed.positional.empty())
        return UsageError("add: unexpected argument '" + parsed.positional.front() + "'");
    auto& options = parsed.options;
    if (!options.count("code") || options["code"].empty())
        return UsageError("add: --code GUID is required");
    if (!options.count("installdir") || options["installdir"].empty())
        return UsageError("add: --installdir DIR is required");
    zoth::Installation installation;
    installation.code = options["code"];
    if (HasControlCharacters(installation.code))
        return UsageError("add: the code must not hold control characters");
    installation.installDir = options["installdir"];
    if (options.count("language"))
        installation.language = options["language"];
    installation.version = options.count("version") ? options["version"] : std::string();
    if (installation.version.size() > ZOTH_MAX_VERSION_LENGTH)
        return UsageError("add: the version is longer than 255 bytes");
    if (options.count("kvr"))
        installation.kvrPath = options["kvr"];
    installation.installed = static_cast<int64_t>(::time(nullptr));
    if (options.count("installed")) {
        auto time = ParseTime(options["installed"]);
        if (!time)
            return UsageError("add: --installed needs seconds from 0 to 2147483647");
        installation.installed = *time;
    }
    installation.modified = installation.installed;
    if (options.count("modified")) {
        auto time = ParseTime(options["modified"]);
        if (!time)
            return UsageError("add: --modified needs seconds from 0 to 2147483647");
        installation.modified = *time;
    }
    Command command(db);
    if (int exitCode = command.open(zoth::OpenMode::Create))
        return exitCode;
    if (int status = command.store().registerInstallation(installation))
        return command.failed(status, installation.code);
    return kExitOk;
}

int RunShow(const std::string& db, const std::vector<std::string>& args, size_t first) {
    Arguments parsed;
    if (auto error = ParseOptions(args, first, {"code"}, parsed))
        return UsageError("show: " + *error);
    if (!parsed.positional.empty())
        return UsageError("show: unexpected argument '" + parsed.positional.front() + "'");
    Command command(db);
    if (int exitCode = command.open(zoth::OpenMode::Snapshot))
        return exitCode;
    if (parsed.options.count("code"))
        return command.show(parsed.options["code"]);
    std::vector<std::string> codes;
    if (int status = command.store().listCodes(codes))
        return command.failed(status, {});
    for (size_t i = 0; i < codes.size(); ++i) {
        if (i > 0)
            std::printf("\n");
        if (int exitCode = command.show(codes[i]))
            return exitCode;
    }
    return kExitOk;
}

int RunSet(const std::string& db, const std::vector<std::string>& args, size_t first) {
    Arguments parsed;
    if (auto error = ParseOptions(args, first, {"code", "domain"}, parsed))
        return UsageError("set: " + *error);
    auto& options = parsed.options;
    if (!options.count("code") || options["code"].empty())
        return UsageError("set: --code GUID is required");
    if (parsed.positional.size() != 2)
        return UsageError("set: KEY and VALUE are required");
    const std::string& code = options["code"];
    const std::string& key = parsed.positional[0];
    const std::string& value = parsed.positional[1];
    if (key.empty())
        return UsageError("set: KEY must not be empty");
    std::optional<int32_t> domain;
    if (options.count("domain")) {
        domain = ParseDomain(options["domain"]);
        if (!domain)
            return UsageError("set: --domain needs a number");
    }
    std::optional<int64_t> time;
    const bool recordField =
        !domain && (key == "version" || key == "installed" || key == "modified");
    if (recordField && key == "version" &&
        (value.empty() || value.size() > ZOTH_MAX_VERSION_LENGTH))
        return UsageError("set: the version must have 1 to 255 bytes");
    if (recordField && key != "version" && !(time = ParseTime(value)))
        return UsageError("set: " + key + " needs seconds from 0 to 2147483647");

    Command command(db);
    if (int exitCode = command.open(zoth::OpenMode::ReadWrite))
        return exitCode;
    int status;
    if (!recordField)
        status = command.store().setData(code, domain.value_or(ZOTH_DOMAIN_PAYLOAD), key, value);
    else if (key == "version")
        status = command.store().setVersion(code, value);
    else if (key == "installed")
        status = command.store().setTimes(code, time, std::nullopt);
    else
        status = command.store().setTimes(code, std::nullopt, time);
    return status == kZothNoError ? kExitOk : command.failed(status, code);
}

int RunRemove(const std::string& db, const std::vector<std::string>& args, size_t first) {
    Arguments parsed;
    if (auto error = ParseOptions(args, first, {"code"}, parsed))
        return UsageError("remove: " + *error);
    if (!parsed.positional.empty())
        return UsageError("remove: unexpected argument '" + parsed.positional.front() + "'");
    if (!parsed.options.count("code") || parsed.options["code"].empty())
        return UsageError("remove: --code GUID is required");
    Command command(db);
    if (int exitCode = command.open(zoth::OpenMode::ReadWrite))
        return exitCode;
    const std::string& code = parsed.options["code"];
    const int status = command.store().removePayload(code);
    return status == kZothNoError ? kExitOk : command.failed(status, code);
}

} // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    size_t next = 0;
    std::string db = zoth::DefaultDatabasePath();
    while (next < args.size() && args[next].compare(0, 1, "-") == 0) {
        const std::string& arg = args[next];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return kExitOk;
        }
        if (arg == "--version") {
            std::printf("zothctl (Orvel patcher) %s\n", kOrvelVersion);
            return kExitOk;
        }
        if (arg == "--db") {
            if (next + 1 >= args.size())
                return UsageError("option '--db' needs a value");
            db = args[next + 1];
            next += 2;
        } else if (arg.compare(0, 5, "--db=") == 0) {
            db = arg.substr(5);
            ++next;
        } else {
            return UsageError("unknown option '" + arg + "'");
        }
        if (db.empty())
            return UsageError("option '--db' needs a file name");
    }
    if (next >= args.size())
        return UsageError("a command is required");
    const std::string& command = args[next];
    // Help asked for after a command is the same help, whatever else is given.
    for (size_t i = next + 1; i < args.size(); ++i) {
        if (args[i] == "--help" || args[i] == "-h") {
            std::fputs(kUsage, stdout);
            return kExitOk;
        }
    }
    if (command == "add")
        return RunAdd(db, args, next + 1);
    if (command == "show")
        return RunShow(db, args, next + 1);
    if (command == "set")
        return RunSet(db, args, next + 1);
    if (command == "remove")
        return RunRemove(db, args, next + 1);
    if (command == "help")
        return std::fputs(kUsage, stdout) < 0 ? kExitUsage : kExitOk;
    return UsageError("unknown command '" + command + "'");
}
