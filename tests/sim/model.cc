#include "sim/model.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

namespace orv::sim {
namespace {

constexpr int kDone = 2;
constexpr int kFailed = 3;
constexpr int kRunning = 1;

// Whether `value` is one that the field of a schedule names.
bool names_value(const std::string& field, int value) {
  if (field == "*") return true;
  if (field.starts_with("*/")) return value % std::atoi(field.c_str() + 2) == 0;
  return std::atoi(field.c_str()) == value;
}

std::string trimmed(const std::string& text) {
  const std::size_t from = text.find_first_not_of(" \t\r");
  return from == std::string::npos ? ""
                                   : text.substr(from, text.find_last_not_of(" \t\r") - from + 1);
}

void set_key(ModelJob& job, const std::string& key, const std::string& value) {
  if (key == "schedule") job.schedule = value;
  if (key == "once") job.once = std::atoll(value.c_str());
  if (key == "enabled") job.enabled = value == "yes";
  if (key == "after-mode") job.after_finished = value == "finished";
  if (key == "args") job.serial = std::atoll(value.c_str() + value.rfind(' ') + 1);
  if (key == "after") {
    std::stringstream names(value);
    for (std::string name; std::getline(names, name, ',');) job.after.push_back(trimmed(name));
  }
}

// Whether the clock on the wall shows this minute twice. Which of the two counts is not said.
bool comes_twice(std::int64_t minute) {
  const auto clock = [](time_t at) {
    struct tm local {};
    ::localtime_r(&at, &local);
    return local.tm_hour * 60 + local.tm_min;
  };
  for (const int shift : {1800, 3600, 7200}) {
    if (clock(minute) == clock(minute - shift) || clock(minute) == clock(minute + shift)) {
      return true;
    }
  }
  return false;
}

std::string day_time(std::int64_t seconds) {
  const time_t at = seconds;
  struct tm local {};
  ::localtime_r(&at, &local);
  char text[64];
  return {text, ::strftime(text, sizeof text, "%Y-%m-%d %a %H:%M:%S", &local)};
}

}  // namespace

std::vector<ModelJob> read_config(const std::string& text) {
  std::vector<ModelJob> jobs;
  std::stringstream lines(text);
  bool in_job = false;
  for (std::string line; std::getline(lines, line);) {
    line = trimmed(line);
    if (line.starts_with('[')) {
      const std::string name = line.substr(1, line.find(']') - 1);
      in_job = name != "sched" && name != "mail" && name != "api";
      if (in_job) jobs.emplace_back().name = name;
    } else if (const std::size_t equals = line.find('='); in_job && equals != std::string::npos) {
      set_key(jobs.back(), trimmed(line.substr(0, equals)), trimmed(line.substr(equals + 1)));
    }
  }
  return jobs;
}

std::int64_t next_nominal(const std::string& schedule, std::int64_t after) {
  std::stringstream words(schedule);
  std::string minute, hour, day, month, weekday;
  words >> minute >> hour >> day >> month >> weekday;
  time_t at = (after / 60 + 1) * 60;
  for (const time_t end = at + 9 * 86400; at < end; at += 60) {
    struct tm local {};
    ::localtime_r(&at, &local);
    if (!names_value(hour, local.tm_hour) || !names_value(weekday, local.tm_wday)) {
      at += (59 - local.tm_min) * 60;  // to the next local hour
    } else if (names_value(minute, local.tm_min)) {
      return at;
    }
  }
  return INT64_MAX;
}

std::vector<ModelRecord> read_queue(const std::string& bytes) {
  std::vector<ModelRecord> records;
  for (std::size_t at = 0; at + 172 <= bytes.size(); at += 172) {
    const char* const from = bytes.data() + at;
    ModelRecord& record = records.emplace_back();
    record.name = std::string(from, ::strnlen(from, 128));
    record.state = from[128];
    std::memcpy(&record.runner, from + 129, 3);
    std::memcpy(&record.next_run, from + 136, 8);
    std::memcpy(&record.started, from + 144, 8);
    std::memcpy(&record.finished, from + 152, 8);
    std::memcpy(&record.after_stamp, from + 164, 8);
  }
  return records;
}

void Model::attach(World& world, std::int64_t poll_s, bool verbose) {
  world_ = &world;
  poll_s_ = poll_s;
  verbose_ = verbose;
}

void Model::story(const std::string& line) {
  if (verbose_) std::printf("%s  %s\n", day_time(world_->wall()).c_str(), line.c_str());
}

void Model::fail(const std::string& what) {
  story("FAILED: " + what);
  if (failure.empty()) failure = day_time(world_->wall()) + ": " + what;
}

const ModelJob* Model::job_of(const std::string& name) const {
  const auto at = std::find_if(jobs_.begin(), jobs_.end(),
                               [&](const ModelJob& job) { return job.name == name; });
  return at == jobs_.end() ? nullptr : &*at;
}

void Model::cover(Track& track, std::int64_t until) {
  track.covered = until;
  track.next = track.schedule.empty() ? INT64_MAX : next_nominal(track.schedule, until);
  track.wanted = track.next;
  while (track.wanted != INT64_MAX && comes_twice(track.wanted)) {
    track.wanted = next_nominal(track.schedule, track.wanted);
  }
}

// The daemon has read the configuration: from here on these jobs are to run.
void Model::adopt(const std::string& text) {
  jobs_ = read_config(text);
  std::map<std::string, Track> tracks;
  for (const ModelJob& job : jobs_) {
    const auto before = tracks_.find(job.name);
    const bool same = before != tracks_.end() && before->second.schedule == job.schedule &&
                      before->second.once == job.once;
    if (!job.enabled) continue;
    Track& track = tracks[job.name];
    if (before != tracks_.end()) track = before->second;
    if (same) continue;
    // A new time: when it comes first is for the scheduler to say, and for us to see in its record.
    track.schedule = job.schedule;
    track.once = job.once;
    track.loose = true;
    cover(track, world_->wall());
  }
  tracks_ = std::move(tracks);
}

std::optional<std::int64_t> Model::dependency_stamp(const ModelJob& job) const {
  const std::vector<ModelRecord> records = read_queue(world_->disk.read(kQueuePath));
  std::int64_t stamp = 0;
  for (const std::string& name : job.after) {
    const auto at = std::find_if(records.begin(), records.end(),
                                 [&](const ModelRecord& r) { return r.name == name; });
    if (at == records.end()) return std::nullopt;
    if (at->state != kDone && !(job.after_finished && at->state == kFailed)) return std::nullopt;
    stamp = std::max(stamp, at->finished);
  }
  return stamp;
}

void Model::tool_started(const Tool& tool) {
  ++runs;
  starts.push_back({tool.job, world_->wall()});
  story("tool of '" + tool.job + "' starts (pid " + std::to_string(tool.pid) + ", runner " +
        std::to_string(tool.runner) + (tool.forced ? ", forced)" : ")"));
  for (const auto& other : world_->tools) {
    if (other.get() == &tool || other->state != Tool::State::Running || tool.forced) continue;
    fail("'" + tool.job + "' runs beside '" + other->job + "'");
  }
  const Process* const runner = world_->process_of(tool.runner);
  if (runner == nullptr) return fail("the tool of '" + tool.job + "' outlived its start");
  if (runner->what != "daemon") return;
  if (const ModelJob* const job = job_of(tool.job)) {
    check_cause(tool, *job);
  } else {
    fail("'" + tool.job + "' runs and is not configured");
  }
}

// Why the daemon may have started it.
void Model::check_cause(const Tool& tool, const ModelJob& job) {
  if (int& asked = requests_[tool.job]; asked > 0) {
    --asked;
    return;
  }
  if (!job.enabled) return fail("'" + tool.job + "' runs and is disabled");
  Track& track = tracks_[tool.job];
  const bool again = track.interrupted || track.busy;
  if (!job.schedule.empty() && !track.loose && !again && track.next > world_->wall()) {
    fail("'" + tool.job + "' runs before its time " + day_time(track.next));
  }
  if (job.after.empty()) return;
  const std::optional<std::int64_t> stamp = dependency_stamp(job);
  if (troubled_) return;
  if (!stamp) return fail("'" + tool.job + "' runs although what it waits for has not ended");
  if (*stamp == track.consumed && !again && !track.loose) {
    fail("'" + tool.job + "' runs twice for one end of what it waits for");
  }
  track.about_to_consume = *stamp;
}

void Model::tool_ended(const Tool& tool) {
  story("tool of '" + tool.job + "' ends with " + std::to_string(tool.status >> 8));
  tracks_[tool.job].interrupted = true;  // until its runner has said that it finished
}

void Model::finished(const Process& process, const std::string& job, const std::string& result) {
  note_settled(process);
  if (result != "busy") mail_owed_[process.pid] = job;
  Track& track = tracks_[job];
  track.interrupted = false;
  if (process.what != "daemon") return;
  // A run that was asked for changes nothing else.
  if (requests_.erase("running " + job) != 0) return;
  track.busy = result == "busy";
  if (track.busy) return;
  track.loose = troubled_;
  track.consumed = track.about_to_consume;
  cover(track, world_->wall());
}

void Model::logged(const Process& process, std::string_view line) {
  story("  " + process.what + ": " +
        std::string(line.substr(std::min<std::size_t>(line.size(), 21))));
  const auto between = [&](const char* before, const char* after) {
    const std::size_t from = line.find(before);
    if (from == std::string_view::npos) return std::string();
    const std::size_t start = from + std::strlen(before);
    return std::string(line.substr(start, line.find(after, start) - start));
  };
  if (line.find("orv_sched: reloaded ") != std::string_view::npos ||
      line.find("orv_sched daemon started") != std::string_view::npos) {
    adopt(world_->disk.read(kConfigPath));
  } else if (line.find("safety guard tripped") != std::string_view::npos) {
    fail("the dispatch guard tripped");
  } else if (line.find("started on request of API token") != std::string_view::npos) {
    requests_["running " + between("job '", "'")] = 1;
  } else if (const std::string result = between(" result=", " "); !result.empty()) {
    finished(process, between("job '", "' finished"), result);
  }
}

// What a runner owes when it goes on to other things, or ends by itself.
void Model::note_settled(const Process& process) {
  if (const auto owed = mail_owed_.find(process.pid); owed != mail_owed_.end()) {
    fail("the end of '" + owed->second + "' was never mailed");
    mail_owed_.erase(owed);
  }
}

void Model::mail_handed_over(const Process& process, std::string_view subject) {
  if (subject.find("configuration changed") != subject.npos) return;
  const auto owed = mail_owed_.find(process.pid);
  if (owed == mail_owed_.end() || subject.find(": job " + owed->second + " ") == subject.npos) {
    return fail("a mail that nobody owed: " + std::string(subject));
  }
  const std::string job = owed->second;
  mail_owed_.erase(owed);
  story("  mail: " + std::string(subject));
  if (troubled_) return;
  for (const ModelRecord& record : read_queue(world_->disk.read(kQueuePath))) {
    if (record.name != job) continue;
    // A run of another may have begun meanwhile.
    if ((record.state == kRunning && record.runner == process.pid) ||
        record.finished > world_->wall()) {
      fail("'" + job + "' was reported before its end was recorded");
    }
  }
  const std::vector<std::string> logs = world_->disk.list(std::string(kLogDir) + "/" + job);
  if (logs.empty()) return fail("'" + job + "' was reported and has no log");
}

void Model::process_ended(const Process& process, bool killed) {
  story(process.what + (killed ? " is killed" : " ends with " + std::to_string(process.status)) +
        " (pid " + std::to_string(process.pid) + ")");
  if (killed) {
    mail_owed_.erase(process.pid);
    if (!process.job.empty()) {
      Track& track = tracks_[process.job];
      track.interrupted = true;
      track.loose = true;
    }
    if (process.what == "daemon") requests_.clear();
  } else {
    note_settled(process);
  }
}

void Model::clock_set(std::int64_t seconds) {
  story("the clock is set by " + std::to_string(seconds) + " s");
  for (auto& [name, track] : tracks_) track.loose = true;
}

void Model::rebooted(bool power_lost) {
  story(power_lost ? "the power is lost" : "the machine is restarted");
  for (auto& [name, track] : tracks_) track.loose = true;
  check_files();
  for (auto& [name, track] : tracks_) track.consumed = 0;
}

void Model::calm() { troubled_ = false; }

void Model::check_nothing_waits() {
  const Process* const daemon = world_->find_process("daemon");
  const std::int64_t slack = poll_s_ + 70;
  if (daemon == nullptr || troubled_ || world_->mono - world_->last_change < slack * kSecond)
    return;
  for (const auto& tool : world_->tools) {
    if (tool->state == Tool::State::Running) return;
  }
  const std::vector<ModelRecord> records = read_queue(world_->disk.read(kQueuePath));
  const std::int64_t past = world_->wall() - slack;
  for (const ModelJob& job : jobs_) {
    if (!job.enabled) continue;
    const Track& track = tracks_[job.name];
    const auto at = std::find_if(records.begin(), records.end(),
                                 [&](const ModelRecord& r) { return r.name == job.name; });
    if (at == records.end()) {
      fail("'" + job.name + "' has no record");
    } else if (at->state == kRunning) {
      fail("'" + job.name + "' is marked as running and nothing runs");
    } else if (job.after.empty() && !job.schedule.empty() && !track.loose && track.wanted < past) {
      fail("'" + job.name + "' was not run at " + day_time(track.wanted));
    } else if (const bool timed = !job.schedule.empty() || job.once != 0;
               timed && job.after.empty() && at->next_run < past) {
      fail("'" + job.name + "' is due since " + day_time(at->next_run) + " and is not run");
    } else if (!job.schedule.empty() && at->next_run == INT64_MAX) {
      fail("'" + job.name + "' will never run");
    } else if (!job.after.empty() && (!timed || at->next_run < past)) {
      const std::optional<std::int64_t> stamp = dependency_stamp(job);
      if (stamp && *stamp > at->after_stamp) {
        fail("'" + job.name + "' waits for what has ended (" + day_time(*stamp) + ", its last " +
             day_time(at->after_stamp) + ")");
      }
    }
  }
}

void Model::check_files() {
  const std::string queue = world_->disk.read(kQueuePath);
  if (queue.size() % 172 != 0) fail("the queue file is cut");
  for (const ModelRecord& record : read_queue(queue)) {
    if (record.name.empty() || record.state < 0 || record.state > 4) fail("a torn queue record");
  }
  const std::string config = world_->disk.read(kConfigPath);
  if (config.find("# end of the file") == std::string::npos) fail("the configuration is cut");
  for (const ModelJob& job : read_config(config)) {
    const auto told = told_serials_.find(job.name);
    if (told != told_serials_.end() && job.serial < told->second) {
      fail("a change of '" + job.name + "' was confirmed and is lost");
    }
  }
}

}  // namespace orv::sim
