// The commands of orv_sched: their table, and one function for each.
#ifndef ORV_CLI_COMMANDS_H_
#define ORV_CLI_COMMANDS_H_

#include <cstddef>
#include <span>
#include <string_view>

#include "common/options.h"

namespace orv {

// Exit statuses of the program.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  // the command's own failure
inline constexpr int kExitUsage = 2;   // wrong usage, or no configuration for daemon, run and start

// What every command is given. All borrowed from main()'s arguments.
struct CommandContext {
  const char* config_path;
  const char* queue_path;
  ArgList args;  // the whole command line, program name included
};

struct CommandRow {
  std::string_view name;
  OptionTable options;
  std::size_t positional;                     // words it takes, the command itself included
  int (*run)(const CommandContext& context);  // returns the exit status
};

// All commands, in the order in which they are documented.
[[nodiscard]] std::span<const CommandRow> command_table();
// The row of that name, or null.
[[nodiscard]] const CommandRow* find_command(std::string_view name);

// Prints results on standard output and "error: ..." lines on standard error; each returns the exit
// status.
int command_daemon(const CommandContext& context);
int command_list(const CommandContext& context);
int command_validate(const CommandContext& context);
int command_mail_test(const CommandContext& context);
int command_api_init(const CommandContext& context);
int command_api_info(const CommandContext& context);
int command_api_token(const CommandContext& context);
int command_run(const CommandContext& context);
int command_start(const CommandContext& context);

}  // namespace orv

#endif  // ORV_CLI_COMMANDS_H_
