#include "sched/queue_state.h"

#include <string.h>

#include <algorithm>
#include <functional>
#include <utility>

namespace orv {
namespace {

constexpr std::uint32_t kStateMask = 0xFF;
constexpr unsigned kPidShift = 8;

std::size_t slot_of(std::string_view name, std::size_t slots) {
  return std::hash<std::string_view>{}(name) & (slots - 1);
}

void build_index(const QueueState& state) {
  QueueIndex& index = state.index;
  std::size_t slots = 16;
  while (slots < 2 * state.records.size()) slots *= 2;
  index.slots.assign(slots, 0);
  for (std::size_t i = 0; i < state.records.size(); ++i) {
    const std::string_view name = record_name(state.records[i]);
    std::size_t slot = slot_of(name, slots);
    // Of two records of one name, the first counts.
    while (index.slots[slot] != 0 && record_name(state.records[index.slots[slot] - 1]) != name) {
      slot = (slot + 1) & (slots - 1);
    }
    if (index.slots[slot] == 0) index.slots[slot] = static_cast<std::uint32_t>(i + 1);
  }
  index.base = state.records.data();
  index.count = state.records.size();
}

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
  name = name.substr(0, kMaxJobName);
  std::copy(name.begin(), name.end(), record.name.begin());
}

JobState record_state(const QueueRecord& record) {
  return static_cast<JobState>(record.state_and_pid & kStateMask);
}

void record_set_state(QueueRecord& record, JobState state) {
  record.state_and_pid = (record.state_and_pid & ~kStateMask) | static_cast<std::uint32_t>(state);
}

std::uint32_t queue_get_runner_pid(const QueueRecord& record) {
  return record.state_and_pid >> kPidShift;
}

void queue_set_runner_pid(QueueRecord& record, std::uint32_t pid) {
  if (pid > kMaxRunnerPid) pid = 0;
  record.state_and_pid = (record.state_and_pid & kStateMask) | pid << kPidShift;
}

const QueueRecord* queue_find(const QueueState& state, std::string_view name) {
  if (state.records.empty()) return nullptr;
  const QueueIndex& index = state.index;
  if (index.base != state.records.data() || index.count != state.records.size()) {
    build_index(state);
  }
  const std::size_t slots = index.slots.size();
  for (std::size_t slot = slot_of(name, slots); index.slots[slot] != 0;
       slot = (slot + 1) & (slots - 1)) {
    const QueueRecord& record = state.records[index.slots[slot] - 1];
    if (record_name(record) == name) return &record;
  }
  return nullptr;
}

QueueRecord* queue_find(QueueState& state, std::string_view name) {
  const QueueRecord* const found = queue_find(std::as_const(state), name);
  return found == nullptr ? nullptr
                          : &state.records[static_cast<std::size_t>(found - state.records.data())];
}

ErrorCode queue_upsert(QueueState& state, const QueueRecord& record) {
  if (QueueRecord* const present = queue_find(state, record_name(record))) {
    *present = record;
  } else {
    state.records.push_back(record);
    state.index.clear();
  }
  return queue_save(state);
}

}  // namespace orv
