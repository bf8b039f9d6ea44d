#include "net/pem.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "common/files.h"
#include "common/message.h"
#include "net/ipc.h"

namespace orv {

int read_pem_file(const char* path, SecretBytes& out, std::span<char> err) {
  // Without O_NONBLOCK a FIFO at this path would stop the scheduler for good.
  const ScopedFd file = open_file(path, O_RDONLY | O_NONBLOCK);
  if (!file.valid()) return fail(err, "cannot read %s: %s", path, ::strerror(errno));
  SecretBytes text(kIpcMaxPem + 1);  // one more than allowed shows that there is more
  while (text.size() < text.capacity()) {
    const ssize_t got =
        ::read(file.get(), text.data() + text.size(), text.capacity() - text.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return fail(err, "cannot read %s: %s", path, ::strerror(errno));
    if (got == 0) break;
    text.set_size(text.size() + static_cast<std::size_t>(got));
  }
  if (text.empty() || text.size() > kIpcMaxPem ||
      text.view().find('\0') != std::string_view::npos) {
    return fail(err, "%s is empty, too large or not a PEM file", path);
  }
  out = SecretBytes(text.view());  // no larger than it must be: the daemon keeps it
  return 0;
}

}  // namespace orv
