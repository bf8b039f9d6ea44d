#include "api/router.h"

#include <algorithm>
#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "api/endpoints.h"
#include "common/text.h"

namespace orv {
namespace {

constexpr std::string_view kPrefix = "/api/v1/";
constexpr std::size_t kMaxSegments = 6;
constexpr std::size_t kMaxQueryDigits = 12;

enum class Check : std::uint8_t {
  None,       // ends the list
  Method,     // the row's own, else 405
  NoQuery,    // 400
  JobsQuery,  // offset and limit
  LogQuery,   // offset and length
  Role,       // the row's own
  Write,      // [api] allow-config-write
  NoBody,     // a POST that takes none
  NoDeleteBody,
};

struct RouteRow {
  const char* method;
  const char* pattern;  // below the prefix; "*" stands for any one segment
  void (*run)(ApiCall& call);
  TokenRole role;
  std::array<Check, 5> checks;  // in the order in which they are made
};

constexpr TokenRole kRead = TokenRole::Read;
constexpr TokenRole kAdmin = TokenRole::Admin;
using enum Check;

// Rows of one pattern begin with the same checks, up to the method: when no row has the request's
// method, the first of them says what is wrong.
// clang-format off
constexpr RouteRow kRoutes[] = {
    {"GET",    "info",              get_info,           kRead,  {Method, NoQuery}},
    {"GET",    "jobs",              get_jobs,           kRead,  {Method, JobsQuery}},
    {"GET",    "jobs/*",            get_job,            kRead,  {NoQuery, Method}},
    {"PUT",    "jobs/*",            put_job,            kAdmin, {NoQuery, Method, Role, Write}},
    {"DELETE", "jobs/*",            delete_job,         kAdmin,
     {NoQuery, Method, Role, Write, NoDeleteBody}},
    {"POST",   "jobs/*/run",        run_job_now,        kAdmin, {Method, NoQuery, Role, NoBody}},
    {"POST",   "jobs/*/cancel",     cancel_job,         kAdmin, {Method, NoQuery, Role, NoBody}},
    {"GET",    "jobs/*/runs",       get_runs,           kRead,  {Method, NoQuery}},
    {"GET",    "jobs/*/runs/*/log", get_log_chunk,      kRead,  {Method, LogQuery}},
    {"GET",    "settings/sched",    get_sched_settings, kRead,  {NoQuery, Method}},
    {"PUT",    "settings/sched",    put_sched_settings, kAdmin, {NoQuery, Method, Role, Write}},
    {"GET",    "settings/mail",     get_mail_settings,  kRead,  {NoQuery, Method}},
    {"PUT",    "settings/mail",     put_mail_settings,  kAdmin, {NoQuery, Method, Role, Write}},
    {"POST",   "validate/job",      validate_job,       kRead,  {Method, NoQuery}},
    {"POST",   "mail/test",         send_test_mail,     kAdmin, {Method, NoQuery, Role}},
    {"GET",    "mail/results/*",    get_mail_result,    kRead,  {Method, NoQuery}},
};
// clang-format on

struct Path {
  std::array<PathSegment, kMaxSegments> segments;
  std::size_t count = 0;
};

// A decoded slash is refused, so that a segment can never become two path components.
bool decode_segment(std::string_view text, PathSegment& out) {
  std::string decoded;
  for (std::size_t at = 0; at < text.size(); ++at) {
    int byte = static_cast<unsigned char>(text[at]);
    if (byte == '%') {
      if (text.size() - at < 3) return false;
      const int high = hex_digit(text[at + 1]);
      const int low = hex_digit(text[at + 2]);
      if (high < 0 || low < 0) return false;
      byte = high * 16 + low;
      at += 2;
    }
    if (byte < 0x20 || byte > 0x7e || byte == '/') return false;
    decoded += static_cast<char>(byte);
  }
  return !decoded.empty() && out.set(decoded);
}

// An empty segment (a double or a trailing slash) does not decode, nor does a seventh one fit.
bool split_path(std::string_view text, Path& out) {
  for (;;) {
    if (out.count == kMaxSegments) return false;
    const std::size_t slash = std::min(text.find('/'), text.size());
    if (!decode_segment(text.substr(0, slash), out.segments[out.count++])) return false;
    if (slash == text.size()) return true;
    text.remove_prefix(slash + 1);
  }
}

// Whether the path has the pattern's form; `variables` takes what stands for its "*"s.
bool matches(std::string_view pattern, const Path& path, std::array<PathSegment, 2>& variables) {
  std::size_t used = 0;
  for (std::size_t i = 0; i < path.count; ++i) {
    const std::size_t slash = std::min(pattern.find('/'), pattern.size());
    const std::string_view part = pattern.substr(0, slash);
    if (part.empty()) return false;
    if (part == "*") {
      variables[used++] = path.segments[i];
    } else if (path.segments[i] != part) {
      return false;
    }
    pattern.remove_prefix(std::min(slash + 1, pattern.size()));
  }
  return pattern.empty();
}

// The row of the method when the pattern has one, else the pattern's first; null for no pattern.
const RouteRow* find_route(const Path& path, std::string_view method, ApiCall& call) {
  const RouteRow* found = nullptr;
  for (const RouteRow& row : kRoutes) {
    if (!matches(row.pattern, path, call.variables)) continue;
    if (row.method == method) return &row;
    if (found == nullptr) found = &row;
  }
  return found;
}

// One "name=value" of a query; `names` are the offset's and the count's.
bool parse_query_part(std::string_view part, std::span<const char* const, 2> names,
                      std::array<std::optional<std::int64_t>, 2>& values) {
  const std::size_t equals = part.find('=');
  if (equals == std::string_view::npos) return false;
  const std::string_view digits = part.substr(equals + 1);
  if (digits.size() > kMaxQueryDigits) return false;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (part.substr(0, equals) != names[i]) continue;
    std::int64_t value = 0;
    if (values[i] || !parse_i64(digits, value)) return false;
    values[i] = value;
    return true;
  }
  return false;
}

// Every deviation gets the one complaint that lists what is allowed.
bool read_page_query(ApiCall& call, const char* count_name) {
  const char* const names[] = {"offset", count_name};
  std::array<std::optional<std::int64_t>, 2> values;
  std::string_view rest = call.request.http.query.view();
  bool good = true;
  // A trailing "&" leaves an empty part, which is as wrong as any other.
  for (bool more = !rest.empty(); more && good;) {
    const std::size_t end = std::min(rest.find('&'), rest.size());
    good = parse_query_part(rest.substr(0, end), names, values);
    more = end < rest.size();
    rest.remove_prefix(more ? end + 1 : end);
  }
  if (!good) {
    reply_error(call.reply, 400, "bad_query", "allowed query parameters: offset, %s (digits)",
                count_name);
    return false;
  }
  call.page = {values[0].value_or(0), values[1]};
  return true;
}

// Each of the checks below replies with its error and returns false when it is not passed.
bool check_method(ApiCall& call, const RouteRow& row) {
  const ApiRequest& http = call.request.http;
  if (http.method == row.method) return true;
  reply_error(call.reply, 405, "method_not_allowed", "method %s not allowed here",
              http.method.c_str());
  return false;
}

bool pass(Check check, ApiCall& call, const RouteRow& row) {
  const ApiRequest& http = call.request.http;
  switch (check) {
    case None: return true;
    case Method: return check_method(call, row);
    case NoQuery:
      return http.query.empty() ||
             refuse(call, 400, "bad_query", "this resource takes no query parameters");
    case JobsQuery: return read_page_query(call, "limit");
    case LogQuery: return read_page_query(call, "length");
    case Role:
      return row.role == TokenRole::Read || call.request.role == TokenRole::Admin ||
             refuse(call, 403, "forbidden", "this needs an admin token");
    case Write:
      return call.live.config->api.allow_config_write ||
             refuse(call, 403, "config_write_disabled",
                    "configuration changes through the API are disabled ([api] "
                    "allow-config-write=no)");
    case NoBody: return http.body.empty() || refuse(call, 400, "bad_request", "this takes no body");
    case NoDeleteBody:
      return http.body.empty() || refuse(call, 400, "bad_request", "DELETE takes no body");
  }
  return false;
}

void route(ApiCall& call) {
  const ApiRequest& http = call.request.http;
  std::string_view rest = http.path.view();
  if (!rest.starts_with(kPrefix)) {
    (void)refuse(call, 404, "not_found", "unknown path");  // the reply is made, nothing follows
    return;
  }
  rest.remove_prefix(kPrefix.size());
  Path path;
  if (!split_path(rest, path)) {
    (void)refuse(call, 404, "not_found", "malformed path");
    return;
  }
  if (http.method == "GET" && !http.body.empty()) {
    (void)refuse(call, 400, "bad_request", "GET takes no body");
    return;
  }
  const RouteRow* row = find_route(path, http.method.view(), call);
  if (row == nullptr) {
    (void)refuse(call, 404, "not_found", "unknown path");
    return;
  }
  // The row's order decides which of several faults is reported.
  for (const Check check : row->checks) {
    if (!pass(check, call, *row)) return;
  }
  row->run(call);
}

}  // namespace

void api_route(LiveState& live, ApiReply& reply, const RoutedRequest& request) {
  reply.reset();
  ApiCall call{live, reply, request, {}, {}};
  route(call);
}

}  // namespace orv
