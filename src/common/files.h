// File helpers. Every descriptor is opened close-on-exec; interrupted calls are retried.
#ifndef ORV_COMMON_FILES_H_
#define ORV_COMMON_FILES_H_

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/scoped_fd.h"
#include "common/secret.h"
#include "common/status.h"

namespace orv {

// Creates the directory with all missing parents, each with mode 0777 before the umask. A component
// that exists is accepted when it is a directory (or a link to one). An empty path is Ok.
[[nodiscard]] ErrorCode make_directories(std::string_view path);

// The same for the directory that `path` lies in; a path without a slash needs none.
[[nodiscard]] ErrorCode make_parent_directories(std::string_view path);

// open(2) with O_CLOEXEC added, retried on EINTR; an empty owner on failure, errno kept.
[[nodiscard]] ScopedFd open_file(const char* path, int flags, mode_t mode = 0);

// Takes the exclusive lock of the open file, waiting while another process holds it (flock(2)). It
// ends with the descriptor. False, errno kept, when it cannot be had.
[[nodiscard]] bool lock_exclusively(int fd);

// Writes all of `bytes`. A write that makes no progress is an IoError. Here and above, errno says
// why a call failed.
[[nodiscard]] ErrorCode write_all(int fd, std::span<const std::byte> bytes);
[[nodiscard]] ErrorCode write_all(int fd, std::string_view text);

// Reads from `offset` until `into` is full or the file ends; `got` is the number of bytes read.
[[nodiscard]] ErrorCode read_at(int fd, std::uint64_t offset, std::span<char> into,
                                std::size_t& got);

// Reads from the descriptor's place until `into` is full or the file ends; `got` is the number of
// bytes read, also after a failure.
[[nodiscard]] ErrorCode read_up_to(int fd, std::span<char> into, std::size_t& got);

// Reads from the descriptor's place to the end of the file. A file of more than `limit` bytes is an
// IoError with errno EFBIG. `out` is written on success only.
[[nodiscard]] ErrorCode read_whole(int fd, std::size_t limit, std::string& out);
[[nodiscard]] ErrorCode read_whole(int fd, std::size_t limit, SecretString& out);

// Identifies a version of a file's content without reading it. All zero when the status cannot be
// read. Links are followed.
struct FileIdentity {
  std::int64_t mtime_s = 0;
  std::int64_t mtime_ns = 0;
  std::uint64_t inode = 0;
  std::int64_t size = 0;  // bytes
  friend bool operator==(const FileIdentity&, const FileIdentity&) = default;
};
[[nodiscard]] FileIdentity file_identity(const char* path);
[[nodiscard]] FileIdentity file_identity(int fd);

// The names of the directory's entries, "." and ".." included, in no order. After a failure errno
// says why, and `names` has those that were read before it.
[[nodiscard]] ErrorCode read_directory(const std::string& path, std::vector<std::string>& names);

// The same for callers that can do without: none when the directory cannot be read.
[[nodiscard]] std::vector<std::string> directory_names(const std::string& path);

// Those of them that end in `suffix` and are longer than it.
[[nodiscard]] std::vector<std::string> directory_names(const std::string& path,
                                                       std::string_view suffix);

// Deletes the entries of `names` that sort first (bytewise) until `keep` remain. For names that
// begin with a time these are the oldest. Errors are ignored.
void prune_oldest(std::string directory, std::vector<std::string> names, std::size_t keep);

// The host's name, at most 255 bytes, "localhost" when it cannot be read.
inline constexpr std::size_t kMaxHostName = 255;
[[nodiscard]] std::string_view host_name(std::span<char, kMaxHostName + 1> buffer);

}  // namespace orv

#endif  // ORV_COMMON_FILES_H_
