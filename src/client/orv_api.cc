// orv_api: the command line of the configuration API, for one server or many.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "client/arguments.h"
#include "client/commands.h"
#include "client/output.h"
#include "client/pin.h"
#include "client/progress.h"
#include "client/session.h"
#include "client/targets.h"
#include "common/version.h"

namespace orv {
namespace {

namespace asio = boost::asio;

constexpr std::size_t kAtOnce = 32;  // servers

void complain(const std::string& message) {
  std::fprintf(stderr, "orv_api: %s\n", printable(message).c_str());
}

// One command at all servers chosen. What they say comes out in the order of the list, each as soon
// as all before it have come out.
class Program {
 public:
  Program(const Arguments& given, const Targets& targets)
      : given_(given),
        targets_(targets),
        table_(given.command->run == status_command),
        several_(targets.several || table_),
        progress_(io_.get_executor(), ::isatty(STDERR_FILENO) == 1),
        signals_(io_, SIGINT, SIGTERM) {
    const SessionOptions options{given.timeout, given.has("--json"), !several_};
    for (const Target& target : targets.servers) {
      places_.push_back(
          {std::make_unique<Session>(io_.get_executor(), target, options, progress_)});
    }
  }

  int run() {
    signals_.async_wait([this](boost::system::error_code ended, int /*number*/) {
      if (!ended) interrupt();
    });
    // Each answer starts the next: a list of hundreds needs neither as many sockets nor handshakes
    // at once.
    const std::size_t workers = std::min(kAtOnce, places_.size());
    if (several_) tell_progress();
    for (std::size_t i = 0; i < workers; ++i) start_next();
    io_.run();
    return finish();
  }

 private:
  struct Place {
    std::unique_ptr<Session> session;
    int status = kExitDone;
    bool done = false;
  };

  void start_next() {
    if (next_ == places_.size()) return;
    Place& place = places_[next_++];
    // A token that cannot be used harms its own server only.
    if (const std::string& error = place.session->target().error; !error.empty()) {
      end_of(place, place.session->fail(kExitUsage, "bad_token", error));
      return;
    }
    asio::co_spawn(io_, given_.command->run(*place.session, given_),
                   [this, &place](const std::exception_ptr& failed, int status) {
                     if (failed)
                       status = place.session->fail(kExitRefused, "internal", "out of memory");
                     end_of(place, status);
                   });
  }

  void end_of(Place& place, int status) {
    place.status = status;
    place.done = true;
    // The server keeps few connections; an idle one would hold another client's place.
    place.session->close();
    ++answered_;
    if (answered_ == places_.size()) {
      progress_.done();
      // The last thing that the loop waits for: it ends now.
      signals_.cancel();
    } else {
      tell_progress();
    }
    // One that is late holds back what comes after it in the list, and nothing else.
    while (shown_ < places_.size() && places_[shown_].done) show(places_[shown_++]);
    start_next();
  }

  void tell_progress() {
    progress_.wait_for(std::to_string(answered_) + " of " + std::to_string(places_.size()) +
                       " servers have answered");
  }

  // The rows of a table and the elements of an array come out at the end.
  void show(Place& place) {
    const Session& session = *place.session;
    progress_.clear();
    const bool json = session.options().json;
    if (several_ && !table_ && !json) {
      std::printf("%s:\n", printable(session.target().name).c_str());
      std::fwrite(session.kept_text().data(), 1, session.kept_text().size(), stdout);
    }
    if (!session.failure().empty()) {
      // Where both streams go to one file, the complaint stands after its server's name.
      std::fflush(stdout);
      complain((several_ ? session.target().name + ": " : "") + session.failure());
    }
    if (!several_ && json && !session.failure().empty()) {
      std::printf("{\"error\": %s}\n", session.failure_json().c_str());
    }
  }

  int finish() {
    if (table_ && !given_.has("--json")) print_table();
    if (several_ && given_.has("--json")) print_array();
    const auto failed = std::find_if(places_.begin(), places_.end(),
                                     [](const Place& place) { return place.status != kExitDone; });
    return failed != places_.end() ? failed->status : kExitDone;
  }

  void print_table() const {
    std::vector<std::vector<std::string>> rows = {status_head()};
    for (const Place& place : places_) {
      // Empty after a failure: the server keeps its line, with dashes.
      std::vector<std::string> row = place.session->row();
      if (row.empty()) {
        row.assign(rows[0].size(), "-");
        row[0] = place.session->target().name;
        row[1] = place.status == kExitNotTrusted ? "not trusted"
                 : place.status == kExitRefused  ? "refused"
                                                 : "no";
      }
      rows.push_back(std::move(row));
    }
    std::fputs(table_text(rows).c_str(), stdout);
  }

  void print_array() const {
    SecretString text = "[";
    for (const Place& place : places_) {
      const Session& session = *place.session;
      text += text.size() > 1 ? ",\n {\"name\": " : "{\"name\": ";
      text += json_quoted(session.target().name);
      if (!session.failure().empty()) {
        text += ", \"error\": ";
        text += session.failure_json();
      }
      const auto& replies = session.kept_json();
      // A command may show several values, but each server has one element.
      const bool list = replies.size() > 1;
      if (!replies.empty()) text += list ? ", \"reply\": [" : ", \"reply\": ";
      for (std::size_t i = 0; i < replies.size(); ++i) {
        if (i > 0) text += ", ";
        text += replies[i];
      }
      text += list ? "]}" : "}";
    }
    std::printf("%s]\n", text.c_str());
  }

  // Leaves at once: requests under way are lost, and a thread may still be resolving a name.
  [[noreturn]] void interrupt() {
    progress_.clear();
    std::fflush(stdout);
    if (!progress_.interrupt_note().empty()) complain(progress_.interrupt_note());
    ::_exit(kExitInterrupted);
  }

  const Arguments& given_;
  const Targets& targets_;
  bool table_;
  bool several_;
  asio::io_context io_{1};
  Progress progress_;
  asio::signal_set signals_;
  std::vector<Place> places_;
  std::size_t next_ = 0, answered_ = 0, shown_ = 0;
};

// What cannot be done at several servers at once, because it goes on for long.
std::string needs_one_server(const Arguments& given, const Targets& targets) {
  if (!targets.several) return "";
  if (given.has("--follow")) return "'--follow' follows one server";
  if (given.command->name == "run" && given.has("--wait")) return "'--wait' follows one server";
  return "";
}

int run_command_line(const Arguments& given) {
  if (given.command->run == nullptr) return pin_server(given);
  Targets targets;
  std::string fault = choose_targets(given, given.command->run == status_command, targets);
  if (fault.empty()) fault = needs_one_server(given, targets);
  // Before any request: a wrong word must not reach one server and not the others.
  if (!fault.empty()) {
    complain(fault);
    return kExitUsage;
  }
  return Program(given, targets).run();
}

}  // namespace
}  // namespace orv

int main(int argc, char** argv) {
  // A reader that has gone shows as a failed write, which ends the program quietly.
  ::signal(SIGPIPE, SIG_IGN);
  orv::Arguments given;
  const orv::UsageError error = orv::parse_arguments({argv, static_cast<std::size_t>(argc)}, given);
  if (given.has("--help")) {
    std::fputs(orv::usage_text().c_str(), stdout);
    return orv::flush_output(0);
  }
  if (given.has("--version")) {
    std::printf("orv_api %s\n", orv::kVersion);
    return orv::flush_output(0);
  }
  if (!error.message.empty()) {
    if (error.show_usage) std::fputs(orv::usage_text().c_str(), stdout);
    std::fflush(stdout);
    std::fprintf(stderr, "error: %s\n", orv::printable(error.message).c_str());
    return orv::kExitUsage;
  }
  return orv::flush_output(orv::run_command_line(given));
}
