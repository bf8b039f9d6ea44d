// One pass of the daemon's dispatch: the queue is read afresh, brought in line with the
// configuration, and at most one job is run. The loop around it is daemon.h's.
#ifndef ORV_SCHED_DISPATCH_H_
#define ORV_SCHED_DISPATCH_H_

#include <cstdint>
#include <optional>

#include "common/files.h"
#include "common/scoped_fd.h"
#include "common/service_manager.h"
#include "net/supervisor.h"
#include "sched/daemon.h"
#include "sched/job_run.h"
#include "sched/live_state.h"
#include "sched/obstacle.h"
#include "sched/queue_state.h"

namespace orv {

// What the loop knows from pass to pass. `settings` and `live` outlive it; live.config is set
// before the first pass.
struct Dispatch {
  Dispatch(const DaemonSettings& settings_in, LiveState& live_in, ApiHandler handler_in,
           void* handler_context_in);
  // Its poller points to it.
  Dispatch(const Dispatch&) = delete;
  Dispatch& operator=(const Dispatch&) = delete;

  const DaemonSettings& settings;
  LiveState& live;
  ApiHandler handler;
  void* handler_context;
  Poller poller;  // serves the network process during a run
  ServiceManager manager;
  QueueState queue;
  ScopedFd lock;          // held during a pass
  FileIdentity identity;  // of the configuration file when it was last loaded, well or not
  // Both are counted since the last wait or API run.
  std::size_t passes_since_wait = 0;
  std::size_t starts_by_dependency = 0;       // in a row, without one by the clock
  std::optional<Obstacle> reported_obstacle;  // the foreign run last reported
  bool stop_reported = false;                 // that a stop waits for the running job
};

// What the loop does next.
enum class PassEnd { Again, Wait };

// One pass. The lock is free again afterwards.
[[nodiscard]] PassEnd dispatch_pass(Dispatch& dispatch);

// Loads the configuration file into live.config, without a parse when the API has met this very
// text already. 0; else what config_load() says, with the reason, and live.config as it was.
[[nodiscard]] int dispatch_load_config(Dispatch& dispatch, std::span<char> reason);

// After a load of the configuration: reconciles the queue, recomputes the next runs of edited
// schedules, and warns of times with which jobs would not run. Needs the lock.
void dispatch_adopt_config(Dispatch& dispatch, std::int64_t now);

// Marks the runs FAILED whose scheduler is gone. Needs the lock.
void dispatch_sweep(Dispatch& dispatch);

// What the service manager is to show while no job runs.
inline constexpr const char* kIdleStatus = "waiting for the next job";

// Hands the settings of [mail] and [api] to the network process.
void dispatch_apply_network(Dispatch& dispatch);

}  // namespace orv

#endif  // ORV_SCHED_DISPATCH_H_
