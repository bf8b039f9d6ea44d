#include "common/replacement_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

#include "common/files.h"

namespace orv {

ReplacementFile::~ReplacementFile() {
  if (!present_) return;
  const int saved = errno;  // of the step that failed
  (void)::unlink(path_.c_str());
  errno = saved;
}

ErrorCode ReplacementFile::create(mode_t mode) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
  file_ = open_file(path_.c_str(), kFlags, mode);
  // A leftover of a killed process. Removing it only when it is in the way saves a call each time.
  if (!file_.valid() && errno == EEXIST && ::unlink(path_.c_str()) == 0) {
    file_ = open_file(path_.c_str(), kFlags, mode);
  }
  present_ = file_.valid();
  return present_ ? ErrorCode::Ok : error_from_errno(errno);
}

ErrorCode ReplacementFile::write(std::string_view bytes) { return write_all(file_.get(), bytes); }

ErrorCode ReplacementFile::finish() {
  if (::fsync(file_.get()) != 0) return error_from_errno(errno);
  return ::close(file_.release()) == 0 ? ErrorCode::Ok : error_from_errno(errno);
}

ErrorCode ReplacementFile::move_to(const std::string& target, DirectoryFlush flush) {
  if (::rename(path_.c_str(), target.c_str()) != 0) return error_from_errno(errno);
  present_ = false;
  // From here on the new file counts, so nothing that follows may report a failure.
  if (flush == DirectoryFlush::Yes) flush_directory(directory_of(target));
  return ErrorCode::Ok;
}

ErrorCode replace_file(const std::string& target, std::string temporary, std::string_view bytes,
                       mode_t mode, DirectoryFlush flush, ScopedFd* kept) {
  ReplacementFile file(std::move(temporary));
  if (const ErrorCode rc = file.create(mode); rc != ErrorCode::Ok) return rc;
  if (const ErrorCode rc = file.write(bytes); rc != ErrorCode::Ok) return rc;
  if (kept != nullptr) kept->reset(::fcntl(file.fd(), F_DUPFD_CLOEXEC, 0));
  if (const ErrorCode rc = file.finish(); rc != ErrorCode::Ok) return rc;
  return file.move_to(target, flush);
}

std::string directory_of(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return ".";
  return std::string(path.substr(0, std::max<std::size_t>(slash, 1)));
}

void flush_directory(const std::string& directory) {
  const ScopedFd fd = open_file(directory.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd.valid()) (void)::fsync(fd.get());
}

}  // namespace orv
