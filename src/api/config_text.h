// Edits of the configuration file's text. Every byte that an edit does not mean stays as it was:
// comments, blank lines, spacing, line endings, a missing final newline.
#ifndef ORV_API_CONFIG_TEXT_H_
#define ORV_API_CONFIG_TEXT_H_

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "common/fixed_text.h"

namespace orv {

inline constexpr std::size_t kMaxConfigFile = 1048576;  // bytes; what is larger is not read

// One setting to be made in a section; without a value its line is removed.
struct KeyEdit {
  std::string key;
  std::optional<std::string> value;
};

// Sets the keys of `section` (the first of that name), adding lines for those it does not have and
// the section itself when the text has none. Nothing when a key, a value or the section's name
// cannot be written in the file's syntax.
[[nodiscard]] std::optional<std::string> set_keys(std::string_view text, std::string_view section,
                                                  std::span<const KeyEdit> edits);

// The text without the section's header and every line up to the next header. Nothing when there is
// no such section.
[[nodiscard]] std::optional<std::string> remove_section(std::string_view text,
                                                        std::string_view section);

// The value in the file's syntax: as it is, or between quotes when it would not read back.
[[nodiscard]] std::string quote_value(std::string_view value);

// The SHA-256 of the text's bytes, lower-case hexadecimal, in double quotes.
using EntityTag = FixedText<66>;
[[nodiscard]] EntityTag entity_tag(std::string_view text);

}  // namespace orv

#endif  // ORV_API_CONFIG_TEXT_H_
