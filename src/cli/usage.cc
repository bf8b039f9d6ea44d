#include "cli/usage.h"

#include <cstdio>

#include "cli/commands.h"
#include "cli/console.h"
#include "common/version.h"
#include "sched/queue_file.h"
#include "sched/settings.h"

namespace orv {
namespace {

// One piece, so that what it says of the defaults is what the constants say.
constexpr char kUsage[] =
    "usage: orv_sched daemon [--config <file>] [--queue <file>]\n"
    "                        [--poll-interval <s>] [--busy-retry-seconds <s>]\n"
    "                        [--job-timeout-seconds <s>] [--job-log-dir <dir>]\n"
    "                        [--job-log-keep <n>]\n"
    "       orv_sched list [--config <file>] [--queue <file>]\n"
    "       orv_sched validate [--config <file>] [--queue <file>]\n"
    "       orv_sched mail-test [--config <file>] [--queue <file>]\n"
    "       orv_sched api-init [--config <file>] [--queue <file>] [--cn <name>]\n"
    "                          [--force]\n"
    "       orv_sched api-info [--config <file>] [--queue <file>]\n"
    "       orv_sched api-token add <name> --role read|admin [--config <file>]\n"
    "                           [--queue <file>]\n"
    "       orv_sched api-token list|remove <name> [--config <file>]\n"
    "                           [--queue <file>]\n"
    "       orv_sched run <job-name> [--config <file>] [--queue <file>] [--force]\n"
    "                     [--job-timeout-seconds <s>] [--job-log-dir <dir>]\n"
    "                     [--job-log-keep <n>] [--background] [--no-background]\n"
    "       orv_sched start <job-name> [same options as run]\n"
    "       orv_sched --help | --version | --selftest\n"
    "\n"
    "daemon     runs the configured jobs, one at a time, until SIGTERM or SIGINT:\n"
    "           by schedule, once at a given time, after other jobs, and on request\n"
    "           of the configuration client.\n"
    "list       shows every job with its state, next and last run.\n"
    "validate   checks the configuration file and each job's command line.\n"
    "mail-test  sends a test mail with the [mail] settings.\n"
    "api-init   creates the API's certificate and private key. --cn is the name in\n"
    "           it (default: the host name), --force replaces existing files.\n"
    "api-info   shows the API's settings, the certificate's fingerprint and how\n"
    "           many tokens there are.\n"
    "api-token  adds, lists and removes the tokens of the configuration client. A\n"
    "           token with the role admin can change jobs and settings.\n"
    "run        runs one job now and exits with its outcome.\n"
    "start      runs one job now, in the background.\n"
    "           Both refuse while another job is RUNNING, unless --force is given.\n"
    "           --background and --no-background decide whether the tool itself is\n"
    "           started with --background (agent, proxmox and xenv jobs).\n"
    "           An on-demand run does not count as satisfying a dependency.\n"
    "\n"
    "Schedules and once times are matched in the server's local time zone.\n"
    "\n"
    "Mail and the HTTPS API are the work of orv_sched_net, which the scheduler\n"
    "starts as the tarnwell-api account.\n"
    "\n"
    "--config defaults to /etc/orv/orv_sched.cfg; --queue defaults to\n"
    "%s.\n"
    "The settings --poll-interval, --busy-retry-seconds, --job-timeout-seconds,\n"
    "--job-log-dir and --job-log-keep go before those of the [sched] section; the\n"
    "built-in defaults are\n"
    "%us / poll-interval / %us / %s / %u.\n"
    "\n"
    "Logging, every command:\n"
    "  --no-syslog        nothing to syslog (default: syslog is on)\n"
    "  --no-log           no logfile (default: the logfile is written)\n"
    "  --syslog <mask>    what goes to syslog: 1 start, stop and warnings about the\n"
    "                     command line (default 1)\n"
    "  --log <mask>       what goes to the logfile (default 1)\n"
    "  --log-path <dir>   where the logfile lives (default /var/log/orv/)\n";

}  // namespace

void print_usage() {
  std::printf("%s %s (build %s)\n\n", kProgramName, kVersion, kBuild);
  // kUsage is a constant of this file; -Wformat cannot see through the name.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  std::printf(kUsage, kDefaultQueuePath, kDefaultPollInterval, kDefaultJobTimeout,
              kDefaultJobLogDir, kDefaultJobLogKeep);
#pragma GCC diagnostic pop
}

int usage_error(const std::string& reason) {
  print_usage();
  (void)complain("%s", reason.c_str());
  return kExitUsage;
}

}  // namespace orv
