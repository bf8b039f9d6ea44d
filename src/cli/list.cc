#include <time.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>

#include "cli/commands.h"
#include "cli/console.h"
#include "common/terminal.h"
#include "common/times.h"
#include "config/after_list.h"
#include "config/config.h"
#include "config/job_command.h"
#include "sched/queue_file.h"
#include "sched/queue_schedule.h"

namespace orv {
namespace {

constexpr std::size_t kMaxAfterCell = 511;  // bytes

std::string after_cell(const Job& job) {
  return job.after.empty() ? "-" : after_text(job).substr(0, kMaxAfterCell);
}

// The whole row is coloured; a state without a colour needs no reset either.
const char* color_of(JobState state) {
  switch (state) {
    case JobState::Pending: return "\033[30;107m";  // black on bright white
    case JobState::Running: return "\033[97;42m";   // bright white on green
    case JobState::Done: return "\033[32;107m";     // green on bright white
    case JobState::Failed: return "\033[97;41m";    // bright white on red
    case JobState::Disabled: break;
  }
  return "";
}

void print_row(const Job& job, const QueueRecord& record, bool color) {
  const JobState state = record_state(record);
  const char* const start = color ? color_of(state) : "";
  const std::string exit_code =
      record.started_at > 0 ? std::to_string(record.exit_code) : std::string("-");
  std::printf("%s%-24s %-18s %-10s %-20s %-20s %-20s %-6s %s%s\n", start, job.name.c_str(),
              command_name(job.command), state_name(state),
              local_time_cell(record.next_run).c_str(), local_time_cell(record.started_at).c_str(),
              local_time_cell(record.finished_at).c_str(), exit_code.c_str(),
              after_cell(job).c_str(), *start == '\0' ? "" : "\033[0m");
}

}  // namespace

int command_list(const CommandContext& context) {
  const std::unique_ptr<Config> config = load_config(context);
  if (config == nullptr) return kExitFailed;
  QueueState queue;
  if (queue_load_readonly(queue, context.queue_path) != ErrorCode::Ok) {
    return complain("cannot read queue %s", context.queue_path);
  }
  // Shows what the daemon would make of the file, without the lock and without saving it.
  queue_view_with_config(queue, *config, ::time(nullptr));
  const bool color = color_wanted();
  std::printf("%-24s %-18s %-10s %-20s %-20s %-20s %-6s %s\n", "NAME", "COMMAND", "STATUS",
              "NEXT-RUN", "LAST-RUN", "LAST-FINISH", "EXIT", "AFTER");
  for (const Job& job : config->jobs) {
    const QueueRecord* const record = queue_find(queue, job.name.view());
    if (record != nullptr) print_row(job, *record, color);
  }
  return kExitOk;
}

}  // namespace orv
