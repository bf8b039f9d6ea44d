#include "api/job_change.h"

#include <algorithm>
#include <vector>

#include "api/config_text.h"
#include "api/job_body.h"
#include "config/config.h"

namespace orv {
namespace {

using Edits = std::vector<KeyEdit>;

Edits::iterator find_edit(Edits& edits, std::string_view key) {
  return std::ranges::find_if(edits, [key](const KeyEdit& edit) { return edit.key == key; });
}

// The command that the job will have.
JobCommand command_after(const Job* existing, Edits& edits) {
  JobCommand command = existing != nullptr ? existing->command : JobCommand::Agent;
  const auto edit = find_edit(edits, "command");
  if (edit == edits.end()) return command;
  command = JobCommand::Agent;                                  // what a job without the line runs
  if (edit->value) (void)parse_command(*edit->value, command);  // a known one: it was read so
  return command;
}

// Neither may the API touch a job that it may not start, nor make one of it.
bool check_commands(ApiCall& call, const Job* existing, Edits& edits) {
  const std::uint32_t allowed = call.live.config->api.allowed_commands;
  if (existing != nullptr && !command_allowed(allowed, existing->command)) {
    reply_error(call.reply, 403, "command_not_allowed",
                "job '%s' has command '%s', which the API may not change ([api] allowed-commands)",
                existing->name.c_str(), command_name(existing->command));
    return false;
  }
  const JobCommand command = command_after(existing, edits);
  if (command_allowed(allowed, command)) return true;
  reply_error(call.reply, 403, "command_not_allowed",
              "command '%s' may not be used through the API ([api] allowed-commands)",
              command_name(command));
  return false;
}

// Clients send back whole jobs: when arguments may not be changed, sending the same text is
// allowed, and its line is left as it is written.
bool check_args(ApiCall& call, const Job* existing, Edits& edits) {
  if (call.live.config->api.allow_args) return true;
  const auto edit = find_edit(edits, "args");
  if (edit == edits.end()) return true;
  const std::string_view present =
      existing != nullptr ? existing->args_text.view() : std::string_view{};
  const std::string_view wanted = edit->value ? std::string_view(*edit->value) : "";
  if (wanted != present) {
    return refuse(call, 403, "args_not_allowed",
                  "'args' may not be set or changed through the API ([api] allow-args=no)");
  }
  edits.erase(edit);
  return true;
}

}  // namespace

bool check_job_name(ApiCall& call, std::string_view name) {
  return is_api_job_name(name) ||
         refuse(call, 400, "invalid_name",
                "job names created through the API must match [A-Za-z0-9][A-Za-z0-9._-]{0,63} and "
                "must not be sched, mail or api");
}

std::optional<SecretString> changed_job_text(ApiCall& call, const ConfigSnapshot& snapshot,
                                             std::string_view name, const Job* existing,
                                             const JsonValue& body) {
  Edits edits;
  if (!read_body_fields(call.reply, body, job_body_fields(), edits)) return std::nullopt;
  if (!check_commands(call, existing, edits) || !check_args(call, existing, edits)) {
    return std::nullopt;
  }
  std::optional<SecretString> text = set_keys(snapshot.text, name, edits);
  if (!text) {
    (void)refuse(call, 400, "invalid_value", "a value cannot be written to the configuration file");
  }
  return text;
}

}  // namespace orv
