// One record of the queue: what the scheduler remembers of one job between runs, as it lies in the
// file. Times are Unix seconds.
#ifndef ORV_SCHED_QUEUE_RECORD_H_
#define ORV_SCHED_QUEUE_RECORD_H_

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace orv {

inline constexpr std::size_t kRecordSize = 172;    // bytes, the same in memory and on disk
inline constexpr std::int64_t kNever = INT64_MAX;  // next_run of a job that no time will start
inline constexpr std::uint32_t kMaxRunnerPid = 0xFFFFFF;

enum class JobState : std::uint8_t { Pending = 0, Running = 1, Done = 2, Failed = 3, Disabled = 4 };
[[nodiscard]] const char* state_name(JobState state);  // "?" for any other byte

// The layout on disk, little-endian. `state_and_pid` has the state in its low 8 bits and the
// runner's pid in the high 24; use the accessors below. `name` is NUL-padded; a corrupt file may
// lack the NUL.
struct [[gnu::packed]] QueueRecord {
  std::array<char, 128> name{};
  std::uint32_t state_and_pid = 0;
  std::uint32_t schedule_fingerprint = 0;  // 0: not yet known
  std::int64_t next_run = 0;
  std::int64_t started_at = 0;  // 0: never ran
  std::int64_t finished_at = 0;
  std::int32_t exit_code = 0;    // -1: none, could not start, or killed by a signal
  std::int64_t after_stamp = 0;  // finish of the newest dependency that this job has run for

  bool operator==(const QueueRecord&) const = default;
};
static_assert(sizeof(QueueRecord) == kRecordSize);
static_assert(std::endian::native == std::endian::little,
              "records are stored as they lie in memory");

[[nodiscard]] std::string_view record_name(const QueueRecord& record);
void record_set_name(QueueRecord& record, std::string_view name);  // cut to 127 bytes
[[nodiscard]] JobState record_state(const QueueRecord& record);
void record_set_state(QueueRecord& record, JobState state);  // the state byte only, the pid stays
// The run was lost: FAILED, and no runner any more.
void record_set_lost(QueueRecord& record);
[[nodiscard]] std::uint32_t queue_get_runner_pid(const QueueRecord& record);
// A pid that does not fit 24 bits is stored as 0: such a runner is later judged gone.
void queue_set_runner_pid(QueueRecord& record, std::uint32_t pid);

}  // namespace orv

#endif  // ORV_SCHED_QUEUE_RECORD_H_
