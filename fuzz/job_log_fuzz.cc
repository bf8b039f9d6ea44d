// A job log of any content, read through the API: the list of runs is JSON whatever the trailer
// says, and the chunks, of a size that the first byte gives, cover the file from end to end.
#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "common/text.h"
#include "fuzz/api_server.h"
#include "fuzz/targets.h"
#include "json/json.h"

namespace orv::fuzz {
namespace {

constexpr const char* kRun = "20261005T140000Z";

// The number that follows the last `key` of a reply. The strict reader of requests would refuse the
// NUL bytes that a log may hold.
std::uint64_t last_number(std::string_view body, std::string_view key) {
  const std::size_t at = body.rfind(key);
  require(at != std::string_view::npos);
  const std::string_view rest = body.substr(at + key.size());
  std::uint64_t value = 0;
  require(parse_u64(rest.substr(0, rest.find_first_of(",}")), value));
  return value;
}

}  // namespace

void job_log(std::string_view input) {
  if (input.empty()) return;
  static ApiServer server("[a]\nenabled=no\n");
  const unsigned length = std::max(4U, 4U * static_cast<unsigned char>(input.front()));
  const std::string_view log = input.substr(1);
  server.write("logs/a/" + std::string(kRun) + ".log", log);

  std::unique_ptr<JsonValue> root;
  std::array<char, 256> message{};
  const ApiReply& runs = server.send("GET", "/api/v1/jobs/a/runs", {});
  require(runs.status == 200 && json_parse(runs.body, {}, root, message) == 0);
  const JsonValue* const run = json_element(json_member(root.get(), "runs"), 0);
  require(json_integer(json_member(run, "size")) == static_cast<std::int64_t>(log.size()));

  for (std::uint64_t offset = 0; offset < log.size();) {
    const std::string target = std::string("/api/v1/jobs/a/runs/") + kRun +
                               "/log?length=" + std::to_string(length) +
                               "&offset=" + std::to_string(offset);
    const ApiReply& chunk = server.send("GET", target, {});
    require(chunk.status == 200);
    const std::uint64_t covered = last_number(chunk.body, "\"length\":");
    require(covered > 0 && covered <= length);
    require(last_number(chunk.body, "\"next_offset\":") == offset + covered);
    offset += covered;
  }
}

}  // namespace orv::fuzz
