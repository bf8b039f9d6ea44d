// Replies to API requests: the buffer they are built in, the one shape of an error, and the readers
// that turn a request's body into checked values. A reader that refuses has already made the error
// reply; its caller just returns.
#ifndef ORV_API_REPLY_H_
#define ORV_API_REPLY_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "common/fixed_text.h"
#include "json/json.h"
#include "json/json_writer.h"

namespace orv {

inline constexpr std::size_t kReplyBufferSize = 61440;  // bytes, NUL included

// One request's reply. The body lies in `buffer` until the next request is handled. The buffer is
// made by the first reset(), so that a daemon whose API is never used does not pay for it.
struct ApiReply {
  ApiReply();
  std::unique_ptr<char[]> buffer;  // kReplyBufferSize bytes
  JsonWriter json;
  std::uint32_t status = 0;  // 0: no reply was made
  std::string_view body;
  FixedText<79> etag;  // the entity tag that goes with the reply, empty: none

  void reset();  // for the next request; needed before anything is written
};

// Finishes the reply with what was written; 500 "internal" "response too large" when it overflowed.
void reply_finish(ApiReply& reply, std::uint32_t status);

// Discards what was written, the entity tag included, and replies
// {"error":{"code":...,"message":...}}; the message is cut at 1,023 bytes.
[[gnu::format(printf, 4, 5)]] void reply_error(ApiReply& reply, std::uint32_t status,
                                               const char* code, const char* format, ...);

// 1..1,023 bytes, no white space at either end, no control character: what may stand as a value in
// the configuration file.
inline constexpr std::size_t kMaxStoredValue = 1023;
[[nodiscard]] bool check_stored_value(std::string_view text);

// The body as a JSON object; null after an error reply.
[[nodiscard]] std::unique_ptr<JsonValue> read_body_object(ApiReply& reply, std::string_view body);
// Whether every key of `object` is one of the blank-separated `names`; false after an error reply.
[[nodiscard]] bool only_known_fields(ApiReply& reply, const JsonValue& object,
                                     std::string_view names);
// A member that is a string of at most `max` bytes (see check_stored_value), or absent or null:
// then `out` is empty. False after an error reply.
[[nodiscard]] bool read_string_field(ApiReply& reply, const JsonValue& object, const char* field,
                                     std::size_t max, std::string& out);
// A member that is an integer 0..`max`, or absent or null: then `out` is -1. False after an error.
[[nodiscard]] bool read_integer_field(ApiReply& reply, const JsonValue& object, const char* field,
                                      std::int64_t max, std::int64_t& out);

}  // namespace orv

#endif  // ORV_API_REPLY_H_
