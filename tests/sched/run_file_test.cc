#include "sched/run_file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/support.h"

namespace orv {
namespace {

using test::contains;
using test::TempDir;

TEST(RunFile, SaysWhatMustBeKnownThoughThereIsNoRoomForMore) {
  const TempDir dir;
  const std::string queue = dir.file("queue");
  const std::string file = queue + ".run." + std::to_string(::getpid());
  const test::Program tool({"sleep", "100"});
  const auto text = [&] { return std::filesystem::read_symlink(file).string(); };
  {
    RunFile run(queue, "job", "/logs/1.log");
    EXPECT_TRUE(text().ends_with("/0.0/job//logs/1.log"));
    run.add_tool(tool.pid());
    EXPECT_TRUE(contains(text(), "/" + std::to_string(tool.pid()) + "."));
    EXPECT_TRUE(text().ends_with("/job//logs/1.log"));
    EXPECT_TRUE(other_runs(queue).runs.empty()) << "it is this process's own";
    remove_dead_run_files(queue);
  }
  EXPECT_FALSE(std::filesystem::is_symlink(file));
  {
    RunFile run(queue, "job", std::string(5000, 'l'));  // longer than any link
    run.add_tool(tool.pid());
    EXPECT_TRUE(text().ends_with("//"));
    EXPECT_LT(text().size(), 60U) << "what an inode holds by itself";
  }
  // A runner of the same pid, long gone, has left a tool: its file stays.
  const std::string lost = boot_name() + "/1.1/" + std::to_string(tool.pid()) + ".0/old//log";
  std::filesystem::create_symlink(lost, file);
  {
    const RunFile run(queue, "job", "");
    EXPECT_TRUE(std::filesystem::is_symlink(file + ".2"));
    ASSERT_EQ(other_runs(queue).runs.size(), 1U);
    EXPECT_EQ(other_runs(queue).runs[0].phase, RunPhase::Lost);
  }
  EXPECT_EQ(text(), lost);
  EXPECT_FALSE(std::filesystem::is_symlink(file + ".2"));
}

TEST(RunFile, AnEndedProcessThatNobodyReapedIsGone) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  const ProcessId id = process_id(child);
  EXPECT_TRUE(test::wait_until(std::chrono::seconds(10), [&] { return !process_lives(id); }));
  EXPECT_TRUE(process_lives(process_id(::getpid())));
}

}  // namespace
}  // namespace orv
