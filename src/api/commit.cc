#include "api/commit.h"

#include <array>
#include <string>
#include <utility>

#include "api/config_history.h"
#include "api/config_replace.h"
#include "api/leftovers.h"
#include "api/line_diff.h"
#include "common/files.h"
#include "common/log.h"
#include "net/supervisor.h"

namespace orv {
namespace {

constexpr std::size_t kMaxChangeMail = 49152;  // bytes of the body

void reply_changed_meanwhile(ApiCall& call) {
  reply_error(call.reply, 412, "precondition_failed",
              "the configuration was changed in the meantime: reload it and retry");
}

// Replaces the file, or proves the text only; null after an error reply.
std::shared_ptr<const Config> replace_or_reply(ApiCall& call, const ConfigSnapshot& before,
                                               std::string_view text, bool validate_only) {
  const LiveState& live = call.live;
  if (text.size() > kMaxConfigFile) {  // it would load, but the API could not read it again
    reply_error(call.reply, 400, "config_invalid", "%s would be larger than %zu bytes",
                live.config_path.c_str(), kMaxConfigFile);
    return nullptr;
  }
  std::shared_ptr<const Config> proved;
  char err[kConfigMessageSize];
  // The policy of the loaded configuration holds, not that of the text: a change cannot lift it for
  // itself.
  switch (replace_config({.path = live.config_path,
                          .before = before.text,
                          .text = text,
                          .history_keep = live.config->api.history_keep,
                          .validate_only = validate_only,
                          .now = call.request.now},
                         proved, err)) {
    case ReplaceResult::Ok: return proved;
    case ReplaceResult::InvalidConfig:
      reply_error(call.reply, 400, "config_invalid", "%s", err);
      return nullptr;
    case ReplaceResult::ChangedMeanwhile: reply_changed_meanwhile(call); return nullptr;
    case ReplaceResult::IoFailure: break;
  }
  log_msg(LogLevel::Error, "orv_sched API: %s", err);
  reply_error(call.reply, 500, "internal", "%s", err);
  return nullptr;
}

// Through the supervisor that has the settings loaded now: a change of [mail] is announced over the
// mail settings from before it, and failures are logged there.
void send_change_mail(ApiCall& call, std::string_view description, std::string_view diff) {
  LiveState& live = call.live;
  std::array<char, kMaxHostName + 1> buffer;
  const std::string host(host_name(buffer));
  std::string subject = "[tarnwell] " + host + ": orv_sched configuration changed via API (";
  subject.append(description).append(")");
  std::string body = "The orv_sched configuration on " + host + " was changed through the API.\n";
  body.append("\nChange:  ").append(description);
  body.append("\nToken:   ").append(call.request.token_name);
  body.append("\nClient:  ").append(call.request.http.client.view());
  body.append("\nFile:    ").append(live.config_path);
  body.append("\nHistory: ").append(history_directory(live.config_path));
  body.append("\n\n--- changed lines ---\n").append(diff);
  if (body.size() > kMaxChangeMail) body.resize(kMaxChangeMail);
  (void)net_queue_mail(live.net, subject, body);  // the change stands even if it cannot be sent
}

}  // namespace

bool check_if_match(ApiCall& call, const ConfigSnapshot& snapshot) {
  const ApiRequest& http = call.request.http;
  // Both are compared byte for byte, so that "*" and weak tags match nothing.
  if (http.if_match.empty()) {
    return refuse(call, 428, "precondition_required",
                  "If-Match with the current config_etag is required for changes");
  }
  if (http.if_match.view() == snapshot.etag.view()) return true;
  reply_changed_meanwhile(call);
  return false;
}

SnapshotPtr begin_change(ApiCall& call) {
  SnapshotPtr snapshot = snapshot_of(call);
  return snapshot && check_if_match(call, *snapshot) ? snapshot : nullptr;
}

bool validate_change(ApiCall& call, const ConfigSnapshot& before, std::string_view text) {
  return replace_or_reply(call, before, text, true) != nullptr;
}

SnapshotPtr commit_change(ApiCall& call, const SnapshotPtr& before, SecretString text,
                          std::string_view description) {
  if (text == before->text) return before;  // no copy, no mail, no reload
  remove_config_leftovers(call.live.config_path);
  auto after = std::make_shared<ConfigSnapshot>();  // first: nothing may fail after the rename
  after->etag = entity_tag(text);
  after->config = replace_or_reply(call, *before, text, false);
  if (!after->config) return nullptr;
  after->text = std::move(text);
  LiveState& live = call.live;
  live.config_changed = true;
  live.snapshot = after;  // the daemon's reload finds it parsed
  // The file is replaced: from here on the change stands, whatever else fails.
  log_msg(LogLevel::Info, "orv_sched API: token '%.*s' from %s changed %s: %.*s",
          static_cast<int>(call.request.token_name.size()), call.request.token_name.data(),
          call.request.http.client.c_str(), live.config_path.c_str(),
          static_cast<int>(description.size()), description.data());
  const Config& policy = *live.config;
  if (policy.api.notify_changes && policy.mail.present && !policy.mail.to.empty()) {
    send_change_mail(call, description, line_diff(before->text, after->text));
  }
  return after;
}

void reply_changed(ApiCall& call, const EntityTag& etag) {
  call.reply.json.begin_object();
  write_config_etag(call.reply, etag);
  call.reply.json.end_object();
  reply_finish(call.reply, 200);
}

}  // namespace orv
