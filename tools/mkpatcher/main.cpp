// mkpatcher: the release engineer's tool that makes patcher bundles.

#include "Bsdiff.h"
#include "BundleAssembler.h"
#include "BundleSigner.h"
#include "PatcherBuilder.h"
#include "base/Version.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr const char* kUsage =
    "usage:\n"
    "  mkpatcher assemble --config FILE --manifest FILE [--payload DIR] [--name NAME]\n"
    "                     --out DIR.app [--from BUILT_BUNDLE] [--force] [--sign-key FILE]\n"
    "  mkpatcher bsdiff OLD NEW PATCH\n"
    "  mkpatcher keygen --private FILE --public FILE\n"
    "  mkpatcher sign BUNDLE.app --key PRIVATE_KEY_FILE\n"
    "  mkpatcher verify BUNDLE.app --key KEY_FILE [--json]\n"
    "  mkpatcher create --old OLD.app --new NEW.app --out DIR.app --code CODE [--code CODE...]\n"
    "                   [--config-template FILE] [--name NAME] [--from BUILT_BUNDLE] [--force]\n"
    "                   [--sign-key FILE]\n"
    "                   [--family F] [--product-name N] [--patcher-id ID] [--build-number B]\n"
    "                   [--app-name A] [--bundle-id ID] [--old-version V] [--new-version V]\n"
    "                   [--kvr-path PATH] [--running-app NAME...] [--space-system KB]\n"
    "                   [--space-target KB] [--combo] [--patch-ratio R] [--min-patch-size BYTES]\n";

// Options of the form "--key value" and "--flag"; anything else is an error.
struct ParsedOptions {
    std::map<std::string, std::string> values;
    std::map<std::string, std::vector<std::string>> lists;
    std::map<std::string, bool> flags;
    std::vector<std::string> positional;
};

std::optional<ParsedOptions> ParseOptions(int argc, char** argv, int first,
                                          const std::vector<std::string>& valueOptions,
                                          const std::vector<std::string>& flagOptions,
                                          std::string* error,
                                          const std::vector<std::string>& listOptions = {}) {
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
        for (const auto& l : listOptions) {
            if (l == key) {
                if (i + 1 >= argc) {
                    *error = "option " + arg + " needs a value";
                    return std::nullopt;
                }
                parsed.lists[key].push_back(argv[++i]);
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

// Before a bundle is made for signing: the key must be a private Ed25519 key.
bool CheckSigningKey(const std::string& keyPath, const char* command) {
    std::string error;
    const auto key = Ed25519Key::readPemFile(keyPath, &error);
    if (key && !key->hasPrivateKey())
        error = keyPath + " holds a public key; signing needs the private key";
    if (key && key->hasPrivateKey())
        return true;
    std::fprintf(stderr, "mkpatcher %s: %s\n", command, error.c_str());
    return false;
}

// Signs a bundle just made; one that cannot be signed is removed again, so that a failed
// command leaves no bundle behind.
bool SignMadeBundle(const std::string& bundle, const std::string& keyPath, const char* command) {
    std::string error;
    std::string fingerprint;
    if (!BundleSigner::signBundle(bundle, keyPath, &error, &fingerprint)) {
        std::fprintf(stderr, "mkpatcher %s: cannot sign %s: %s\n", command, bundle.c_str(),
                     error.c_str());
        std::error_code ignored;
        std::filesystem::remove_all(bundle, ignored);
        return false;
    }
    std::printf("Signed %s with key %s\n", bundle.c_str(), fingerprint.c_str());
    return true;
}

int Keygen(int argc, char** argv) {
    std::string error;
    auto parsed = ParseOptions(argc, argv, 2, {"private", "public"}, {}, &error);
    if (!parsed)
        return UsageError(error);
    if (!parsed->positional.empty())
        return UsageError("unexpected argument " + parsed->positional.front());
    const auto privatePath = Value(*parsed, "private");
    const auto publicPath = Value(*parsed, "public");
    if (!privatePath || !publicPath)
        return UsageError("keygen needs --private and --public");
    std::string fingerprint;
    if (!BundleSigner::writeKeyPair(*privatePath, *publicPath, &error, &fingerprint)) {
        std::fprintf(stderr, "mkpatcher keygen: %s\n", error.c_str());
        return 1;
    }
    std::printf("Wrote the Ed25519 key %s: private key %s (mode 600), public key %s\n",
                fingerprint.c_str(), privatePath->c_str(), publicPath->c_str());
    return 0;
}

int Sign(int argc, char** argv) {
    std::string error;
    auto parsed = ParseOptions(argc, argv, 2, {"key"}, {}, &error);
    if (!parsed)
        return UsageError(error);
    if (parsed->positional.size() != 1 || !Value(*parsed, "key"))
        return UsageError("sign needs BUNDLE.app and --key");
    const std::string bundle = parsed->positional.front();
    std::string fingerprint;
    if (!BundleSigner::signBundle(bundle, *Value(*parsed, "key"), &error, &fingerprint)) {
        std::fprintf(stderr, "mkpatcher sign: %s\n", error.c_str());
        return 1;
    }
    std::printf("Signed %s with key %s\n", bundle.c_str(), fingerprint.c_str());
    return 0;
}

// 0 only for a good signature by the key given, for the identity the configuration states.
int Verify(int argc, char** argv) {
    std::string error;
    auto parsed = ParseOptions(argc, argv, 2, {"key"}, {"json"}, &error);
    if (!parsed)
        return UsageError(error);
    if (parsed->positional.size() != 1 || !Value(*parsed, "key"))
        return UsageError("verify needs BUNDLE.app and --key");
    const std::string bundle = parsed->positional.front();
    const BundleSigner::Report report = BundleSigner::verifyBundle(bundle, *Value(*parsed, "key"));
    const std::string text = parsed->flags.count("json") ? BundleSigner::reportJson(bundle, report)
                                                         : BundleSigner::reportText(bundle, report);
    std::fputs(text.c_str(), stdout);
    return report.good ? 0 : 1;
}

int Assemble(int argc, char** argv) {
    std::string error;
    auto parsed = ParseOptions(argc, argv, 2,
                               {"config", "manifest", "payload", "name", "out", "from", "sign-key"},
                               {"force"}, &error);
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

    const auto signKey = Value(*parsed, "sign-key");
    if (signKey && !CheckSigningKey(*signKey, "assemble"))
        return 1;

    BundleAssembler::Result result;
    if (BundleAssembler::assemble(options, &result, &error) != 0) {
        std::fprintf(stderr, "mkpatcher assemble: %s\n", error.c_str());
        return 1;
    }
    if (signKey && !SignMadeBundle(result.bundlePath, *signKey, "assemble"))
        return 1;
    std::printf("Assembled %s: payload %llu files, %llu bytes (%llu compressed)\n",
                result.bundlePath.c_str(), static_cast<unsigned long long>(result.payloadFiles),
                static_cast<unsigned long long>(result.payloadBytes),
                static_cast<unsigned long long>(result.payloadArchiveBytes));
    return 0;
}

// Progress on standard error, only when somebody watches it.
class ProgressLine {
public:
    explicit ProgressLine(std::string label) : _label(std::move(label)), _shown(::isatty(2) == 1) {}
    ~ProgressLine() {
        if (_shown && _last >= 0)
            std::fprintf(stderr, "\r\033[K");
    }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;
    void operator()(double done) { show(_label, done); }
    void show(const std::string& label, double done) {
        const int percent = static_cast<int>(done * 100);
        if (!_shown || (percent == _last && label == _lastLabel))
            return;
        _last = percent;
        _lastLabel = label;
        std::string text = label.size() > 70 ? "..." + label.substr(label.size() - 67) : label;
        std::fprintf(stderr, "\r\033[K%3d%% %s", percent, text.c_str());
        std::fflush(stderr);
    }
    bool shown() const { return _shown; }

private:
    std::string _label;
    bool _shown;
    int _last = -1;
    std::string _lastLabel;
};

int Diff(int argc, char** argv) {
    if (argc != 5)
        return UsageError("bsdiff needs OLD NEW PATCH");
    std::string error;
    Bsdiff::Stats stats;
    bool ok;
    {
        ProgressLine line("bsdiff");
        ok = Bsdiff::diffFiles(argv[2], argv[3], argv[4], &error, &stats,
                               [&line](double done) { line(done); });
    }
    if (!ok) {
        std::fprintf(stderr, "mkpatcher bsdiff: %s\n", error.c_str());
        return 1;
    }
    std::printf("Wrote %s: %llu bytes (%llu control entries, %llu diff bytes, %llu extra bytes)\n",
                argv[4], static_cast<unsigned long long>(stats.patchBytes),
                static_cast<unsigned long long>(stats.controlEntries),
                static_cast<unsigned long long>(stats.diffBytes),
                static_cast<unsigned long long>(stats.extraBytes));
    return 0;
}

std::optional<uint64_t> Number(const ParsedOptions& options, const std::string& key,
                               std::string* error) {
    const auto text = Value(options, key);
    if (!text)
        return std::nullopt;
    char* end = nullptr;
    const unsigned long long value = std::strtoull(text->c_str(), &end, 10);
    if (text->empty() || *end != '\0') {
        *error = "--" + key + " needs a number";
        return std::nullopt;
    }
    return value;
}

int Create(int argc, char** argv) {
    std::string error;
    auto parsed = ParseOptions(argc, argv, 2,
                               {"old",
                                "new",
                                "out",
                                "name",
                                "from",
                                "config-template",
                                "family",
                                "product-name",
                                "patcher-id",
                                "build-number",
                                "app-name",
                                "bundle-id",
                                "old-version",
                                "new-version",
                                "kvr-path",
                                "space-system",
                                "space-target",
                                "patch-ratio",
                                "min-patch-size",
                                "sign-key"},
                               {"force", "combo"}, &error, {"code", "running-app"});
    if (!parsed)
        return UsageError(error);
    if (!parsed->positional.empty())
        return UsageError("unexpected argument " + parsed->positional.front());
    for (const char* required : {"old", "new", "out"}) {
        if (!Value(*parsed, required))
            return UsageError(std::string("create needs --") + required);
    }
    PatcherBuilder::Options options;
    options.oldTree = *Value(*parsed, "old");
    options.newTree = *Value(*parsed, "new");
    options.outPath = *Value(*parsed, "out");
    options.name = Value(*parsed, "name");
    options.builtBundle = Value(*parsed, "from");
    options.force = parsed->flags.count("force") != 0;
    if (auto ratio = Value(*parsed, "patch-ratio")) {
        options.patchRatio = std::atof(ratio->c_str());
        if (options.patchRatio <= 0)
            return UsageError("--patch-ratio needs a positive number");
    }

    if (auto size = Number(*parsed, "min-patch-size", &error))
        options.minPatchSize = *size;
    if (!error.empty())
        return UsageError(error);

    if (auto path = Value(*parsed, "config-template")) {
        auto fromTemplate = PatcherIdentity::fromTemplate(*path, &error);
        if (!fromTemplate) {
            std::fprintf(stderr, "mkpatcher create: %s\n", error.c_str());
            return 1;
        }
        options.identity = *fromTemplate;
    }
    PatcherIdentity given;
    given.family = Value(*parsed, "family").value_or("");
    given.productName = Value(*parsed, "product-name").value_or("");
    given.patcherId = Value(*parsed, "patcher-id").value_or("");
    given.buildNumber = Value(*parsed, "build-number").value_or("");
    given.appName = Value(*parsed, "app-name").value_or("");
    given.bundleIdentifier = Value(*parsed, "bundle-id").value_or("");
    given.oldVersion = Value(*parsed, "old-version").value_or("");
    given.newVersion = Value(*parsed, "new-version").value_or("");
    given.kvrFilePath = Value(*parsed, "kvr-path").value_or("");
    given.installationCodes = parsed->lists["code"];
    given.runningApps = parsed->lists["running-app"];
    given.spaceSystemKb = Number(*parsed, "space-system", &error);
    given.spaceTargetKb = Number(*parsed, "space-target", &error);
    if (!error.empty())
        return UsageError(error);
    given.combo = parsed->flags.count("combo") != 0;
    options.identity.overrideWith(given);

    const auto signKey = Value(*parsed, "sign-key");
    if (signKey && !CheckSigningKey(*signKey, "create"))
        return 1;

    PatcherBuilder::Report report;
    int status;
    {
        ProgressLine line("");
        std::string lastPhase;
        status = PatcherBuilder::create(
            options, &report, &error, [&](const std::string& phase, double done) {
                // Without a terminal each phase is one line; patches are one phase.
                const std::string head = phase.substr(0, phase.find(':'));
                if (head != lastPhase && !line.shown()) {
                    std::fprintf(stderr, "mkpatcher: %s\n", head.c_str());
                    lastPhase = head;
                }
                line.show(phase, done);
            });
    }
    if (status != 0) {
        std::fprintf(stderr, "mkpatcher create: %s\n", error.c_str());
        return 1;
    }
    if (signKey && !SignMadeBundle(report.bundlePath, *signKey, "create"))
        return 1;
    const auto& id = report.identity;
    auto u = [](uint64_t v) { return static_cast<unsigned long long>(v); };
    std::printf("Created %s: %s %s -> %s (%s.app)\n", report.bundlePath.c_str(),
                id.productName.c_str(), id.oldVersion.c_str(), id.newVersion.c_str(),
                id.appName.c_str());
    std::printf("  files added:        %d\n", report.added);
    std::printf("  files patched:      %d\n", report.patched);
    std::printf("  files overwritten:  %d\n", report.overwritten);
    std::printf("  files removed:      %d\n", report.removed);
    std::printf("  files unchanged:    %d\n", report.unchanged);
    std::printf("  links created:      %d, removed: %d\n", report.linksCreated,
                report.linksRemoved);
    std::printf("  permission changes: %d\n", report.permissionChanges);
    std::printf("  folders added:      %d, removed: %d\n", report.foldersAdded,
                report.foldersRemoved);
    std::printf("  payload: %llu bytes (%llu compressed) for a new tree of %llu bytes (%.1f%%)\n",
                u(report.payloadBytes), u(report.payloadArchiveBytes), u(report.newTreeBytes),
                report.newTreeBytes ? 100.0 * static_cast<double>(report.payloadArchiveBytes) /
                                          static_cast<double>(report.newTreeBytes)
                                    : 0.0);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2)
        return UsageError("no command given");
    const std::string command = argv[1];
    if (command == "assemble")
        return Assemble(argc, argv);
    if (command == "create")
        return Create(argc, argv);
    if (command == "bsdiff")
        return Diff(argc, argv);
    if (command == "keygen")
        return Keygen(argc, argv);
    if (command == "sign")
        return Sign(argc, argv);
    if (command == "verify")
        return Verify(argc, argv);
    if (command == "--version") {
        std::printf("mkpatcher (Orvel patcher) %s\n", kOrvelVersion);
        return 0;
    }
    if (command == "--help" || command == "-h" || command == "help") {
        std::printf("%s", kUsage);
        return 0;
    }
    return UsageError("unknown command " + command);
}
