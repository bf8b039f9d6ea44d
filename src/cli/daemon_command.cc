#include <memory>

#include "api/handler.h"
#include "api/leftovers.h"
#include "cli/commands.h"
#include "cli/console.h"
#include "cli/settings.h"
#include "common/log.h"
#include "config/config.h"
#include "sched/daemon.h"
#include "sched/live_state.h"

namespace orv {
namespace {

// The configuration is only looked at for the settings; the loop loads its own.
int settle(const CommandContext& context, DaemonSettings& settings) {
  const std::unique_ptr<Config> config = load_config(context);
  if (config == nullptr) return kExitUsage;
  // What a daemon that was killed while it wrote has left, full of secrets.
  remove_config_leftovers(context.config_path);
  remove_tokens_leftovers(config->api.tokens_file.c_str());
  const RunSettings run = settle_run_settings(context.args, config->sched);
  const LoopSettings loop = settle_loop_settings(context.args, config->sched);
  settings.config_path = context.config_path;
  settings.queue_path = context.queue_path;
  settings.poll_interval_s = loop.poll_interval_s;
  settings.busy_retry_s = loop.busy_retry_s;
  settings.job_timeout_s = run.job_timeout_s;
  settings.job_log_dir = run.job_log_dir;
  settings.job_log_keep = run.job_log_keep;
  return kExitOk;
}

}  // namespace

int command_daemon(const CommandContext& context) {
  DaemonSettings settings;
  if (const int status = settle(context, settings); status != kExitOk) return status;
  const auto live = std::make_unique<LiveState>();
  ApiContext api(*live);
  const ErrorCode rc = daemon_loop(settings, *live, api_handle_request, &api);
  if (rc == ErrorCode::Ok) return kExitOk;
  log_msg(LogLevel::Error, "orv_sched daemon exited with %s (status=%d)", error_text(rc),
          static_cast<int>(rc));
  return kExitFailed;
}

}  // namespace orv
