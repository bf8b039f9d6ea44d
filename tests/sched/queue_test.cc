#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "sched/queue_file.h"
#include "sched/queue_runner.h"
#include "sched/queue_schedule.h"
#include "support/parsed.h"
#include "support/support.h"

namespace {

bool g_flush_fails = false;

}  // namespace

// The linker leads the calls of fsync() here (--wrap). The names are the linker's.
extern "C" int __real_fsync(int fd);
extern "C" int __wrap_fsync(int fd);
extern "C" int __wrap_fsync(int fd) {
  if (!g_flush_fails) return __real_fsync(fd);
  errno = ENOSPC;
  return -1;
}

namespace orv {
namespace {

using test::contains;
using test::parsed;
using test::stderr_of;
using test::TempDir;

constexpr std::int64_t kNow = 1796601637;  // 2026-12-07 00:00:37 UTC

QueueRecord record_of(std::string_view name, JobState state, std::int64_t finished = 0) {
  QueueRecord record;
  record_set_name(record, name);
  record_set_state(record, state);
  record.finished_at = finished;
  return record;
}

void append_one(QueueState& state, const QueueRecord& record) { state.append({&record, 1}); }

std::string names_of(const QueueState& state) {
  std::string names;
  for (const QueueRecord& record : state.records()) names.append(record_name(record)).append(" ");
  return names;
}

// A process of that name that only waits.
std::unique_ptr<test::Program> process(const TempDir& dir, const std::string& name) {
  std::filesystem::create_symlink("/bin/sleep", dir.file(name));
  auto program = std::make_unique<test::Program>(std::vector<std::string>{dir.file(name), "100"});
  EXPECT_TRUE(test::wait_until(std::chrono::seconds(10), [&] {
    return test::read_file("/proc/" + std::to_string(program->pid()) + "/comm") == name + "\n";
  }));
  return program;
}

TEST(QueueFile, HoldsTheRecordsByteForByte) {
  const TempDir dir;
  const std::string path = dir.file("new/dir/queue");
  QueueState state;
  ASSERT_EQ(queue_load(state, path.c_str()), ErrorCode::Ok);
  EXPECT_EQ(std::filesystem::file_size(path), 0U);
  QueueRecord record = record_of(std::string(130, 'n'), JobState::Running, -2);
  queue_set_runner_pid(record, 0xABCDEF);
  record.schedule_fingerprint = 0x01020304;
  record.next_run = 0x1122334455667788;
  record.exit_code = -1;
  record.after_stamp = 9;
  ASSERT_EQ(queue_upsert(state, record_of(std::string(128, 'n'), JobState::Done)), ErrorCode::Ok);
  ASSERT_EQ(queue_upsert(state, record_of("b", JobState::Done)), ErrorCode::Ok);
  dir.write("new/dir/queue.tmp", std::string(1000, 't'));  // left by a save that was cut short
  ASSERT_EQ(queue_upsert(state, record), ErrorCode::Ok) << "replaces the record of the cut name";
  const std::string bytes = test::read_file(path);
  ASSERT_EQ(bytes.size(), 344U);
  EXPECT_EQ(bytes.substr(0, 128), std::string(127, 'n') + '\0');
  EXPECT_EQ(bytes.substr(128, 16),
            "\x01\xEF\xCD\xAB\x04\x03\x02\x01\x88\x77\x66\x55\x44\x33\x22\x11");
  EXPECT_EQ(bytes.substr(152, 20), "\xFE" + std::string(7, '\xFF') + std::string(4, '\xFF') +
                                       "\x09" + std::string(7, '\0'));
  EXPECT_FALSE(test::exists(path + ".tmp"));

  std::filesystem::resize_file(path, 345);
  ASSERT_EQ(queue_load(state, path.c_str()), ErrorCode::Ok);
  EXPECT_EQ(names_of(state), std::string(127, 'n') + " b ");
  std::filesystem::resize_file(path, 171);
  ASSERT_EQ(queue_reload(state), ErrorCode::Ok);
  EXPECT_TRUE(state.records().empty());
  EXPECT_EQ(queue_find(state, "b"), nullptr);
}

TEST(QueueFile, FailuresKeepWhatThereIs) {
  const TempDir dir;
  const std::string path = dir.file("queue");
  const ScopedFd lock = queue_lock(path.c_str());
  EXPECT_NE(::fcntl(lock.get(), F_GETFD) & FD_CLOEXEC, 0);
  const ScopedFd second(::open((path + ".lock").c_str(), O_RDWR | O_CLOEXEC));
  EXPECT_NE(::flock(second.get(), LOCK_SH | LOCK_NB), 0);
  QueueState state;
  ASSERT_EQ(queue_load(state, path.c_str()), ErrorCode::Ok);
  ASSERT_EQ(queue_upsert(state, record_of("a", JobState::Done)), ErrorCode::Ok);
  g_flush_fails = true;
  EXPECT_EQ(queue_upsert(state, record_of("b", JobState::Done)), ErrorCode::IoError);
  g_flush_fails = false;
  EXPECT_EQ(test::read_file(path).size(), kRecordSize);
  std::filesystem::remove(path + ".tmp");
  std::filesystem::create_directory(path + ".tmp");
  EXPECT_EQ(queue_upsert(state, record_of("b", JobState::Done)), ErrorCode::IoError);
  EXPECT_EQ(test::read_file(path).size(), kRecordSize);
  std::filesystem::remove(path);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(queue_reload(state), ErrorCode::IoError) << "nothing to wait for, nor an empty queue";
  std::filesystem::remove(path);
  std::filesystem::create_directories(path + "/full");  // neither read nor renamed over
  EXPECT_EQ(queue_reload(state), ErrorCode::IoError);
  EXPECT_EQ(names_of(state), "a b ");
  std::filesystem::remove(path + ".tmp");
  EXPECT_EQ(queue_save(state), ErrorCode::IoError);

  const std::string below_a_file = dir.write("file", "") + "/queue";
  QueueState other;
  EXPECT_EQ(queue_load(other, below_a_file.c_str()), ErrorCode::IoError) << "this is not missing";
  EXPECT_EQ(queue_load_readonly(other, below_a_file.c_str()), ErrorCode::Ok);
  EXPECT_EQ(queue_load_readonly(other, dir.file("none/queue").c_str()), ErrorCode::Ok);
  EXPECT_FALSE(test::exists(dir.file("none")));
  const std::string log =
      stderr_of([&] { EXPECT_FALSE(queue_lock(below_a_file.c_str()).valid()); });
  EXPECT_TRUE(
      contains(log, "orv_sched: cannot open queue lock " + below_a_file + ".lock: Not a dir"));
}

TEST(QueueFind, TakesTheFirstOfANameWhateverTheFileHolds) {
  QueueState state;
  for (int i = 0; i < 300; ++i) {
    append_one(state, record_of("job" + std::to_string(i % 200), JobState::Done, i));
  }
  state.records()[7].name.fill('x');  // a damaged record without its NUL
  for (int i = 0; i < 200; ++i) {
    const QueueRecord* const found = queue_find(state, "job" + std::to_string(i));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->finished_at, i == 7 ? 207 : i);
  }
  EXPECT_EQ(queue_find(state, std::string(128, 'x')), &state.records()[7]);
  EXPECT_EQ(queue_find(state, "job"), nullptr);
  QueueState copy = state;
  EXPECT_EQ(queue_find(copy, "job3"), &copy.records()[3]);
}

TEST(QueueRunner, OnlyALivingSchedulerOtherThanThisOneCounts) {
  const TempDir dir;
  const auto scheduler = process(dir, "orv_sched");
  const auto network = process(dir, "orv_sched_net");
  const auto runner = static_cast<std::uint32_t>(scheduler->pid());
  std::array<char, 16> own_name{};
  ::prctl(PR_GET_NAME, own_name.data());
  ::prctl(PR_SET_NAME, "orv_sched");  // its own pid does not count even so
  QueueState state;
  state.path = dir.file("queue");
  const auto add = [&](const char* name, JobState job_state, std::uint32_t pid) {
    append_one(state, record_of(name, job_state));
    queue_set_runner_pid(state.records().back(), pid);
  };
  add("done", JobState::Done, runner);
  add("none", JobState::Running, 0);
  add("wide", JobState::Running, 0x1000000 + runner);
  add("self", JobState::Running, static_cast<std::uint32_t>(::getpid()));
  add("network", JobState::Running, static_cast<std::uint32_t>(network->pid()));
  add("gone", JobState::Running, kMaxRunnerPid);
  add("alive", JobState::Running, runner);
  EXPECT_EQ(queue_find_live_runner(state), &state.records().back());
  const std::string log =
      stderr_of([&] { EXPECT_EQ(queue_sweep_stale_runners(state), ErrorCode::Ok); });
  ::prctl(PR_SET_NAME, own_name.data());
  EXPECT_TRUE(contains(log,
                       "orv_sched: job 'gone' is RUNNING in the queue file, but its runner "
                       "(pid 16777215) is gone -- marked FAILED\n"));
  for (const QueueRecord& record : state.records()) {
    const std::string_view name = record_name(record);
    const std::uint32_t kept = runner << 8 | (name == "done" ? 2U : 1U);
    EXPECT_EQ(record.state_and_pid, name == "done" || name == "alive" ? kept : 3U) << name;
  }
  EXPECT_EQ(test::read_file(state.path).size(), state.records().size() * kRecordSize);
  std::filesystem::remove(state.path);
  EXPECT_EQ(queue_sweep_stale_runners(state), ErrorCode::Ok);
  EXPECT_FALSE(test::exists(state.path)) << "nothing changed, nothing to save";
}

TEST(QueueReconcile, FollowsTheConfiguration) {
  const test::ScopedTimeZone zone("UTC");
  QueueState state;
  const auto first = parsed(
      "[a]\nschedule=0 1 * * *\n[b]\nonce=1\n[c]\nafter=a\n"
      "[d]\nschedule=0 1 * * *\nenabled=no\n");
  EXPECT_TRUE(queue_reconcile(state, *first, kNow, true));
  EXPECT_FALSE(queue_reconcile(state, *first, kNow, false));
  ASSERT_EQ(names_of(state), "a b c d ");
  EXPECT_EQ(state.records()[0].next_run, kNow - 37 + 3600);
  EXPECT_EQ(state.records()[0].exit_code, -1);
  EXPECT_EQ(state.records()[1].next_run, 1);
  EXPECT_EQ(state.records()[2].next_run, kNever);
  EXPECT_EQ(state.records()[3].next_run, kNever);
  EXPECT_EQ(record_state(state.records()[3]), JobState::Disabled);
  EXPECT_EQ(state.records()[3].schedule_fingerprint, 0U);

  record_set_state(state.records()[0], JobState::Running);
  queue_set_runner_pid(state.records()[0], 77);
  const auto second = parsed(
      "[new]\nonce=5\n[d]\nschedule=0 1 * * *\n[c]\nafter=a\n"
      "[a]\nschedule=0 1 * * *\nenabled=no\n");
  const std::string log =
      stderr_of([&] { EXPECT_TRUE(queue_reconcile(state, *second, kNow, false)); });
  EXPECT_TRUE(contains(log, "orv_sched: new job 'new' added to the queue"));
  EXPECT_TRUE(contains(log, "orv_sched: job 'b' removed from config, dropping its queue record"));
  ASSERT_EQ(names_of(state), "a c d new ");
  EXPECT_EQ(state.records()[0].state_and_pid, 77U << 8 | 4U) << "disabling leaves the pid";
  EXPECT_EQ(record_state(state.records()[2]), JobState::Pending);
  EXPECT_EQ(state.records()[2].next_run, state.records()[0].next_run);
  EXPECT_EQ(state.records()[2].schedule_fingerprint, schedule_fingerprint(second->jobs[1]));
}

TEST(QueueReconcile, GivesAJobThatWasFirstRunByHandItsFirstTime) {
  const test::ScopedTimeZone zone("UTC");
  const auto config = parsed(
      "[busy]\nschedule=0 1 * * *\n[later]\nonce=4000000000\n[past]\nonce=1\n[hand]\nafter=busy\n"
      "[nodate]\nschedule=0 0 31 2 *\n[known]\nschedule=0 1 * * *\n"
      "[edited]\nschedule=0 1 * * *\n");
  QueueState state;
  for (const Job& job : config->jobs) {
    QueueRecord record = record_of(job.name.view(), JobState::Pending);  // its tool was busy
    record.started_at = 5;
    record.next_run = kNever;
    if (job.name == "known") record.schedule_fingerprint = schedule_fingerprint(job);
    if (job.name == "edited") record.schedule_fingerprint = 1;  // while it ran
    append_one(state, record);
  }
  const std::string log =
      stderr_of([&] { EXPECT_TRUE(queue_reconcile(state, *config, kNow, false)); });
  EXPECT_TRUE(contains(log,
                       "INFO  orv_sched: job 'busy' was first run by hand: its next run is at "
                       "2026-12-07 01:00:00\n"));
  EXPECT_EQ(queue_find(state, "busy")->next_run, kNow - 37 + 3600);
  EXPECT_EQ(queue_find(state, "edited")->next_run, kNow - 37 + 3600);
  EXPECT_EQ(queue_find(state, "later")->next_run, 4000000000);
  for (const char* name : {"past", "hand", "nodate", "known"}) {
    EXPECT_EQ(queue_find(state, name)->next_run, kNever) << name;
  }
  EXPECT_FALSE(queue_reconcile(state, *config, kNow, false));
}

TEST(QueueRetry, IsNoneWhenItIsFurtherAheadThanRetriesAreSet) {
  static constexpr std::int64_t kRetry = 600;
  static constexpr struct {
    const char* settings;
    JobState state;
    std::int64_t next_run;
    bool dropped;
  } kCases[] = {
      {"after=b", JobState::Pending, kNow + kRetry + 1, true},
      {"after=b", JobState::Pending, kNow + kRetry, false},
      {"after=b", JobState::Pending, kNever, false},
      {"after=b", JobState::Done, kNow + kRetry + 1, false},  // nothing waits for it
      {"after=b", JobState::Running, kNow + kRetry + 1, false},
      {"after=b\nschedule=0 1 * * *", JobState::Pending, kNow + kRetry + 1, false},
  };
  for (const auto& c : kCases) {
    const auto config = parsed("[b]\nonce=1\n[a]\n" + std::string(c.settings) + "\n");
    QueueState state;
    append_one(state, record_of("a", c.state));
    state.records()[0].started_at = 5;
    state.records()[0].next_run = c.next_run;
    (void)queue_drop_far_retries(state, *config, kNow, kRetry);
    EXPECT_EQ(state.records()[0].next_run, c.dropped ? kNever : c.next_run) << c.settings;
  }
}

TEST(QueueRefresh, TellsSchedulesApart) {
  Job job;
  EXPECT_EQ(schedule_fingerprint(job), 0x117697CDU);
  job.has_once = true;
  job.once = 0x04030201;
  EXPECT_EQ(schedule_fingerprint(job), 0xC6C7D57EU);
  EXPECT_EQ(first_next_run(job, kNow), 0x04030201);
  const auto never = parsed("[a]\nschedule=0 0 31 2 *\n");
  EXPECT_EQ(first_next_run(never->jobs[0], kNow), kNever);
}

TEST(QueueRefresh, MovesTheNextRunOfAnEditedSchedule) {
  const test::ScopedTimeZone zone("UTC");
  static constexpr struct {
    const char* what;
    JobState state;
    std::uint32_t fingerprint;
    std::int64_t started;
    bool moved, stored;
  } kCases[] = {
      {"edited", JobState::Done, 1, 5, true, true},
      {"failed before", JobState::Failed, 1, 5, true, true},
      {"never ran", JobState::Pending, 1, 0, true, true},
      {"no fingerprint yet", JobState::Done, 0, 5, false, true},
      {"retry pending", JobState::Pending, 1, 5, false, false},
      {"running", JobState::Running, 1, 5, false, false},
      {"disabled", JobState::Disabled, 1, 5, false, false},
  };
  const auto config = parsed("[a]\nschedule=0 1 * * *\n");
  const std::uint32_t fingerprint = schedule_fingerprint(config->jobs[0]);
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    QueueState state;
    append_one(state, record_of("a", c.state));
    state.records()[0].schedule_fingerprint = c.fingerprint;
    state.records()[0].started_at = c.started;
    state.records()[0].next_run = 42;
    EXPECT_EQ(queue_refresh_schedules(state, *config, kNow), c.stored);
    EXPECT_EQ(state.records()[0].next_run, c.moved ? kNow - 37 + 3600 : 42);
    EXPECT_EQ(state.records()[0].schedule_fingerprint, c.stored ? fingerprint : c.fingerprint);
  }
}

TEST(QueueDue, LooksAtTimesAndDependencies) {
  static constexpr struct {
    const char *what, *settings;
    JobState state;
    std::int64_t next_run;
    JobState other;  // of the two jobs it may wait for; the first finished at 10
    std::int64_t other_finished;
    std::int64_t stamp, due;  // what the record has answered; what is handed back, -1: not due
  } kCases[] = {
      {"time has come", "once=1", JobState::Pending, kNow, JobState::Done, 0, 0, 0},
      {"time ahead", "once=1", JobState::Pending, kNow + 1, JobState::Done, 0, 0, -1},
      {"running", "once=1", JobState::Running, 1, JobState::Done, 0, 0, -1},
      {"disabled", "once=1\nenabled=no", JobState::Pending, 1, JobState::Done, 0, 0, -1},
      {"newest finish", "after=x,y", JobState::Done, kNever, JobState::Done, 20, 10, 20},
      {"the other one newest", "after=x,y", JobState::Done, kNever, JobState::Done, 5, 0, 10},
      {"answered already", "after=x,y", JobState::Done, kNever, JobState::Done, 20, 20, -1},
      {"failed is no success", "after=x,y", JobState::Done, kNever, JobState::Failed, 20, 0, -1},
      {"but finished", "after=x,y\nafter-mode=finished", JobState::Done, kNever, JobState::Failed,
       20, 0, 20},
      {"not finished", "after=x,y\nafter-mode=finished", JobState::Done, kNever, JobState::Pending,
       20, 0, -1},
      {"retry ahead", "after=x,y", JobState::Pending, kNow + 1, JobState::Done, 20, 0, -1},
      {"retry now", "after=x,y", JobState::Pending, kNow, JobState::Done, 20, 0, 20},
      {"no retry set", "after=x,y", JobState::Pending, kNever, JobState::Done, 20, 0, 20},
      {"both, time ahead", "after=x,y\nonce=1", JobState::Pending, kNow + 1, JobState::Done, 20, 0,
       -1},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    const auto config = parsed("[a]\n" + std::string(c.settings) + "\n[x]\nonce=1\n[y]\nonce=1\n");
    QueueState state;
    state.replace_all({record_of("y", c.other, c.other_finished), record_of("a", c.state),
                       record_of("x", JobState::Done, 10)});
    state.records()[1].started_at = 5;
    state.records()[1].next_run = c.next_run;
    state.records()[1].after_stamp = c.stamp;
    std::int64_t stamp = -1;
    EXPECT_EQ(queue_job_due(state, config->jobs[0], kNow, stamp), c.due >= 0);
    EXPECT_EQ(stamp, c.due);
    // Without a record of its own, or of a job it waits for, it is not due.
    const char* const gone = config->jobs[0].after.empty() ? "a" : "y";
    EXPECT_EQ(state.erase_if([&](const QueueRecord& r) { return record_name(r) == gone; }), 1U);
    EXPECT_FALSE(queue_job_due(state, config->jobs[0], kNow, stamp));
  }
}

}  // namespace
}  // namespace orv
