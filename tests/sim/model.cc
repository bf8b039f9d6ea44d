#include "sim/model.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <utility>

namespace orv::sim {
namespace {

constexpr int kRunning = 1;
constexpr int kDone = 2;
constexpr int kFailed = 3;
constexpr std::size_t kRecord = 172;  // bytes
constexpr std::size_t kNextRun = 136;

tm local_time(time_t at) {
  tm local{};
  ::localtime_r(&at, &local);
  return local;
}

std::string day_time(std::int64_t seconds) {
  const tm local = local_time(seconds);
  char text[64];
  return {text, ::strftime(text, sizeof text, "%Y-%m-%d %a %H:%M:%S", &local)};
}

// Whether `value` is one that the field of a schedule names.
bool names_value(const std::string& field, int value) {
  if (field == "*") return true;
  if (field.starts_with("*/")) return value % std::atoi(field.c_str() + 2) == 0;
  return std::atoi(field.c_str()) == value;
}

// The first minute after `after` that the schedule names, or INT64_MAX. Knows what the histories
// write: a number, "*" and "*/n" for minute and hour, a number or "*" for the day of the week.
std::int64_t next_nominal(const std::string& schedule, std::int64_t after) {
  if (schedule.empty()) return INT64_MAX;
  std::stringstream words(schedule);
  std::string minute, hour, day, month, weekday;
  words >> minute >> hour >> day >> month >> weekday;
  std::int64_t at = (after / 60 + 1) * 60;
  for (const std::int64_t end = at + 16 * 86400; at < end; at += 60) {  // a week may lack it
    const tm local = local_time(at);
    if (!names_value(hour, local.tm_hour) || !names_value(weekday, local.tm_wday)) {
      at += (14 - local.tm_min % 15) * 60;  // some clocks change at a quarter
    } else if (names_value(minute, local.tm_min)) {
      return at;
    }
  }
  return INT64_MAX;
}

// Whether the clock on the wall shows this minute twice. Which of the two counts is not said.
bool comes_twice(std::int64_t minute) {
  const auto clock = [](std::int64_t at) {
    return local_time(at).tm_hour * 60 + local_time(at).tm_min;
  };
  for (const int shift : {1800, 3600, 7200}) {
    const int shown = clock(minute);
    if (shown == clock(minute - shift) || shown == clock(minute + shift)) return true;
  }
  return false;
}

void set_key(JobPlan& job, const std::string& key, const std::string& value) {
  if (key == "schedule") job.schedule = value;
  if (key == "once") job.once = std::atoll(value.c_str());
  if (key == "enabled") job.enabled = value == "yes";
  if (key == "after-mode") job.finished = value == "finished";
  if (key == "args") job.serial = std::atoll(value.c_str() + value.rfind(' ') + 1);
  if (key == "after") {
    std::stringstream names(value);
    for (std::string name; std::getline(names, name, ',');) job.after.push_back(name);
  }
}

template <class Number>
Number number_at(std::string_view bytes, std::size_t at) {
  Number number{};
  std::memcpy(&number, bytes.data() + at, sizeof number);
  return number;
}

// The text between the first `before` and the `after` that follows it; empty without `before`.
std::string between(std::string_view line, std::string_view before, std::string_view after) {
  const std::size_t from = line.find(before);
  if (from == line.npos) return {};
  const std::size_t start = from + before.size();
  return std::string(line.substr(start, line.find(after, start) - start));
}

bool contains(std::string_view text, std::string_view part) { return text.find(part) != text.npos; }

}  // namespace

std::vector<JobPlan> read_config(std::string_view text) {
  std::vector<JobPlan> jobs;
  std::stringstream lines{std::string(text)};
  bool in_job = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with('[')) {
      const std::string name = between(line, "[", "]");
      in_job = name != "sched" && name != "mail" && name != "api";
      if (in_job) jobs.push_back({name});
    } else if (const std::size_t equals = line.find(" = "); in_job && equals != line.npos) {
      set_key(jobs.back(), line.substr(0, equals), line.substr(equals + 3));
    }
  }
  return jobs;
}

std::vector<std::int64_t> next_runs(std::string_view queue) {
  std::vector<std::int64_t> times;
  for (std::size_t at = 0; at + kRecord <= queue.size(); at += kRecord) {
    times.push_back(number_at<std::int64_t>(queue, at + kNextRun));
  }
  return times;
}

std::map<std::string, Model::Record> Model::read_queue(std::string_view bytes) {
  std::map<std::string, Record> records;
  for (std::size_t at = 0; at + kRecord <= bytes.size(); at += kRecord) {
    const std::string_view from = bytes.substr(at, kRecord);
    const auto word = number_at<std::uint32_t>(from, 128);
    Record& record = records[std::string(from.data(), ::strnlen(from.data(), 128))];
    record.state = static_cast<int>(word & 0xff);
    record.runner = static_cast<int>(word >> 8);
    record.next_run = number_at<std::int64_t>(from, kNextRun);
    record.finished = number_at<std::int64_t>(from, 152);
    record.after_stamp = number_at<std::int64_t>(from, 164);
  }
  return records;
}

void Model::attach(World& world, std::int64_t poll_s, bool verbose) {
  world_ = &world;
  poll_s_ = poll_s;
  verbose_ = verbose;
}

void Model::story(const std::string& line) const {
  if (verbose_) std::printf("%s  %s\n", day_time(world_->wall()).c_str(), line.c_str());
}

void Model::fail(const std::string& what) {
  story("FAILED: " + what);
  if (failure.empty()) failure = day_time(world_->wall()) + ": " + what;
}

const JobPlan* Model::job_of(const std::string& name) const {
  const auto at = std::find_if(jobs_.begin(), jobs_.end(),
                               [&](const JobPlan& job) { return job.name == name; });
  return at == jobs_.end() ? nullptr : &*at;
}

// All nominal times up to now are done with.
void Model::cover(Track& track) const {
  track.next = track.wanted = next_nominal(track.schedule, world_->wall());
  while (track.wanted != INT64_MAX && comes_twice(track.wanted)) {
    track.wanted = next_nominal(track.schedule, track.wanted);
  }
}

// The daemon has read the configuration: from here on these jobs are to run.
void Model::adopt(std::string_view text) {
  jobs_ = read_config(text);
  std::map<std::string, Track> before = std::move(tracks_);
  tracks_.clear();
  for (const JobPlan& job : jobs_) {
    if (!job.enabled) continue;
    const bool known = before.contains(job.name);
    Track& track = tracks_[job.name] = before[job.name];
    if (known && track.schedule == job.schedule && track.once == job.once) continue;
    // A new time: when it comes first is for the scheduler to say, and for us to see in its record.
    track.schedule = job.schedule;
    track.once = job.once;
    track.once_ran = false;
    track.loose = true;
    cover(track);
  }
}

std::optional<std::int64_t> Model::dependency_stamp(const JobPlan& job) const {
  const std::map<std::string, Record> records = read_queue(world_->disk.read(kQueuePath));
  std::int64_t stamp = 0;
  for (const std::string& name : job.after) {
    const auto at = records.find(name);
    if (at == records.end()) return std::nullopt;
    const Record& other = at->second;
    if (other.state != kDone && !(job.finished && other.state == kFailed)) return std::nullopt;
    stamp = std::max(stamp, other.finished);
  }
  return stamp;
}

void Model::tool_started(const Tool& tool) {
  ++runs;
  tracks_[tool.job].unlogged = troubled();
  starts.push_back({tool.job, world_->wall()});
  story("tool of '" + tool.job + "' starts (pid " + std::to_string(tool.pid) + ", runner " +
        std::to_string(tool.runner) + (tool.forced ? ", forced)" : ")"));
  for (const ToolRef& other : world_->tools) {
    if (other.get() == &tool || other->state != Tool::State::Running || tool.forced) continue;
    fail("'" + tool.job + "' runs beside '" + other->job + "'");
  }
  const Process* const runner = world_->process_of(tool.runner);
  if (runner == nullptr) return fail("the tool of '" + tool.job + "' outlived its start");
  if (runner->what != "daemon") return;
  const JobPlan* const job = job_of(tool.job);
  if (job == nullptr) return fail("'" + tool.job + "' runs and is not configured");
  check_cause(tool, *job);
}

// Why the daemon may have started it.
void Model::check_cause(const Tool& tool, const JobPlan& job) {
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
  if (job.schedule.empty() && job.after.empty() && track.once_ran && !track.loose && !again) {
    fail("'" + tool.job + "' runs again after its only time");
  }
  if (job.after.empty() || troubled()) return;
  const std::optional<std::int64_t> stamp = dependency_stamp(job);
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
  settle(process);
  if (result != "busy") mail_owed_[process.pid] = job;
  Track& track = tracks_[job];
  track.interrupted = false;
  // A run that was asked for changes nothing else.
  if (process.what != "daemon" || std::exchange(track.requested, false)) return;
  track.busy = result == "busy";
  if (track.busy) return;
  track.loose = troubled();
  track.once_ran = true;
  track.consumed = track.about_to_consume;
  cover(track);
}

void Model::logged(const Process& process, std::string_view line) {
  constexpr std::size_t kTimeWidth = 21;
  line.remove_prefix(std::min(line.size(), kTimeWidth));
  story("  " + process.what + ": " + std::string(line));
  if (contains(line, "orv_sched: reloaded ") || contains(line, "orv_sched daemon started")) {
    adopt(world_->disk.read(kConfigPath));
  } else if (contains(line, "safety guard tripped")) {
    fail("the dispatch guard tripped");
  } else if (contains(line, "started on request of API token")) {
    tracks_[between(line, "job '", "'")].requested = true;
  } else if (const std::string result = between(line, " result=", " "); !result.empty()) {
    finished(process, between(line, "job '", "' finished"), result);
  }
}

// A runner goes on to other things, or ends by itself: it must owe nothing.
void Model::settle(const Process& process) {
  const auto owed = mail_owed_.find(process.pid);
  if (owed == mail_owed_.end()) return;
  fail("the end of '" + owed->second + "' was never mailed");
  mail_owed_.erase(owed);
}

void Model::mail_handed_over(const Process& process, std::string_view subject) {
  if (contains(subject, "configuration changed")) return;
  const std::string job = mail_owed_[process.pid];
  mail_owed_.erase(process.pid);
  if (job.empty() || !contains(subject, ": job " + job + " ")) {
    return fail("a mail that nobody owed: " + std::string(subject));
  }
  story("  mail: " + std::string(subject));
  if (troubled()) return;
  const std::map<std::string, Record> records = read_queue(world_->disk.read(kQueuePath));
  if (const auto at = records.find(job); at != records.end()) {
    // A run of another may have begun meanwhile.
    const Record& record = at->second;
    const bool still_ours = record.state == kRunning && record.runner == process.pid;
    if (still_ours || record.finished > world_->wall()) {
      fail("'" + job + "' was reported before its end was recorded");
    }
  }
  if (!tracks_[job].unlogged && world_->disk.list(std::string(kLogDir) + "/" + job).empty()) {
    fail("'" + job + "' was reported and has no log");
  }
}

void Model::process_ended(const Process& process, bool killed) {
  story(process.what + (killed ? " is killed" : " ends with " + std::to_string(process.status)) +
        " (pid " + std::to_string(process.pid) + ")");
  if (!killed) return settle(process);
  mail_owed_.erase(process.pid);
  if (!process.job.empty()) {
    Track& track = tracks_[process.job];
    track.interrupted = track.loose = true;
  }
  if (process.what != "daemon") return;
  requests_.clear();
  for (auto& [name, track] : tracks_) track.requested = false;
}

void Model::loosen_all() {
  for (auto& [name, track] : tracks_) track.loose = true;
}

void Model::clock_set(std::int64_t seconds) {
  story("the clock is set by " + std::to_string(seconds) + " s");
  loosen_all();
}

void Model::rebooted(bool power_lost) {
  story(power_lost ? "the power is lost" : "the machine is restarted");
  check_files();
  const bool settled = runs > jobs_.size();  // the queue is long on the disk
  if (settled && world_->disk.read(kQueuePath).empty()) fail("the queue is lost");
  loosen_all();
}

void Model::check_nothing_waits() {
  const std::int64_t quiet = (poll_s_ + 70) * kSecond;
  if (world_->find_process("daemon") == nullptr || troubled()) return;
  if (world_->mono - world_->last_change < quiet) return;
  for (const ToolRef& tool : world_->tools) {
    if (tool->state == Tool::State::Running) return;
  }
  const std::map<std::string, Record> records = read_queue(world_->disk.read(kQueuePath));
  for (const JobPlan& job : jobs_) {
    if (!job.enabled) continue;
    const auto at = records.find(job.name);
    if (at == records.end()) return fail("'" + job.name + "' has no record");
    check_waiting(job, at->second);
  }
}

// What must be true of an enabled job while nothing runs and nothing has just happened.
void Model::check_waiting(const JobPlan& job, const Record& record) {
  const Track& track = tracks_[job.name];
  const std::int64_t past = world_->wall() - poll_s_ - 70;
  const std::string name = "'" + job.name + "' ";
  const bool timed = !job.schedule.empty() || job.once != 0;
  if (record.state == kRunning) fail(name + "is marked as running and nothing runs");
  if (!job.schedule.empty() && record.next_run == INT64_MAX) fail(name + "will never run");
  if (job.after.empty()) {
    if (!job.schedule.empty() && !track.loose && track.wanted < past) {
      fail(name + "was not run at " + day_time(track.wanted));
    }
    if (timed && record.next_run < past) {
      fail(name + "is due since " + day_time(record.next_run) + " and is not run");
    }
  } else if (!timed || record.next_run < past) {
    const std::optional<std::int64_t> stamp = dependency_stamp(job);
    if (stamp && *stamp > record.after_stamp) {
      fail(name + "waits for what has ended (" + day_time(*stamp) + ", its last " +
           day_time(record.after_stamp) + ")");
    }
  }
}

void Model::check_files() {
  const std::string_view queue = world_->disk.read(kQueuePath);
  if (queue.size() % kRecord != 0) fail("the queue file is cut");
  for (const auto& [name, record] : read_queue(queue)) {
    if (name.empty() || record.state > 4) fail("a torn queue record");
  }
  const std::string_view config = world_->disk.read(kConfigPath);
  if (!contains(config, "# end of the file")) fail("the configuration is cut");
  for (const JobPlan& job : read_config(config)) {
    const auto told = told_serials_.find(job.name);
    if (told != told_serials_.end() && job.serial < told->second) {
      fail("a change of '" + job.name + "' was confirmed and is lost");
    }
  }
}

}  // namespace orv::sim
