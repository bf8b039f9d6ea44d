// The reply to an API request: the buffer it is built in, and the one shape of an error.
#ifndef ORV_API_REPLY_H_
#define ORV_API_REPLY_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "common/fixed_text.h"
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

}  // namespace orv

#endif  // ORV_API_REPLY_H_
