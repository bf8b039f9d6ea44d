#include "api/config_history.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "common/files.h"
#include "common/message.h"
#include "common/replacement_file.h"
#include "common/secret.h"
#include "common/times.h"
#include "config/snapshot.h"

namespace orv {
namespace {

constexpr unsigned kCopiesPerSecond = 1000;  // names "<time>-000.cfg" to "<time>-999.cfg"
constexpr std::string_view kCopySuffix = ".cfg";

bool read_file(const std::string& path, SecretString& out) {
  const ScopedFd fd = open_file(path.c_str(), O_RDONLY | O_NONBLOCK);
  struct stat st {};
  return fd.valid() && ::fstat(fd.get(), &st) == 0 && S_ISREG(st.st_mode) &&
         read_whole(fd.get(), kMaxConfigFile, out) == ErrorCode::Ok;
}

// The number of the second's next copy. It follows the highest one and never fills a gap: the
// copies are pruned by the order of their names, and the newest must not go first.
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
  errno = EEXIST;  // what is reported when all numbers are taken
  for (; n < kCopiesPerSecond; ++n) {
    std::array<char, 16> number{};
    std::snprintf(number.data(), number.size(), "-%03u", n);
    path = directory + "/" + stamp + number.data() + std::string(kCopySuffix);
    fd = open_file(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0600);
    if (fd.valid() || errno != EEXIST) break;
  }
  return fd;
}

}  // namespace

std::string history_directory(std::string_view config_path) {
  const std::string directory = directory_of(config_path);
  return directory + (directory.ends_with('/') ? "cfg-history" : "/cfg-history");
}

int keep_copy(const std::string& path, const std::string& directory, std::int64_t now,
              std::span<char> err) {
  // The copies hold whatever the file holds, the SMTP password included.
  if (make_directories(directory) != ErrorCode::Ok || ::chmod(directory.c_str(), 0700) != 0) {
    return fail(err, "cannot create %s", directory.c_str());
  }
  SecretString old;
  if (!read_file(path, old)) return fail(err, "cannot read %s", path.c_str());
  std::string copy;
  ScopedFd fd = create_copy(directory, now, copy);
  if (!fd.valid()) {
    return fail(err, "cannot write into %s: %s", directory.c_str(), std::strerror(errno));
  }
  if (write_all(fd.get(), old) == ErrorCode::Ok && ::fsync(fd.get()) == 0 &&
      ::close(fd.release()) == 0) {
    return 0;
  }
  (void)::unlink(copy.c_str());
  return fail(err, "cannot write %s", copy.c_str());
}

void prune_copies(const std::string& directory, std::size_t keep) {
  prune_oldest(directory, directory_names(directory, kCopySuffix), keep);
}

}  // namespace orv
