#include "api/config_history.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "common/files.h"
#include "common/message.h"
#include "common/replacement_file.h"
#include "common/text.h"
#include "common/times.h"

namespace orv {
namespace {

constexpr unsigned kCopiesPerSecond = 1000;  // names "<stamp>-000.cfg" to "<stamp>-999.cfg"
constexpr std::size_t kStampLength = 16;
constexpr std::string_view kCopyForm = "ddddddddTddddddZ-ddd.cfg";

bool is_copy_name(std::string_view name) {
  return std::ranges::equal(
      name, kCopyForm, [](char c, char form) { return form == 'd' ? is_digit(c) : c == form; });
}

std::vector<std::string> copy_names(const std::string& directory) {
  std::vector<std::string> names = directory_names(directory);
  std::erase_if(names, [](const std::string& name) { return !is_copy_name(name); });
  return names;
}

// The number of the second's next copy. It follows the highest one and never fills a gap: the
// copies are pruned by the order of their names, and the newest must not go first.
unsigned next_number(const std::string& directory, const std::string& stamp) {
  unsigned next = 0;
  for (const std::string& name : copy_names(directory)) {
    std::uint32_t number = 0;
    if (name.starts_with(stamp) && parse_u32(name.substr(kStampLength + 1, 3), number)) {
      next = std::max(next, number + 1);
    }
  }
  return next;
}

std::string copy_path(const std::string& directory, const std::string& stamp, unsigned number) {
  const std::string digits = std::to_string(kCopiesPerSecond + number).substr(1);
  return directory + "/" + stamp + "-" + digits + ".cfg";
}

// Gives the finished file its name without ever taking another file's place; errno says why not.
bool name_copy(ReplacementFile& file, const std::string& path) {
  if (::link(file.path().c_str(), path.c_str()) == 0) return true;  // its first name goes with it
  // Some file systems have no links. Nobody else writes here, so that looking first is enough.
  if (errno != EPERM && errno != EOPNOTSUPP) return false;
  struct stat st {};
  errno = EEXIST;
  return ::lstat(path.c_str(), &st) != 0 && file.move_to(path, DirectoryFlush::No) == ErrorCode::Ok;
}

}  // namespace

std::string history_directory(std::string_view config_path) {
  const std::string directory = directory_of(config_path);
  return directory + (directory.ends_with('/') ? "cfg-history" : "/cfg-history");
}

int keep_copy(std::string_view text, const std::string& directory, std::int64_t now,
              std::span<char> err) {
  // The copies hold whatever the file holds, the SMTP password included.
  if (make_directories(directory) != ErrorCode::Ok || ::chmod(directory.c_str(), 0700) != 0) {
    return fail(err, "cannot create %s", directory.c_str());
  }
  const std::string stamp = format_utc(now, kUtcStampFormat);
  unsigned number = next_number(directory, stamp);
  // Under another name first: a copy that a kill or a full disk cut short would count as one.
  ReplacementFile file(copy_temporary_prefix(directory) + std::to_string(::getpid()));
  if (file.create(0600) != ErrorCode::Ok) {
    return fail(err, "cannot write into %s: %s", directory.c_str(), std::strerror(errno));
  }
  if (file.write(text) != ErrorCode::Ok || file.finish() != ErrorCode::Ok) {
    return fail(err, "cannot write %s", copy_path(directory, stamp, number).c_str());
  }
  errno = EEXIST;  // what is reported when all numbers are taken
  for (; number < kCopiesPerSecond && errno == EEXIST; ++number) {
    if (!name_copy(file, copy_path(directory, stamp, number))) continue;
    // Before the file itself is replaced, or a power loss could take both versions' only copy.
    flush_directory(directory);
    return 0;
  }
  return fail(err, "cannot write into %s: %s", directory.c_str(), std::strerror(errno));
}

void prune_copies(const std::string& directory, std::size_t keep) {
  prune_oldest(directory, copy_names(directory), keep);
}

std::string copy_temporary_prefix(const std::string& directory) { return directory + "/copy.tmp."; }

}  // namespace orv
