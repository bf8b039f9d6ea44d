#include "plan/history.h"

#include <algorithm>
#include <map>
#include <utility>

#include "plan/lateness.h"

namespace orv {
namespace {

struct LoadedRuns {
  std::vector<PastRun> runs;  // oldest first; the first ones may lie before the time asked for
  std::vector<std::string> logs;
  std::vector<LogNote> notes;
};

// The runs since `from`, and the one before them, from which the lateness of the first is known.
LoadedRuns load_runs(const Plan& plan, const Job& job, std::int64_t from) {
  LoadedRuns loaded;
  JobRuns runs = runs_of(plan, job);
  for (std::size_t i = 0; i < runs.size(); ++i) {
    const PastRun* const run = runs.run(i);
    if (run == nullptr) continue;
    loaded.runs.push_back(*run);
    loaded.logs.push_back(runs.log_path(i));
    if (run->start < from) break;  // that one is only looked back to
  }
  std::reverse(loaded.runs.begin(), loaded.runs.end());
  std::reverse(loaded.logs.begin(), loaded.logs.end());
  loaded.notes = runs.notes();
  return loaded;
}

// The jobs that are asked for, and those that they wait for.
class RunsByJob {
 public:
  RunsByJob(const Plan& plan, std::int64_t from) : plan_(plan), from_(from) {}

  LoadedRuns& of(const Job& job) {
    const auto [at, added] = loaded_.try_emplace(&job);
    if (added) at->second = load_runs(plan_, job, from_);
    return at->second;
  }
  void set_lateness_of(const Job& job) {
    std::vector<RunEnds> after;
    for (const JobName& name : job.after) {
      const Job* const other = find_job(plan_.config, name.view());
      if (other != nullptr) after.push_back(ends_for(job.after_mode, of(*other).runs));
    }
    set_lateness(job, after, of(job).runs);
  }

 private:
  const Plan& plan_;
  std::int64_t from_;
  std::map<const Job*, LoadedRuns> loaded_;
};

// Few runs have no trend: there must be some before the last five.
std::optional<std::int64_t> trend_of(std::vector<std::int64_t> durations) {
  if (durations.size() <= kUsualRuns) return std::nullopt;
  const auto last = durations.end() - static_cast<std::ptrdiff_t>(kUsualRuns);
  std::vector<std::int64_t> before(durations.begin(), last);
  std::vector<std::int64_t> newest(last, durations.end());
  const std::int64_t old = *median(before);  // both hold at least one
  if (old == 0) return std::nullopt;
  return (*median(newest) - old) * 100 / old;
}

JobTotals totals_of(const Job& job, const std::vector<PastRun>& runs) {
  JobTotals totals;
  totals.job = &job;
  // Only runs that did their work say how long it takes: a failed one may have ended at once.
  std::vector<std::int64_t> durations;
  for (const PastRun& run : runs) {
    ++totals.runs;
    if (run.outcome == PastOutcome::Busy) ++totals.busy;
    if (run_failed(run.outcome)) ++totals.failures;
    if (run.outcome != PastOutcome::Done) continue;
    ++totals.done;
    if (const auto seconds = run.duration_s()) durations.push_back(*seconds);
  }
  totals.trend_percent = trend_of(durations);
  if (!durations.empty()) totals.longest_s = *std::max_element(durations.begin(), durations.end());
  totals.median_s = median(durations);
  return totals;
}

}  // namespace

History collect_history(const Plan& plan, std::int64_t from, const Job* only) {
  History history;
  history.from = from;
  RunsByJob loaded(plan, from);
  for (const Job& job : plan.config.jobs) {
    if (only != nullptr && only != &job) continue;
    loaded.set_lateness_of(job);
    // Loaded once, also when other jobs wait for this one.
    LoadedRuns& all = loaded.of(job);
    history.notes.insert(history.notes.end(), all.notes.begin(), all.notes.end());
    std::vector<PastRun> inside;
    for (std::size_t i = 0; i < all.runs.size(); ++i) {
      if (all.runs[i].start < from) continue;
      inside.push_back(all.runs[i]);
      history.runs.push_back({&job, all.runs[i], all.logs[i]});
    }
    if (!inside.empty()) history.jobs.push_back(totals_of(job, inside));
  }
  // Jobs run one at a time, but for forced ones: those of one second stay in the file's order.
  std::stable_sort(
      history.runs.begin(), history.runs.end(),
      [](const HistoryRun& a, const HistoryRun& b) { return a.run.start < b.run.start; });
  return history;
}

}  // namespace orv
