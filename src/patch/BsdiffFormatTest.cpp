#include "patch/BsdiffFormat.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <limits>

namespace {

using Bytes8 = std::array<uint8_t, kBsdiffOffsetSize>;

Bytes8 Encode(int64_t value) {
    Bytes8 bytes{};
    EncodeBsdiffOffset(value, bytes);
    return bytes;
}

TEST(BsdiffFormatTest, OffsetsAreSignMagnitudeLittleEndian) {
    EXPECT_EQ(Encode(0), (Bytes8{0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Encode(1), (Bytes8{1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Encode(0x0102030405060708), (Bytes8{8, 7, 6, 5, 4, 3, 2, 1}));
    EXPECT_EQ(Encode(-1), (Bytes8{1, 0, 0, 0, 0, 0, 0, 0x80}));
    EXPECT_EQ(Encode(-256), (Bytes8{0, 1, 0, 0, 0, 0, 0, 0x80}));
    EXPECT_EQ(Encode(std::numeric_limits<int64_t>::max()),
              (Bytes8{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}));
    // INT64_MIN has no sign-magnitude form.
    EXPECT_EQ(Encode(std::numeric_limits<int64_t>::min()),
              (Bytes8{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
}

TEST(BsdiffFormatTest, OffsetsRoundTrip) {
    const int64_t values[] = {0,
                              1,
                              -1,
                              255,
                              -255,
                              65536,
                              -123456789012345,
                              std::numeric_limits<int64_t>::max(),
                              -std::numeric_limits<int64_t>::max()};
    for (int64_t value : values)
        EXPECT_EQ(DecodeBsdiffOffset(Encode(value)), value) << value;
}

TEST(BsdiffFormatTest, NegativeZeroReadsAsZero) {
    const Bytes8 negativeZero{0, 0, 0, 0, 0, 0, 0, 0x80};
    EXPECT_EQ(DecodeBsdiffOffset(negativeZero), 0);
}

std::array<uint8_t, kBsdiffHeaderSize> Header(int64_t control, int64_t diff, int64_t newSize) {
    std::array<uint8_t, kBsdiffHeaderSize> bytes{};
    EncodeBsdiffHeader({control, diff, newSize}, bytes);
    return bytes;
}

TEST(BsdiffFormatTest, HeaderRoundTrip) {
    const auto bytes = Header(40, 50, 1000);
    EXPECT_EQ(std::memcmp(bytes.data(), "BSDIFF40", 8), 0);
    const auto header = ParseBsdiffHeader(bytes);
    ASSERT_TRUE(header);
    EXPECT_EQ(header->controlLength, 40);
    EXPECT_EQ(header->diffLength, 50);
    EXPECT_EQ(header->newSize, 1000);
}

TEST(BsdiffFormatTest, HeaderRefusesWrongMagicAndNegativeNumbers) {
    auto wrongMagic = Header(1, 2, 3);
    wrongMagic[7] = '1';
    EXPECT_FALSE(ParseBsdiffHeader(wrongMagic));
    EXPECT_FALSE(ParseBsdiffHeader(Header(-1, 2, 3)));
    EXPECT_FALSE(ParseBsdiffHeader(Header(1, -2, 3)));
    EXPECT_FALSE(ParseBsdiffHeader(Header(1, 2, -3)));
    EXPECT_TRUE(ParseBsdiffHeader(Header(0, 0, 0)));
}

TEST(BsdiffFormatTest, ControlTripleRoundTrip) {
    std::array<uint8_t, kBsdiffControlSize> bytes{};
    EncodeBsdiffControl({12, 34, -56}, bytes);
    const BsdiffControl control = DecodeBsdiffControl(bytes);
    EXPECT_EQ(control.addLength, 12);
    EXPECT_EQ(control.copyLength, 34);
    EXPECT_EQ(control.seekOffset, -56);
    EXPECT_EQ(bytes[23], 0x80);
}

} // namespace
