#include "sched/daemon.h"

#include <signal.h>

#include <array>
#include <ctime>
#include <memory>

#include "common/clock.h"
#include "common/files.h"
#include "common/log.h"
#include "sched/dispatch.h"
#include "sched/queue_file.h"
#include "sched/run_file.h"
#include "sched/stop_signals.h"

namespace orv {
namespace {

constexpr int kWaitStepMs = 1000;

// Queue first, configuration second, both under the lock; on failure the cause was logged.
ErrorCode start_up(Dispatch& d) {
  d.lock = queue_lock(d.settings.queue_path.c_str());
  // Without the lock nothing would keep a second scheduler from running jobs beside this one.
  if (!d.lock.valid()) return ErrorCode::IoError;
  if (ErrorCode rc = queue_load(d.queue, d.settings.queue_path.c_str()); rc != ErrorCode::Ok) {
    log_msg(LogLevel::Error, "orv_sched: cannot load the queue %s: %s",
            d.settings.queue_path.c_str(), failure_text(rc));
    return rc;
  }
  dispatch_sweep(d);
  remove_dead_run_files(d.queue.path);
  d.identity = file_identity(d.settings.config_path.c_str());
  std::array<char, kConfigMessageSize> reason{};
  if (dispatch_load_config(d, reason) != 0) {
    log_msg(LogLevel::Error, "orv_sched: cannot load %s: %s", d.settings.config_path.c_str(),
            reason.data());
    return ErrorCode::Invalid;
  }
  dispatch_adopt_config(d, std::time(nullptr));
  d.lock.reset();
  return ErrorCode::Ok;
}

void fill_live_state(Dispatch& d) {
  LiveState& live = d.live;
  live.config_path = d.settings.config_path;
  live.queue_path = d.settings.queue_path;
  live.job_log_dir = d.settings.run.job_log_dir;
  live.daemon_started = std::time(nullptr);
  live.net.on_mail_result = [](void* context, std::uint32_t id, std::uint32_t status,
                               std::string_view error) {
    test_mail_result(static_cast<LiveState*>(context)->test_mails, id, status, error);
  };
  live.net.on_mail_result_context = &live;
}

// Whether something came up that a pass has not seen yet. A request that the last pass had to leave
// in the list, because another process runs a job, does not count: it is tried once a second.
bool wait_is_over(const LiveState& live, std::size_t known_requests) {
  return stop_requested() || live.config_changed || live.run_queue.size() > known_requests;
}

// One step of waiting. It takes its second also when the network process keeps talking, so that a
// chatty one neither shortens the poll interval nor makes us scan the queue more often.
void wait_step(LiveState& live, std::size_t known_requests) {
  const std::int64_t end = monotonic_ms() + kWaitStepMs;
  for (std::int64_t left = kWaitStepMs; left > 0 && !wait_is_over(live, known_requests);
       left = end - monotonic_ms()) {
    net_wait(live.net, static_cast<int>(left));
  }
}

void wait_for_next_cycle(const DaemonSettings& settings, LiveState& live) {
  const std::uint32_t steps =
      settings.poll_interval_s != 0 ? settings.poll_interval_s : kDefaultPollInterval;
  const std::size_t known_requests = live.run_queue.size();
  for (std::uint32_t step = 0; step < steps; ++step) {
    wait_step(live, known_requests);
    if (wait_is_over(live, known_requests) || !live.run_queue.empty()) return;
  }
}

void dispatch_until_stopped(Dispatch& d) {
  while (!stop_requested()) {
    d.passes_since_wait = 0;
    d.starts_by_dependency = 0;
    while (dispatch_pass(d) == PassEnd::Again && !stop_requested()) {
    }
    wait_for_next_cycle(d.settings, d.live);
  }
}

}  // namespace

ErrorCode daemon_loop(const DaemonSettings& settings, LiveState& live, ApiHandler handler,
                      void* handler_context) {
  const StopSignals signals({SIGTERM, SIGINT}, IfIgnored::IsCaught);
  // A log reader or a network process that goes away must not take the daemon along.
  (void)::signal(SIGPIPE, SIG_IGN);
  // The usual way to have a configuration read again, which this daemon does by itself. Ended by
  // it, it would leave its job's tool behind, and a service manager takes that for a clean end.
  (void)::signal(SIGHUP, SIG_IGN);
  Dispatch dispatch(settings, live, handler, handler_context);
  if (ErrorCode rc = start_up(dispatch); rc != ErrorCode::Ok) {
    live.config.reset();
    return rc;
  }
  log_msg(LogLevel::Info, "orv_sched daemon started: config=%s queue=%s poll-interval=%us",
          settings.config_path.c_str(), settings.queue_path.c_str(), settings.poll_interval_s);
  fill_live_state(dispatch);
  dispatch_apply_network(dispatch);
  // Only now: a start that fails is then seen as one by whoever asked for it.
  dispatch.manager.ready(kIdleStatus);
  dispatch_until_stopped(dispatch);
  log_msg(LogLevel::Info, "orv_sched daemon stopping (signal received)");
  dispatch.manager.stopping("stopping");
  net_shutdown(live.net);
  live.config.reset();
  return ErrorCode::Ok;
}

}  // namespace orv
