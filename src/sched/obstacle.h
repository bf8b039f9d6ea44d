// What stands in the way of a run: jobs run one at a time. The daemon, `run`, `start`, the API and
// orv_plan all ask here.
#ifndef ORV_SCHED_OBSTACLE_H_
#define ORV_SCHED_OBSTACLE_H_

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "sched/queue_state.h"

namespace orv {

struct Obstacle {
  bool lost = false;  // the run's scheduler is gone, only its tool still runs
  std::string job;    // empty when not known
  pid_t pid = 0;      // of the runner; of the tool when the run is lost
  std::string log;    // path of the job log, empty when not known
  int unread = 0;     // errno: whether anything runs cannot be told; the fields above are empty
  // Whether both are the same run: what is known of its log does not matter.
  friend bool operator==(const Obstacle& a, const Obstacle& b) {
    return a.lost == b.lost && a.job == b.job && a.pid == b.pid && a.unread == b.unread;
  }
};

// The first run of another process that no other may be started beside: by the queue's RUNNING
// records, else by the run files, which also know of runs whose record says something else by now.
// Run files that cannot be read are an obstacle too: beside an unknown run nothing is started.
[[nodiscard]] std::optional<Obstacle> find_obstacle(const QueueState& queue);

// Whether another process runs this very job, or its tool outlived the process that did. Its record
// may be disabled or gone meanwhile.
[[nodiscard]] bool job_runs_elsewhere(const QueueState& queue, std::string_view job);

// Why `wanted_job` cannot be run now, for the person who asked for it.
[[nodiscard]] std::string refusal_text(const Obstacle& obstacle, std::string_view wanted_job);
// Why the daemon starts nothing.
[[nodiscard]] std::string waiting_text(const Obstacle& obstacle);

}  // namespace orv

#endif  // ORV_SCHED_OBSTACLE_H_
