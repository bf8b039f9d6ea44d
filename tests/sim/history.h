// One history: a server, what people and bad luck do to it for some weeks, then days of peace in
// which everything must come right again. A history is a list of incidents made from the seed; each
// can be left out, which is how a failing one is made short.
#ifndef ORV_TESTS_SIM_HISTORY_H_
#define ORV_TESTS_SIM_HISTORY_H_

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <string>
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

struct History {
  explicit History(const HistoryOptions& options_in);
  ~History();
  History(const History&) = delete;
  History& operator=(const History&) = delete;

  // Plays it to its end or to the first thing that does not hold. The number of incidents.
  std::size_t play();

  // What incidents, and the stories of the tests, are made of.
  [[nodiscard]] JobPlan make_job(Rng& rng, const std::string& name) const;
  void write_config();
  void start_daemon();
  Process& run_by_hand(const std::string& command, const std::string& job, bool force);

  HistoryOptions options;
  Model model;
  World world;
  std::vector<JobPlan> jobs;
  std::int64_t numbers = 0;  // of names and of clients' changes, given so far
  bool at_peace = false;
  bool power_fails = false;  // soon after the next tool has started
  // Clients' requests that the daemon has not served yet.
  std::deque<std::function<void(void* api_context)>> requests;

 private:
  void shape_tool(Tool& tool);
  std::size_t schedule_incidents();
  void make_peace();
  std::vector<Start> forecast();
  void live_as_forecast();

  std::map<std::string, std::uint64_t> runs_;  // so far, by job
};

// What an incident is about: `job` is one of the jobs, by chance.
struct Scene {
  History& history;
  Rng& rng;
  JobPlan& job;
  Process* daemon;  // null while there is none
  Process& run_by_hand(const char* command, bool force) const {
    return history.run_by_hand(command, job.name, force);
  }
};
// Something that befalls the server.
struct Incident {
  bool needs_daemon;
  void (*happen)(Scene& scene);
};
[[nodiscard]] std::span<const Incident> incidents();

// The history that is being played on this thread.
extern thread_local History* current_history;

}  // namespace orv::sim

#endif  // ORV_TESTS_SIM_HISTORY_H_
