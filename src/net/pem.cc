#include "net/pem.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include "common/files.h"
#include "common/message.h"
#include "net/ipc.h"

namespace orv {

int read_pem_file(const char* path, SecretString& out, std::span<char> err) {
  // Without O_NONBLOCK a FIFO at this path would stop the scheduler for good.
  const ScopedFd file = open_file(path, O_RDONLY | O_NONBLOCK);
  if (!file.valid()) return fail(err, "cannot read %s: %s", path, ::strerror(errno));
  SecretString text;
  // A file that is too large is worded like one that holds something else; a failure to read is
  // not.
  const ErrorCode rc = read_whole(file.get(), kIpcMaxPem, text);
  if (rc != ErrorCode::Ok && errno != EFBIG) {
    return fail(err, "cannot read %s: %s", path, ::strerror(errno));
  }
  if (rc != ErrorCode::Ok || text.empty() || text.find('\0') != SecretString::npos) {
    return fail(err, "%s is empty, too large or not a PEM file", path);
  }
  out = std::move(text);
  return 0;
}

}  // namespace orv
