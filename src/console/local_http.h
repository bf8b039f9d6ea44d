// Requests and replies of the local page: plain records and their text. Pure.
#ifndef ORV_CONSOLE_LOCAL_HTTP_H_
#define ORV_CONSOLE_LOCAL_HTTP_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace orv {

struct LocalRequest {
  std::string method;
  std::string target;
  std::string if_match;
  std::string body;
};

// A refusal of the console itself. It goes out in the shape of the API's errors.
struct LocalError {
  unsigned status;
  const char* code;
  const char* message;
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

struct LocalReply {
  unsigned status = 200;
  std::string_view type = "application/json";
  std::string body{};
  std::string etag{};
  std::string set_cookie{};
  std::string location{};
  std::int64_t retry_after_s = 0;  // 0: no such header
  bool is_unsigned = false;        // X-ORV-Unsigned: 1
};

// {"error":{"code":"...","message":"..."}} with whatever the texts hold escaped.
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
