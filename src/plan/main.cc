// orv_plan: what will run when, and why a job did not run. It only reads: neither the queue nor a
// log nor the configuration is ever created, locked or changed.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

#include "common/options.h"
#include "common/text.h"
#include "common/version.h"
#include "config/config.h"
#include "plan/commands.h"
#include "plan/findings.h"
#include "sched/job_log.h"
#include "sched/queue_file.h"
#include "sched/queue_runner.h"
#include "sched/queue_schedule.h"

namespace orv {
namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr unsigned kDefaultDays = 7;
constexpr unsigned kMaxDays = 366;

constexpr std::array<OptionRow, 3> kCommonOptions = {{
    {"--config", "", true},
    {"--queue", "", true},
    {"--job-log-dir", "", true},
}};
constexpr std::array<OptionRow, 2> kForecastOptions = {{
    {"--days", "", true},
    {"--svg", "", true},
}};

int run_forecast(const Plan& plan, const Job* /*none*/, const ArgList& args) {
  std::uint32_t days = kDefaultDays;
  const char* text = option_value(args, "--days", nullptr);
  if (text != nullptr && (!parse_u32(text, days) || days < 1 || days > kMaxDays)) {
    std::fprintf(stderr, "error: --days must be 1..%u\n", kMaxDays);
    return kExitUsage;
  }
  return plan_forecast(plan, days, option_value(args, "--svg", nullptr));
}
int run_why(const Plan& plan, const Job* job, const ArgList& /*args*/) {
  return plan_why(plan, *job);
}
int run_show(const Plan& plan, const Job* job, const ArgList& /*args*/) {
  return plan_show(plan, *job);
}
int run_check(const Plan& plan, const Job* /*none*/, const ArgList& /*args*/) {
  return plan_check(plan);
}

struct PlanCommand {
  std::string_view name;
  bool takes_job;
  OptionTable options;  // beside the common ones
  int (*run)(const Plan& plan, const Job* job, const ArgList& args);
};
constexpr std::array<PlanCommand, 4> kCommands = {{
    {"forecast", false, kForecastOptions, run_forecast},
    {"why", true, {}, run_why},
    {"show", true, {}, run_show},
    {"check", false, {}, run_check},
}};

void print_usage() {
  std::printf(
      "orv_plan %s (build %s)\n\n"
      "usage: orv_plan forecast [--days N] [--svg FILE]  what runs when, in the next N days (%u)\n"
      "       orv_plan why <job>                         why a job does not run now\n"
      "       orv_plan show <job>                        what exactly would be started\n"
      "       orv_plan check                             what is legal but surprising\n\n"
      "options of every command:\n"
      "  --config <file>       configuration (%s)\n"
      "  --queue <file>        queue file (%s)\n"
      "  --job-log-dir <dir>   job logs ([sched] job-log-dir, else %s)\n\n"
      "Nothing is started and nothing is changed. Times are the server's local time.\n"
      "Exit status: 0 done; 1 failed, or 'check' found something; 2 wrong usage.\n",
      kVersion, kBuild, kDefaultDays, kDefaultConfigPath, kDefaultQueuePath, kDefaultJobLogDir);
}

const OptionRow* find_option(const OptionTable& table, std::string_view word) {
  for (const OptionRow& row : table) {
    if (word == row.name ||
        (word.starts_with(row.name) && word.substr(row.name.size(), 1) == "=")) {
      return &row;
    }
  }
  return nullptr;
}

// Whether every word is known. A misspelt option of a tool that is asked questions must not be
// passed over: the answer would be one to another question.
bool words_known(const PlanCommand& command, const ArgList& args) {
  int positional = 0;
  for (std::size_t i = 2; i < args.size(); ++i) {
    const std::string_view word = args[i];
    if (!word.starts_with("-")) {
      if (++positional <= (command.takes_job ? 1 : 0)) continue;
      std::fprintf(stderr, "error: unexpected argument '%s'\n", args[i]);
      return false;
    }
    const OptionRow* row = find_option(kCommonOptions, word);
    if (row == nullptr) row = find_option(command.options, word);
    if (row == nullptr) {
      std::fprintf(stderr, "error: unknown option '%s'\n", args[i]);
      return false;
    }
    if (word == row->name && ++i == args.size()) {
      std::fprintf(stderr, "error: '%s' needs a value\n", args[i - 1]);
      return false;
    }
  }
  return true;
}

// A queue that may not be looked at must not pass for one that is not there yet.
bool queue_readable(const char* path) {
  struct stat status {};
  if (::stat(path, &status) == 0 || errno == ENOENT) return true;
  std::fprintf(stderr, "error: cannot read queue %s: %s\n", path, ::strerror(errno));
  return false;
}

// Loads all that the commands read; null after an error message.
std::unique_ptr<Plan> load_plan(const ArgList& args) {
  auto plan = std::make_unique<Plan>();
  plan->config_path = option_value(args, "--config", kDefaultConfigPath);
  plan->queue_path = option_value(args, "--queue", kDefaultQueuePath);
  std::array<char, kConfigMessageSize> err{};
  if (config_load(plan->config_path.c_str(), plan->config, err) != 0) {
    std::fprintf(stderr, "error: %s\n", err.data());
    return nullptr;
  }
  const FixedText<kMaxJobLogDir>& configured = plan->config.sched.job_log_dir;
  plan->job_log_dir = option_value(args, "--job-log-dir",
                                   configured.empty() ? kDefaultJobLogDir : configured.c_str());
  if (!queue_readable(plan->queue_path.c_str())) return nullptr;
  if (queue_load_readonly(plan->seen, plan->queue_path.c_str()) != ErrorCode::Ok) {
    std::fprintf(stderr, "error: cannot read queue %s\n", plan->queue_path.c_str());
    return nullptr;
  }
  plan->now = ::time(nullptr);
  plan->queue = plan->seen;
  queue_view_with_config(plan->queue, plan->config, plan->now);
  queue_view_without_stale_runners(plan->queue);
  const char* no_color = std::getenv("NO_COLOR");
  plan->color = ::isatty(STDOUT_FILENO) == 1 && (no_color == nullptr || *no_color == '\0');
  return plan;
}

int run_command(const PlanCommand& command, const ArgList& args) {
  if (!words_known(command, args)) return kExitUsage;
  if (command.takes_job && (args.size() < 3 || args[2][0] == '-')) {
    std::fprintf(stderr, "error: '%s' needs the name of a job\n", args[1]);
    return kExitUsage;
  }
  const std::unique_ptr<Plan> plan = load_plan(args);
  if (plan == nullptr) return kExitFailed;
  const Job* job = nullptr;
  if (command.takes_job) {
    job = find_job(plan->config, args[2]);
    if (job == nullptr) {
      std::fprintf(stderr, "error: unknown job '%s'\n", args[2]);
      return kExitFailed;
    }
  }
  const int status = command.run(*plan, job, args);
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
  std::fprintf(stderr, "error: cannot write the answer: %s\n", ::strerror(errno));
  return kExitFailed;
}

}  // namespace
}  // namespace orv

int main(int argc, char** argv) {
  const orv::ArgList args(argv, static_cast<std::size_t>(argc));
  if (orv::option_present(args, "--version")) {
    std::printf("orv_plan %s\n", orv::kVersion);
    return 0;
  }
  const bool help = orv::option_present(args, "--help", "-h");
  for (const orv::PlanCommand& command : orv::kCommands) {
    if (!help && args.size() > 1 && command.name == args[1]) return orv::run_command(command, args);
  }
  orv::print_usage();
  return help ? 0 : orv::kExitUsage;
}
