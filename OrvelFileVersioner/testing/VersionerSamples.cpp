#include "VersionerSamples.h"

namespace ofv_testing {

namespace {
void AppendBigEndian16(std::string& ioBytes, uint16_t inValue) {
    ioBytes.push_back(static_cast<char>(inValue >> 8));
    ioBytes.push_back(static_cast<char>(inValue & 0xFF));
}

void AppendBigEndian32(std::string& ioBytes, uint32_t inValue) {
    AppendBigEndian16(ioBytes, static_cast<uint16_t>(inValue >> 16));
    AppendBigEndian16(ioBytes, static_cast<uint16_t>(inValue & 0xFFFF));
}

void AppendLittleEndian32(std::string& ioBytes, uint32_t inValue) {
    for (int shift = 0; shift < 32; shift += 8) {
        ioBytes.push_back(static_cast<char>((inValue >> shift) & 0xFF));
    }
}
} // namespace

std::string MakeCMapText(const std::string& inVersion, bool inWithBeginCMap) {
    std::string text = "%!PS-Adobe-3.0 Resource-CMap\n"
                       "%%DocumentNeededResources: ProcSet (CIDInit)\n"
                       "%%IncludeResource: ProcSet (CIDInit)\n"
                       "%%BeginResource: CMap (Orvel-Test-H)\n"
                       "%%Title: (Orvel-Test-H Orvel Test 0)\n"
                       "/CIDInit /ProcSet findresource begin\n"
                       "12 dict begin\n";
    if (inWithBeginCMap) {
        text += "begincmap\n";
    }
    text += "/CIDSystemInfo 3 dict dup begin\n"
            "  /Registry (Orvel) def\n"
            "  /Ordering (Test) def\n"
            "  /Supplement 0 def\n"
            "end def\n"
            "/CMapName /Orvel-Test-H def\n"
            "/CMapVersion " +
            inVersion +
            " def\n"
            "/CMapType 1 def\n"
            "1 begincodespacerange\n"
            "  <00> <FF>\n"
            "endcodespacerange\n"
            "1 begincidrange\n"
            "<20> <7E> 1\n"
            "endcidrange\n"
            "endcmap\n"
            "CMapName currentdict /CMap defineresource pop\n"
            "end\n"
            "end\n"
            "%%EndResource\n"
            "%%EOF\n";
    return text;
}

std::string MakeOpenTypeFont(const std::string& inVersionMark) {
    std::string font = "OTTO";
    AppendBigEndian16(font, 1);  // numTables
    AppendBigEndian16(font, 16); // searchRange
    AppendBigEndian16(font, 0);  // entrySelector
    AppendBigEndian16(font, 0);  // rangeShift
    const std::string names = "Copyright Orvel Test Fonts" + std::string(1, '\0') + "OrvelSans" +
                              std::string(1, '\0') + inVersionMark + "OrvelSans-Regular" +
                              std::string(1, '\0');
    font += "name";
    AppendBigEndian32(font, 0); // checksum
    AppendBigEndian32(font, 28);
    AppendBigEndian32(font, static_cast<uint32_t>(names.size()));
    font += names;
    font.append(64, '\0');
    return font;
}

std::string MakePFBFont(const std::string& inVersion) {
    const std::string ascii = "%!PS-AdobeFont-1.0: OrvelSerif-Regular " + inVersion +
                              "\n"
                              "%%CreationDate: Wed Mar 15 10:20:59 2006\n"
                              "11 dict begin\n"
                              "/FontInfo 9 dict dup begin\n"
                              "/version (" +
                              inVersion +
                              ") readonly def\n"
                              "/FullName (Orvel Serif Regular) readonly def\n"
                              "/FamilyName (Orvel Serif) readonly def\n"
                              "end readonly def\n"
                              "/FontName /OrvelSerif-Regular def\n"
                              "currentdict end\n"
                              "currentfile eexec\n";
    std::string font;
    font.push_back(static_cast<char>(0x80));
    font.push_back(0x01); // ASCII segment
    AppendLittleEndian32(font, static_cast<uint32_t>(ascii.size()));
    font += ascii;
    font.push_back(static_cast<char>(0x80));
    font.push_back(0x02); // binary segment
    AppendLittleEndian32(font, 16);
    for (int i = 0; i < 16; ++i) {
        font.push_back(static_cast<char>(0xA0 + i));
    }
    font.push_back(static_cast<char>(0x80));
    font.push_back(0x03); // end of file
    return font;
}

std::string MakeICCProfile(uint16_t inYear, uint16_t inMonth, uint16_t inDay, uint16_t inHours,
                           uint16_t inMinutes, uint16_t inSeconds) {
    std::string profile;
    AppendBigEndian32(profile, 132); // profile size
    profile += "orvl";               // preferred CMM
    AppendBigEndian32(profile, 0x02100000);
    profile += "mntr";
    profile += "RGB ";
    profile += "XYZ ";
    for (uint16_t field : {inYear, inMonth, inDay, inHours, inMinutes, inSeconds}) {
        AppendBigEndian16(profile, field);
    }
    profile += "acsp";
    profile += "APPL";
    profile.resize(128, '\0');
    AppendBigEndian32(profile, 0); // tag count
    return profile;
}

std::string MakeICUData(const std::string& inDataFormat, std::array<uint8_t, 4> inFormatVersion,
                        std::array<uint8_t, 4> inDataVersion) {
    std::string data;
    data.push_back(32); // header size, little-endian
    data.push_back(0);
    data.push_back(static_cast<char>(0xDA)); // magic
    data.push_back(0x27);
    data.push_back(20); // info size
    data.push_back(0);
    data.append(2, '\0'); // reserved
    data.push_back(0);    // little-endian
    data.push_back(0);    // ASCII family
    data.push_back(2);    // sizeof(UChar)
    data.push_back(0);    // reserved
    data += inDataFormat.substr(0, 4);
    data.resize(16, '\0');
    for (uint8_t byte : inFormatVersion) {
        data.push_back(static_cast<char>(byte));
    }
    for (uint8_t byte : inDataVersion) {
        data.push_back(static_cast<char>(byte));
    }
    data.resize(32, '\0');
    for (int i = 0; i < 96; ++i) {
        data.push_back(static_cast<char>(i * 7));
    }
    return data;
}

std::string MakeUnicodeMap(const std::string& inVersion, bool inVersionLineLast) {
    const std::string versionLine = "##Orvel File Version: " + inVersion;
    std::string text = "#\n"
                       "#    Name:     Orvel Test to Unicode table\n";
    if (!inVersionLineLast) {
        text += versionLine + "\n";
    }
    text += "#\n"
            "0x20\t0x0020\t# SPACE\n"
            "0x41\t0x0041\t# LATIN CAPITAL LETTER A\n"
            "0x61\t0x0061\t# LATIN SMALL LETTER A\n"
            "0xA4\t0x20AC\t# EURO SIGN\n";
    if (inVersionLineLast) {
        text += versionLine;
    }
    return text;
}

std::string MakeFontDatabase(const std::string& inVersion) {
    return "# Orvel Shared Font Database\n"
           "version=" +
           inVersion +
           "\n"
           "font=OrvelSans-Regular;OrvelSans-Regular.otf;OTF\n"
           "font=OrvelSerif-Regular;OrvelSerif-Regular.pfb;Type1\n";
}

std::string MakeScript(const std::string& inBuildInfo) {
    return "// @@@BUILDINFO@@@ " + inBuildInfo +
           "\n"
           "// Copyright Orvel. All rights reserved.\n"
           "#target orvel\n"
           "function main() {\n"
           "    return 0;\n"
           "}\n"
           "main();\n";
}

std::string MakePlainText() {
    return "Release notes\n"
           "This folder holds shared resources of the Orvel suite.\n";
}

std::vector<SampleFile> StandardSamples() {
    return {
        {"Orvel-Test-H", MakeCMapText("11.001")},
        {"Orvel-Test-V", MakeCMapText("11.001", false)},
        {"Display.icc", MakeICCProfile(2006, 3, 15, 10, 20, 59)},
        {"Print.ICM", MakeICCProfile(2007, 11, 2, 23, 59, 30)},
        {"OrvelSans-Regular.otf", MakeOpenTypeFont("Version 2.004;ORVL;")},
        {"OrvelSans-Bold.OTF.bak", MakeOpenTypeFont("Version 2.004;ORVL;")},
        {"OrvelSerif-Regular.pfb", MakePFBFont("001.002")},
        {"OrvelSerif-Short.pfb", "/version (1.2) readonly def\n"},
        {"ORVELSYM.TXT", MakeUnicodeMap("3.1")},
        {"ORVELSYM-end.TXT", MakeUnicodeMap("3.12", true)},
        {"orvelcnv.cnv", MakeICUData("cnvt", {6, 1, 0, 0}, {3, 0, 0, 0})},
        // Common data is recognised by every second byte from the tag on, which reaches into the
        // format version.
        {"orveldt.dat", MakeICUData(std::string("C\0m\0", 4), {'n', 1, 'D', 0}, {4, 2, 0, 0})},
        {"OrvelFontDB.lst", MakeFontDatabase("1.2.3")},
        {"OrvelTools.jsx", MakeScript("OrvelTools 12.3.4.5 release")},
        {"ReadMe.txt", MakePlainText()},
    };
}

} // namespace ofv_testing
