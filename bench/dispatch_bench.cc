// What a job costs the dispatch loop: one cycle over many due jobs whose tool ends at once. Most of
// the time goes into the two flushed saves of the queue that each run needs; the queue below
// /dev/shm, where flushing is free, shows the rest.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <time.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "common/log.h"
#include "sched/dispatch.h"
#include "sched/queue_file.h"
#include "sched/subprocess.h"

namespace {

using namespace orv;
namespace fs = std::filesystem;

// A directory with a tool that ends at once, and a configuration of due jobs.
struct Home {
  explicit Home(const char* parent, int jobs) {
    std::string pattern = std::string(parent) + "/orv-bench-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) std::abort();
    path = pattern;
    fs::create_directory(path + "/bin");
    fs::create_symlink("/bin/true", path + "/bin/orv_agent");
    ::setenv("PATH", (path + "/bin").c_str(), 1);
    std::ofstream config(path + "/cfg");
    for (int i = 0; i < jobs; ++i) config << "[job-" << i << "]\nprofile=p\nonce=1\n";
  }
  ~Home() { fs::remove_all(path); }
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;
  std::string path;
};

void run_cycle(benchmark::State& state, const char* parent) {
  log_init("orv_sched", LogLevel::Error);
  const auto jobs = static_cast<int>(state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    auto home = std::make_unique<Home>(parent, jobs);
    DaemonSettings settings;
    settings.config_path = home->path + "/cfg";
    settings.queue_path = home->path + "/queue";
    settings.run.job_log_dir = home->path + "/logs";
    settings.run.job_log_keep = 20;
    LiveState live;
    std::array<char, kConfigMessageSize> err{};
    Dispatch dispatch(settings, live, nullptr, nullptr);
    if (queue_load(dispatch.queue, settings.queue_path.c_str()) != ErrorCode::Ok ||
        dispatch_load_config(dispatch, err) != 0) {
      state.SkipWithError(err.data());
      return;
    }
    dispatch.identity = file_identity(settings.config_path.c_str());
    dispatch_adopt_config(dispatch, ::time(nullptr));
    state.ResumeTiming();
    while (dispatch_pass(dispatch) == PassEnd::Again) {
    }
    state.PauseTiming();
    const QueueRecord& last = dispatch.queue.records().back();
    if (record_state(last) != JobState::Done) state.SkipWithError("a job was not run");
    home.reset();
    state.ResumeTiming();
  }
  state.counters["s_per_job"] =
      benchmark::Counter(static_cast<double>(jobs) * static_cast<double>(state.iterations()),
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void DueJobsOnDisk(benchmark::State& state) { run_cycle(state, "/var/tmp"); }
BENCHMARK(DueJobsOnDisk)->Arg(16)->Arg(256)->Unit(benchmark::kMillisecond)->UseRealTime();

void DueJobsInMemory(benchmark::State& state) { run_cycle(state, "/dev/shm"); }
BENCHMARK(DueJobsInMemory)->Arg(16)->Arg(256)->Unit(benchmark::kMillisecond)->UseRealTime();

// A pass that finds nothing to do: what a poll costs.
void IdlePass(benchmark::State& state) {
  log_init("orv_sched", LogLevel::Error);
  const Home home("/dev/shm", 256);
  DaemonSettings settings;
  settings.config_path = home.path + "/cfg";
  settings.queue_path = home.path + "/queue";
  LiveState live;
  const auto config = std::make_shared<Config>();
  live.config = config;
  std::array<char, kConfigMessageSize> err{};
  Dispatch dispatch(settings, live, nullptr, nullptr);
  if (queue_load(dispatch.queue, settings.queue_path.c_str()) != ErrorCode::Ok ||
      config_load(settings.config_path.c_str(), *config, err) != 0) {
    state.SkipWithError(err.data());
    return;
  }
  dispatch.identity = file_identity(settings.config_path.c_str());
  for (Job& job : config->jobs) job.once = kNever - 1;
  dispatch_adopt_config(dispatch, ::time(nullptr));
  for (auto _ : state) {
    dispatch.passes_since_wait = 0;
    if (dispatch_pass(dispatch) != PassEnd::Wait) state.SkipWithError("a job was due");
  }
}
BENCHMARK(IdlePass)->Unit(benchmark::kMicrosecond);

// Start, wait and reap alone.
void RunTrue(benchmark::State& state) {
  const std::array<const char*, 2> argv = {"/bin/true", nullptr};
  CommandOptions options;
  options.timeout_s = 60;
  for (auto _ : state) {
    RunOutcome outcome;
    if (run_command(argv.data(), options, -1, nullptr, outcome) != 0 || outcome.exit_code != 0) {
      state.SkipWithError("cannot run /bin/true");
    }
  }
}
BENCHMARK(RunTrue)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
