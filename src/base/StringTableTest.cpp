#include "base/StringTable.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>

namespace {

// Compiles a catalogue with msgfmt into <dir>/<lang>/LC_MESSAGES/<domain>.mo.
void MakeCatalogue(const std::string& localeDir, const std::string& lang, const std::string& domain,
                   const std::string& po) {
    const std::string poPath = localeDir + "/" + lang + ".po";
    WriteTextFile(poPath, po);
    const std::string moDir = localeDir + "/" + lang + "/LC_MESSAGES";
    WriteTextFile(moDir + "/.keep", "");
    ASSERT_EQ(RunProgram({"msgfmt", "-o", moDir + "/" + domain + ".mo", poPath}), 0);
}

TEST(StringTableTest, LooksUpKeysAndFallsBackToTheKey) {
    TempDir dir;
    const std::string po = "msgid \"\"\nmsgstr \"Content-Type: text/plain; charset=UTF-8\\n\"\n\n"
                           "msgid \"Continue\"\nmsgstr \"Fortfahren\"\n\n"
                           "msgid \"Update Welcome Message\"\nmsgstr \"Willkommen bei %@\"\n";
    MakeCatalogue(dir.path(), "de", "OrvelStringTableTest", po);

    // gettext ignores LANGUAGE under the "C" locale; C.UTF-8 is always present on Debian.
    const char* oldLanguage = std::getenv("LANGUAGE");
    std::string saved = oldLanguage ? oldLanguage : "";
    ::setenv("LANGUAGE", "de", 1);
    std::setlocale(LC_ALL, "C.UTF-8");

    StringTable table(dir.path(), "OrvelStringTableTest");
    EXPECT_EQ(table.localizedString("Continue"), "Fortfahren");
    EXPECT_EQ(table.localizedString("Update Welcome Message"), "Willkommen bei %@");
    EXPECT_EQ(table.localizedString("No such key"), "No such key");
    EXPECT_EQ(table.localizedString(""), "");

    if (oldLanguage)
        ::setenv("LANGUAGE", saved.c_str(), 1);
    else
        ::unsetenv("LANGUAGE");
    std::setlocale(LC_ALL, "C");
}

TEST(StringTableTest, MissingCatalogueGivesTheKey) {
    TempDir dir;
    StringTable table(dir.file("no-locale"), "OrvelStringTableMissing");
    EXPECT_EQ(table.localizedString("Cancel"), "Cancel");
}

} // namespace
