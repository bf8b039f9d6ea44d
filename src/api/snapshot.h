// The configuration as it is on disk at one moment: its bytes, their entity tag and the records
// they load into. Every operation that shows or changes configuration works on one of its own,
// never on the daemon's loaded copy, so that the tag it reports always belongs to what it reports.
#ifndef ORV_API_SNAPSHOT_H_
#define ORV_API_SNAPSHOT_H_

#include <memory>
#include <span>
#include <string>

#include "api/config_text.h"
#include "api/reply.h"
#include "common/secret.h"
#include "config/config.h"

namespace orv {

inline constexpr int kSnapshotAttempts = 3;

struct ConfigSnapshot {
  SecretBytes text;  // may hold the SMTP password
  EntityTag etag;
  std::unique_ptr<Config> config;
};

// Reads the file whole: a regular file of at most kMaxConfigFile bytes without a NUL byte. False
// when it cannot be read or is anything else.
[[nodiscard]] bool read_config_text(const std::string& path, SecretBytes& out);

// Takes a snapshot: reads, parses, and reads again until two readings in a row agree, in at most
// kSnapshotAttempts attempts. 0; -1 with one message. `read` is read_config_text() or, in tests,
// another source.
using ConfigReader = bool (*)(const std::string& path, SecretBytes& out);
[[nodiscard]] int take_snapshot(const std::string& path, ConfigSnapshot& out, std::span<char> err,
                                ConfigReader read = read_config_text);

// The same for an endpoint: false after the error reply 500 "config_unreadable".
[[nodiscard]] bool take_snapshot_or_reply(const std::string& path, ApiReply& reply,
                                          ConfigSnapshot& out);

}  // namespace orv

#endif  // ORV_API_SNAPSHOT_H_
