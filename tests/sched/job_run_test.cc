#include "sched/job_run.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "common/files.h"
#include "sched/job_log.h"
#include "sched/queue_file.h"
#include "sched/run_now.h"
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
  RunResult run(const RunServices* services = nullptr) {
    ScopedFd lock = queue_lock(queue_.path.c_str());
    const RunResult result = run_job(job_, settings_, queue_, lock, services, result_);
    EXPECT_TRUE(lock.valid());
    return result;
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
  struct Case {
    const char* tool;
    RunResult result;
    JobState state;
    int exit_code;
  };
  static constexpr Case kCases[] = {
      {"echo fine; printf 'a\\000b' >&2", RunResult::Done, JobState::Done, 0},
      {"exit 75", RunResult::Busy, JobState::Pending, 75},
      {"exit 1", RunResult::Failed, JobState::Failed, 1},
      {"kill -9 $$", RunResult::Failed, JobState::Failed, -1},
  };
  for (const Case& c : kCases) {
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

// What others see and do while the job runs.
struct Onlooker {
  std::string queue_path;
  std::string log_dir;
  CancelSlot slot;
  JobState seen = JobState::Pending;
  std::uint32_t runner = 0;
  bool log_in_use = false;
  int calls = 0;
};

TEST_F(JobRunTest, LeavesTheQueueToOthersMeanwhileAndCanBeCancelled) {
  tool("exec sleep 60");
  Onlooker onlooker;
  onlooker.queue_path = queue_.path;
  onlooker.log_dir = settings_.job_log_dir;
  ASSERT_TRUE(onlooker.slot.cancelled_by.set("stale"));
  onlooker.slot.cancel_requested = true;  // left over from nobody knows when: must not count
  const RunServices services{
      [](void* context) {
        auto& self = *static_cast<Onlooker*>(context);
        if (++self.calls > 1) return;
        const ScopedFd lock = queue_lock(self.queue_path.c_str());  // would wait for ever
        QueueState seen;
        ASSERT_EQ(queue_load(seen, self.queue_path.c_str()), ErrorCode::Ok);
        self.seen = record_state(*queue_find(seen, "nightly"));
        self.log_in_use = job_log_in_use(
            job_log_path(self.log_dir + "/nightly", queue_find(seen, "nightly")->started_at));
        self.runner = queue_get_runner_pid(*queue_find(seen, "nightly"));
        QueueRecord other;
        record_set_name(other, "other");
        ASSERT_EQ(queue_upsert(seen, other), ErrorCode::Ok);
        EXPECT_EQ(self.slot.job, "nightly");
        self.slot.cancel_requested = true;
        EXPECT_TRUE(self.slot.cancelled_by.set("ops"));
      },
      nullptr, &onlooker, &onlooker.slot};
  EXPECT_EQ(run(&services), RunResult::Failed);
  EXPECT_EQ(onlooker.seen, JobState::Running);
  EXPECT_TRUE(onlooker.log_in_use);
  EXPECT_FALSE(job_log_in_use(result_.log_path.c_str()));
  EXPECT_EQ(onlooker.runner, static_cast<std::uint32_t>(::getpid()));
  EXPECT_NE(queue_find(queue_, "other"), nullptr) << "what others saved meanwhile is kept";
  EXPECT_TRUE(onlooker.slot.job.empty());
  EXPECT_FALSE(onlooker.slot.cancel_requested);
  EXPECT_TRUE(log().ends_with(job_log_trailer(result_.finished, -1, false, "API token ops")));
}

}  // namespace
}  // namespace orv
