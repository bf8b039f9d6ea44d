// One request on its way through an endpoint, and what the endpoints share. By the time an endpoint
// is called, the checks of its row in the route table have passed; it leaves its reply, good or
// bad, in the call's reply.
#ifndef ORV_API_CALL_H_
#define ORV_API_CALL_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "api/reply.h"
#include "api/tokens.h"
#include "common/fixed_text.h"
#include "config/snapshot.h"
#include "net/ipc.h"
#include "sched/live_state.h"

namespace orv {

// One authenticated request. All of it is borrowed for the time of the call.
struct RoutedRequest {
  const ApiRequest& http;
  std::string_view token_name;
  TokenRole role;
  std::int64_t now;  // Unix seconds
};

inline constexpr std::size_t kMaxPathSegment = 255;  // bytes, decoded
using PathSegment = FixedText<kMaxPathSegment>;

// The numbers of a query string; `count` is the limit or the length.
struct PageQuery {
  std::int64_t offset = 0;
  std::optional<std::int64_t> count;
};

// A request with all that an endpoint works on. An endpoint changes `live` only as its operation
// says, and never keeps a reference beyond the call.
struct ApiCall {
  LiveState& live;
  ApiReply& reply;
  const RoutedRequest& request;
  std::array<PathSegment, 2> variables;  // what stands in the place of the pattern's "*"s
  PageQuery page;

  // The first variable: the job's name, or the mail's id.
  [[nodiscard]] std::string_view name() const { return variables[0].view(); }
};

// Replies with the error; always false, so that a check that fails is one statement.
bool refuse(ApiCall& call, std::uint32_t status, const char* code, const char* message);

// The configuration as the file has it now; null after the error reply 500 "config_unreadable".
[[nodiscard]] SnapshotPtr snapshot_of(ApiCall& call);

// The job that the path names, borrowed from the snapshot; null after the error reply 404.
[[nodiscard]] const Job* job_of(ApiCall& call, const ConfigSnapshot& snapshot);

// 404 "no job named '...'".
void reply_no_job(ApiCall& call);

// Writes the member "config_etag" and sends the tag along with the reply.
void write_config_etag(ApiReply& reply, const EntityTag& etag);

}  // namespace orv

#endif  // ORV_API_CALL_H_
