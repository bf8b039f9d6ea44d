#include "plan/command_table.h"

#include <cstdio>

#include "common/version.h"
#include "config/config.h"
#include "sched/queue_file.h"
#include "sched/settings.h"

namespace orv {
namespace {

// Options of more than one command. Their words are those of orv_sched where both have them.
constexpr OptionRow kJson = {"--json", "", false};
constexpr OptionRow kDays = {"--days", "", true};
constexpr OptionRow kSvg = {"--svg", "", true};

constexpr std::array<OptionRow, 5> kHealthOptions = {{
    {"--job", "", true},
    {"--max-age", "", true},
    {"--format", "", true},
    {"--output", "", true},
    kJson,
}};
constexpr std::array<OptionRow, 3> kHistoryOptions = {{kDays, kSvg, kJson}};
constexpr std::array<OptionRow, 4> kForecastOptions = {{kDays, {"--past", "", true}, kSvg, kJson}};
constexpr std::array<OptionRow, 2> kReportOptions = {{kDays, {"--html", "", false}}};
constexpr std::array<OptionRow, 1> kJsonOnly = {{kJson}};

// In the order of the usage text: the daily questions first. main.cc has a function for each row.
constexpr std::array<PlanCommand, kPlanCommandCount> kCommands = {{
    {"health", JobWord::None, kHealthOptions},
    {"history", JobWord::Optional, kHistoryOptions},
    {"forecast", JobWord::None, kForecastOptions},
    {"report", JobWord::None, kReportOptions},
    {"why", JobWord::Required, kJsonOnly},
    {"show", JobWord::Required, kJsonOnly},
    {"check", JobWord::None, kJsonOnly},
}};

}  // namespace

std::span<const PlanCommand, kPlanCommandCount> plan_commands() { return kCommands; }

void print_plan_usage() {
  std::printf(
      "orv_plan %s (build %s)\n\n"
      "usage: orv_plan health [options]         what failed, what is too old or late; one row a "
      "job\n"
      "       orv_plan history [job] [options]  what ran, and what it adds up to\n"
      "       orv_plan forecast [options]       what runs when\n"
      "       orv_plan report [options]         all of it as a mail for the morning\n"
      "       orv_plan why <job> [--json]       why a job does not run now\n"
      "       orv_plan show <job> [--json]      what exactly would be started\n"
      "       orv_plan check [--json]           what is legal but surprising\n\n"
      "options of every command:\n"
      "  --config <file>       configuration (%s)\n"
      "  --queue <file>        queue file (%s)\n"
      "  --job-log-dir <dir>   job logs ([sched] job-log-dir, else %s)\n"
      "options of health:\n"
      "  --job <name>          of one job only\n"
      "  --max-age <age>       stale after 36h, 3d or SECONDS without success (twice the longest\n"
      "                        time between two runs)\n"
      "  --format <format>     text, json, prometheus or nagios\n"
      "  --output <file>       where the metrics go; replaced whole\n"
      "  --json                one JSON object; also of history, forecast, why, show, check\n"
      "options of history, forecast and report:\n"
      "  --days <n>            how many days, 1..%u (7; report 1)\n"
      "  --svg <file>          of history and forecast: a picture too; - is standard output alone\n"
      "  --past <n>            of forecast: with so many days of history in the picture\n"
      "  --html                of report: a page with the picture\n\n"
      "Nothing is started and nothing is changed. Times are the server's local time.\n"
      "Exit status: 0 done; 1 failed, or health or check found something; 2 wrong usage. With\n"
      "--format nagios: 0 OK, 1 warning, 2 critical, 3 unknown.\n",
      kVersion, kBuild, kDefaultConfigPath, kDefaultQueuePath, kDefaultJobLogDir, kMaxDays);
}

}  // namespace orv
