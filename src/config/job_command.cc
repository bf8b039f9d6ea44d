#include "config/job_command.h"

#include <new>

#include "common/message.h"
#include "common/text.h"

namespace orv {
namespace {

// clang-format off
constexpr JobCommandRow kJobCommands[] = {
    // name                  command                          tool                   subcommand        background retention
    {"agent",                JobCommand::Agent,               "orv_agent",           nullptr,          true,  true},
    {"proxmox",              JobCommand::Proxmox,             "orv_proxmox",         nullptr,          true,  true},
    {"xenv",                 JobCommand::Xenv,                "orv_xenV",            nullptr,          true,  true},
    {"restore",              JobCommand::Restore,             "orv_restore",         nullptr,          false, false},
    {"proxmox-restore",      JobCommand::ProxmoxRestore,      "orv_proxmox_restore", nullptr,          false, false},
    {"xenv-restore",         JobCommand::XenvRestore,         "orv_xenV_restore",    nullptr,          false, false},
    {"verify",               JobCommand::Verify,              "orv_verifier",        nullptr,          false, false},
    {"maint-synthetic-full", JobCommand::MaintSyntheticFull,  "orv_maintenance",     "synthetic-full", false, false},
    {"maint-recompress",     JobCommand::MaintRecompress,     "orv_maintenance",     "recompress",     false, false},
    {"maint-scrub",          JobCommand::MaintScrub,          "orv_maintenance",     "scrub",          false, false},
    {"maint-prune",          JobCommand::MaintPrune,          "orv_maintenance",     "prune",          false, false},
};
// clang-format on

// Rows are found by their value, so their order is part of the table.
consteval bool rows_stand_at_their_values() {
  std::uint32_t row = 0;
  for (const JobCommandRow& command : kJobCommands) {
    if (static_cast<std::uint32_t>(command.command) != row++) return false;
  }
  return row <= 32;  // each has a bit in the mask of allowed commands
}
static_assert(rows_stand_at_their_values());

// Takes the quoted token that `text` starts with, its opening quote already gone, and leaves `text`
// after the closing quote. False when there is none.
bool take_quoted_token(std::string_view& text, std::string& token) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '"') {
      text.remove_prefix(i + 1);
      return true;
    }
    const bool escape =
        text[i] == '\\' && i + 1 < text.size() && (text[i + 1] == '"' || text[i + 1] == '\\');
    token.push_back(text[escape ? ++i : i]);
  }
  return false;
}

void take_plain_token(std::string_view& text, std::string& token) {
  std::size_t length = 0;
  while (length < text.size() && !is_space(text[length])) ++length;
  token.assign(text.substr(0, length));
  text.remove_prefix(length);
}

int split_tokens(std::string_view text, std::vector<std::string>& tokens, std::size_t max_tokens,
                 std::span<char> err) {
  for (;;) {
    while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
    if (text.empty()) return 0;
    // Before the token is read: of two faults the one that stands first is reported.
    if (tokens.size() == max_tokens) return fail(err, "too many tokens in 'args'");
    std::string& token = tokens.emplace_back();
    if (text.front() == '"') {
      text.remove_prefix(1);
      if (!take_quoted_token(text, token)) return fail(err, "unterminated quote in 'args'");
    } else {
      take_plain_token(text, token);
    }
    if (token.size() > kMaxArgToken) return fail(err, "token too long in 'args'");
  }
}

}  // namespace

std::span<const JobCommandRow> job_commands() { return kJobCommands; }

const JobCommandRow* find_command_row(JobCommand command) {
  const auto row = static_cast<std::size_t>(command);
  return row < std::size(kJobCommands) ? &kJobCommands[row] : nullptr;
}

const char* command_name(JobCommand command) {
  const JobCommandRow* row = find_command_row(command);
  return row != nullptr ? row->name : "?";
}

bool parse_command(std::string_view text, JobCommand& out) {
  for (const JobCommandRow& row : kJobCommands) {
    if (text != row.name) continue;
    out = row.command;
    return true;
  }
  return false;
}

bool takes_background(JobCommand command) {
  const JobCommandRow* row = find_command_row(command);
  return row != nullptr && row->takes_background;
}

bool takes_retention(JobCommand command) {
  const JobCommandRow* row = find_command_row(command);
  return row != nullptr && row->takes_retention;
}

bool command_allowed(std::uint32_t mask, JobCommand command) {
  if (find_command_row(command) == nullptr) return false;
  return ((mask >> static_cast<std::uint32_t>(command)) & 1U) != 0;
}

int tokenize_args(std::string_view text, std::vector<std::string>& tokens, std::size_t max_tokens,
                  std::span<char> err) {
  try {
    std::vector<std::string> found;
    if (const int rc = split_tokens(text, found, max_tokens, err); rc != 0) return rc;
    tokens.swap(found);
    return static_cast<int>(tokens.size());
  } catch (const std::bad_alloc&) {
    return fail(err, "out of memory");
  }
}

}  // namespace orv
