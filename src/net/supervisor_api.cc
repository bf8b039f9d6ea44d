// Starting, changing and stopping the API: certificate, key and listening socket.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include "common/log.h"
#include "common/message.h"
#include "net/pem.h"
#include "net/supervisor_parts.h"

namespace orv {
namespace {

using namespace net;

constexpr int kListenBacklog = 64;
constexpr std::size_t kReasonSize = 1024;  // a path and a system message

union SocketAddress {
  sockaddr any;
  sockaddr_in v4;
  sockaddr_in6 v6;
};

bool is_ipv6(const ListenAddress& at) { return at.host.view().find(':') != std::string_view::npos; }

FixedText<199> listen_label(const ListenAddress& at) {
  const bool v6 = is_ipv6(at);
  char text[kMaxListenAddress + 16];
  ::snprintf(text, sizeof text, "%s%s%s:%u", v6 ? "[" : "", at.host.c_str(), v6 ? "]" : "",
             at.port);
  FixedText<199> label;
  label.set_truncated(text);
  return label;
}

// The length of the address, 0 when the text is none.
socklen_t resolve(const ListenAddress& at, SocketAddress& address) {
  ::memset(&address, 0, sizeof address);
  const std::uint16_t port = htons(static_cast<std::uint16_t>(at.port));
  if (is_ipv6(at)) {
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

}  // namespace

void net_set_api(NetSupervisor& sup, const ApiSection& api, ApiHandler handler, void* context) {
  if (!api.enabled) return net_stop_api(sup);
  SecretBytes cert;
  SecretBytes key;
  char reason[kReasonSize];
  if (read_pem_file(api.cert.c_str(), cert, reason) != 0 ||
      read_pem_file(api.key.c_str(), key, reason) != 0) {
    log_msg(LogLevel::Error,
            "orv_sched: API not started: %s (create one with 'orv_sched api-init')", reason);
    return net_stop_api(sup);
  }
  sup.api.handler = handler;
  sup.api.handler_context = context;
  const FixedText<199> label = listen_label(api.listen);
  if (sup.api.enabled && label == sup.api.listen_label &&
      api.max_clients == sup.api.config.max_clients && cert.view() == sup.api.config.cert_pem &&
      key.view() == sup.api.config.key_pem.view()) {
    return;
  }
  close_listener(sup);
  if (sup.api.enabled) end_child(sup);
  ScopedFd listener;
  if (open_listener(api.listen, listener, reason) != 0) {
    log_msg(LogLevel::Error, "orv_sched: API not started: %s", reason);
    return net_stop_api(sup);
  }
  sup.api.listen_fd = std::move(listener);
  sup.api.listen_label = label;
  sup.api.config.cert_pem = cert.view();
  sup.api.config.key_pem = std::move(key);
  sup.api.config.max_clients = api.max_clients;
  sup.api.enabled = true;
  sup.child.wanted = true;
  log_msg(LogLevel::Info, "orv_sched: API enabled on %s", label.c_str());
  restart_at_once(sup);
  net_pump(sup);
}

void net_stop_api(NetSupervisor& sup) {
  const bool was_enabled = sup.api.enabled;
  sup.api.enabled = false;
  clear_api(sup);
  if (!was_enabled) return;
  log_msg(LogLevel::Info, "orv_sched: API stopped");
  sup.child.wanted = sup.mail.settings.valid;
  restart_at_once(sup);
  if (sup.child.wanted) net_pump(sup);
}

void net::clear_api(NetSupervisor& sup) {
  close_listener(sup);
  sup.api.listen_label.clear();
  ipc_release_api_config(sup.api.config);
}

}  // namespace orv
