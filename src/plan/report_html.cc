// The report as a page and as the body of a mail: tables and plain classes, nothing that is loaded
// from elsewhere. A mail program that knows no styles or pictures shows the tables alone.
#include "plan/describe.h"
#include "plan/picture.h"
#include "plan/report.h"

namespace orv {
namespace {

constexpr std::int64_t kDay = 86400;

// Mail programs fetch nothing and run nothing: style and picture are part of the page.
constexpr const char* kHead = R"(<meta charset="utf-8">
<meta name="viewport" content="width=device-width,initial-scale=1">
<meta name="color-scheme" content="light dark">
<style>
body{font:15px/1.5 system-ui,"DejaVu Sans",sans-serif;margin:0 auto;padding:20px;max-width:1100px;
color:#1f2933;background:#fff}
h1{font-size:20px;margin:0 0 4px}h2{font-size:16px;margin:28px 0 8px}
.sum{font-size:17px;margin:10px 0}.dim{color:#5f6b78}
table{border-collapse:collapse}td,th{text-align:left;padding:4px 18px 4px 0;vertical-align:top;
border-bottom:1px solid #e3e7ec}th{font-weight:600;color:#5f6b78}td.n,th.n{text-align:right;
white-space:nowrap}
.bad{color:#b3261e;font-weight:600}.good{color:#1f7a45;font-weight:600}
pre{background:#f4f6f8;border-left:3px solid #c62f2f;padding:8px 12px;margin:6px 0 14px;
overflow-x:auto;font:13px/1.45 ui-monospace,"DejaVu Sans Mono",monospace;white-space:pre-wrap;
overflow-wrap:anywhere}
.pic{overflow-x:auto}.pic svg{min-width:680px}
@media (prefers-color-scheme:dark){body{color:#dfe5ec;background:#14181d}.dim,th{color:#97a3b0}
td,th{border-bottom-color:#2a3139}pre{background:#1d232a}.bad{color:#ff8a80}.good{color:#6fd19b}}
</style>
)";

// Everything goes through escape_markup(): names and logs may hold any byte.
std::string cell(const std::string& text, const char* css = "") {
  return std::string("<td") + (*css != '\0' ? std::string(" class=\"") + css + "\"" : "") + ">" +
         escape_markup(text) + "</td>";
}

std::string name_cell(const Job& job) { return cell(std::string(job.name.view())); }

void add_failures(const Report& report, std::string& out) {
  if (report.failures.empty()) return;
  out += "<h2>Failed</h2>\n";
  // The name in words and colour, the end of the log below it.
  for (const ReportedFailure& failure : report.failures) {
    out += "<div><span class=\"bad\">" + escape_markup(failure.job->name.view()) +
           "</span>: " + escape_markup(failure_sentence(failure)) + "</div>\n";
    if (failure.lines.empty()) continue;
    out += "<pre>";
    for (const std::string& line : failure.lines) out += escape_markup(line) + "\n";
    out += "</pre>\n";
  }
}

// What has not failed but needs somebody to look all the same.
void add_troubles(const Report& report, std::string& out) {
  std::string rows;
  for (const JobHealth& job : report.health.jobs) {
    if (!health_is_trouble(job.health) || job.health == Health::Failed) continue;
    rows += "<tr>" + name_cell(*job.job) + cell(health_name(job.health), "bad") + cell(job.reason) +
            "</tr>\n";
  }
  if (rows.empty()) return;
  out += "<h2>Stale, late, slow or never run</h2>\n<table>\n" + rows + "</table>\n";
}

void add_totals(const Report& report, std::string& out) {
  if (report.history.jobs.empty()) return;
  out +=
      "<h2>Ran</h2>\n<table>\n<tr><th>Job</th><th class=\"n\">Runs</th>"
      "<th class=\"n\">Failures</th><th class=\"n\">Median</th><th class=\"n\">Longest</th>"
      "</tr>\n";
  for (const JobTotals& job : report.history.jobs) {
    out += "<tr>" + name_cell(*job.job) + cell(std::to_string(job.runs), "n") +
           cell(std::to_string(job.failures), job.failures > 0 ? "n bad" : "n") +
           cell(duration_cell(job.median_s), "n") + cell(duration_cell(job.longest_s), "n") +
           "</tr>\n";
  }
  out += "</table>\n";
}

void add_forecast_table(const Report& report, std::string& out) {
  if (report.forecast.runs.empty()) return;
  out +=
      "<h2>Next 24 hours</h2>\n<table>\n<tr><th>Start</th><th class=\"n\">Duration</th>"
      "<th>Job</th><th>Why</th></tr>\n";
  for (std::size_t i = 0; i < std::min(report.forecast.runs.size(), kForecastRows); ++i) {
    const PlannedRun& run = report.forecast.runs[i];
    out += "<tr>" + cell(clock_text(run.start)) +
           cell((run.guessed ? "~ " : "") + duration_text(run.end - run.start), "n") +
           name_cell(*run.job) + cell(start_reason_name(run.reason)) + "</tr>\n";
  }
  out += "</table>\n";
  const std::string rest = forecast_rest(report);
  if (!rest.empty()) out += "<p class=\"dim\">" + rest + "</p>\n";
}

void add_notes(const Report& report, std::string& out) {
  if (report.history.notes.empty()) return;
  out += "<h2>Notes</h2>\n";
  for (const LogNote& note : report.history.notes) {
    out += "<div class=\"dim\">" + escape_markup(note.log + " " + note.text) + "</div>\n";
  }
}

}  // namespace

std::string report_html(const Plan& plan, const Report& report) {
  const std::string title = "orv_sched on " + escape_markup(report.host);
  std::string out = "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<title>" + title + "</title>\n" +
                    kHead + "</head>\n<body>\n<h1>" + title + "</h1>\n<div class=\"dim\">" +
                    escape_markup(clock_text(plan.now)) + "</div>\n<p class=\"sum " +
                    (health_wrong(report.health) ? "bad" : "good") + "\">" +
                    escape_markup(report_summary(report)) + "</p>\n<p class=\"dim\">Scheduler: " +
                    escape_markup(scheduler_summary(report.health)) + "</p>\n";
  add_failures(report, out);
  add_troubles(report, out);
  add_totals(report, out);
  if (plan.config_message.empty()) {
    // What was and what will be, now between them.
    Picture picture;
    picture.now = plan.now;
    picture.from = plan.now - report.days * kDay;
    picture.to = plan.now + kDay;
    picture.title = "What ran, and what comes";
    add_history(picture, report.history);
    add_forecast(picture, report.forecast);
    out +=
        "<h2>Timeline</h2>\n<div class=\"pic\">\n" + picture_svg(plan.config, picture) + "</div>\n";
  }
  add_forecast_table(report, out);
  add_notes(report, out);
  return out + "</body>\n</html>\n";
}

}  // namespace orv
