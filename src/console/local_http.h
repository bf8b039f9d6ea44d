// Requests and replies of the local page: plain records and their text. Pure.
#ifndef ORV_CONSOLE_LOCAL_HTTP_H_
#define ORV_CONSOLE_LOCAL_HTTP_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace orv {

// A request of the page, copied out of the connection: its answer may come when that has gone.
struct LocalRequest {
  std::string method;
  std::string target;    // path and query, percent-encoding as it came
  std::string if_match;  // empty: none
  std::string body;      // at most 32,768 bytes
};

// A refusal of the console itself. It goes out in the shape of the API's errors.
struct LocalError {
  unsigned status;      // HTTP's
  const char* code;     // of the API where it has one for the case: the page knows those
  const char* message;  // one sentence for the person
};
extern const LocalError kLocalBadRequest;
extern const LocalError kLocalBadPath;
extern const LocalError kLocalNotFound;
extern const LocalError kLocalMethod;
extern const LocalError kLocalTooLarge;
extern const LocalError kLocalHeadTooLarge;
extern const LocalError kLocalReadOnly;
extern const LocalError kLocalNoServer;
extern const LocalError kLocalBusy;

// A reply; empty texts are header fields that are left out.
struct LocalReply {
  unsigned status = 200;
  std::string_view type = "application/json";  // of a literal: it is not copied
  std::string body{};
  std::string etag{};
  std::string set_cookie{};
  std::string location{};
  std::int64_t retry_after_s = 0;  // 0: no such header
  bool is_unsigned = false;        // X-ORV-Unsigned: 1
};

// {"error":{"code":"...","message":"..."}} with whatever the texts hold escaped. Texts may come
// from a server and have any length.
[[nodiscard]] std::string error_body(std::string_view code, std::string_view message);
[[nodiscard]] LocalReply error_reply(const LocalError& error);
[[nodiscard]] LocalReply error_reply(unsigned status, std::string_view code,
                                     std::string_view message);

// The whole reply. A reply to HEAD has no body. What a server sent in `etag` was checked before.
[[nodiscard]] std::string reply_text(const LocalReply& reply, bool keep_alive, bool head_only);

// The head of a stream of server-sent events, which ends with the connection.
[[nodiscard]] std::string event_stream_head();

}  // namespace orv

#endif  // ORV_CONSOLE_LOCAL_HTTP_H_
