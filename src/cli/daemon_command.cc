#include <memory>

#include "api/handler.h"
#include "api/leftovers.h"
#include "cli/commands.h"
#include "cli/console.h"
#include "cli/settings.h"
#include "common/digest.h"
#include "common/log.h"
#include "config/config.h"
#include "sched/daemon.h"
#include "sched/live_state.h"

namespace orv {
int command_daemon(const CommandContext& context) {
  std::unique_ptr<Config> config = load_config(context);
  if (config == nullptr) return kExitUsage;
  // What a daemon that was killed while it wrote has left, full of secrets.
  remove_config_leftovers(context.config_path);
  remove_tokens_leftovers(config->api.tokens_file.c_str());
  remove_pair_leftovers(config->api.cert.c_str(), config->api.key.c_str());
  const DaemonSettings settings = settle(context, config->sched);
  config.reset();  // it was read for the settings only: the loop loads its own
  if (!prepare_digests()) return complain("out of memory");
  const auto live = std::make_unique<LiveState>();
  ApiContext api(*live);
  const ErrorCode rc = daemon_loop(settings, *live, api_handle_request, &api);
  if (rc == ErrorCode::Ok) return kExitOk;
  log_msg(LogLevel::Error, "orv_sched daemon exited with %s (status=%d)", error_text(rc),
          static_cast<int>(rc));
  return kExitFailed;
}

}  // namespace orv
