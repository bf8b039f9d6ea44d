// What the operator's commands have in common in dealing with the person who runs them.
#ifndef ORV_CLI_CONSOLE_H_
#define ORV_CLI_CONSOLE_H_

#include <memory>

#include "cli/commands.h"
#include "config/config.h"

namespace orv {

// Prints "error: ..." on standard error and returns kExitFailed, so that a failure is one
// statement. The format takes no line end.
[[gnu::format(printf, 1, 2)]] int complain(const char* format, ...);

// The configuration that the command line names; null after the complaint.
[[nodiscard]] std::unique_ptr<Config> load_config(const CommandContext& context);

}  // namespace orv

#endif  // ORV_CLI_CONSOLE_H_
