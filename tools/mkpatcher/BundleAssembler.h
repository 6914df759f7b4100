#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>

// Makes a runnable patcher bundle from a configuration, a manifest and a payload folder:
//   <Name>.app/Contents/Info.plist
//   <Name>.app/Contents/MacOS/PatcherApp
//   <Name>.app/Contents/Frameworks/   (results library, orvel_zoth.framework/orvel_zoth)
//   <Name>.app/Contents/Resources/    config.xml, manifest.xml, Payload.cpio.gz, bspatch, locale/
// The program, the libraries, the patch tool and the string tables are copied from a built
// patcher bundle.
class BundleAssembler {
public:
    struct Options {
        std::string configPath;
        std::string manifestPath;
        std::optional<std::string> payloadDir;  // none: an archive without entries
        std::optional<std::string> name;        // none: the output folder's name without ".app"
        std::string outPath;                    // must end in ".app"
        std::optional<std::string> builtBundle; // none: found next to this program
        bool force = false;                     // replace a non-empty output folder
        bool keepDebugInfo = false; // copy the program and libraries with their debug sections
    };

    struct Result {
        std::string bundlePath;
        uint64_t payloadFiles = 0;
        uint64_t payloadBytes = 0;        // before compression
        uint64_t payloadArchiveBytes = 0; // Payload.cpio.gz
    };

    // Builds the bundle in a temporary folder beside the output and moves it into place at
    // the end, so a failure never leaves a half-made bundle. 0 on success, 1 with a message
    // in error otherwise.
    [[nodiscard]] static int assemble(const Options& options, Result* result, std::string* error);

    // The payload files the manifest's file set patches with (ObjectName of its PATCH
    // entries), which the payload archive carries first; none when it cannot be read.
    static std::set<std::string> patchFilesOf(const std::string& manifestPath);

    // The built patcher bundle that ships with this program: the nearest "PatcherApp.app"
    // in the folder of the executable or one of the folders above it (a build tree), else
    // the installed template beside the installed program.
    static std::optional<std::string> findBuiltBundle();

    // Drops the debug sections of an ELF file in place with objcopy; a patcher carries the
    // program and libraries without them (a few MB instead of tens). False with a reason when
    // objcopy is missing or fails; the file is then left as it was.
    static bool stripDebugInfo(const std::string& path, std::string* error);

    // Nothing when the built bundle holds everything a patcher needs; else what is missing.
    static std::optional<std::string> checkBuiltBundle(const std::string& builtBundle);

    // Whether an output path is taken: it exists and is not an empty folder. Without force
    // such an output is refused before any work.
    static bool outputTaken(const std::string& path);

    // Nothing when the file parses as XML with the given root element; else why not.
    static std::optional<std::string> checkXmlRoot(const std::string& path,
                                                   const std::string& rootName);
};
