#include "sched/job_run.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <ctime>
#include <vector>

#include "common/files.h"
#include "common/log.h"
#include "config/job_argv.h"
#include "config/job_command.h"
#include "sched/job_log.h"
#include "sched/queue_file.h"
#include "sched/run_file.h"
#include "sched/stop_signals.h"

namespace orv {
namespace {

constexpr std::size_t kArgvMessageSize = 256;

const char* result_word(RunResult result) {
  static constexpr std::array<const char*, 3> kWords = {"done", "failed", "busy"};
  return kWords[static_cast<std::size_t>(result)];
}

JobState state_after(RunResult result) {
  static constexpr std::array<JobState, 3> kStates = {JobState::Done, JobState::Failed,
                                                      JobState::Pending};
  return kStates[static_cast<std::size_t>(result)];
}

// The job's record, made (and saved) when there is none: a job can be run by hand before the daemon
// has ever seen it.
QueueRecord& find_or_add(QueueState& queue, const Job& job) {
  if (QueueRecord* record = queue_find(queue, job.name.view())) return *record;
  QueueRecord record;
  record_set_name(record, job.name.view());
  record_set_state(record, JobState::Pending);
  record.next_run = kNever;
  record.exit_code = -1;
  (void)queue_upsert(queue, record);  // saved again, and complained of, when it is filled in
  return *queue_find(queue, job.name.view());
}

void mark_running(QueueState& queue, const Job& job, std::int64_t started) {
  QueueRecord& record = find_or_add(queue, job);
  record_set_state(record, JobState::Running);
  record.started_at = started;
  queue_set_runner_pid(record, static_cast<std::uint32_t>(::getpid()));
  // A queue that cannot be written (a full disk) is no reason to skip a backup.
  queue_log_unsaved(queue, queue_save(queue));
}

void store_outcome(QueueState& queue, const Job& job, const JobRunResult& result) {
  QueueRecord& record = find_or_add(queue, job);
  record.exit_code = result.exit_code;
  record.started_at = result.started;
  record.finished_at = result.finished;
  record_set_state(record, state_after(result.result));
  queue_set_runner_pid(record, 0);
}

JobRunResult fail_without_argv(const Job& job, const char* reason, QueueState& queue) {
  JobRunResult result;
  log_msg(LogLevel::Error, "orv_sched: job '%s': cannot build argv: %s", job.name.c_str(), reason);
  result.result = RunResult::Failed;
  result.started = result.finished = std::time(nullptr);
  result.exit_code = -1;
  result.command.set_truncated("(cannot build the command line: " + std::string(reason) + ")");
  store_outcome(queue, job, result);
  return result;
}

void join_command(const std::vector<const char*>& argv, JobRunResult& result) {
  std::string text;
  for (const char* arg : argv) {
    if (arg == nullptr) break;
    if (arg != argv.front()) text += ' ';
    text += arg;
  }
  result.command.set_truncated(text);
}

// The log of one run. Without a file (`fd` empty) the tool writes where the scheduler writes.
struct JobLog {
  JobLog(const Job& job, const std::string& root, std::int64_t start)
      : directory(job_log_directory(root, job.name.view())), path(job_log_path(directory, start)) {}
  std::string directory;
  std::string path;
  ScopedFd fd;
};

void write_to_log(const JobLog& log, const std::string& text) {
  if (!log.fd.valid() || write_all(log.fd.get(), text) == ErrorCode::Ok) return;
  log_msg(LogLevel::Warn, "orv_sched: cannot write job log %s", log.path.c_str());
}

// Opens the log; logs why it cannot be. The directory is made when the file cannot be opened, which
// is so for a job's first run only.
void open_log(JobLog& log) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_APPEND;
  log.fd = open_file(log.path.c_str(), kFlags, 0644);
  if (log.fd.valid()) return;
  if (make_directories(log.directory) != ErrorCode::Ok) {
    log_msg(LogLevel::Warn, "orv_sched: cannot create job log dir %s", log.directory.c_str());
    return;
  }
  log.fd = open_file(log.path.c_str(), kFlags, 0644);
  if (!log.fd.valid()) {
    log_msg(LogLevel::Warn, "orv_sched: cannot write job log %s", log.path.c_str());
  }
}

// Without a log the job runs all the same.
void start_log(JobLog& log, const Job& job, const std::vector<const char*>& argv,
               JobRunResult& result) {
  open_log(log);
  if (!log.fd.valid()) return;
  result.log_path.set_truncated(log.path);
  write_to_log(log, job_log_header(job, argv, result.started));
}

// How the tool's run ended, besides its exit code.
struct ToolRun {
  bool started = false;
  RunOutcome outcome;
  std::string cancelled_by;
};

// Names the running job in the slot for as long as it can be cancelled. A request arriving just as
// the run ends is dropped here and cannot hit the next run.
class SlotHolder {
 public:
  SlotHolder(CancelSlot* slot, const Job& job) : slot_(slot) {
    if (slot_ == nullptr) return;
    *slot_ = {};
    slot_->job = job.name;
  }
  ~SlotHolder() {
    if (slot_ != nullptr) *slot_ = {};
  }
  SlotHolder(const SlotHolder&) = delete;
  SlotHolder& operator=(const SlotHolder&) = delete;
  [[nodiscard]] std::string canceller() const {
    if (slot_ == nullptr) return stop_signal_name();
    const char* const token = slot_->cancelled_by.empty() ? "?" : slot_->cancelled_by.c_str();
    return std::string("API token ") + token;
  }

 private:
  CancelSlot* slot_;
};

ToolRun run_tool(const Job& job, const std::vector<const char*>& argv, std::uint32_t timeout_s,
                 int out_fd, RunFile& run_file, const Poller* poller, CancelSlot* slot) {
  ToolRun run;
  CommandOptions options;
  options.timeout_s = time_limit(job, timeout_s);
  options.before_exec.context = &run_file;
  options.before_exec.call = [](void* context, pid_t tool) {
    static_cast<RunFile*>(context)->add_tool(tool);
  };
  const SlotHolder holder(slot, job);
  run.started = run_command(argv.data(), options, out_fd, poller, run.outcome) == 0;
  if (!run.started) {
    log_msg(LogLevel::Error, "orv_sched: job '%s': cannot start a process: %s", job.name.c_str(),
            std::strerror(errno));
  } else if (run.outcome.exec_error != 0) {
    log_msg(LogLevel::Error, "orv_sched: job '%s': cannot execute %s: %s", job.name.c_str(),
            argv[0], std::strerror(run.outcome.exec_error));
  }
  run.cancelled_by = holder.canceller();
  return run;
}

RunResult decide(const ToolRun& run) {
  if (!run.started || run.outcome.cancelled || run.outcome.timed_out) return RunResult::Failed;
  if (run.outcome.exit_code == 0) return RunResult::Done;
  return run.outcome.exit_code == kExitBusy ? RunResult::Busy : RunResult::Failed;
}

void conclude_log(JobLog& log, std::uint32_t keep, const ToolRun& run, const JobRunResult& result) {
  const char* const canceller = run.outcome.cancelled ? run.cancelled_by.c_str() : nullptr;
  write_to_log(log,
               job_log_trailer(result.finished, result.exit_code, result.timed_out, canceller));
  log.fd.reset();
  rotate_job_logs(log.directory, keep, log.path);
}

}  // namespace

JobRunResult run_job(const Job& job, const JobRunSettings& settings, QueueState& queue,
                     ScopedFd& lock, const Poller* poller, CancelSlot* slot) {
  std::vector<const char*> argv;
  std::array<char, kArgvMessageSize> reason{};
  if (!build_argv(job, settings.background, argv, reason)) {
    return fail_without_argv(job, reason.data(), queue);
  }
  JobRunResult result;
  join_command(argv, result);
  result.started = std::time(nullptr);
  JobLog log(job, settings.job_log_dir, result.started);
  // Before the record: should the queue be full, others see the run all the same. It is removed
  // when this function ends, with the lock taken again, so that nobody sees the job between two
  // states.
  RunFile run_file(queue.path, job.name.view(), log.path);
  mark_running(queue, job, result.started);
  lock.reset();  // from here on others can read the queue and see who runs

  start_log(log, job, argv, result);
  log_msg(LogLevel::Info, "orv_sched: job '%s' starting (%s)", job.name.c_str(), argv[0]);
  const ToolRun run = run_tool(job, argv, settings.timeout_s, log.fd.get(), run_file, poller, slot);
  result.finished = std::time(nullptr);
  result.exit_code = run.outcome.exit_code;
  result.timed_out = run.outcome.timed_out;
  result.result = decide(run);
  conclude_log(log, settings.job_log_keep, run, result);
  log_msg(LogLevel::Info, "orv_sched: job '%s' finished exit=%d timed_out=%d%s result=%s",
          job.name.c_str(), result.exit_code, result.timed_out ? 1 : 0,
          run.outcome.cancelled ? " cancelled=1" : "", result_word(result.result));

  run_store_outcome(job, result, queue, lock);
  return result;
}

void run_store_outcome(const Job& job, const JobRunResult& result, QueueState& queue,
                       ScopedFd& lock) {
  if (!lock.valid()) lock = queue_lock(queue.path.c_str());
  if (queue_reload(queue) != ErrorCode::Ok) {
    log_msg(LogLevel::Error, "orv_sched: cannot re-read the queue %s -- using the in-memory copy",
            queue.path.c_str());
  }
  store_outcome(queue, job, result);
}

}  // namespace orv
