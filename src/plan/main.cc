// orv_plan: what ran, what will run, and whether all is well. It only reads: neither the queue nor
// a log nor the configuration is ever created, locked or changed.
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <array>
#include <cstdio>
#include <limits>
#include <memory>
#include <new>
#include <string_view>

#include "common/options.h"
#include "common/suggestion.h"
#include "common/terminal.h"
#include "common/text.h"
#include "common/version.h"
#include "plan/command_table.h"
#include "plan/commands.h"
#include "plan/describe.h"
#include "sched/queue_file.h"

namespace orv {
namespace {

int complain(const std::string& text) {
  std::fprintf(stderr, "error: %s\n", text.c_str());
  return kExitUsage;
}

std::vector<std::string_view> option_names(const PlanCommand& command) {
  std::vector<std::string_view> names;
  for (const OptionTable& table : {OptionTable(kCommonOptions), command.options}) {
    for (const OptionRow& row : table) names.push_back(row.name);
  }
  return names;
}

// Goes through all words. A misspelt option of a tool that answers questions must not be passed
// over: it would answer a different question. `job` takes the name of a job, if one was given.
int check_words(const PlanCommand& command, const ArgList& args, const char*& job) {
  const std::array<OptionTable, 2> tables = {kCommonOptions, command.options};
  WordScan scan(args, 2, tables);
  WordScan::Word word;
  while (scan.next(word)) {
    const std::string text = printable(word.text);
    switch (word.kind) {
      case WordScan::Kind::Option: break;
      case WordScan::Kind::NoValue: return complain("'" + text + "' needs a value");
      case WordScan::Kind::UnknownOption:
        return complain("unknown option '" + text + "'" +
                        did_you_mean(word.text, option_names(command)));
      case WordScan::Kind::Positional:
        if (command.job == JobWord::None || job != nullptr) {
          return complain("unexpected argument '" + text + "'");
        }
        job = word.text;
    }
  }
  if (command.job == JobWord::Required && job == nullptr) {
    return complain("'" + std::string(command.name) + "' needs the name of a job");
  }
  return kExitOk;
}

// The value of a number of days, `days` as it is without the option.
int take_days(const ArgList& args, const char* option, std::uint32_t& days) {
  const char* const text = option_value(args, option, nullptr);
  if (text == nullptr || (parse_u32(text, days) && days >= 1 && days <= kMaxDays)) return kExitOk;
  return complain(std::string(option) + " must be 1.." + std::to_string(kMaxDays));
}

// "36h", "3d" or seconds.
int take_max_age(const ArgList& args, std::optional<std::int64_t>& max_age) {
  const char* const value = option_value(args, "--max-age", nullptr);
  if (value == nullptr) return kExitOk;
  std::string_view text = value;
  std::uint32_t unit = 1;  // seconds, unless a letter follows
  if (text.ends_with('h')) unit = 3600;
  if (text.ends_with('d')) unit = 86400;
  if (unit != 1) text.remove_suffix(1);
  std::uint32_t count = 0;
  if (!parse_u32(text, count) || count == 0) {
    return complain("--max-age must be a number of seconds, or of hours or days as 36h or 3d");
  }
  max_age = std::int64_t{count} * unit;
  return kExitOk;
}

int take_format(const ArgList& args, HealthOptions& options) {
  // --json is short for --format json; saying both is fine, saying two different ones is not.
  const bool json = option_present(args, "--json");
  const std::string_view format = option_value(args, "--format", json ? "json" : "text");
  if (format == "text")
    options.format = HealthFormat::Text;
  else if (format == "json")
    options.format = HealthFormat::Json;
  else if (format == "prometheus")
    options.format = HealthFormat::Prometheus;
  else if (format == "nagios")
    options.format = HealthFormat::Nagios;
  else
    return complain("--format must be text, json, prometheus or nagios");
  if (json && options.format != HealthFormat::Json) {
    return complain("--json and --format ask for two formats");
  }
  options.output = option_value(args, "--output", nullptr);
  if (options.output != nullptr && options.format != HealthFormat::Prometheus) {
    return complain("--output goes with --format prometheus only");
  }
  return kExitOk;
}

// Standard output holds a picture or JSON, not both.
int check_outputs(const char* svg, bool json) {
  if (svg == nullptr || !json || std::string_view(svg) != "-") return kExitOk;
  return complain("--json and --svg - both want standard output");
}

int run_forecast(const Invocation& call) {
  ForecastOptions options;
  options.json = option_present(call.args, "--json");
  options.svg = option_value(call.args, "--svg", nullptr);
  // All words are checked before anything is read: wrong usage is reported even on a broken server.
  if (take_days(call.args, "--days", options.days) != kExitOk ||
      take_days(call.args, "--past", options.past) != kExitOk ||
      check_outputs(options.svg, options.json) != kExitOk) {
    return kExitUsage;
  }
  if (options.past != 0 && options.svg == nullptr) return complain("--past goes with --svg only");
  const std::unique_ptr<Plan> plan = call.load();
  return plan == nullptr ? kExitFailed : forecast_command(*plan, options);
}

int run_history(const Invocation& call) {
  HistoryOptions options;
  options.json = option_present(call.args, "--json");
  options.svg = option_value(call.args, "--svg", nullptr);
  if (take_days(call.args, "--days", options.days) != kExitOk ||
      check_outputs(options.svg, options.json) != kExitOk) {
    return kExitUsage;
  }
  const std::unique_ptr<Plan> plan = call.load();
  if (plan == nullptr) return kExitFailed;
  // A misspelt name must not look like a job that never ran.
  if (call.job != nullptr && (options.job = call.find(*plan)) == nullptr) return kExitFailed;
  return history_command(*plan, options);
}

// Health and report also answer when the configuration or the queue cannot be read: that is the
// answer.
int run_health(const Invocation& call) {
  HealthOptions options;
  options.job = option_value(call.args, "--job", nullptr);
  if (take_max_age(call.args, options.max_age) != kExitOk ||
      take_format(call.args, options) != kExitOk) {
    return kExitUsage;
  }
  return health_command(*call.load_as_it_is(), options);
}

int run_report(const Invocation& call) {
  ReportOptions options;
  options.html = option_present(call.args, "--html");
  if (take_days(call.args, "--days", options.days) != kExitOk) return kExitUsage;
  return report_command(*call.load_as_it_is(), options);
}

int run_why(const Invocation& call) {
  const std::unique_ptr<Plan> plan = call.load();
  const Job* const job = plan == nullptr ? nullptr : call.find(*plan);
  return job == nullptr ? kExitFailed
                        : why_command(*plan, *job, option_present(call.args, "--json"));
}

int run_show(const Invocation& call) {
  const std::unique_ptr<Plan> plan = call.load();
  const Job* const job = plan == nullptr ? nullptr : call.find(*plan);
  return job == nullptr ? kExitFailed
                        : show_command(*plan, *job, option_present(call.args, "--json"));
}

int run_check(const Invocation& call) {
  const std::unique_ptr<Plan> plan = call.load();
  return plan == nullptr ? kExitFailed : check_command(*plan, option_present(call.args, "--json"));
}

// The functions of the rows of plan_commands(), in the same order.
using RunFunction = int (*)(const Invocation& call);
constexpr std::array<RunFunction, kPlanCommandCount> kRun = {
    run_health, run_history, run_forecast, run_report, run_why, run_show, run_check};

// An answer that could not be written is none. A reader that has seen enough wants no message.
int deliver(int status) {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  if (errno != EPIPE) {
    std::fprintf(stderr, "error: cannot write the answer: %s\n", ::strerror(errno));
  }
  return kExitFailed;
}

// The usage text goes to standard output, where a pager can take it, the complaint after it.
int wrong_command(const ArgList& args) {
  print_plan_usage();
  if (args.size() < 2) return complain("a command is missing");
  std::vector<std::string_view> names;
  for (const PlanCommand& command : plan_commands()) names.push_back(command.name);
  return complain("unknown command '" + printable(args[1]) + "'" + did_you_mean(args[1], names));
}

int run(const ArgList& args) {
  // Both are looked for among all words: who asks for help has seldom typed the rest right.
  if (option_present(args, "--version")) {
    print(std::string("orv_plan ") + kVersion + "\n");
    return kExitOk;
  }
  if (option_present(args, "--help", "-h")) {
    print_plan_usage();
    return kExitOk;
  }
  const std::span<const PlanCommand> commands = plan_commands();
  for (std::size_t i = 0; i < commands.size(); ++i) {
    if (args.size() < 2 || commands[i].name != args[1]) continue;
    Invocation call{args, nullptr};
    const int status = check_words(commands[i], args, call.job);
    return status != kExitOk ? status : kRun[i](call);
  }
  return wrong_command(args);
}

}  // namespace

std::unique_ptr<Plan> Invocation::load_as_it_is() const {
  PlanPaths paths;
  paths.config = option_value(args, "--config", kDefaultConfigPath);
  paths.queue = option_value(args, "--queue", kDefaultQueuePath);
  paths.job_log_dir = option_value(args, "--job-log-dir", "");
  std::unique_ptr<Plan> plan = load_plan(paths, ::time(nullptr));
  plan->color = color_wanted();
  return plan;
}

std::unique_ptr<Plan> Invocation::load() const {
  std::unique_ptr<Plan> plan = load_as_it_is();
  if (plan->config_message.empty() && plan->queue_message.empty()) return plan;
  // One message: with a configuration that is refused, the state of the queue answers nothing.
  const std::string text = !plan->config_message.empty() ? plan->config_message
                                                         : "cannot read queue " + plan->queue_path +
                                                               ": " + plan->queue_message;
  std::fprintf(stderr, "error: %s\n", text.c_str());
  return nullptr;
}

const Job* Invocation::find(const Plan& plan) const {
  const Job* const found = find_job(plan.config, job);
  if (found == nullptr) std::fprintf(stderr, "error: unknown job '%s'\n", printable(job).c_str());
  return found;
}

}  // namespace orv

int main(int argc, char** argv) {
  // The C library looks for a change of /etc/localtime with every use of the time zone when TZ is
  // not set: thousands of looks for a long forecast.
  (void)::setenv("TZ", ":/etc/localtime", 0);
  try {
    return orv::deliver(orv::run(orv::ArgList(argv, static_cast<std::size_t>(argc))));
  } catch (const std::bad_alloc&) {
    std::fputs("error: out of memory\n", stderr);
    return orv::kExitFailed;
  }
}
