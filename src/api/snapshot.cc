#include "api/snapshot.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <utility>

#include "common/files.h"
#include "common/message.h"

namespace orv {

bool read_config_text(const std::string& path, SecretBytes& out) {
  // Non-blocking, because a FIFO in the file's place must not stop the daemon.
  const ScopedFd file = open_file(path.c_str(), O_RDONLY | O_NONBLOCK);
  if (!file.valid()) return false;
  for (int attempt = 0; attempt < kSnapshotAttempts; ++attempt) {
    struct stat st {};
    if (::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    if (st.st_size > static_cast<off_t>(kMaxConfigFile)) return false;
    const auto size = static_cast<std::size_t>(st.st_size);
    SecretBytes text(size + 1);  // the byte too many tells a file that has grown meanwhile
    std::size_t got = 0;
    if (read_at(file.get(), 0, {text.data(), text.capacity()}, got) != ErrorCode::Ok) return false;
    if (got > size) continue;
    if (got > 0 && std::memchr(text.data(), '\0', got) != nullptr) return false;
    text.set_size(got);
    out = std::move(text);
    return true;
  }
  return false;
}

int take_snapshot(const std::string& path, ConfigSnapshot& out, std::span<char> err,
                  ConfigReader read) {
  for (int attempt = 0; attempt < kSnapshotAttempts; ++attempt) {
    SecretBytes text;
    if (!read(path, text)) return fail(err, "cannot read %s", path.c_str());
    auto config = std::make_unique<Config>();
    const int parsed = config_parse(text.view(), path.c_str(), *config, err);
    SecretBytes again;
    if (!read(path, again)) return fail(err, "cannot read %s", path.c_str());
    if (again.view() != text.view()) continue;
    if (parsed != 0) return -1;
    out.etag = entity_tag(text.view());
    out.text = std::move(text);
    out.config = std::move(config);
    return 0;
  }
  return fail(err, "%s keeps changing", path.c_str());
}

bool take_snapshot_or_reply(const std::string& path, ApiReply& reply, ConfigSnapshot& out) {
  char err[kConfigMessageSize];
  if (take_snapshot(path, out, err) == 0) return true;
  reply_error(reply, 500, "config_unreadable", "%s", err);
  return false;
}

}  // namespace orv
