#include "netproc/link.h"

#include <errno.h>
#include <string.h>

#include <utility>

namespace orv {
namespace {
using Descriptor = boost::asio::posix::stream_descriptor;
}

Link::Link(boost::asio::io_context& loop, ScopedFd fd, OnRecord on_record, OnEnd on_end)
    : socket_(loop, fd.release()), on_record_(std::move(on_record)), on_end_(std::move(on_end)) {}

void Link::start() { await_input(); }

void Link::await_input() {
  if (reading_ || ended_ || busy()) return;
  reading_ = true;
  socket_.async_wait(Descriptor::wait_read, [this](const boost::system::error_code& failed) {
    reading_ = false;
    if (!failed) on_input();
  });
}

// Bounded, so that a scheduler that never stops talking cannot keep the clients waiting.
void Link::on_input() {
  for (int i = 0; i < kLinkRecordsPerTurn && !ended_ && !busy(); ++i) {
    IpcParsed record;
    switch (ipc_recv(socket_.native_handle(), *buffer_, true)) {
      case IpcReceived::Nothing: return await_input();
      case IpcReceived::Closed: return end(nullptr);
      case IpcReceived::Oversized: return end("the scheduler sent an oversized record");
      case IpcReceived::Record: break;
    }
    if (ipc_parse({buffer_->bytes.data(), buffer_->length}, record) != 0) {
      return end("the scheduler sent a malformed record");
    }
    on_record_(record);
    buffer_->wipe();  // it may have been a password, a key or a reply
  }
  await_input();
}

void Link::send(IpcMessage& record) {
  if (!ended_) {
    const std::string_view bytes(reinterpret_cast<const char*>(record.bytes.data()), record.length);
    // After those that wait already, so that records stay in order.
    if (!waiting_.empty() || ipc_send(socket_.native_handle(), record, true) != 0) {
      waiting_.emplace_back(bytes);
      waiting_bytes_ += bytes.size();
      await_output();
    }
  }
  record.wipe();
}

void Link::await_output() {
  if (writing_ || ended_) return;
  writing_ = true;
  socket_.async_wait(Descriptor::wait_write, [this](const boost::system::error_code& failed) {
    writing_ = false;
    if (!failed) flush();
  });
}

// One record at a time through a buffer that can be wiped: what waits may be a request with a
// secret.
void Link::flush() {
  const auto record = std::make_unique_for_overwrite<IpcMessage>();
  while (!waiting_.empty() && !ended_) {
    const std::string_view bytes = waiting_.front();
    ::memcpy(record->bytes.data(), bytes.data(), bytes.size());
    record->length = bytes.size();
    const bool sent = ipc_send(socket_.native_handle(), *record, true) == 0;
    const int error = errno;
    record->wipe();
    if (!sent) {
      // ENOBUFS: the kernel has no memory for it now. Anything else ends the link.
      if (error == EAGAIN || error == ENOBUFS) break;
      return end(nullptr);
    }
    waiting_bytes_ -= bytes.size();
    waiting_.pop_front();
  }
  if (!waiting_.empty()) await_output();
  await_input();
}

void Link::end(const char* reason) {
  // Sending may find the end while receiving has found it already.
  if (std::exchange(ended_, true)) return;
  boost::system::error_code ignored;  // closing is all that is left to do
  socket_.close(ignored);
  on_end_(reason);
}

}  // namespace orv
