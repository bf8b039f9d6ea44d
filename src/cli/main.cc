// orv_sched: the daemon and the operator's commands.
#include <cstddef>
#include <string>

#include "cli/commands.h"
#include "cli/scanner.h"
#include "cli/usage.h"
#include "common/log.h"
#include "common/options.h"
#include "common/selftest.h"
#include "common/version.h"
#include "config/config.h"
#include "sched/queue_state.h"

namespace orv {
namespace {

// A warning goes to whoever looks at the terminal and to the record of the program's runs.
void warn(const std::string& warning) {
  log_msg(LogLevel::Warn, "%s", warning.c_str());
  runlog_msg(kRunlogBasic, "%s", warning.c_str());
}

int run_program(const ArgList& args) {
  if (const int status = version_and_selftest(args, kProgramName); status >= 0) return status;
  log_init(kProgramName, LogLevel::Info);
  runlog_init(args, kProgramName);
  if (args.size() < 2) {
    print_usage();
    return kExitUsage;
  }
  if (option_present(args, "--help", "-h")) {
    print_usage();
    return kExitOk;
  }
  const CommandRow* const command = find_command(args[1]);
  if (command == nullptr) {
    print_usage();
    return kExitUsage;
  }
  scan_command_line(args, *command, warn);
  const CommandContext context{option_value(args, "--config", kDefaultConfigPath),
                               option_value(args, "--queue", kDefaultQueuePath), args};
  return command->run(context);
}

}  // namespace
}  // namespace orv

int main(int argc, char** argv) {
  return orv::run_program(orv::ArgList(argv, static_cast<std::size_t>(argc)));
}
