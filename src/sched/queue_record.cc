#include "sched/queue_record.h"

#include <string.h>

#include <algorithm>

namespace orv {
namespace {

constexpr std::uint32_t kStateMask = 0xFF;
constexpr unsigned kPidShift = 8;

}  // namespace

const char* state_name(JobState state) {
  switch (state) {
    case JobState::Pending: return "PENDING";
    case JobState::Running: return "RUNNING";
    case JobState::Done: return "DONE";
    case JobState::Failed: return "FAILED";
    case JobState::Disabled: return "DISABLED";
  }
  return "?";
}

std::string_view record_name(const QueueRecord& record) {
  return {record.name.data(), ::strnlen(record.name.data(), record.name.size())};
}

void record_set_name(QueueRecord& record, std::string_view name) {
  record.name.fill('\0');
  name = name.substr(0, record.name.size() - 1);
  std::copy(name.begin(), name.end(), record.name.begin());
}

JobState record_state(const QueueRecord& record) {
  return static_cast<JobState>(record.state_and_pid & kStateMask);
}

void record_set_state(QueueRecord& record, JobState state) {
  record.state_and_pid = (record.state_and_pid & ~kStateMask) | static_cast<std::uint32_t>(state);
}

void record_set_lost(QueueRecord& record) {
  record.state_and_pid = static_cast<std::uint32_t>(JobState::Failed);
}

std::uint32_t queue_get_runner_pid(const QueueRecord& record) {
  return record.state_and_pid >> kPidShift;
}

void queue_set_runner_pid(QueueRecord& record, std::uint32_t pid) {
  if (pid > kMaxRunnerPid) pid = 0;
  record.state_and_pid = (record.state_and_pid & kStateMask) | pid << kPidShift;
}

}  // namespace orv
