#include <cstdio>
#include <memory>

#include "cli/commands.h"
#include "cli/console.h"
#include "common/files.h"
#include "net/supervisor.h"

namespace orv {

int command_mail_test(const CommandContext& context) {
  const std::unique_ptr<Config> config = load_config(context);
  if (!config) return kExitFailed;
  if (!config->mail.present) return complain("%s has no [mail] section", context.config_path);

  char host_text[kMaxHostName + 1];
  const char* host = host_name(host_text).data();
  char subject[400];
  char body[600];
  std::snprintf(subject, sizeof subject, "[tarnwell] %s: test mail", host);
  std::snprintf(body, sizeof body,
                "This is a test mail from orv_sched on %s.\n"
                "If you can read it, the [mail] settings in %s work.\n",
                host, context.config_path);
  // Through a network process of its own: a running daemon has one, which is not disturbed.
  char err[512];
  if (net_send_mail_now(config->mail, subject, body, err) != 0) return complain("%s", err);
  std::puts("OK");
  return kExitOk;
}

}  // namespace orv
