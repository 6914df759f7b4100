#include "ManifestText.h"

std::string FileEntryXml(const FileEntry& e) {
    std::string xml = "<File><Operation>" + e.operation + "</Operation>";
    if (!e.objectName.empty())
        xml += "<ObjectName>" + e.objectName + "</ObjectName>";
    xml += "<DestinationPath dir=\"" + e.dir + "\" defName=\"" + e.name + "\"/>";
    if (!e.before.empty() || !e.after.empty()) {
        xml += "<Checksum>";
        if (!e.before.empty())
            xml += "<BeforePatch>" + e.before + "</BeforePatch>";
        if (!e.after.empty())
            xml += "<AfterPatch>" + e.after + "</AfterPatch>";
        xml += "</Checksum>";
    }
    if (!e.renameName.empty())
        xml += "<RenamePath dir=\"" + e.renameDir + "\" defName=\"" + e.renameName + "\"/>";
    if (!e.permission.empty())
        xml +=
            "<Permissions><mac><Permission>" + e.permission + "</Permission></mac></Permissions>";
    return xml + "</File>\n";
}
