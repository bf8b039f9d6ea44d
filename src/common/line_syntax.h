// The syntax of one line of the configuration file: quotes, comments, keys and section headers.
// The loader, the tokens file, the editor of the configuration's text and a client's list of servers
// all read lines with these functions, so that they agree on every byte.
#ifndef ORV_COMMON_LINE_SYNTAX_H_
#define ORV_COMMON_LINE_SYNTAX_H_

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace orv {

// How much of the raw line stands before its comment, trailing CR and LF left out. Nothing when a
// quoted value is not closed or has text behind its closing quote.
[[nodiscard]] std::optional<std::size_t> content_length(std::string_view raw_line);

// The name that a line (trimmed, without comment) opens a section with: what stands between its
// first "[" and its last "]", trimmed, and possibly empty. Nothing when the line is not of that
// form; one that begins with "[" is then a malformed header.
[[nodiscard]] std::optional<std::string_view> section_name(std::string_view trimmed_line);

// A line (trimmed, without comment) split at its first "=", both sides trimmed, the value still
// quoted. Nothing without "=".
struct KeyValue {
  std::string_view key;
  std::string_view value;
};
[[nodiscard]] std::optional<KeyValue> split_key_value(std::string_view trimmed_line);

// A value (trimmed, without comment) as the program uses it: what stands between its quotes,
// escapes of double quotes resolved, or the text itself when it does not begin with a quote.
[[nodiscard]] std::string unquote(std::string_view value);

// The same into a buffer of at least value.size() bytes, which the caller can wipe: a value may be
// a password. The text that comes back leads into the buffer.
[[nodiscard]] std::string_view unquote_into(std::string_view value, std::span<char> buffer);

}  // namespace orv

#endif  // ORV_COMMON_LINE_SYNTAX_H_
