// The API's router over a configuration of 256 jobs: what a request costs behind authentication.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "api/line_diff.h"
#include "api/router.h"
#include "common/log.h"

namespace orv {
namespace {

constexpr std::int64_t kNow = 1800000000;

std::string config_of(std::size_t jobs) {
  std::string text = "[sched]\npoll-interval=30\n\n[api]\nenabled=yes\nhistory-keep=20\n";
  for (std::size_t i = 0; i < jobs; ++i) {
    const std::string n = std::to_string(i);
    text += "\n# backup of machine " + n + "\n[job-" + n + "]\ncommand=agent\nprofile=machine-" +
            n + "\nschedule=" + std::to_string(i % 60) + " 1 * * 1-5\nretention=4w\n";
    if (i > 0) text += "after=job-" + std::to_string(i - 1) + "\n";
  }
  return text;
}

// A daemon's state in a directory of its own, its queue in line with the configuration.
class Server {
 public:
  Server() {
    log_init("api_bench", LogLevel::Error);
    char name[] = "/tmp/orv_api_bench.XXXXXX";
    directory_ = ::mkdtemp(name);
    live_.config_path = directory_ + "/sched.cfg";
    live_.queue_path = directory_ + "/queue.state";
    live_.job_log_dir = directory_;
    const auto config = std::make_shared<Config>();
    live_.config = config;
    const std::string text = config_of(kMaxJobs);
    std::FILE* const file = std::fopen(live_.config_path.c_str(), "w");
    (void)std::fwrite(text.data(), 1, text.size(), file);  // a short file shows as an error below
    (void)std::fclose(file);
    char err[kConfigMessageSize];
    QueueState queue;
    if (config_load(live_.config_path.c_str(), *config, err) != 0 ||
        queue_load(queue, live_.queue_path.c_str()) != ErrorCode::Ok ||
        queue_sync_with_config(queue, *live_.config, kNow) != ErrorCode::Ok)
      std::abort();
  }
  ~Server() { std::filesystem::remove_all(directory_); }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Sends a request; `tag` takes the tag of the reply.
  void send(benchmark::State& state, const char* method, const char* path, std::string_view body,
            std::string& tag) {
    ApiRequest http;
    http.method.set_truncated(method);
    http.path.set_truncated(path);
    http.if_match.set_truncated(tag);
    http.client.set_truncated("127.0.0.1");
    http.body = body;
    api_route(live_, reply_, {http, "bench", TokenRole::Admin, kNow});
    if (reply_.status != 200) state.SkipWithError("the request was refused");
    tag = reply_.etag.view();
    benchmark::DoNotOptimize(reply_.body.data());
  }

 private:
  std::string directory_;
  LiveState live_;
  ApiReply reply_;
};

void BM_GetInfo(benchmark::State& state) {
  Server server;
  std::string tag;
  for (auto _ : state) server.send(state, "GET", "/api/v1/info", {}, tag);
}
BENCHMARK(BM_GetInfo)->Unit(benchmark::kMicrosecond);

void BM_GetJobsPageOf256(benchmark::State& state) {
  Server server;
  std::string tag;
  for (auto _ : state) server.send(state, "GET", "/api/v1/jobs", {}, tag);
}
BENCHMARK(BM_GetJobsPageOf256)->Unit(benchmark::kMicrosecond);

void BM_PutOneJobOf256(benchmark::State& state) {
  Server server;
  std::string tag;
  server.send(state, "GET", "/api/v1/info", {}, tag);
  int round = 0;
  for (auto _ : state) {
    const std::string body = "{\"timeout_seconds\":" + std::to_string(++round) + "}";
    server.send(state, "PUT", "/api/v1/jobs/job-128", body, tag);
  }
}
BENCHMARK(BM_PutOneJobOf256)->Unit(benchmark::kMillisecond);

void BM_LineDiffOfLongTexts(benchmark::State& state) {
  std::string before;
  std::string after;
  for (std::size_t i = 0; i < kMaxDiffLines; ++i) {
    before += "key-" + std::to_string(i) + "=old\n";
    after += "key-" + std::to_string(i % 3 == 0 ? i : i + 5000) + "=old\n";
  }
  for (auto _ : state) benchmark::DoNotOptimize(line_diff(before, after).size());
}
BENCHMARK(BM_LineDiffOfLongTexts)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace orv
