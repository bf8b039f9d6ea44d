// Loading and validating a full configuration of 256 jobs, from the file as every command does it.
// The argument is the number of 'after' names of each job.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "config/config.h"

namespace orv {
namespace {

std::string job_name(std::size_t i) {
  return "nightly-backup-of-a-server-with-a-long-name-" + std::to_string(i);
}

// Every job may wait for those before it only, so that there is no circle.
std::string configuration(std::size_t after_names) {
  std::string text =
      "[sched]\npoll-interval = 30\n"
      "[mail]\nsmtp-host = mail.example.com\nfrom = a@example.com\nto = b@example.com\n";
  for (std::size_t i = 0; i < kMaxJobs; ++i) {
    text += "\n# the job of one server\n[" + job_name(i) + "]\ncommand = agent\nprofile = server\n";
    text += "args = --level 3 --tag \"nightly run\" --exclude '*.tmp'\nretention = 4w\n";
    text += "schedule = " + std::to_string(i % 60) + " 1-5/2 * * 1,3,5\ntimeout-seconds = 3600\n";
    const std::size_t names = std::min(i, after_names);
    for (std::size_t n = 1; n <= names; ++n) {
      text += (n == 1 ? "after = " : ", ") + job_name(i - n);
    }
    text += '\n';
  }
  return text;
}

void BM_LoadAndValidate(benchmark::State& state) {
  const std::string text = configuration(static_cast<std::size_t>(state.range(0)));
  const std::string path = "config_bench." + std::to_string(::getpid()) + ".cfg";
  std::ofstream(path) << text;
  const auto config = std::make_unique<Config>();
  std::array<char, kConfigMessageSize> err{};
  for (auto _ : state) {
    if (config_load(path.c_str(), *config, err) != 0) state.SkipWithError(err.data());
    config_release(*config);
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(text.size()));
  (void)std::remove(path.c_str());  // nothing to do about a file that stays
}
BENCHMARK(BM_LoadAndValidate)->Arg(0)->Arg(1)->Arg(16)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace orv
