// Files that are replaced whole: the new content is written under a name of its own beside the
// target, flushed and renamed over it, so that every reader, and every crash, finds either the old
// file or the new one.
#ifndef ORV_COMMON_REPLACEMENT_FILE_H_
#define ORV_COMMON_REPLACEMENT_FILE_H_

#include <sys/types.h>

#include <string>
#include <string_view>

#include "common/scoped_fd.h"
#include "common/status.h"

namespace orv {

// Whether the directory is flushed too, so that the rename itself survives a power loss.
enum class DirectoryFlush { No, Yes };

// One file on its way, for callers that do something between writing and renaming (prove the text,
// set an owner, write a second file first). Steps in order: create, write any number of times,
// finish, move_to. After a failed step errno says why and the rest must not be called. Whatever has
// not been moved is removed when the object ends.
class ReplacementFile {
 public:
  // `temporary` is the name to write under, in the target's directory.
  explicit ReplacementFile(std::string temporary) : path_(std::move(temporary)) {}
  ReplacementFile(const ReplacementFile&) = delete;
  ReplacementFile& operator=(const ReplacementFile&) = delete;
  ~ReplacementFile();

  // Creates the file exclusively with `mode`, less the umask. What a crash left under the name is
  // removed first; a link there is never followed.
  [[nodiscard]] ErrorCode create(mode_t mode);
  [[nodiscard]] ErrorCode write(std::string_view bytes);
  // Flushes and closes. Both are checked: a full disk may only be reported there.
  [[nodiscard]] ErrorCode finish();
  // Renames the file over `target`. A directory that cannot be flushed is no failure: the new file
  // is in place.
  [[nodiscard]] ErrorCode move_to(const std::string& target, DirectoryFlush flush);

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] int fd() const { return file_.get(); }  // -1 before create() and after finish()

 private:
  std::string path_;
  ScopedFd file_;
  bool present_ = false;
};

// All steps at once. On failure errno says why, `target` is as it was and nothing stays under the
// temporary name. `kept`, when given, is then a descriptor of the new file, if one could be had.
[[nodiscard]] ErrorCode replace_file(const std::string& target, std::string temporary,
                                     std::string_view bytes, mode_t mode, DirectoryFlush flush,
                                     ScopedFd* kept = nullptr);

// The directory that `path` lies in: "." for a bare name, "/" for a name in the root.
[[nodiscard]] std::string directory_of(std::string_view path);

// Makes the entries of a directory durable. Failures are not reported: callers can do nothing more.
void flush_directory(const std::string& directory);

}  // namespace orv

#endif  // ORV_COMMON_REPLACEMENT_FILE_H_
