// Edits of the configuration file's text. Every byte that an edit does not concern stays as it was:
// comments, blank lines, spacing, line endings, a missing final newline.
#ifndef ORV_API_CONFIG_TEXT_H_
#define ORV_API_CONFIG_TEXT_H_

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "common/secret.h"

namespace orv {

// What may stand as a value in the file: 1..kMaxStoredValue bytes, no white space at either end, no
// control character.
inline constexpr std::size_t kMaxStoredValue = 1023;
[[nodiscard]] bool check_stored_value(std::string_view text);

// One setting to be made in a section; without a value its lines are removed.
struct KeyEdit {
  std::string key;
  std::optional<SecretString> value;  // may be the SMTP password
};

// Sets the keys of `section` (the first of that name), adding lines for those it does not have and
// the section itself when the text has none. Nothing when a key, a value or the section's name
// cannot be written in the file's syntax.
[[nodiscard]] std::optional<SecretString> set_keys(std::string_view text, std::string_view section,
                                                   std::span<const KeyEdit> edits);

[[nodiscard]] bool has_section(std::string_view text, std::string_view section);

// The text without the section's header and every line up to the next header. Nothing when there is
// no such section.
[[nodiscard]] std::optional<SecretString> remove_section(std::string_view text,
                                                         std::string_view section);

// The value in the file's syntax: as it is, or between quotes when it would not read back.
[[nodiscard]] SecretString quote_value(std::string_view value);

}  // namespace orv

#endif  // ORV_API_CONFIG_TEXT_H_
