#pragma once

#include "xplat/VersionerABC.h"

#include <memory>
#include <vector>

// The registry of versioners and the walk over it.
//
// The built-in versioners are registered by static initialisers defined in the factory's own
// unit, in the order they are tried. Keeping them there means any program that reaches the
// factory also pulls every versioner out of the static library, and their order does not depend
// on the order in which object files are linked.
class VersionFactory {
public:
    using CreateVersionerFunc = std::unique_ptr<VersionerABC> (*)();

    // The registered creation functions, in registration order. The list is made on first use,
    // so registration from any static initialiser finds it ready.
    static std::vector<CreateVersionerFunc>& GetVersionerFuncs();

    // Appends inFunc to the registry; returns true.
    static bool RegisterVersionMethod(CreateVersionerFunc inFunc);

    // Tries the registered versioners in order on inPath; the first that recognises the file
    // fills the outputs and the result is true. False when none did; the outputs may then hold
    // parts or a type written by a versioner that gave up.
    [[nodiscard]] static bool GetFileVersion(const PlatformFilePath& inPath,
                                             OFV_FileVersion& outVersion, OFV_FileType& outType);

    // Results of the start-up registrations, in registration order.
    static const bool RegisterCMapVersioner;
    static const bool RegisterColorProfileVersioner;
    static const bool RegisterOTFFontVersioner;
    static const bool RegisterPFBFontVersioner;
    static const bool RegisterUnicodeMapVersioner;
    static const bool RegisterICUVersioner;
    static const bool RegisterFontDatabaseVersioner;
    static const bool RegisterJSXVersioner;
};
