// A whole request behind authentication: "<method> <path>[?<query>]", a line feed, the body.
// Whatever it says, there is one reply in JSON, and the configuration file loads afterwards.
#include <algorithm>
#include <array>
#include <memory>
#include <string_view>

#include "fuzz/api_server.h"
#include "fuzz/targets.h"
#include "json/json.h"

namespace orv::fuzz {
namespace {

constexpr std::string_view kConfig =
    "# head\n[sched]\npoll-interval=5\n[api]\nhistory-keep=0\nnotify-changes=no\n"
    "[mail]\nsmtp-host=mx\nfrom=a@b\nto=c@d\n"
    "[base] ; nightly\ncommand = verify  # check\nargs= --all \"a b\"\nschedule=0 1 * * *\n\n"
    "[next]\nafter=base\n[gone]\ncommand=restore\nenabled=no";

}  // namespace

void request(std::string_view input) {
  static ApiServer server(kConfig);
  server.restore();
  const std::size_t line_end = std::min(input.find('\n'), input.size());
  const std::string_view line = input.substr(0, line_end);
  const std::string_view body = input.substr(std::min(line_end + 1, input.size()));
  const std::size_t blank = std::min(line.find(' '), line.size());
  const std::string_view target = line.substr(std::min(blank + 1, line.size()));
  const ApiReply& reply = server.send(line.substr(0, blank), target, body);

  std::unique_ptr<JsonValue> root;
  std::array<char, 256> message{};
  require(reply.status >= 200 && reply.status < 600);
  require(json_parse(reply.body, {}, root, message) == 0);
  const bool is_error = json_kind(json_member(root.get(), "error")) == JsonKind::Object;
  require(is_error == (reply.status >= 400));
  const auto config = std::make_unique<Config>();
  require(server.loads(*config));
}

}  // namespace orv::fuzz
