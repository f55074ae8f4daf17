#include "Foundation/UTF8.h"

namespace Foundation {

std::size_t utf8SequenceLength(std::string_view text, std::size_t i) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[i + k]); };
    const unsigned char lead = byte(0);
    if (lead < 0x80) return 1;
    std::size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;  // bounds of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;   // overlong
        if (lead == 0xED) high = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;   // overlong
        if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
    } else {
        return 0;
    }
    if (i + length > text.size()) return 0;
    if (byte(1) < low || byte(1) > high) return 0;
    for (std::size_t k = 2; k < length; ++k) {
        if ((byte(k) & 0xC0) != 0x80) return 0;
    }
    return length;
}

bool isValidUTF8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = utf8SequenceLength(text, i);
        if (length == 0) return false;
        i += length;
    }
    return true;
}

std::string repairingUTF8(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        if (const std::size_t length = utf8SequenceLength(text, i)) {
            result.append(text.substr(i, length));
            i += length;
        } else {
            result.append("\xEF\xBF\xBD");
            ++i;
        }
    }
    return result;
}

}  // namespace Foundation
