#include "sim/world.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#endif

// The program's own variables, as the linker lays them out: what each process has a copy of. The
// world's are on the heap or of the thread, and so are those of the shared libraries.
extern "C" {
extern char __data_start;
extern char _end;
}

#if defined(__SANITIZE_ADDRESS__)
// Processes that are killed take their memory with them, as they do in life.
extern "C" const char* __asan_default_options();
extern "C" const char* __asan_default_options() {
  return "detect_leaks=0:detect_stack_use_after_return=0";
}
#endif

namespace orv::sim {

thread_local World* current_world = nullptr;

namespace {

constexpr std::size_t kStackSize = 512 * 1024;
constexpr std::int64_t kLongestNap = 86400 * kSecond;

// Not memcpy(): the address sanitizer watches the gaps between variables.
[[gnu::no_sanitize("address", "undefined")]] void copy_bytes(char* to, const char* from,
                                                             std::size_t size) {
  asm volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(size) : : "memory");
}

std::size_t image_size() { return static_cast<std::size_t>(&_end - &__data_start); }

// Tells the sanitizer that the stack changes.
void before_switch([[maybe_unused]] void** fake, [[maybe_unused]] const void* stack,
                   [[maybe_unused]] std::size_t size) {
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_start_switch_fiber(fake, stack, size);
#endif
}
void after_switch([[maybe_unused]] void* fake) {
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_finish_switch_fiber(fake, nullptr, nullptr);
#endif
}

struct MainStack {
  const void* bottom = nullptr;
  std::size_t size = 0;
};
thread_local MainStack main_stack;

std::string make_boot_id(Rng& rng) {
  std::array<char, 40> text{};
  const auto high = static_cast<unsigned>(rng.next());
  const auto low = static_cast<unsigned long>(rng.next() & 0xffffffffffffU);
  std::snprintf(text.data(), text.size(), "%08x-0000-4000-8000-%012lx\n", high, low);
  return text.data();
}

}  // namespace

World::World(std::uint64_t seed, Observer& watcher) : rng(seed), observer(watcher) {
  boot_id = make_boot_id(rng);
  for (const char* path : {"/dev", "/etc", "/etc/orv", "/var", "/var/lib", "/var/log"}) {
    disk.create(path, true, 0);
  }
  disk.create("/dev/null", false, 0);
  disk.flush_names();
#if defined(__SANITIZE_ADDRESS__)
  pthread_attr_t attributes;
  void* bottom = nullptr;
  if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
    pthread_attr_getstack(&attributes, &bottom, &main_stack.size);
    main_stack.bottom = bottom;
    pthread_attr_destroy(&attributes);
  }
#endif
  pristine_.resize(image_size());
  copy_bytes(pristine_.data(), &__data_start, pristine_.size());
}

World::~World() { copy_bytes(&__data_start, pristine_.data(), pristine_.size()); }

// Numbers are used again soon: nothing may take a number for a process.
int World::new_pid() {
  for (;;) {
    last_pid_ = last_pid_ >= 340 ? 300 : last_pid_ + 1;
    if (process_of(last_pid_) == nullptr && tool_of(last_pid_) == nullptr) return last_pid_;
  }
}

Process& World::spawn(std::string what, std::function<int()> body) {
  auto process = std::make_unique<Process>();
  Process& made = *process;
  made.pid = new_pid();
  made.what = std::move(what);
  made.body = std::move(body);
  made.started_ticks = mono / (kSecond / 100);
  happened();
  made.stack = std::make_unique_for_overwrite<char[]>(kStackSize);
  made.image = pristine_;
  made.ready = [] { return true; };
  ::getcontext(&made.context);
  made.context.uc_stack.ss_sp = made.stack.get();
  made.context.uc_stack.ss_size = kStackSize;
  made.context.uc_link = nullptr;
  ::makecontext(&made.context, &World::enter_process, 0);
  processes.push_back(std::move(process));
  return made;
}

void World::enter_process() {
  after_switch(nullptr);
  World& world = *current_world;
  Process& self = *world.running;
  self.status = self.body();
  current_world = nullptr;
  world.end_process(self, false);
  void* fake = nullptr;
  before_switch(&fake, main_stack.bottom, main_stack.size);
  ::swapcontext(&self.context, &world.main_);
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
  void* fake = nullptr;
  before_switch(&fake, process.stack.get(), kStackSize);
  ::swapcontext(&main_, &process.context);
  after_switch(fake);
  current_world = nullptr;
  running = nullptr;
  if (process.gone && in_memory_ == &process) in_memory_ = nullptr;
}

// From inside a process: back to the world until `ready` holds or the time has come.
void World::block(std::function<bool()> ready, std::int64_t deadline) {
  Process& self = *running;
  self.ready = std::move(ready);
  self.deadline = deadline;
  void* fake = nullptr;
  before_switch(&fake, main_stack.bottom, main_stack.size);
  ::swapcontext(&self.context, &main_);
  after_switch(fake);
  while (!self.signals.empty()) {
    const int number = self.signals.front();
    self.signals.erase(self.signals.begin());
    const auto handler = self.handlers.find(number);
    if (handler != self.handlers.end() && handler->second != nullptr) handler->second(number);
  }
}

void World::yield() {
  block([] { return true; }, kForever);
}

void World::end_process(Process& process, bool killed) {
  happened();
  process.gone = true;
  process.fds.clear();
  // A tool that was not let go yet sees that its parent is gone, and leaves; one that has ended is
  // reaped by the system.
  if (process.tool && process.tool->state != Tool::State::Running) {
    process.tool->state = Tool::State::Reaped;
  }
  observer.process_ended(process, killed);
}

void World::kill_process(Process& process) {
  end_process(process, true);
  if (&process != running) {
    if (in_memory_ == &process) in_memory_ = nullptr;
    return;
  }
  current_world = nullptr;
  void* fake = nullptr;
  before_switch(&fake, main_stack.bottom, main_stack.size);
  ::swapcontext(&process.context, &main_);
}

void World::send_signal(Process& process, int number) {
  const auto handler = process.handlers.find(number);
  if (handler == process.handlers.end()) {
    kill_process(process);  // the default action
  } else if (handler->second != nullptr) {
    process.signals.push_back(number);
    process.deadline = 0;  // the wait is interrupted
  }
}

void World::reboot(bool power_loss) {
  for (const auto& process : processes) {
    if (!process->gone) kill_process(*process);
  }
  for (const auto& tool : tools) {
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

std::shared_ptr<Tool> World::tool_of(int pid) {
  for (const auto& tool : tools) {
    if (tool->pid == pid && tool->state != Tool::State::Reaped) return tool;
  }
  return nullptr;
}

void World::let_go(Tool& tool) {
  tool.state = Tool::State::Running;
  shape(tool);
  if (tool.output && !disk.full) {
    disk.change(*tool.output->node, mono, mono + wall_offset);
    tool.output->node->data += "working\n";
  }
  observer.tool_started(tool);
}

void World::end_tool(Tool& tool, int status) {
  happened();
  tool.state = Tool::State::Ended;
  tool.status = status;
  tool.output.reset();
  observer.tool_ended(tool);
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
  resume(*(able.size() == 1 ? able.front() : able[rng.below(able.size())]));
  std::erase_if(processes, [](const auto& process) { return process->gone; });
  std::erase_if(tools, [](const auto& tool) { return tool->state == Tool::State::Reaped; });
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
    for (const auto& tool : tools) {
      if (tool->state == Tool::State::Running) next = std::min(next, tool->ends);
    }
    if (next > until) break;
    mono = std::max(mono, next);
    for (std::size_t i = 0; i < tools.size(); ++i) {
      const std::shared_ptr<Tool> tool = tools[i];
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
  // After whatever happened, the process goes on at its own pace for some of its looks.
  if (mono - last_change < 120 * kSecond) return mono + least;
  constexpr std::size_t kRecord = 172;
  constexpr std::size_t kNextRun = 136;
  std::int64_t nap = kLongestNap;
  const NodeRef queue = disk.find(kQueuePath);
  for (std::size_t at = 0; queue && at + kRecord <= queue->data.size(); at += kRecord) {
    std::int64_t next_run = 0;
    std::memcpy(&next_run, queue->data.data() + at + kNextRun, sizeof next_run);
    const std::int64_t left = next_run - wall();
    // A time that has long passed is of a job that waits for something else than the clock.
    if (left > -120 && left < nap / kSecond) nap = (left - 60) * kSecond;
  }
  std::int64_t end = mono + std::max(nap, least);
  if (!agenda_.empty()) end = std::min(end, std::max(mono + least, agenda_.begin()->first));
  return end;
}

}  // namespace orv::sim
