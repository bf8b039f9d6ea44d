#include "netproc/http_message.h"

#include <strings.h>
#include <time.h>

#include <algorithm>

namespace orv {

// clang-format off
const HttpError kHttpBadRequest        = {400, "bad_request", "the request is not well-formed"};
const HttpError kHttpMethodNotAllowed  = {405, "method_not_allowed", "only GET, PUT, POST and DELETE are allowed"};
const HttpError kHttpBodyTooLarge      = {413, "body_too_large", "the body may have at most 32768 bytes"};
const HttpError kHttpUriTooLong        = {414, "uri_too_long", "the path may have at most 2048 bytes, the query 1024"};
const HttpError kHttpExpectationFailed = {417, "expectation_failed", "only 100-continue can be expected"};
const HttpError kHttpTooManyFailures   = {429, "too_many_failures", "too many failed authentications from this address: wait before trying again"};
const HttpError kHttpHeadersTooLarge   = {431, "headers_too_large", "header too large (Authorization: 512 bytes, If-Match: 128, all: 16384)"};
const HttpError kHttpNotImplemented    = {501, "not_implemented", "the body may be sent whole or in chunks, in no other coding"};
const HttpError kHttpUnavailable       = {503, "unavailable", "the scheduler is not keeping up: try again later"};
const HttpError kHttpTimeout           = {504, "timeout", "no answer from the scheduler in time"};
// clang-format on
static_assert(kIpcMaxRequestBody == 32768 && kMaxHttpHead == 16384, "named in the messages above");

namespace {

// Path and query of a request target in origin form, or in absolute form as proxies send it.
bool origin_form(std::string_view& target) {
  for (const std::string_view scheme : {"https://", "http://"}) {
    if (target.size() < scheme.size() ||
        ::strncasecmp(target.data(), scheme.data(), scheme.size()) != 0) {
      continue;
    }
    const std::size_t path = target.find('/', scheme.size());
    if (path == std::string_view::npos) return false;
    target.remove_prefix(path);
  }
  return target.starts_with('/') && target.find('#') == std::string_view::npos;
}

const char* reason_phrase(std::uint32_t status) {
  struct Row {
    std::uint32_t status;
    const char* phrase;
  };
  static constexpr Row kRows[] = {
      {200, "OK"},
      {201, "Created"},
      {202, "Accepted"},
      {204, "No Content"},
      {400, "Bad Request"},
      {401, "Unauthorized"},
      {403, "Forbidden"},
      {404, "Not Found"},
      {405, "Method Not Allowed"},
      {409, "Conflict"},
      {412, "Precondition Failed"},
      {413, "Content Too Large"},
      {414, "URI Too Long"},
      {417, "Expectation Failed"},
      {422, "Unprocessable Content"},
      {428, "Precondition Required"},
      {429, "Too Many Requests"},
      {431, "Request Header Fields Too Large"},
      {500, "Internal Server Error"},
      {501, "Not Implemented"},
      {503, "Service Unavailable"},
      {504, "Gateway Timeout"},
  };
  const Row* row = std::find_if(std::begin(kRows), std::end(kRows),
                                [&](const Row& r) { return r.status == status; });
  return row == std::end(kRows) ? "Status" : row->phrase;
}

void append_header(std::string& out, std::string_view name, std::string_view value) {
  if (!value.empty()) out.append(name).append(": ").append(value).append("\r\n");
}

// The text of the last second is kept: many replies share it, and making it costs as much as the
// rest of a head.
void append_date(std::string& out, std::int64_t now) {
  thread_local std::int64_t cached = -1;
  thread_local std::string text;
  if (now != cached || text.empty()) {
    const time_t when = now;
    struct tm utc {};
    char buffer[64];
    if (::gmtime_r(&when, &utc) == nullptr) return;
    text.assign(buffer, ::strftime(buffer, sizeof buffer, "%a, %d %b %Y %H:%M:%S GMT", &utc));
    cached = now;
  }
  append_header(out, "Date", text);
}

}  // namespace

const HttpError* http_map_head(const HttpHead& head, ApiRequest& out) {
  if (!is_api_method(head.method)) return &kHttpMethodNotAllowed;
  // The checks that make a request well-formed come before those of its size: the error that helps
  // most is the one about what was meant.
  std::string_view path = head.target;
  if (head.ambiguous || !ipc_printable(path) || !origin_form(path)) return &kHttpBadRequest;
  std::string_view query;
  if (const std::size_t mark = path.find('?'); mark != std::string_view::npos) {
    query = path.substr(mark + 1);
    path = path.substr(0, mark);
  }
  if (!ipc_printable(head.authorization) || !ipc_printable(head.if_match)) return &kHttpBadRequest;
  if (!out.path.set(path) || !out.query.set(query)) return &kHttpUriTooLong;
  if (!out.authorization.set(head.authorization) || !out.if_match.set(head.if_match)) {
    return &kHttpHeadersTooLarge;
  }
  return out.method.set(head.method) ? nullptr : &kHttpMethodNotAllowed;
}

std::string http_reply_text(const HttpReply& reply) {
  std::string out;
  out.reserve(512 + reply.body.size());
  out += "HTTP/1.1 " + std::to_string(reply.status) + " " + reason_phrase(reply.status) + "\r\n";
  append_date(out, reply.now);
  append_header(out, "Content-Type", "application/json");
  append_header(out, "Content-Length", std::to_string(reply.body.size()));
  append_header(out, "Cache-Control", "no-store");  // replies show the configuration
  append_header(out, "ETag", reply.etag);
  append_header(out, "ORV-Signature", reply.signature);
  // Headers that their status requires (RFC 9110, sections 11.6.1 and 15.5.6).
  if (reply.status == 401) append_header(out, "WWW-Authenticate", "ORV-HMAC-SHA256, Bearer");
  if (reply.status == 405) append_header(out, "Allow", "GET, PUT, POST, DELETE");
  if (reply.retry_after_s > 0) {
    append_header(out, "Retry-After", std::to_string(reply.retry_after_s));
  }
  append_header(out, "Connection", reply.keep_alive ? "keep-alive" : "close");
  out.append("\r\n").append(reply.body);
  return out;
}

std::string http_error_body(const HttpError& error) {
  return std::string(R"({"error":{"code":")") + error.code + R"(","message":")" + error.message +
         R"("}})";
}

}  // namespace orv
