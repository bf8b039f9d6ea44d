// What a run costs at least: a small program that starts /bin/true N times with fork, exec and
// wait, and, when it is given a file, replaces it before and after each by one of a queue's size,
// flushed and renamed. scripts/bench-runs compares the daemon with it.
//
// Usage: orv_spawn_peer N [FILE]
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

char queue[256 * 172];

bool replace(const std::string& path) {
  const std::string temporary = path + ".tmp";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  const bool done = fd >= 0 && ::write(fd, queue, sizeof queue) == sizeof queue && ::fsync(fd) == 0;
  (void)::close(fd);
  return done && ::rename(temporary.c_str(), path.c_str()) == 0;
}

bool run_true() {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::execl("/bin/true", "true", nullptr);
    ::_exit(127);
  }
  int status = 0;
  return pid > 0 && ::waitpid(pid, &status, 0) == pid && status == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const long runs = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 0;
  const char* const file = argc > 2 ? argv[2] : nullptr;
  for (long i = 0; i < runs; ++i) {
    const bool done = (!file || replace(file)) && run_true() && (!file || replace(file));
    if (done) continue;
    std::perror("orv_spawn_peer");
    return 1;
  }
  return 0;
}
