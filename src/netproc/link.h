// The network process's end of the socket pair, on the event loop. Records go out in order; what
// the scheduler does not take at once waits here. While too much waits nothing more is read, so
// that a scheduler that only sends cannot make the queue grow without limit.
#ifndef ORV_NETPROC_LINK_H_
#define ORV_NETPROC_LINK_H_

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <deque>
#include <functional>
#include <memory>

#include "common/scoped_fd.h"
#include "common/secret.h"
#include "net/ipc.h"

namespace orv {

// While more bytes than these wait to be sent, nothing more is read.
inline constexpr std::size_t kLinkBusyBytes = std::size_t{4} << 20;
// Records read before the clients have their turn again.
inline constexpr int kLinkRecordsPerTurn = 32;

class Link {
 public:
  using OnRecord = std::function<void(const IpcParsed& record)>;
  using OnEnd = std::function<void(const char* reason)>;  // nullptr: the scheduler closed it

  // Takes the socket. `on_end` is called at most once; the link is dead then.
  Link(boost::asio::io_context& loop, ScopedFd fd, OnRecord on_record, OnEnd on_end);

  // Begins to read. Once; on_record is called from the loop only, never from here.
  void start();
  // Sends or queues the record, and wipes it. After the end it is dropped.
  void send(IpcMessage& record);
  // More than kLinkBusyBytes wait.
  [[nodiscard]] bool busy() const { return waiting_bytes_ > kLinkBusyBytes; }

 private:
  void await_input();
  void on_input();
  void await_output();
  void flush();
  void end(const char* reason);

  boost::asio::posix::stream_descriptor socket_;
  const OnRecord on_record_;
  const OnEnd on_end_;
  std::unique_ptr<IpcMessage> buffer_ = std::make_unique<IpcMessage>();
  std::deque<SecretString> waiting_;  // whole records, in the order they go out
  std::size_t waiting_bytes_ = 0;     // of all of them
  bool reading_ = false;              // a wait for input is under way
  bool writing_ = false;              // a wait for room is under way
  bool ended_ = false;                // on_end_ was called
};

}  // namespace orv

#endif  // ORV_NETPROC_LINK_H_
