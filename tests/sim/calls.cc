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
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sim/world.h"

namespace orv::sim {
namespace {

// One call of a simulated process: the moment in which it can be killed, interrupted by another
// process, or fail.
class Call {
 public:
  explicit Call(bool can_fail = false) : world(*current_world), self(*world.running) {
    current_world = nullptr;
    const std::uint64_t number = ++self.calls;
    if (number >= self.dies_at) world.kill_process(self);
    if (world.races && world.rng.one_in(6)) world.yield();
    if (can_fail && number >= self.fails_at) {
      self.fails_at = UINT64_MAX;
      injected = self.fails_with;
    }
  }
  ~Call() { current_world = &world; }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;

  [[nodiscard]] OpenFile* file(int fd) const {
    const auto at = self.fds.find(fd);
    return at == self.fds.end() ? nullptr : at->second.get();
  }
  int add(OpenRef open, int from = kFirstFd) const {
    int fd = from;
    while (self.fds.contains(fd)) ++fd;
    self.fds[fd] = std::move(open);
    return fd;
  }

  World& world;
  Process& self;
  int injected = 0;  // errno of the failure that this call is to meet
};

int failed(int error) {
  errno = error;
  return -1;
}

std::string absolute(const char* path) {
  std::string text = *path == '/' ? path : "/" + std::string(path);
  while (text.size() > 1 && text.ends_with('/')) text.pop_back();
  return text;
}

NodeRef text_node(std::string text) {
  auto node = std::make_shared<Node>();
  node->data = std::move(text);
  return node;
}

std::string stat_line(int pid, const char* name, char state, int parent, std::int64_t ticks) {
  std::array<char, 256> text{};
  std::snprintf(text.data(), text.size(),
                "%d (%s) %c %d %d %d 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 %lld 0 0\n", pid, name, state,
                parent, pid, pid, static_cast<long long>(ticks));
  return text.data();
}

// What /proc says of a process, or null.
NodeRef proc_file(World& world, const std::string& path) {
  if (path == "/proc/sys/kernel/random/boot_id") return text_node(world.boot_id);
  int pid = 0;
  std::array<char, 16> what{};
  if (path == "/proc/self/stat") {
    pid = world.running->pid;
    std::strcpy(what.data(), "stat");
  } else if (std::sscanf(path.c_str(), "/proc/%d/%15s", &pid, what.data()) != 2) {
    return nullptr;
  }
  const bool comm = std::strcmp(what.data(), "comm") == 0;
  if (!comm && std::strcmp(what.data(), "stat") != 0) return nullptr;
  if (const Process* const process = world.process_of(pid)) {
    return text_node(comm ? "orv_sched\n"
                          : stat_line(pid, "orv_sched", 'S', 1, process->started_ticks));
  }
  if (const auto tool = world.tool_of(pid)) {
    const char* const name = tool->state == Tool::State::Held ? "orv_sched" : "orv_agent";
    const char state = tool->state == Tool::State::Ended ? 'Z' : 'S';
    return text_node(comm ? std::string(name) + "\n"
                          : stat_line(pid, name, state, tool->runner, tool->started_ticks));
  }
  return nullptr;
}

int do_open(const Call& call, const std::string& path, int flags, mode_t mode) {
  World& world = call.world;
  if (call.injected != 0) return failed(call.injected);
  NodeRef node = path.starts_with("/proc/") ? proc_file(world, path) : world.disk.find(path);
  if (node && (flags & O_CREAT) != 0 && (flags & O_EXCL) != 0) return failed(EEXIST);
  if (!node) {
    if ((flags & O_CREAT) == 0) return failed(ENOENT);
    if (!world.disk.find(path.substr(0, std::max<std::size_t>(path.rfind('/'), 1)))) {
      return failed(ENOENT);
    }
    if (world.disk.full) return failed(ENOSPC);
    node = world.disk.create(path, false, world.mono);
    node->mode = mode;
    node->modified = world.mono + world.wall_offset;
  } else if (node->directory && (flags & O_ACCMODE) != O_RDONLY) {
    return failed(EISDIR);
  } else if (!node->directory && (flags & O_DIRECTORY) != 0) {
    return failed(ENOTDIR);
  }
  if ((flags & O_TRUNC) != 0 && !node->data.empty()) {
    world.disk.change(*node, world.mono, world.mono + world.wall_offset);
    node->data.clear();
  }
  auto open = std::make_shared<OpenFile>();
  open->kind = node->directory ? OpenFile::Kind::Directory : OpenFile::Kind::File;
  if (path == "/dev/null") open->kind = OpenFile::Kind::Null;
  open->node = std::move(node);
  open->path = path;
  open->flags = flags;
  return call.add(std::move(open));
}

// The lines that a process writes to its standard error are its log.
void take_log(const Call& call, std::string_view bytes) {
  std::string& line = call.self.log_line;
  for (const char c : bytes) {
    if (c != '\n') {
      line += c;
      continue;
    }
    const std::size_t start = line.find("job '");
    const std::size_t end = line.find("' starting (");
    if (start != std::string::npos && end != std::string::npos) {
      call.self.job = line.substr(start + 5, end - start - 5);
    }
    call.world.observer.logged(call.self, line);
    line.clear();
  }
}

ssize_t do_write(const Call& call, int fd, const void* bytes, std::size_t size) {
  const std::string_view text(static_cast<const char*>(bytes), size);
  OpenFile* const open = call.file(fd);
  if (fd == STDOUT_FILENO || fd == STDERR_FILENO) {
    if (open == nullptr) take_log(call, text);
    return static_cast<ssize_t>(size);
  }
  if (open == nullptr) return failed(EBADF);
  if (call.injected != 0) return failed(call.injected);
  if (open->kind == OpenFile::Kind::Null) return static_cast<ssize_t>(size);
  if (open->kind == OpenFile::Kind::PipeWrite) {
    open->pipe->data.append(text);
    return static_cast<ssize_t>(size);
  }
  if (call.world.disk.full) return failed(ENOSPC);
  Node& node = *open->node;
  call.world.disk.change(node, call.world.mono, call.world.mono + call.world.wall_offset);
  if ((open->flags & O_APPEND) != 0) open->offset = node.data.size();
  if (node.data.size() < open->offset + size) node.data.resize(open->offset + size);
  node.data.replace(open->offset, size, text);
  open->offset += size;
  return static_cast<ssize_t>(size);
}

ssize_t do_read(const Call& call, int fd, void* into, std::size_t size, const off_t* where) {
  OpenFile* const open = call.file(fd);
  if (open == nullptr) return failed(EBADF);
  if (call.injected != 0) return failed(call.injected);
  if (open->kind == OpenFile::Kind::PipeRead) {
    std::string& data = open->pipe->data;
    const std::size_t got = std::min(size, data.size());
    std::memcpy(into, data.data(), got);
    data.erase(0, got);
    return static_cast<ssize_t>(got);
  }
  if (open->kind != OpenFile::Kind::File) return 0;
  const std::string& data = open->node->data;
  const std::size_t at = where != nullptr ? static_cast<std::size_t>(*where) : open->offset;
  const std::size_t got = at >= data.size() ? 0 : std::min(size, data.size() - at);
  std::memcpy(into, data.data() + at, got);
  if (where == nullptr) open->offset += got;
  return static_cast<ssize_t>(got);
}

int do_stat(const NodeRef& node, struct stat* st) {
  if (!node) return failed(ENOENT);
  *st = {};
  st->st_mode = (node->directory ? S_IFDIR : S_IFREG) | node->mode;
  st->st_ino = node->number;
  st->st_dev = 1;
  st->st_nlink = 1;
  st->st_size = static_cast<off_t>(node->data.size());
  st->st_mtim = {node->modified / kSecond, node->modified % kSecond};
  return 0;
}

bool pollable(const Call& call, const pollfd& fd) {
  const OpenFile* const open = call.file(fd.fd);
  if (open == nullptr) return false;
  if (open->kind == OpenFile::Kind::Pidfd) return open->tool->state >= Tool::State::Ended;
  return open->kind == OpenFile::Kind::PipeRead &&
         (!open->pipe->data.empty() || open->pipe->writers == 0);
}

int do_poll(const Call& call, pollfd* fds, nfds_t count, int timeout_ms) {
  World& world = call.world;
  const auto find_ready = [&] {
    int ready = 0;
    for (nfds_t i = 0; i < count; ++i) {
      fds[i].revents = pollable(call, fds[i]) ? POLLIN : 0;
      ready += fds[i].revents != 0 ? 1 : 0;
    }
    return ready;
  };
  if (const int ready = find_ready(); ready > 0 || timeout_ms == 0) return ready;
  // Who waits for a tool looks at other things every few milliseconds; it is enough that it looks
  // after whatever happens, and now and then for its time limits.
  const bool for_tool = std::any_of(fds, fds + count, [&](const pollfd& fd) {
    const OpenFile* const open = call.file(fd.fd);
    return open != nullptr && open->kind == OpenFile::Kind::Pidfd;
  });
  const std::int64_t asked =
      timeout_ms < 0 ? kForever : world.mono + timeout_ms * std::int64_t{1'000'000};
  const std::int64_t end = for_tool ? std::max(asked, world.mono + 30 * kSecond) : asked;
  const std::uint64_t events = world.events;
  const std::size_t signals = call.self.signals.size();
  world.block([&] { return world.events != events || find_ready() > 0; }, end);
  const int ready = find_ready();
  if (ready == 0 && signals != call.self.signals.size()) return failed(EINTR);
  return ready;
}

pid_t do_fork(const Call& call) {
  World& world = call.world;
  Process& self = call.self;
  if (call.injected != 0) return failed(call.injected);
  // `start` goes on in the child: its parent has nothing left to do but to say so.
  if (self.job.empty() && self.what.starts_with("start")) return 0;
  auto tool = std::make_shared<Tool>();
  tool->pid = world.new_pid();
  tool->runner = self.pid;
  tool->job = self.job;
  tool->forced = self.forced;
  tool->started_ticks = world.mono / (kSecond / 100);
  for (const auto& [fd, open] : self.fds) {
    if (open->kind == OpenFile::Kind::File && open->path.starts_with(kLogDir)) tool->output = open;
  }
  self.tool = tool;
  world.tools.push_back(tool);
  return tool->pid;
}

pid_t do_wait(const Call& call, pid_t pid, int* status, int flags) {
  const std::shared_ptr<Tool> tool = call.self.tool;
  if (!tool || tool->pid != pid || tool->state == Tool::State::Reaped) return failed(ECHILD);
  if (tool->state != Tool::State::Ended) {
    if ((flags & WNOHANG) != 0) return 0;
    call.world.block([&] { return tool->state == Tool::State::Ended; }, kForever);
  }
  *status = tool->status;
  tool->state = Tool::State::Reaped;
  return pid;
}

int do_kill(const Call& call, pid_t pid, int number) {
  World& world = call.world;
  if (Process* const process = world.process_of(pid)) {
    if (number != 0) world.send_signal(*process, number);
    return 0;
  }
  const std::shared_ptr<Tool> tool = world.tool_of(std::abs(pid));
  if (!tool) return failed(ESRCH);
  if (tool->state != Tool::State::Running) return 0;
  if (number == SIGKILL) world.end_tool(*tool, SIGKILL);
  if (number == SIGTERM && !tool->stubborn) {
    tool->exit_code = 143;
    tool->ends = std::min(tool->ends, world.mono + world.rng.between(0, 3) * kSecond);
  }
  return 0;
}

int do_flock(const Call& call, int fd, int operation) {
  OpenFile* const open = call.file(fd);
  if (open == nullptr) return failed(EBADF);
  if (call.injected != 0) return failed(call.injected);
  const NodeRef node = open->node;
  if ((operation & LOCK_UN) != 0) {
    if (node->locked_by == open) node->locked_by = nullptr;
    return 0;
  }
  const auto ours = [&] { return node->locked_by == nullptr || node->locked_by == open; };
  if (!ours()) {
    if ((operation & LOCK_NB) != 0) return failed(EWOULDBLOCK);
    call.world.block(ours, kForever);
    if (!ours()) return failed(EINTR);
  }
  node->locked_by = open;
  return 0;
}

int do_duplicate(const Call& call, int from, int to) {
  const auto at = call.self.fds.find(from);
  if (at == call.self.fds.end()) return failed(EBADF);
  const OpenRef open = at->second;
  call.self.fds[to] = open;
  return to;
}

// The log of a process that has cut itself loose from its terminal. Other processes' lines were
// seen on their standard error.
void take_syslog(const char* format, va_list args) {
  if (current_world == nullptr || !current_world->running->fds.contains(STDERR_FILENO)) return;
  std::array<char, 1024> line{};
  const int lead = std::snprintf(line.data(), line.size(), "%-21s", "");
  const auto start = static_cast<std::size_t>(lead);
  std::vsnprintf(line.data() + start, line.size() - start - 1, format, args);
  const Call call;
  take_log(call, std::string(line.data()) + "\n");
}

struct Listing {
  std::vector<std::string> names;
  std::size_t next = 0;
  dirent entry{};
};

}  // namespace
}  // namespace orv::sim

using namespace orv::sim;

// NAME(result, name, parameters, arguments): the two functions that the linker asks for.
#define ORV_SIM_CALL(result, name, parameters, arguments) \
  result __real_##name parameters;                        \
  result __wrap_##name parameters;                        \
  result __wrap_##name parameters {                       \
    if (current_world == nullptr) return __real_##name arguments;

extern "C" {

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  if (current_world == nullptr) return __real_open(path, flags, mode);
  const Call call(true);
  return do_open(call, absolute(path), flags, mode);
}

ORV_SIM_CALL(int, close, (int fd), (fd))
const Call call;
return call.self.fds.erase(fd) == 1 || fd <= STDERR_FILENO ? 0 : failed(EBADF);
}

ORV_SIM_CALL(ssize_t, read, (int fd, void* into, std::size_t size), (fd, into, size))
const Call call(true);
return do_read(call, fd, into, size, nullptr);
}

ORV_SIM_CALL(ssize_t, __read_chk, (int fd, void* into, std::size_t size, std::size_t room),
             (fd, into, size, room))
const Call call(true);
return do_read(call, fd, into, size, nullptr);
}

ORV_SIM_CALL(ssize_t, pread, (int fd, void* into, std::size_t size, off_t at), (fd, into, size, at))
const Call call(true);
return do_read(call, fd, into, size, &at);
}

ORV_SIM_CALL(ssize_t, __pread_chk,
             (int fd, void* into, std::size_t size, off_t at, std::size_t room),
             (fd, into, size, at, room))
const Call call(true);
return do_read(call, fd, into, size, &at);
}

ORV_SIM_CALL(ssize_t, write, (int fd, const void* bytes, std::size_t size), (fd, bytes, size))
const Call call(true);
return do_write(call, fd, bytes, size);
}

ORV_SIM_CALL(int, fsync, (int fd), (fd))
const Call call(true);
OpenFile* const open = call.file(fd);
if (open == nullptr) return failed(EBADF);
if (call.injected != 0) return failed(call.injected);
if (open->kind == OpenFile::Kind::Directory) {
  call.world.disk.flush_names();
} else {
  Disk::flush(*open->node);
}
return 0;
}

ORV_SIM_CALL(int, rename, (const char* from, const char* to), (from, to))
const Call call(true);
Disk& disk = call.world.disk;
if (call.injected != 0) return failed(call.injected);
const NodeRef node = disk.find(from);
if (!node) return failed(ENOENT);
disk.name(to, node, call.world.mono);
disk.name(from, nullptr, call.world.mono);
return 0;
}

ORV_SIM_CALL(int, symlink, (const char* text, const char* path), (text, path))
constexpr std::size_t kFitsInode = 60;  // bytes of a link that needs no block of the disk
const Call call(true);
Disk& disk = call.world.disk;
if (call.injected != 0) return failed(call.injected);
if (disk.find(path)) return failed(EEXIST);
if (disk.full && std::strlen(text) >= kFitsInode) return failed(ENOSPC);
const NodeRef node = disk.create(path, false, call.world.mono);
node->link = true;
node->data = text;
return 0;
}

ORV_SIM_CALL(ssize_t, readlink, (const char* path, char* into, std::size_t size),
             (path, into, size))
const Call call(true);
if (call.injected != 0) return failed(call.injected);
const NodeRef node = call.world.disk.find(path);
if (!node) return failed(ENOENT);
if (!node->link) return failed(EINVAL);
const std::size_t got = std::min(size, node->data.size());
std::memcpy(into, node->data.data(), got);
return static_cast<ssize_t>(got);
}

ORV_SIM_CALL(ssize_t, __readlink_chk,
             (const char* path, char* into, std::size_t size, std::size_t room),
             (path, into, size, room))
return __wrap_readlink(path, into, size);
}

ORV_SIM_CALL(int, unlink, (const char* path), (path))
const Call call;
if (!call.world.disk.find(path)) return failed(ENOENT);
call.world.disk.name(path, nullptr, call.world.mono);
return 0;
}

ORV_SIM_CALL(int, mkdir, (const char* path, mode_t mode), (path, mode))
const Call call(true);
if (call.injected != 0) return failed(call.injected);
if (call.world.disk.find(path)) return failed(EEXIST);
if (call.world.disk.full) return failed(ENOSPC);
call.world.disk.create(path, true, call.world.mono)->mode = mode;
return 0;
}

ORV_SIM_CALL(int, stat, (const char* path, struct stat* st), (path, st))
const Call call;
return do_stat(call.world.disk.find(absolute(path)), st);
}

ORV_SIM_CALL(int, lstat, (const char* path, struct stat* st), (path, st))
const Call call;
return do_stat(call.world.disk.find(absolute(path)), st);
}

ORV_SIM_CALL(int, fstat, (int fd, struct stat* st), (fd, st))
const Call call;
const OpenFile* const open = call.file(fd);
return open == nullptr ? failed(EBADF) : do_stat(open->node, st);
}

ORV_SIM_CALL(int, chmod, (const char*, mode_t), (nullptr, 0)) return 0;
}
ORV_SIM_CALL(int, fchmod, (int fd, mode_t mode), (fd, mode)) return 0;
}
ORV_SIM_CALL(int, fchown, (int fd, uid_t owner, gid_t group), (fd, owner, group)) return 0;
}
ORV_SIM_CALL(uid_t, geteuid, (), ()) return 0;
}
ORV_SIM_CALL(char*, realpath, (const char* path, char* into), (path, into))
return into != nullptr ? std::strcpy(into, path) : ::strdup(path);
}

ORV_SIM_CALL(DIR*, opendir, (const char* path), (path))
const Call call(true);
if (call.injected != 0) return failed(call.injected), nullptr;
const NodeRef node = call.world.disk.find(absolute(path));
if (!node || !node->directory) return failed(ENOENT), nullptr;
auto* const listing = new Listing;
listing->names = call.world.disk.list(absolute(path));
return reinterpret_cast<DIR*>(listing);
}

ORV_SIM_CALL(dirent*, readdir, (DIR * dir), (dir))
auto& listing = *reinterpret_cast<Listing*>(dir);
if (listing.next == listing.names.size()) return nullptr;
const std::string& name = listing.names[listing.next++];
std::snprintf(listing.entry.d_name, sizeof listing.entry.d_name, "%s", name.c_str());
return &listing.entry;
}

ORV_SIM_CALL(int, closedir, (DIR * dir), (dir))
delete reinterpret_cast<Listing*>(dir);
return 0;
}

ORV_SIM_CALL(int, flock, (int fd, int operation), (fd, operation))
const Call call(true);
return do_flock(call, fd, operation);
}

int __real_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...);
int __wrap_fcntl(int fd, int command, ...) {
  va_list args;
  va_start(args, command);
  const long argument = va_arg(args, long);
  va_end(args);
  if (current_world == nullptr) return __real_fcntl(fd, command, argument);
  const Call call;
  if (command != F_DUPFD_CLOEXEC) return 0;
  const auto at = call.self.fds.find(fd);
  return at == call.self.fds.end() ? failed(EBADF) : call.add(at->second);
}

ORV_SIM_CALL(int, dup2, (int from, int to), (from, to))
const Call call;
return do_duplicate(call, from, to);
}

ORV_SIM_CALL(int, pipe2, (int* ends, int flags), (ends, flags))
const Call call(true);
if (call.injected != 0) return failed(call.injected);
auto pipe = std::make_shared<Pipe>();
pipe->writers = 1;
auto reader = std::make_shared<OpenFile>();
reader->kind = OpenFile::Kind::PipeRead;
reader->pipe = pipe;
auto writer = std::make_shared<OpenFile>();
writer->kind = OpenFile::Kind::PipeWrite;
writer->pipe = pipe;
ends[0] = call.add(std::move(reader));
ends[1] = call.add(std::move(writer));
return 0;
}

// The leash of a child that waits to be let go.
ORV_SIM_CALL(int, socketpair, (int domain, int type, int protocol, int* ends),
             (domain, type, protocol, ends))
const Call call(true);
if (call.injected != 0) return failed(call.injected);
for (int i = 0; i < 2; ++i) {
  auto end = std::make_shared<OpenFile>();
  end->kind = OpenFile::Kind::Leash;
  ends[i] = call.add(std::move(end));
}
return 0;
}

ORV_SIM_CALL(ssize_t, send, (int fd, const void* bytes, std::size_t size, int flags),
             (fd, bytes, size, flags))
const Call call;
const OpenFile* const open = call.file(fd);
if (open == nullptr || open->kind != OpenFile::Kind::Leash) return failed(EBADF);
Tool* const tool = call.self.tool.get();
if (tool == nullptr || tool->state != Tool::State::Held) return failed(EPIPE);
call.world.let_go(*tool);
return static_cast<ssize_t>(size);
}

ORV_SIM_CALL(ssize_t, recv, (int fd, void* into, std::size_t size, int flags),
             (fd, into, size, flags))
const Call call;
return failed(EAGAIN);  // no exec fails here
}

ORV_SIM_CALL(int, poll, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))
const Call call;
return do_poll(call, fds, count, timeout);
}

ORV_SIM_CALL(int, __poll_chk, (pollfd * fds, nfds_t count, int timeout, std::size_t room),
             (fds, count, timeout, room))
const Call call;
return do_poll(call, fds, count, timeout);
}

ORV_SIM_CALL(int, nanosleep, (const timespec* time, timespec* left), (time, left))
const Call call;
call.world.block([] { return false; }, call.world.mono + time->tv_sec * kSecond + time->tv_nsec);
return 0;
}

ORV_SIM_CALL(pid_t, fork, (), ())
const Call call(true);
return do_fork(call);
}

ORV_SIM_CALL(pid_t, waitpid, (pid_t pid, int* status, int flags), (pid, status, flags))
const Call call;
return do_wait(call, pid, status, flags);
}

ORV_SIM_CALL(int, kill, (pid_t pid, int number), (pid, number))
const Call call;
return do_kill(call, pid, number);
}

ORV_SIM_CALL(pid_t, getpid, (), ()) return current_world->running->pid;
}
ORV_SIM_CALL(pid_t, getppid, (), ()) return 1;
}
ORV_SIM_CALL(pid_t, setsid, (), ()) return current_world->running->pid;
}
ORV_SIM_CALL(int, setpgid, (pid_t pid, pid_t group), (pid, group)) return 0;
}

long __real_syscall(long number, ...);
long __wrap_syscall(long number, ...);
long __wrap_syscall(long number, ...) {
  va_list args;
  va_start(args, number);
  std::array<long, 3> words{};
  for (long& word : words) word = va_arg(args, long);
  va_end(args);
  if (current_world == nullptr) return __real_syscall(number, words[0], words[1], words[2]);
  const Call call;
  if (number != SYS_pidfd_open) return failed(ENOSYS);
  auto open = std::make_shared<OpenFile>();
  open->kind = OpenFile::Kind::Pidfd;
  open->tool = call.self.tool;
  return call.add(std::move(open));
}

ORV_SIM_CALL(int, sigaction, (int number, const struct sigaction* set, struct sigaction* old),
             (number, set, old))
const Call call;
if (old != nullptr) {
  *old = {};
  const auto at = call.self.handlers.find(number);
  if (at != call.self.handlers.end()) {
    old->sa_handler = at->second != nullptr ? at->second : SIG_IGN;
  }
}
if (set == nullptr) return 0;
if (set->sa_handler == SIG_DFL) {
  call.self.handlers.erase(number);
} else {
  call.self.handlers[number] = set->sa_handler == SIG_IGN ? nullptr : set->sa_handler;
}
return 0;
}

ORV_SIM_CALL(sighandler_t, signal, (int number, sighandler_t handler), (number, handler))
const Call call;
if (handler == SIG_DFL) {
  call.self.handlers.erase(number);
} else {
  call.self.handlers[number] = handler == SIG_IGN ? nullptr : handler;
}
return SIG_DFL;
}

ORV_SIM_CALL(int, sigprocmask, (int how, const sigset_t* set, sigset_t* old), (how, set, old))
return 0;
}

ORV_SIM_CALL(time_t, time, (time_t * into), (into))
const time_t now = current_world->wall();
if (into != nullptr) *into = now;
return now;
}

ORV_SIM_CALL(int, clock_gettime, (clockid_t clock, timespec* into), (clock, into))
const World& world = *current_world;
const std::int64_t now = world.mono + (clock == CLOCK_REALTIME ? world.wall_offset : 0);
*into = {now / kSecond, now % kSecond};
return 0;
}

void __wrap_syslog(int priority, const char* format, ...);
void __wrap_syslog(int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  take_syslog(format, args);
  va_end(args);
}

void __wrap___syslog_chk(int priority, int flag, const char* format, ...);
void __wrap___syslog_chk(int, int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  take_syslog(format, args);
  va_end(args);
}

}  // extern "C"
