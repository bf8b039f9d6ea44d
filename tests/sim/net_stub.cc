// The network process as the simulated daemon sees it: what supervisor.h declares, without a child.
// Mails go to the books, and the API's requests come from the history's list.
#include "net/supervisor.h"
#include "sim/history.h"

namespace orv {

std::int64_t net_wall_clock() { return sim::current_world->wall(); }

void net_set_mail(NetSupervisor&, const MailSection&) {}

void net_set_api(NetSupervisor& sup, const ApiSection& api, ApiHandler handler, void* context) {
  sup.api.enabled = api.present && api.enabled;
  sup.api.handler = handler;
  sup.api.handler_context = context;
}

void net_stop_api(NetSupervisor& sup) { sup.api.enabled = false; }

void net_pump(NetSupervisor& sup) {
  sim::History& history = *sim::current_history;
  while (sup.api.handler_context != nullptr && !history.requests.empty()) {
    const auto request = std::move(history.requests.front());
    history.requests.pop_front();
    request(sup.api.handler_context);
  }
}

void net_wait(NetSupervisor& sup, int timeout_ms) {
  sim::World& world = *sim::current_world;
  const std::int64_t asked = timeout_ms * (sim::kSecond / 1000);
  const std::uint64_t events = world.events;
  if (sim::current_history->requests.empty()) {
    world.block([&world, events] { return world.events != events; }, world.quiet_until(asked));
  }
  net_pump(sup);
}

std::uint32_t net_queue_mail(NetSupervisor& sup, std::string_view subject, std::string_view) {
  sim::current_history->model.mail_handed_over(*sim::current_world->running, subject);
  return ++sup.child.next_id;
}

int net_send_mail_now(const MailSection&, std::string_view subject, std::string_view,
                      std::span<char>) {
  sim::current_history->model.mail_handed_over(*sim::current_world->running, subject);
  return 0;
}

int net_wait_mail_result(NetSupervisor&, std::uint32_t, std::uint32_t, std::span<char>) {
  return 0;
}

void net_shutdown(NetSupervisor&) {}

}  // namespace orv
