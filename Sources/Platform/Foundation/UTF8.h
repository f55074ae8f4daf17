// UTF-8 as the string APIs decode it: well-formed sequences only (no
// overlong forms, no surrogates, nothing above U+10FFFF).
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace Foundation {

/// Length (1...4) of the well-formed sequence starting at text[i], or 0.
std::size_t utf8SequenceLength(std::string_view text, std::size_t i);

/// Whether all of text is well-formed (what String(data:encoding: .utf8) accepts).
bool isValidUTF8(std::string_view text);

/// text with every byte that starts no well-formed sequence replaced by
/// U+FFFD (what String(decoding:as: UTF8.self) does).
std::string repairingUTF8(std::string_view text);

}  // namespace Foundation
