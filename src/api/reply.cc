#include "api/reply.h"

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>

namespace orv {
namespace {

constexpr std::size_t kMaxErrorMessage = 1023;  // bytes
constexpr std::size_t kParseMessageSize = 256;
constexpr std::size_t kMaxFieldName = 100;  // a longer key is known to nobody

void write_error(ApiReply& reply, const char* code, const char* message) {
  JsonWriter& json = reply.json;
  json.reset();
  json.begin_object();
  json.key("error");
  json.begin_object();
  json.key("code");
  json.string(code);
  json.key("message");
  json.string(message);
  json.end_object();
  json.end_object();
}

bool is_listed(std::string_view names, std::string_view name) {
  if (name.empty() || name.size() > kMaxFieldName) return false;
  if (name.find(' ') != std::string_view::npos) return false;
  while (!names.empty()) {
    const std::size_t end = std::min(names.find(' '), names.size());
    if (names.substr(0, end) == name) return true;
    names.remove_prefix(std::min(end + 1, names.size()));
  }
  return false;
}

}  // namespace

ApiReply::ApiReply() : json(std::span<char>{}) {}

void ApiReply::reset() {
  if (!buffer) {
    buffer = std::make_unique<char[]>(kReplyBufferSize);
    json = JsonWriter({buffer.get(), kReplyBufferSize});
  }
  json.reset();
  status = 0;
  body = {};
  etag.clear();
}

void reply_finish(ApiReply& reply, std::uint32_t status) {
  reply.status = status;
  if (reply.json.overflow()) {
    reply.status = 500;
    reply.etag.clear();
    write_error(reply, "internal", "response too large");
  }
  reply.body = reply.json.text();
}

void reply_error(ApiReply& reply, std::uint32_t status, const char* code, const char* format, ...) {
  char message[kMaxErrorMessage + 1];
  va_list args;
  va_start(args, format);
  (void)std::vsnprintf(message, sizeof message, format, args);  // a longer message is cut
  va_end(args);
  reply.etag.clear();
  write_error(reply, code, message);
  reply_finish(reply, status);
}

bool check_stored_value(std::string_view text) {
  if (text.empty() || text.size() > kMaxStoredValue) return false;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) return false;
  }
  // All other white space is a control character.
  return text.front() != ' ' && text.back() != ' ';
}

std::unique_ptr<JsonValue> read_body_object(ApiReply& reply, std::string_view body) {
  if (body.empty()) {
    reply_error(reply, 400, "invalid_json", "a JSON body is required");
    return nullptr;
  }
  char err[kParseMessageSize];
  std::unique_ptr<JsonValue> root;
  if (json_parse(body, kJsonRequestLimits, root, err) != 0) {
    reply_error(reply, 400, "invalid_json", "%s", err);
    return nullptr;
  }
  if (root->kind != JsonKind::Object) {
    reply_error(reply, 400, "invalid_json", "the body must be a JSON object");
    return nullptr;
  }
  return root;
}

bool only_known_fields(ApiReply& reply, const JsonValue& object, std::string_view names) {
  for (const std::string& key : object.keys) {
    if (is_listed(names, key)) continue;
    reply_error(reply, 400, "unknown_field", "unknown field '%.100s'", key.c_str());
    return false;
  }
  return true;
}

bool read_string_field(ApiReply& reply, const JsonValue& object, const char* field, std::size_t max,
                       std::string& out) {
  out.clear();
  const JsonValue* value = json_member(&object, field);
  if (json_kind(value) == JsonKind::Null) return true;
  const std::optional<std::string_view> text = json_string(value);
  if (!text) {
    reply_error(reply, 400, "invalid_value", "'%s' must be a string or null", field);
    return false;
  }
  if (!check_stored_value(*text) || text->size() > max) {
    reply_error(reply, 400, "invalid_value",
                "'%s' must be 1..%zu characters without control characters or leading/trailing "
                "spaces",
                field, max);
    return false;
  }
  out = *text;
  return true;
}

bool read_integer_field(ApiReply& reply, const JsonValue& object, const char* field,
                        std::int64_t max, std::int64_t& out) {
  out = -1;
  const JsonValue* value = json_member(&object, field);
  if (json_kind(value) == JsonKind::Null) return true;
  const std::optional<std::int64_t> number = json_integer(value);
  if (!number || *number < 0 || *number > max) {
    reply_error(reply, 400, "invalid_value", "'%s' must be an integer 0..%" PRId64 " or null",
                field, max);
    return false;
  }
  out = *number;
  return true;
}

}  // namespace orv
