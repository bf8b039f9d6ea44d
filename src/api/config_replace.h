// Replacing the configuration file: the new text is proved to load before it may take the old one's
// place, and a copy of the old one is kept.
#ifndef ORV_API_CONFIG_REPLACE_H_
#define ORV_API_CONFIG_REPLACE_H_

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "config/config.h"

namespace orv {

// What is to be done; the texts are borrowed.
struct Replacement {
  const std::string& path;
  std::string_view before;         // what the file holds, as far as the client knows
  std::string_view text;           // the new one
  std::uint32_t history_keep = 0;  // old copies; 0: none, and no directory
  bool validate_only = false;      // prove the text, then leave everything as it is
  std::int64_t now = 0;            // Unix seconds; names the copy
};

// The client's fault, the server's, or neither's.
enum class ReplaceResult : int {
  Ok = 0,
  InvalidConfig = -1,
  IoFailure = -2,
  ChangedMeanwhile = -3,  // the file no longer holds `before`: somebody has edited it
};

// Replaces the file, keeping owner, group, mode and access ACL; a symbolic link in its place stays
// one, and the file that it points to is replaced. After Ok `proved` is what the text loads into.
// After any other result the file is as it was, no temporary file is left and `err` has the message
// (none for ChangedMeanwhile); that of InvalidConfig is the loader's, naming the real file.
[[nodiscard]] ReplaceResult replace_config(const Replacement& wanted,
                                           std::shared_ptr<const Config>& proved,
                                           std::span<char> err);

// What the new file is called while it is written, followed by the writer's pid.
[[nodiscard]] std::string config_temporary_prefix(const std::string& path);

}  // namespace orv

#endif  // ORV_API_CONFIG_REPLACE_H_
