// A network address with its port, as text.
#ifndef ORV_COMMON_HOST_PORT_H_
#define ORV_COMMON_HOST_PORT_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace orv {

// Whether the host is an IPv6 address: no name and no IPv4 address has a colon.
[[nodiscard]] inline bool is_ipv6(std::string_view host) {
  return host.find(':') != std::string_view::npos;
}

// "192.0.2.1:8447" or "[2001:db8::1]:8447" (RFC 3986, section 3.2.2). The host stands without
// brackets in `host`.
[[nodiscard]] inline std::string host_port(std::string_view host, std::uint32_t port) {
  std::string text;
  if (is_ipv6(host)) {
    text.append("[").append(host).append("]");
  } else {
    text.append(host);
  }
  return text.append(":").append(std::to_string(port));
}

}  // namespace orv

#endif  // ORV_COMMON_HOST_PORT_H_
