#include "netproc/net_driver.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>

#include "netproc/net_process.h"
#include "netproc/smtp.h"

namespace orv::test {

using namespace std::chrono_literals;

NetDriver::NetDriver(HttpsLimits limits, Answer answer) : answer_(std::move(answer)) {
  static std::once_flag once;
  std::call_once(once, smtp_init);
  (void)::signal(SIGPIPE, SIG_IGN);  // as the program does
  int pair[2];
  EXPECT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
  socket_.reset(pair[0]);
  Listener api = listen_on_loopback();
  port_ = api.port;
  const int listener = api.fd.release();
  process_ = std::thread([this, limits, listener, ipc = pair[1]] {
    exit_status_ = net_process_run(ScopedFd(ipc), ScopedFd(listener), limits, nullptr);
  });
  scheduler_ = std::thread([this] { play_scheduler(); });
}

NetDriver::~NetDriver() {
  ::shutdown(socket_.get(), SHUT_RDWR);
  process_.join();
  scheduler_.join();
  EXPECT_EQ(exit_status_, 0);
}

void NetDriver::play_scheduler() {
  const auto record = std::make_unique<IpcMessage>();
  while (ipc_recv(socket_.get(), *record, false) == IpcReceived::Record) {
    IpcParsed parsed;
    ASSERT_EQ(ipc_parse({record->bytes.data(), record->length}, parsed), 0);
    on_record(parsed);
  }
}

void NetDriver::on_record(const IpcParsed& record) {
  char err[512] = "";
  if (record.type == static_cast<std::uint16_t>(MessageType::Hello)) {
    IpcHello hello;
    EXPECT_EQ(ipc_decode_hello(record, hello, err), 0) << err;
    hello_pid_ = hello.pid;
  } else if (record.type == static_cast<std::uint16_t>(MessageType::MailResult)) {
    MailOutcome outcome;
    char text[kIpcMaxMailError + 1] = "";
    EXPECT_EQ(ipc_decode_mail_result(record, outcome.status, text, err), 0) << err;
    outcome.error = text;
    const std::lock_guard lock(mutex_);
    results_.emplace(record.id, outcome);
  } else {
    ApiRequest request;
    ApiResponse response;
    EXPECT_EQ(ipc_decode_api_request(record, request, err), 0) << err;
    ++requests_;
    if (answer_ && !answer_(request, response)) return;
    const auto out = std::make_unique<IpcMessage>();
    EXPECT_EQ(ipc_encode_api_response(*out, record.id, response), 0);
    send(*out);
  }
}

void NetDriver::send(const IpcMessage& record) const {
  EXPECT_EQ(ipc_send(socket_.get(), record, false), 0);
}

void NetDriver::serve_api(const KeyPair& pair, std::uint32_t max_clients) const {
  const auto out = std::make_unique<IpcMessage>();
  const IpcApiConfig config = {SecretString(read_file(pair.certificate)),
                               SecretString(read_file(pair.key)), max_clients};
  ASSERT_EQ(ipc_encode_api_config(*out, 1, config), 0);
  send(*out);
}

void NetDriver::send_mail(std::uint32_t id, std::string_view subject, std::string_view body) const {
  const auto out = std::make_unique<IpcMessage>();
  ASSERT_EQ(ipc_encode_mail_send(*out, id, subject, body), 0);
  send(*out);
}

MailOutcome NetDriver::mail_result(std::uint32_t id) {
  MailOutcome outcome{.status = 999, .error = "no result came"};
  EXPECT_TRUE(wait_until(20s, [&] {
    const std::lock_guard lock(mutex_);
    EXPECT_LE(results_.count(id), 1U);
    const auto found = results_.find(id);
    if (found != results_.end()) outcome = found->second;
    return found != results_.end();
  }));
  return outcome;
}

TlsClient::TlsClient(std::uint16_t port, bool handshake, const char* source)
    : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)),
      ctx_(SSL_CTX_new(TLS_client_method())) {
  const timeval limit{.tv_sec = 10, .tv_usec = 0};
  ::setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
  ::setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  const sockaddr_in from = loopback(0, source), to = loopback(port);
  EXPECT_EQ(::bind(fd_.get(), reinterpret_cast<const sockaddr*>(&from), sizeof from), 0);
  EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
  if (!handshake) return;
  ssl_ = SSL_new(ctx_);
  SSL_set_fd(ssl_, fd_.get());
  if (SSL_connect(ssl_) == 1) return;
  SSL_free(ssl_);
  ssl_ = nullptr;
}

TlsClient::~TlsClient() {
  SSL_free(ssl_);
  SSL_CTX_free(ctx_);
}

bool TlsClient::send(std::string_view text) const {
  return ssl_ != nullptr && SSL_write(ssl_, text.data(), static_cast<int>(text.size())) > 0;
}

bool TlsClient::send_raw(std::string_view text) const {
  return ::send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL) > 0;
}

void TlsClient::finish_sending() const {
  SSL_shutdown(ssl_);
  ::shutdown(fd_.get(), SHUT_WR);
}

Reply TlsClient::reply() {
  char chunk[4096];
  while (true) {
    const std::size_t end = received_.find("\r\n\r\n");
    if (end != std::string::npos) {
      Reply out{.status = std::stoi(received_.substr(9)), .head = received_.substr(0, end + 4)};
      const std::size_t at = out.head.find("Content-Length: ");
      const std::size_t size = at == std::string::npos ? 0 : std::stoul(out.head.substr(at + 16));
      if (received_.size() >= out.head.size() + size) {
        out.body = received_.substr(out.head.size(), size);
        received_.erase(0, out.head.size() + size);
        return out;
      }
    }
    const int n = SSL_read(ssl_, chunk, sizeof chunk);
    if (n <= 0) return {};
    received_.append(chunk, static_cast<std::size_t>(n));
  }
}

bool TlsClient::closed() const {
  char rest[4096];
  ssize_t n = 1;
  while (n > 0) n = ::recv(fd_.get(), rest, sizeof rest, 0);
  return n == 0 || errno == ECONNRESET;
}

}  // namespace orv::test
