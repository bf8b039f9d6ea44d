#include "support/network.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace orv::test {

Listener listen_on_loopback() {
  Listener made{ScopedFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0))};
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
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
