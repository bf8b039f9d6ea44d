#include "sim/world.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "sim/model.h"

// The program's own variables, as the linker lays them out: what each process has a copy of. The
// world's are on the heap or of the thread, and so are those of the shared libraries.
extern "C" {
extern char __data_start;
extern char _end;
}

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
// Processes that are killed take their memory with them, as they do in life.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "detect_leaks=0:detect_stack_use_after_return=0";
}
#define ORV_SIM_LEAVE_STACK(fake, to) __sanitizer_start_switch_fiber(fake, (to).bottom, (to).size)
#define ORV_SIM_ENTER_STACK(fake, from) \
  __sanitizer_finish_switch_fiber(fake, &(from).bottom, &(from).size)
#else
#define ORV_SIM_LEAVE_STACK(fake, to) (void)(fake), (void)(to)
#define ORV_SIM_ENTER_STACK(fake, from) (void)(fake), (void)(from)
#endif

namespace orv::sim {

thread_local World* current_world = nullptr;

namespace {

constexpr std::size_t kStackSize = 512 * 1024;
constexpr std::int64_t kLongestNap = 86400 * kSecond;

struct Stack {
  const void* bottom = nullptr;
  std::size_t size = 0;
};
thread_local Stack main_stack;  // known to the sanitizer only, from the first switch

// Not memcpy(): the address sanitizer watches the gaps between variables.
[[gnu::no_sanitize("address", "undefined")]] void copy_bytes(char* to, const char* from,
                                                             std::size_t size) {
  asm volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(size) : : "memory");
}

// Goes on in `to`, and comes back when somebody goes on in `from`. The sanitizer is told.
void switch_context(ucontext_t& from, ucontext_t& to, const Stack& stack) {
  void* fake = nullptr;
  Stack left;
  ORV_SIM_LEAVE_STACK(&fake, stack);
  ::swapcontext(&from, &to);
  ORV_SIM_ENTER_STACK(fake, left);
}

std::string make_boot_id(Rng& rng) {
  std::array<char, 40> text{};
  const auto high = static_cast<unsigned>(rng.next());
  const auto low = static_cast<unsigned long>(rng.next() & 0xffffffffffffU);
  std::snprintf(text.data(), text.size(), "%08x-0000-4000-8000-%012lx\n", high, low);
  return text.data();
}

}  // namespace

World::World(std::uint64_t seed, Model& model_in) : rng(seed), model(model_in) {
  boot_id = make_boot_id(rng);
  for (const char* path : {"/dev", "/etc", "/etc/orv", "/var", "/var/lib", "/var/log"}) {
    disk.create(path, true, 0);
  }
  disk.create("/dev/null", false, 0);
  disk.flush_names();
  pristine_.resize(static_cast<std::size_t>(&_end - &__data_start));
  copy_bytes(pristine_.data(), &__data_start, pristine_.size());
}

World::~World() { copy_bytes(&__data_start, pristine_.data(), pristine_.size()); }

void World::happened() {
  ++events;
  last_change = mono;
}

// Numbers are used again soon: nothing may take a number for a process.
int World::new_pid() {
  do {
    last_pid_ = last_pid_ >= 340 ? 300 : last_pid_ + 1;
  } while (process_of(last_pid_) != nullptr || tool_of(last_pid_) != nullptr);
  return last_pid_;
}

Process& World::spawn(std::string what, std::function<int()> body) {
  happened();
  Process& made = *processes.emplace_back(std::make_unique<Process>());
  made.pid = new_pid();
  made.what = std::move(what);
  made.body = std::move(body);
  made.started_ticks = mono / (kSecond / 100);
  made.stack = std::make_unique_for_overwrite<char[]>(kStackSize);
  made.image = pristine_;
  made.ready = [] { return true; };
  ::getcontext(&made.context);
  made.context.uc_stack.ss_sp = made.stack.get();
  made.context.uc_stack.ss_size = kStackSize;
  ::makecontext(&made.context, &World::enter_process, 0);
  return made;
}

void World::enter_process() {
  ORV_SIM_ENTER_STACK(nullptr, main_stack);
  World& world = *current_world;
  Process& self = *world.running;
  self.status = self.body();
  current_world = nullptr;
  world.end_process(self, false);
  switch_context(self.context, world.main_, main_stack);
}

void World::take_image(Process& process) {
  if (in_memory_ == &process) return;
  if (in_memory_ != nullptr) {
    copy_bytes(in_memory_->image.data(), &__data_start, in_memory_->image.size());
  }
  copy_bytes(&__data_start, process.image.data(), process.image.size());
  in_memory_ = &process;
}

void World::resume(Process& process) {
  process.ready = nullptr;
  take_image(process);
  running = &process;
  current_world = this;
  switch_context(main_, process.context, {process.stack.get(), kStackSize});
  current_world = nullptr;
  running = nullptr;
}

// From inside a process: back to the world until `ready` holds or the time has come.
void World::block(std::function<bool()> ready, std::int64_t deadline) {
  Process& self = *running;
  self.ready = std::move(ready);
  self.deadline = deadline;
  switch_context(self.context, main_, main_stack);
  while (!self.signals.empty()) {
    const int number = self.signals.front();
    self.signals.erase(self.signals.begin());
    const auto handler = self.handlers.find(number);
    if (handler != self.handlers.end()) handler->second(number);
  }
}

void World::end_process(Process& process, bool killed) {
  happened();
  process.gone = true;
  process.fds.clear();
  if (in_memory_ == &process) in_memory_ = nullptr;
  // A tool that was not let go yet sees that its parent is gone, and leaves; one that has ended is
  // reaped by the system.
  if (process.tool && process.tool->state != Tool::State::Running) {
    process.tool->state = Tool::State::Reaped;
  }
  model.process_ended(process, killed);
}

void World::kill_process(Process& process) {
  end_process(process, true);
  if (&process != running) return;
  current_world = nullptr;
  switch_context(process.context, main_, main_stack);
}

void World::send_signal(Process& process, int number) {
  const auto handler = process.handlers.find(number);
  if (handler == process.handlers.end() || handler->second == SIG_DFL) {
    kill_process(process);
  } else if (handler->second != SIG_IGN) {
    process.signals.push_back(number);
    process.deadline = 0;  // the wait is interrupted
  }
}

void World::reboot(bool power_loss) {
  for (const auto& process : processes) {
    if (!process->gone) kill_process(*process);
  }
  for (const ToolRef& tool : tools) {
    if (tool->state == Tool::State::Running) end_tool(*tool, SIGKILL);
  }
  tools.clear();
  if (power_loss) {
    disk.lose_power(rng, mono);
  } else {
    disk.flush_names();
  }
  boot_id = make_boot_id(rng);
  mono += 60 * kSecond;
}

void World::at(std::int64_t when, std::function<void()> what) {
  agenda_.emplace(when, std::move(what));
}

Process* World::find_process(std::string_view what) {
  for (const auto& process : processes) {
    if (!process->gone && process->what == what) return process.get();
  }
  return nullptr;
}

Process* World::process_of(int pid) {
  for (const auto& process : processes) {
    if (!process->gone && process->pid == pid) return process.get();
  }
  return nullptr;
}

ToolRef World::tool_of(int pid) {
  for (const ToolRef& tool : tools) {
    if (tool->pid == pid && tool->state != Tool::State::Reaped) return tool;
  }
  return nullptr;
}

void World::let_go(Tool& tool) {
  tool.state = Tool::State::Running;
  shape(tool);
  model.tool_started(tool);
}

void World::end_tool(Tool& tool, int status) {
  happened();
  tool.state = Tool::State::Ended;
  tool.status = status;
  model.tool_ended(tool);
  // Nobody waits for the tool of a dead runner; the system reaps it.
  const Process* const runner = process_of(tool.runner);
  if (runner == nullptr || runner->tool.get() != &tool) tool.state = Tool::State::Reaped;
}

// Lets one process run that can. False when none can.
bool World::step_processes() {
  std::vector<Process*> able;
  for (const auto& process : processes) {
    if (process->gone || !process->ready) continue;
    if (process->deadline <= mono || process->ready()) able.push_back(process.get());
  }
  if (able.empty()) return false;
  resume(*able[able.size() == 1 ? 0 : rng.below(able.size())]);
  std::erase_if(processes, [](const auto& process) { return process->gone; });
  std::erase_if(tools, [](const ToolRef& tool) { return tool->state == Tool::State::Reaped; });
  return true;
}

void World::run_until(std::int64_t until) {
  for (;;) {
    while (step_processes()) {
    }
    std::int64_t next = agenda_.empty() ? kForever : agenda_.begin()->first;
    for (const auto& process : processes) {
      if (!process->gone) next = std::min(next, process->deadline);
    }
    for (const ToolRef& tool : tools) {
      if (tool->state == Tool::State::Running) next = std::min(next, tool->ends);
    }
    if (next > until) break;
    mono = std::max(mono, next);
    for (std::size_t i = 0; i < tools.size(); ++i) {
      const ToolRef tool = tools[i];
      if (tool->state == Tool::State::Running && tool->ends <= mono) {
        end_tool(*tool, tool->exit_code << 8);
      }
    }
    while (!agenda_.empty() && agenda_.begin()->first <= mono) {
      auto first = agenda_.extract(agenda_.begin());
      happened();
      first.mapped()();
    }
  }
  mono = std::max(mono, until);
}

std::int64_t World::quiet_until(std::int64_t least) const {
  // After whatever happened, and before a time that it waits for, the process goes on at its own
  // pace for one of its looks.
  constexpr std::int64_t kOneLook = 35;  // seconds
  if (mono - last_change < kOneLook * kSecond) return mono + least;
  std::int64_t nap = kLongestNap;
  for (const std::int64_t next_run : next_runs(disk.read(kQueuePath))) {
    const std::int64_t left = next_run - wall();
    // A time that has long passed is of a job that waits for something else than the clock.
    if (left > -2 * kOneLook && left < nap / kSecond) nap = (left - kOneLook) * kSecond;
  }
  std::int64_t end = mono + std::max(nap, least);
  if (!agenda_.empty()) end = std::min(end, std::max(mono + least, agenda_.begin()->first));
  return end;
}

}  // namespace orv::sim
