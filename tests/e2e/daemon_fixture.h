// A private home for the built scheduler: configuration, queue, logs and stand-in tools in one
// temporary directory. ORV_SCHED_PROGRAM is the path of the built program.
#ifndef ORV_TESTS_E2E_DAEMON_FIXTURE_H_
#define ORV_TESTS_E2E_DAEMON_FIXTURE_H_

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sched/queue_file.h"
#include "support/support.h"

namespace orv::test {

class DaemonFixture : public ::testing::Test {
 protected:
  using Env = std::map<std::string, std::string>;

  void configure(std::string_view text) { home_.write("sched.cfg", text); }
  void tool(std::string_view name, std::string_view body) {
    home_.script("bin/" + std::string(name), body);
  }
  // The command line of `command` with this home's files; `words` come right after it.
  [[nodiscard]] std::vector<std::string> command_line(
      const std::string& command, const std::vector<std::string>& words = {}) const {
    std::vector<std::string> argv = {ORV_SCHED_PROGRAM, command};
    argv.insert(argv.end(), words.begin(), words.end());
    argv.insert(argv.end(),
                {"--config", home_.file("sched.cfg"), "--queue", home_.file("state/queue"),
                 "--no-syslog", "--log-path", home_.file("log")});
    if (command == "daemon" || command == "run" || command == "start") {
      argv.insert(argv.end(), {"--job-log-dir", home_.file("job-logs")});
    }
    return argv;
  }
  // The same for a shell.
  [[nodiscard]] std::string shell_line(const std::string& command,
                                       const std::vector<std::string>& words = {}) const {
    std::string line;
    for (const std::string& word : command_line(command, words)) line += "'" + word + "' ";
    return line;
  }
  [[nodiscard]] Env env() const {
    return {{"PATH", home_.file("bin") + ":/usr/bin:/bin"}, {"TZ", "UTC"}};
  }
  [[nodiscard]] ProgramResult sched(const std::string& command,
                                    const std::vector<std::string>& words = {}) const {
    return run_program(command_line(command, words), env());
  }
  // `argv` for an ordinary user: the network process refuses to be root, and the account that a
  // root scheduler would give it may be missing. As root, everything runs as the user nobody, and
  // from copies: the build may lie where that user cannot go. `helper` is a second program to copy.
  [[nodiscard]] std::vector<std::string> as_user(std::vector<std::string> argv,
                                                 const std::filesystem::path& helper) const {
    for (const std::filesystem::path& program :
         {std::filesystem::path(ORV_SCHED_PROGRAM), helper}) {
      const std::string copy = home_.file(program.filename().string());
      if (!exists(copy)) std::filesystem::copy_file(program, copy);
      if (argv[0] == program) argv[0] = copy;
    }
    if (::geteuid() != 0) return argv;
    EXPECT_EQ(run_program({"chown", "-R", "65534:65534", home_.path()}).status, 0);
    argv.insert(argv.begin(), {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"});
    return argv;
  }
  void start_daemon() {
    daemon_ = std::make_unique<Program>(command_line("daemon", {"--poll-interval", "1"}), env());
  }
  // Stops it by SIGTERM; its exit status.
  int stop_daemon() {
    daemon_->signal(15);
    return daemon_->wait();
  }
  [[nodiscard]] bool daemon_says(std::string_view text) const {
    return wait_until(std::chrono::seconds(30), [&] { return contains(daemon_->err(), text); });
  }
  [[nodiscard]] QueueRecord record(std::string_view job) const {
    QueueState queue;
    EXPECT_EQ(queue_load_readonly(queue, home_.file("state/queue").c_str()), ErrorCode::Ok);
    const QueueRecord* found = queue_find(queue, job);
    return found != nullptr ? *found : QueueRecord();
  }
  [[nodiscard]] bool reaches(std::string_view job, JobState state) const {
    return wait_until(std::chrono::seconds(30), [&] { return record_state(record(job)) == state; });
  }
  [[nodiscard]] std::string file(std::string_view name) const {
    return read_file(home_.file(name));
  }
  // Waits for text in the file: a tool creates it empty and writes it at once.
  [[nodiscard]] bool appears(std::string_view name) const {
    return wait_until(std::chrono::seconds(30), [&] { return !file(name).empty(); });
  }
  // Shell commands: they say that the tool is up, in the file "up", and wait for the file "go".
  [[nodiscard]] std::string up_until_go() const {
    return "echo $$ >" + home_.file("up") + "; while ! [ -e " + home_.file("go") +
           " ]; do sleep 0.05; done";
  }

  TempDir home_;
  std::unique_ptr<Program> daemon_;
};

}  // namespace orv::test

#endif  // ORV_TESTS_E2E_DAEMON_FIXTURE_H_
