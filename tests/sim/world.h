// A server in memory under the control of one seed: its clock, its disk, its processes. The
// processes of the scheduler are the real code, each on a stack of its own; whatever they ask of
// the system comes here (calls.cc), and where they would wait the world goes on. Nothing sleeps,
// nothing runs in parallel, and the same seed gives the same history.
#ifndef ORV_TESTS_SIM_WORLD_H_
#define ORV_TESTS_SIM_WORLD_H_

#include <ucontext.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sim/disk.h"
#include "sim/rng.h"

namespace orv::sim {

inline constexpr int kFirstFd = 1'000'000;  // so that a call that is not simulated fails
inline constexpr std::int64_t kSecond = 1'000'000'000;
inline constexpr std::int64_t kForever = INT64_MAX;

inline constexpr const char* kConfigPath = "/etc/orv/orv_sched.cfg";
inline constexpr const char* kQueuePath = "/var/lib/orv_sched/queue.state";
inline constexpr const char* kLogDir = "/var/log/jobs";

class Model;
struct Tool;
using ToolRef = std::shared_ptr<Tool>;

struct OpenFile {
  NodeRef node;       // none: a socket, or what `tool` says
  ToolRef tool = {};  // of a pidfd
  int flags = 0;
  std::uint64_t offset = 0;
  ~OpenFile() {
    if (node && node->locked_by == this) node->locked_by = nullptr;
  }
};
using OpenRef = std::shared_ptr<OpenFile>;

// A run of a tool, from the fork to the moment its runner has reaped it.
struct Tool {
  enum class State { Held, Running, Ended, Reaped };
  State state = State::Held;
  int pid = 0;
  int runner = 0;  // pid
  std::string job;
  bool forced = false;  // started beside others on purpose
  bool stubborn = false;
  std::int64_t started_ticks = 0;
  std::int64_t ends = kForever;  // nanoseconds since the world began
  int exit_code = 0;
  int status = 0;  // as waitpid() reports it
};

// One process of the scheduler.
struct Process {
  int pid = 0;
  std::string what;  // "daemon", "run a", ...
  std::function<int()> body;
  ucontext_t context{};
  std::unique_ptr<char[]> stack;
  std::vector<char> image;  // its own copy of the program's variables while another one runs
  bool gone = false;
  int status = 0;
  std::int64_t started_ticks = 0;
  bool forced = false;
  std::string job;  // the run that its log spoke of last

  // What it waits for; both empty while it can go on.
  std::function<bool()> ready;
  std::int64_t deadline = 0;

  std::map<int, OpenRef> fds;
  std::map<int, void (*)(int)> handlers;  // as signal() takes them; none: the default action
  std::vector<int> signals;               // sent, not yet handled
  ToolRef tool;                           // the newest that it forked
  std::uint64_t calls = 0;
  std::uint64_t dies_at = UINT64_MAX;   // the call in which it is killed
  std::uint64_t fails_at = UINT64_MAX;  // the call that fails
  int fails_with = 0;                   // errno
};

class World {
 public:
  World(std::uint64_t seed, Model& model);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Starts a scheduler process; `body` is its main().
  Process& spawn(std::string what, std::function<int()> body);
  void send_signal(Process& process, int number);
  void kill_process(Process& process);  // SIGKILL; does not return when it is the running one
  void reboot(bool power_loss);
  // Runs everything until `mono` nanoseconds since the world began.
  void run_until(std::int64_t mono);
  void run_for(std::int64_t nanoseconds) { run_until(mono + nanoseconds); }
  // Calls `what` at that time; it counts as something that happened.
  void at(std::int64_t mono, std::function<void()> what);

  [[nodiscard]] std::int64_t wall_ns() const { return mono + wall_offset; }
  [[nodiscard]] std::int64_t wall() const { return wall_ns() / kSecond; }
  [[nodiscard]] Process* find_process(std::string_view what);
  [[nodiscard]] Process* process_of(int pid);
  [[nodiscard]] ToolRef tool_of(int pid);
  int new_pid();

  // For the system calls of the running process.
  void block(std::function<bool()> ready, std::int64_t deadline);
  void let_go(Tool& tool);
  void end_tool(Tool& tool, int status);
  // How long a process that only waits for its next look may sleep: to the next event, or to the
  // next run that the queue file names. At least `least` nanoseconds from now.
  [[nodiscard]] std::int64_t quiet_until(std::int64_t least) const;

  // Decides what a tool is going to do: `ends`, `exit_code`, `stubborn`.
  std::function<void(Tool&)> shape;

  Rng rng;
  Model& model;
  Disk disk;
  std::int64_t mono = kSecond;  // nanoseconds since the world began; goes on over a reboot
  std::int64_t wall_offset = 0;
  std::uint64_t events = 0;
  std::int64_t last_change = 0;  // when anything happened that a waiting process may react to
  std::string boot_id;
  Process* running = nullptr;
  std::vector<std::unique_ptr<Process>> processes;
  std::vector<ToolRef> tools;
  bool races = false;  // processes may be interrupted between any two calls

 private:
  void happened();
  void resume(Process& process);
  void take_image(Process& process);
  void end_process(Process& process, bool killed);
  bool step_processes();
  static void enter_process();

  ucontext_t main_{};
  Process* in_memory_ = nullptr;  // whose variables the program has at the moment
  std::vector<char> pristine_;
  std::multimap<std::int64_t, std::function<void()>> agenda_;
  int last_pid_ = 300;
};

// The world whose process is running; null outside of one, and inside the world's own code.
extern thread_local World* current_world;

}  // namespace orv::sim

#endif  // ORV_TESTS_SIM_WORLD_H_
