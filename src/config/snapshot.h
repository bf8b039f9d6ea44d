// The configuration file as it is on disk at one moment: its bytes, their entity tag and the
// records they load into. A snapshot never changes once it is taken, so that the tag it reports
// always belongs to what it reports.
#ifndef ORV_CONFIG_SNAPSHOT_H_
#define ORV_CONFIG_SNAPSHOT_H_

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "common/fixed_text.h"
#include "common/secret.h"
#include "config/config.h"

namespace orv {

inline constexpr std::size_t kMaxConfigFile = 1048576;  // bytes; a larger file is not read
inline constexpr int kSnapshotAttempts = 3;

// The SHA-256 of the text's bytes, lower-case hexadecimal, in double quotes.
using EntityTag = FixedText<66>;
[[nodiscard]] EntityTag entity_tag(std::string_view text);

struct ConfigSnapshot {
  SecretString text;  // may hold the SMTP password
  EntityTag etag;
  std::shared_ptr<const Config> config;  // never null
};
using SnapshotPtr = std::shared_ptr<const ConfigSnapshot>;

// Reads the file whole: a regular file of at most kMaxConfigFile bytes without a NUL byte. False
// when it cannot be read or is anything else. Never blocks.
[[nodiscard]] bool read_config_text(const std::string& path, SecretString& out);

// Whether the file at `path` still has the snapshot's bytes, and what a load reads beside them (the
// file of the SMTP password, the time zone of once times) still gives the same records.
[[nodiscard]] bool snapshot_is_current(const std::string& path, const ConfigSnapshot& snapshot);

// Takes a snapshot: reads, parses, and reads again until two readings in a row agree, in at most
// kSnapshotAttempts attempts. Null with one message. `read` is read_config_text() or, in tests,
// another source.
using ConfigReader = bool (*)(const std::string& path, SecretString& out);
[[nodiscard]] SnapshotPtr take_snapshot(const std::string& path, std::span<char> err,
                                        ConfigReader read = read_config_text);

// The snapshot in `kept` when it is current, else a new one, which is kept: a text is parsed once.
// Null with one message, `kept` then as it was.
[[nodiscard]] SnapshotPtr current_snapshot(const std::string& path, SnapshotPtr& kept,
                                           std::span<char> err);

}  // namespace orv

#endif  // ORV_CONFIG_SNAPSHOT_H_
