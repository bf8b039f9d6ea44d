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

// Keeps a copy of the file at `path`, named by `now` (Unix seconds) and a number, in `directory`,
// which is created when it is missing. 0; -1 with a message, no part of a copy left.
[[nodiscard]] int keep_copy(const std::string& path, const std::string& directory, std::int64_t now,
                            std::span<char> err);

// Deletes the oldest copies until `keep` remain. Errors are ignored.
void prune_copies(const std::string& directory, std::size_t keep);

}  // namespace orv

#endif  // ORV_API_CONFIG_HISTORY_H_
