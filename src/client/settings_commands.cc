// Commands about the settings of the scheduler and of its mail.
#include <algorithm>
#include <array>
#include <chrono>
#include <string>

#include "client/commands.h"
#include "client/output.h"

namespace orv {
namespace {

// What PUT settings/mail requires every time: a change of one setting sends the others as they are.
constexpr std::array<std::string_view, 3> kRequiredOfMail = {"smtp_host", "from", "to"};

constexpr std::chrono::milliseconds kMailPause{500};

// {"<section>": {...}} with the members given, and the required ones as they are.
SecretString settings_body(const std::string& section, const BodyMembers& given,
                           const JsonValue* present) {
  BodyMembers members = given;
  const JsonValue* const settings = json_member(present, section);
  for (const std::string_view name : kRequiredOfMail) {
    const JsonValue* const value = json_member(settings, name);
    if (section != "mail" || value == nullptr || find_member(members, name) != nullptr) continue;
    set_member(members, name, json_text(value, Layout::OneLine));
  }
  SecretString body = "{";
  body += json_quoted(section);
  body += ':';
  body += object_text(members);
  body += '}';
  return body;
}

CommandResult show_settings(Session& session, std::string section) {
  const JsonReply reply = co_await session.get("settings/" + section);
  if (reply == nullptr) co_return session.failed();
  session.show(reply.get(), [&] {
    const JsonValue* const settings = json_member(reply.get(), section);
    if (json_kind(settings) == JsonKind::Object) return pairs_text(settings);
    return "there is no [" + section + "] section\n";
  });
  co_return kExitDone;
}

}  // namespace

CommandResult settings_command(Session& session, const Arguments& given) {
  const std::string section(given.command->name);
  const std::string& action = given.word(0);
  if (action == "get") co_return co_await show_settings(session, section);
  const Session::MakeBody body = [&](const JsonValue* present) {
    // Only [mail] may be removed as a whole.
    if (action == "remove") return SecretString("{\"mail\":null}");
    return settings_body(section, given.members, present);
  };
  const JsonReply reply = co_await session.change(
      "PUT", "settings/" + section, given.value("--if-match"), "settings/" + section, body);
  if (reply == nullptr) co_return session.failed();
  session.show(reply.get(), [&] { return "the [" + section + "] settings are changed\n"; });
  co_return kExitDone;
}

CommandResult mail_test_command(Session& session, const Arguments& given) {
  const JsonReply sent = co_await session.request("POST", "mail/test");
  if (sent == nullptr) co_return session.failed();
  const std::string id = readable({}, json_member(sent.get(), "mail_id"));
  const auto end = std::chrono::steady_clock::now() + given.mail_wait;
  for (;;) {
    const JsonReply reply = co_await session.get("mail/results/" + path_segment(id));
    if (reply == nullptr) co_return session.failed();
    const std::string state = readable({}, json_member(reply.get(), "state"));
    // Asked at least once, however short the time to wait is.
    if (state != "pending" || std::chrono::steady_clock::now() >= end) {
      session.show(reply.get(), [&] {
        const JsonValue* const error = json_member(reply.get(), "error");
        std::string line("test mail ");
        line.append(id).append(": ").append(state);
        if (json_kind(error) == JsonKind::String) line.append(": ").append(readable({}, error));
        return printable(line) + "\n";
      });
      co_return state == "sent" ? kExitDone : kExitRefused;
    }
    session.wait_for("waiting for the mail server");
    co_await session.pause(kMailPause);
  }
}

}  // namespace orv
