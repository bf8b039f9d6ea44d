// What befalls the servers of the histories.
#include <errno.h>
#include <signal.h>

#include <algorithm>
#include <array>

#include "api/handler.h"
#include "api/router.h"
#include "common/digest.h"
#include "sim/history.h"

namespace orv::sim {
namespace {

// Runs one request in the daemon, as the router would get it from an administrator's client.
void ask(History& history, const std::string& method, const std::string& path,
         const std::string& body, const std::function<void()>& accepted) {
  history.requests.push_back([=, &history](void* context) {
    auto& api = *static_cast<ApiContext*>(context);
    ApiRequest http;
    http.method.set_truncated(method);
    http.path.set_truncated("/api/v1/jobs/" + path);
    http.body = body;
    const HexDigest digest = to_hex(sha256(history.world.disk.read(kConfigPath)));
    http.if_match.set_truncated("\"" + std::string(digest.view()) + "\"");
    api_route(api.live, api.reply, {http, "sim", TokenRole::Admin, history.world.wall()});
    history.model.story("  API: " + method + " " + path + ": " + std::to_string(api.reply.status));
    if (api.reply.status / 100 == 2 && accepted) accepted();
  });
}

void rename_job(Scene& s) {
  History& h = s.history;
  JobPlan& job = s.job;
  const std::string old = job.name;
  job.name = "j" + std::to_string(++h.numbers);
  for (JobPlan& other : h.jobs) std::replace(other.after.begin(), other.after.end(), old, job.name);
  h.model.story("a person renames " + old + " to " + job.name);
  h.write_config();
}

void edit_times(Scene& s) {
  JobPlan& job = s.job;
  const JobPlan fresh = s.history.make_job(s.rng, job.name);
  job.schedule = fresh.schedule;
  job.once = fresh.once;
  if (job.schedule.empty() && job.once == 0 && job.after.empty()) job.schedule = "7 3 * * *";
  s.history.model.story("a person edits " + job.name);
  s.history.write_config();
}

void switch_job(Scene& s) {
  bool& enabled = s.job.enabled;
  enabled = !enabled;
  s.history.model.story(std::string(enabled ? "a person enables " : "a person disables ") +
                        s.job.name);
  s.history.write_config();
}

void break_file(Scene& s) {
  History& h = s.history;
  h.model.story("a person breaks the configuration");
  h.model.people_edited();
  h.world.disk.replace(kConfigPath, "[oops\n# end of the file\n", h.world.mono, h.world.wall_ns());
  h.world.at(h.world.mono + s.rng.between(60, 20000) * kSecond, [&h] {
    h.model.story("a person mends the configuration");
    h.write_config();
  });
}

void change_by_client(Scene& s) {
  History& h = s.history;
  const std::string name = s.job.name;
  const std::int64_t serial = ++h.numbers;
  ask(h, "PUT", name, R"({"args":"--serial )" + std::to_string(serial) + "\"}", [&h, name, serial] {
    h.model.change_told(name, serial);
    for (JobPlan& job : h.jobs) {
      if (job.name == name) job.serial = serial;
    }
  });
}

void interrupt_a_person(Scene& s) {
  for (const auto& process : s.history.world.processes) {
    if (process->gone || process->what == "daemon") continue;
    s.history.model.story("a person interrupts " + process->what);
    return s.history.world.send_signal(*process, s.rng.one_in(2) ? SIGINT : SIGTERM);
  }
}

void disk_fills(Scene& s) {
  History& h = s.history;
  h.model.story("the disk is full");
  h.model.trouble();
  h.world.disk.full = true;
  h.world.at(h.world.mono + s.rng.between(60, 40000) * kSecond, [&h] {
    h.model.story("the disk has room again");
    h.world.disk.full = false;
    h.world.at(h.world.mono + 3600 * kSecond, [&h] { h.model.trouble_ends(); });
  });
}

void a_call_fails(Scene& s) {
  static constexpr std::array kErrors = {EIO, EMFILE, ENOMEM, ENOSPC, EINTR};
  s.history.model.story("a call of the daemon fails");
  s.history.model.trouble();
  s.daemon->fails_at = s.daemon->calls + 1 + s.rng.below(600);
  s.daemon->fails_with = kErrors[s.rng.below(kErrors.size())];
}

void clock_is_set(Scene& s) {
  static constexpr std::array kSizes = {5, 120, 3600, 7200, 86400, 10 * 86400};
  const std::int64_t by = kSizes[s.rng.below(kSizes.size())] * (s.rng.one_in(2) ? -1 : 1);
  s.history.world.wall_offset += by * kSecond;
  s.history.model.clock_set(by);
}

void machine_restarts(Scene& s) {
  const bool power_loss = s.rng.one_in(2);
  s.history.world.reboot(power_loss);
  s.history.model.rebooted(power_loss);
}

// When much of what was just written has not reached the disk yet.
void power_fails_at_next_run(Scene& s) { s.history.power_fails = true; }

void request_run(Scene& s) {
  ask(s.history, "POST", s.job.name + "/run", "",
      [&h = s.history, name = s.job.name] { h.model.requested(name); });
}

void cancel_run(Scene& s) {
  const std::string& job = s.daemon->job;
  if (!job.empty()) ask(s.history, "POST", job + "/cancel", "", {});
}

// Some need the daemon.
constexpr Incident kIncidents[] = {
    {true, [](Scene& s) { s.history.world.kill_process(*s.daemon); }},
    {true, [](Scene& s) { s.history.world.send_signal(*s.daemon, SIGTERM); }},
    {true, [](Scene& s) { s.daemon->dies_at = s.daemon->calls + 1 + s.rng.below(400); }},
    {true, a_call_fails},
    {true, cancel_run},
    {false, [](Scene& s) { s.run_by_hand("run", false).dies_at = 1 + s.rng.below(120); }},
    {false, [](Scene& s) { s.run_by_hand("run", false); }},
    {false, [](Scene& s) { s.run_by_hand("start", false); }},
    {false, [](Scene& s) { s.run_by_hand("run", true); }},
    {false, interrupt_a_person},
    {false, clock_is_set},
    {false, machine_restarts},
    {false, power_fails_at_next_run},
    {false, disk_fills},
    {false, edit_times},
    {false, switch_job},
    {false, rename_job},
    {false, break_file},
    {false, request_run},
    {false, change_by_client},
};

}  // namespace

std::span<const Incident> incidents() { return kIncidents; }

}  // namespace orv::sim
