#include "common/scoped_fd.h"

#include <cerrno>

namespace orv {

void ScopedFd::reset(int fd) noexcept {
  if (fd_ >= 0) {
    const int saved = errno;
    ::close(fd_);
    errno = saved;
  }
  fd_ = fd;
}

}  // namespace orv
