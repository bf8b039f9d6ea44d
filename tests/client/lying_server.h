// A TLS server on loopback that answers as a test tells it to, signing what it is told to sign.
#ifndef ORV_TESTS_CLIENT_LYING_SERVER_H_
#define ORV_TESTS_CLIENT_LYING_SERVER_H_

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <functional>
#include <string>
#include <thread>

#include "client/server_list.h"
#include "client/token.h"
#include "support/support.h"

namespace orv::test {

struct SeenRequest {
  std::string text;    // head and body
  std::string nonce;   // of its Authorization
  int connection = 0;  // that it came on, counted from 1
};

class LyingServer {
 public:
  // What to send for a request; a text that ends in `kHangUp` ends the connection there, and
  // `kSayNothing` waits until the client has gone.
  using Answer = std::function<std::string(const SeenRequest& request)>;
  static constexpr const char* kHangUp = "hang up";
  static constexpr const char* kSayNothing = "say nothing";

  explicit LyingServer(Answer answer);
  ~LyingServer();
  LyingServer(const LyingServer&) = delete;
  LyingServer& operator=(const LyingServer&) = delete;

  [[nodiscard]] ServerAddress address() const { return {"127.0.0.1", port_}; }
  [[nodiscard]] const Sha256Digest& fingerprint() const { return fingerprint_; }
  [[nodiscard]] int requests() const { return requests_; }
  [[nodiscard]] static ClientTokenPtr token();

  // A whole reply that is signed as the scheduler signs. `headers` are lines with their ends.
  [[nodiscard]] static std::string signed_reply(const SeenRequest& request, int status,
                                                const std::string& body,
                                                const std::string& headers = {});
  // The value of ORV-Signature for it.
  [[nodiscard]] static std::string signature(const SeenRequest& request, int status,
                                             const std::string& body);

 private:
  void serve();
  void serve_connection(boost::asio::ip::tcp::socket socket, int number);

  TempDir dir_;
  boost::asio::io_context io_;
  boost::asio::ssl::context tls_{boost::asio::ssl::context::tls_server};
  boost::asio::ip::tcp::acceptor acceptor_;
  std::uint16_t port_ = 0;
  Sha256Digest fingerprint_{};
  Answer answer_;
  std::atomic<int> requests_ = 0;
  std::thread thread_;
};

}  // namespace orv::test

#endif  // ORV_TESTS_CLIENT_LYING_SERVER_H_
