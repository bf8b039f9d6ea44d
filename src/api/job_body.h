// The body of PUT jobs/{name} and POST validate/job.
#ifndef ORV_API_JOB_BODY_H_
#define ORV_API_JOB_BODY_H_

#include <span>
#include <string_view>

#include "api/body_fields.h"

namespace orv {

// The fields of a job, in the order in which new lines are written.
[[nodiscard]] std::span<const BodyField> job_body_fields();

// Whether a job of this name may be created or changed through the API:
// [A-Za-z0-9][A-Za-z0-9._-]{0,63}, and none of "sched", "mail" and "api".
[[nodiscard]] bool is_api_job_name(std::string_view name);

}  // namespace orv

#endif  // ORV_API_JOB_BODY_H_
