#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

// The BSDIFF40 patch format, shared by the patch tool and the patch builder.
//
//   offset  size  content
//        0     8  "BSDIFF40"
//        8     8  length of the bzip2-compressed control block
//       16     8  length of the bzip2-compressed diff block
//       24     8  size of the new file
//       32     -  control block, then diff block, then extra block (up to the end of the file)
//
// Every number is 64 bits, sign and magnitude, least significant byte first; the top bit of
// the last byte is the sign. Decompressed, the control block is a list of triples
// (add length, copy length, seek offset): add `add length` bytes of the diff block to as many
// bytes of the old file, append `copy length` bytes of the extra block, then move the old
// file position by `seek offset`. Old-file bytes outside the old file count as zero.

inline constexpr char kBsdiffMagic[8] = {'B', 'S', 'D', 'I', 'F', 'F', '4', '0'};
inline constexpr size_t kBsdiffHeaderSize = 32;
inline constexpr size_t kBsdiffOffsetSize = 8;
inline constexpr size_t kBsdiffControlSize = 3 * kBsdiffOffsetSize;

struct BsdiffHeader {
    int64_t controlLength = 0;
    int64_t diffLength = 0;
    int64_t newSize = 0;
};

struct BsdiffControl {
    int64_t addLength = 0;
    int64_t copyLength = 0;
    int64_t seekOffset = 0;
};

// The number stored in 8 bytes. A "negative zero" reads as 0.
int64_t DecodeBsdiffOffset(std::span<const uint8_t, kBsdiffOffsetSize> bytes);
// Stores value in 8 bytes; INT64_MIN has no sign-magnitude form and is stored as -INT64_MAX.
void EncodeBsdiffOffset(int64_t value, std::span<uint8_t, kBsdiffOffsetSize> bytes);

// The header's three numbers; nothing when the magic is wrong or any number is negative.
std::optional<BsdiffHeader> ParseBsdiffHeader(std::span<const uint8_t, kBsdiffHeaderSize> bytes);
void EncodeBsdiffHeader(const BsdiffHeader& header, std::span<uint8_t, kBsdiffHeaderSize> bytes);

BsdiffControl DecodeBsdiffControl(std::span<const uint8_t, kBsdiffControlSize> bytes);
void EncodeBsdiffControl(const BsdiffControl& control,
                         std::span<uint8_t, kBsdiffControlSize> bytes);
