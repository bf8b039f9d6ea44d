// UTF-8: which bytes form a valid sequence.
#ifndef ORV_COMMON_UTF8_H_
#define ORV_COMMON_UTF8_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace orv {

// Length of the valid sequence of one to four bytes at the front of `text`, which is not empty; 0
// when there is none. Too long forms, surrogates and code points beyond U+10FFFF are not valid
// (RFC 3629).
[[nodiscard]] std::size_t utf8_sequence(std::string_view text);

// Whether the whole of `text`, which is not empty, begins a valid sequence without completing it.
[[nodiscard]] bool utf8_begins(std::string_view text);

// How many characters `text` shows, where a byte that belongs to no valid sequence counts as one.
[[nodiscard]] std::size_t utf8_length(std::string_view text);

// Writes the code point, U+0000 to U+10FFFF, as a sequence. Returns its length.
std::size_t utf8_encode(std::uint32_t point, std::array<char, 4>& out);

}  // namespace orv

#endif  // ORV_COMMON_UTF8_H_
