// What orv_api shows, as text: tables and lists for people, JSON for scripts. Pure functions. What
// a server says is data: nothing that comes out of them can steer a terminal.
#ifndef ORV_CLIENT_OUTPUT_H_
#define ORV_CLIENT_OUTPUT_H_

#include <string>
#include <string_view>
#include <vector>

#include "common/secret.h"
#include "json/json.h"

namespace orv {

// The text with "?" for each control character (C0, DEL, C1), each character that turns the
// direction of writing, and each byte that is no UTF-8. Tabs and line ends stay when `lines` says
// so.
enum class Lines { Keep, Replace };
[[nodiscard]] std::string printable(std::string_view text, Lines lines = Lines::Replace);

// Rows as lines of left-aligned columns, two blanks between them, every cell made printable. All
// rows have as many cells as the first.
[[nodiscard]] std::string table_text(const std::vector<std::vector<std::string>>& rows);

// A member as people read it: times in local time, "yes" and "no", lists with commas, "-" for null
// and for an empty text. `name` decides which numbers are times.
[[nodiscard]] std::string readable(std::string_view name, const JsonValue* value);

// The member of that name, readable. Null or another kind of value in place of the object gives
// "-".
[[nodiscard]] std::string cell(const JsonValue* object, std::string_view name);

// An object as lines of "name: value", printable; the objects that it holds follow, indented.
// Members named in `leave_out` are left out.
[[nodiscard]] std::string pairs_text(const JsonValue* object, std::string_view leave_out = {});

// The value as JSON again: indented by two blanks a level, or in one line. Control characters are
// escaped, and so is what is no UTF-8 (as U+FFFD).
enum class Layout { Indented, OneLine };
[[nodiscard]] SecretString json_text(const JsonValue* value, Layout layout);

// A text as JSON, with its quotes.
[[nodiscard]] SecretString json_quoted(std::string_view text);

}  // namespace orv

#endif  // ORV_CLIENT_OUTPUT_H_
