#include "sched/job_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "common/files.h"
#include "support/support.h"

namespace orv {
namespace {

using test::TempDir;

TEST(JobLogTrailer, IsReadFromTheEndOfTheFile) {
  const std::string marker = "\n--- end ---\n";
  const std::pair<std::string, JobLogTrailer> cases[] = {
      {"", {}},
      {job_log_trailer(1791208805, -1, true, nullptr), {true, 1791208805, -1, true, false}},
      {std::string(100000, '\0') + job_log_trailer(5, 75, false, "API token x"),
       {true, 5, 75, false, true}},
      {marker + "finish_unix: 1\nexit_code: 1\n" + job_log_trailer(2, 0, false, nullptr),
       {true, 2, 0, false, false}},
      {"x" + marker + "finish_unix: 3\nexit_" + std::string(1, '\0') + "code: 9\n",
       {true, 3, 0, false, false}},
      {marker + std::string(512, 'x'), {}},  // out of sight
  };
  const TempDir dir;
  for (const auto& [text, expected] : cases) {
    SCOPED_TRACE(text.substr(text.size() > 60 ? text.size() - 60 : 0));
    const ScopedFd fd = open_file(dir.write("log", text).c_str(), O_RDONLY);
    JobLogTrailer got{true, 99, 99, true, true};
    read_job_log_trailer(fd.get(), static_cast<std::int64_t>(text.size()), got);
    EXPECT_EQ(got.finished, expected.finished);
    EXPECT_EQ(got.finish_unix, expected.finish_unix);
    EXPECT_EQ(got.exit_code, expected.exit_code);
    EXPECT_EQ(got.timed_out, expected.timed_out);
    EXPECT_EQ(got.cancelled, expected.cancelled);
  }
}

TEST(JobLogRotation, DeletesTheOldestLogsAndNothingElse) {
  const TempDir dir;
  // By bytes: "-" before digits before bytes above 127. A directory counts, and stays.
  const std::vector<std::string> logs = {"-.log", "20250101T000000Z.log", "20250102T000000Z.log",
                                         "a.log", "\xc3\xa4.log"};
  for (const std::string& name : logs) dir.write(name, "x");
  for (const char* name : {".log", "notes.txt", "a.log.gz", "log"}) dir.write(name, "x");
  std::filesystem::create_directory(dir.file("0.log"));
  rotate_job_logs(dir.path(), 0, "");
  rotate_job_logs(dir.path(), 6, dir.file("a.log"));
  for (const std::string& name : logs) EXPECT_TRUE(test::exists(dir.file(name))) << name;
  rotate_job_logs(dir.path(), 3, dir.file("a.log"));
  EXPECT_FALSE(test::exists(dir.file("-.log")));
  EXPECT_TRUE(test::exists(dir.file("0.log")));
  EXPECT_FALSE(test::exists(dir.file("20250101T000000Z.log")));
  for (const char* name :
       {"20250102T000000Z.log", "a.log", "\xc3\xa4.log", ".log", "notes.txt", "a.log.gz", "log"}) {
    EXPECT_TRUE(test::exists(dir.file(name))) << name;
  }
  rotate_job_logs(dir.path(), 1, dir.file("20250102T000000Z.log"));
  EXPECT_TRUE(test::exists(dir.file("20250102T000000Z.log"))) << "just written, clock put back";
  EXPECT_FALSE(test::exists(dir.file("a.log")));
  rotate_job_logs(dir.file("nowhere"), 1, "");  // nothing to do, nothing to say
}

}  // namespace
}  // namespace orv
