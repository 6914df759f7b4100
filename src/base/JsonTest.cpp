#include "base/Json.h"

#include <gtest/gtest.h>

TEST(JsonTest, QuotesEscapesAndReplacesWhatIsNotUtf8) {
    EXPECT_EQ(JsonQuoted("plain"), "\"plain\"");
    EXPECT_EQ(JsonQuoted("a\"b\\c\nd\te\x01"), "\"a\\\"b\\\\c\\nd\\te\\u0001\"");
    EXPECT_EQ(JsonQuoted("Gr\xc3\xbc\xc3\x9f\x65 \xe2\x82\xac \xf0\x9f\x98\x80"),
              "\"Gr\xc3\xbc\xc3\x9f\x65 \xe2\x82\xac \xf0\x9f\x98\x80\"");
    // A lone continuation byte, a cut sequence, an overlong form and a surrogate.
    EXPECT_EQ(JsonQuoted("\x80"), "\"\\ufffd\"");
    EXPECT_EQ(JsonQuoted("x\xe2\x82"), "\"x\\ufffd\\ufffd\"");
    EXPECT_EQ(JsonQuoted("\xc0\xaf"), "\"\\ufffd\\ufffd\"");
    EXPECT_EQ(JsonQuoted("\xed\xa0\x80"), "\"\\ufffd\\ufffd\\ufffd\"");
}
