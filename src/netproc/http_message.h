// What an HTTP request must look like to become a record for the scheduler, the errors that are
// answered without asking it, and the text of a reply. Pure.
#ifndef ORV_NETPROC_HTTP_MESSAGE_H_
#define ORV_NETPROC_HTTP_MESSAGE_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "net/ipc.h"

namespace orv {

inline constexpr std::uint32_t kMaxHttpHead = 16384;  // bytes of request line and header fields

struct HttpError {
  std::uint32_t status;
  const char* code;
  const char* message;  // both without characters that JSON escapes
};
extern const HttpError kHttpBadRequest;
extern const HttpError kHttpMethodNotAllowed;
extern const HttpError kHttpBodyTooLarge;
extern const HttpError kHttpUriTooLong;
extern const HttpError kHttpExpectationFailed;
extern const HttpError kHttpTooManyFailures;
extern const HttpError kHttpHeadersTooLarge;
extern const HttpError kHttpNotImplemented;
extern const HttpError kHttpUnavailable;
extern const HttpError kHttpTimeout;

// The parts of a request's head that matter. A header that is absent is empty.
struct HttpHead {
  std::string_view method;
  std::string_view target;
  std::string_view authorization;
  std::string_view if_match;
  bool ambiguous = false;  // a header that may stand once stands twice, or Host is missing
};

// Fills method, path, query, authorization and If-Match of `out`, or returns the error to answer.
[[nodiscard]] const HttpError* http_map_head(const HttpHead& head, ApiRequest& out);

struct HttpReply {
  std::uint32_t status = 0;
  std::string_view body{};  // JSON
  std::string_view etag{};
  std::string_view signature{};
  std::int64_t retry_after_s = 0;  // 0: no such header
  std::int64_t now = 0;            // Unix seconds
  bool keep_alive = false;
};
[[nodiscard]] std::string http_reply_text(const HttpReply& reply);

// {"error":{"code":"...","message":"..."}}
[[nodiscard]] std::string http_error_body(const HttpError& error);

}  // namespace orv

#endif  // ORV_NETPROC_HTTP_MESSAGE_H_
