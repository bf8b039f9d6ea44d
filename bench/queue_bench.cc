// What the queue costs at its full size, 256 jobs: a load and a save, bringing the records in line
// with the configuration, and the question of what is due.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "sched/queue_file.h"
#include "sched/queue_schedule.h"

namespace {

using namespace orv;
namespace fs = std::filesystem;

constexpr int kJobs = 256;
constexpr std::int64_t kNow = 1796601637;

// Jobs that each wait for two others; none is due, so that a scan asks all of them.
std::unique_ptr<Config> full_config() {
  std::string text;
  for (int i = 0; i < kJobs; ++i) {
    const std::string number = std::to_string(i);
    text += "[backup-of-server-" + number + "]\n";
    text += i < 2 ? "schedule=30 2 * * *\n" : "after=backup-of-server-0,backup-of-server-1\n";
  }
  auto config = std::make_unique<Config>();
  std::array<char, kConfigMessageSize> err{};
  if (config_parse(text, "bench", *config, err) != 0) std::abort();
  return config;
}

QueueState full_queue(const Config& config) {
  QueueState state;
  if (!queue_reconcile(state, config, kNow, true)) std::abort();
  for (QueueRecord& record : state.records()) record_set_state(record, JobState::Done);
  return state;
}

void load_and_save(benchmark::State& state, const char* parent) {
  std::string directory = std::string(parent) + "/orv-bench-XXXXXX";
  if (::mkdtemp(directory.data()) == nullptr) std::abort();
  QueueState queue = full_queue(*full_config());
  queue.path = directory + "/queue";
  if (queue_save(queue) != ErrorCode::Ok) std::abort();
  for (auto _ : state) {
    if (queue_reload(queue) != ErrorCode::Ok || queue_save(queue) != ErrorCode::Ok) {
      state.SkipWithError("the queue was not read and written");
      break;
    }
  }
  fs::remove_all(directory);
}

// As after a load: the index is not built yet.
void renew(QueueState& queue) {
  queue.replace_all({queue.records().begin(), queue.records().end()});
}

void reconcile(benchmark::State& state) {
  const auto config = full_config();
  QueueState queue = full_queue(*config);
  for (auto _ : state) {
    renew(queue);
    benchmark::DoNotOptimize(queue_reconcile(queue, *config, kNow, true));
  }
}

void due_scan(benchmark::State& state) {
  const auto config = full_config();
  QueueState queue = full_queue(*config);
  for (auto _ : state) {
    renew(queue);
    std::int64_t stamp = 0;
    for (const Job& job : config->jobs) {
      benchmark::DoNotOptimize(queue_job_due(queue, job, kNow, stamp));
    }
  }
}

BENCHMARK_CAPTURE(load_and_save, flushed_to_disk, "/var/tmp");
BENCHMARK_CAPTURE(load_and_save, in_memory, "/dev/shm");
BENCHMARK(reconcile);
BENCHMARK(due_scan);

}  // namespace
