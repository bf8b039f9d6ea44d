// What the job logs tell of earlier runs. Read-only; what cannot be read counts as not there.
#ifndef ORV_PLAN_HISTORY_H_
#define ORV_PLAN_HISTORY_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "config/config.h"
#include "sched/job_log.h"

namespace orv {

inline constexpr std::int64_t kLongestRun = std::int64_t{366} * 86400;  // seconds, to be believed

struct PastRun {
  std::int64_t start = 0;  // Unix seconds
  JobLogTrailer trailer;   // `finished` is false for a run that has not ended, or was lost
  // -1 when the trailer names no believable end: a tool may have written its own.
  [[nodiscard]] std::int64_t duration_s() const {
    const bool believable =
        trailer.finish_unix >= start && trailer.finish_unix <= start + kLongestRun;
    return believable ? trailer.finish_unix - start : -1;
  }
};

// The last runs of a job, newest first, at most `most` of them.
[[nodiscard]] std::vector<PastRun> past_runs(std::string_view job_log_dir, std::string_view job,
                                             std::size_t most);

// How long a job's newest run took that did its work (a tool that was busy did none). Nothing when
// no log tells.
[[nodiscard]] std::optional<std::int64_t> last_duration(std::string_view job_log_dir,
                                                        std::string_view job);

// last_duration() of every job that has one, by name.
using Durations = std::map<std::string, std::int64_t, std::less<>>;
[[nodiscard]] Durations last_durations(std::string_view job_log_dir, const Config& config);

}  // namespace orv

#endif  // ORV_PLAN_HISTORY_H_
