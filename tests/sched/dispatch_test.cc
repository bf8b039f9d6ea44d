#include "sched/dispatch.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <memory>
#include <string>

#include "sched/job_log.h"
#include "sched/process.h"
#include "sched/queue_file.h"
#include "sched/run_file.h"
#include "sched/run_now.h"
#include "support/support.h"

namespace orv {
namespace {

using namespace std::chrono_literals;
using test::contains;
using test::ScopedEnv;
using test::TempDir;

class DispatchTest : public ::testing::Test {
 protected:
  // The tool writes its profile to "runs" and ends as the file "exit-<profile>" says.
  DispatchTest() {
    dir_.script("bin/orv_agent", "echo \"$2\" >>" + dir_.file("runs") + "; read code <" +
                                     dir_.file("exit-$2") + " && exit $code; exit 0");
    settings_.config_path = dir_.file("cfg");
    settings_.queue_path = dir_.file("queue");
    settings_.run.job_log_dir = dir_.file("logs");
  }
  void configure(std::string_view text) { dir_.write("cfg", text); }
  void start() {
    dispatch_ = std::make_unique<Dispatch>(settings_, live_, nullptr, nullptr);
    ASSERT_EQ(queue_load(dispatch_->queue, settings_.queue_path.c_str()), ErrorCode::Ok);
    char err[kConfigMessageSize] = "";
    dispatch_->identity = file_identity(settings_.config_path.c_str());
    ASSERT_EQ(dispatch_load_config(*dispatch_, err), 0) << err;
    dispatch_adopt_config(*dispatch_, std::time(nullptr));
  }
  // One cycle of passes; what it logged.
  std::string cycle(std::size_t earlier_starts = 0) {
    dispatch_->passes_since_wait = dispatch_->starts_by_dependency = earlier_starts;
    ::testing::internal::CaptureStderr();
    while (dispatch_pass(*dispatch_) == PassEnd::Again) {
    }
    EXPECT_FALSE(dispatch_->lock.valid());
    return ::testing::internal::GetCapturedStderr();
  }
  void request(std::string_view job) {
    RunRequest r;
    EXPECT_TRUE(r.job.set(job));
    EXPECT_TRUE(r.token.set("ops"));
    live_.run_queue.push_back(r);
  }
  QueueRecord saved(std::string_view job) {
    QueueState queue;
    EXPECT_EQ(queue_load_readonly(queue, settings_.queue_path.c_str()), ErrorCode::Ok);
    const QueueRecord* record = queue_find(queue, job);
    return record != nullptr ? *record : QueueRecord();
  }
  [[nodiscard]] std::string runs() const { return test::read_file(dir_.file("runs")); }

  TempDir dir_;
  ScopedEnv path_{"PATH", dir_.file("bin") + ":/usr/bin:/bin"};
  test::Program other_{{"sleep", "100"}};  // another process
  DaemonSettings settings_;
  LiveState live_;
  std::unique_ptr<Dispatch> dispatch_;
};

TEST_F(DispatchTest, RunsRequestsFirstThenDueJobsInFileOrderAndEachOnce) {
  configure(
      "[prune]\nprofile=prune\nafter=verify\nafter-mode=finished\n[verify]\nprofile=verify\n"
      "after=backup\n[idle]\nprofile=idle\nschedule=* * * * *\n[backup]\nprofile=backup\n"
      "once=1\n[late]\nprofile=late\nonce=1\n[hand]\nprofile=hand\nonce=4000000000\n");
  dir_.write("exit-verify", "3\n");
  dir_.write("exit-late", "1\n");
  start();
  request("hand");
  request("gone");
  const std::string log = cycle();
  EXPECT_EQ(runs(), "hand\nbackup\nverify\nprune\nlate\n");
  EXPECT_TRUE(contains(log, "INFO  orv_sched: job 'hand' started on request of API token 'ops'\n"));
  EXPECT_TRUE(contains(log, "WARN  orv_sched: API run request for job 'gone' dropped: no such"));
  EXPECT_EQ(saved("hand").next_run, 4000000000) << "an API run is on demand";
  EXPECT_EQ(saved("late").next_run, kNever) << "a once job runs once, also when it failed";
  EXPECT_EQ(saved("verify").after_stamp, saved("backup").finished_at);
  EXPECT_GT(saved("idle").next_run, std::time(nullptr) - 60);
  cycle();
  EXPECT_EQ(runs(), "hand\nbackup\nverify\nprune\nlate\n") << "nothing is due any more";
}

TEST_F(DispatchTest, TriesABusyJobAgainLaterWithoutLosingWhatItWaitedFor) {
  configure("[dep]\nprofile=dep\nonce=1\n[a]\nprofile=a\nafter=dep\n");
  dir_.write("exit-a", "75\n");
  settings_.busy_retry_s = 1000;
  start();
  cycle();
  cycle();
  EXPECT_EQ(runs(), "dep\na\n");
  EXPECT_EQ(record_state(saved("a")), JobState::Pending);
  EXPECT_GE(saved("a").next_run, saved("a").finished_at + 1000);
  EXPECT_EQ(saved("a").after_stamp, 0);
}

TEST_F(DispatchTest, FollowsTheConfigurationFileAndKeepsTheOldOneWhenItIsBroken) {
  configure("[a]\nprofile=a\nschedule=0 0 1 1 *\n");
  start();
  request("a");
  cycle();
  const QueueRecord before = saved("a");
  configure("broken\n");
  EXPECT_TRUE(contains(cycle(), "ERROR orv_sched: config reload failed, keeping previous"));
  EXPECT_EQ(cycle(), "") << "not tried again until it changes";
  EXPECT_EQ(live_.config->jobs.size(), 1U);
  configure("[b]\nprofile=b\nafter=a\n[a]\nprofile=a\nschedule=0 0 2 1 *\n");
  EXPECT_TRUE(contains(cycle(), "INFO  orv_sched: reloaded " + settings_.config_path + "\n"));
  EXPECT_GT(saved("a").next_run, before.next_run) << "an edited schedule counts from now";
  EXPECT_EQ(record_state(saved("b")), JobState::Done) << "its dependency is done already";
  char err[kConfigMessageSize] = "";
  const SnapshotPtr proved = current_snapshot(settings_.config_path, live_.snapshot, err);
  live_.config_changed = true;
  EXPECT_TRUE(contains(cycle(), "reloaded"));
  EXPECT_EQ(live_.config, proved->config) << "what the API has parsed is not parsed again";
  std::filesystem::remove(settings_.config_path);
  EXPECT_TRUE(contains(cycle(), "config reload failed"));
  live_.config_changed = true;
  EXPECT_TRUE(contains(cycle(), "config reload failed")) << "the API's flag asks for a load";
  EXPECT_EQ(live_.config->jobs.size(), 2U);
  EXPECT_EQ(runs(), "a\nb\n");
}

TEST_F(DispatchTest, StartsNothingBesideTheRunOfAnotherWhateverTheRecordsSay) {
  configure("[a]\nprofile=a\nonce=1\n[b]\nprofile=b\nonce=1\n");
  start();
  const pid_t sleeper = other_.pid();
  const std::string pid = std::to_string(sleeper);
  const std::string boot = boot_name();
  const std::string live = pid + "." + std::to_string(process_id(sleeper).start);
  const struct {
    std::string tool;  // in the name of a run file
    std::string text;
    const char* line;  // what the pass logs; null: it runs the jobs
  } cases[] = {
      // A renamed job's runner lives; a lost run's tool does; the pid of neither, but that pid
      // again.
      {"", boot + "/" + live + "/old/",
       "INFO  orv_sched: job 'old' is running in another process "},
      {"." + live, boot + "/" + pid + ".1/a//log",
       "WARN  orv_sched: job 'a': the tool of a run whose scheduler is gone is still running "},
      {"." + live, boot + "/" + pid + ".1//", "WARN  orv_sched: job '?': the tool "},
      {"." + pid + ".1", boot + "/" + pid + ".1/a//log", nullptr},
      {"." + live, "00000000/" + live + "/a//log", nullptr},
      {"." + pid + ".2", boot + "/" + live + "/a//log", nullptr},  // its first name would tell
      {"", "nonsense", nullptr},
      {".new", boot + "/" + live + "/a//log", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    const std::string file = settings_.queue_path + ".run.4194304" + c.tool;
    std::filesystem::create_symlink(c.text, file);
    const std::string log = cycle();
    EXPECT_EQ(runs(), c.line == nullptr ? "a\nb\n" : "");
    if (c.line == nullptr) continue;
    EXPECT_TRUE(contains(log, c.line)) << log;
    EXPECT_TRUE(contains(log, "(pid " + pid + (contains(c.text, "//log") ? ", log /log)" : ")") +
                                  " -- no job is started before it ends\n"))
        << log;
    EXPECT_EQ(cycle(), "") << "said once";
    EXPECT_EQ(run_now(*live_.config, dispatch_->queue, "b", settings_.run, false),
              ErrorCode::Unavailable);
    EXPECT_EQ(job_runs_elsewhere(dispatch_->queue, "a"), contains(c.text, "/a/"));
    remove_dead_run_files(settings_.queue_path);
    EXPECT_TRUE(std::filesystem::remove(file)) << "not to be removed by anyone else";
  }
  remove_dead_run_files(settings_.queue_path);
  EXPECT_TRUE(std::filesystem::is_symlink(settings_.queue_path + ".run.4194304.new")) << "not ours";
}

TEST_F(DispatchTest, TriesAgainWhatItCouldNotReadForWantOfDescriptors) {
  configure("[a]\nprofile=a\nonce=4000000000\n");
  start();
  configure("[a]\nprofile=a\nonce=4000000000\n[b]\nprofile=b\nonce=1\n");
  struct rlimit before {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const ScopedFd next(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  const struct rlimit full = {static_cast<rlim_t>(next.get()) + 2, before.rlim_max};
  ::testing::internal::CaptureStderr();  // takes the two that are left
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &full), 0);
  EXPECT_EQ(dispatch_pass(*dispatch_), PassEnd::Wait);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_TRUE(contains(log, "ERROR orv_sched: config reload failed, keeping previous")) << log;
  EXPECT_TRUE(contains(cycle(), "INFO  orv_sched: reloaded "));
  EXPECT_EQ(runs(), "b\n");
}

TEST_F(DispatchTest, RemembersWhatItCannotSave) {
  configure("[a]\nprofile=a\nonce=1\n[b]\nprofile=b\nschedule=0 0 1 1 *\n[c]\nprofile=c\nonce=2\n");
  QueueState queue;
  queue.path = settings_.queue_path;
  QueueRecord other;  // of a time when the clock was ahead
  record_set_name(other, "c");
  record_set_state(other, JobState::Done);
  other.started_at = std::time(nullptr) + 864000;
  other.next_run = 2;
  ASSERT_EQ(queue_upsert(queue, other), ErrorCode::Ok);
  std::filesystem::create_directory(dir_.file("queue.tmp"));  // as bad as a full disk
  start();
  EXPECT_TRUE(contains(cycle(), "ERROR orv_sched: cannot save the queue " + settings_.queue_path +
                                    ": Is a directory -- the changes are kept in memory\n"));
  request("a");
  cycle();
  cycle();
  EXPECT_EQ(runs(), "a\nc\na\n") << "a run that could not be recorded is not repeated";
  EXPECT_EQ(queue_find(queue, "a"), nullptr);
  std::filesystem::remove(dir_.file("queue.tmp"));
  record_set_name(other, "b");  // somebody else runs b and can save
  ASSERT_EQ(queue_upsert(queue, other), ErrorCode::Ok);
  EXPECT_FALSE(contains(cycle(), "ERROR"));
  EXPECT_EQ(record_state(saved("a")), JobState::Done);
  EXPECT_EQ(saved("a").next_run, kNever);
  EXPECT_EQ(saved("b").started_at, other.started_at);
  EXPECT_GT(saved("b").next_run, 2) << "others add runs and no times";
}

TEST_F(DispatchTest, RaisesTheAlarmWhenDependenciesAloneGoOnAndOn) {
  configure("[a]\nprofile=a\nonce=1\n");  // the loader leaves no cycle to have
  start();
  EXPECT_TRUE(contains(cycle(2), "ERROR orv_sched: safety guard tripped in the dispatch loop"));
  EXPECT_EQ(runs(), "");
}

TEST_F(DispatchTest, WarnsOfTimesWithWhichJobsWouldNotRun) {
  configure(
      "[cron]\nschedule=0 0 1 1 *\n[later]\nonce=4000000000\n[past]\nonce=1\n[off]\n"
      "schedule=0 0 1 1 *\nenabled=no\n[hand]\nafter=cron\n[nodate]\nschedule=0 0 31 2 *\n"
      "[beyond]\nschedule=* * * * *\n[retry]\nschedule=* * * * *\n[astray]\nschedule=* * * * *\n"
      "[future]\nonce=1\n"
      "[waits]\nafter=cron\n");
  start();
  const std::int64_t now = std::time(nullptr);
  for (QueueRecord& record : dispatch_->queue.records()) record.next_run = kNever;
  const auto record = [&](const char* job) { return queue_find(dispatch_->queue, job); };
  for (const char* job : {"beyond", "retry", "astray"}) record(job)->next_run = now + 86400;
  record("retry")->started_at = now - 5;
  record("astray")->started_at = record("astray")->finished_at = now + 86300;
  record("future")->started_at = now + 3600;
  record("waits")->after_stamp = now + 3600;
  ::testing::internal::CaptureStderr();
  dispatch_adopt_config(*dispatch_, std::time(nullptr));
  const std::string log = ::testing::internal::GetCapturedStderr();
  const std::pair<const char*, const char*> expected[] = {
      {"cron", "has a schedule, but its next run in the queue is \"never\" -- disable and enable"},
      {"later", "has a once time, but its next run in the queue is \"never\""},
      {"past", nullptr},
      {"off", nullptr},
      {"hand", nullptr},
      {"nodate", "has a schedule that matches no date"},
      {"beyond", "is to run at "},
      {"retry", nullptr},
      {"astray", "is to run at "},
      {"future", "ran last in the future ("},
      {"waits", "has run for a dependency that finished in the future ("},
  };
  for (const auto& [job, text] : expected) {
    const std::string lead = "WARN  orv_sched: job '" + std::string(job) + "' ";
    EXPECT_EQ(contains(log, lead), text != nullptr) << job;
    EXPECT_TRUE(text == nullptr || contains(log, lead + text)) << log;
  }
}

}  // namespace
}  // namespace orv
