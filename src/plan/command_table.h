// The commands of orv_plan and their options: what the usage text, the manual page and the
// completion must all know.
#ifndef ORV_PLAN_COMMAND_TABLE_H_
#define ORV_PLAN_COMMAND_TABLE_H_

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

#include "common/options.h"
#include "plan/plan.h"

namespace orv {

inline constexpr std::uint32_t kMaxDays = 366;  // of --days and --past

enum class JobWord { None, Optional, Required };  // whether a command takes the name of a job
struct PlanCommand {
  std::string_view name;
  JobWord job;
  OptionTable options;  // beside kCommonOptions
};
inline constexpr std::size_t kPlanCommandCount = 7;
// In the order of the usage text.
[[nodiscard]] std::span<const PlanCommand, kPlanCommandCount> plan_commands();

// Options of every command.
inline constexpr std::array<OptionRow, 3> kCommonOptions = {{
    {"--config", "", true},
    {"--queue", "", true},
    {"--job-log-dir", "", true},
}};

// On standard output, as --help asks for it.
void print_plan_usage();

// One call of a command, its words checked. `job` is the name given, or null.
struct Invocation {
  const ArgList& args;
  const char* job;

  // Loads what the options name. The first also returns a plan that is not complete; the second
  // then says why on standard error and returns null.
  [[nodiscard]] std::unique_ptr<Plan> load_as_it_is() const;
  [[nodiscard]] std::unique_ptr<Plan> load() const;
  // The job that was named; null after a message.
  [[nodiscard]] const Job* find(const Plan& plan) const;
};

}  // namespace orv

#endif  // ORV_PLAN_COMMAND_TABLE_H_
