// What is legal but surprising in configuration and queue, and in the files around them.
#ifndef ORV_PLAN_CHECK_H_
#define ORV_PLAN_CHECK_H_

#include <string>
#include <string_view>
#include <vector>

#include "plan/forecast.h"
#include "plan/plan.h"

namespace orv {

struct Finding {
  const char* kind = "";  // one word for programs: "never-fires", "tool-missing", ...
  std::string job;        // empty: about no single job
  std::string text;       // one plain sentence
};
// "[job]: text", or the text alone.
[[nodiscard]] std::string finding_text(const Finding& finding);

// All findings, those of jobs first in the order of the file. `path` is the search path of programs
// (the environment's PATH); reads the jobs' newest logs.
[[nodiscard]] std::vector<Finding> check_plan(const Plan& plan, const Durations& durations,
                                              std::string_view path);

// The parts of it: about one job's own settings and runs, ...
[[nodiscard]] std::vector<Finding> check_jobs(const Plan& plan, const Durations& durations,
                                              std::string_view path);
// ... about how jobs act together, ...
[[nodiscard]] std::vector<Finding> check_together(const Plan& plan, const Durations& durations);
// ... and about files and mail.
[[nodiscard]] std::vector<Finding> check_surroundings(const Plan& plan);

}  // namespace orv

#endif  // ORV_PLAN_CHECK_H_
