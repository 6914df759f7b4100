#include "patch/BsdiffFormat.h"

#include <cstring>
#include <limits>

int64_t DecodeBsdiffOffset(std::span<const uint8_t, kBsdiffOffsetSize> bytes) {
    uint64_t magnitude = bytes[7] & 0x7F;
    for (int i = 6; i >= 0; --i)
        magnitude = (magnitude << 8) | bytes[static_cast<size_t>(i)];
    // At most 2^63 - 1, so the conversion and the negation never overflow.
    const auto value = static_cast<int64_t>(magnitude);
    return (bytes[7] & 0x80) ? -value : value;
}

void EncodeBsdiffOffset(int64_t value, std::span<uint8_t, kBsdiffOffsetSize> bytes) {
    if (value == std::numeric_limits<int64_t>::min())
        value = -std::numeric_limits<int64_t>::max();
    const bool negative = value < 0;
    uint64_t magnitude = static_cast<uint64_t>(negative ? -value : value);
    for (size_t i = 0; i < kBsdiffOffsetSize; ++i) {
        bytes[i] = static_cast<uint8_t>(magnitude & 0xFF);
        magnitude >>= 8;
    }
    if (negative)
        bytes[7] |= 0x80;
}

std::optional<BsdiffHeader> ParseBsdiffHeader(std::span<const uint8_t, kBsdiffHeaderSize> bytes) {
    if (std::memcmp(bytes.data(), kBsdiffMagic, sizeof kBsdiffMagic) != 0)
        return std::nullopt;
    BsdiffHeader header;
    header.controlLength = DecodeBsdiffOffset(bytes.subspan<8, 8>());
    header.diffLength = DecodeBsdiffOffset(bytes.subspan<16, 8>());
    header.newSize = DecodeBsdiffOffset(bytes.subspan<24, 8>());
    if (header.controlLength < 0 || header.diffLength < 0 || header.newSize < 0)
        return std::nullopt;
    return header;
}

void EncodeBsdiffHeader(const BsdiffHeader& header, std::span<uint8_t, kBsdiffHeaderSize> bytes) {
    std::memcpy(bytes.data(), kBsdiffMagic, sizeof kBsdiffMagic);
    EncodeBsdiffOffset(header.controlLength, bytes.subspan<8, 8>());
    EncodeBsdiffOffset(header.diffLength, bytes.subspan<16, 8>());
    EncodeBsdiffOffset(header.newSize, bytes.subspan<24, 8>());
}

BsdiffControl DecodeBsdiffControl(std::span<const uint8_t, kBsdiffControlSize> bytes) {
    return {DecodeBsdiffOffset(bytes.subspan<0, 8>()), DecodeBsdiffOffset(bytes.subspan<8, 8>()),
            DecodeBsdiffOffset(bytes.subspan<16, 8>())};
}

void EncodeBsdiffControl(const BsdiffControl& control,
                         std::span<uint8_t, kBsdiffControlSize> bytes) {
    EncodeBsdiffOffset(control.addLength, bytes.subspan<0, 8>());
    EncodeBsdiffOffset(control.copyLength, bytes.subspan<8, 8>());
    EncodeBsdiffOffset(control.seekOffset, bytes.subspan<16, 8>());
}
