// One run of one job, start to finish: argument vector, RUNNING in the queue, job log, the tool as
// a child with a time limit, trailer, rotation, outcome in the queue.
#ifndef ORV_SCHED_JOB_RUN_H_
#define ORV_SCHED_JOB_RUN_H_

#include <cstdint>
#include <string>

#include "common/fixed_text.h"
#include "common/scoped_fd.h"
#include "config/config.h"
#include "sched/queue_state.h"
#include "sched/settings.h"
#include "sched/subprocess.h"

namespace orv {

enum class RunResult : std::uint32_t { Done = 0, Failed = 1, Busy = 2 };

inline constexpr std::size_t kMaxCommandText = 1023;  // bytes
inline constexpr std::size_t kMaxLogPath = 1399;      // bytes
// A tool's exit code for "temporarily unavailable": it is tried again later.
inline constexpr std::int32_t kExitBusy = 75;

struct JobRunResult {
  RunResult result = RunResult::Done;
  std::int64_t started = 0;    // Unix seconds
  std::int64_t finished = 0;   // Unix seconds
  std::int32_t exit_code = 0;  // -1: not started, killed by a signal, or no argument vector
  bool timed_out = false;
  FixedText<kMaxCommandText> command;  // arguments joined with blanks
  FixedText<kMaxLogPath> log_path;     // empty when no log was written
};

// What is running now, and whether the API wants it stopped. Shared by the run and the API.
struct CancelSlot {
  JobName job;  // empty when none
  bool cancel_requested = false;
  FixedText<64> cancelled_by;  // name of the API token
};

// Runs `job`. Needs the queue lock in `lock`; it is given up while the tool runs and taken again
// afterwards (empty when that failed). The record of the job holds the outcome on return, but the
// queue is not saved: the caller does so once it has set the next run. Pointers into `queue` are
// stale. The run knows nothing of the network process: `poller` serves it, and says when the tool
// is to be stopped. Without a `slot` it is a signal to this process that stops it. Both may be
// null.
[[nodiscard]] JobRunResult run_job(const Job& job, const JobRunSettings& settings,
                                   QueueState& queue, ScopedFd& lock, const Poller* poller,
                                   CancelSlot* slot);

// Puts the outcome into the job's record of the queue as it is on disk now, taking the lock unless
// it is held. When the lock or the queue cannot be had (which is logged), the copy in memory is
// used.
void run_store_outcome(const Job& job, const JobRunResult& result, QueueState& queue,
                       ScopedFd& lock);

}  // namespace orv

#endif  // ORV_SCHED_JOB_RUN_H_
