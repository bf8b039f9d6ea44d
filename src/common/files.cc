#include "common/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>

namespace orv {
namespace {

// Made first and checked afterwards: another process may make it between the two.
ErrorCode make_directory(const char* path) {
  if (::mkdir(path, 0777) == 0) return ErrorCode::Ok;
  const int saved = errno;
  struct stat st {};
  if (::stat(path, &st) == 0 && S_ISDIR(st.st_mode)) return ErrorCode::Ok;
  errno = saved;
  return error_from_errno(saved);
}

FileIdentity identity_of(const struct stat& st) {
  return {st.st_mtim.tv_sec, st.st_mtim.tv_nsec, st.st_ino, st.st_size};
}

template <typename Text>
ErrorCode read_to_end(int fd, std::size_t limit, Text& out) {
  struct stat st {};
  // One byte more than the file has: a regular file is then read, and its end seen, in one go. The
  // files of /proc are regular, too, but have no size.
  const bool sized = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0;
  std::size_t room = sized ? static_cast<std::size_t>(st.st_size) + 1 : std::size_t{4096};
  Text text;
  for (std::size_t size = 0;;) {
    room = std::min(room, limit + 1);  // the extra byte shows that there is more than allowed
    text.resize(room);
    std::size_t got = 0;
    const ErrorCode rc = read_up_to(fd, std::span(text).subspan(size), got);
    if (rc != ErrorCode::Ok) return rc;
    size += got;
    if (size > limit) {
      errno = EFBIG;
      return ErrorCode::IoError;
    }
    if (size < room) {
      text.resize(size);
      out.swap(text);
      return ErrorCode::Ok;
    }
    room = 2 * size;
  }
}

}  // namespace

ErrorCode make_directories(std::string_view path) {
  while (path.ends_with('/')) path.remove_suffix(1);
  if (path.empty()) return ErrorCode::Ok;
  const std::string text(path);
  // Mostly at most the last component is missing: the parents are made when they are missed.
  const ErrorCode rc = make_directory(text.c_str());
  if (rc != ErrorCode::NotFound) return rc;
  const ErrorCode parents = make_parent_directories(path);
  return parents == ErrorCode::Ok ? make_directory(text.c_str()) : parents;
}

ErrorCode make_parent_directories(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return ErrorCode::Ok;
  return make_directories(path.substr(0, slash));
}

ScopedFd open_file(const char* path, int flags, mode_t mode) {
  int fd = -1;
  do {
    fd = ::open(path, flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  return ScopedFd(fd);
}

bool lock_exclusively(int fd) {
  int rc = 0;
  do {
    rc = ::flock(fd, LOCK_EX);
  } while (rc != 0 && errno == EINTR);
  return rc == 0;
}

ErrorCode write_all(int fd, std::span<const std::byte> bytes) {
  while (!bytes.empty()) {
    const ssize_t wrote = ::write(fd, bytes.data(), bytes.size());
    if (wrote < 0 && errno == EINTR) continue;
    if (wrote < 0) return error_from_errno(errno);
    if (wrote == 0) {  // or the loop would never end
      errno = EIO;
      return ErrorCode::IoError;
    }
    bytes = bytes.subspan(static_cast<std::size_t>(wrote));
  }
  return ErrorCode::Ok;
}

ErrorCode write_all(int fd, std::string_view text) {
  return write_all(fd, std::as_bytes(std::span(text.data(), text.size())));
}

ErrorCode read_at(int fd, std::uint64_t offset, std::span<char> into, std::size_t& got) {
  std::size_t done = 0;
  while (done < into.size()) {
    const ssize_t n =
        ::pread(fd, into.data() + done, into.size() - done, static_cast<off_t>(offset + done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return error_from_errno(errno);
    if (n == 0) break;
    done += static_cast<std::size_t>(n);
  }
  got = done;
  return ErrorCode::Ok;
}

ErrorCode read_up_to(int fd, std::span<char> into, std::size_t& got) {
  for (got = 0; got < into.size();) {
    const ssize_t n = ::read(fd, into.data() + got, into.size() - got);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return error_from_errno(errno);
    if (n == 0) break;
    got += static_cast<std::size_t>(n);
  }
  return ErrorCode::Ok;
}

ErrorCode read_whole(int fd, std::size_t limit, std::string& out) {
  return read_to_end(fd, limit, out);
}
ErrorCode read_whole(int fd, std::size_t limit, SecretString& out) {
  return read_to_end(fd, limit, out);
}

FileIdentity file_identity(const char* path) {
  struct stat st {};
  return ::stat(path, &st) == 0 ? identity_of(st) : FileIdentity{};
}

FileIdentity file_identity(int fd) {
  struct stat st {};
  return ::fstat(fd, &st) == 0 ? identity_of(st) : FileIdentity{};
}

ErrorCode read_directory(const std::string& path, std::vector<std::string>& names) {
  struct Closer {
    void operator()(DIR* dir) const { ::closedir(dir); }
  };
  names.clear();
  const std::unique_ptr<DIR, Closer> dir(::opendir(path.c_str()));
  if (!dir) return error_from_errno(errno);
  for (;;) {
    errno = 0;  // the end and a failure look alike but for this
    const dirent* const entry = ::readdir(dir.get());
    if (entry == nullptr) return errno == 0 ? ErrorCode::Ok : error_from_errno(errno);
    names.emplace_back(entry->d_name);
  }
}

std::vector<std::string> directory_names(const std::string& path) {
  std::vector<std::string> names;
  if (read_directory(path, names) != ErrorCode::Ok) names.clear();
  return names;
}

std::vector<std::string> directory_names(const std::string& path, std::string_view suffix) {
  std::vector<std::string> names = directory_names(path);
  std::erase_if(names, [suffix](const std::string& name) {
    return name.size() <= suffix.size() || !name.ends_with(suffix);
  });
  return names;
}

void prune_oldest(std::string directory, std::vector<std::string> names, std::size_t keep) {
  if (names.size() <= keep) return;
  std::sort(names.begin(), names.end());
  names.resize(names.size() - keep);
  directory += '/';
  const std::size_t length = directory.size();
  for (const std::string& name : names) {
    directory.resize(length);
    (void)::unlink(directory.append(name).c_str());  // what stays does no harm
  }
}

std::string_view host_name(std::span<char, kMaxHostName + 1> buffer) {
  if (::gethostname(buffer.data(), buffer.size()) != 0) return "localhost";
  buffer.back() = '\0';  // gethostname() leaves a cut name unterminated
  return buffer.data();
}

}  // namespace orv
