// Health in the text exposition format, for node_exporter's textfile collector.
// https://prometheus.io/docs/instrumenting/exposition_formats/
#include <array>
#include <cstdio>

#include "common/text.h"
#include "common/utf8.h"
#include "plan/health_report.h"

namespace orv {
namespace {

using Value = std::optional<std::int64_t>;  // none: the series is left out

struct JobMetric {
  const char* name;
  const char* help;
  Value (*value)(const JobFacts& facts, std::int64_t now);
};
// clang-format off
constexpr JobMetric kJobMetrics[] = {
    {"orv_sched_job_enabled", "Whether the job is enabled.",
     [](const JobFacts& f, std::int64_t) { return Value(f.enabled); }},
    {"orv_sched_job_running", "Whether the job is running.",
     [](const JobFacts& f, std::int64_t) { return f.queue_known ? Value(f.running_since.has_value()) : Value(); }},
    {"orv_sched_job_last_run_timestamp_seconds", "Start of the newest run.",
     [](const JobFacts& f, std::int64_t) { return start_of(f.last_run); }},
    {"orv_sched_job_last_success_timestamp_seconds", "Start of the newest successful run.",
     [](const JobFacts& f, std::int64_t) { return start_of(f.last_success); }},
    {"orv_sched_job_last_duration_seconds", "Duration of the newest run that has ended.",
     [](const JobFacts& f, std::int64_t) { return f.last_finished ? f.last_finished->duration_s() : Value(); }},
    {"orv_sched_job_usual_duration_seconds", "Median duration of the newest five successful runs.",
     [](const JobFacts& f, std::int64_t) { return f.usual_s; }},
    {"orv_sched_job_last_exit_code", "Exit code of the newest run that has ended.",
     [](const JobFacts& f, std::int64_t) {
       return f.last_finished && f.last_finished->exit_code ? Value(*f.last_finished->exit_code) : Value(); }},
    {"orv_sched_job_consecutive_failures", "Failed runs in a row up to now.",
     [](const JobFacts& f, std::int64_t) { return f.logs_known ? Value(f.failures) : Value(); }},
    {"orv_sched_job_next_run_timestamp_seconds", "Time of the next scheduled run.",
     [](const JobFacts& f, std::int64_t) { return f.next_run; }},
    {"orv_sched_job_late_seconds", "For how long the job has been due without running, 0 when on time.",
     [](const JobFacts& f, std::int64_t now) {
       return f.queue_known ? Value(f.due_since ? now - *f.due_since : 0) : Value(); }},
    {"orv_sched_job_log_bytes", "Size of the newest job log.",
     [](const JobFacts& f, std::int64_t) { return f.log_bytes; }},
};
// clang-format on

void add_head(std::string& out, const char* name, const char* help) {
  out += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " gauge\n";
}

void add_single(std::string& out, const char* name, const char* help, Value value) {
  if (!value) return;
  add_head(out, name, help);
  out += std::string(name) + " " + std::to_string(*value) + "\n";
}

// The text format wants all series of a name together, after its one head: hence a loop over the
// jobs for each metric. A metric without any series has no head either.
void add_job_metric(std::string& out, const JobMetric& metric, const HealthReport& report,
                    const std::vector<std::string>& labels) {
  bool headed = false;
  for (std::size_t i = 0; i < report.jobs.size(); ++i) {
    const Value value = metric.value(report.jobs[i].facts, report.now);
    if (!value) continue;
    if (!headed) add_head(out, metric.name, metric.help);
    headed = true;
    out +=
        std::string(metric.name) + "{job=\"" + labels[i] + "\"} " + std::to_string(*value) + "\n";
  }
}

// One series for each word, of which the one that applies is 1.
void add_state_set(std::string& out, const HealthReport& report,
                   const std::vector<std::string>& labels) {
  if (report.jobs.empty()) return;
  add_head(out, "orv_sched_job_health", "The job's health, 1 for the word that applies.");
  for (std::size_t i = 0; i < report.jobs.size(); ++i) {
    for (const Health health : kHealths) {
      out += "orv_sched_job_health{job=\"" + labels[i] + "\",health=\"" + health_name(health) +
             "\"} " + (report.jobs[i].health == health ? "1" : "0") + "\n";
    }
  }
}

// Whether `text`, after a backslash, would be read as one of the codes below.
bool reads_as_code(std::string_view text) {
  return text.size() >= 3 && text[0] == 'x' && hex_digit(text[1]) >= 0 && hex_digit(text[2]) >= 0;
}

}  // namespace

// Label values are UTF-8, but names of jobs may hold any byte: a byte that is not part of UTF-8
// becomes a code, and so does a backslash that would read as one, so that no two names share a
// label.
std::string prometheus_label(std::string_view text) {
  std::string out;
  const auto code = [&](unsigned byte) {  // the format itself doubles a backslash
    std::array<char, 8> piece{};
    std::snprintf(piece.data(), piece.size(), "\\\\x%02x", byte);
    out += piece.data();
  };
  while (!text.empty()) {
    const auto byte = static_cast<unsigned char>(text[0]);
    const std::size_t length = byte < 0x80 ? 1 : utf8_sequence(text);
    if (length == 0) {
      code(byte);
    } else if (byte == '\\') {
      if (reads_as_code(text.substr(1))) {
        code(byte);
      } else {
        out += "\\\\";
      }
    } else if (byte == '"') {
      out += "\\\"";
    } else if (byte == '\n') {
      out += "\\n";
    } else {
      out += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return out;
}

std::string health_prometheus(const HealthReport& report) {
  std::string out;
  const std::optional<bool> up = report.daemon.running;
  add_single(out, "orv_sched_up", "Whether the scheduler's daemon is running.",
             up ? Value(*up) : std::nullopt);
  add_single(out, "orv_sched_configuration_valid",
             "Whether the configuration file on disk would load.",
             Value(report.config_message.empty()));
  add_single(out, "orv_sched_collected_timestamp_seconds", "When these metrics were collected.",
             report.now);
  // Once for all the metrics: each of them names every job.
  std::vector<std::string> labels;
  for (const JobHealth& job : report.jobs) labels.push_back(prometheus_label(job.job->name.view()));
  for (const JobMetric& metric : kJobMetrics) add_job_metric(out, metric, report, labels);
  add_state_set(out, report, labels);
  return out;
}

}  // namespace orv
