// The administrator's list of servers, and what a client must know of one before it sends anything:
// its address, the fingerprint of its certificate, and the token.
//
// The list has the syntax of the scheduler's configuration, one section per server:
//
//   [backup1]
//   server = backup1.example.com:8447
//   fingerprint = AB:CD:...                  (SHA-256 of the certificate, 64 digits, colons or not)
//   token-file = ~/.config/orv/backup1.token (holds NAME.SECRET, readable by its owner alone)
//
// Messages about a line of the list begin "PATH:LINE: ".
#ifndef ORV_CLIENT_SERVER_LIST_H_
#define ORV_CLIENT_SERVER_LIST_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/digest.h"

namespace orv {

inline constexpr std::uint16_t kDefaultApiPort = 8447;
inline constexpr std::size_t kMaxServers = 1000;
inline constexpr std::size_t kMaxServerName = 64;           // bytes
inline constexpr std::size_t kMaxServerListSize = 1 << 20;  // bytes of the file
inline constexpr std::size_t kClientMessageSize = 1024;     // room for any message of src/client/

struct ServerAddress {
  std::string host;  // a name, an IPv4 or an IPv6 address, without brackets
  std::uint16_t port = kDefaultApiPort;

  // "host:port", an IPv6 address in brackets: as people write it, and as the Host header wants it.
  [[nodiscard]] std::string text() const;
  friend bool operator==(const ServerAddress&, const ServerAddress&) = default;
};

// Reads "host", "host:port", "[IPv6]" or "[IPv6]:port". False, `out` as it was, for anything else.
[[nodiscard]] bool parse_server_address(std::string_view text, ServerAddress& out);

// Reads a SHA-256 fingerprint: 64 hexadecimal digits of either case, colons ignored. False, `out`
// as it was, for anything else.
[[nodiscard]] bool parse_fingerprint(std::string_view text, Sha256Digest& out);

// "AB:CD:...", as `openssl x509 -fingerprint -sha256` prints it.
[[nodiscard]] std::string fingerprint_text(const Sha256Digest& digest);

// One server of the list.
struct Server {
  std::string name;  // a letter or digit, then letters, digits, ".", "_" and "-"
  ServerAddress address;
  Sha256Digest fingerprint{};  // of the certificate's DER form
  std::string token_file;      // an absolute path, "~/" resolved
};

// Whether the text may name a server of the list.
[[nodiscard]] bool is_server_name(std::string_view text);

// Where the list is: $XDG_CONFIG_HOME/orv/servers when that variable holds an absolute path, else
// ~/.config/orv/servers. Empty when there is no home directory either.
[[nodiscard]] std::string default_server_list_path();

// "~/x" with the home directory for "~", any other text as it is.
[[nodiscard]] std::string expand_home(std::string_view path);

// Reads the list, in the file's order. 0; -1 with one message, `out` empty. A missing file is an
// empty list: `out` is empty and the result 0. Token files are not checked. The file must not be
// writable by everybody.
[[nodiscard]] int read_server_list(const std::string& path, std::vector<Server>& out,
                                   std::span<char> err);

// Adds a server at the end of the file, which is replaced whole; its other bytes stay as they are.
// The file and missing directories are made, readable by their owner alone. `token_file` is written
// as given (it may begin with "~/"). 0; -1 with one message and the file as it was: the name is
// taken, the list cannot be read or is faulty, or the file cannot be written. Concurrent additions
// wait for each other.
[[nodiscard]] int add_server(const std::string& path, const Server& server,
                             std::string_view token_file, std::span<char> err);

}  // namespace orv

#endif  // ORV_CLIENT_SERVER_LIST_H_
