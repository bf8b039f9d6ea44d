// The endpoints that show and change the [sched] and [mail] sections.
#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "api/body_fields.h"
#include "api/commit.h"
#include "api/endpoints.h"
#include "common/mail_address.h"
#include "config/config.h"

namespace orv {
namespace {

constexpr std::int64_t kMaxSchedNumber = 100'000'000;
constexpr std::int64_t kMaxMailTimeout = 3600;  // seconds

// clang-format off
constexpr BodyField kSchedFields[] = {
    {"poll_interval",       "poll-interval",       read_number_value, kMaxSchedNumber},
    {"busy_retry_seconds",  "busy-retry-seconds",  read_number_value, kMaxSchedNumber},
    {"job_timeout_seconds", "job-timeout-seconds", read_number_value, kMaxSchedNumber},
    {"job_log_keep",        "job-log-keep",        read_number_value, kMaxSchedNumber},
};
// clang-format on

// The loader takes no 0 for these: it is how a client says "not set".
bool read_number_but_zero(ApiReply& reply, const JsonValue& object, const BodyField& field,
                          std::optional<SecretString>& value) {
  if (!read_number_value(reply, object, field, value)) return false;
  if (value == "0") value.reset();
  return true;
}

// A reference would let a client have the daemon, which is root, read any file into the mail login.
bool read_password(ApiReply& reply, const JsonValue& object, const BodyField& field,
                   std::optional<SecretString>& value) {
  if (!read_text_value(reply, object, field, value)) return false;
  if (!value || (!value->starts_with("file:") && !value->starts_with("kms:"))) return true;
  reply_error(reply, 403, "forbidden",
              "smtp_password references (file:, kms:) can only be set on the server itself");
  return false;
}

// The addresses are checked one by one, so that none of them can hold a comma and become two.
bool read_recipients(ApiReply& reply, const JsonValue& object, const BodyField& field,
                     std::optional<SecretString>& value) {
  const JsonValue* list = json_member(&object, field.name);
  if (json_kind(list) == JsonKind::Null) return true;
  const std::size_t count = json_size(list);
  if (json_kind(list) != JsonKind::Array || count < 1 || count > kMaxRecipients) {
    reply_error(reply, 400, "invalid_value", "'to' must be an array of 1..%d addresses",
                static_cast<int>(kMaxRecipients));
    return false;
  }
  SecretString addresses;
  for (std::size_t i = 0; i < count; ++i) {
    const std::optional<std::string_view> address = json_string(json_element(list, i));
    if (!address || !check_mail_address(*address)) {
      reply_error(reply, 400, "invalid_value",
                  "'to' entries must be plain addresses like backup@example.com");
      return false;
    }
    if (!addresses.empty()) addresses += ',';
    addresses += *address;
  }
  value = std::move(addresses);
  return true;
}

// clang-format off
constexpr BodyField kMailFields[] = {
    {"smtp_host",       "smtp-host",       read_text_value,      kMaxSmtpText},
    {"smtp_port",       "smtp-port",       read_number_but_zero, 65535},
    {"tls",             "tls",             read_text_value,      kMaxStoredValue},
    {"smtp_user",       "smtp-user",       read_text_value,      kMaxSmtpText},
    {"smtp_password",   "smtp-password",   read_password,        kMaxStoredValue},
    {"from",            "from",            read_text_value,      kMaxMailAddress},
    {"to",              "to",              read_recipients},
    {"ca_file",         "ca-file",         read_text_value,      kMaxPath},
    {"timeout_seconds", "timeout-seconds", read_number_but_zero, kMaxMailTimeout},
    {"notify",          "notify",          read_choice_value, 0, is_notify_choice, kNotifyComplaint},
};
// clang-format on

// As the file has it, defaults filled in by the loader. The password is not shown to anybody, only
// whether and where it is kept.
void write_mail(JsonWriter& json, const MailSection& mail) {
  json.begin_object();
  json.text_member("smtp_host", mail.smtp_host.view());
  json.integer_member("smtp_port", mail.smtp_port);
  json.text_member("tls", tls_mode_name(mail.tls));
  json.text_member("smtp_user", mail.smtp_user.view());
  json.boolean_member("smtp_password_set", mail.smtp_password_set);
  const char* const source = mail.smtp_password_kind == SecretKind::File ? "file" : "literal";
  json.text_member("smtp_password_source", mail.smtp_password_set ? source : "");
  json.text_member("from", mail.from.view());
  json.key("to");
  json.begin_array();
  for (const auto& address : mail.to) json.string(address.view());
  json.end_array();
  json.text_member("ca_file", mail.ca_file.view());
  json.integer_member("timeout_seconds", mail.timeout_s);
  json.text_member("notify", notify_name(mail.notify));
  json.end_object();
}

bool has_value(const std::vector<KeyEdit>& edits, std::string_view key) {
  return std::ranges::any_of(
      edits, [key](const KeyEdit& edit) { return edit.key == key && edit.value.has_value(); });
}

void commit_settings(ApiCall& call, const SnapshotPtr& before, SecretString text,
                     std::string_view description) {
  const SnapshotPtr after = commit_change(call, before, std::move(text), description);
  if (after) reply_changed(call, after->etag);
}

void remove_mail(ApiCall& call) {
  const SnapshotPtr before = begin_change(call);
  if (!before) return;
  std::optional<SecretString> text = remove_section(before->text, "mail");
  if (!text) {
    (void)refuse(call, 404, "not_found", "there is no [mail] section");
    return;
  }
  commit_settings(call, before, std::move(*text), "removed [mail]");
}

void set_mail(ApiCall& call, const JsonValue& mail) {
  if (!only_known_fields(call.reply, mail, kMailFields)) return;
  const SnapshotPtr before = begin_change(call);
  if (!before) return;
  std::vector<KeyEdit> edits;
  if (!read_body_fields(call.reply, mail, kMailFields, edits)) return;
  // Whole or not at all: the loader would refuse a [mail] without them, in less helpful words.
  if (!has_value(edits, "smtp-host") || !has_value(edits, "from") || !has_value(edits, "to")) {
    (void)refuse(call, 400, "invalid_value", "'smtp_host', 'from' and 'to' are required");
    return;
  }
  std::optional<SecretString> text = set_keys(before->text, "mail", edits);
  if (!text) {  // sixteen long addresses in one line, say
    (void)refuse(call, 400, "invalid_value", "a value cannot be written to the configuration file");
    return;
  }
  commit_settings(call, before, std::move(*text), "updated [mail]");
}

}  // namespace

void get_sched_settings(ApiCall& call) {
  const SnapshotPtr snapshot = snapshot_of(call);
  if (!snapshot) return;
  const SchedSection& sched = snapshot->config->sched;
  JsonWriter& json = call.reply.json;
  json.begin_object();
  write_config_etag(call.reply, snapshot->etag);
  json.key("sched");
  json.begin_object();
  json.integer_member("poll_interval", sched.poll_interval_s, sched.poll_interval_s != 0);
  json.integer_member("busy_retry_seconds", sched.busy_retry_s, sched.busy_retry_s != 0);
  json.integer_member("job_timeout_seconds", sched.job_timeout_s, sched.job_timeout_s != 0);
  json.integer_member("job_log_keep", sched.job_log_keep, sched.job_log_keep != 0);
  json.text_member("job_log_dir", sched.job_log_dir.view());
  json.end_object();
  json.end_object();
  reply_finish(call.reply, 200);
}

void put_sched_settings(ApiCall& call) {
  const auto body = read_body_object(call.reply, call.request.http.body);
  if (!body || !only_known_fields(call.reply, *body, {}, "sched")) return;
  const JsonValue* sched = json_member(body.get(), "sched");
  if (json_kind(sched) != JsonKind::Object) {
    reply_error(call.reply, 400, "invalid_value", "body must be {\"sched\": {...}}");
    return;
  }
  // Also null is refused: the daemon writes there as root, and clients are not to choose where.
  if (json_member(sched, "job_log_dir") != nullptr) {
    reply_error(call.reply, 403, "read_only", "job_log_dir cannot be changed through the API");
    return;
  }
  if (!only_known_fields(call.reply, *sched, kSchedFields)) return;
  const SnapshotPtr before = begin_change(call);
  if (!before) return;
  std::vector<KeyEdit> edits;
  if (!read_body_fields(call.reply, *sched, kSchedFields, edits)) return;
  // An empty section would say nothing: none is added when there is nothing to put in it.
  const bool sets_any = std::ranges::any_of(edits, [](const KeyEdit& e) { return !!e.value; });
  std::optional<SecretString> text = sets_any || has_section(before->text, "sched")
                                         ? set_keys(before->text, "sched", edits)
                                         : before->text;
  if (!text) {
    (void)refuse(call, 400, "invalid_value", "cannot write the values");
    return;
  }
  commit_settings(call, before, std::move(*text), "updated [sched]");
}

void get_mail_settings(ApiCall& call) {
  const SnapshotPtr snapshot = snapshot_of(call);
  if (!snapshot) return;
  JsonWriter& json = call.reply.json;
  json.begin_object();
  write_config_etag(call.reply, snapshot->etag);
  json.key("mail");
  if (snapshot->config->mail.present) {
    write_mail(json, snapshot->config->mail);
  } else {
    json.null();
  }
  json.end_object();
  reply_finish(call.reply, 200);
}

void put_mail_settings(ApiCall& call) {
  const auto body = read_body_object(call.reply, call.request.http.body);
  if (!body || !only_known_fields(call.reply, *body, {}, "mail")) return;
  const JsonValue* mail = json_member(body.get(), "mail");
  if (mail != nullptr && mail->kind == JsonKind::Null) {
    remove_mail(call);
  } else if (mail != nullptr && mail->kind == JsonKind::Object) {
    set_mail(call, *mail);
  } else {
    reply_error(call.reply, 400, "invalid_value",
                "body must be {\"mail\": {...}} or {\"mail\": null}");
  }
}

}  // namespace orv
