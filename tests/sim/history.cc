#include "sim/history.h"

#include <signal.h>
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <sstream>
#include <utility>

#include "cli/commands.h"
#include "common/options.h"
#include "config/config.h"
#include "plan/forecast.h"
#include "sched/queue_file.h"
#include "sched/queue_schedule.h"

namespace orv::sim {

thread_local History* current_history = nullptr;

namespace {

constexpr std::int64_t kDay = 86400 * kSecond;
constexpr std::int64_t kPollInterval = 30;
// In peace every run takes as long, and no row of them ends just before a full minute: what is due
// then does not depend on the second in which the daemon checks.
constexpr std::int64_t kPeacefulRun = 121;

// Zones with every kind of change of their daylight saving time, and without.
constexpr const char* kZones =
    "UTC Europe/Berlin Europe/London Europe/Dublin Europe/Lisbon Europe/Athens Europe/Helsinki "
    "Europe/Chisinau Africa/Cairo Africa/Casablanca Africa/El_Aaiun Asia/Beirut Asia/Jerusalem "
    "Asia/Gaza Asia/Kolkata Asia/Kathmandu Asia/Tokyo Asia/Tehran America/New_York America/Chicago "
    "America/Denver America/Los_Angeles America/Anchorage America/Adak America/Havana "
    "America/Santiago America/Asuncion America/Sao_Paulo America/St_Johns America/Halifax "
    "America/Nuuk America/Miquelon Atlantic/Azores Australia/Sydney Australia/Adelaide "
    "Australia/Lord_Howe Pacific/Auckland Pacific/Chatham Pacific/Easter Antarctica/Troll";

void choose_zone(Rng& rng) {
  std::stringstream zones(kZones);
  std::string zone;
  for (std::uint64_t left = rng.below(40) + 1; left > 0; --left) zones >> zone;
  ::setenv("TZ", zone.c_str(), 1);
  ::tzset();
}

// A whole command of the program, as main() would call it.
int run_command_line(std::vector<std::string> words) {
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  const ArgList args(argv.data(), argv.size());
  return find_command(words[1])->run({kConfigPath, kQueuePath, args});
}

std::string number(std::int64_t value) { return std::to_string(value); }

std::string config_text(const std::vector<JobPlan>& jobs) {
  std::string text =
      "[sched]\njob-log-keep = 5\n[mail]\nsmtp-host = mail.example.com\nfrom = a@example.com\n"
      "to = b@example.com\nnotify = always\n[api]\nenabled = yes\nallow-config-write = yes\n"
      "allow-args = yes\n";
  for (const JobPlan& job : jobs) {
    text += "\n[" + job.name + "]\ncommand = verify\nargs = --serial " + number(job.serial) + "\n";
    if (!job.schedule.empty()) text += "schedule = " + job.schedule + "\n";
    if (job.once != 0) text += "once = " + number(job.once) + "\n";
    for (const std::string& name : job.after) {
      text += (&name == job.after.data() ? "after = " : ",") + name;
    }
    if (!job.after.empty()) text += job.finished ? "\nafter-mode = finished\n" : "\n";
    if (!job.enabled) text += "enabled = no\n";
    if (job.timeout_s != 0) text += "timeout-seconds = " + number(job.timeout_s) + "\n";
  }
  return text + "# end of the file\n";
}

// The last one may fall on either side of the end of the day.
std::string compare_starts(const std::vector<Start>& said, const std::vector<Start>& seen) {
  const std::size_t count = std::min(said.size(), seen.size());
  for (std::size_t i = 0; i < count; ++i) {
    const std::int64_t late = seen[i].at - said[i].at;
    if (seen[i].job == said[i].job && late >= 0 && late <= 5) continue;
    return "the forecast said '" + said[i].job + "' at " + number(said[i].at) + ", and '" +
           seen[i].job + "' started at " + number(seen[i].at);
  }
  if (std::max(said.size(), seen.size()) <= count + 1) return {};
  return "the forecast said " + std::to_string(said.size()) + " runs, and there were " +
         std::to_string(seen.size());
}

}  // namespace

History::History(const HistoryOptions& options_in)
    : options(options_in), world(options_in.seed, model) {
  current_history = this;
  choose_zone(world.rng);
  // Some day of 2027 or 2028, so that both changes of the clocks come up.
  world.wall_offset = (1798761600 + world.rng.between(0, 730) * 86400) * kSecond;
  world.shape = [this](Tool& tool) { shape_tool(tool); };
  model.attach(world, kPollInterval, options.verbose);
  while (jobs.size() < options.jobs) jobs.push_back(make_job(world.rng, "j" + number(numbers++)));
  write_config();
  if (options.verbose) std::printf("%s", config_text(jobs).c_str());
}

History::~History() { current_history = nullptr; }

JobPlan History::make_job(Rng& rng, const std::string& name) const {
  JobPlan job{name};
  if (rng.one_in(3)) job.timeout_s = static_cast<std::uint32_t>(rng.between(600, 7200));
  const auto kind = rng.below(10);
  if (kind < 3 && !jobs.empty()) {
    for (std::int64_t i = rng.between(1, 2); i > 0; --i) {
      const std::string& other = jobs[rng.below(jobs.size())].name;
      if (std::find(job.after.begin(), job.after.end(), other) == job.after.end()) {
        job.after.push_back(other);
      }
    }
    job.finished = rng.one_in(2);
    if (!rng.one_in(4)) return job;  // else a schedule as well
  }
  if (kind == 9) {
    job.once = (world.wall() + rng.between(-3600, 20 * 86400)) / 60 * 60;
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

void History::write_config() {
  model.people_edited();
  world.disk.replace(kConfigPath, config_text(jobs), world.mono, world.wall_ns());
}

void History::start_daemon() {
  if (world.find_process("daemon") != nullptr) return;
  model.story("the daemon is started");
  world.spawn("daemon", [poll_interval = at_peace ? 1 : kPollInterval] {
    return run_command_line({"orv_sched", "daemon", "--poll-interval", number(poll_interval),
                             "--job-log-dir", kLogDir});
  });
}

Process& History::run_by_hand(const std::string& command, const std::string& job, bool force) {
  model.story("a person types: orv_sched " + command + " " + job + (force ? " --force" : ""));
  Process& process = world.spawn(command + " " + job, [command, job, force] {
    return run_command_line({"orv_sched", command, job, "--job-log-dir", kLogDir, "--no-syslog",
                             force ? "--force" : "--no-background"});
  });
  process.forced = force;
  return process;
}

// What a tool is going to do, told when it begins.
void History::shape_tool(Tool& tool) {
  if (at_peace) {
    tool.ends = world.mono + kPeacefulRun * kSecond;
    return;
  }
  // The same for this run of the job whatever else is left out of the history.
  Rng rng(options.seed ^ std::hash<std::string>{}(tool.job) ^ ++runs_[tool.job] << 32);
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
  if (!std::exchange(power_fails, false)) return;
  world.at(world.mono + rng.between(0, 20) * kSecond, [this] {
    world.reboot(true);
    model.rebooted(true);
  });
}

std::size_t History::schedule_incidents() {
  // Each history has its own kinds of trouble, so that some see only one of them.
  std::vector<const Incident*> kinds;
  for (const Incident& incident : incidents()) {
    if (world.rng.one_in(3)) kinds.push_back(&incident);
  }
  if (kinds.empty()) return 0;
  std::size_t made = 0;
  for (std::int64_t left = world.rng.between(1, 3 * options.days); left > 0; --left) {
    std::int64_t when = world.mono + world.rng.between(0, options.days * 86400) * kSecond;
    // Bad things like company.
    for (std::int64_t crowd = world.rng.one_in(3) ? world.rng.between(2, 4) : 1; crowd > 0;
         --crowd) {
      const Incident& incident = *kinds[world.rng.below(kinds.size())];
      const std::uint64_t luck = world.rng.next();
      if (!options.without.contains(made++)) {
        world.at(when, [this, &incident, luck] {
          Rng rng(luck);
          Scene scene{*this, rng, jobs[rng.below(jobs.size())], world.find_process("daemon")};
          if (!incident.needs_daemon || scene.daemon != nullptr) incident.happen(scene);
        });
      }
      when += world.rng.between(0, 200) * kSecond;
    }
  }
  return made;
}

// From here on nothing bad happens, and everything must come right.
void History::make_peace() {
  model.story("peace");
  at_peace = true;
  world.disk.full = false;
  world.races = false;
  for (const auto& process : world.processes) process->dies_at = process->fails_at = UINT64_MAX;
  for (JobPlan& job : jobs) job.enabled = true;
  write_config();
  if (Process* const daemon = world.find_process("daemon")) world.send_signal(*daemon, SIGTERM);
  world.run_for(kDay / 2);  // a tool may still have to end
  start_daemon();
}

// What orv_plan says of the next day, asked while nothing runs.
std::vector<Start> History::forecast() {
  std::vector<Start> starts;
  world.spawn("plan", [&starts, now = world.wall()] {
    Config config;
    std::array<char, kConfigMessageSize> reason{};
    QueueState queue;
    if (config_load(kConfigPath, config, reason) != 0 ||
        queue_load_readonly(queue, kQueuePath) != ErrorCode::Ok) {
      return 1;
    }
    queue_view_with_config(queue, config, now);
    Durations durations;
    for (const Job& job : config.jobs) durations[std::string(job.name.view())] = kPeacefulRun;
    for (const PlannedRun& run :
         make_forecast(config, queue, durations, {now, now + 86400, {}}).runs) {
      starts.push_back({std::string(run.job->name.view()), run.start});
    }
    return 0;
  });
  world.run_for(1);
  return starts;
}

// A day of peace must go as the forecast said.
void History::live_as_forecast() {
  for (const std::int64_t latest = world.mono + kDay; !world.tools.empty();) {
    if (world.mono > latest) return model.fail("the tools never come to an end");
    world.run_for(60 * kSecond);
  }
  const std::vector<Start> said = forecast();
  model.starts.clear();
  world.run_for(kDay);
  if (const std::string odd = compare_starts(said, model.starts); !odd.empty()) model.fail(odd);
}

std::size_t History::play() {
  world.races = world.rng.one_in(2);
  const std::size_t made = schedule_incidents();
  start_daemon();
  const auto check = [this] {
    model.check_files();
    model.check_nothing_waits();
    start_daemon();  // as a service manager would
    return model.failure.empty();
  };
  for (const std::int64_t end = world.mono + options.days * kDay; world.mono < end;) {
    world.run_for(world.rng.between(1, 12) * 3600 * kSecond);
    if (!check()) return made;
  }
  make_peace();
  world.run_for(kDay);  // clears away what is left of the trouble
  model.calm();
  if (!check()) return made;
  world.run_for(kDay);
  if (check()) live_as_forecast();
  return made;
}

}  // namespace orv::sim
