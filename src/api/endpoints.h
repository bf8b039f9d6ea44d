// What the router hands to an endpoint, and the endpoints. By the time one is called, the checks of
// its row in the route table have passed; it leaves its reply, good or bad, in the call's reply.
#ifndef ORV_API_ENDPOINTS_H_
#define ORV_API_ENDPOINTS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "api/config_text.h"
#include "api/handler.h"
#include "api/reply.h"
#include "common/fixed_text.h"
#include "sched/live_state.h"

namespace orv {

inline constexpr std::int64_t kJobsPageMax = 50;        // jobs
inline constexpr std::int64_t kLogChunkMax = 49152;     // bytes of the log
inline constexpr std::size_t kLogChunkEscaped = 60928;  // bytes of its JSON string
inline constexpr std::size_t kRunsListed = 100;
inline constexpr std::size_t kMaxPathSegment = 255;  // bytes, decoded

using PathSegment = FixedText<kMaxPathSegment>;

// The numbers of a query string; `count` is the limit or the length.
struct PageQuery {
  std::int64_t offset = 0;
  std::optional<std::int64_t> count;
};

struct ApiCall {
  LiveState& live;
  ApiReply& reply;
  const RoutedRequest& request;
  std::array<PathSegment, 2> variables;  // what stands in the place of the pattern's "*"s
  PageQuery page;

  [[nodiscard]] std::string_view name() const { return variables[0].view(); }
};

// 404 "no job named '...'".
void reply_no_job(ApiCall& call);
// Writes the member "config_etag" and sends the tag along with the reply.
void write_config_etag(ApiReply& reply, const EntityTag& etag);
// Replies the tag and the job, one of `config`, with its queue state.
void reply_job(ApiCall& call, const EntityTag& etag, const Config& config, const Job& job,
               std::uint32_t status);

void get_info(ApiCall& call);
void get_jobs(ApiCall& call);
void get_job(ApiCall& call);
void get_sched_settings(ApiCall& call);
void get_mail_settings(ApiCall& call);
void get_runs(ApiCall& call);
void get_log_chunk(ApiCall& call);
void get_mail_result(ApiCall& call);

void put_job(ApiCall& call);
void delete_job(ApiCall& call);
void validate_job(ApiCall& call);
void put_sched_settings(ApiCall& call);
void put_mail_settings(ApiCall& call);
void run_job_now(ApiCall& call);
void cancel_job(ApiCall& call);
void send_test_mail(ApiCall& call);

}  // namespace orv

#endif  // ORV_API_ENDPOINTS_H_
