#include "sched/job_run.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "common/files.h"
#include "sched/job_log.h"
#include "sched/obstacle.h"
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
  CancelSlot slot;
  JobState seen = JobState::Pending;
  std::uint32_t runner = 0;
  std::string run_file;  // its text
  int calls = 0;
};

TEST_F(JobRunTest, LeavesTheQueueToOthersMeanwhileAndCanBeCancelled) {
  tool("exec sleep 60");
  Onlooker onlooker;
  onlooker.queue_path = queue_.path;
  ASSERT_TRUE(onlooker.slot.cancelled_by.set("stale"));
  onlooker.slot.cancel_requested = true;  // left over from nobody knows when: must not count
  const std::string run_file = queue_.path + ".run." + std::to_string(::getpid());
  const Poller poller{
      [](void* context) {
        auto& self = *static_cast<Onlooker*>(context);
        if (++self.calls > 1) return StopRequest::Terminate;
        const ScopedFd lock = queue_lock(self.queue_path.c_str());  // would wait for ever
        QueueState seen;
        EXPECT_EQ(queue_load(seen, self.queue_path.c_str()), ErrorCode::Ok);
        self.seen = record_state(*queue_find(seen, "nightly"));
        self.run_file =
            std::filesystem::read_symlink(self.queue_path + ".run." + std::to_string(::getpid()));
        EXPECT_FALSE(find_obstacle(seen)) << "one's own run is not in one's way";
        self.runner = queue_get_runner_pid(*queue_find(seen, "nightly"));
        QueueRecord other;
        record_set_name(other, "other");
        EXPECT_EQ(queue_upsert(seen, other), ErrorCode::Ok);
        EXPECT_EQ(self.slot.job, "nightly");
        EXPECT_FALSE(self.slot.cancel_requested);
        EXPECT_TRUE(self.slot.cancelled_by.set("ops"));
        return StopRequest::None;
      },
      nullptr, &onlooker};
  EXPECT_EQ(run(&poller, &onlooker.slot), RunResult::Failed);
  EXPECT_EQ(onlooker.seen, JobState::Running);
  const std::string self = "/" + std::to_string(::getpid()) + ".";
  EXPECT_TRUE(test::contains(onlooker.run_file, self)) << onlooker.run_file;
  EXPECT_FALSE(test::contains(onlooker.run_file, "/0.0/")) << "the tool is known before it starts";
  EXPECT_TRUE(onlooker.run_file.ends_with("/nightly/" + std::string(result_.log_path.view())));
  EXPECT_FALSE(std::filesystem::is_symlink(run_file));
  EXPECT_EQ(onlooker.runner, static_cast<std::uint32_t>(::getpid()));
  EXPECT_NE(queue_find(queue_, "other"), nullptr) << "what others saved meanwhile is kept";
  EXPECT_TRUE(onlooker.slot.job.empty());
  EXPECT_FALSE(onlooker.slot.cancel_requested);
  EXPECT_TRUE(log().ends_with(job_log_trailer(result_.finished, -1, false, "API token ops")));
}

}  // namespace
}  // namespace orv
