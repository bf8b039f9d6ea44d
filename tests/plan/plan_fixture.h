// A server for the tests of orv_plan: a configuration, a queue as a daemon would have it, and job
// logs, at a moment that the test chooses.
#ifndef ORV_TESTS_PLAN_PLAN_FIXTURE_H_
#define ORV_TESTS_PLAN_PLAN_FIXTURE_H_

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <string_view>

#include "plan/plan.h"
#include "sched/job_log.h"
#include "sched/queue_schedule.h"
#include "support/parsed.h"
#include "support/support.h"

namespace orv::test {

inline constexpr std::int64_t kMonday = 1796601600;  // 2026-12-07 00:00:00 UTC
inline constexpr std::int64_t kHour = 3600;
inline constexpr std::int64_t kDay = 86400;

class PlanTest : public ::testing::Test {
 protected:
  // Loads the configuration; the queue is as a daemon has it that begins at `now`.
  void start(std::string_view text, std::int64_t now = kMonday) {
    std::array<char, kConfigMessageSize> err{};
    ASSERT_EQ(config_parse(text, "test.cfg", plan_.config, err), 0) << err.data();
    plan_.config_path = dir_.file("cfg");
    plan_.queue_path = dir_.file("queue");
    plan_.job_log_dir = dir_.file("logs");
    plan_.now = now;
    plan_.seen.path = plan_.queue_path;
    queue_view_with_config(plan_.seen, plan_.config, now);
    settle_queue(plan_);
  }
  const Job& job(const char* name) { return *find_job(plan_.config, name); }
  // A record of the queue file; settle() carries it over.
  QueueRecord& record(const char* name) { return *queue_find(plan_.seen, name); }
  void settle() { settle_queue(plan_); }

  // The log of a run that began at `begin` and took `seconds`; with less than 0 it has no end.
  std::string log(const char* name, std::int64_t begin, std::int64_t seconds, int exit_code = 0,
                  std::string_view output = "working\n") {
    const std::array<const char*, 2> argv = {"tool", nullptr};
    std::string text = job_log_header(job(name), argv, begin) + std::string(output);
    if (seconds >= 0) text += job_log_trailer(begin + seconds, exit_code, false, nullptr);
    const std::string path = job_log_path(std::string("logs/") + name, begin);
    return dir_.write(path, text);
  }

  ScopedTimeZone zone_{"UTC"};
  TempDir dir_;
  Plan plan_;
};

}  // namespace orv::test

#endif  // ORV_TESTS_PLAN_PLAN_FIXTURE_H_
