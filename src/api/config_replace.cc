#include "api/config_replace.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <vector>

#include "api/config_history.h"
#include "common/message.h"
#include "common/replacement_file.h"
#include "config/snapshot.h"

namespace orv {
namespace {

constexpr mode_t kPermissionBits = 07777;
constexpr std::size_t kMaxReplaceMessage = 1023;  // bytes

ReplaceResult io_failure(int /*of fail()*/) { return ReplaceResult::IoFailure; }

// The file that a symbolic link at `path` points to, else `path` itself.
std::string link_target(const std::string& path) {
  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return path;
  const std::unique_ptr<char, decltype(&::free)> target(::realpath(path.c_str(), nullptr), ::free);
  return target ? target.get() : path;
}

// Gives the open file the access ACL of the one at `path`, or none when that has none: the
// directory's default ACL may have added one. With the mode alone, an ACL's mask would become the
// rights of the whole group.
bool copy_acl(const std::string& path, int fd) {
  constexpr const char* kAcl = "system.posix_acl_access";
  constexpr std::size_t kMaxAttribute = 65536;  // bytes, the kernel's limit
  const auto nothing_there = [] { return errno == ENODATA || errno == EOPNOTSUPP; };
  std::vector<char> acl(kMaxAttribute);
  const ssize_t size = ::getxattr(path.c_str(), kAcl, acl.data(), acl.size());
  if (size >= 0) return ::fsetxattr(fd, kAcl, acl.data(), static_cast<std::size_t>(size), 0) == 0;
  return nothing_there() && (::fremovexattr(fd, kAcl) == 0 || nothing_there());
}

// Writes the text under the temporary name with the rights of the file that it is to replace.
ReplaceResult write_temporary(ReplacementFile& file, std::string_view text,
                              const std::string& target, const struct stat& old,
                              std::span<char> err) {
  const char* const path = file.path().c_str();
  if (file.create(0600) != ErrorCode::Ok) {
    return io_failure(fail(err, "cannot write %s: %s", path, std::strerror(errno)));
  }
  // Owner before mode: a change of owner clears set-id bits. All before the flush and the rename,
  // so that the file never stands in place with other rights, not even for a moment.
  const bool good = file.write(text) == ErrorCode::Ok &&
                    (::geteuid() != 0 || ::fchown(file.fd(), old.st_uid, old.st_gid) == 0) &&
                    copy_acl(target, file.fd()) &&
                    ::fchmod(file.fd(), old.st_mode & kPermissionBits) == 0 &&
                    file.finish() == ErrorCode::Ok;
  return good ? ReplaceResult::Ok : io_failure(fail(err, "cannot write %s", path));
}

// Loads the temporary file with the program's own loader; its message is to name the real file.
ReplaceResult prove(const std::string& temporary, const std::string& path,
                    std::shared_ptr<const Config>& proved, std::span<char> err) {
  auto config = std::make_shared<Config>();
  std::array<char, kConfigMessageSize> message{};
  if (config_load(temporary.c_str(), *config, message) == 0) {
    proved = std::move(config);
    return ReplaceResult::Ok;
  }
  // Whoever reads the message knows the file by its own name; the temporary one is gone by then.
  std::string text = message.data();
  for (std::size_t at = text.find(temporary); at != std::string::npos;
       at = text.find(temporary, at + path.size())) {
    text.replace(at, temporary.size(), path);
  }
  text.resize(std::min(text.size(), kMaxReplaceMessage));
  (void)fail(err, "%s", text.c_str());
  return ReplaceResult::InvalidConfig;
}

// Ok as long as the file holds just this.
ReplaceResult check_unchanged(const std::string& path, std::string_view text, std::span<char> err) {
  SecretString now;
  if (!read_config_text(path, now)) return io_failure(fail(err, "cannot read %s", path.c_str()));
  return now == text ? ReplaceResult::Ok : ReplaceResult::ChangedMeanwhile;
}

// Keeps a copy of what the file holds, and as many of the older ones as are wanted.
ReplaceResult keep_history(const Replacement& wanted, std::span<char> err) {
  const std::string directory = history_directory(wanted.path);
  if (keep_copy(wanted.before, directory, wanted.now, err) != 0) return ReplaceResult::IoFailure;
  prune_copies(directory, wanted.history_keep);
  return ReplaceResult::Ok;
}

}  // namespace

ReplaceResult replace_config(const Replacement& wanted, std::shared_ptr<const Config>& proved,
                             std::span<char> err) {
  const std::string& path = wanted.path;
  struct stat old {};
  if (::stat(path.c_str(), &old) != 0) {
    return io_failure(fail(err, "cannot stat %s: %s", path.c_str(), std::strerror(errno)));
  }
  const std::string target = link_target(path);
  ReplacementFile temporary(config_temporary_prefix(path) + std::to_string(::getpid()));
  ReplaceResult result = write_temporary(temporary, wanted.text, target, old, err);
  if (result == ReplaceResult::Ok) result = prove(temporary.path(), path, proved, err);
  if (result != ReplaceResult::Ok || wanted.validate_only) return result;
  // An edit by hand that was saved meanwhile must not be lost: before the copy, which is to be of
  // what the file holds, and again as late as can be.
  result = check_unchanged(path, wanted.before, err);
  if (result == ReplaceResult::Ok && wanted.history_keep > 0) {
    result = keep_history(wanted, err);
    if (result == ReplaceResult::Ok) result = check_unchanged(path, wanted.before, err);
  }
  if (result != ReplaceResult::Ok) return result;
  if (temporary.move_to(target, DirectoryFlush::Yes) != ErrorCode::Ok) {
    return io_failure(fail(err, "cannot replace %s: %s", path.c_str(), std::strerror(errno)));
  }
  return ReplaceResult::Ok;
}

std::string config_temporary_prefix(const std::string& path) {
  return link_target(path) + ".api-tmp.";
}

}  // namespace orv
