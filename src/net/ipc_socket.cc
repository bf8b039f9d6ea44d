// Sending and receiving whole records.
#include <errno.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <algorithm>

#include "net/ipc.h"

namespace orv {

int ipc_send(int fd, const IpcMessage& msg, bool nonblocking) {
  const int flags = MSG_NOSIGNAL | (nonblocking ? MSG_DONTWAIT : 0);
  ssize_t sent = 0;
  do {
    sent = ::send(fd, msg.bytes.data(), msg.length, flags);
  } while (sent < 0 && errno == EINTR);
  if (sent < 0) return -1;
  if (static_cast<std::size_t>(sent) == msg.length) return 0;
  errno = EIO;  // a stale EAGAIN must not pass for a full socket buffer
  return -1;
}

IpcReceived ipc_recv(int fd, IpcMessage& msg, bool nonblocking) {
  const int flags = MSG_TRUNC | (nonblocking ? MSG_DONTWAIT : 0);
  ssize_t got = 0;
  msg.dirty = std::max(msg.dirty, msg.length);
  msg.length = 0;
  do {
    got = ::recv(fd, msg.bytes.data(), msg.bytes.size(), flags);
  } while (got < 0 && errno == EINTR);
  if (got < 0 && errno == EAGAIN) return IpcReceived::Nothing;
  // An empty record cannot be told from the end; the codec never makes one.
  if (got <= 0) return IpcReceived::Closed;
  // MSG_TRUNC reports the record's real length; what did not fit is gone, the buffer is full.
  if (static_cast<std::size_t>(got) > msg.bytes.size()) {
    msg.dirty = msg.bytes.size();
    return IpcReceived::Oversized;
  }
  msg.length = static_cast<std::size_t>(got);
  return IpcReceived::Record;
}

}  // namespace orv
