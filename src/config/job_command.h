// The commands a job can run, each carried out by one of the suite's tools, and the tokenizer of a
// job's extra arguments.
#ifndef ORV_CONFIG_JOB_COMMAND_H_
#define ORV_CONFIG_JOB_COMMAND_H_

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace orv {

// The values are row numbers of the table and bit numbers of [api] allowed-commands.
enum class JobCommand : std::uint32_t {
  Agent = 0,
  Proxmox = 1,
  Xenv = 2,
  Restore = 3,
  ProxmoxRestore = 4,
  XenvRestore = 5,
  Verify = 6,
  MaintSyntheticFull = 7,
  MaintRecompress = 8,
  MaintScrub = 9,
  MaintPrune = 10,
};

struct JobCommandRow {
  const char* name;  // as the configuration file writes it
  JobCommand command;
  const char* tool;        // program, searched in the PATH
  const char* subcommand;  // first argument, null when there is none
  bool takes_background;   // --background, and with it a profile
  bool takes_retention;
};

// All rows in the order of their values.
[[nodiscard]] std::span<const JobCommandRow> job_commands();
// The row of a command; null for a value outside the table.
[[nodiscard]] const JobCommandRow* find_command_row(JobCommand command);

// agent, proxmox, xenv, verify and the maintenance commands but prune.
inline constexpr std::uint32_t kDefaultAllowedCommands = 967;

[[nodiscard]] const char* command_name(JobCommand command);  // "?" outside the table
// Exact, case-sensitive. False for an unknown name, `out` then as it was.
[[nodiscard]] bool parse_command(std::string_view text, JobCommand& out);
[[nodiscard]] bool takes_background(JobCommand command);  // false outside the table
[[nodiscard]] bool takes_retention(JobCommand command);   // false outside the table
// Whether `mask` has the command's bit; false outside the table.
[[nodiscard]] bool command_allowed(std::uint32_t mask, JobCommand command);

inline constexpr std::size_t kMaxArgTokens = 64;
inline constexpr std::size_t kMaxArgToken = 1023;  // bytes

// Splits `text` at white space. A token that starts with a double quote runs to the next
// unescaped one, and ends right there. Returns the number of tokens put into `tokens`; -1 with
// a message when there are more than `max_tokens`, one is too long, or a quote is not closed.
[[nodiscard]] int tokenize_args(std::string_view text, std::vector<std::string>& tokens,
                                std::size_t max_tokens, std::span<char> err);

}  // namespace orv

#endif  // ORV_CONFIG_JOB_COMMAND_H_
