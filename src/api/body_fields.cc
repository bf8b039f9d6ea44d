#include "api/body_fields.h"

#include "common/secret.h"
#include "config/values.h"

namespace orv {
namespace {

bool refuse(ApiReply& reply, const char* complaint) {
  reply_error(reply, 400, "invalid_value", "%s", complaint);
  return false;
}

}  // namespace

bool read_text_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                     std::optional<std::string>& value) {
  std::string text;
  const auto max = static_cast<std::size_t>(field.max);
  if (!read_string_field(reply, object, field.name, max, text)) return false;
  if (text.empty()) return true;
  if (field.accepts != nullptr && !field.accepts(text)) return refuse(reply, field.complaint);
  value = text;
  wipe_text(text);  // it may be a password
  return true;
}

bool read_choice_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                       std::optional<std::string>& value) {
  const JsonValue* member = json_member(&object, field.name);
  if (json_kind(member) == JsonKind::Null) return true;
  const std::optional<std::string_view> text = json_string(member);
  if (!text || !field.accepts(*text)) return refuse(reply, field.complaint);
  if (*text != notify_name(Notify::Inherit)) value = *text;
  return true;
}

bool read_number_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                       std::optional<std::string>& value) {
  std::int64_t number = -1;
  if (!read_integer_field(reply, object, field.name, field.max, number)) return false;
  if (number >= 0) value = std::to_string(number);
  return true;
}

bool read_switch_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                       std::optional<std::string>& value) {
  const std::optional<bool> on = json_boolean(json_member(&object, field.name));
  if (!on) {
    reply_error(reply, 400, "invalid_value", "'%s' must be true or false", field.name);
    return false;
  }
  value = *on ? "yes" : "no";
  return true;
}

bool read_optional_switch_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                                std::optional<std::string>& value) {
  const JsonValue* member = json_member(&object, field.name);
  if (json_kind(member) == JsonKind::Null) return true;
  const std::optional<bool> on = json_boolean(member);
  if (!on) {
    reply_error(reply, 400, "invalid_value", "'%s' must be true, false or null", field.name);
    return false;
  }
  value = *on ? "yes" : "no";
  return true;
}

bool read_body_fields(ApiReply& reply, const JsonValue& object, std::span<const BodyField> fields,
                      std::vector<KeyEdit>& edits) {
  edits.reserve(edits.size() + fields.size());  // a value that may be a secret is not moved about
  for (const BodyField& field : fields) {
    if (json_member(&object, field.name) == nullptr) continue;
    KeyEdit& edit = edits.emplace_back();
    edit.key = field.key;
    if (!field.read(reply, object, field, edit.value)) return false;
  }
  return true;
}

std::string field_names(std::span<const BodyField> fields) {
  std::string names;
  for (const BodyField& field : fields) {
    if (!names.empty()) names += ' ';
    names += field.name;
  }
  return names;
}

bool is_notify_choice(std::string_view text) {
  Notify notify = Notify::Inherit;
  return text == notify_name(Notify::Inherit) || parse_notify(text, notify);
}

}  // namespace orv
