#include "api/job_body.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "common/text.h"
#include "config/config.h"

namespace orv {
namespace {

constexpr std::size_t kMaxApiJobName = 64;        // bytes
constexpr std::size_t kMaxCommandName = 63;       // bytes
constexpr std::int64_t kMaxTimeout = 10'000'000;  // seconds

bool read_command(ApiReply& reply, const JsonValue& object, const BodyField& field,
                  std::optional<SecretString>& value) {
  if (!read_text_value(reply, object, field, value)) return false;
  JobCommand command = JobCommand::Agent;  // not used: only whether it is one
  if (!value || parse_command(*value, command)) return true;
  reply_error(reply, 400, "invalid_value", "unknown command '%s'", value->c_str());
  return false;
}

// A comma would make two names of one when the list is read back.
bool is_list_name(std::optional<std::string_view> name) {
  return name && check_stored_value(*name) && name->find(',') == std::string_view::npos;
}

bool read_after(ApiReply& reply, const JsonValue& object, const BodyField& field,
                std::optional<SecretString>& value) {
  const JsonValue* list = json_member(&object, field.name);
  if (json_kind(list) == JsonKind::Null) return true;
  if (json_kind(list) != JsonKind::Array || json_size(list) > kMaxAfter) {
    reply_error(reply, 400, "invalid_value", "'after' must be an array of at most %d job names",
                static_cast<int>(kMaxAfter));
    return false;
  }
  SecretString names;
  for (std::size_t i = 0; i < json_size(list); ++i) {
    const std::optional<std::string_view> name = json_string(json_element(list, i));
    if (!is_list_name(name)) {
      reply_error(reply, 400, "invalid_value", "'after' entries must be job names");
      return false;
    }
    if (!names.empty()) names += ',';
    names += *name;
  }
  if (!names.empty()) value = std::move(names);  // an empty list removes the setting
  return true;
}

bool is_after_mode(std::string_view text) { return text == "success" || text == "finished"; }

bool is_retention(std::string_view text) {
  Retention retention;
  return parse_retention(text, retention);
}

// clang-format off
constexpr BodyField kJobFields[] = {
    {"command",          "command",          read_command,               kMaxCommandName},
    {"profile",          "profile",          read_text_value,            kMaxProfile},
    {"args",             "args",             read_text_value,            kMaxArgsText},
    {"schedule",         "schedule",         read_text_value,            kMaxScheduleText},
    {"once",             "once",             read_text_value,            kMaxOnceText},
    {"after",            "after",            read_after},
    {"after_mode",       "after-mode",       read_choice_value, 0,       is_after_mode,
     "'after_mode' must be \"success\", \"finished\" or null"},
    {"enabled",          "enabled",          read_switch_value},
    {"timeout_seconds",  "timeout-seconds",  read_number_value,          kMaxTimeout},
    {"notify",           "notify",           read_choice_value, 0,       is_notify_choice,
     kNotifyComplaint},
    {"run_background",   "run-background",   read_optional_switch_value},
    {"start_background", "start-background", read_optional_switch_value},
    {"retention",        "retention",        read_text_value, kMaxStoredValue, is_retention,
     "'retention' must be <n>d, <n>w, <n>m, <n>y (n >= 1, at most 100 years), \"forever\" or null"},
    {"retention_class",  "retention-class",  read_text_value, kMaxStoredValue, check_retention_class,
     "'retention_class' may only contain a-z, 0-9, '_' and '-'"},
};
// clang-format on

bool is_alphanumeric(char c) {
  return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Sections that are no jobs.
bool is_reserved_section(std::string_view name) {
  return name == "sched" || name == "mail" || name == "api";
}

}  // namespace

std::span<const BodyField> job_body_fields() { return kJobFields; }

// Narrower than what the file takes: a name becomes a directory of logs, a section header and a
// segment of a path, and is shown on terminals.
bool is_api_job_name(std::string_view name) {
  if (name.empty() || name.size() > kMaxApiJobName || is_reserved_section(name)) return false;
  return is_alphanumeric(name.front()) && std::all_of(name.begin(), name.end(), [](char c) {
           return is_alphanumeric(c) || c == '.' || c == '_' || c == '-';
         });
}

}  // namespace orv
