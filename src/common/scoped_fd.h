// ScopedFd owns one file descriptor.
#ifndef ORV_COMMON_SCOPED_FD_H_
#define ORV_COMMON_SCOPED_FD_H_

#include <unistd.h>

#include <utility>

namespace orv {

class ScopedFd {  // -1 is none; move it to hand the descriptor on
 public:
  explicit ScopedFd(int fd = -1) noexcept : fd_(fd) {}
  ScopedFd(ScopedFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  ScopedFd& operator=(ScopedFd&& other) noexcept {
    reset(std::exchange(other.fd_, -1));
    return *this;
  }
  ~ScopedFd() { reset(); }

  [[nodiscard]] int get() const noexcept { return fd_; }
  [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
  // Gives the descriptor away; the caller closes it.
  [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }
  // Closes what is held and takes `fd`. errno is kept, so that a failure can still be reported.
  void reset(int fd = -1) noexcept;

 private:
  int fd_;
};

}  // namespace orv

#endif  // ORV_COMMON_SCOPED_FD_H_
