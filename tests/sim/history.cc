#include "sim/history.h"

#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

#include "api/handler.h"
#include "api/router.h"
#include "cli/commands.h"
#include "common/digest.h"
#include "common/options.h"
#include "config/config.h"
#include "plan/forecast.h"
#include "sched/queue_file.h"
#include "sched/queue_schedule.h"

namespace orv::sim {

thread_local History* current_history = nullptr;

namespace {

constexpr std::int64_t kDay = 86400 * kSecond;
constexpr std::int64_t kHour = 3600 * kSecond;
constexpr std::int64_t kPollInterval = 30;
// In peace every run takes as long, and no chain of them ends on a full minute: what is due then
// does not depend on the second in which the daemon checks.
constexpr std::int64_t kPeacefulRun = 313;

// Zones with every kind of change of their daylight saving time, and without.
constexpr std::array kZones = {"UTC",
                               "Europe/Berlin",
                               "Europe/London",
                               "Europe/Dublin",
                               "Europe/Lisbon",
                               "Europe/Athens",
                               "Europe/Helsinki",
                               "Europe/Chisinau",
                               "Africa/Cairo",
                               "Africa/Casablanca",
                               "Africa/El_Aaiun",
                               "Asia/Beirut",
                               "Asia/Jerusalem",
                               "Asia/Gaza",
                               "Asia/Kolkata",
                               "Asia/Kathmandu",
                               "Asia/Tokyo",
                               "Asia/Tehran",
                               "America/New_York",
                               "America/Chicago",
                               "America/Denver",
                               "America/Los_Angeles",
                               "America/Anchorage",
                               "America/Adak",
                               "America/Havana",
                               "America/Santiago",
                               "America/Asuncion",
                               "America/Sao_Paulo",
                               "America/St_Johns",
                               "America/Halifax",
                               "America/Nuuk",
                               "America/Miquelon",
                               "Atlantic/Azores",
                               "Australia/Sydney",
                               "Australia/Adelaide",
                               "Australia/Lord_Howe",
                               "Pacific/Auckland",
                               "Pacific/Chatham",
                               "Pacific/Easter",
                               "Antarctica/Troll"};

// A whole command of the program, as main() would call it.
int run_command_line(std::vector<std::string> words) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  const ArgList args(argv.data(), argv.size());
  const CommandRow* const command = find_command(words[1]);
  return command->run({kConfigPath, kQueuePath, args});
}

std::string number(std::int64_t value) { return std::to_string(value); }

}  // namespace

History::History(const HistoryOptions& options) : world(options.seed, model), options_(options) {
  current_history = this;
  ::setenv("TZ", kZones[world.rng.below(kZones.size())], 1);
  ::tzset();
  // Some day of 2027 or 2028, so that both changes of the clocks come up.
  world.wall_offset = (1798761600 + world.rng.between(0, 730) * 86400) * kSecond;
  world.shape = [this](Tool& tool) { shape_tool(tool); };
  model.attach(world, kPollInterval, options.verbose);
  make_jobs();
  write_config();
  if (options.verbose) std::printf("%s", config_text().c_str());
}

History::~History() { current_history = nullptr; }

History::JobPlan History::make_job(const std::string& name) {
  Rng& rng = world.rng;
  JobPlan job;
  job.name = name;
  if (rng.one_in(3)) job.timeout_s = static_cast<std::uint32_t>(rng.between(600, 7200));
  const auto kind = rng.below(10);
  if (kind < 3 && !jobs_.empty()) {
    for (std::int64_t i = rng.between(1, 2); i > 0; --i) {
      const std::string& other = jobs_[rng.below(jobs_.size())].name;
      if (job.after.find(other) == std::string::npos) {
        job.after += (job.after.empty() ? "" : ",") + other;
      }
    }
    job.finished = rng.one_in(2);
    if (!rng.one_in(4)) return job;  // else a schedule as well
  }
  if (kind == 9 && job.after.empty()) {
    job.once = world.wall() + rng.between(-3600, 20 * 86400);
    return job;
  }
  const std::string minute = number(rng.between(0, 59));
  const std::string hour = number(rng.between(0, 4));
  if (kind == 4) {
    job.schedule = "*/" + number(rng.between(10, 40)) + " */6 * * *";
  } else if (kind == 5) {
    job.schedule = minute + " */" + number(rng.between(2, 12)) + " * * *";
  } else if (kind == 6) {
    job.schedule = minute + " " + hour + " * * " + number(rng.between(0, 6));
  } else {
    job.schedule = minute + " " + hour + " * * *";
  }
  return job;
}

void History::make_jobs() {
  while (jobs_.size() < options_.jobs) jobs_.push_back(make_job("j" + number(next_name_++)));
}

void History::set_jobs(
    const std::vector<std::pair<std::string, std::string>>& names_and_schedules) {
  jobs_.clear();
  for (const auto& [name, schedule] : names_and_schedules) {
    JobPlan& job = jobs_.emplace_back();
    job.name = name;
    job.schedule = schedule;
  }
  write_config();
}

std::string History::config_text() const {
  std::string text =
      "[sched]\njob-log-keep = 5\n[mail]\nsmtp-host = mail.example.com\nfrom = a@example.com\n"
      "to = b@example.com\nnotify = always\n[api]\nenabled = yes\nallow-config-write = yes\n"
      "allow-args = yes\n";
  for (const JobPlan& job : jobs_) {
    text += "\n[" + job.name + "]\ncommand = verify\nargs = --serial " + number(job.serial) + "\n";
    if (!job.schedule.empty()) text += "schedule = " + job.schedule + "\n";
    if (job.once != 0) text += "once = " + number(job.once) + "\n";
    if (!job.after.empty()) text += "after = " + job.after + "\n";
    if (job.finished) text += "after-mode = finished\n";
    if (!job.enabled) text += "enabled = no\n";
    if (job.timeout_s != 0) text += "timeout-seconds = " + number(job.timeout_s) + "\n";
  }
  return text + "# end of the file\n";
}

void History::write_config() {
  model.people_edited();
  world.disk.replace(kConfigPath, config_text(), world.mono, world.mono + world.wall_offset);
}

void History::start_daemon() {
  if (world.find_process("daemon") != nullptr) return;
  model.story("the daemon is started");
  const std::int64_t poll_interval = at_peace_ ? 1 : kPollInterval;
  world.spawn("daemon", [poll_interval] {
    return run_command_line({"orv_sched", "daemon", "--poll-interval", number(poll_interval),
                             "--job-log-dir", kLogDir});
  });
}

Process& History::run_by_hand(const std::string& command, const std::string& job, bool force) {
  model.story("a person types: orv_sched " + command + " " + job + (force ? " --force" : ""));
  Process& process = world.spawn(command + " " + job, [command, job, force] {
    return run_command_line({"orv_sched", command, job, "--job-log-dir", kLogDir,
                             force ? "--force" : "--no-background"});
  });
  process.forced = force;
  return process;
}

// What a tool is going to do, told when it begins.
void History::shape_tool(Tool& tool) {
  Rng& rng = world.rng;
  if (at_peace_) {
    tool.ends = world.mono + kPeacefulRun * kSecond;
    return;
  }
  const auto kind = rng.below(30);
  tool.exit_code = kind == 0 ? 1 : kind == 1 ? 75 : 0;
  std::int64_t seconds = rng.between(0, 900);
  if (kind == 4) seconds = 0;
  if (kind == 5) seconds = rng.between(3600, 30000);
  if (kind == 6) {
    tool.stubborn = true;
    seconds = rng.between(600, 9000);
  }
  tool.ends = world.mono + seconds * kSecond + rng.between(0, kSecond - 1);
}

void History::daemon_dies() {
  if (Process* const daemon = world.find_process("daemon")) world.kill_process(*daemon);
}

void History::daemon_stops() {
  if (Process* const daemon = world.find_process("daemon")) {
    model.story("the daemon is told to stop");
    world.send_signal(*daemon, SIGTERM);
  }
}

void History::daemon_dies_within_a_call() {
  if (Process* const daemon = world.find_process("daemon")) {
    daemon->dies_at = daemon->calls + 1 + world.rng.below(400);
  }
}

void History::runner_dies() {
  Process& runner = run_by_hand("run", any_job().name, false);
  runner.dies_at = 1 + world.rng.below(120);
}

void History::clock_jumps() {
  static constexpr std::array<std::int64_t, 6> kSizes = {5, 120, 3600, 7200, 86400, 10 * 86400};
  std::int64_t by = kSizes[world.rng.below(kSizes.size())];
  if (world.rng.one_in(2)) by = -by;
  world.wall_offset += by * kSecond;
  model.clock_set(by);
}

void History::machine_restarts() {
  world.reboot(false);
  model.rebooted(false);
}

void History::power_fails() {
  world.reboot(true);
  model.rebooted(true);
}

void History::disk_fills() {
  model.story("the disk is full");
  model.trouble();
  world.disk.full = true;
  world.at(world.mono + world.rng.between(60, 40000) * kSecond, [this] {
    model.story("the disk has room again");
    world.disk.full = false;
  });
}

void History::a_call_fails() {
  static constexpr std::array kErrors = {EIO, EMFILE, ENOMEM, ENOSPC, EINTR};
  Process* const daemon = world.find_process("daemon");
  if (daemon == nullptr) return;
  model.trouble();
  daemon->fails_at = daemon->calls + 1 + world.rng.below(600);
  daemon->fails_with = kErrors[world.rng.below(kErrors.size())];
  model.story("a call of the daemon fails");
}

void History::person_edits() {
  JobPlan& job = any_job();
  const JobPlan fresh = make_job(job.name);
  job.schedule = fresh.schedule;
  job.once = fresh.once;
  if (job.schedule.empty() && job.once == 0 && job.after.empty()) job.schedule = "7 3 * * *";
  model.story("a person edits " + job.name);
  write_config();
}

void History::person_disables() {
  JobPlan& job = any_job();
  job.enabled = !job.enabled;
  model.story("a person " + std::string(job.enabled ? "enables " : "disables ") + job.name);
  write_config();
}

void History::person_renames() {
  JobPlan& job = any_job();
  const std::string old = job.name;
  job.name = "j" + number(next_name_++);
  for (JobPlan& other : jobs_) {
    std::string renamed;
    for (std::size_t at = 0; at < other.after.size();) {
      const std::size_t end = std::min(other.after.find(',', at), other.after.size());
      const std::string name = other.after.substr(at, end - at);
      renamed += (renamed.empty() ? "" : ",") + (name == old ? job.name : name);
      at = end + 1;
    }
    other.after = renamed;
  }
  model.story("a person renames " + old + " to " + job.name);
  write_config();
}

void History::person_breaks_the_file() {
  model.story("a person breaks the configuration");
  world.disk.replace(kConfigPath, "[oops\n# end of the file\n", world.mono,
                     world.mono + world.wall_offset);
  model.people_edited();
  world.at(world.mono + world.rng.between(60, 20000) * kSecond, [this] {
    model.story("a person mends the configuration");
    write_config();
  });
}

void History::person_runs() { run_by_hand("run", any_job().name, false); }
void History::person_starts() { run_by_hand("start", any_job().name, false); }
void History::person_forces() { run_by_hand("run", any_job().name, true); }

void History::person_interrupts() {
  for (const auto& process : world.processes) {
    if (process->gone || process->what == "daemon") continue;
    model.story("a person interrupts " + process->what);
    world.send_signal(*process, world.rng.one_in(2) ? SIGINT : SIGTERM);
    return;
  }
}

// Runs one request in the daemon, as the router would get it from an administrator's client.
void History::ask(std::string method, std::string path, std::string body,
                  std::function<void(std::uint32_t status)> told) {
  api_requests.push_back([=, this](void* context) {
    auto& api = *static_cast<ApiContext*>(context);
    ApiRequest http;
    http.method.set_truncated(method);
    http.path.set_truncated("/api/v1/" + path);
    http.body = body;
    const HexDigest digest = to_hex(sha256(world.disk.read(kConfigPath)));
    http.if_match.set_truncated("\"" + std::string(digest.view()) + "\"");
    api_route(api.live, api.reply, {http, "sim", TokenRole::Admin, world.wall()});
    model.story("  API: " + method + " " + path + ": " + number(api.reply.status));
    told(api.reply.status);
  });
}

void History::client_requests_a_run() {
  const std::string job = any_job().name;
  ask("POST", "jobs/" + job + "/run", "", [this, job](std::uint32_t status) {
    if (status / 100 == 2) model.requested(job);
  });
}

void History::client_changes_a_job() {
  JobPlan& job = any_job();
  const std::string name = job.name;
  const std::int64_t serial = next_serial_++;
  ask("PUT", "jobs/" + name, R"({"args":"--serial )" + number(serial) + "\"}",
      [this, name, serial](std::uint32_t status) {
        if (status / 100 != 2) return;
        model.change_told(name, serial);
        for (JobPlan& changed : jobs_) {
          if (changed.name == name) changed.serial = serial;
        }
      });
}

void History::client_cancels() {
  const Process* const daemon = world.find_process("daemon");
  if (daemon == nullptr || daemon->job.empty()) return;
  ask("POST", "jobs/" + daemon->job + "/cancel", "", [](std::uint32_t) {});
}

void History::schedule_incidents() {
  static constexpr std::array<Incident, 20> kIncidents = {&History::daemon_dies,
                                                          &History::daemon_stops,
                                                          &History::daemon_dies_within_a_call,
                                                          &History::runner_dies,
                                                          &History::clock_jumps,
                                                          &History::machine_restarts,
                                                          &History::power_fails,
                                                          &History::disk_fills,
                                                          &History::a_call_fails,
                                                          &History::person_edits,
                                                          &History::person_disables,
                                                          &History::person_renames,
                                                          &History::person_breaks_the_file,
                                                          &History::person_runs,
                                                          &History::person_starts,
                                                          &History::person_forces,
                                                          &History::person_interrupts,
                                                          &History::client_requests_a_run,
                                                          &History::client_changes_a_job,
                                                          &History::client_cancels};
  // Each history has its own kinds of trouble, so that some see only one of them.
  std::vector<Incident> kinds;
  for (const Incident incident : kIncidents) {
    if (world.rng.one_in(3)) kinds.push_back(incident);
  }
  if (kinds.empty()) return;
  const std::int64_t count = world.rng.between(1, 3 * options_.days);
  for (std::int64_t i = 0; i < count; ++i) {
    std::int64_t when = world.mono + world.rng.between(0, options_.days * 86400) * kSecond;
    // Bad things like company.
    for (std::int64_t crowd = world.rng.one_in(3) ? world.rng.between(2, 4) : 1; crowd > 0;
         --crowd) {
      const Incident incident = kinds[world.rng.below(kinds.size())];
      const std::size_t id = incidents_++;
      if (!options_.without.contains(id)) {
        world.at(when, [this, incident] { (this->*incident)(); });
      }
      when += world.rng.between(0, 200) * kSecond;
    }
  }
}

// From here on nothing bad happens, and everything must come right.
void History::peace() {
  model.story("peace");
  at_peace_ = true;
  world.disk.full = false;
  world.races = false;
  for (const auto& process : world.processes) {
    process->dies_at = process->fails_at = UINT64_MAX;
  }
  for (JobPlan& job : jobs_) job.enabled = true;
  write_config();
  daemon_stops();
  world.run_until(world.mono + kDay / 2);  // a tool may still have to end
  start_daemon();
}

// What orv_plan says of the next day, asked while nothing runs.
std::vector<Start> History::forecast() {
  std::vector<Start> starts;
  world.spawn("plan", [&starts, now = world.wall()] {
    Config config;
    std::array<char, kConfigMessageSize> reason{};
    QueueState queue;
    Durations durations;
    if (config_load(kConfigPath, config, reason) != 0 ||
        queue_load_readonly(queue, kQueuePath) != ErrorCode::Ok) {
      return 1;
    }
    queue_view_with_config(queue, config, now);
    for (const Job& job : config.jobs) durations[std::string(job.name.view())] = kPeacefulRun;
    for (const PlannedRun& run :
         make_forecast(config, queue, durations, {now, now + 86400, {}}).runs) {
      starts.push_back({std::string(run.job->name.view()), run.start});
    }
    return 0;
  });
  world.run_until(world.mono + 1);
  return starts;
}

// A day of peace must go as the forecast said.
void History::live_as_forecast() {
  const std::int64_t latest = world.mono + kDay;
  while (!world.tools.empty()) {
    if (world.mono > latest) return model.fail("the tools never come to an end");
    world.run_until(world.mono + 60 * kSecond);
  }
  const std::vector<Start> said = forecast();
  model.starts.clear();
  world.run_until(world.mono + kDay);
  const std::size_t count = std::min(said.size(), model.starts.size());
  for (std::size_t i = 0; i < count; ++i) {
    const std::int64_t late = model.starts[i].at - said[i].at;
    if (model.starts[i].job == said[i].job && late >= 0 && late <= 5) continue;
    return model.fail("the forecast said '" + said[i].job + "' at " + number(said[i].at) +
                      ", and '" + model.starts[i].job + "' started at " +
                      number(model.starts[i].at));
  }
  // The last one may fall on either side of the end of the day.
  if (std::max(said.size(), model.starts.size()) > count + 1) {
    model.fail("the forecast said " + number(static_cast<std::int64_t>(said.size())) +
               " runs, and there were " + number(static_cast<std::int64_t>(model.starts.size())));
  }
}

std::size_t History::play() {
  world.races = world.rng.one_in(2);
  schedule_incidents();
  start_daemon();
  const std::int64_t end = world.mono + options_.days * kDay;
  while (world.mono < end && model.failure.empty()) {
    world.run_until(world.mono + world.rng.between(1, 12) * kHour);
    model.check_files();
    model.check_nothing_waits();
    start_daemon();  // as a service manager would
  }
  if (!model.failure.empty()) return incidents_;
  peace();
  // The first day clears away what is left of the trouble.
  for (const std::int64_t day : {0, 1}) {
    world.run_until(world.mono + kDay);
    start_daemon();
    if (day == 0) model.calm();
    model.check_nothing_waits();
    model.check_files();
    if (!model.failure.empty()) return incidents_;
  }
  live_as_forecast();
  return incidents_;
}

}  // namespace orv::sim
