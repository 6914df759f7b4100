#include "base/Format.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

namespace {

struct Described {
    std::string description() const { return "<described>"; }
};

TEST(FormatTest, ObjectDirectiveTakesEveryKindOfValue) {
    EXPECT_EQ(StringWithFormat("Product Family is : %@", std::string("Tavrin")),
              "Product Family is : Tavrin");
    EXPECT_EQ(StringWithFormat("%@ and %@", 42, 7u), "42 and 7");
    EXPECT_EQ(StringWithFormat("%@", Described{}), "<described>");
    EXPECT_EQ(StringWithFormat("%@", std::optional<std::string>{}), "(null)");
    EXPECT_EQ(StringWithFormat("%@", std::optional<std::string>("x")), "x");
    EXPECT_EQ(StringWithFormat("%@", static_cast<const char*>(nullptr)), "(null)");
}

TEST(FormatTest, NumericDirectives) {
    EXPECT_EQ(StringWithFormat("File %d information", 3), "File 3 information");
    EXPECT_EQ(StringWithFormat("%d", -12), "-12");
    EXPECT_EQ(StringWithFormat("Old Permission: %o", 0755), "Old Permission: 755");
    EXPECT_EQ(StringWithFormat("%s:%u: failed", "file.cpp", 12u), "file.cpp:12: failed");
    EXPECT_EQ(StringWithFormat("%ld %lld %lu", 1L, 2LL, 3UL), "1 2 3");
    EXPECT_EQ(StringWithFormat("%x", 255), "ff");
    EXPECT_EQ(StringWithFormat("%03d|%-4d|", 7, 5), "007|5   |");
}

TEST(FormatTest, PercentSignsAndMissingValues) {
    EXPECT_EQ(StringWithFormat("100%% done"), "100% done");
    // A directive without a value stays as written; extra values are ignored.
    EXPECT_EQ(StringWithFormat("%@ and %d"), "%@ and %d");
    EXPECT_EQ(StringWithFormat("a %@", "x", "y"), "a x");
    // Unknown directives are kept as text.
    EXPECT_EQ(StringWithFormat("%k %", 1), "%k %");
}

TEST(FormatTest, ValuesAreNeverUsedAsFormats) {
    const std::string hostile = "%s%s%n%@%d";
    EXPECT_EQ(StringWithFormat("%@", hostile), hostile);
    EXPECT_EQ(StringWithFormat("[%s]", hostile), "[" + hostile + "]");
}

TEST(FormatTest, WrongDirectiveForTheValuePrintsTheValueReadably) {
    EXPECT_EQ(StringWithFormat("%d", std::string("abc")), "abc");
    EXPECT_EQ(StringWithFormat("%s", 12), "12");
    EXPECT_EQ(StringWithFormat("%d", true), "1");
}

TEST(FormatTest, ListsPrintLikeAnArrayDescription) {
    EXPECT_EQ(StringWithFormat("%@", std::vector<std::string>{"a", "b"}), "(\n    a,\n    b\n)");
    EXPECT_EQ(StringWithFormat("%@", std::vector<std::string>{}), "()");
}

TEST(FormatTest, WidthPadsText) {
    EXPECT_EQ(StringWithFormat("[%5@]", "ab"), "[   ab]");
    EXPECT_EQ(StringWithFormat("[%-5s]", "ab"), "[ab   ]");
}

} // namespace
