// The pump: what the child sends, its end, its replacement; and the shutdown.
#include "net/supervisor.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

#include "common/log.h"
#include "net/supervisor_parts.h"

namespace orv {
namespace {

using namespace net;

constexpr int kShutdownSteps = 50;
constexpr int kShutdownStepMs = 100;

constexpr std::string_view kDisabledBody =
    R"({"error":{"code":"unavailable","message":"the API is disabled"}})";
static_assert(kDisabledBody.size() == 64);

// Sets the earliest time of the next start: once for each loss of a child and each failed start.
// `started` says whether there was a child to lose.
void back_off(NetSupervisor& sup, bool started) {
  const std::int64_t now = sup.clock();
  std::uint32_t wait = sup.child.backoff;
  if (started && now - sup.child.started_at > kNetStableAfter) {
    wait = kNetFirstBackoff;
    sup.child.backoff = 2 * kNetFirstBackoff;
  } else {
    sup.child.backoff = std::min(sup.child.backoff * 2, kNetMaxBackoff);
  }
  sup.child.next_restart = now + wait;
}

// A clock that was set back must not keep mail and API away for longer than any back-off lasts.
bool restart_due(const NetSupervisor& sup) {
  const std::int64_t now = sup.clock();
  return now >= sup.child.next_restart ||
         sup.child.next_restart - now > std::int64_t{kNetMaxBackoff};
}

// The connection is over, for the reason that the log gets.
void lose_child(NetSupervisor& sup, const char* reason) {
  sup.child.fd.reset();
  log_msg(LogLevel::Warn, "orv_sched: network process pid=%d %s", sup.child.pid, reason);
  back_off(sup, true);
  give_up_mails(sup);
}

void kill_child(NetSupervisor& sup, const char* reason) {
  if (sup.child.pid > 0) (void)::kill(sup.child.pid, SIGKILL);  // it is reaped in either case
  lose_child(sup, reason);
}

// Reactions to the records that the child may send: null, or why it is to be killed.

const char* on_hello(NetSupervisor& sup, const IpcParsed& in) {
  IpcHello hello;
  if (ipc_decode_hello(in, hello, {}) != 0) return "sent a bad HELLO: killed";
  if (hello.pid != static_cast<std::uint32_t>(sup.child.pid)) {
    log_msg(LogLevel::Warn, "orv_sched: network process HELLO names pid %u, expected %d", hello.pid,
            sup.child.pid);
  }
  return nullptr;
}

// The text came from some mail server and goes to logs and terminals, which obey control
// characters; U+0080 to U+009F, two bytes in UTF-8, are such, too.
void blank_controls(char* text) {
  for (char* p = text; *p != '\0'; ++p) {
    const auto next = static_cast<unsigned char>(p[1]);
    const bool c1 = *p == '\xC2' && next >= 0x80 && next <= 0x9F;
    if (c1) *p++ = ' ';
    if (c1 || (*p > 0 && *p < ' ') || *p == 0x7F) *p = ' ';
  }
}

const char* on_mail_result(NetSupervisor& sup, const IpcParsed& in) {
  char text[kIpcMaxMailError + 1];
  std::uint32_t status = 0;
  if (ipc_decode_mail_result(in, status, text, {}) != 0) return "sent a bad MAIL_RESULT: killed";
  blank_controls(text);
  std::erase(sup.mail.unanswered, in.id);
  // Kept for net_wait_mail_result(), which may be waiting further up the stack.
  sup.mail.last_mail_id = in.id;
  sup.mail.last_mail_status = status;
  sup.mail.last_mail_error.set_truncated(text);
  if (status != 0) {
    log_msg(LogLevel::Error, "orv_sched: mail #%u not sent: %s", in.id, text);
  } else {
    log_msg(LogLevel::Info, "orv_sched: mail #%u sent", in.id);
  }
  if (sup.on_mail_result != nullptr) {
    sup.on_mail_result(sup.on_mail_result_context, in.id, status, sup.mail.last_mail_error.view());
  }
  return nullptr;
}

void answer(NetSupervisor& sup, std::uint32_t id, const ApiResponse& response) {
  // A slow child only loses this answer; its client runs into a time limit of its own.
  OutgoingRecord record;
  const int encoded = ipc_encode_api_response(record.message(), id, response);
  const char* failure = hand_over(sup, encoded, record.message());
  if (failure == nullptr) return;
  log_msg(LogLevel::Warn, "orv_sched: could not hand an API response to orv_sched_net (%s)",
          failure);
}

const char* on_api_request(NetSupervisor& sup, const IpcParsed& in) {
  // The child has checked what clients send: a request that is refused here is a fault of its own.
  ApiRequest request;
  char err[256];
  if (ipc_decode_api_request(in, request, err) != 0) {
    log_msg(LogLevel::Warn, "orv_sched: %s", err);
    return "sent a bad API_REQUEST: killed";
  }
  ApiResponse response;
  if (sup.api.enabled && sup.api.handler != nullptr) {
    sup.api.handler(sup.api.handler_context, request, response);
  } else {
    response.status = 503;
    response.body = kDisabledBody;
  }
  answer(sup, in.id, response);
  return nullptr;
}

struct Reaction {
  MessageType type;
  const char* (*react)(NetSupervisor& sup, const IpcParsed& in);
};
constexpr Reaction kReactions[] = {
    {MessageType::Hello, on_hello},
    {MessageType::MailResult, on_mail_result},
    {MessageType::ApiRequest, on_api_request},
};

const char* dispatch(NetSupervisor& sup, const IpcMessage& msg) {
  IpcParsed in;
  if (ipc_parse(std::span(msg.bytes).first(msg.length), in) != 0) {
    return "sent a malformed message: killed";
  }
  for (const Reaction& row : kReactions) {
    if (in.type == static_cast<std::uint16_t>(row.type)) return row.react(sup, in);
  }
  return "sent a message type it may not send: killed";
}

// Handles what is waiting, up to the bound of one round. A reaction may close the socket.
void receive_records(NetSupervisor& sup) {
  if (!sup.child.buffer) sup.child.buffer = std::make_unique_for_overwrite<IpcMessage>();
  for (int i = 0; i < kNetPumpRecords && sup.child.fd.valid(); ++i) {
    const char* violation = nullptr;
    switch (ipc_recv(sup.child.fd.get(), *sup.child.buffer, true)) {
      case IpcReceived::Nothing: return;
      case IpcReceived::Closed: return lose_child(sup, "closed the connection");
      case IpcReceived::Oversized: violation = "sent an oversized message: killed"; break;
      case IpcReceived::Record: violation = dispatch(sup, *sup.child.buffer); break;
    }
    sup.child.buffer->wipe();  // requests carry tokens, and bodies may carry passwords
    if (violation != nullptr) {
      kill_child(sup, violation);
      return;
    }
  }
}

// True when there is no child any more.
bool look_after_child(NetSupervisor& sup) {
  int status = 0;
  const pid_t pid = sup.child.pid;
  if (!reap(sup, status)) return false;
  // With the socket closed already, the loss was logged and the back-off set then.
  if (pid > 0 && sup.child.fd.valid()) {
    sup.child.fd.reset();
    log_msg(LogLevel::Warn, "orv_sched: network process pid=%d exited (status=%d)", pid, status);
    back_off(sup, true);
    give_up_mails(sup);
  }
  return true;
}

}  // namespace

std::int64_t net_wall_clock() { return ::time(nullptr); }

void net_pump(NetSupervisor& sup) {
  if (sup.child.in_pump) return;
  sup.child.in_pump = true;
  if (sup.child.fd.valid()) receive_records(sup);
  look_after_api(sup);
  if (look_after_child(sup) && sup.child.wanted && !sup.child.fd.valid() && restart_due(sup)) {
    if (!start_child(sup)) back_off(sup, false);
  }
  if (!sup.child.fd.valid()) sup.child.buffer.reset();
  sup.child.in_pump = false;
}

void net_wait(NetSupervisor& sup, int timeout_ms) {
  // Inside a pump nobody takes what is readable, and the wait would spin.
  pollfd wait = {sup.child.in_pump ? -1 : sup.child.fd.get(), POLLIN, 0};
  (void)::poll(&wait, 1, timeout_ms);  // a signal ends it early: the caller looks at its stop flag
  net_pump(sup);
}

void net_shutdown(NetSupervisor& sup) {
  sup.child.wanted = false;
  sup.api.wanted.enabled = false;
  sup.api.enabled = false;
  clear_api(sup);
  finish_mails(sup);
  sup.child.fd.reset();  // the child reads the end of the file and leaves
  int status = 0;
  bool gone = reap(sup, status);
  // By its number: the C library's own declaration of it is not meant for C++ everywhere.
  const ScopedFd exit_fd(gone ? -1
                              : static_cast<int>(::syscall(SYS_pidfd_open, sup.child.pid, 0U)));
  for (int i = 0; i < kShutdownSteps && !gone; ++i) {
    pollfd wait = {exit_fd.get(), POLLIN, 0};
    (void)::poll(&wait, 1, kShutdownStepMs);  // interrupted or not, the next step looks again
    gone = reap(sup, status);
  }
  if (!gone) end_child(sup);
  sup.mail.settings.wipe();
  if (!sup.child.in_pump) sup.child.buffer.reset();
}

namespace net {

const char* hand_over(const NetSupervisor& sup, int encoded, const IpcMessage& msg) {
  if (encoded == 0 && ipc_send(sup.child.fd.get(), msg, true) == 0) return nullptr;
  const bool full = encoded == 0 && errno == EAGAIN;
  return full ? "it is not keeping up" : "message too large or socket error";
}

bool reap(NetSupervisor& sup, int& status) {
  if (sup.child.pid <= 0) return true;
  pid_t rc = 0;
  do {
    rc = ::waitpid(sup.child.pid, &status, WNOHANG);
  } while (rc < 0 && errno == EINTR);
  if (rc == 0) return false;
  sup.child.pid = -1;  // reaped, or not our child any more
  return true;
}

void end_child(NetSupervisor& sup) {
  sup.child.fd.reset();
  give_up_mails(sup);
  if (sup.child.pid <= 0) return;
  (void)::kill(sup.child.pid, SIGKILL);
  while (::waitpid(sup.child.pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  sup.child.pid = -1;
}

}  // namespace net
}  // namespace orv
