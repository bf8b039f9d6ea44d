#include "common/sandbox.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "support/support.h"

namespace orv {
namespace {

struct Attempt {
  const char* name;
  bool (*succeeds)(const char* path);
  bool allowed;
};
// clang-format off
const Attempt kAttempts[] = {
    {"reading a file", [](const char* path) { return ::open(path, O_RDONLY) >= 0; }, true},
    {"connecting", [](const char*) { return ::socket(AF_INET, SOCK_STREAM, 0) >= 0; }, true},
    {"writing a file", [](const char* path) { return ::open(path, O_WRONLY) >= 0; }, false},
    {"executable memory", [](const char*) {
       return ::mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) != MAP_FAILED; }, false},
    {"a signal to another process", [](const char*) { return ::kill(::getppid(), 0) == 0; }, false},
    {"raw packets", [](const char*) { return ::socket(AF_PACKET, SOCK_RAW, 0) >= 0; }, false},
    {"a debugger's door", [](const char*) { return ::prctl(PR_SET_DUMPABLE, 1, 0, 0, 0) == 0; }, false},
    {"a new program", [](const char*) {
       char* argv[] = {nullptr}; ::execv("/bin/true", argv); return true; }, false},
};
// clang-format on

// A child of its own tries each: what is entered cannot be left again.
TEST(Sandbox, LeavesWhatANetworkClientAndServerNeeds) {
#if !defined(ORV_HAVE_SECCOMP) || defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "built without the system call filter, or with a sanitizer, which needs more";
#endif
  const test::TempDir dir;
  const std::string path = dir.write("file", "text");
  for (const Attempt& attempt : kAttempts) {
    const pid_t pid = ::fork();
    if (pid == 0) {
      sandbox_enter();
      ::_exit(attempt.succeeds(path.c_str()) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WIFEXITED(status) && WEXITSTATUS(status) == 0, attempt.allowed) << attempt.name;
  }
}

}  // namespace
}  // namespace orv
