#include "api/config_replace.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "common/files.h"
#include "common/message.h"
#include "common/secret.h"
#include "common/times.h"
#include "config/config.h"

namespace orv {
namespace {

constexpr mode_t kPermissionBits = 07777;
constexpr unsigned kCopiesPerSecond = 1000;  // names "<time>-000.cfg" to "<time>-999.cfg"
constexpr std::string_view kCopySuffix = ".cfg";
constexpr std::size_t kMaxReplaceMessage = 1023;  // bytes

// The temporary file; it goes with the scope unless it has become the configuration.
class TemporaryFile {
 public:
  explicit TemporaryFile(std::string path) : path_(std::move(path)) {}
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() {
    if (present_) ::unlink(path_.c_str());
  }
  [[nodiscard]] const std::string& path() const { return path_; }
  void made() { present_ = true; }
  void moved() { present_ = false; }

 private:
  std::string path_;
  bool present_ = false;
};

ReplaceResult io_failure(int /*of fail()*/) { return ReplaceResult::IoFailure; }

bool close_checked(ScopedFd& fd) { return ::close(fd.release()) == 0; }

// Writes the text under the temporary name with owner, group and mode of the file it is to replace.
ReplaceResult write_temporary(TemporaryFile& file, std::string_view text, const struct stat& old,
                              std::span<char> err) {
  const char* const path = file.path().c_str();
  ::unlink(path);  // a leftover of a process of the same number
  ScopedFd fd = open_file(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
  if (!fd.valid()) return io_failure(fail(err, "cannot write %s: %s", path, std::strerror(errno)));
  file.made();
  const bool good = write_all(fd.get(), text) == ErrorCode::Ok &&
                    (::geteuid() != 0 || ::fchown(fd.get(), old.st_uid, old.st_gid) == 0) &&
                    ::fchmod(fd.get(), old.st_mode & kPermissionBits) == 0 &&
                    ::fsync(fd.get()) == 0 && close_checked(fd);
  return good ? ReplaceResult::Ok : io_failure(fail(err, "cannot write %s", path));
}

// Loads the temporary file with the program's own loader; its message is to name the real file.
ReplaceResult prove(const std::string& temporary, const std::string& path, std::span<char> err) {
  const auto config = std::make_unique<Config>();
  std::array<char, kConfigMessageSize> message{};
  if (config_load(temporary.c_str(), *config, message) == 0) return ReplaceResult::Ok;
  std::string text = message.data();
  for (std::size_t at = text.find(temporary); at != std::string::npos;
       at = text.find(temporary, at + path.size())) {
    text.replace(at, temporary.size(), path);
  }
  text.resize(std::min(text.size(), kMaxReplaceMessage));
  (void)fail(err, "%s", text.c_str());
  return ReplaceResult::InvalidConfig;
}

bool read_whole(const std::string& path, SecretBytes& out) {
  const ScopedFd fd = open_file(path.c_str(), O_RDONLY);
  struct stat st {};
  if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  SecretBytes bytes(static_cast<std::size_t>(st.st_size) + 1);
  std::size_t got = 0;
  const std::span<char> into(bytes.data(), static_cast<std::size_t>(st.st_size));
  if (read_at(fd.get(), 0, into, got) != ErrorCode::Ok) return false;
  bytes.set_size(got);
  out = std::move(bytes);
  return true;
}

// The number of the second's next copy. It goes on behind the highest one and never fills a gap:
// the copies are pruned by the order of their names, and the newest must not go first.
unsigned next_number(const std::vector<std::string>& names, const std::string& stamp) {
  unsigned next = 0;
  for (const std::string& name : names) {
    unsigned number = 0;
    int end = 0;
    if (name.starts_with(stamp + "-") &&
        std::sscanf(name.c_str() + stamp.size(), "-%3u.cfg%n", &number, &end) == 1 && end != 0) {
      next = std::max(next, number + 1);
    }
  }
  return next;
}

ScopedFd create_copy(const std::string& directory, std::int64_t now, std::string& path) {
  const std::string stamp = format_utc(now, kUtcStampFormat);
  ScopedFd fd;
  unsigned n = next_number(directory_names(directory, kCopySuffix), stamp);
  errno = EEXIST;  // what is told when all numbers are taken
  for (; n < kCopiesPerSecond; ++n) {
    std::array<char, 16> number{};
    std::snprintf(number.data(), number.size(), "-%03u", n);
    path = directory + "/" + stamp + number.data() + std::string(kCopySuffix);
    fd = open_file(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    if (fd.valid() || errno != EEXIST) break;
  }
  return fd;
}

// Keeps a copy of the present file in the history.
ReplaceResult keep_copy(const std::string& path, const std::string& directory, std::int64_t now,
                        std::span<char> err) {
  if (make_directories(directory) != ErrorCode::Ok || ::chmod(directory.c_str(), 0700) != 0) {
    return io_failure(fail(err, "cannot create %s", directory.c_str()));
  }
  SecretBytes old;
  if (!read_whole(path, old)) return io_failure(fail(err, "cannot read %s", path.c_str()));
  std::string copy;
  ScopedFd fd = create_copy(directory, now, copy);
  if (!fd.valid()) {
    return io_failure(
        fail(err, "cannot write into %s: %s", directory.c_str(), std::strerror(errno)));
  }
  if (write_all(fd.get(), old.view()) == ErrorCode::Ok && ::fsync(fd.get()) == 0 &&
      close_checked(fd)) {
    return ReplaceResult::Ok;
  }
  ::unlink(copy.c_str());
  return io_failure(fail(err, "cannot write %s", copy.c_str()));
}

std::string directory_of(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  return std::string(path.substr(0, std::max<std::size_t>(slash, 1)));
}

// Makes the rename itself durable. A failure is not reported: the new file is in place.
void flush_directory(const std::string& directory) {
  const ScopedFd fd = open_file(directory.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd.valid()) (void)::fsync(fd.get());
}

}  // namespace

std::string history_directory(std::string_view config_path) {
  const std::string directory = directory_of(config_path);
  return directory + (directory.ends_with('/') ? "cfg-history" : "/cfg-history");
}

ReplaceResult replace_config(const std::string& path, std::string_view text,
                             const std::string& history_dir, std::uint32_t history_keep,
                             bool validate_only, std::int64_t now, std::span<char> err) {
  struct stat old {};
  if (::stat(path.c_str(), &old) != 0) {
    return io_failure(fail(err, "cannot stat %s: %s", path.c_str(), std::strerror(errno)));
  }
  TemporaryFile temporary(path + ".api-tmp." + std::to_string(::getpid()));
  ReplaceResult result = write_temporary(temporary, text, old, err);
  if (result == ReplaceResult::Ok) result = prove(temporary.path(), path, err);
  if (result != ReplaceResult::Ok || validate_only) return result;
  if (history_keep > 0) {
    result = keep_copy(path, history_dir, now, err);
    if (result != ReplaceResult::Ok) return result;
    prune_oldest(history_dir, directory_names(history_dir, kCopySuffix), history_keep);
  }
  if (::rename(temporary.path().c_str(), path.c_str()) != 0) {
    return io_failure(fail(err, "cannot replace %s: %s", path.c_str(), std::strerror(errno)));
  }
  temporary.moved();
  flush_directory(directory_of(path));
  return ReplaceResult::Ok;
}

}  // namespace orv
