// What tests of several folders share: temporary directories, files, waiting for a condition with a
// deadline, another time zone, and running a program.
#ifndef ORV_TESTS_SUPPORT_SUPPORT_H_
#define ORV_TESTS_SUPPORT_SUPPORT_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orv::test {

// A directory of its own, removed with all that is in it at the end of the test.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  [[nodiscard]] const std::string& path() const { return path_; }
  // "<directory>/<name>".
  [[nodiscard]] std::string file(std::string_view name) const;
  // Writes the file (missing directories are made) and returns its path.
  std::string write(std::string_view name, std::string_view content, unsigned mode = 0644) const;
  // An executable /bin/sh script of that name and body; returns its path.
  std::string script(std::string_view name, std::string_view body) const;

 private:
  std::string path_;
};

[[nodiscard]] std::string read_file(const std::string& path);  // empty when it cannot be read
[[nodiscard]] bool exists(const std::string& path);
[[nodiscard]] bool contains(std::string_view text, std::string_view part);

// Polls until the condition holds; false when the deadline came first.
[[nodiscard]] bool wait_until(std::chrono::milliseconds deadline,
                              const std::function<bool()>& condition);

// What `act` writes to standard error.
[[nodiscard]] std::string stderr_of(const std::function<void()>& act);

class ScopedEnv {  // sets or (no value) unsets a variable of the environment for the scope
 public:
  ScopedEnv(std::string name, const std::optional<std::string>& value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  void set(const std::optional<std::string>& value) const;

  std::string name_;
  std::optional<std::string> old_;
};

class ScopedTimeZone {  // TZ for the scope, put back afterwards
 public:
  explicit ScopedTimeZone(const std::string& zone);
  ~ScopedTimeZone();

 private:
  std::optional<ScopedEnv> env_;
};

struct ProgramResult {
  int status = -1;  // exit status; -1 when it ended by a signal
  std::string out;
  std::string err;
};

// A program that runs in the background; killed and reaped at the end of the scope.
class Program {
 public:
  // Standard output and error go to files that out() and err() read. `env` is added to the
  // environment. The program is searched in the PATH unless the name has a slash.
  explicit Program(std::vector<std::string> argv, std::map<std::string, std::string> env = {},
                   std::string_view input = {});
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  [[nodiscard]] pid_t pid() const { return pid_; }
  [[nodiscard]] std::string out() const;
  [[nodiscard]] std::string err() const;
  void signal(int number) const;
  // Waits for the end; -1 when a signal ended it or the deadline (then it is killed) passed.
  int wait(std::chrono::milliseconds deadline = std::chrono::seconds(60));

 private:
  TempDir dir_;
  pid_t pid_ = -1;
};

ProgramResult run_program(std::vector<std::string> argv,
                          std::map<std::string, std::string> env = {}, std::string_view input = {});

}  // namespace orv::test

#endif  // ORV_TESTS_SUPPORT_SUPPORT_H_
