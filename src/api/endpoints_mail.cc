// The endpoints that send a test mail and tell what became of it.
#include <array>
#include <string>

#include "api/endpoints.h"
#include "common/files.h"
#include "common/text.h"
#include "net/supervisor.h"

namespace orv {
namespace {

const char* mail_state_name(TestMailState state) {
  switch (state) {
    case TestMailState::Pending: return "pending";
    case TestMailState::Sent: return "sent";
    case TestMailState::Failed: return "failed";
  }
  return "?";
}

}  // namespace

void send_test_mail(ApiCall& call) {
  LiveState& live = call.live;
  // The loaded settings are tested, not the file's: the network process has those.
  if (!live.config->mail.present) {
    reply_error(call.reply, 409, "mail_not_configured",
                "there is no [mail] section (in the configuration the daemon has loaded)");
    return;
  }
  // Between two lives of the network process a mail would only wait, and the client with it.
  if (net_wait_fd(live.net) < 0) {
    reply_error(call.reply, 503, "unavailable", "mail cannot be sent right now");
    return;
  }
  std::array<char, kMaxHostName + 1> buffer;
  const std::string host(host_name(buffer));
  const std::string subject = "[tarnwell] " + host + ": test mail";
  std::string body = "This is a test mail from orv_sched on " + host;
  body.append(", requested through the API by token '").append(call.request.token_name);
  body.append("' from ").append(call.request.http.client.view()).append(".\n");
  const std::uint32_t id = net_queue_mail(live.net, subject, body);
  if (id == 0) {
    reply_error(call.reply, 503, "unavailable",
                "the mail could not be handed to the network process");
    return;
  }
  test_mail_add(live.test_mails, id);  // its outcome comes later, through the supervisor
  call.reply.json.begin_object();
  call.reply.json.integer_member("mail_id", id);
  call.reply.json.end_object();
  reply_finish(call.reply, 202);
}

void get_mail_result(ApiCall& call) {
  std::uint64_t id = 0;
  if (!parse_u64(call.name(), id) || id == 0) {
    reply_error(call.reply, 404, "not_found", "no such mail");
    return;
  }
  // Ids are 32 bits wide; a longer number must not be taken for the one that it ends in.
  const TestMail* mail = id <= UINT32_MAX
                             ? test_mail_find(call.live.test_mails, static_cast<std::uint32_t>(id))
                             : nullptr;
  if (mail == nullptr) {
    reply_error(call.reply, 404, "not_found",
                "no such mail (only the last %zu test mails are remembered)", kTestMailsKept);
    return;
  }
  JsonWriter& json = call.reply.json;
  json.begin_object();
  json.integer_member("mail_id", mail->id);
  json.text_member("state", mail_state_name(mail->state));
  json.text_member("error", mail->error.view());
  json.end_object();
  reply_finish(call.reply, 200);
}

}  // namespace orv
