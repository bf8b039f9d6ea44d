// The syntax of one line of the configuration file: quotes, comments, keys and section headers.
// The loader, the tokens file and the editor of the configuration's text all read lines with these
// functions, so that they agree on every byte.
#ifndef ORV_CONFIG_LINE_SYNTAX_H_
#define ORV_CONFIG_LINE_SYNTAX_H_

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace orv {

// How much of the raw line stands before its comment, trailing CR and LF left out. Nothing when a
// quoted value is not closed or has text behind its closing quote.
[[nodiscard]] std::optional<std::size_t> content_length(std::string_view raw_line);

// A value (trimmed, without comment) as the program uses it: what stands between its quotes, escapes
// of double quotes resolved, or the text itself when it does not begin with a quote.
[[nodiscard]] std::string unquote(std::string_view value);

}  // namespace orv

#endif  // ORV_CONFIG_LINE_SYNTAX_H_
