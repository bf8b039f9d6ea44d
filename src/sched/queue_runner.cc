#include "sched/queue_runner.h"

#include <unistd.h>

#include "common/log.h"
#include "sched/process.h"
#include "sched/queue_file.h"

namespace orv {
namespace {

bool runner_present(const QueueRecord& record) {
  const std::uint32_t pid = queue_get_runner_pid(record);
  return pid != 0 && pid != static_cast<std::uint32_t>(::getpid()) &&
         is_scheduler(static_cast<pid_t>(pid));
}

bool runner_gone(const QueueRecord& record) {
  return record_state(record) == JobState::Running && !runner_present(record);
}

}  // namespace

bool queue_runner_alive(const QueueRecord& record) {
  return record_state(record) == JobState::Running && runner_present(record);
}

const QueueRecord* queue_find_live_runner(const QueueState& state) {
  for (const QueueRecord& record : state.records()) {
    if (queue_runner_alive(record)) return &record;
  }
  return nullptr;
}

ErrorCode queue_sweep_stale_runners(QueueState& state) {
  bool changed = false;
  for (QueueRecord& record : state.records()) {
    if (!runner_gone(record)) continue;
    const std::string_view name = record_name(record);
    log_msg(
        LogLevel::Error,
        "orv_sched: job '%.*s' is RUNNING in the queue file, but its runner (pid %u) is gone -- "
        "marked FAILED",
        static_cast<int>(name.size()), name.data(), queue_get_runner_pid(record));
    record_set_lost(record);
    changed = true;
  }
  return changed ? queue_save(state) : ErrorCode::Ok;
}

void queue_view_without_stale_runners(QueueState& state) {
  for (QueueRecord& record : state.records()) {
    if (runner_gone(record)) record_set_lost(record);
  }
}

}  // namespace orv
