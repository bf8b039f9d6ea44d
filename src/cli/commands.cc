#include "cli/commands.h"

#include <algorithm>
#include <array>

namespace orv {
namespace {

constexpr OptionRow kConfig{"--config", "", true};
constexpr OptionRow kQueue{"--queue", "", true};
constexpr OptionRow kForce{"--force", "", false};
constexpr OptionRow kJobTimeout{"--job-timeout-seconds", "", true};
constexpr OptionRow kJobLogDir{"--job-log-dir", "", true};
constexpr OptionRow kJobLogKeep{"--job-log-keep", "", true};

constexpr std::array<OptionRow, 2> kPlainOptions = {{kConfig, kQueue}};
constexpr std::array<OptionRow, 7> kDaemonOptions = {{
    kConfig,
    kQueue,
    {"--poll-interval", "", true},
    {"--busy-retry-seconds", "", true},
    kJobTimeout,
    kJobLogDir,
    kJobLogKeep,
}};
constexpr std::array<OptionRow, 4> kApiInitOptions = {
    {kConfig, kQueue, {"--cn", "", true}, kForce}};
constexpr std::array<OptionRow, 3> kApiTokenOptions = {{kConfig, kQueue, {"--role", "", true}}};
constexpr std::array<OptionRow, 8> kRunOptions = {{
    kConfig,
    kQueue,
    kForce,
    kJobTimeout,
    kJobLogDir,
    kJobLogKeep,
    {"--background", "", false},
    {"--no-background", "", false},
}};

constexpr std::array<CommandRow, 9> kCommands = {{
    {"daemon", kDaemonOptions, 1, command_daemon},
    {"list", kPlainOptions, 1, command_list},
    {"validate", kPlainOptions, 1, command_validate},
    {"mail-test", kPlainOptions, 1, command_mail_test},
    {"api-init", kApiInitOptions, 1, command_api_init},
    {"api-info", kPlainOptions, 1, command_api_info},
    // api-token's further words are the action and the token's name.
    {"api-token", kApiTokenOptions, 3, command_api_token},
    {"run", kRunOptions, 2, command_run},
    {"start", kRunOptions, 2, command_start},
}};

}  // namespace

std::span<const CommandRow> command_table() { return kCommands; }

const CommandRow* find_command(std::string_view name) {
  const auto* const row = std::find_if(kCommands.begin(), kCommands.end(),
                                       [&](const CommandRow& c) { return c.name == name; });
  return row == kCommands.end() ? nullptr : row;
}

}  // namespace orv
