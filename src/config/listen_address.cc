#include "config/listen_address.h"

#include <arpa/inet.h>

#include <array>

#include "common/text.h"

namespace orv {
namespace {

// The port of a listen setting, 1..65535.
bool parse_port(std::string_view text, std::uint32_t& out) {
  std::uint32_t port = 0;
  if (!parse_u32(text, port) || port < 1 || port > 65535) return false;
  out = port;
  return true;
}

// Cuts "<address>:<port>", "[<ipv6>]:<port>" or "<port>" in two; the address is empty for the last.
bool split_listen(std::string_view text, std::string_view& host, std::string_view& port) {
  if (!text.empty() && text.front() == '[') {
    const std::size_t close = text.find(']');
    if (close == std::string_view::npos || text.substr(close + 1, 1) != ":") return false;
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
    return !host.empty();
  }
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    host = {};
    port = text;
    return true;
  }
  host = text.substr(0, colon);
  port = text.substr(colon + 1);
  // A second colon would be IPv6 without brackets, where nobody can say which one ends the address.
  return !host.empty() && host.find(':') == std::string_view::npos;
}

// Names are refused: looking one up could block, and could change where the API is served.
bool is_numeric_address(const char* host) {
  std::array<unsigned char, sizeof(in6_addr)> address{};
  return ::inet_pton(AF_INET, host, address.data()) == 1 ||
         ::inet_pton(AF_INET6, host, address.data()) == 1;
}

}  // namespace

bool parse_listen(std::string_view text, ListenAddress& out) {
  std::string_view host;
  std::string_view port;
  if (text.find('\0') != std::string_view::npos || !split_listen(text, host, port)) return false;
  ListenAddress address;
  if (!address.host.set(host.empty() ? "0.0.0.0" : host) || !parse_port(port, address.port) ||
      !is_numeric_address(address.host.c_str())) {
    return false;
  }
  out = address;
  return true;
}

}  // namespace orv
