// A connection to one server's API: signed requests out, believed replies in. Everything runs on
// the thread of the executor given, so one thread drives any number of servers; only the resolution
// of host names has short-lived threads of its own. Environment, proxies and redirects are ignored.
#ifndef ORV_CLIENT_CONNECTION_H_
#define ORV_CLIENT_CONNECTION_H_

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "client/server_list.h"
#include "client/token.h"
#include "common/digest.h"
#include "common/secret.h"

namespace orv {

inline constexpr std::size_t kMaxReplyBody = 65536;  // bytes; a longer one is no reply
inline constexpr std::size_t kMaxReplyHead = 16384;  // bytes

struct ClientRequest {
  std::string method = "GET";  // GET, PUT, POST or DELETE
  std::string path;            // as it is sent, "/api/v1/..."; see path_segment()
  std::string query;           // without its "?"
  SecretString body;           // JSON; empty for none
  std::string if_match;        // a config_etag with its quotes; empty for none
};

enum class ReplyKind {
  Signed,       // the scheduler's own words, whatever the status
  Unsigned,     // a refusal of a kind that comes without a signature: not proved, and never data
  Unreachable,  // no connection, no reply in time, or none that is well-formed
  NotTrusted,   // another certificate, or a signature that is missing or wrong
  NotSent,      // the request itself cannot be sent
};

struct ClientReply {
  ReplyKind kind = ReplyKind::Unreachable;
  int status = 0;                   // HTTP's; Signed and Unsigned only
  std::string body;                 // the same; at most kMaxReplyBody bytes, as they came
  std::uint32_t retry_after_s = 0;  // Unsigned only: what Retry-After says, 0 when it says nothing
  std::string error;  // the other kinds: one printable line, no byte of it from the server
};

// Percent-encodes a name for use as one segment of a path: all but letters, digits and "-._~".
[[nodiscard]] std::string path_segment(std::string_view name);

// Whether the server's certificate is the pinned one is decided after the handshake and before the
// first byte of a request. Movable. When it goes, exchanges under way end as Unreachable.
class ApiConnection {
 public:
  ApiConnection(boost::asio::any_io_executor executor, ServerAddress address,
                const Sha256Digest& fingerprint, ClientTokenPtr token);
  ApiConnection(ApiConnection&&) noexcept = default;
  ApiConnection& operator=(ApiConnection&&) = delete;
  ~ApiConnection();

  // Signs the request, sends it and waits for the reply. The deadline is that of the whole
  // exchange: waiting for earlier ones on this connection, name, connect, handshake, request and
  // reply. The connection is kept for the next exchange. When a kept one turns out to be closed, a
  // GET is sent once more, with a new nonce; a change never is, and the error then says that it may
  // have been carried out. Exchanges that overlap are carried out one after another, in order.
  // Never throws, but for std::bad_alloc.
  [[nodiscard]] boost::asio::awaitable<ClientReply> exchange(
      ClientRequest request, std::chrono::steady_clock::time_point deadline);

  // Closes what is open; an exchange under way ends as Unreachable. The next one connects anew.
  void close();

 private:
  class State;
  std::shared_ptr<State> state_;
};

// Connects and reads the certificate's fingerprint; sends no request. Empty `error` and the digest
// in `out`, or one line.
[[nodiscard]] boost::asio::awaitable<std::string> fetch_fingerprint(
    ServerAddress address, std::chrono::steady_clock::time_point deadline, Sha256Digest& out);

}  // namespace orv

#endif  // ORV_CLIENT_CONNECTION_H_
