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
  const std::string start = std::to_string(process_id(tool.pid()).start);
  const std::string named = file + "." + std::to_string(tool.pid()) + "." + start;
  const auto text = [](const std::string& link) {
    return std::filesystem::read_symlink(link).string();
  };
  // Of processes that had our pid: one left a tool, which is lost and whose file stays; one had
  // none yet, and its file is in the way.
  const std::string lost = boot_name() + "/1.1/old//log";
  const std::string lost_file = file + "." + std::to_string(tool.pid()) + ".0";
  std::filesystem::create_symlink(lost, lost_file);
  std::filesystem::create_symlink(lost, file);
  {
    RunFile run(queue, "job", "/logs/1.log");
    EXPECT_TRUE(text(file).ends_with("/job//logs/1.log"));
    run.add_tool(tool.pid());
    EXPECT_EQ(text(named), text(file));
    remove_dead_run_files(queue);
    EXPECT_TRUE(std::filesystem::is_symlink(file));
    const OtherRuns others = other_runs(queue);
    ASSERT_EQ(others.runs.size(), 1U) << "the other is this process's own";
    EXPECT_EQ(others.runs[0].phase, RunPhase::Lost);
    EXPECT_EQ(others.runs[0].note.tool.pid, tool.pid());
  }
  EXPECT_FALSE(std::filesystem::is_symlink(file));
  EXPECT_FALSE(std::filesystem::is_symlink(named));
  EXPECT_EQ(text(lost_file), lost);
  {
    RunFile run(queue, "job", std::string(5000, 'l'));  // longer than any link
    run.add_tool(tool.pid());
    EXPECT_TRUE(text(named).ends_with("//"));
    EXPECT_LT(text(named).size(), 60U) << "what an inode holds by itself";
  }
  EXPECT_FALSE(std::filesystem::is_symlink(named));
  {
    RunFile run(queue, "job", "/log");
    std::filesystem::remove(file);  // as if there had been no room for it
    run.add_tool(tool.pid());
    EXPECT_TRUE(text(named).ends_with("/job//log"));
  }
  EXPECT_FALSE(std::filesystem::is_symlink(named));
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
