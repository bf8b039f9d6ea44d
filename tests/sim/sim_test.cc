// Short stories of bad days, each of which once went wrong.
#include <errno.h>
#include <gtest/gtest.h>

#include <array>
#include <utility>

#include "sched/queue_record.h"
#include "sim/history.h"

namespace orv::sim {
namespace {

constexpr std::int64_t kMinute = 60 * kSecond;
constexpr const char* kEveryFiveMinutes = "*/5 * * * *";

// A run of 'b' by hand that lasts for two hours, while 'a' is due every five minutes. With a disk
// that is full at its start, only the run file knows of it.
class BesideALongRun {
 public:
  explicit BesideALongRun(bool full_disk = false) {
    history.jobs = {{"a", kEveryFiveMinutes}, {"b", "0 0 1 1 *"}};
    history.write_config();
    history.world.shape = [this](Tool& tool) {
      tool.ends = history.world.mono + (tool.job == "b" ? 120 : 1) * kMinute;
    };
    history.start_daemon();
    pass(2);
    history.world.disk.full = full_disk;
    history.run_by_hand("run", "b", false);
    pass(1);
    history.world.disk.full = false;
  }
  void pass(std::int64_t minutes) { history.world.run_for(minutes * kMinute); }
  Process& daemon() { return *history.world.find_process("daemon"); }

  History history{{.seed = 1, .days = 0, .jobs = 1}};
};

TEST(Stories, NothingStartsBesideARunWhileAnyCallOfThePassFails) {
  constexpr std::array kErrors = {EMFILE, EIO, ENOMEM};
  for (std::uint64_t call = 1; call < 60; ++call) {
    BesideALongRun story(true);
    story.pass(6);  // 'a' is due
    story.history.world.at(story.history.world.mono, [&] {
      story.daemon().fails_at = story.daemon().calls + call;
      story.daemon().fails_with = kErrors[call % kErrors.size()];
    });
    story.pass(2);
    ASSERT_EQ(story.history.model.failure, "") << "call " << call;
  }
}

TEST(Stories, ARunTriesForTenSecondsToSaveItsEnd) {
  constexpr std::size_t kStateOfB = 172 + 128;  // in the queue file
  for (const auto& [seconds, state] : {std::pair(9, JobState::Done), {12, JobState::Failed}}) {
    BesideALongRun story;
    World& world = story.history.world;
    story.history.model.trouble();
    const std::int64_t end = world.tools[0]->ends;
    world.at(end, [&] { world.disk.full = true; });
    world.at(end + seconds * kSecond, [&] { world.disk.full = false; });
    story.pass(120);
    EXPECT_EQ(world.disk.read(kQueuePath)[kStateOfB], static_cast<char>(state)) << seconds;
  }
}

TEST(Stories, AJobForcedTwiceKeepsOthersOutUntilBothHaveEnded) {
  BesideALongRun story;
  story.history.world.shape = [&](Tool& tool) {
    tool.ends = story.history.world.mono + kMinute;  // the second run of 'b' ends long before
  };
  story.history.run_by_hand("run", "b", true);
  story.pass(30);
  EXPECT_EQ(story.history.model.failure, "");
  EXPECT_EQ(story.history.model.starts.size(), 2U);
}

TEST(Stories, NothingStartsBesideTheToolOfAKilledRunner) {
  BesideALongRun story;
  story.history.world.kill_process(*story.history.world.find_process("run b"));
  story.pass(30);
  EXPECT_EQ(story.history.model.failure, "");
  EXPECT_EQ(story.history.model.starts.size(), 1U);
  story.pass(120);
  EXPECT_GT(story.history.model.starts.size(), 1U);
}

TEST(Stories, AClockThatIsSetCutsNoRun) {
  BesideALongRun story;
  for (const int days : {3, -10}) {  // the time limit is one day
    story.history.world.wall_offset += days * 24 * 60 * kMinute;
    story.history.model.clock_set(days * std::int64_t{86400});
    story.pass(30);
    EXPECT_NE(story.history.world.find_process("run b"), nullptr);
  }
  EXPECT_EQ(story.history.model.failure, "");
  EXPECT_EQ(story.history.model.starts.size(), 1U);
}

}  // namespace
}  // namespace orv::sim
