// The system calls of simulated processes. The linker sends each call of the program here (--wrap);
// outside of a simulated process it goes on to the system. Only what the scheduler asks for is
// here: a descriptor of the simulation means nothing to a call that is not.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sim/model.h"
#include "sim/world.h"

namespace orv::sim {
namespace {

// One call of a simulated process: the moment in which it can be killed, interrupted by another
// process, or fail.
class Call {
 public:
  Call() : world(*current_world), self(*world.running) {
    current_world = nullptr;
    if (++self.calls >= self.dies_at) world.kill_process(self);
    if (world.races && world.rng.one_in(6)) world.block([] { return true; }, kForever);
  }
  ~Call() { current_world = &world; }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  // The errno of the failure that this call meets; 0 when it is spared.
  [[nodiscard]] int bad_luck() const {
    if (self.calls < self.fails_at) return 0;
    self.fails_at = UINT64_MAX;
    return self.fails_with;
  }
  [[nodiscard]] OpenFile* file(int fd) const {
    const auto at = self.fds.find(fd);
    return at == self.fds.end() ? nullptr : at->second.get();
  }
  [[nodiscard]] int add(OpenRef open) const {
    int fd = kFirstFd;
    while (self.fds.contains(fd)) ++fd;
    self.fds[fd] = std::move(open);
    return fd;
  }

  World& world;
  Process& self;
};

int failed(int error) {
  errno = error;
  return -1;
}

// A line of /proc/<pid>/comm or .../stat.
std::string proc_text(bool comm, int pid, const char* name, char state, std::int64_t ticks) {
  if (comm) return std::string(name) + "\n";
  return std::to_string(pid) + " (" + name + ") " + state +
         " 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 " + std::to_string(ticks) + " 0 0\n";
}

// What /proc says of a process, or null.
NodeRef proc_file(World& world, const std::string& path) {
  auto node = std::make_shared<Node>();
  int pid = world.running->pid;
  std::array<char, 16> what{};
  if (path == "/proc/sys/kernel/random/boot_id") {
    node->data = world.boot_id;
    return node;
  }
  if (path != "/proc/self/stat" &&
      std::sscanf(path.c_str(), "/proc/%d/%15s", &pid, what.data()) != 2) {
    return nullptr;
  }
  const bool comm = std::strcmp(what.data(), "comm") == 0;
  if (const Process* const process = world.process_of(pid)) {
    node->data = proc_text(comm, pid, "orv_sched", 'S', process->started_ticks);
  } else if (const ToolRef tool = world.tool_of(pid)) {
    const char* const name = tool->state == Tool::State::Held ? "orv_sched" : "orv_agent";
    const char state = tool->state == Tool::State::Ended ? 'Z' : 'S';
    node->data = proc_text(comm, pid, name, state, tool->started_ticks);
  } else {
    return nullptr;
  }
  return node;
}

// The lines that a process writes to its standard error are its log, also when it has cut itself
// loose from its terminal.
void take_log(const Call& call, std::string_view line) {
  const std::size_t start = line.find("job '") + 5;
  const std::size_t end = line.find("' starting (");
  if (end != line.npos) call.self.job = line.substr(start, end - start);
  call.world.model.logged(call.self, line.substr(0, line.find('\n')));
}

time_t now(time_t* into) {
  if (into != nullptr) *into = current_world->wall();
  return current_world->wall();
}

int now(clockid_t clock, timespec* into) {
  const World& world = *current_world;
  const std::int64_t now = clock == CLOCK_REALTIME ? world.wall_ns() : world.mono;
  *into = {now / kSecond, now % kSecond};
  return 0;
}

struct Listing {
  std::vector<std::string> names;
  std::size_t next = 0;
  dirent entry{};
};

}  // namespace

// The calls by their names, as the program makes them.
namespace calls {
namespace {

int open(const Call& call, const std::string& path, int flags, mode_t mode) {
  Disk& disk = call.world.disk;
  NodeRef node = path.starts_with("/proc/") ? proc_file(call.world, path) : disk.find(path);
  if (node && (flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) return failed(EEXIST);
  if (!node) {
    const bool create = (flags & O_CREAT) != 0;
    if (!create || !disk.find(path.substr(0, path.rfind('/')))) return failed(ENOENT);
    if (disk.full) return failed(ENOSPC);
    node = disk.create(path, false, call.world.mono);
    node->mode = mode;
    node->modified = call.world.wall_ns();
  }
  return call.add(std::make_shared<OpenFile>(std::move(node), nullptr, flags));
}

int close(const Call& call, int fd) {
  return call.self.fds.erase(fd) == 1 || fd <= STDERR_FILENO ? 0 : failed(EBADF);
}

ssize_t pread(const Call& call, int fd, void* into, std::size_t size, off_t at) {
  const OpenFile* const open = call.file(fd);
  if (open == nullptr) return failed(EBADF);
  const std::string& data = open->node->data;
  const std::size_t from = std::min(static_cast<std::size_t>(at), data.size());
  return static_cast<ssize_t>(data.copy(static_cast<char*>(into), size, from));
}

ssize_t read(const Call& call, int fd, void* into, std::size_t size) {
  OpenFile* const open = call.file(fd);
  if (open == nullptr) return failed(EBADF);
  const ssize_t got = pread(call, fd, into, size, static_cast<off_t>(open->offset));
  open->offset += static_cast<std::size_t>(got);
  return got;
}

ssize_t write(const Call& call, int fd, const void* bytes, std::size_t size) {
  const std::string_view text(static_cast<const char*>(bytes), size);
  if (fd <= STDERR_FILENO) {
    take_log(call, text);
    return static_cast<ssize_t>(size);
  }
  OpenFile* const open = call.file(fd);
  if (open == nullptr) return failed(EBADF);
  if (const int error = call.bad_luck()) return failed(error);
  if (call.world.disk.full) return failed(ENOSPC);
  Node& node = *open->node;
  call.world.disk.change(node, call.world.mono, call.world.wall_ns());
  if ((open->flags & O_APPEND) != 0) open->offset = node.data.size();
  if (node.data.size() < open->offset + size) node.data.resize(open->offset + size);
  node.data.replace(open->offset, size, text);
  open->offset += size;
  return static_cast<ssize_t>(size);
}

int fsync(const Call& call, int fd) {
  const OpenFile* const open = call.file(fd);
  if (open == nullptr) return failed(EBADF);
  if (open->node->directory) {
    call.world.disk.flush_names();
  } else {
    Disk::flush(*open->node);
  }
  return 0;
}

int rename(const Call& call, const char* from, const char* to) {
  Disk& disk = call.world.disk;
  const NodeRef node = disk.find(from);
  if (!node) return failed(ENOENT);
  disk.name(to, node, call.world.mono);
  disk.name(from, nullptr, call.world.mono);
  return 0;
}

int symlink(const Call& call, const char* text, const char* path) {
  constexpr std::size_t kFitsInode = 60;  // bytes of a link that needs no block of the disk
  Disk& disk = call.world.disk;
  if (disk.find(path)) return failed(EEXIST);
  if (disk.full && std::strlen(text) >= kFitsInode) return failed(ENOSPC);
  const NodeRef node = disk.create(path, false, call.world.mono);
  node->link = true;
  node->data = text;
  return 0;
}

int link(const Call& call, const char* from, const char* to) {
  Disk& disk = call.world.disk;
  const NodeRef node = disk.find(from);
  if (!node) return failed(ENOENT);
  if (disk.find(to)) return failed(EEXIST);
  disk.name(to, node, call.world.mono);
  return 0;
}

ssize_t readlink(const Call& call, const char* path, char* into, std::size_t size) {
  const NodeRef node = call.world.disk.find(path);
  if (!node) return failed(ENOENT);
  if (!node->link) return failed(EINVAL);
  return static_cast<ssize_t>(node->data.copy(into, size));
}

int unlink(const Call& call, const char* path) {
  if (!call.world.disk.find(path)) return failed(ENOENT);
  call.world.disk.name(path, nullptr, call.world.mono);
  return 0;
}

int mkdir(const Call& call, const char* path, mode_t mode) {
  if (call.world.disk.find(path)) return failed(EEXIST);
  if (call.world.disk.full) return failed(ENOSPC);
  call.world.disk.create(path, true, call.world.mono)->mode = mode;
  return 0;
}

int stat_node(const NodeRef& node, struct stat* st) {
  if (!node) return failed(ENOENT);
  *st = {};
  st->st_mode = (node->directory ? S_IFDIR : S_IFREG) | node->mode;
  st->st_ino = node->number;
  st->st_dev = st->st_nlink = 1;
  st->st_size = static_cast<off_t>(node->data.size());
  st->st_mtim = {node->modified / kSecond, node->modified % kSecond};
  return 0;
}

int stat(const Call& call, const char* path, struct stat* st) {
  return stat_node(call.world.disk.find(path), st);
}

constexpr auto* lstat = &stat;

int fstat(const Call& call, int fd, struct stat* st) {
  const OpenFile* const open = call.file(fd);
  return open == nullptr ? failed(EBADF) : stat_node(open->node, st);
}

DIR* opendir(const Call& call, std::string path) {
  if (const int error = call.bad_luck()) return failed(error), nullptr;
  if (path.ends_with('/')) path.pop_back();
  if (!call.world.disk.find(path)) return failed(ENOENT), nullptr;
  return reinterpret_cast<DIR*>(new Listing{call.world.disk.list(path)});
}

dirent* readdir(const Call&, DIR* dir) {
  auto& listing = *reinterpret_cast<Listing*>(dir);
  if (listing.next == listing.names.size()) return nullptr;
  const std::string& name = listing.names[listing.next++];
  std::snprintf(listing.entry.d_name, sizeof listing.entry.d_name, "%s", name.c_str());
  return &listing.entry;
}

int closedir(const Call&, DIR* dir) {
  delete reinterpret_cast<Listing*>(dir);
  return 0;
}

int flock(const Call& call, int fd, int operation) {
  OpenFile* const open = call.file(fd);
  if (open == nullptr) return failed(EBADF);
  const NodeRef node = open->node;
  const auto ours = [&] { return node->locked_by == nullptr || node->locked_by == open; };
  if (!ours() && (operation & LOCK_NB) != 0) return failed(EWOULDBLOCK);
  if (!ours()) call.world.block(ours, kForever);
  if (!ours()) return failed(EINTR);
  node->locked_by = (operation & LOCK_UN) != 0 ? nullptr : open;
  return 0;
}

int fcntl(const Call& call, int fd, int command, long) {
  if (command != F_DUPFD_CLOEXEC) return 0;
  const auto at = call.self.fds.find(fd);
  return at == call.self.fds.end() ? failed(EBADF) : call.add(at->second);
}

// The leash of a child that waits to be let go.
int socketpair(const Call& call, int, int, int, int* ends) {
  for (int* end = ends; end < ends + 2; ++end) *end = call.add(std::make_shared<OpenFile>());
  return 0;
}

ssize_t send(const Call& call, int, const void*, std::size_t size, int) {
  Tool* const tool = call.self.tool.get();
  if (tool == nullptr || tool->state != Tool::State::Held) return failed(EPIPE);
  call.world.let_go(*tool);
  return static_cast<ssize_t>(size);
}

ssize_t recv(const Call&, int, void*, std::size_t, int) {
  return failed(EAGAIN);  // no exec fails here
}

long syscall(const Call& call, long number, long, long) {
  if (number != SYS_pidfd_open) return failed(ENOSYS);
  return call.add(std::make_shared<OpenFile>(nullptr, call.self.tool));
}

int poll(const Call& call, pollfd* fds, nfds_t count, int timeout_ms) {
  World& world = call.world;
  const auto look = [&] {
    int ready = 0;
    for (pollfd* fd = fds; fd < fds + count; ++fd) {
      const OpenFile* const open = call.file(fd->fd);
      const bool leash = open != nullptr && !open->node && !open->tool;
      const bool come = leash ? call.self.tool->state != Tool::State::Held
                              : open != nullptr && open->tool->state >= Tool::State::Ended;
      fd->revents = come ? POLLIN : 0;
      ready += come ? 1 : 0;
    }
    return ready;
  };
  if (const int ready = look(); ready > 0 || timeout_ms == 0) return ready;
  // Who waits for a tool looks at other things every few milliseconds; it is enough that it looks
  // after whatever happens, and now and then for its time limits.
  std::int64_t end = timeout_ms < 0 ? kForever : world.mono + timeout_ms * (kSecond / 1000);
  if (count > 0) end = std::max(end, world.mono + 30 * kSecond);
  const std::uint64_t events = world.events;
  world.block([&] { return world.events != events || look() > 0; }, end);
  return look();
}

// Of `start`, which goes on in the child: its parent has nothing left to do but to say so.
pid_t fork(const Call&) { return 0; }

int clone(const Call& call, int (*)(void*), void*, int, void*) {
  World& world = call.world;
  Process& self = call.self;
  self.tool = world.tools.emplace_back(std::make_shared<Tool>());
  Tool& tool = *self.tool;
  tool.pid = world.new_pid();
  tool.runner = self.pid;
  tool.job = self.job;
  tool.forced = self.forced;
  tool.started_ticks = world.mono / (kSecond / 100);
  return tool.pid;
}

pid_t waitpid(const Call& call, pid_t pid, int* status, int flags) {
  const ToolRef tool = call.self.tool;
  if (!tool || tool->pid != pid || tool->state == Tool::State::Reaped) return failed(ECHILD);
  if (tool->state != Tool::State::Ended) {
    if ((flags & WNOHANG) != 0) return 0;
    call.world.block([&] { return tool->state == Tool::State::Ended; }, kForever);
  }
  *status = tool->status;
  tool->state = Tool::State::Reaped;
  return pid;
}

int kill(const Call& call, pid_t pid, int number) {
  World& world = call.world;
  if (Process* const process = world.process_of(pid)) {
    if (number != 0) world.send_signal(*process, number);
    return 0;
  }
  const ToolRef tool = world.tool_of(std::abs(pid));
  if (!tool) return failed(ESRCH);
  if (tool->state != Tool::State::Running) return 0;
  if (number == SIGKILL) world.end_tool(*tool, SIGKILL);
  if (number == SIGTERM && !tool->stubborn) {
    tool->exit_code = 143;
    tool->ends = std::min(tool->ends, world.mono + world.rng.between(0, 3) * kSecond);
  }
  return 0;
}

sighandler_t signal(const Call& call, int number, sighandler_t handler) {
  const auto at = call.self.handlers.find(number);
  const sighandler_t before = at == call.self.handlers.end() ? SIG_DFL : at->second;
  call.self.handlers[number] = handler;
  return before;
}

int sigaction(const Call& call, int number, const struct ::sigaction* set,
              struct ::sigaction* old) {
  const sighandler_t before = signal(call, number, set != nullptr ? set->sa_handler : SIG_DFL);
  if (set == nullptr) (void)signal(call, number, before);
  if (old != nullptr) *old = {};
  if (old != nullptr) old->sa_handler = before;
  return 0;
}

}  // namespace
}  // namespace calls
}  // namespace orv::sim

using namespace orv::sim;

// The functions that the linker asks for, a row each: what it returns, its name, its parameters and
// arguments. What the C library declares with "..." gets its last argument all the same.
#define ORV_SIM_WRAP(result, name, parameters, arguments, ...)    \
  extern "C" result __real_##name parameters;                     \
  extern "C" result __wrap_##name parameters;                     \
  result __wrap_##name parameters {                               \
    if (current_world == nullptr) return __real_##name arguments; \
    __VA_ARGS__                                                   \
  }
#define ORV_SIM_CALL(result, name, parameters, ...)                      \
  ORV_SIM_WRAP(result, name, parameters, (__VA_ARGS__), const Call call; \
               return calls::name(call __VA_OPT__(, ) __VA_ARGS__);)
// One that can meet bad luck.
#define ORV_SIM_RISK(result, name, parameters, ...)                         \
  ORV_SIM_WRAP(result, name, parameters, (__VA_ARGS__), const Call call;    \
               if (const int error = call.bad_luck()) return failed(error); \
               return calls::name(call __VA_OPT__(, ) __VA_ARGS__);)
// One that only asks for a value, or changes nothing here.
#define ORV_SIM_VALUE(result, name, parameters, arguments, value) \
  ORV_SIM_WRAP(result, name, parameters, arguments, return value;)

// clang-format off
ORV_SIM_RISK(int, open, (const char* path, int flags, mode_t mode), path, flags, mode)
ORV_SIM_CALL(int, close, (int fd), fd)
ORV_SIM_RISK(ssize_t, read, (int fd, void* into, std::size_t size), fd, into, size)
ORV_SIM_RISK(ssize_t, pread, (int fd, void* into, std::size_t size, off_t at), fd, into, size, at)
ORV_SIM_CALL(ssize_t, write, (int fd, const void* bytes, std::size_t size), fd, bytes, size)
ORV_SIM_RISK(int, fsync, (int fd), fd)
ORV_SIM_RISK(int, rename, (const char* from, const char* to), from, to)
ORV_SIM_RISK(int, symlink, (const char* text, const char* path), text, path)
ORV_SIM_RISK(int, link, (const char* from, const char* to), from, to)
ORV_SIM_RISK(ssize_t, readlink, (const char* path, char* into, std::size_t size), path, into, size)
ORV_SIM_RISK(int, unlink, (const char* path), path)
ORV_SIM_RISK(int, mkdir, (const char* path, mode_t mode), path, mode)
ORV_SIM_CALL(int, stat, (const char* path, struct stat* st), path, st)
ORV_SIM_CALL(int, lstat, (const char* path, struct stat* st), path, st)
ORV_SIM_CALL(int, fstat, (int fd, struct stat* st), fd, st)
ORV_SIM_CALL(DIR*, opendir, (const char* path), path)
ORV_SIM_CALL(dirent*, readdir, (DIR* dir), dir)
ORV_SIM_CALL(int, closedir, (DIR* dir), dir)
ORV_SIM_RISK(int, flock, (int fd, int operation), fd, operation)
ORV_SIM_CALL(int, fcntl, (int fd, int command, long argument), fd, command, argument)
ORV_SIM_RISK(int, socketpair, (int domain, int type, int protocol, int* ends), domain, type, protocol, ends)
ORV_SIM_CALL(ssize_t, send, (int fd, const void* bytes, std::size_t size, int flags), fd, bytes, size, flags)
ORV_SIM_CALL(ssize_t, recv, (int fd, void* into, std::size_t size, int flags), fd, into, size, flags)
ORV_SIM_CALL(long, syscall, (long number, long pid, long flags), number, pid, flags)
ORV_SIM_CALL(int, poll, (pollfd* fds, nfds_t count, int timeout_ms), fds, count, timeout_ms)
ORV_SIM_RISK(pid_t, fork, ())
ORV_SIM_RISK(int, clone, (int (*body)(void*), void* stack, int flags, void* context), body, stack, flags, context)
ORV_SIM_CALL(pid_t, waitpid, (pid_t pid, int* status, int flags), pid, status, flags)
ORV_SIM_CALL(int, kill, (pid_t pid, int number), pid, number)
ORV_SIM_CALL(int, sigaction, (int number, const struct sigaction* set, struct sigaction* old), number, set, old)
ORV_SIM_CALL(sighandler_t, signal, (int number, sighandler_t handler), number, handler)

ORV_SIM_VALUE(time_t, time, (time_t* into), (into), now(into))
ORV_SIM_VALUE(int, clock_gettime, (clockid_t clock, timespec* into), (clock, into), now(clock, into))
ORV_SIM_VALUE(int, dup2, (int from, int to), (from, to), to)
ORV_SIM_VALUE(pid_t, getpid, (), (), current_world->running->pid)
ORV_SIM_VALUE(pid_t, setsid, (), (), current_world->running->pid)
ORV_SIM_VALUE(int, setpgid, (pid_t pid, pid_t group), (pid, group), 0)
ORV_SIM_VALUE(uid_t, geteuid, (), (), 0)
ORV_SIM_VALUE(int, sigprocmask, (int how, const sigset_t* set, sigset_t* old), (how, set, old), 0)
ORV_SIM_VALUE(int, chmod, (const char* path, mode_t mode), (path, mode), 0)
ORV_SIM_VALUE(int, fchmod, (int fd, mode_t mode), (fd, mode), 0)
ORV_SIM_VALUE(int, fchown, (int fd, uid_t owner, gid_t group), (fd, owner, group), 0)
ORV_SIM_VALUE(char*, realpath, (const char* path, char* into), (path, into), ::strdup(path))
// clang-format on
