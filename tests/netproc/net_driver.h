// A whole network process on a thread of the test, and the test as its scheduler, over the codec.
#ifndef ORV_TESTS_NETPROC_NET_DRIVER_H_
#define ORV_TESTS_NETPROC_NET_DRIVER_H_

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "common/scoped_fd.h"
#include "net/ipc.h"
#include "netproc/connection.h"
#include "support/network.h"

using SSL = struct ssl_st;
using SSL_CTX = struct ssl_ctx_st;

namespace orv::test {

struct MailOutcome {
  std::uint32_t status = 0;
  std::string error;
};

class NetDriver {
 public:
  using Answer = std::function<bool(const ApiRequest&, ApiResponse&)>;  // false: says nothing
  explicit NetDriver(HttpsLimits limits = {}, Answer answer = {});
  ~NetDriver();  // closes the socket and checks that the process ends
  NetDriver(const NetDriver&) = delete;
  NetDriver& operator=(const NetDriver&) = delete;

  void send(const IpcMessage& record) const;
  void serve_api(const KeyPair& pair, std::uint32_t max_clients) const;
  void send_mail(std::uint32_t id, std::string_view subject, std::string_view body) const;
  // The one result of the mail; a failure when none comes.
  MailOutcome mail_result(std::uint32_t id);
  [[nodiscard]] std::uint32_t hello_pid() const { return hello_pid_; }
  [[nodiscard]] int requests() const { return requests_; }
  [[nodiscard]] std::uint16_t port() const { return port_; }

 private:
  void play_scheduler();
  void on_record(const IpcParsed& record);

  const Answer answer_;
  ScopedFd socket_;
  std::uint16_t port_ = 0;
  std::atomic<std::uint32_t> hello_pid_ = 0;
  std::atomic<int> requests_ = 0;
  std::mutex mutex_;
  std::multimap<std::uint32_t, MailOutcome> results_;
  int exit_status_ = -1;
  std::thread process_, scheduler_;
};

struct Reply {
  int status = 0;  // 0: the connection ended without one
  std::string head{}, body{};
};

// An HTTPS client that can also misbehave. Every step gives up after ten seconds.
class TlsClient {
 public:
  // `handshake` false: only the TCP connection is made.
  explicit TlsClient(std::uint16_t port, bool handshake = true, const char* source = "127.0.0.1");
  ~TlsClient();
  TlsClient(const TlsClient&) = delete;
  TlsClient& operator=(const TlsClient&) = delete;
  bool send(std::string_view text) const;      // inside TLS
  bool send_raw(std::string_view text) const;  // beneath it
  void finish_sending() const;                 // close_notify and a half-closed socket
  Reply reply();
  Reply ask(std::string_view text) { return send(text) ? reply() : Reply{}; }
  // The server has closed the connection.
  bool closed() const;

 private:
  std::string received_;
  ScopedFd fd_;
  SSL_CTX* ctx_ = nullptr;
  SSL* ssl_ = nullptr;
};

}  // namespace orv::test

#endif  // ORV_TESTS_NETPROC_NET_DRIVER_H_
