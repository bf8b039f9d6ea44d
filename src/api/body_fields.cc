#include "api/body_fields.h"

#include <algorithm>
#include <cinttypes>
#include <string>

#include "config/values.h"

namespace orv {
namespace {

constexpr std::size_t kParseMessageSize = 256;

bool refuse_value(ApiReply& reply, const char* complaint) {
  reply_error(reply, 400, "invalid_value", "%s", complaint);
  return false;
}

}  // namespace

std::unique_ptr<JsonValue> read_body_object(ApiReply& reply, std::string_view body) {
  if (body.empty()) {
    reply_error(reply, 400, "invalid_json", "a JSON body is required");
    return nullptr;
  }
  char err[kParseMessageSize];
  std::unique_ptr<JsonValue> root;
  // Limits come before anything else, so that a hostile body costs next to nothing.
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

bool only_known_fields(ApiReply& reply, const JsonValue& object, std::span<const BodyField> fields,
                       std::string_view also) {
  for (const std::string& key : object.keys) {
    const auto names_it = [&key](const BodyField& field) { return key == field.name; };
    // `also` is empty for most bodies, and a body may hold the key "".
    if (!key.empty() && (key == also || std::ranges::any_of(fields, names_it))) continue;
    reply_error(reply, 400, "unknown_field", "unknown field '%.100s'", key.c_str());
    return false;
  }
  return true;
}

bool read_body_fields(ApiReply& reply, const JsonValue& object, std::span<const BodyField> fields,
                      std::vector<KeyEdit>& edits) {
  // In the table's order, not the body's: new lines always come in the same order, and of two bad
  // fields the same one is reported.
  for (const BodyField& field : fields) {
    if (json_member(&object, field.name) == nullptr) continue;
    KeyEdit& edit = edits.emplace_back();
    edit.key = field.key;
    if (!field.read(reply, object, field, edit.value)) return false;
  }
  return true;
}

bool read_text_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                     std::optional<SecretString>& value) {
  const JsonValue* const member = json_member(&object, field.name);
  if (json_kind(member) == JsonKind::Null) return true;
  const std::optional<std::string_view> text = json_string(member);
  if (!text) {
    reply_error(reply, 400, "invalid_value", "'%s' must be a string or null", field.name);
    return false;
  }
  // What could not be read back from the file is refused here, before the file is touched.
  const auto max = static_cast<std::size_t>(field.max);
  if (!check_stored_value(*text) || text->size() > max) {
    reply_error(reply, 400, "invalid_value",
                "'%s' must be 1..%zu characters without control characters or leading/trailing "
                "spaces",
                field.name, max);
    return false;
  }
  if (field.accepts != nullptr && !field.accepts(*text)) {
    return refuse_value(reply, field.complaint);
  }
  value = *text;
  return true;
}

bool read_choice_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                       std::optional<SecretString>& value) {
  const JsonValue* const member = json_member(&object, field.name);
  if (json_kind(member) == JsonKind::Null) return true;
  const std::optional<std::string_view> text = json_string(member);
  if (!text || !field.accepts(*text)) return refuse_value(reply, field.complaint);
  // The file has no word for "inherit": it is what a job without the line does.
  if (*text != notify_name(Notify::Inherit)) value = *text;
  return true;
}

bool read_number_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                       std::optional<SecretString>& value) {
  const JsonValue* const member = json_member(&object, field.name);
  if (json_kind(member) == JsonKind::Null) return true;
  // 5.0 and 1e3 are numbers, too, but no integers to the reader.
  const std::optional<std::int64_t> number = json_integer(member);
  if (!number || *number < 0 || *number > field.max) {
    reply_error(reply, 400, "invalid_value", "'%s' must be an integer 0..%" PRId64 " or null",
                field.name, field.max);
    return false;
  }
  value = std::string_view(std::to_string(*number));
  return true;
}

bool read_switch_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                       std::optional<SecretString>& value) {
  const std::optional<bool> on = json_boolean(json_member(&object, field.name));
  if (!on) {
    reply_error(reply, 400, "invalid_value", "'%s' must be true or false", field.name);
    return false;
  }
  value = *on ? "yes" : "no";
  return true;
}

bool read_optional_switch_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                                std::optional<SecretString>& value) {
  const JsonValue* const member = json_member(&object, field.name);
  if (json_kind(member) == JsonKind::Null) return true;
  const std::optional<bool> on = json_boolean(member);
  if (!on) {
    reply_error(reply, 400, "invalid_value", "'%s' must be true, false or null", field.name);
    return false;
  }
  value = *on ? "yes" : "no";
  return true;
}

bool is_notify_choice(std::string_view text) {
  Notify notify = Notify::Inherit;
  return text == notify_name(Notify::Inherit) || parse_notify(text, notify);
}

}  // namespace orv
