#include "console/console.h"

#include <cstdint>
#include <utility>

#include "console/page_files.h"
#include "console/pass_through.h"

namespace orv {

Console::Console(boost::asio::io_context& loop, const ConsoleOptions& options,
                 std::vector<Server> servers)
    : options_(options),
      pollers_(loop, std::move(servers), [this] { server_.wake_streams(); }),
      server_(loop, LocalHttpLimits{},
              {.handle = [this](const LocalRequest& request,
                                const LocalRespond& respond) { handle(request, respond); },
               .open_stream = [this] { return open_stream(); }}) {}

int Console::listen(std::span<char> err) {
  // The guard needs the port in use, which is known only after the bind when 0 was asked for.
  std::uint16_t port = options_.port;
  if (server_.listen(options_.address, port, err) != 0) return -1;
  guard_ = std::make_unique<Guard>(options_.address, port);
  return 0;
}

void Console::start() {
  server_.start(*guard_);
  pollers_.start();
}

void Console::stop() { server_.stop(); }

void Console::handle(const LocalRequest& request, const LocalRespond& respond) {
  // The guard has let the request pass: no file of the page is there for strangers either.
  const bool reads = request.method == "GET" || request.method == "HEAD";
  if (const PageFile* file = find_page_file(request.target); file != nullptr) {
    if (!reads) return respond(error_reply(kLocalMethod));
    return respond({.type = file->type, .body = std::string(file->content)});
  }
  if (request.target == "/api/servers") {
    if (!reads) return respond(error_reply(kLocalMethod));
    return respond({.body = servers_json()});
  }
  pass_on(request, respond);
}

void Console::pass_on(const LocalRequest& request, const LocalRespond& respond) {
  PassTarget target;
  bool malformed = false;
  if (!pass_target_parse(request.target, target, malformed)) {
    return respond(error_reply(kLocalNotFound));
  }
  if (malformed) return respond(error_reply(kLocalBadPath));
  if (const LocalError* error = pass_refusal(request.method, target, options_.read_only)) {
    return respond(error_reply(*error));
  }
  // Only a name of the list leads anywhere: the page cannot make the console ask another host.
  const std::size_t index = pollers_.find(target.server);
  if (index == pollers_.size()) return respond(error_reply(kLocalNoServer));
  ClientRequest onward;
  onward.method = request.method;
  onward.path = std::move(target.path);
  onward.query = std::move(target.query);
  // Neither cookie nor key goes on: the server gets what it needs and the signature.
  onward.body = request.body;
  onward.if_match = request.if_match;
  pollers_.pass(index, std::move(onward),
                [respond](ClientReply reply) { respond(pass_reply(std::move(reply))); });
}

std::string Console::servers_json() const {
  std::string out = "[";
  for (std::size_t i = 0; i < pollers_.size(); ++i) {
    if (i > 0) out += ",";
    out += known_server_json(pollers_.known(i), options_.read_only);
  }
  return out + "]";
}

// A stream remembers which version of each server it has sent, so a new one begins with all of
// them and a slow one passes over what has been overtaken.
NextEvent Console::open_stream() {
  return [this, sent = std::vector<std::uint64_t>(pollers_.size()),
          turn = std::size_t{0}]() mutable -> std::string {
    for (std::size_t i = 0; i < sent.size(); ++i) {
      const std::size_t index = (turn + i) % sent.size();
      const KnownServer& server = pollers_.known(index);
      if (sent[index] == server.version) continue;
      sent[index] = server.version;
      turn = index + 1;
      return "data: " + known_server_json(server, options_.read_only) + "\n\n";
    }
    return {};
  };
}

}  // namespace orv
