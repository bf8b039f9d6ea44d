// The endpoints, by resource. Each takes a call that has passed the checks of its route and leaves
// its reply there; the sources are endpoints_<resource>.cc.
#ifndef ORV_API_ENDPOINTS_H_
#define ORV_API_ENDPOINTS_H_

#include <cstddef>
#include <cstdint>

#include "api/call.h"

namespace orv {

// What one reply may hold, so that it fits its buffer.
inline constexpr std::int64_t kJobsPageMax = 50;        // jobs
inline constexpr std::int64_t kLogChunkMax = 49152;     // bytes of the log
inline constexpr std::size_t kLogChunkEscaped = 60928;  // bytes of its JSON string
inline constexpr std::size_t kRunsListed = 100;         // the newest

// info
void get_info(ApiCall& call);

// jobs
void get_jobs(ApiCall& call);
void get_job(ApiCall& call);
void put_job(ApiCall& call);
void delete_job(ApiCall& call);
void validate_job(ApiCall& call);

// runs: those that have been, are asked for, or go on
void get_runs(ApiCall& call);
void get_log_chunk(ApiCall& call);
void run_job_now(ApiCall& call);
void cancel_job(ApiCall& call);

// settings
void get_sched_settings(ApiCall& call);
void put_sched_settings(ApiCall& call);
void get_mail_settings(ApiCall& call);
void put_mail_settings(ApiCall& call);

// mail
void send_test_mail(ApiCall& call);
void get_mail_result(ApiCall& call);

}  // namespace orv

#endif  // ORV_API_ENDPOINTS_H_
