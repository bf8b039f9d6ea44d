// The queue state file: all that the scheduler remembers of its jobs between runs. It is a bare row
// of 172-byte records, replaced whole by rename. Whoever changes it holds the lock from the read to
// the save; readers that only show it take no lock and never save. Times are Unix seconds.
#ifndef ORV_SCHED_QUEUE_STATE_H_
#define ORV_SCHED_QUEUE_STATE_H_

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/scoped_fd.h"
#include "common/status.h"
#include "config/config.h"

namespace orv {

inline constexpr const char* kDefaultQueuePath = "/var/lib/orv_sched/queue.state";
inline constexpr std::size_t kRecordSize = 172;     // bytes, the same in memory and on disk
inline constexpr std::size_t kMaxQueuePath = 1023;  // bytes
inline constexpr std::int64_t kNever = INT64_MAX;   // next_run of a job that no time will start
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
  std::int64_t after_stamp = 0;  // newest dependency finish that a run of this job has answered
};
static_assert(sizeof(QueueRecord) == kRecordSize);
static_assert(std::endian::native == std::endian::little,
              "records are stored as they lie in memory");

[[nodiscard]] std::string_view record_name(const QueueRecord& record);
void record_set_name(QueueRecord& record, std::string_view name);  // cut to 127 bytes
[[nodiscard]] JobState record_state(const QueueRecord& record);
void record_set_state(QueueRecord& record, JobState state);  // the state byte only, the pid stays
[[nodiscard]] std::uint32_t queue_get_runner_pid(const QueueRecord& record);
// A pid that does not fit 24 bits is stored as 0: such a runner is later judged gone.
void queue_set_runner_pid(QueueRecord& record, std::uint32_t pid);

// Where the records' names stand: built by the first lookup, so that looking up every configured
// job costs no more than reading the records once. Private to the queue; whoever adds, removes or
// renames records outside of it clears it.
struct QueueIndex {
  std::vector<std::uint32_t> slots;   // open addressing; 0: free, else position + 1
  const QueueRecord* base = nullptr;  // the records it was built over
  std::size_t count = 0;
  void clear() { base = nullptr; }
};

struct QueueState {
  std::vector<QueueRecord> records;  // in the order in which their jobs were first added
  std::string path;                  // at most kMaxQueuePath bytes, cut
  mutable QueueIndex index;
};

// Takes the exclusive lock of the queue at `path` ("<path>.lock"), waiting while another process
// holds it, and creates missing directories. The caller owns the lock: it ends when the descriptor
// closes. On failure the descriptor is empty and the cause was logged.
[[nodiscard]] ScopedFd queue_lock(const char* path);

// Empties `state`, remembers `path` and reads its file. A missing file is created empty (without
// clobbering one that another process has just made). IoError and the like, also for what is no
// regular file (errno says what it was); OutOfMemory; Corrupt when the file is shorter than its
// size said.
[[nodiscard]] ErrorCode queue_load(QueueState& state, const char* path);
// The same for a reader that may not create anything: a path that stat() refuses is an empty queue.
[[nodiscard]] ErrorCode queue_load_readonly(QueueState& state, const char* path);

// Replaces the file whole: temporary file "<path>.tmp", flushed, renamed. After a failure the old
// file is in place, and errno says what an IoError was. Needs the lock.
[[nodiscard]] ErrorCode queue_save(const QueueState& state);
// Logs why a save failed, at once after it; nothing for Ok. `remark` ends the line.
void queue_log_unsaved(const QueueState& state, ErrorCode rc, const char* remark = "");

// Replaces the records by what the file holds now. After a failure `state` is as it was. Pointers
// from queue_find() are stale afterwards.
[[nodiscard]] ErrorCode queue_reload(QueueState& state);

// The first record of exactly this name, or null. Stale after anything that adds or removes
// records.
[[nodiscard]] QueueRecord* queue_find(QueueState& state, std::string_view name);
[[nodiscard]] const QueueRecord* queue_find(const QueueState& state, std::string_view name);

// Replaces the record of the same name, or appends it; then saves.
[[nodiscard]] ErrorCode queue_upsert(QueueState& state, const QueueRecord& record);

// Whether another process, alive and called orv_sched, runs this record's job. The caller's own pid
// does not count.
[[nodiscard]] bool queue_runner_alive(const QueueRecord& record);
// The first such record, or null.
[[nodiscard]] const QueueRecord* queue_find_live_runner(const QueueState& state);

// Marks every RUNNING record FAILED whose runner is gone (the caller's own pid counts as gone),
// logging each, and saves when it changed any.
[[nodiscard]] ErrorCode queue_sweep_stale_runners(QueueState& state);

// Brings the records in line with the configured jobs: new jobs get a record, removed ones lose
// theirs, disabling and enabling is carried over. True when anything changed. `quiet` logs nothing.
[[nodiscard]] bool queue_reconcile(QueueState& state, const Config& config, std::int64_t now,
                                   bool quiet);
// Reconciles, logging, and saves when anything changed.
[[nodiscard]] ErrorCode queue_sync_with_config(QueueState& state, const Config& config,
                                               std::int64_t now);
// Reconciles quietly and refreshes schedules, and never saves: for readers.
void queue_view_with_config(QueueState& state, const Config& config, std::int64_t now);

// Recomputes the next run of every enabled job whose schedule settings were edited (a running job
// and one that waits for its retry keep theirs). True when anything changed.
[[nodiscard]] bool queue_refresh_schedules(QueueState& state, const Config& config,
                                           std::int64_t now);
[[nodiscard]] ErrorCode queue_refresh_schedules_and_save(QueueState& state, const Config& config,
                                                         std::int64_t now);

// The next match of the job's schedule after `now`, else its once time, else kNever.
[[nodiscard]] std::int64_t first_next_run(const Job& job, std::int64_t now);
// FNV-1a over the job's schedule settings; never 0.
[[nodiscard]] std::uint32_t schedule_fingerprint(const Job& job);

// Whether the job is to be started now. When it is, `stamp` takes the newest finish among the jobs
// it waited for (0 without an 'after' list), to be stored in after_stamp after the run.
[[nodiscard]] bool queue_job_due(const QueueState& state, const Job& job, std::int64_t now,
                                 std::int64_t& stamp);

}  // namespace orv

#endif  // ORV_SCHED_QUEUE_STATE_H_
