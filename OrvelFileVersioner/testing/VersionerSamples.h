// Builders for the kinds of files the versioners recognise, shared by the unit tests, the fuzz
// seed corpus and the benchmark so that all three work on the same inputs.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace ofv_testing {

// A PostScript CMap resource whose /CMapVersion line carries inVersion (as in "11.001").
// Without inWithBeginCMap the "begincmap" operator is left out.
std::string MakeCMapText(const std::string& inVersion, bool inWithBeginCMap = true);

// An OpenType font skeleton: the "OTTO" table directory followed by a name-table string holding
// inVersionMark (as in "Version 2.004;ORVL;").
std::string MakeOpenTypeFont(const std::string& inVersionMark);

// A Type 1 font in PFB segments whose font dictionary has "/version (<inVersion>) readonly def".
std::string MakePFBFont(const std::string& inVersion);

// The 128-byte header of an ICC colour profile (plus an empty tag table) created at the given
// date and time.
std::string MakeICCProfile(uint16_t inYear, uint16_t inMonth, uint16_t inDay, uint16_t inHours,
                           uint16_t inMinutes, uint16_t inSeconds);

// An ICU data file: the 32-byte data header with the four-byte inDataFormat tag, format and data
// versions, followed by some payload.
std::string MakeICUData(const std::string& inDataFormat, std::array<uint8_t, 4> inFormatVersion,
                        std::array<uint8_t, 4> inDataVersion);

// A Unicode mapping table with the line "##Orvel File Version: <inVersion>". With
// inVersionLineLast the file ends with that text and no line end.
std::string MakeUnicodeMap(const std::string& inVersion, bool inVersionLineLast = false);

// An Orvel font database text with "version=<inVersion>".
std::string MakeFontDatabase(const std::string& inVersion);

// A script whose header comment holds "@@@BUILDINFO@@@ <inBuildInfo>" and more text behind it.
std::string MakeScript(const std::string& inBuildInfo);

// A text no versioner recognises.
std::string MakePlainText();

// One generated file: a name (possibly with a folder) and its content.
struct SampleFile {
    std::string name;
    std::string content;
};

// One file of every kind with known versions, under names that lead to the intended versioner.
std::vector<SampleFile> StandardSamples();

} // namespace ofv_testing
