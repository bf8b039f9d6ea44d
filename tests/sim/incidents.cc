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

void rename_job(History& h, JobPlan& job) {
  const std::string old = job.name;
  job.name = "j" + std::to_string(++h.numbers);
  for (JobPlan& other : h.jobs) std::replace(other.after.begin(), other.after.end(), old, job.name);
  h.model.story("a person renames " + old + " to " + job.name);
  h.write_config();
}

void edit_times(History& h, Rng& rng, JobPlan& job) {
  const JobPlan fresh = h.make_job(rng, job.name);
  job.schedule = fresh.schedule;
  job.once = fresh.once;
  if (job.schedule.empty() && job.once == 0 && job.after.empty()) job.schedule = "7 3 * * *";
  h.model.story("a person edits " + job.name);
  h.write_config();
}

void change_by_client(History& h, const std::string& name) {
  const std::int64_t serial = ++h.numbers;
  ask(h, "PUT", name, R"({"args":"--serial )" + std::to_string(serial) + "\"}", [&h, name, serial] {
    h.model.change_told(name, serial);
    for (JobPlan& job : h.jobs) {
      if (job.name == name) job.serial = serial;
    }
  });
}

void interrupt_a_person(History& h, Rng& rng) {
  for (const auto& process : h.world.processes) {
    if (process->gone || process->what == "daemon") continue;
    h.model.story("a person interrupts " + process->what);
    return h.world.send_signal(*process, rng.one_in(2) ? SIGINT : SIGTERM);
  }
}

constexpr bool kDaemon = true;  // it must be there
constexpr bool kAnyTime = false;

constexpr Incident kIncidents[] = {
    {kDaemon, [](History& h, Rng&, JobPlan&, Process* daemon) { h.world.kill_process(*daemon); }},
    {kDaemon,
     [](History& h, Rng&, JobPlan&, Process* daemon) {
       h.model.story("the daemon is told to stop");
       h.world.send_signal(*daemon, SIGTERM);
     }},
    {kDaemon, [](History&, Rng& rng, JobPlan&,
                 Process* daemon) { daemon->dies_at = daemon->calls + 1 + rng.below(400); }},
    {kDaemon,
     [](History& h, Rng& rng, JobPlan&, Process* daemon) {
       static constexpr std::array kErrors = {EIO, EMFILE, ENOMEM, ENOSPC, EINTR};
       h.model.story("a call of the daemon fails");
       h.model.trouble();
       daemon->fails_at = daemon->calls + 1 + rng.below(600);
       daemon->fails_with = kErrors[rng.below(kErrors.size())];
     }},
    {kAnyTime,
     [](History& h, Rng& rng, JobPlan& job, Process*) {
       h.run_by_hand("run", job.name, false).dies_at = 1 + rng.below(120);
     }},
    {kAnyTime,
     [](History& h, Rng& rng, JobPlan&, Process*) {
       static constexpr std::array kSizes = {5, 120, 3600, 7200, 86400, 10 * 86400};
       const std::int64_t by = kSizes[rng.below(kSizes.size())] * (rng.one_in(2) ? -1 : 1);
       h.world.wall_offset += by * kSecond;
       h.model.clock_set(by);
     }},
    {kAnyTime,
     [](History& h, Rng& rng, JobPlan&, Process*) {
       const bool power_loss = rng.one_in(2);
       h.world.reboot(power_loss);
       h.model.rebooted(power_loss);
     }},
    {kAnyTime,
     [](History& h, Rng& rng, JobPlan&, Process*) {
       h.model.story("the disk is full");
       h.model.trouble();
       h.world.disk.full = true;
       h.world.at(h.world.mono + rng.between(60, 40000) * kSecond, [&h] {
         h.model.story("the disk has room again");
         h.world.disk.full = false;
       });
     }},
    {kAnyTime, [](History& h, Rng& rng, JobPlan& job, Process*) { edit_times(h, rng, job); }},
    {kAnyTime,
     [](History& h, Rng&, JobPlan& job, Process*) {
       job.enabled = !job.enabled;
       h.model.story("a person " + std::string(job.enabled ? "enables " : "disables ") + job.name);
       h.write_config();
     }},
    {kAnyTime, [](History& h, Rng&, JobPlan& job, Process*) { rename_job(h, job); }},
    {kAnyTime,
     [](History& h, Rng& rng, JobPlan&, Process*) {
       h.model.story("a person breaks the configuration");
       h.model.people_edited();
       h.world.disk.replace(kConfigPath, "[oops\n# end of the file\n", h.world.mono,
                            h.world.wall_ns());
       h.world.at(h.world.mono + rng.between(60, 20000) * kSecond, [&h] {
         h.model.story("a person mends the configuration");
         h.write_config();
       });
     }},
    {kAnyTime,
     [](History& h, Rng&, JobPlan& job, Process*) { h.run_by_hand("run", job.name, false); }},
    {kAnyTime,
     [](History& h, Rng&, JobPlan& job, Process*) { h.run_by_hand("start", job.name, false); }},
    {kAnyTime,
     [](History& h, Rng&, JobPlan& job, Process*) { h.run_by_hand("run", job.name, true); }},
    {kAnyTime, [](History& h, Rng& rng, JobPlan&, Process*) { interrupt_a_person(h, rng); }},
    {kAnyTime,
     [](History& h, Rng&, JobPlan& job, Process*) {
       ask(h, "POST", job.name + "/run", "", [&h, name = job.name] { h.model.requested(name); });
     }},
    {kAnyTime, [](History& h, Rng&, JobPlan& job, Process*) { change_by_client(h, job.name); }},
    {kDaemon,
     [](History& h, Rng&, JobPlan&, Process* daemon) {
       if (!daemon->job.empty()) ask(h, "POST", daemon->job + "/cancel", "", {});
     }},
};

}  // namespace

std::span<const Incident> incidents() { return kIncidents; }

}  // namespace orv::sim
