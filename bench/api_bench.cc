// The API's router: what a request costs behind authentication, by the number of jobs, with all
// files in memory.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>

#include "api/line_diff.h"
#include "api/router.h"
#include "common/log.h"
#include "sched/dispatch.h"
#include "sched/queue_file.h"

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
  explicit Server(std::size_t jobs) {
    log_init("api_bench", LogLevel::Error);
    char name[] = "/dev/shm/orv_api_bench.XXXXXX";
    directory_ = ::mkdtemp(name);
    live_.config_path = directory_ + "/sched.cfg";
    live_.queue_path = directory_ + "/queue.state";
    live_.job_log_dir = directory_;
    settings_.config_path = live_.config_path;
    settings_.queue_path = live_.queue_path;
    const std::string text = config_of(jobs);
    std::FILE* const file = std::fopen(live_.config_path.c_str(), "w");
    (void)std::fwrite(text.data(), 1, text.size(), file);  // a short file shows as an error below
    (void)std::fclose(file);
    if (queue_load(dispatch_.queue, live_.queue_path.c_str()) != ErrorCode::Ok) std::abort();
    reload();
  }
  ~Server() { std::filesystem::remove_all(directory_); }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // What the daemon does after a change, but for telling the network process.
  void reload() {
    char err[kConfigMessageSize];
    if (dispatch_load_config(dispatch_, err) != 0) std::abort();
    dispatch_adopt_config(dispatch_, std::time(nullptr));
  }

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
  DaemonSettings settings_;
  LiveState live_;
  Dispatch dispatch_{settings_, live_, nullptr, nullptr};
  ApiReply reply_;
};

void BM_GetInfo(benchmark::State& state) {
  Server server(static_cast<std::size_t>(state.range(0)));
  std::string tag;
  for (auto _ : state) server.send(state, "GET", "/api/v1/info", {}, tag);
}
BENCHMARK(BM_GetInfo)->Arg(1)->Arg(256)->Unit(benchmark::kMicrosecond);

void BM_GetJobsPageOf256(benchmark::State& state) {
  Server server(kMaxJobs);
  std::string tag;
  for (auto _ : state) server.send(state, "GET", "/api/v1/jobs", {}, tag);
}
BENCHMARK(BM_GetJobsPageOf256)->Unit(benchmark::kMicrosecond);

// The daemon's reload included.
void BM_PutOneJobOf256(benchmark::State& state) {
  Server server(kMaxJobs);
  std::string tag;
  server.send(state, "GET", "/api/v1/info", {}, tag);
  int round = 0;
  for (auto _ : state) {
    const std::string body = "{\"timeout_seconds\":" + std::to_string(++round) + "}";
    server.send(state, "PUT", "/api/v1/jobs/job-128", body, tag);
    server.reload();
  }
}
// Not more: a second has names for 1,000 copies in the history.
BENCHMARK(BM_PutOneJobOf256)->Unit(benchmark::kMillisecond)->Iterations(400);

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
