// The settings that come from the command line, else from [sched], else from the built-in defaults.
#ifndef ORV_CLI_SETTINGS_H_
#define ORV_CLI_SETTINGS_H_

#include "cli/commands.h"
#include "config/config.h"
#include "sched/settings.h"

namespace orv {

// Settles all of them, paths included. A value from the command line is used as it is, 0 included;
// a 0 in [sched] means not set. The busy retry is by default the poll interval as settled here.
[[nodiscard]] DaemonSettings settle(const CommandContext& context, const SchedSection& sched);

}  // namespace orv

#endif  // ORV_CLI_SETTINGS_H_
