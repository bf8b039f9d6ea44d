#include "support/network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

namespace orv::test {

sockaddr_in loopback(std::uint16_t port, const char* host) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  EXPECT_EQ(::inet_pton(AF_INET, host, &address.sin_addr), 1) << host;
  return address;
}

Listener listen_on_loopback(std::uint16_t port) {
  Listener made{ScopedFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))};
  sockaddr_in address = loopback(port);
  socklen_t size = sizeof address;
  const int on = 1;  // a port that somebody listens on is refused all the same
  ::setsockopt(made.fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  EXPECT_EQ(::bind(made.fd.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  EXPECT_EQ(::listen(made.fd.get(), 64), 0);
  EXPECT_EQ(::getsockname(made.fd.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  made.port = ntohs(address.sin_port);
  return made;
}

KeyPair make_certificate(const TempDir& dir, const std::string& name) {
  KeyPair pair{dir.file(name + ".crt"), dir.file(name + ".key")};
  const std::string alt = (name[0] == '1' ? "IP:" : "DNS:") + name;
  const auto made =
      run_program({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                   "ec_paramgen_curve:P-256", "-nodes", "-days", "2", "-keyout", pair.key, "-out",
                   pair.certificate, "-subj", "/CN=" + name, "-addext", "subjectAltName=" + alt});
  EXPECT_EQ(made.status, 0) << made.err;
  return pair;
}

}  // namespace orv::test
