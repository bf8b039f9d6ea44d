// run and start: one job on demand, in the foreground or in a detached child.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "cli/commands.h"
#include "cli/console.h"
#include "cli/settings.h"
#include "cli/usage.h"
#include "common/files.h"
#include "common/log.h"
#include "config/config.h"
#include "config/job_command.h"
#include "sched/obstacle.h"
#include "sched/queue_file.h"
#include "sched/run_now.h"

namespace orv {
namespace {

// What `run` and `start` have settled before the job is started.
struct Request {
  const CommandContext& context;
  const Config& config;
  QueueState& queue;
  const char* job_name;
  JobRunSettings settings;
  bool force;
};

bool decide_background(const ArgList& args, const Job& job, bool detached) {
  const bool taken = takes_background(job.command);
  if (option_present(args, "--background")) {
    if (!taken) {
      std::printf("note: --background ignored, command=%s does not take it\n",
                  command_name(job.command));
    }
    return taken;
  }
  if (option_present(args, "--no-background")) return false;
  const Tristate configured = detached ? job.start_background : job.run_background;
  const bool wanted = configured == Tristate::Unset ? detached : configured == Tristate::Yes;
  return wanted && taken;
}

int run_and_report(const Request& request) {
  const ErrorCode rc =
      run_now(request.config, request.queue, request.job_name, request.settings, request.force);
  return rc == ErrorCode::Ok ? kExitOk : kExitFailed;
}

// Whether a job that runs already stands in the way of `start`. Said on standard error, because
// what the detached child finds goes to syslog only.
bool refused(const Request& request) {
  const std::optional<Obstacle> obstacle =
      request.force ? std::nullopt : find_obstacle(request.queue);
  if (!obstacle) return false;
  std::fprintf(stderr, "error: %s\n", refusal_text(*obstacle, request.job_name).c_str());
  return true;
}

// Cuts the child loose from the terminal and the session it was started from. The working directory
// stays: the job's arguments may name files in it.
void detach(const ArgList& args) {
  (void)::setsid();  // cannot fail in a child that has just been forked
  (void)::signal(SIGHUP, SIG_IGN);
  ScopedFd null = open_file("/dev/null", O_RDWR);
  if (null.valid()) {
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      (void)::dup2(null.get(), standard);
    }
    if (null.get() <= STDERR_FILENO)
      (void)::fcntl(null.release(), F_SETFD, 0);  // it was closed before
  }
  if (!option_present(args, "--no-syslog")) log_set_syslog(true);
}

int start_detached(const Request& request) {
  if (refused(request)) return kExitFailed;
  (void)::fflush(nullptr);  // or the child would write what the parent has buffered once more
  const pid_t pid = ::fork();
  if (pid < 0) return complain("fork failed: %s", ::strerror(errno));
  if (pid == 0) {
    detach(request.context.args);
    return run_and_report(request);  // and out through the normal exit, which the run log records
  }
  std::printf("started job '%s' in the background (pid %d, %s --background), log: %s/%s/\n",
              request.job_name, static_cast<int>(pid),
              request.settings.background ? "with" : "without",
              request.settings.job_log_dir.c_str(), request.job_name);
  return kExitOk;
}

int run_start_command(const CommandContext& context, bool detached) {
  const ArgList& args = context.args;
  const std::string command = args[1];
  if (args.size() < 3) return usage_error("'" + command + "' needs the name of a job");
  if (args[2][0] == '-') {
    return usage_error("'" + command + "' needs the name of a job before '" + args[2] + "'");
  }
  // Wrong usage is reported before any file is read, and a refused configuration exits like it.
  if (option_present(args, "--background") && option_present(args, "--no-background")) {
    (void)complain("--background and --no-background are mutually exclusive");
    return kExitUsage;
  }
  const std::unique_ptr<Config> config = load_config(context);
  if (config == nullptr) return kExitUsage;
  QueueState queue;
  if (queue_load(queue, context.queue_path) != ErrorCode::Ok) {
    return complain("cannot open queue %s", context.queue_path);
  }
  JobRunSettings settings = settle(context, config->sched).run;
  // For `run`, run_now() reports an unknown job; for `start`, that would go to syslog alone.
  const Job* const job = find_job(*config, args[2]);
  if (job == nullptr && detached) {
    return complain("unknown job '%s'", args[2]);
  }
  settings.background = job != nullptr && decide_background(args, *job, detached);
  const Request request{
      context, *config, queue, args[2], std::move(settings), option_present(args, "--force")};
  return detached ? start_detached(request) : run_and_report(request);
}

}  // namespace

int command_run(const CommandContext& context) { return run_start_command(context, false); }
int command_start(const CommandContext& context) { return run_start_command(context, true); }

}  // namespace orv
