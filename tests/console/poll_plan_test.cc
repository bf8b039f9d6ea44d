#include "console/poll_plan.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace orv {
namespace {

// A server of memory: it answers what a plan asks and counts the requests.
class PlayedServer {
 public:
  PollPlan plan{"berlin"};
  std::string etag = "e1";
  std::string running = "null";
  std::map<std::string, std::pair<int, int>> jobs;  // last run and finish
  std::map<std::string, int> asked;                 // by path
  int requests = 0;
  int jobs_per_page = 50;
  bool down = false;

  // Lets the plan ask until `until_ms`, as its driver would.
  void play(std::int64_t until_ms) {
    while (now_ms_ <= until_ms) {
      if (const auto ask = plan.next(now_ms_)) {
        ++requests;
        ++asked[ask->path];
        plan.answered(*ask, answer(*ask), now_ms_, 1'000'000 + now_ms_ / 1000);
      } else {
        now_ms_ = std::max(now_ms_ + 1, plan.next_at_ms(now_ms_));
      }
    }
  }
  [[nodiscard]] std::string shown() const { return known_server_json(plan.known(), false); }

 private:
  std::string job(const std::string& name) {
    const auto [start, finish] = jobs[name];
    return R"({"name":")" + name + R"(","state":{"status":")" +
           (running == "\"" + name + "\"" ? "RUNNING" : "DONE") + R"(","last_run":)" +
           std::to_string(start) + R"(,"last_finish":)" + std::to_string(finish) + "}}";
  }
  std::string page(const std::string& query) {
    const int offset = std::stoi(query.substr(query.find("offset=") + 7));
    std::string list;
    int index = 0;
    for (const auto& [name, times] : jobs) {
      if (index >= offset && index < offset + jobs_per_page) list += "," + job(name);
      ++index;
    }
    const int next = offset + jobs_per_page;
    return R"({"config_etag":")" + etag + R"(","jobs":[)" + (list.empty() ? "" : list.substr(1)) +
           R"(],"next_offset":)" + (next < index ? std::to_string(next) : "null") + "}";
  }
  ClientReply answer(const Ask& ask) {
    ClientReply reply;
    if (down) {
      reply.error = "refused";
      return reply;
    }
    reply.kind = ReplyKind::Signed;
    reply.status = 200;
    if (ask.kind == AskKind::Info) {
      reply.body = R"({"config_etag":")" + etag + R"(","time":)" + std::to_string(now_ms_) +
                   R"(,"running_job":)" + running + R"(,"run_queue":[]})";
    } else if (ask.kind == AskKind::Page) {
      reply.body = page(ask.query);
    } else if (ask.kind == AskKind::Job) {
      reply.body = R"({"config_etag":")" + etag + R"(","job":)" + job(ask.job) + "}";
    } else {
      const auto [start, finish] = jobs[ask.job];
      reply.body = R"({"runs":[{"start":)" + std::to_string(start) +
                   R"(,"finished":true,"finish":)" + std::to_string(finish) +
                   R"(,"exit_code":0},{"start":1,"finished":false,"finish":null}]})";
    }
    return reply;
  }
  std::int64_t now_ms_ = 5'000'000;
};

constexpr std::int64_t kStart = 5'000'000;

TEST(PollPlan, AsksUnderHalfARequestASecondHoweverManyJobs) {
  for (const int count : {0, 3, 49, 256}) {
    SCOPED_TRACE(count);
    PlayedServer server;
    for (int i = 0; i < count; ++i) server.jobs["job" + std::to_string(i)] = {1000 + i, 2000 + i};
    server.play(kStart + 600'000);
    EXPECT_LT(server.requests, 300);
    EXPECT_EQ(server.plan.known().jobs.size(), static_cast<std::size_t>(count));
    EXPECT_GE(server.asked["/api/v1/info"], 115);
  }
}

TEST(PollPlan, AsksForTheRunsOfAJobAgainOnlyWhenItsLastRunChanged) {
  PlayedServer server;
  server.jobs = {{"a b", {1000, 2000}}, {"never", {0, 0}}, {"running", {2500, 0}}};
  server.running = "\"running\"";
  server.play(kStart + 120'000);
  EXPECT_EQ(server.asked["/api/v1/jobs/running/runs"], 1);
  EXPECT_EQ(server.asked["/api/v1/jobs/a%20b/runs"], 1);
  EXPECT_EQ(server.asked["/api/v1/jobs/never/runs"], 0);
  EXPECT_NE(server.shown().find(R"("runs":{"a b":[[1000,2000,"done"],[1,null,"unfinished"]])"),
            std::string::npos);
  server.jobs["a b"] = {3000, 4000};
  server.jobs["running"] = {2500, 2900};
  server.running = "null";
  server.play(kStart + 240'000);
  EXPECT_EQ(server.asked["/api/v1/jobs/running/runs"], 2);
  EXPECT_EQ(server.asked["/api/v1/jobs/a%20b/runs"], 2);
}

TEST(PollPlan, LooksAtSingleJobsOfALongListWhenTheyBeginAndEnd) {
  PlayedServer server;
  for (int i = 0; i < 120; ++i) server.jobs["job" + std::to_string(100 + i)] = {0, 0};
  server.play(kStart + 100'000);
  server.running = "\"job105\"";
  server.jobs["job105"] = {9000, 0};
  server.play(kStart + 112'000);
  EXPECT_EQ(server.asked["/api/v1/jobs/job105"], 1);
  EXPECT_NE(server.shown().find(R"("last_run":9000)"), std::string::npos);
}

TEST(PollPlan, NoTimeAloneMakesANewVersion) {
  PlayedServer server;
  server.jobs = {{"a", {1000, 2000}}};
  server.play(kStart + 60'000);
  const std::uint64_t version = server.plan.known().version;
  server.play(kStart + 200'000);
  EXPECT_EQ(server.plan.known().version, version);
  server.etag = "e2";
  server.play(kStart + 206'000);
  EXPECT_GT(server.plan.known().version, version);
}

TEST(PollPlan, TriesAServerThatIsAwayWithAPauseThatGrowsToAMinute) {
  PlayedServer server;
  server.jobs = {{"a", {1000, 2000}}};
  server.play(kStart + 20'000);
  server.down = true;
  const int before = server.requests;
  server.play(kStart + 620'000);
  EXPECT_LE(server.requests - before, 15);
  EXPECT_FALSE(server.plan.known().reachable);
  EXPECT_EQ(server.plan.known().error, "refused");
  EXPECT_TRUE(server.plan.known().jobs_known);  // what was known still is
  server.down = false;
  server.play(kStart + 700'000);
  EXPECT_TRUE(server.plan.known().reachable);
  EXPECT_TRUE(server.plan.known().error.empty());
}

TEST(PollPlan, BelievesNoReplyThatIsUnsignedOrNoJson) {
  constexpr const char* kWait = R"({"error":{"code":"too_many_failures","message":"wait"}})";
  constexpr const char* kNoJson = "the answer is no JSON: unexpected character at byte 0";
  // clang-format off
  static constexpr struct { ReplyKind kind; int status; const char *body, *error; bool reachable, trusted; } kCases[] = {
      {ReplyKind::Unsigned,    429, kWait,                      "429 too_many_failures: wait", true,  true},
      {ReplyKind::Unsigned,    200, R"({"config_etag":"x"})",   "200",                         true,  true},
      {ReplyKind::Signed,      200, "<html>",                   kNoJson,                       true,  true},
      {ReplyKind::NotTrusted,  0,   "",                         "why",                         true,  false},
      {ReplyKind::Unreachable, 0,   "",                         "why",                         false, false},
  };
  // clang-format on
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.error);
    PollPlan plan("berlin");
    const auto ask = plan.next(kStart);
    ASSERT_TRUE(ask);
    ClientReply reply;
    reply.kind = c.kind;
    reply.status = c.status;
    reply.body = c.body;
    reply.error = c.status == 0 ? "why" : "";
    reply.retry_after_s = c.status == 429 ? 300 : 0;
    plan.answered(*ask, reply, kStart, 1'000'000);
    EXPECT_EQ(plan.known().reachable, c.reachable);
    EXPECT_EQ(plan.known().trusted, c.trusted);
    EXPECT_EQ(plan.known().error, c.error);
    EXPECT_TRUE(plan.known().info_json.empty());
    if (c.status == 429) {
      EXPECT_EQ(plan.next_at_ms(kStart), kStart + 300'000);
    }
  }
}

}  // namespace
}  // namespace orv
