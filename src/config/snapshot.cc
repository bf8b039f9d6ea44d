#include "config/snapshot.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
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

namespace {

// The file, when it is a regular one. Non-blocking, because a FIFO in its place must not stop the
// daemon.
ScopedFd open_regular(const std::string& path, struct stat& st) {
  ScopedFd file = open_file(path.c_str(), O_RDONLY | O_NONBLOCK);
  if (file.valid() && (::fstat(file.get(), &st) != 0 || !S_ISREG(st.st_mode))) file.reset();
  return file;
}

}  // namespace

bool read_config_text(const std::string& path, SecretString& out) {
  struct stat st {};
  const ScopedFd file = open_regular(path, st);
  if (!file.valid()) return false;
  SecretString text;
  if (read_whole(file.get(), kMaxConfigFile, text) != ErrorCode::Ok) return false;
  if (text.find('\0') != SecretString::npos) return false;
  out = std::move(text);
  return true;
}

namespace {

bool file_holds(const std::string& path, std::string_view text) {
  struct stat st {};
  const ScopedFd file = open_regular(path, st);
  // The size answers for nearly every changed file without a byte being read.
  if (!file.valid() || st.st_size != static_cast<off_t>(text.size())) return false;
  std::array<char, 16384> part;  // compared piece by piece: a copy of the whole is not needed
  const ScopedWipe wipe(part.data(), part.size());
  for (;;) {
    std::size_t got = 0;
    if (read_up_to(file.get(), part, got) != ErrorCode::Ok) return false;
    if (!text.starts_with(std::string_view(part.data(), got))) return false;
    text.remove_prefix(got);
    if (got < part.size()) return text.empty();
  }
}

// The secret may change while the configuration that names its file stays as it is.
bool password_is_current(const MailSection& mail) {
  if (!mail.smtp_password_set || mail.smtp_password_kind != SecretKind::File) return true;
  FixedSecret<kMaxSecret> now;
  return read_secret({SecretKind::File, mail.smtp_password_file}, now) &&
         equal_constant_time(now.view(), mail.smtp_password.view());
}

// Local times mean another moment after the server's zone was changed.
bool times_are_current(const Config& config) {
  return std::ranges::all_of(config.jobs, [](const Job& job) {
    std::int64_t once = 0;
    return !job.has_once || (parse_once(job.once_text.view(), once) && once == job.once);
  });
}

}  // namespace

bool snapshot_is_current(const std::string& path, const ConfigSnapshot& snapshot) {
  return file_holds(path, snapshot.text) && password_is_current(snapshot.config->mail) &&
         times_are_current(*snapshot.config);
}

SnapshotPtr current_snapshot(const std::string& path, SnapshotPtr& kept, std::span<char> err) {
  // One reading that agrees with an earlier one is as good as two in a row.
  if (kept && snapshot_is_current(path, *kept)) return kept;
  SnapshotPtr fresh = take_snapshot(path, err);
  if (fresh) kept = fresh;
  return fresh;
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
