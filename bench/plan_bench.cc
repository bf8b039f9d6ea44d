// What the companion's answers cost on a full server: 256 nightly jobs with 100 logs each, half of
// them in chains. Each figure is a whole answer, from the files to the text.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "plan/forecast.h"
#include "plan/health_report.h"
#include "plan/history.h"
#include "plan/plan.h"
#include "sched/job_log.h"
#include "sched/queue_file.h"
#include "sched/queue_schedule.h"

namespace {

using namespace orv;
namespace fs = std::filesystem;

constexpr int kJobs = 256;
constexpr std::int64_t kNow = 1796601637;
constexpr std::int64_t kDay = 86400;

// The files of a server, removed at the end.
class Server {
 public:
  explicit Server(int logs) {
    std::string directory = "/var/tmp/orv-bench-XXXXXX";
    if (::mkdtemp(directory.data()) == nullptr) std::abort();
    root_ = directory;
    std::string text = "[sched]\njob-log-dir=" + root_ + "/logs\n";
    for (int i = 0; i < kJobs; ++i) {
      const std::string name = "backup-of-server-" + std::to_string(i);
      text += "[" + name + "]\n";
      text += i % 2 == 0
                  ? "schedule=" + std::to_string(i % 60) + " " + std::to_string(i % 24) + " * * *\n"
                  : "after=backup-of-server-" + std::to_string(i - 1) + "\n";
      const std::string logs_of_job = root_ + "/logs/" + name;
      fs::create_directories(logs_of_job);
      for (int k = 1; k <= logs; ++k) write_log(logs_of_job, name, kNow - k * kDay + i * 7);
    }
    paths_ = {root_ + "/cfg", root_ + "/queue", ""};
    std::ofstream(paths_.config) << text;
    const std::unique_ptr<Plan> plan = load_plan(paths_, kNow);
    if (!plan->config_message.empty()) std::abort();
    for (QueueRecord& record : plan->seen.records()) {
      record_set_state(record, JobState::Done);
      record.started_at = kNow - kDay;
      record.finished_at = record.after_stamp = kNow - kDay + 60;
    }
    plan->seen.path = paths_.queue;
    queue_view_with_config(plan->seen, plan->config, kNow);
    if (queue_save(plan->seen) != ErrorCode::Ok) std::abort();
  }
  ~Server() { fs::remove_all(root_); }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  [[nodiscard]] std::unique_ptr<Plan> load() const { return load_plan(paths_, kNow); }

 private:
  static void write_log(const std::string& directory, const std::string& name, std::int64_t start) {
    std::ofstream log(job_log_path(directory, start));
    log << "job: " << name << "\nargv: tool\nstart_unix: " << start << "\n\n--- output ---\n";
    for (int i = 0; i < 40; ++i) log << "a line of what the tool has to say about its work\n";
    log << job_log_trailer(start + 60, 0, false, nullptr);
  }

  std::string root_;
  PlanPaths paths_;
};

void health(benchmark::State& state) {
  const Server server(100);
  for (auto _ : state) {
    const std::unique_ptr<Plan> plan = server.load();
    benchmark::DoNotOptimize(
        health_prometheus(make_health_report(*plan, {}, std::nullopt, nullptr)));
  }
}

void history_of_30_days(benchmark::State& state) {
  const Server server(100);
  for (auto _ : state) {
    const std::unique_ptr<Plan> plan = server.load();
    benchmark::DoNotOptimize(
        history_text(*plan, collect_history(*plan, kNow - 30 * kDay, nullptr)));
  }
}

void forecast_of_30_days(benchmark::State& state) {
  const Server server(3);
  for (auto _ : state) {
    const std::unique_ptr<Plan> plan = server.load();
    const Forecast forecast = make_forecast(plan->config, plan->queue, usual_durations(*plan),
                                            {kNow, kNow + 30 * kDay, {}});
    state.counters["runs"] = static_cast<double>(forecast.runs.size());
  }
}

BENCHMARK(health)->Unit(benchmark::kMillisecond);
BENCHMARK(history_of_30_days)->Unit(benchmark::kMillisecond);
BENCHMARK(forecast_of_30_days)->Unit(benchmark::kMillisecond);

}  // namespace
