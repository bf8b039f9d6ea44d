#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>

#include "common/files.h"
#include "plan/commands.h"

namespace orv {

void print(const std::string& text) { (void)std::fwrite(text.data(), 1, text.size(), stdout); }

int write_picture(const std::string& svg, const char* path) {
  if (std::string_view(path) == "-") {
    print(svg);
    return kExitOk;
  }
  ScopedFd file = open_file(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  // A full disk may show only when the file is closed.
  if (file.valid() && write_all(file.get(), svg) == ErrorCode::Ok && ::close(file.release()) == 0) {
    return kExitOk;
  }
  std::fprintf(stderr, "error: cannot write %s: %s\n", path, ::strerror(errno));
  return kExitFailed;
}

}  // namespace orv
