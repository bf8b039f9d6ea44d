#include "config/snapshot.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

#include "common/digest.h"
#include "common/files.h"
#include "common/message.h"

namespace orv {

EntityTag entity_tag(std::string_view text) {
  EntityTag tag;
  tag.set_truncated("\"" + std::string(to_hex(sha256(text)).view()) + "\"");
  return tag;
}

bool read_config_text(const std::string& path, SecretString& out) {
  // Non-blocking, because a FIFO in the file's place must not stop the daemon.
  const ScopedFd file = open_file(path.c_str(), O_RDONLY | O_NONBLOCK);
  struct stat st {};
  if (!file.valid() || ::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  SecretString text;
  if (read_whole(file.get(), kMaxConfigFile, text) != ErrorCode::Ok) return false;
  if (text.find('\0') != SecretString::npos) return false;
  out = std::move(text);
  return true;
}

SnapshotPtr take_snapshot(const std::string& path, std::span<char> err, ConfigReader read) {
  auto snapshot = std::make_shared<ConfigSnapshot>();
  for (int attempt = 0; attempt < kSnapshotAttempts; ++attempt) {
    auto config = std::make_shared<Config>();
    SecretString again;
    if (!read(path, snapshot->text)) {
      (void)fail(err, "cannot read %s", path.c_str());
      return nullptr;
    }
    const int parsed = config_parse(snapshot->text, path.c_str(), *config, err);
    if (!read(path, again)) {
      (void)fail(err, "cannot read %s", path.c_str());
      return nullptr;
    }
    // An editor may have been writing during the first reading: what it left half-way must neither
    // be shown nor complained about.
    if (again != snapshot->text) continue;
    if (parsed != 0) return nullptr;
    snapshot->etag = entity_tag(snapshot->text);
    snapshot->config = std::move(config);
    return snapshot;
  }
  (void)fail(err, "%s keeps changing", path.c_str());
  return nullptr;
}

}  // namespace orv
