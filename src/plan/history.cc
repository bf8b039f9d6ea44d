#include "plan/history.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <map>
#include <utility>

#include "plan/describe.h"
#include "plan/json_document.h"
#include "plan/lateness.h"
#include "plan/local_clock.h"
#include "plan/table.h"

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
    if (run->start < from) break;
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

std::optional<std::int64_t> trend_of(std::vector<std::int64_t> durations) {
  if (durations.size() <= kUsualRuns) return std::nullopt;
  const auto last = durations.end() - static_cast<std::ptrdiff_t>(kUsualRuns);
  std::vector<std::int64_t> before(durations.begin(), last);
  std::vector<std::int64_t> newest(last, durations.end());
  const std::int64_t old = *median(before);
  if (old == 0) return std::nullopt;
  return (*median(newest) - old) * 100 / old;
}

JobTotals totals_of(const Job& job, const std::vector<PastRun>& runs) {
  JobTotals totals;
  totals.job = &job;
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

std::string duration_cell(std::optional<std::int64_t> seconds) {
  return seconds ? duration_text(*seconds) : "-";
}

std::string permille_text(std::int64_t permille) {
  std::string text = std::to_string(permille / 10);
  if (permille % 10 != 0) text += "." + std::to_string(permille % 10);
  return text + " %";
}

Tone tone_of(PastOutcome outcome) {
  if (run_failed(outcome)) return Tone::Bad;
  if (outcome == PastOutcome::Running) return Tone::Active;
  return outcome == PastOutcome::Done ? Tone::Good : Tone::Waiting;
}

// A rate of 0 to 1 with three decimals.
void write_rate(JsonWriter& json, std::optional<std::int64_t> permille) {
  if (!permille) return json.null();
  std::array<char, 16> text{};
  std::snprintf(text.data(), text.size(), "%.3f", static_cast<double>(*permille) / 1000);
  json.raw(text.data());
}

std::string totals_text(const Plan& plan, const History& history) {
  Table table({"JOB", "RUNS", "FAILURES", "SUCCESS", "MEDIAN", "LONGEST", "TREND"});
  for (const JobTotals& job : history.jobs) {
    const std::optional<std::int64_t> rate = job.success_permille();
    std::string trend = "-";
    if (job.trend_percent) {
      trend = (*job.trend_percent > 0 ? "+" : "") + std::to_string(*job.trend_percent) + " %";
    }
    table.add({printable(job.job->name.view()), std::to_string(job.runs),
               std::to_string(job.failures), rate ? permille_text(*rate) : "-",
               duration_cell(job.median_s), duration_cell(job.longest_s), trend},
              job.failures > 0 ? Tone::Bad : Tone::Plain);
  }
  return table.text(plan.color);
}

}  // namespace

History collect_history(const Plan& plan, std::int64_t from, const Job* only) {
  History history;
  history.from = from;
  RunsByJob loaded(plan, from);
  for (const Job& job : plan.config.jobs) {
    if (only != nullptr && only != &job) continue;
    loaded.set_lateness_of(job);
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
  std::stable_sort(
      history.runs.begin(), history.runs.end(),
      [](const HistoryRun& a, const HistoryRun& b) { return a.run.start < b.run.start; });
  return history;
}

std::string history_text(const Plan& plan, const History& history) {
  std::string out;
  if (history.runs.empty()) {
    out = "no run since " + clock_text(history.from) + "\n";
  } else {
    LocalClock clock;
    Table table({"START", "DURATION", "JOB", "RESULT", "EXIT", "LATE"});
    for (const HistoryRun& row : history.runs) {
      const std::optional<std::int64_t> took =
          row.run.outcome == PastOutcome::Running ? plan.now - row.run.start : row.run.duration_s();
      table.add({clock.text(row.run.start), duration_cell(took), printable(row.job->name.view()),
                 past_outcome_name(row.run.outcome),
                 row.run.exit_code ? std::to_string(*row.run.exit_code) : "-",
                 duration_cell(row.run.late_s)},
                tone_of(row.run.outcome));
    }
    out = table.text(plan.color) + "\n" + totals_text(plan, history);
  }
  for (const LogNote& note : history.notes) {
    out += "note: " + printable(note.log) + " " + note.text + "\n";
  }
  return out;
}

std::string history_json(const Plan& plan, const History& history) {
  return json_document([&](JsonWriter& json) {
    json.begin_object();
    json.integer_member("now", plan.now);
    json.integer_member("from", history.from);
    json.key("runs");
    json.begin_array();
    for (const HistoryRun& row : history.runs) {
      json.begin_object();
      json.text_member("job", row.job->name.view());
      json.integer_member("start", row.run.start);
      known_member(json, "end", row.run.end);
      known_member(json, "duration", row.run.duration_s());
      json.text_member("result", past_outcome_name(row.run.outcome));
      known_member(json, "exit_code", row.run.exit_code);
      known_member(json, "late", row.run.late_s);
      known_member(json, "log_bytes", row.run.log_bytes);
      json.text_member("log", row.log);
      json.end_object();
    }
    json.end_array();
    json.key("jobs");
    json.begin_array();
    for (const JobTotals& job : history.jobs) {
      json.begin_object();
      json.text_member("job", job.job->name.view());
      json.integer_member("runs", job.runs);
      json.integer_member("busy", job.busy);
      json.integer_member("done", job.done);
      json.integer_member("failures", job.failures);
      json.key("success_rate");
      write_rate(json, job.success_permille());
      known_member(json, "median_duration", job.median_s);
      known_member(json, "longest_duration", job.longest_s);
      known_member(json, "trend_percent", job.trend_percent);
      json.end_object();
    }
    json.end_array();
    json.key("notes");
    json.begin_array();
    for (const LogNote& note : history.notes) json.string(note.log + " " + note.text);
    json.end_array();
    json.end_object();
  });
}

}  // namespace orv
