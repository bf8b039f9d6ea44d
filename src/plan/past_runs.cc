#include "plan/past_runs.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>

#include "common/files.h"
#include "sched/job_log.h"
#include "sched/job_run.h"
#include "sched/queue_runner.h"

namespace orv {
namespace {

constexpr std::string_view kOutputMarker = "\n--- output ---\n";
constexpr std::string_view kEndMarker = "\n--- end ---\n";
constexpr std::uint64_t kTailBytes = 65536;  // of a log, in which its last lines are looked for

// Only an end that a run can have had counts.
std::optional<std::int64_t> believable_end(std::int64_t start, std::int64_t end) {
  if (end < start || end > start + kLongestRun) return std::nullopt;
  return end;
}

PastOutcome outcome_of_exit(std::int32_t exit_code) {
  if (exit_code == 0) return PastOutcome::Done;
  return exit_code == kExitBusy ? PastOutcome::Busy : PastOutcome::Failed;
}

// What the trailer says goes before the exit code: a tool that was stopped may exit with anything.
void take_trailer(const JobLogTrailer& trailer, PastRun& run) {
  run.end = believable_end(run.start, trailer.finish_unix);
  run.exit_code = trailer.exit_code;
  run.outcome = trailer.cancelled   ? PastOutcome::Cancelled
                : trailer.timed_out ? PastOutcome::TimedOut
                                    : outcome_of_exit(trailer.exit_code);
}

// The newest run as the queue remembers it; none for a job that never ran.
std::optional<PastRun> run_of_record(const QueueRecord& record) {
  PastRun run;
  run.start = record.started_at;
  if (run.start < 1) return std::nullopt;
  if (queue_runner_alive(record)) {
    run.outcome = PastOutcome::Running;
    return run;
  }
  // A dead runner leaves RUNNING, and FAILED without a finish once the daemon has looked.
  if (record_state(record) == JobState::Running || record.finished_at < record.started_at) {
    return run;
  }
  run.end = believable_end(run.start, record.finished_at);
  run.exit_code = record.exit_code;
  run.outcome = outcome_of_exit(record.exit_code);
  return run;
}

}  // namespace

const char* past_outcome_name(PastOutcome outcome) {
  switch (outcome) {
    case PastOutcome::Done: return "done";
    case PastOutcome::Busy: return "busy";
    case PastOutcome::Failed: return "failed";
    case PastOutcome::TimedOut: return "timed out";
    case PastOutcome::Cancelled: return "cancelled";
    case PastOutcome::Lost: return "lost";
    case PastOutcome::Running: return "running";
  }
  return "?";
}

bool run_failed(PastOutcome outcome) {
  return outcome == PastOutcome::Failed || outcome == PastOutcome::TimedOut ||
         outcome == PastOutcome::Cancelled || outcome == PastOutcome::Lost;
}

std::string failure_text(const PastRun& run) {
  if (run.outcome != PastOutcome::Failed) return past_outcome_name(run.outcome);
  return "exit " + std::to_string(run.exit_code.value_or(-1));
}

JobRuns::JobRuns(std::string_view job_log_dir, std::string_view job, const QueueRecord* record,
                 bool queue_known)
    : directory_(job_log_directory(job_log_dir, job)), job_(job), queue_known_(queue_known) {
  std::vector<std::string> ids = list_run_ids(directory_);
  if (ids.empty() && ::access(directory_.c_str(), R_OK | X_OK) != 0 && errno != ENOENT) {
    notes_.push_back(
        {directory_, LogFault::Unreadable, std::string("cannot be read: ") + ::strerror(errno)});
  }
  slots_.reserve(ids.size() + 1);
  for (std::string& id : ids) {
    Slot& slot = slots_.emplace_back();
    slot.run.start = run_start(id);
    slot.id = std::move(id);
  }
  if (record != nullptr) add_record_run(*record);
}

// The record stands for a run of its own only when no log is as new: an older log may have been
// removed, and the record then says nothing about those that are left.
void JobRuns::add_record_run(const QueueRecord& record) {
  recorded_ = run_of_record(record);
  if (!recorded_ || (!slots_.empty() && slots_.front().run.start >= recorded_->start)) return;
  Slot slot;
  slot.run = *recorded_;
  slot.read = true;
  slots_.insert(slots_.begin(), std::move(slot));
}

const PastRun* JobRuns::run(std::size_t i) {
  Slot& slot = slots_[i];
  if (!slot.read) read(slot);
  return slot.usable ? &slot.run : nullptr;
}

std::string JobRuns::log_path(std::size_t i) const {
  return slots_[i].id.empty() ? std::string() : job_log_path(directory_, slots_[i].run.start);
}

// Opens the log and proves by its first line that it is one of this job's. False after a note.
bool JobRuns::open_log(const Slot& slot, JobLogFile& log, bool& cut_head) {
  const auto refuse = [&](LogFault fault, const std::string& text) {
    notes_.push_back({job_log_path(directory_, slot.run.start), fault, text});
    return false;
  };
  const auto unreadable = [&] {
    return refuse(LogFault::Unreadable, std::string("cannot be read: ") + ::strerror(errno));
  };
  if (!open_job_log(directory_, slot.id, log)) {
    if (!log.file.valid() && errno != ELOOP) return unreadable();
    return refuse(LogFault::Foreign, "is no regular file");
  }
  std::array<char, kMaxJobName + 8> head{};  // the first line
  std::size_t got = 0;
  if (read_at(log.file.get(), 0, head, got) != ErrorCode::Ok) return unreadable();
  const std::string_view text(head.data(), got);
  const std::string wanted = "job: " + job_ + "\n";
  // A full disk leaves a log that ends before its first line does.
  cut_head = got < wanted.size() && wanted.starts_with(text);
  if (cut_head || text.starts_with(wanted)) return true;
  return refuse(LogFault::Foreign, "is no log of this job: its first line says otherwise");
}

void JobRuns::read(Slot& slot) {
  slot.read = true;
  const bool newest_known = recorded_ && recorded_->start == slot.run.start;
  JobLogFile log;
  bool cut_head = false;
  if (!open_log(slot, log, cut_head)) {
    slot.usable = newest_known;  // the queue knows this one without its log
    if (newest_known) slot.run = *recorded_;
    return;
  }
  JobLogTrailer trailer;
  read_job_log_trailer(log.file.get(), log.size, trailer);
  // The log is the better witness: it knows of time limits and cancels. Without its end, the
  // queue's record of the newest run says how that ended.
  if (trailer.finished) {
    take_trailer(trailer, slot.run);
  } else if (newest_known) {
    slot.run = *recorded_;
  } else if (!queue_known_ && &slot == &slots_.front()) {
    slot.run.outcome = PastOutcome::Running;
  }
  slot.run.log_bytes = log.size;
  if (!cut_head && (trailer.finished || !slot.run.end)) return;
  notes_.push_back({job_log_path(directory_, slot.run.start), LogFault::Cut,
                    cut_head ? "is cut: its header is not whole" : "is cut: it has no end"});
}

std::optional<std::int64_t> median(std::vector<std::int64_t>& durations) {
  if (durations.empty()) return std::nullopt;
  const auto middle = durations.begin() + static_cast<std::ptrdiff_t>(durations.size() / 2);
  std::nth_element(durations.begin(), middle, durations.end());
  if (durations.size() % 2 != 0) return *middle;
  return (*middle + *std::max_element(durations.begin(), middle)) / 2;
}

std::optional<std::int64_t> usual_duration(JobRuns& runs, std::size_t most) {
  std::vector<std::int64_t> durations;
  for (std::size_t i = 0; i < std::min(runs.size(), most) && durations.size() < kUsualRuns; ++i) {
    const PastRun* const run = runs.run(i);
    if (run == nullptr || run->outcome != PastOutcome::Done) continue;
    if (const auto seconds = run->duration_s()) durations.push_back(*seconds);
  }
  return median(durations);
}

std::vector<std::string> last_output_lines(const std::string& path, std::size_t lines,
                                           std::size_t line_bytes) {
  const ScopedFd fd = open_file(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  struct stat st {};
  if (!fd.valid() || ::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return {};
  const auto size = static_cast<std::uint64_t>(st.st_size);
  std::string text(std::min(size, kTailBytes), '\0');
  std::size_t got = 0;
  if (read_at(fd.get(), size - text.size(), text, got) != ErrorCode::Ok) return {};
  std::string_view rest = std::string_view(text).substr(0, got);
  // The tool's own words stand between the header, when the window reaches back to it, and the
  // trailer.
  rest = rest.substr(0, rest.rfind(kEndMarker));
  if (const std::size_t at = rest.find(kOutputMarker); size <= kTailBytes && at != rest.npos) {
    rest.remove_prefix(at + kOutputMarker.size());
  }
  // From the end, line by line, until there are enough.
  std::vector<std::string> out;
  while (!rest.empty() && out.size() < lines) {
    if (rest.back() == '\n') rest.remove_suffix(1);
    const std::size_t at = rest.rfind('\n');
    const std::string_view line = at == rest.npos ? rest : rest.substr(at + 1);
    out.emplace_back(line.substr(0, line_bytes));
    rest = at == rest.npos ? std::string_view() : rest.substr(0, at + 1);
  }
  std::reverse(out.begin(), out.end());
  return out;
}

}  // namespace orv
