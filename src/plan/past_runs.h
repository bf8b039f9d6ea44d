// Earlier runs of the jobs, as their logs and the queue report them. Read-only. Of each log only
// the head and the tail are read, and only when it is asked for; a directory is listed once.
#ifndef ORV_PLAN_PAST_RUNS_H_
#define ORV_PLAN_PAST_RUNS_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sched/job_log.h"
#include "sched/queue_state.h"

namespace orv {

inline constexpr std::int64_t kLongestRun = std::int64_t{366} * 86400;  // seconds, to be believed
inline constexpr std::size_t kUsualRuns = 5;  // successes whose median is the usual duration

enum class PastOutcome { Done, Busy, Failed, TimedOut, Cancelled, Lost, Running };
// "done", "busy", "failed", "timed out", "cancelled", "lost", "running".
[[nodiscard]] const char* past_outcome_name(PastOutcome outcome);
// Whether the run ended without doing its work: failed, timed out, cancelled or lost.
[[nodiscard]] bool run_failed(PastOutcome outcome);

struct PastRun {
  std::int64_t start = 0;  // Unix seconds
  PastOutcome outcome = PastOutcome::Lost;
  // None while running, after a lost run, or when the log names no believable end: a tool may have
  // written a trailer of its own.
  std::optional<std::int64_t> end;
  std::optional<std::int32_t> exit_code;  // none while running and after a lost run
  std::optional<std::int64_t> late_s;  // set by set_lateness() alone; none: by hand, or not known
  std::optional<std::int64_t> log_bytes;  // none without a log

  [[nodiscard]] std::optional<std::int64_t> duration_s() const {
    return end ? std::optional(*end - start) : std::nullopt;
  }
};

// How a failed run ended: "exit 3", or the outcome's name.
[[nodiscard]] std::string failure_text(const PastRun& run);
[[nodiscard]] inline std::optional<std::int64_t> start_of(const std::optional<PastRun>& run) {
  return run ? std::optional(run->start) : std::nullopt;
}

enum class LogFault { Unreadable, Foreign, Cut };
struct LogNote {
  std::string log;  // path
  LogFault fault = LogFault::Unreadable;
  std::string text;  // "cannot be read: Permission denied"
};

// The runs of one job, newest first. What the queue's record knows of the newest run completes the
// logs: a run that is going on, and one whose log could not be written or was cut.
class JobRuns {
 public:
  // `record` may be null; it is read here only. It is the record as the queue file holds it: a
  // RUNNING one whose process is gone stands for a lost run. With `queue_known` false (the queue
  // cannot be read) a newest log without an end counts as a running job's.
  JobRuns(std::string_view job_log_dir, std::string_view job, const QueueRecord* record,
          bool queue_known = true);

  // How many runs there may be. Reading one may show that its log is none.
  [[nodiscard]] std::size_t size() const { return slots_.size(); }
  [[nodiscard]] std::int64_t start(std::size_t i) const { return slots_[i].run.start; }
  // The run `i`, read from its log the first time; null when that cannot be read or is foreign,
  // with a note in notes(). Borrowed until the end of this object.
  [[nodiscard]] const PastRun* run(std::size_t i);
  // The path of that run's log; empty when it has none.
  [[nodiscard]] std::string log_path(std::size_t i) const;

  // What was wrong with the logs read so far, and with the directory.
  [[nodiscard]] const std::vector<LogNote>& notes() const { return notes_; }

 private:
  struct Slot {
    PastRun run;
    std::string id;  // of the log; empty: known from the record alone
    bool read = false;
    bool usable = true;
  };
  void add_record_run(const QueueRecord& record);
  void read(Slot& slot);
  bool open_log(const Slot& slot, JobLogFile& log, bool& cut_head);

  std::string directory_;
  std::string job_;
  bool queue_known_;
  std::optional<PastRun> recorded_;  // the run that the queue's record is about
  std::vector<Slot> slots_;
  std::vector<LogNote> notes_;
};

// The middle one of the durations, of an even number the mean of the two middle ones; none when
// there is none. The values are reordered.
[[nodiscard]] std::optional<std::int64_t> median(std::vector<std::int64_t>& durations);

// The median duration of the newest kUsualRuns successful runs. At most `most` logs are read.
[[nodiscard]] std::optional<std::int64_t> usual_duration(JobRuns& runs, std::size_t most);

// The last lines of the tool's own output in the log at `path`, oldest first, each cut at
// `line_bytes`; empty when there is none or it cannot be read.
[[nodiscard]] std::vector<std::string> last_output_lines(const std::string& path, std::size_t lines,
                                                         std::size_t line_bytes);

}  // namespace orv

#endif  // ORV_PLAN_PAST_RUNS_H_
