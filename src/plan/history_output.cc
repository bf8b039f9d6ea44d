// A history as tables for people, and as a JSON object.
#include <array>
#include <cstdio>

#include "plan/describe.h"
#include "plan/history.h"
#include "plan/json_document.h"
#include "plan/local_clock.h"
#include "plan/table.h"

namespace orv {
namespace {

// Tenths only where there are some: 100 %, 66.6 %.
std::string permille_text(std::int64_t permille) {
  std::string text = std::to_string(permille / 10);
  if (permille % 10 != 0) text += "." + std::to_string(permille % 10);
  return text + " %";
}

// A busy tool is neither good nor bad: the job is tried again.
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
      // With its sign: whether runs get longer is what the column is for.
      trend = (*job.trend_percent > 0 ? "+" : "") + std::to_string(*job.trend_percent) + " %";
    }
    table.add({printable(job.job->name.view()), std::to_string(job.runs),
               std::to_string(job.failures), rate ? permille_text(*rate) : "-",
               duration_cell(job.median_s), duration_cell(job.longest_s), trend},
              job.failures > 0 ? Tone::Bad : Tone::Plain);
  }
  return table.text(plan.color);
}

// docs/orv_plan.8 describes the fields: their names are never changed.
void write_run(JsonWriter& json, const HistoryRun& row) {
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

void write_totals(JsonWriter& json, const JobTotals& job) {
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

}  // namespace

std::string history_text(const Plan& plan, const History& history) {
  std::string out;
  if (history.runs.empty()) {
    out = "no run since " + clock_text(history.from) + "\n";
  } else {
    LocalClock clock;
    Table table({"START", "DURATION", "JOB", "RESULT", "EXIT", "LATE"});
    for (const HistoryRun& row : history.runs) {
      // A run that goes on has taken this long so far.
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

// docs/orv_plan.8 describes the fields: their names are never changed.
std::string history_json(const Plan& plan, const History& history) {
  return json_document([&](JsonWriter& json) {
    json.begin_object();
    json.integer_member("now", plan.now);
    json.integer_member("from", history.from);
    json.key("runs");
    json.begin_array();
    for (const HistoryRun& row : history.runs) write_run(json, row);
    json.end_array();
    json.key("jobs");
    json.begin_array();
    for (const JobTotals& job : history.jobs) write_totals(json, job);
    json.end_array();
    json.key("notes");
    json.begin_array();
    for (const LogNote& note : history.notes) json.string(note.log + " " + note.text);
    json.end_array();
    json.end_object();
  });
}

}  // namespace orv
