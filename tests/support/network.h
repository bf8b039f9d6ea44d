// What tests of servers and clients share: sockets on loopback, certificates, an ordinary user.
#ifndef ORV_TESTS_SUPPORT_NETWORK_H_
#define ORV_TESTS_SUPPORT_NETWORK_H_

#include <netinet/in.h>

#include <cstdint>
#include <string>

#include "common/scoped_fd.h"
#include "support/support.h"

namespace orv::test {

inline constexpr unsigned kNobody = 65534;  // uid and gid of the user nobody

// An address of this machine: `host` is one of 127.0.0.0/8.
[[nodiscard]] sockaddr_in loopback(std::uint16_t port, const char* host = "127.0.0.1");

// A non-blocking socket that listens on a port of 127.0.0.1, which must be free (0: any that is).
// Without an accept(), clients connect and then hear nothing.
struct Listener {
  ScopedFd fd;
  std::uint16_t port = 0;
};
[[nodiscard]] Listener listen_on_loopback(std::uint16_t port = 0);

// A port that nobody listens on now; another process may take it.
[[nodiscard]] inline std::uint16_t free_port() { return listen_on_loopback().port; }

struct KeyPair {  // paths of PEM files
  std::string certificate;
  std::string key;
};

// <dir>/<name>.crt and .key, made by the openssl program: self-signed, valid for two days, for the
// host `name`, which may be an IPv4 address.
[[nodiscard]] KeyPair make_certificate(const TempDir& dir, const std::string& name);

}  // namespace orv::test

#endif  // ORV_TESTS_SUPPORT_NETWORK_H_
