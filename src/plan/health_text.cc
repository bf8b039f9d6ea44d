// Health for a person at a terminal.
#include "plan/describe.h"
#include "plan/health_report.h"
#include "plan/table.h"

namespace orv {
namespace {

// Never run is no failure yet, but stays in sight.
Tone tone_of(Health health) {
  switch (health) {
    case Health::Failed:
    case Health::Stale:
    case Health::Late:
    case Health::Slow: return Tone::Bad;
    case Health::Never:
    case Health::Waiting: return Tone::Waiting;
    case Health::Running: return Tone::Active;
    case Health::Ok: return Tone::Good;
    case Health::Disabled: return Tone::Plain;
  }
  return Tone::Plain;
}

std::string start_cell(const std::optional<PastRun>& run) {
  return run ? clock_text(run->start) : "-";
}

}  // namespace

std::string health_text(const HealthReport& report, bool color) {
  std::string out = "scheduler: " + scheduler_summary(report) + "\n";
  if (!report.config_message.empty()) return out;  // no job is known
  Table table({"HEALTH", "JOB", "LAST-RUN", "LAST-SUCCESS", "NEXT-RUN", "WHY"});
  for (const JobHealth& job : report.jobs) {
    table.add({health_name(job.health), printable(job.job->name.view()),
               start_cell(job.facts.last_run), start_cell(job.facts.last_success),
               job.facts.next_run ? clock_text(*job.facts.next_run) : "-",
               job.reason.empty() ? "-" : job.reason},
              tone_of(job.health));
  }
  out += "\n" + table.text(color);
  for (const JobHealth& job : report.jobs) {
    for (const LogNote& note : job.notes) {
      out += "note: " + printable(note.log) + " " + note.text + "\n";
    }
  }
  return out;
}

}  // namespace orv
