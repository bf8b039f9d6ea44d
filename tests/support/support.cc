#include "support/support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <utility>

namespace orv::test {
namespace fs = std::filesystem;

TempDir::TempDir() {
  std::string pattern = (fs::temp_directory_path() / "orv-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed: " << pattern;
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;  // a test may have taken away its own permissions
  fs::remove_all(path_, ignored);
}

std::string TempDir::file(std::string_view name) const { return path_ + "/" + std::string(name); }

std::string TempDir::write(std::string_view name, std::string_view content, unsigned mode) const {
  const std::string path = file(name);
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
  EXPECT_EQ(::chmod(path.c_str(), mode), 0);
  return path;
}

std::string TempDir::script(std::string_view name, std::string_view body) const {
  return write(name, "#!/bin/sh\n" + std::string(body) + "\n", 0755);
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

bool exists(const std::string& path) { return fs::exists(fs::symlink_status(path)); }

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

bool wait_until(std::chrono::milliseconds deadline, const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + deadline;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::string stderr_of(const std::function<void()>& act) {
  ::testing::internal::CaptureStderr();
  act();
  return ::testing::internal::GetCapturedStderr();
}

ScopedEnv::ScopedEnv(std::string name, const std::optional<std::string>& value)
    : name_(std::move(name)) {
  if (const char* old = ::getenv(name_.c_str())) old_ = old;
  set(value);
}

ScopedEnv::~ScopedEnv() { set(old_); }

void ScopedEnv::set(const std::optional<std::string>& value) const {
  value ? ::setenv(name_.c_str(), value->c_str(), 1) : ::unsetenv(name_.c_str());
}

ScopedTimeZone::ScopedTimeZone(const std::string& zone) {
  env_.emplace("TZ", zone);
  ::tzset();
}

ScopedTimeZone::~ScopedTimeZone() {
  env_.reset();
  ::tzset();
}

Program::Program(std::vector<std::string> argv, std::map<std::string, std::string> env,
                 std::string_view input) {
  const std::string in = dir_.write("in", input);
  std::vector<char*> args;
  for (std::string& arg : argv) args.push_back(arg.data());
  args.push_back(nullptr);
  pid_ = ::fork();
  if (pid_ != 0) return;
  const auto redirect = [](const std::string& path, int flags, int to) {
    const int fd = ::open(path.c_str(), flags, 0644);
    ::dup2(fd, to);
    ::close(fd);
  };
  redirect(in, O_RDONLY, 0);
  redirect(dir_.file("out"), O_WRONLY | O_CREAT | O_APPEND, 1);
  redirect(dir_.file("err"), O_WRONLY | O_CREAT | O_APPEND, 2);
  for (const auto& [name, value] : env) ::setenv(name.c_str(), value.c_str(), 1);
  ::execvp(args[0], args.data());
  ::_exit(127);
}

Program::~Program() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  ::waitpid(pid_, nullptr, 0);
}

std::string Program::out() const { return read_file(dir_.file("out")); }
std::string Program::err() const { return read_file(dir_.file("err")); }
void Program::signal(int number) const {
  if (pid_ > 0) ::kill(pid_, number);
}

int Program::wait(std::chrono::milliseconds deadline) {
  int status = 0;
  const bool ended =
      wait_until(deadline, [&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; });
  if (!ended) {
    ADD_FAILURE() << "program did not end; its standard error:\n" << err();
    return -1;
  }
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

ProgramResult run_program(std::vector<std::string> argv, std::map<std::string, std::string> env,
                          std::string_view input) {
  Program program(std::move(argv), std::move(env), input);
  ProgramResult result;
  result.status = program.wait();
  result.out = program.out();
  result.err = program.err();
  return result;
}

}  // namespace orv::test
