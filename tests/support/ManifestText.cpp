#include "ManifestText.h"

#include "TestSupport.h"

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

std::string BundleSetXml(const std::string& path, const std::string& version,
                         const std::vector<FileEntry>& files) {
    std::string xml =
        "<BundleSet><Bundle Path=\"" + path + "\" Version=\"" + version + "\" Verify=\"TRUE\">\n";
    for (const auto& entry : files)
        xml += FileEntryXml(entry);
    return xml + "</Bundle></BundleSet>\n";
}

std::string DirectoryEntryXml(const std::string& operation, const std::string& base) {
    return "<Directory><Operation>" + operation + "</Operation><DirectoryBase>" + base +
           "</DirectoryBase></Directory>";
}

std::string VersionPlist(const std::string& version) {
    return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleVersion</key>"
           "<string>" +
           version + "</string></dict></plist>\n";
}

int PackPayload(const std::string& folder, const std::string& archive) {
    return RunProgram({"bash", "-c",
                       "cd '" + folder +
                           "' && find . -mindepth 1 | cpio -o -H newc 2>/dev/null | gzip > '" +
                           archive + "'"});
}
