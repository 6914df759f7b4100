// libFuzzer target for the journal reader: RollBackHandler::readWholeEntries on any bytes,
// then the strict parse the replay makes of the document it returns. What the reader
// promises is checked on every input, and a broken promise stops the run (a trap):
//   - the bytes cut off are never more than the input;
//   - a document that is not torn is the input itself, with nothing cut off;
//   - a document parses strictly without a single error, into the counted entries;
//   - read again, a document is whole (not torn), holds the same numbers of file and folder
//     entries, and is given back as it is.
#include "update/RollBackHandler.h"

#include "base/Xml.h"

#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const RollBackHandler::WholeEntries read = RollBackHandler::readWholeEntries(text);
    if (read.cutBytes > size)
        __builtin_trap();
    if (!read.document)
        return 0;
    if (!read.torn && (*read.document != text || read.cutBytes != 0))
        __builtin_trap();

    const XmlParseResult parsed = XmlDocument::parseMemory(*read.document, XmlParseMode::Strict);
    if (!parsed.document || !parsed.errors.empty())
        __builtin_trap();
    const XmlNode root = XmlDocument::root(parsed.document);
    if (root.select("/Manifest/FileSet/File").size() != read.fileEntries ||
        root.select("/Manifest/DirectorySet/Directory").size() != read.directoryEntries)
        __builtin_trap();

    const RollBackHandler::WholeEntries again = RollBackHandler::readWholeEntries(*read.document);
    if (!again.document || again.torn || again.cutBytes != 0 ||
        again.fileEntries != read.fileEntries || again.directoryEntries != read.directoryEntries ||
        *again.document != *read.document)
        __builtin_trap();
    return 0;
}
