#include "system/Utf8Text.h"

#include <cstdint>

bool IsValidUTF8(std::string_view bytes) {
    size_t i = 0;
    const size_t size = bytes.size();
    while (i < size) {
        const auto lead = static_cast<uint8_t>(bytes[i]);
        if (lead < 0x80) {
            ++i;
            continue;
        }
        size_t length = 0;
        uint32_t codePoint = 0;
        if ((lead & 0xE0) == 0xC0) {
            length = 2;
            codePoint = lead & 0x1F;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3;
            codePoint = lead & 0x0F;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4;
            codePoint = lead & 0x07;
        } else {
            return false;
        }
        if (size - i < length)
            return false;
        for (size_t k = 1; k < length; ++k) {
            const auto next = static_cast<uint8_t>(bytes[i + k]);
            if ((next & 0xC0) != 0x80)
                return false;
            codePoint = (codePoint << 6) | (next & 0x3F);
        }
        static constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (codePoint < kSmallest[length] || codePoint > 0x10FFFF ||
            (codePoint >= 0xD800 && codePoint <= 0xDFFF))
            return false;
        i += length;
    }
    return true;
}
