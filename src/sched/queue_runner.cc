#include "sched/queue_runner.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>

#include "common/files.h"
#include "common/log.h"
#include "common/version.h"
#include "sched/queue_file.h"

namespace orv {
namespace {

constexpr std::size_t kMaxComm = 31;  // bytes read of the process's name

// The name must be the scheduler's exactly: its network process has it as a prefix.
bool is_scheduler(std::uint32_t pid) {
  std::array<char, 32> path{};
  std::snprintf(path.data(), path.size(), "/proc/%u/comm", pid);
  const ScopedFd fd = open_file(path.data(), O_RDONLY);
  if (!fd.valid()) return false;
  std::array<char, kMaxComm> comm{};
  std::size_t got = 0;
  if (read_at(fd.get(), 0, comm, got) != ErrorCode::Ok || got == 0) return false;
  const std::string_view text(comm.data(), got);
  return text.substr(0, text.find('\n')) == kProgramName;
}

bool runner_present(const QueueRecord& record) {
  const std::uint32_t pid = queue_get_runner_pid(record);
  return pid != 0 && pid != static_cast<std::uint32_t>(::getpid()) && is_scheduler(pid);
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
