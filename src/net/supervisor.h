// The scheduler's side of the network process: finds and starts orv_sched_net, hands it settings,
// handles what it sends, and replaces it when it dies or misbehaves.
//
// The network process is not trusted. Any violation of the protocol closes the socket and kills it;
// nothing it does blocks the scheduler, because every send is non-blocking and a pump handles at
// most kNetPumpRecords records. Everything runs on the caller's thread.
#ifndef ORV_NET_SUPERVISOR_H_
#define ORV_NET_SUPERVISOR_H_

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/files.h"
#include "common/fixed_text.h"
#include "common/scoped_fd.h"
#include "common/secret.h"
#include "config/config.h"
#include "net/ipc.h"

namespace orv {

inline constexpr int kNetPumpRecords = 32;
inline constexpr std::int64_t kNetStableAfter = 59;   // seconds; a longer run resets the back-off
inline constexpr std::uint32_t kNetFirstBackoff = 5;  // seconds
inline constexpr std::uint32_t kNetMaxBackoff = 300;  // seconds
inline constexpr std::uint32_t kApiFirstRetry = 5;    // seconds; doubles with every failed try
inline constexpr std::uint32_t kApiMaxRetry = 60;     // seconds
inline constexpr int kMailGrace = 10;                 // seconds that a shutdown waits for outcomes

// Answers one request. `response.body` must stay valid until the next call.
using ApiHandler = void (*)(void* context, const ApiRequest& request, ApiResponse& response);
// Called with each mail's outcome; `error` is empty when it was sent. It must not pump.
using MailResultCallback = void (*)(void* context, std::uint32_t mail_id, std::uint32_t status,
                                    std::string_view error);

[[nodiscard]] std::int64_t net_wall_clock();

// The child process and the socket to it.
struct NetChild {
  pid_t pid = -1;                 // -1: there is none
  ScopedFd fd;                    // our end of the socket pair
  std::int64_t started_at = 0;    // Unix seconds of the last successful start
  std::int64_t next_restart = 0;  // Unix seconds before which none is tried
  std::uint32_t backoff = kNetFirstBackoff;
  std::uint32_t next_id = 1;
  bool wanted = false;                 // it should be running
  bool in_pump = false;                // guards against re-entry
  std::unique_ptr<IpcMessage> buffer;  // the record being received; there while connected
};

struct NetMail {
  IpcMailConfig settings;                 // `valid` when mail is configured
  std::vector<std::uint32_t> unanswered;  // ids of the mails whose outcome is not known yet
  std::uint32_t last_mail_id = 0;
  std::uint32_t last_mail_status = 0;
  FixedText<kIpcMaxMailError> last_mail_error;
};

// The API as it is served, and as it should be: while the two differ, the pump tries again.
struct NetApi {
  bool enabled = false;  // it is served
  ScopedFd listen_fd;
  FixedText<199> listen_label;  // address and port, IPv6 in brackets
  IpcApiConfig config;          // as the child has it
  ApiHandler handler = nullptr;
  void* handler_context = nullptr;

  ApiSection wanted;              // as last given to net_set_api()
  std::string failure;            // why it is not served as wanted; each reason is logged once
  FileIdentity cert_id, key_id;   // of the files last tried
  std::int64_t next_try = 0;      // Unix seconds before which the pump does not try
  std::uint32_t retry_delay = 0;  // seconds; grows from kApiFirstRetry to kApiMaxRetry
};

struct NetSupervisor {
  NetChild child;
  NetMail mail;
  NetApi api;
  MailResultCallback on_mail_result = nullptr;
  void* on_mail_result_context = nullptr;
  std::int64_t (*clock)() = net_wall_clock;  // Unix seconds; tests of the back-off have their own
};

// Takes the [mail] settings (none when the section is absent), starting the network process when it
// was not wanted yet, else sending it the new settings.
void net_set_mail(NetSupervisor& sup, const MailSection& mail);

// Starts, changes or stops the API according to [api]; nothing happens when nothing changed. A
// change ends the child at once and starts another. A certificate or key that cannot be used, or an
// address that cannot be listened on, is logged and stops the API; mail goes on. The pump then
// tries again until the API is up, and takes over a certificate and key that were replaced on disk;
// a pair there that cannot be used is logged and leaves the API as it is.
void net_set_api(NetSupervisor& sup, const ApiSection& api, ApiHandler handler, void* context);
void net_stop_api(NetSupervisor& sup);

// One round: handles what the child has sent, reaps it, starts a new one when it is due. Returns at
// once when it is already running further up the stack.
void net_pump(NetSupervisor& sup);

// Sleeps up to `timeout_ms`, less when the child sends something, then pumps. A signal ends it
// early.
void net_wait(NetSupervisor& sup, int timeout_ms);

// The descriptor that becomes readable when the child has sent something; -1 when not connected.
[[nodiscard]] inline int net_wait_fd(const NetSupervisor& sup) { return sup.child.fd.get(); }

// Hands a mail to the child. Its id (>= 1; the outcome comes later), or 0 when it could not be
// handed over; either is logged. The outcome of a mail whose child ended is a failure.
std::uint32_t net_queue_mail(NetSupervisor& sup, std::string_view subject, std::string_view body);

// Waits for the outcome of one mail. 0 when it was sent; -1 with the reason.
[[nodiscard]] int net_wait_mail_result(NetSupervisor& sup, std::uint32_t mail_id,
                                       std::uint32_t timeout_s, std::span<char> err);

// Sends one mail through a network process of its own, which has the mail settings only, and waits
// for the outcome. 0; -1 with the reason.
[[nodiscard]] int net_send_mail_now(const MailSection& mail, std::string_view subject,
                                    std::string_view body, std::span<char> err);

// Stops everything: the API at once; then mails handed over get kMailGrace seconds to be answered,
// and the child 5 more to leave. Each mail without an outcome is logged. The settings are wiped.
void net_shutdown(NetSupervisor& sup);

}  // namespace orv

#endif  // ORV_NET_SUPERVISOR_H_
