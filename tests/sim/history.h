// One history: a server, what people and bad luck do to it for some weeks, then days of peace in
// which everything must come right again. A history is a list of incidents made from the seed; each
// can be left out, which is how a failing one is made short.
#ifndef ORV_TESTS_SIM_HISTORY_H_
#define ORV_TESTS_SIM_HISTORY_H_

#include <cstdint>
#include <deque>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "sim/model.h"
#include "sim/world.h"

namespace orv::sim {

struct HistoryOptions {
  std::uint64_t seed = 1;
  std::int64_t days = 40;
  std::size_t jobs = 20;
  bool verbose = false;
  std::set<std::size_t> without{};  // numbers of incidents that do not happen
};

class History {
 public:
  explicit History(const HistoryOptions& options);
  ~History();
  History(const History&) = delete;
  History& operator=(const History&) = delete;

  // Plays it to its end or to the first thing that does not hold. The number of incidents.
  std::size_t play();

  // For a story of its own, instead of play(): its jobs, and what people do.
  void set_jobs(const std::vector<std::pair<std::string, std::string>>& names_and_schedules);
  void start_daemon();
  Process& run_by_hand(const std::string& command, const std::string& job, bool force);

  Model model;
  World world;
  std::deque<std::function<void(void* api_context)>> api_requests;

 private:
  struct JobPlan {
    std::string name, schedule, after;
    std::int64_t once = 0;
    bool finished = false;
    bool enabled = true;
    std::int64_t serial = 0;
    std::uint32_t timeout_s = 0;
  };
  using Incident = void (History::*)();
  void make_jobs();
  JobPlan make_job(const std::string& name);
  [[nodiscard]] std::string config_text() const;
  void write_config();
  void shape_tool(Tool& tool);
  void ask(std::string method, std::string path, std::string body,
           std::function<void(std::uint32_t status)> told);
  void schedule_incidents();
  void peace();
  std::vector<Start> forecast();
  void live_as_forecast();
  JobPlan& any_job() { return jobs_[world.rng.below(jobs_.size())]; }

  // The incidents.
  void daemon_dies();
  void daemon_stops();
  void daemon_dies_within_a_call();
  void runner_dies();
  void clock_jumps();
  void machine_restarts();
  void power_fails();
  void disk_fills();
  void a_call_fails();
  void person_edits();
  void person_disables();
  void person_renames();
  void person_breaks_the_file();
  void person_runs();
  void person_starts();
  void person_forces();
  void person_interrupts();
  void client_requests_a_run();
  void client_changes_a_job();
  void client_cancels();

  HistoryOptions options_;
  std::vector<JobPlan> jobs_;
  std::int64_t next_serial_ = 1;
  int next_name_ = 0;
  std::size_t incidents_ = 0;
  bool at_peace_ = false;
};

// The history that is being played on this thread.
extern thread_local History* current_history;

}  // namespace orv::sim

#endif  // ORV_TESTS_SIM_HISTORY_H_
