// Small helpers for text that comes from people and files. "White space" is always what the C
// library's isspace() means in the C locale; nothing here depends on the locale or allocates.
#ifndef ORV_COMMON_TEXT_H_
#define ORV_COMMON_TEXT_H_

#include <cstdint>
#include <string_view>

namespace orv {

// Space, \t, \n, \v, \f, \r.
[[nodiscard]] bool is_space(char c);
[[nodiscard]] bool is_digit(char c);

inline constexpr std::string_view kHexDigits = "0123456789abcdef";
inline constexpr std::string_view kUpperHexDigits = "0123456789ABCDEF";
[[nodiscard]] int hex_digit(char c);  // its value, either case; -1 for any other character

[[nodiscard]] std::string_view trim(std::string_view text);        // white space at both ends
[[nodiscard]] std::string_view trim_right(std::string_view text);  // at the end only

// Reads a whole text of 1 or more decimal digits, nothing else before, between or after them.
// False, `out` as it was, when the text is anything else or the number does not fit.
[[nodiscard]] bool parse_u32(std::string_view text, std::uint32_t& out);
[[nodiscard]] bool parse_u64(std::string_view text, std::uint64_t& out);
[[nodiscard]] bool parse_i64(std::string_view text, std::int64_t& out);  // digits only, no sign

// Takes the next item of a comma-separated list off the front of `rest`; runs of commas give no
// items, items are not trimmed. False when none is left.
[[nodiscard]] bool next_list_item(std::string_view& rest, std::string_view& item);

}  // namespace orv

#endif  // ORV_COMMON_TEXT_H_
