// The endpoints that change the [sched] and [mail] sections.
#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "api/body_fields.h"
#include "api/commit.h"
#include "api/endpoints.h"
#include "api/snapshot.h"
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
                          std::optional<std::string>& value) {
  if (!read_number_value(reply, object, field, value)) return false;
  if (value == "0") value.reset();
  return true;
}

// A reference would let a client have the daemon, which is root, read any file into the mail login.
bool read_password(ApiReply& reply, const JsonValue& object, const BodyField& field,
                   std::optional<std::string>& value) {
  if (!read_text_value(reply, object, field, value)) return false;
  if (!value || (!value->starts_with("file:") && !value->starts_with("kms:"))) return true;
  reply_error(reply, 403, "forbidden",
              "smtp_password references (file:, kms:) can only be set on the server itself");
  return false;
}

bool read_recipients(ApiReply& reply, const JsonValue& object, const BodyField& field,
                     std::optional<std::string>& value) {
  const JsonValue* list = json_member(&object, field.name);
  if (json_kind(list) == JsonKind::Null) return true;
  const std::size_t count = json_size(list);
  if (json_kind(list) != JsonKind::Array || count < 1 || count > kMaxRecipients) {
    reply_error(reply, 400, "invalid_value", "'to' must be an array of 1..%d addresses",
                static_cast<int>(kMaxRecipients));
    return false;
  }
  std::string addresses;
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

// The settings read from a body; one of them may be the password.
struct EditList {
  EditList() = default;
  EditList(const EditList&) = delete;
  EditList& operator=(const EditList&) = delete;
  ~EditList() {
    for (KeyEdit& edit : edits) {
      if (edit.value) wipe_text(*edit.value);
    }
  }
  std::vector<KeyEdit> edits;
};

bool has_value(const std::vector<KeyEdit>& edits, std::string_view key) {
  return std::any_of(edits.begin(), edits.end(), [key](const KeyEdit& edit) {
    return edit.key == key && edit.value.has_value();
  });
}

// Takes the snapshot that the change starts from and checks the client's tag against it.
bool begin_change(ApiCall& call, ConfigSnapshot& snapshot) {
  return take_snapshot_or_reply(call.live.config_path, call.reply, snapshot) &&
         check_if_match(call, snapshot);
}

void commit_settings(ApiCall& call, const ConfigSnapshot& snapshot, std::optional<std::string> text,
                     std::string_view description) {
  if (!text) {
    reply_error(call.reply, 400, "invalid_value", "cannot write the values");
    return;
  }
  DraftText draft;
  draft.text = std::move(*text);
  EntityTag etag;
  if (commit_change(call, snapshot, draft, description, etag)) reply_changed(call, etag);
}

void remove_mail(ApiCall& call) {
  ConfigSnapshot snapshot;
  if (!begin_change(call, snapshot)) return;
  std::optional<std::string> text = remove_section(snapshot.text.view(), "mail");
  if (!text) {
    reply_error(call.reply, 404, "not_found", "there is no [mail] section");
    return;
  }
  commit_settings(call, snapshot, std::move(text), "removed [mail]");
}

void set_mail(ApiCall& call, const JsonValue& mail) {
  if (!only_known_fields(call.reply, mail, field_names(kMailFields))) return;
  ConfigSnapshot snapshot;
  if (!begin_change(call, snapshot)) return;
  EditList list;
  if (!read_body_fields(call.reply, mail, kMailFields, list.edits)) return;
  if (!has_value(list.edits, "smtp-host") || !has_value(list.edits, "from") ||
      !has_value(list.edits, "to")) {
    reply_error(call.reply, 400, "invalid_value", "'smtp_host', 'from' and 'to' are required");
    return;
  }
  std::optional<std::string> text = set_keys(snapshot.text.view(), "mail", list.edits);
  if (!text) {
    reply_error(call.reply, 400, "invalid_value",
                "a value cannot be written to the configuration file");
    return;
  }
  commit_settings(call, snapshot, std::move(text), "updated [mail]");
}

}  // namespace

void put_sched_settings(ApiCall& call) {
  const auto body = read_body_object(call.reply, call.request.http.body);
  if (!body || !only_known_fields(call.reply, *body, "sched")) return;
  const JsonValue* sched = json_member(body.get(), "sched");
  if (json_kind(sched) != JsonKind::Object) {
    reply_error(call.reply, 400, "invalid_value", "body must be {\"sched\": {...}}");
    return;
  }
  if (json_member(sched, "job_log_dir") != nullptr) {
    reply_error(call.reply, 403, "read_only", "job_log_dir cannot be changed through the API");
    return;
  }
  if (!only_known_fields(call.reply, *sched, field_names(kSchedFields))) return;
  ConfigSnapshot snapshot;
  if (!begin_change(call, snapshot)) return;
  std::vector<KeyEdit> edits;
  if (!read_body_fields(call.reply, *sched, kSchedFields, edits)) return;
  commit_settings(call, snapshot, set_keys(snapshot.text.view(), "sched", edits),
                  "updated [sched]");
}

void put_mail_settings(ApiCall& call) {
  const auto body = read_body_object(call.reply, call.request.http.body);
  if (!body || !only_known_fields(call.reply, *body, "mail")) return;
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
