#include "sched/job_run.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "sched/job_log.h"
#include "sched/queue_file.h"
#include "support/support.h"

namespace orv {
namespace {

using test::ScopedEnv;
using test::TempDir;

class JobRunTest : public ::testing::Test {
 protected:
  JobRunTest() {
    EXPECT_TRUE(job_.name.set("nightly"));
    EXPECT_TRUE(job_.profile.set("p"));
    settings_.job_log_dir = dir_.file("logs");
    EXPECT_EQ(queue_load(queue_, dir_.file("queue").c_str()), ErrorCode::Ok);
  }
  void tool(std::string_view body) { dir_.script("bin/orv_agent", body); }
  RunResult run(const Poller* poller = nullptr, CancelSlot* slot = nullptr) {
    ScopedFd lock = queue_lock(queue_.path.c_str());
    result_ = run_job(job_, settings_, queue_, lock, poller, slot);
    EXPECT_TRUE(lock.valid());
    return result_.result;
  }
  [[nodiscard]] const QueueRecord& record() const { return *queue_find(queue_, "nightly"); }
  [[nodiscard]] std::string log() const { return test::read_file(result_.log_path.c_str()); }

  TempDir dir_;
  ScopedEnv path_{"PATH", dir_.file("bin") + ":/usr/bin:/bin"};
  Job job_;
  JobRunSettings settings_;
  QueueState queue_;
  JobRunResult result_;
};

TEST_F(JobRunTest, TurnsTheExitCodeIntoAResult) {
  static constexpr struct {
    const char* tool;
    RunResult result;
    JobState state;
    int exit_code;
  } kCases[] = {
      {"echo fine; printf 'a\\000b' >&2", RunResult::Done, JobState::Done, 0},
      {"exit 75", RunResult::Busy, JobState::Pending, 75},
      {"exit 1", RunResult::Failed, JobState::Failed, 1},
      {"kill -9 $$", RunResult::Failed, JobState::Failed, -1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.tool);
    tool(c.tool);
    std::filesystem::remove_all(dir_.file("logs"));
    EXPECT_EQ(run(), c.result);
    EXPECT_EQ(result_.exit_code, c.exit_code);
    EXPECT_EQ(record_state(record()), c.state);
    EXPECT_EQ(record().exit_code, c.exit_code);
    EXPECT_EQ(queue_get_runner_pid(record()), 0U);
    EXPECT_EQ(record().next_run, kNever) << "a record made by the run has no time";
    EXPECT_EQ(log().find("job: nightly\nargv: orv_agent --name p\nstart_unix: "), 0U);
    EXPECT_TRUE(log().ends_with(job_log_trailer(result_.finished, c.exit_code, false, nullptr)));
  }
}

TEST_F(JobRunTest, FailsARunThatTimedOutWhateverItsExitCode) {
  tool("trap 'exit 0' TERM; while :; do sleep 0.05; done");
  settings_.timeout_s = 1;
  EXPECT_EQ(run(), RunResult::Failed);
  EXPECT_TRUE(result_.timed_out);
  EXPECT_EQ(record().exit_code, 0);
  EXPECT_EQ(record_state(record()), JobState::Failed);
}

TEST_F(JobRunTest, CanBeCancelledButNotByAnEarlierRequest) {
  tool("exec sleep 60");
  struct Client {
    CancelSlot slot;
    int calls = 0;
  } client;
  ASSERT_TRUE(client.slot.cancelled_by.set("stale"));
  client.slot.cancel_requested = true;  // left over from nobody knows when: must not count
  const Poller poller{[](void* context) {
                        auto& self = *static_cast<Client*>(context);
                        if (++self.calls > 1) return StopRequest::Terminate;
                        EXPECT_EQ(self.slot.job, "nightly");
                        EXPECT_FALSE(self.slot.cancel_requested);
                        EXPECT_TRUE(self.slot.cancelled_by.set("ops"));
                        return StopRequest::None;
                      },
                      nullptr, &client};
  EXPECT_EQ(run(&poller, &client.slot), RunResult::Failed);
  EXPECT_TRUE(client.slot.job.empty());
  EXPECT_FALSE(client.slot.cancel_requested);
  EXPECT_TRUE(log().ends_with(job_log_trailer(result_.finished, -1, false, "API token ops")));
}

}  // namespace
}  // namespace orv
