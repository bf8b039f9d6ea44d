#include "console/local_http.h"

#include <vector>

#include "json/json_writer.h"

namespace orv {

// clang-format off
const LocalError kLocalBadRequest   = {400, "bad_request", "the request is not well-formed"};
const LocalError kLocalBadPath      = {400, "bad_request", "malformed path"};
const LocalError kLocalNotFound     = {404, "not_found", "unknown path"};
const LocalError kLocalMethod       = {405, "method_not_allowed", "this method is not allowed here"};
const LocalError kLocalTooLarge     = {413, "body_too_large", "the body may have at most 32768 bytes"};
const LocalError kLocalHeadTooLarge = {431, "headers_too_large", "the head of the request is too large"};
const LocalError kLocalReadOnly     = {403, "read_only", "this console was started with --read-only"};
const LocalError kLocalNoServer     = {404, "not_found", "no such server in the list"};
const LocalError kLocalBusy         = {503, "unavailable", "too many connections to the console"};
// clang-format on

namespace {

// The page may load its own parts and nothing else, run no script from markup, and stand in no
// frame. Trusted types make it an error to turn text into markup anywhere in it.
constexpr std::string_view kSecurityHeaders =
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; "
    "img-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'; require-trusted-types-for 'script'; trusted-types 'none'\r\n"
    "X-Frame-Options: DENY\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "Referrer-Policy: no-referrer\r\n"
    "Cross-Origin-Opener-Policy: same-origin\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n"
    "Cache-Control: no-store\r\n";

std::string_view phrase(unsigned status) {
  switch (status) {
    case 200: return "OK";
    case 303: return "See Other";
    case 403: return "Forbidden";
    case 404: return "Not Found";
    case 502: return "Bad Gateway";
    default: return status < 400 ? "OK" : "Error";  // no reader goes by the words
  }
}

void append_field(std::string& out, std::string_view name, std::string_view value) {
  if (!value.empty()) out.append(name).append(": ").append(value).append("\r\n");
}

}  // namespace

std::string error_body(std::string_view code, std::string_view message) {
  // Six bytes is the longest escape of one, so nothing can overflow.
  std::vector<char> buffer(256 + 6 * (code.size() + message.size()));
  JsonWriter json(buffer);
  json.error_object(code, message);
  return std::string(json.text());
}

LocalReply error_reply(unsigned status, std::string_view code, std::string_view message) {
  LocalReply reply;
  reply.status = status;
  reply.body = error_body(code, message);
  return reply;
}

LocalReply error_reply(const LocalError& error) {
  return error_reply(error.status, error.code, error.message);
}

std::string reply_text(const LocalReply& reply, bool keep_alive, bool head_only) {
  std::string out;
  out.reserve(1024 + reply.body.size());
  out += "HTTP/1.1 " + std::to_string(reply.status) + " ";
  out.append(phrase(reply.status)).append("\r\n").append(kSecurityHeaders);
  append_field(out, "Content-Type", reply.type);
  append_field(out, "Content-Length", std::to_string(reply.body.size()));
  append_field(out, "ETag", reply.etag);
  append_field(out, "Set-Cookie", reply.set_cookie);
  append_field(out, "Location", reply.location);
  if (reply.is_unsigned) append_field(out, "X-ORV-Unsigned", "1");
  if (reply.retry_after_s > 0) {
    append_field(out, "Retry-After", std::to_string(reply.retry_after_s));
  }
  append_field(out, "Connection", keep_alive ? "keep-alive" : "close");
  out += "\r\n";
  if (!head_only) out += reply.body;
  return out;
}

std::string event_stream_head() {
  std::string out = "HTTP/1.1 200 OK\r\n";
  out.append(kSecurityHeaders);
  append_field(out, "Content-Type", "text/event-stream");
  append_field(out, "Connection", "close");
  return out + "\r\n";
}

}  // namespace orv
