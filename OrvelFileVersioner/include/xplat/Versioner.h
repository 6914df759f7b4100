#pragma once

#include "xplat/OFVAssert.h"
#include "xplat/VersionerABC.h"

#include <cstdint>
#include <memory>

// Base of every concrete versioner T (which derives from Versioner<T>): supplies the creation
// function the factory registers and the part setter the versioners share.
template <class T> class Versioner : public VersionerABC {
public:
    // Makes a new T, owned by the caller.
    static std::unique_ptr<VersionerABC> CreateVersioner() { return std::make_unique<T>(); }

    // Stores inValue as part inPart (0 to 3, 0 most significant) of ioVersion and returns true.
    // Any other part number is a programming error and aborts.
    static bool SetVersionPart(int inPart, int32_t inValue, OFV_FileVersion& ioVersion) {
        switch (inPart) {
        case 0:
            ioVersion.majorVersion = inValue;
            break;
        case 1:
            ioVersion.minorVersion = inValue;
            break;
        case 2:
            ioVersion.fixVersion = inValue;
            break;
        case 3:
            ioVersion.buildVersion = inValue;
            break;
        default:
            OFV_ASSERT(!"Invalid part specified for SetVersionPart.  Valid range (0,3)");
        }
        return true;
    }
};
