// The syntax of one line of the configuration file: quotes, comments, keys and section headers.
// The loader, the tokens file, the editor of the configuration's text and a client's list of
// servers all read lines with these functions, so that they agree on every byte.
#ifndef ORV_COMMON_LINE_SYNTAX_H_
#define ORV_COMMON_LINE_SYNTAX_H_

#include <cstddef>
#include <optional>
#include <string_view>

#include "common/secret.h"

namespace orv {

// How much of the raw line stands before its comment, trailing CR and LF left out. No value when
// a quoted value is not closed or has text after its closing quote.
[[nodiscard]] std::optional<std::size_t> content_length(std::string_view raw_line);

// The name that a line (trimmed, without comment) opens a section with: what stands between its
// first "[" and its last "]", trimmed, and possibly empty. No value when the line is not of that
// form; one that begins with "[" is then a malformed header.
[[nodiscard]] std::optional<std::string_view> section_name(std::string_view trimmed_line);

// A line (trimmed, without comment) split at its first "=", both sides trimmed, the value still
// quoted. No value without "=".
struct KeyValue {
  std::string_view key;
  std::string_view value;
};
[[nodiscard]] std::optional<KeyValue> split_key_value(std::string_view trimmed_line);

// Puts a value (trimmed, without comment) as the program uses it into `out`, which is replaced:
// what stands between its quotes, escapes of double quotes resolved, or the text itself when it
// does not begin with a quote. A value may be a password.
void unquote(std::string_view value, SecretString& out);

}  // namespace orv

#endif  // ORV_COMMON_LINE_SYNTAX_H_
