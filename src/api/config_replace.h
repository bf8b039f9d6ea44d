// Replacing the configuration file: the new text is proved to load before it may take the old one's
// place, and a copy of the old one is kept in "cfg-history" beside the file.
#ifndef ORV_API_CONFIG_REPLACE_H_
#define ORV_API_CONFIG_REPLACE_H_

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace orv {

// "<directory of the file>/cfg-history"; "./cfg-history" for a path without a slash.
[[nodiscard]] std::string history_directory(std::string_view config_path);

enum class ReplaceResult : int { Ok = 0, InvalidConfig = -1, IoFailure = -2 };

// Replaces the file at `path` by `text`, keeping owner, group and mode, and `history_keep` old
// copies (0: none, and no directory). With `validate_only` nothing is replaced and no copy made.
// After any result but Ok the file is as it was and no temporary file is left. The message of
// InvalidConfig is the loader's, naming the real file; `now` (Unix seconds) names the copy.
[[nodiscard]] ReplaceResult replace_config(const std::string& path, std::string_view text,
                                           const std::string& history_dir,
                                           std::uint32_t history_keep, bool validate_only,
                                           std::int64_t now, std::span<char> err);

}  // namespace orv

#endif  // ORV_API_CONFIG_REPLACE_H_
