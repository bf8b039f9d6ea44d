#include <memory>

#include "api/handler.h"
#include "cli/commands.h"
#include "cli/console.h"
#include "cli/settings.h"
#include "common/log.h"
#include "config/config.h"
#include "sched/daemon.h"
#include "sched/live_state.h"

namespace orv {
int command_daemon(const CommandContext& context) {
  std::unique_ptr<Config> config = load_config(context);
  if (config == nullptr) return kExitUsage;
  const DaemonSettings settings = settle(context, config->sched);
  config.reset();  // it was read for the settings only: the loop loads its own
  const auto live = std::make_unique<LiveState>();
  ApiContext api(*live);
  const ErrorCode rc = daemon_loop(settings, *live, api_handle_request, &api);
  if (rc == ErrorCode::Ok) return kExitOk;
  log_msg(LogLevel::Error, "orv_sched daemon exited with %s (status=%d)", error_text(rc),
          static_cast<int>(rc));
  return kExitFailed;
}

}  // namespace orv
