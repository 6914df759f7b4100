// mkpatcher: the release engineer's tool that makes patcher bundles.

#include "Bsdiff.h"
#include "BundleAssembler.h"
#include "BundleSigner.h"
#include "PatcherBuilder.h"
#include "TerminalProgress.h"
#include "base/Version.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

// What --help prints for a command: its usage, what it does, and one line per argument and
// option. Usage errors print the usage lines too.
struct Entry {
    const char* name;
    const char* text;
};

struct CommandHelp {
    const char* name;
    const char* summary;
    std::vector<const char*> usage; // lines after "usage: "
    std::vector<Entry> arguments;
    std::vector<Entry> options;
};

const Entry kHelpOption{"-h, --help", "print this help and exit"};

const std::vector<CommandHelp>& Commands() {
    static const std::vector<CommandHelp> commands = {
        {"create",
         "makes a patcher from the old and the new version of an application bundle",
         {"mkpatcher create --old OLD.app --new NEW.app --out DIR.app --code GUID [--code GUID...]",
          "                 [options]"},
         {},
         {{"--old OLD.app", "the application bundle of the installed (old) version"},
          {"--new NEW.app", "the application bundle of the new version"},
          {"--out DIR.app", "the patcher bundle to make, outside --old and --new"},
          {"--code GUID",
           "an installation code: 8-4-4-4-12 hex digits, braces optional; repeatable"},
          {"--force", "replace an existing --out"},
          {"--keep-debug-info", "copy the patcher's program and libraries with their debug "
                                "sections (by default they are left out)"},
          {"--allow-downgrade", "accept a new version that is not newer than the old one"},
          {"--sign-key FILE", "sign the patcher with this private Ed25519 key"},
          {"--from BUILT_BUNDLE", "the built PatcherApp.app to copy (default: the one beside "
                                  "mkpatcher)"},
          {"--name NAME", "the patcher's name (default: the name of --out without .app)"},
          {"--config-template FILE", "a PatcherConfig document giving the values below"},
          {"--family F", "the product family (default: Tavrin)"},
          {"--product-name N", "the product name shown to the user (default: CFBundleName of "
                               "--new)"},
          {"--patcher-id ID", "the patcher's ID in the patch history (default: APP-OLD-NEW)"},
          {"--build-number B", "a build number, only logged"},
          {"--app-name A", "the application's name, its bundle being A.app (default: from --new)"},
          {"--bundle-id ID", "the bundle identifier to check (default: CFBundleIdentifier of "
                             "--new)"},
          {"--old-version V", "the old version (default: CFBundleVersion of --old)"},
          {"--new-version V", "the new version (default: CFBundleVersion of --new)"},
          {"--kvr-path PATH", "the KVR file, as [INSTALLDIR]/..."},
          {"--running-app NAME",
           "an application to be closed first; repeatable (default: from --old)"},
          {"--space-system KB", "space needed on the system volume (default: computed)"},
          {"--space-target KB", "space needed on the application's volume (default: computed)"},
          {"--combo", "a combo patcher, which may update several old versions"},
          {"--patch-ratio R", "patch a changed file when the patch is at most R of it (default: "
                              "0.5)"},
          {"--min-patch-size BYTES", "ship smaller changed files whole (default: 65536)"},
          {"--no-progress", "no progress bar on a terminal; one line per phase instead"},
          kHelpOption}},
        {"assemble",
         "makes a patcher bundle from a hand-written configuration, manifest and payload",
         {"mkpatcher assemble --config FILE --manifest FILE --out DIR.app [--payload DIR]",
          "                   [--name NAME] [--from BUILT_BUNDLE] [--force] [--keep-debug-info]",
          "                   [--sign-key FILE]"},
         {},
         {{"--config FILE", "the configuration (a PatcherConfig document)"},
          {"--manifest FILE", "the manifest (a Manifest document)"},
          {"--out DIR.app", "the patcher bundle to make"},
          {"--payload DIR", "the folder of payload files (default: an empty payload)"},
          {"--name NAME", "the patcher's name (default: the name of --out without .app)"},
          {"--from BUILT_BUNDLE", "the built PatcherApp.app to copy (default: the one beside "
                                  "mkpatcher)"},
          {"--force", "replace an existing --out"},
          {"--keep-debug-info", "copy the patcher's program and libraries with their debug "
                                "sections (by default they are left out)"},
          {"--sign-key FILE", "sign the patcher with this private Ed25519 key"},
          kHelpOption}},
        {"bsdiff",
         "writes the BSDIFF40 patch that turns one file into another",
         {"mkpatcher bsdiff OLD NEW PATCH"},
         {{"OLD", "the file as it is"},
          {"NEW", "the file as it shall be"},
          {"PATCH", "the patch to write"}},
         {kHelpOption}},
        {"keygen",
         "makes an Ed25519 key pair for signing patchers",
         {"mkpatcher keygen --private FILE --public FILE"},
         {},
         {{"--private FILE", "where to write the private key (PEM, mode 600)"},
          {"--public FILE", "where to write the public key (PEM)"},
          kHelpOption}},
        {"sign",
         "signs (again) a patcher bundle",
         {"mkpatcher sign BUNDLE.app --key PRIVATE_KEY_FILE"},
         {{"BUNDLE.app", "the patcher bundle to sign"}},
         {{"--key FILE", "the private Ed25519 key to sign with"}, kHelpOption}},
        {"verify",
         "checks a patcher bundle's signature and what it was signed for",
         {"mkpatcher verify BUNDLE.app --key KEY_FILE [--json]"},
         {{"BUNDLE.app", "the patcher bundle to check"}},
         {{"--key FILE", "the key the signature must be made with (PEM)"},
          {"--json", "print the verdict and what was signed as JSON"},
          kHelpOption}},
    };
    return commands;
}

const CommandHelp& HelpOf(const std::string& name) {
    for (const auto& command : Commands()) {
        if (name == command.name)
            return command;
    }
    std::abort(); // only called with the names above
}

std::string UsageLines(const CommandHelp& command) {
    std::string text;
    for (size_t i = 0; i < command.usage.size(); ++i)
        text += std::string(i == 0 ? "usage: " : "       ") + command.usage[i] + "\n";
    return text;
}

std::string EntryLines(const char* title, const std::vector<Entry>& entries) {
    if (entries.empty())
        return {};
    size_t width = 0;
    for (const auto& entry : entries)
        width = std::max(width, std::strlen(entry.name));
    std::string text = std::string("\n") + title + ":\n";
    for (const auto& entry : entries) {
        const std::string name = entry.name;
        text += "  " + name + std::string(width - name.size() + 2, ' ') + entry.text + "\n";
    }
    return text;
}

int CommandHelpText(const std::string& name) {
    const CommandHelp& command = HelpOf(name);
    const std::string text = UsageLines(command) + "\n" + command.summary + "\n" +
                             EntryLines("arguments", command.arguments) +
                             EntryLines("options", command.options);
    std::fputs(text.c_str(), stdout);
    return 0;
}

std::string MainUsage() {
    std::string text = "usage: mkpatcher COMMAND [ARGUMENTS] (mkpatcher COMMAND --help describes "
                       "each one)\n       mkpatcher --version | --help\n\ncommands:\n";
    for (const auto& command : Commands()) {
        const std::string name = command.name;
        text += "  " + name + std::string(10 - name.size(), ' ') + command.summary + "\n";
    }
    return text;
}

// Whether a command's arguments ask for its help; then it does nothing else.
bool WantsHelp(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0)
            return true;
    }
    return false;
}

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

// A command line that cannot be run as given: the message, the usage, exit status 2.
int UsageError(const std::string& message) {
    std::fprintf(stderr, "mkpatcher: %s\n%s", message.c_str(), MainUsage().c_str());
    return 2;
}

int UsageError(const char* command, const std::string& message) {
    std::fprintf(stderr, "mkpatcher: %s\n%s", message.c_str(), UsageLines(HelpOf(command)).c_str());
    return 2;
}

// An input refused before any work: one line, exit status 1.
int Refuse(const char* command, const std::string& message) {
    std::fprintf(stderr, "mkpatcher %s: %s\n", command, message.c_str());
    return 1;
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
    if (WantsHelp(argc, argv))
        return CommandHelpText("keygen");
    std::string error;
    auto parsed = ParseOptions(argc, argv, 2, {"private", "public"}, {}, &error);
    if (!parsed)
        return UsageError("keygen", error);
    if (!parsed->positional.empty())
        return UsageError("keygen", "unexpected argument " + parsed->positional.front());
    const auto privatePath = Value(*parsed, "private");
    const auto publicPath = Value(*parsed, "public");
    if (!privatePath || !publicPath)
        return UsageError("keygen", "keygen needs --private and --public");
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
    if (WantsHelp(argc, argv))
        return CommandHelpText("sign");
    std::string error;
    auto parsed = ParseOptions(argc, argv, 2, {"key"}, {}, &error);
    if (!parsed)
        return UsageError("sign", error);
    if (parsed->positional.size() != 1 || !Value(*parsed, "key"))
        return UsageError("sign", "sign needs BUNDLE.app and --key");
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
    if (WantsHelp(argc, argv))
        return CommandHelpText("verify");
    std::string error;
    auto parsed = ParseOptions(argc, argv, 2, {"key"}, {"json"}, &error);
    if (!parsed)
        return UsageError("verify", error);
    if (parsed->positional.size() != 1 || !Value(*parsed, "key"))
        return UsageError("verify", "verify needs BUNDLE.app and --key");
    const std::string bundle = parsed->positional.front();
    const BundleSigner::Report report = BundleSigner::verifyBundle(bundle, *Value(*parsed, "key"));
    const std::string text = parsed->flags.count("json") ? BundleSigner::reportJson(bundle, report)
                                                         : BundleSigner::reportText(bundle, report);
    std::fputs(text.c_str(), stdout);
    return report.good ? 0 : 1;
}

int Assemble(int argc, char** argv) {
    if (WantsHelp(argc, argv))
        return CommandHelpText("assemble");
    std::string error;
    auto parsed = ParseOptions(argc, argv, 2,
                               {"config", "manifest", "payload", "name", "out", "from", "sign-key"},
                               {"force", "keep-debug-info"}, &error);
    if (!parsed)
        return UsageError("assemble", error);
    if (!parsed->positional.empty())
        return UsageError("assemble", "unexpected argument " + parsed->positional.front());
    BundleAssembler::Options options;
    for (const char* required : {"config", "manifest", "out"}) {
        if (!Value(*parsed, required))
            return UsageError("assemble", std::string("assemble needs --") + required);
    }
    options.configPath = *Value(*parsed, "config");
    options.manifestPath = *Value(*parsed, "manifest");
    options.outPath = *Value(*parsed, "out");
    options.payloadDir = Value(*parsed, "payload");
    options.name = Value(*parsed, "name");
    options.builtBundle = Value(*parsed, "from");
    options.force = parsed->flags.count("force") != 0;
    options.keepDebugInfo = parsed->flags.count("keep-debug-info") != 0;

    // The inputs named on the command line, and a free output, before any work.
    for (const char* input : {"config", "manifest", "payload"}) {
        const auto path = Value(*parsed, input);
        std::error_code ec;
        if (path && !std::filesystem::exists(*path, ec))
            return Refuse("assemble", std::string("--") + input + " " + *path + " does not exist");
    }
    std::error_code ec;
    if (options.payloadDir && !std::filesystem::is_directory(*options.payloadDir, ec))
        return Refuse("assemble", "--payload " + *options.payloadDir + " is not a folder");
    if (!options.force && BundleAssembler::outputTaken(options.outPath))
        return Refuse("assemble", options.outPath + " exists; use --force to replace it");

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

int Diff(int argc, char** argv) {
    if (WantsHelp(argc, argv))
        return CommandHelpText("bsdiff");
    if (argc != 5)
        return UsageError("bsdiff", "bsdiff needs OLD NEW PATCH");
    std::string error;
    Bsdiff::Stats stats;
    bool ok;
    {
        TerminalProgress bar(TerminalProgress::standardError());
        std::error_code ec;
        const uint64_t size = std::filesystem::file_size(argv[3], ec);
        const uint64_t total = ec ? 0 : size;
        ok = Bsdiff::diffFiles(argv[2], argv[3], argv[4], &error, &stats, [&](double done) {
            bar.update("bsdiff", static_cast<uint64_t>(done * static_cast<double>(total)), total,
                       {});
        });
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
    if (WantsHelp(argc, argv))
        return CommandHelpText("create");
    std::string error;
    const std::vector<std::string> lists{"code", "running-app"};
    auto parsed = ParseOptions(
        argc, argv, 2,
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
        {"force", "combo", "allow-downgrade", "no-progress", "keep-debug-info"}, &error, lists);
    if (!parsed)
        return UsageError("create", error);
    if (!parsed->positional.empty())
        return UsageError("create", "unexpected argument " + parsed->positional.front());
    for (const char* required : {"old", "new", "out"}) {
        if (!Value(*parsed, required))
            return UsageError("create", std::string("create needs --") + required);
    }
    PatcherBuilder::Options options;
    options.oldTree = *Value(*parsed, "old");
    options.newTree = *Value(*parsed, "new");
    options.outPath = *Value(*parsed, "out");
    options.name = Value(*parsed, "name");
    options.builtBundle = Value(*parsed, "from");
    options.force = parsed->flags.count("force") != 0;
    options.keepDebugInfo = parsed->flags.count("keep-debug-info") != 0;
    options.allowDowngrade = parsed->flags.count("allow-downgrade") != 0;
    if (auto ratio = Value(*parsed, "patch-ratio")) {
        options.patchRatio = std::atof(ratio->c_str());
        if (options.patchRatio <= 0)
            return UsageError("create", "--patch-ratio needs a positive number");
    }

    if (auto size = Number(*parsed, "min-patch-size", &error))
        options.minPatchSize = *size;
    if (!error.empty())
        return UsageError("create", error);
    // The installed application is looked up by these codes; the installers register GUIDs.
    for (const auto& code : parsed->lists["code"]) {
        if (!PatcherBuilder::isGuid(code))
            return Refuse("create", "--code " + code + " is not a GUID");
    }

    if (auto path = Value(*parsed, "config-template")) {
        auto fromTemplate = PatcherIdentity::fromTemplate(*path, &error);
        if (!fromTemplate)
            return Refuse("create", error);
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
        return UsageError("create", error);
    given.combo = parsed->flags.count("combo") != 0;
    options.identity.overrideWith(given);

    const auto signKey = Value(*parsed, "sign-key");
    if (signKey && !CheckSigningKey(*signKey, "create"))
        return 1;

    PatcherBuilder::Report report;
    int status;
    {
        auto screen = TerminalProgress::standardError();
        screen.terminal = screen.terminal && parsed->flags.count("no-progress") == 0;
        TerminalProgress bar(std::move(screen));
        std::string lastPhase;
        status = PatcherBuilder::create(
            options, &report, &error, [&](const PatcherBuilder::ProgressStep& step) {
                // Without a bar each phase is one line.
                if (!bar.enabled()) {
                    if (step.phase != lastPhase)
                        std::fprintf(stderr, "mkpatcher: %.*s\n",
                                     static_cast<int>(step.phase.size()), step.phase.data());
                    lastPhase = step.phase;
                    return;
                }
                bar.update(step.phase, step.done, step.total, step.item);
                if (step.last)
                    bar.clear();
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
        // "help COMMAND" is that command's help.
        if (command == "help" && argc == 3) {
            for (const auto& known : Commands()) {
                if (known.name == std::string(argv[2]))
                    return CommandHelpText(known.name);
            }
            return UsageError(std::string("unknown command ") + argv[2]);
        }
        std::fputs(MainUsage().c_str(), stdout);
        return 0;
    }
    return UsageError("unknown command " + command);
}
