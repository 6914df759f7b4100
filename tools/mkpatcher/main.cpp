// mkpatcher: the release engineer's tool that makes patcher bundles.

#include "BundleAssembler.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr const char* kUsage =
    "usage:\n"
    "  mkpatcher assemble --config FILE --manifest FILE [--payload DIR] [--name NAME]\n"
    "                     --out DIR.app [--from BUILT_BUNDLE] [--force]\n";

// Options of the form "--key value" and "--flag"; anything else is an error.
struct ParsedOptions {
    std::map<std::string, std::string> values;
    std::map<std::string, bool> flags;
    std::vector<std::string> positional;
};

std::optional<ParsedOptions> ParseOptions(int argc, char** argv, int first,
                                          const std::vector<std::string>& valueOptions,
                                          const std::vector<std::string>& flagOptions,
                                          std::string* error) {
    ParsedOptions parsed;
    for (int i = first; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--", 0) != 0 || arg == "--") {
            parsed.positional.push_back(arg);
            continue;
        }
        const std::string key = arg.substr(2);
        bool known = false;
        for (const auto& v : valueOptions) {
            if (v == key) {
                if (i + 1 >= argc) {
                    *error = "option " + arg + " needs a value";
                    return std::nullopt;
                }
                if (parsed.values.count(key)) {
                    *error = "option " + arg + " given twice";
                    return std::nullopt;
                }
                parsed.values[key] = argv[++i];
                known = true;
            }
        }
        for (const auto& f : flagOptions) {
            if (f == key) {
                parsed.flags[key] = true;
                known = true;
            }
        }
        if (!known) {
            *error = "unknown option " + arg;
            return std::nullopt;
        }
    }
    return parsed;
}

std::optional<std::string> Value(const ParsedOptions& options, const std::string& key) {
    auto it = options.values.find(key);
    if (it == options.values.end())
        return std::nullopt;
    return it->second;
}

int UsageError(const std::string& message) {
    std::fprintf(stderr, "mkpatcher: %s\n%s", message.c_str(), kUsage);
    return 2;
}

int Assemble(int argc, char** argv) {
    std::string error;
    auto parsed = ParseOptions(
        argc, argv, 2, {"config", "manifest", "payload", "name", "out", "from"}, {"force"}, &error);
    if (!parsed)
        return UsageError(error);
    if (!parsed->positional.empty())
        return UsageError("unexpected argument " + parsed->positional.front());
    BundleAssembler::Options options;
    for (const char* required : {"config", "manifest", "out"}) {
        if (!Value(*parsed, required))
            return UsageError(std::string("assemble needs --") + required);
    }
    options.configPath = *Value(*parsed, "config");
    options.manifestPath = *Value(*parsed, "manifest");
    options.outPath = *Value(*parsed, "out");
    options.payloadDir = Value(*parsed, "payload");
    options.name = Value(*parsed, "name");
    options.builtBundle = Value(*parsed, "from");
    options.force = parsed->flags.count("force") != 0;

    BundleAssembler::Result result;
    if (BundleAssembler::assemble(options, &result, &error) != 0) {
        std::fprintf(stderr, "mkpatcher assemble: %s\n", error.c_str());
        return 1;
    }
    std::printf("Assembled %s: payload %llu files, %llu bytes (%llu compressed)\n",
                result.bundlePath.c_str(), static_cast<unsigned long long>(result.payloadFiles),
                static_cast<unsigned long long>(result.payloadBytes),
                static_cast<unsigned long long>(result.payloadArchiveBytes));
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2)
        return UsageError("no command given");
    const std::string command = argv[1];
    if (command == "assemble")
        return Assemble(argc, argv);
    if (command == "--help" || command == "-h" || command == "help") {
        std::printf("%s", kUsage);
        return 0;
    }
    return UsageError("unknown command " + command);
}
