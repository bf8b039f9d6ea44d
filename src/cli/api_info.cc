#include <cstdio>
#include <memory>
#include <new>

#include "api/tokens.h"
#include "cli/commands.h"
#include "cli/console.h"
#include "common/host_port.h"
#include "config/job_command.h"
#include "net/certificate.h"

namespace orv {
namespace {

const char* yes_no(bool flag) { return flag ? "yes" : "no"; }

void print_certificate(const ApiSection& api) {
  char fingerprint[kFingerprintSize];
  const bool known = cert_fingerprint(api.cert.c_str(), fingerprint) == ErrorCode::Ok;
  std::printf("certificate:        %s\n", api.cert.c_str());
  std::printf("fingerprint:        %s\n",
              known ? fingerprint : "(no certificate -- run 'orv_sched api-init')");
}

void print_tokens(const ApiSection& api) {
  std::printf("tokens-file:        %s\n", api.tokens_file.c_str());
  char err[kConfigMessageSize] = "out of memory";
  try {
    TokenStore store;
    if (read_tokens(api.tokens_file.c_str(), store, err) == TokensRead::Ok) {
      std::printf("tokens:             %zu\n", store.tokens.size());
      return;
    }
  } catch (const std::bad_alloc&) {
    // The message stands already.
  }
  std::printf("tokens:             (error: %s)\n", err);
}

void print_allowed_commands(std::uint32_t mask) {
  std::printf("allowed-commands:  ");
  const char* separator = " ";
  for (const JobCommandRow& row : job_commands()) {
    if (!command_allowed(mask, row.command)) continue;
    std::printf("%s%s", separator, row.name);
    separator = ",";
  }
  std::printf("%s\n", *separator == ' ' ? " none" : "");
}

}  // namespace

int command_api_info(const CommandContext& context) {
  const std::unique_ptr<Config> config = load_config(context);
  if (!config) return kExitFailed;
  // What cannot be read is said in its own line: the rest is most wanted when something is wrong.
  const ApiSection& api = config->api;
  std::printf("enabled:            %s\n", yes_no(api.enabled));
  std::printf("listen:             %s\n",
              host_port(api.listen.host.view(), api.listen.port).c_str());
  print_certificate(api);
  print_tokens(api);
  std::printf("allow-config-write: %s\n", yes_no(api.allow_config_write));
  std::printf("allow-args:         %s\n", yes_no(api.allow_args));
  print_allowed_commands(api.allowed_commands);
  std::printf("max-clients:        %u\n", api.max_clients);
  std::printf("history-keep:       %u\n", api.history_keep);
  std::printf("notify-changes:     %s\n", yes_no(api.notify_changes));
  return kExitOk;
}

}  // namespace orv
