// Requests of the page that go on to a server: which server, which path, and what comes back. Pure.
#ifndef ORV_CONSOLE_PASS_THROUGH_H_
#define ORV_CONSOLE_PASS_THROUGH_H_

#include <string>
#include <string_view>

#include "client/connection.h"
#include "console/local_http.h"

namespace orv {

// A target "/api/servers/NAME/v1/REST?QUERY" taken apart.
struct PassTarget {
  std::string server;  // decoded
  std::string path;    // "/api/v1/REST", percent-encoding as it came
  std::string query;   // without its "?"
};

// Whether the target is one of a server's; false leaves `out` empty. What could be read as another
// path on the way (dot segments, empty ones, an encoded slash, backslashes, control characters,
// broken encoding) is not passed on: `malformed` is then set and true returned.
[[nodiscard]] bool pass_target_parse(std::string_view target, PassTarget& out, bool& malformed);

// Null when a request of that method may be passed on, else the refusal. With `read_only`, reads
// and the check of a definition may.
[[nodiscard]] const LocalError* pass_refusal(std::string_view method, const PassTarget& target,
                                             bool read_only);

// What the page gets of a server's reply: status and body as they came, and the body's config_etag
// as ETag; 502 when there is no reply to be believed.
[[nodiscard]] LocalReply pass_reply(ClientReply reply);

}  // namespace orv

#endif  // ORV_CONSOLE_PASS_THROUGH_H_
