// The daemon's dispatch loop.
#ifndef ORV_SCHED_DAEMON_H_
#define ORV_SCHED_DAEMON_H_

#include "common/status.h"
#include "net/supervisor.h"
#include "sched/live_state.h"
#include "sched/settings.h"

namespace orv {

// Runs jobs until SIGTERM or SIGINT: those that API clients queued, then those that are due by
// schedule, once time or dependency, strictly one at a time. Reloads the configuration when its
// file changes. `live` is filled and owned by the loop for as long as it runs; `handler` answers
// API requests and is called with `handler_context`. Ok after a stop by signal; an error when
// start-up fails (the cause was logged).
[[nodiscard]] ErrorCode daemon_loop(const DaemonSettings& settings, LiveState& live,
                                    ApiHandler handler, void* handler_context);

}  // namespace orv

#endif  // ORV_SCHED_DAEMON_H_
