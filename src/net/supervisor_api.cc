// Starting, changing and stopping the API: certificate, key and listening socket.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

#include "common/host_port.h"
#include "common/log.h"
#include "common/message.h"
#include "net/certificate.h"
#include "net/supervisor_parts.h"

namespace orv {
namespace {

using namespace net;

constexpr int kListenBacklog = 64;
constexpr std::size_t kReasonSize = 1280;       // two paths, or a path and a system message
constexpr std::uint32_t kApiLookInterval = 30;  // seconds between two looks at a pair in use

union SocketAddress {
  sockaddr any;
  sockaddr_in v4;
  sockaddr_in6 v6;
};

FixedText<199> listen_label(const ListenAddress& at) {
  FixedText<199> label;
  label.set_truncated(host_port(at.host.view(), at.port));
  return label;
}

// The length of the address, 0 when the text is none.
socklen_t resolve(const ListenAddress& at, SocketAddress& address) {
  ::memset(&address, 0, sizeof address);
  const std::uint16_t port = htons(static_cast<std::uint16_t>(at.port));
  if (is_ipv6(at.host.view())) {
    address.v6.sin6_family = AF_INET6;
    address.v6.sin6_port = port;
    return ::inet_pton(AF_INET6, at.host.c_str(), &address.v6.sin6_addr) == 1 ? sizeof address.v6
                                                                              : 0;
  }
  address.v4.sin_family = AF_INET;
  address.v4.sin_port = port;
  return ::inet_pton(AF_INET, at.host.c_str(), &address.v4.sin_addr) == 1 ? sizeof address.v4 : 0;
}

// An IPv6 wildcard address takes IPv4 connections too.
bool bind_and_listen(int fd, const SocketAddress& address, socklen_t length) {
  const int on = 1;
  const int off = 0;
  if (::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) return false;
  if (address.any.sa_family == AF_INET6 &&
      ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off) != 0) {
    return false;
  }
  return ::bind(fd, &address.any, length) == 0 && ::listen(fd, kListenBacklog) == 0;
}

int open_listener(const ListenAddress& at, ScopedFd& out, std::span<char> err) {
  SocketAddress address;
  const socklen_t length = resolve(at, address);
  if (length == 0) return fail(err, "bad address %s", at.host.c_str());
  ScopedFd fd(::socket(address.any.sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return fail(err, "socket: %s", ::strerror(errno));
  if (!bind_and_listen(fd.get(), address, length)) {
    return fail(err, "cannot listen on %s: %s", listen_label(at).c_str(), ::strerror(errno));
  }
  out = std::move(fd);
  return 0;
}

// Shut down, not only closed: the child has the socket too, and so has whatever it may have started
// and left behind. The address would stay taken, and connections would go on being accepted.
void close_listener(NetSupervisor& sup) {
  if (sup.api.listen_fd.valid()) (void)::shutdown(sup.api.listen_fd.get(), SHUT_RDWR);
  sup.api.listen_fd.reset();
}

void restart_at_once(NetSupervisor& sup) {
  end_child(sup);
  sup.child.next_restart = 0;
  sup.child.backoff = kNetFirstBackoff;
}

void stop_serving(NetSupervisor& sup) {
  const bool was_enabled = std::exchange(sup.api.enabled, false);
  clear_api(sup);
  if (!was_enabled) return;
  log_msg(LogLevel::Info, "orv_sched: API stopped");
  sup.child.wanted = sup.mail.settings.valid;
  restart_at_once(sup);
}

bool same(const IpcApiConfig& a, const IpcApiConfig& b) {
  return a.cert_pem == b.cert_pem && a.key_pem == b.key_pem && a.max_clients == b.max_clients;
}

enum class Attempt {
  Serving,
  BadPair,     // certificate and key cannot be used
  BadAddress,  // the address cannot be listened on; the old one is closed
};

// Tries to serve the API as it is wanted. `failure` gets the reason when that fails, with the
// remedy when there is one.
Attempt serve(NetSupervisor& sup, std::string& failure) {
  const ApiSection& api = sup.api.wanted;
  IpcApiConfig config;
  config.max_clients = api.max_clients;
  char reason[kReasonSize];
  // Before the files are read: a change that comes in between is found at the next look.
  sup.api.cert_id = file_identity(api.cert.c_str());
  sup.api.key_id = file_identity(api.key.c_str());
  const CertPair pair =
      cert_load_pair(api.cert.c_str(), api.key.c_str(), config.cert_pem, config.key_pem, reason);
  if (pair != CertPair::Usable) {
    const bool unreadable = pair == CertPair::Unreadable;
    failure =
        std::string(reason) + (unreadable ? " (create one with 'orv_sched api-init')"
                                          : " (make a pair with 'orv_sched api-init --force')");
    return Attempt::BadPair;
  }
  const FixedText<199> label = listen_label(api.listen);
  if (sup.api.enabled && label == sup.api.listen_label && same(config, sup.api.config)) {
    return Attempt::Serving;
  }
  close_listener(sup);
  if (sup.api.enabled) end_child(sup);  // it holds the old socket, which may have the same address
  if (open_listener(api.listen, sup.api.listen_fd, reason) != 0) {
    failure = reason;
    return Attempt::BadAddress;
  }
  sup.api.listen_label = label;
  sup.api.config = std::move(config);
  sup.api.enabled = true;
  sup.child.wanted = true;
  log_msg(LogLevel::Info, "orv_sched: API enabled on %s", label.c_str());
  restart_at_once(sup);
  return Attempt::Serving;
}

// Soon, and then ever more rarely, while something is wrong.
void plan_next_look(NetApi& api, std::int64_t now) {
  const std::uint32_t longer = std::clamp(api.retry_delay * 2, kApiFirstRetry, kApiMaxRetry);
  api.retry_delay = api.failure.empty() ? 0 : longer;
  api.next_try = now + (api.failure.empty() ? kApiLookInterval : longer);
}

// Tries, and logs what is new about the outcome: a retry that fails for the same reason is silent.
void try_to_serve(NetSupervisor& sup, bool retry) {
  NetApi& api = sup.api;
  std::string failure;
  const Attempt attempt = serve(sup, failure);
  const bool news = !retry || failure != api.failure;
  // A good pair that was replaced by a bad one goes on serving; new settings with a bad one do not.
  const bool goes_on = retry && api.enabled && attempt == Attempt::BadPair;
  api.failure = std::move(failure);
  if (attempt != Attempt::Serving && news) {
    log_msg(goes_on ? LogLevel::Warn : LogLevel::Error, "orv_sched: API %s: %s",
            goes_on ? "keeps the certificate it has" : "not started", api.failure.c_str());
  }
  if (attempt != Attempt::Serving && !goes_on) stop_serving(sup);
  plan_next_look(api, sup.clock());
}

// Whether certificate or key are other files than those last tried. A mail under way is not cut off
// for that: the child is replaced once it has been answered.
bool pair_replaced(const NetSupervisor& sup) {
  const NetApi& api = sup.api;
  return sup.mail.unanswered.empty() && (api.cert_id != file_identity(api.wanted.cert.c_str()) ||
                                         api.key_id != file_identity(api.wanted.key.c_str()));
}

}  // namespace

void net::look_after_api(NetSupervisor& sup) {
  NetApi& api = sup.api;
  if (!api.wanted.enabled) return;
  const std::int64_t now = sup.clock();
  // A clock that was set back must not keep the API away.
  if (now < api.next_try && api.next_try - now <= std::int64_t{kApiMaxRetry}) return;
  // A pair that could not be read may become readable with its identity as it is (memory, limits).
  const bool due = !api.enabled || !api.failure.empty() || pair_replaced(sup);
  due ? try_to_serve(sup, true) : plan_next_look(api, now);
}

void net_set_api(NetSupervisor& sup, const ApiSection& api, ApiHandler handler, void* context) {
  if (!api.enabled) return net_stop_api(sup);
  sup.api.wanted = api;
  sup.api.handler = handler;
  sup.api.handler_context = context;
  sup.api.retry_delay = 0;
  try_to_serve(sup, false);
  if (sup.child.wanted) net_pump(sup);
}

void net_stop_api(NetSupervisor& sup) {
  sup.api.wanted.enabled = false;
  sup.api.failure.clear();
  stop_serving(sup);
  if (sup.child.wanted) net_pump(sup);
}

void net::clear_api(NetSupervisor& sup) {
  close_listener(sup);
  sup.api.listen_label.clear();
  ipc_release_api_config(sup.api.config);
}

}  // namespace orv
