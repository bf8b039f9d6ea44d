#include "api/config_replace.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "api/config_history.h"
#include "common/message.h"
#include "common/replacement_file.h"

namespace orv {
namespace {

constexpr mode_t kPermissionBits = 07777;
constexpr std::size_t kMaxReplaceMessage = 1023;  // bytes

ReplaceResult io_failure(int /*of fail()*/) { return ReplaceResult::IoFailure; }

// Writes the text under the temporary name with owner, group and mode of the file it is to replace.
ReplaceResult write_temporary(ReplacementFile& file, std::string_view text, const struct stat& old,
                              std::span<char> err) {
  const char* const path = file.path().c_str();
  if (file.create(0600) != ErrorCode::Ok) {
    return io_failure(fail(err, "cannot write %s: %s", path, std::strerror(errno)));
  }
  const bool good = file.write(text) == ErrorCode::Ok &&
                    (::geteuid() != 0 || ::fchown(file.fd(), old.st_uid, old.st_gid) == 0) &&
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
  std::string text = message.data();
  for (std::size_t at = text.find(temporary); at != std::string::npos;
       at = text.find(temporary, at + path.size())) {
    text.replace(at, temporary.size(), path);
  }
  text.resize(std::min(text.size(), kMaxReplaceMessage));
  (void)fail(err, "%s", text.c_str());
  return ReplaceResult::InvalidConfig;
}

}  // namespace

ReplaceResult replace_config(const Replacement& wanted, std::shared_ptr<const Config>& proved,
                             std::span<char> err) {
  const std::string& path = wanted.path;
  struct stat old {};
  if (::stat(path.c_str(), &old) != 0) {
    return io_failure(fail(err, "cannot stat %s: %s", path.c_str(), std::strerror(errno)));
  }
  ReplacementFile temporary(path + ".api-tmp." + std::to_string(::getpid()));
  ReplaceResult result = write_temporary(temporary, wanted.text, old, err);
  if (result == ReplaceResult::Ok) result = prove(temporary.path(), path, proved, err);
  if (result != ReplaceResult::Ok || wanted.validate_only) return result;
  if (wanted.history_keep > 0) {
    const std::string history = history_directory(path);
    if (keep_copy(path, history, wanted.now, err) != 0) return ReplaceResult::IoFailure;
    prune_copies(history, wanted.history_keep);
  }
  if (temporary.move_to(path, DirectoryFlush::Yes) != ErrorCode::Ok) {
    return io_failure(fail(err, "cannot replace %s: %s", path.c_str(), std::strerror(errno)));
  }
  return ReplaceResult::Ok;
}

}  // namespace orv
