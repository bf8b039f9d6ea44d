// The history of the configuration file: copies of what it was before each change, in "cfg-history"
// beside it.
#ifndef ORV_API_CONFIG_HISTORY_H_
#define ORV_API_CONFIG_HISTORY_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace orv {

// "<directory of the file>/cfg-history"; "./cfg-history" for a path without a slash.
[[nodiscard]] std::string history_directory(std::string_view config_path);

// Keeps a copy of `text` under "<UTC as 20261005T140000Z>-<000..999>.cfg" in `directory`, which is
// created when it is missing. A copy is whole or not there. 0; -1 with a message.
[[nodiscard]] int keep_copy(std::string_view text, const std::string& directory, std::int64_t now,
                            std::span<char> err);

// Deletes the oldest copies until `keep` remain. Files of other names are none of ours: they
// neither count nor go. Errors are ignored.
void prune_copies(const std::string& directory, std::size_t keep);

// What a copy is called while it is written, followed by the writer's pid.
[[nodiscard]] std::string copy_temporary_prefix(const std::string& directory);

}  // namespace orv

#endif  // ORV_API_CONFIG_HISTORY_H_
