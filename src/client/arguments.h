// The command line of orv_api. Options may stand before the command or after it and are never
// abbreviated; each at most once. A lone "--" ends them.
#ifndef ORV_CLIENT_ARGUMENTS_H_
#define ORV_CLIENT_ARGUMENTS_H_

#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <cstddef>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client/fields.h"
#include "common/options.h"

namespace orv {

class Session;
struct Arguments;

// What a command does at one server; the program's exit status.
using CommandFunction = boost::asio::awaitable<int> (*)(Session& session, const Arguments& given);

struct ApiCommand {
  std::string_view name;
  std::string_view words;                     // that follow it, as the usage text shows them
  std::span<const std::string_view> actions;  // the first word is one of these; empty: of no kind
  std::size_t min_words, max_words;           // after the command, fields left out
  bool takes_fields;
  OptionTable options;  // besides the common ones
  CommandFunction run;  // null: the command is not about one server
  std::string_view help;
};

// The commands, in the order in which the usage text names them.
[[nodiscard]] std::span<const ApiCommand> api_commands();
// The options that every command takes.
[[nodiscard]] OptionTable common_api_options();

struct Arguments {
  const ApiCommand* command = nullptr;
  std::vector<std::string> words;              // after the command; fields left out
  std::map<std::string, std::string> options;  // by name, "" for one without a value
  BodyMembers members;                         // from field=value words and --file
  std::chrono::milliseconds timeout{30'000};
  std::chrono::milliseconds mail_wait{90'000};

  [[nodiscard]] bool has(const std::string& option) const { return options.contains(option); }
  // Empty when it was not given.
  [[nodiscard]] std::string value(const std::string& option) const {
    const auto found = options.find(option);
    return found != options.end() ? found->second : std::string();
  }
  [[nodiscard]] const std::string& word(std::size_t index) const { return words[index]; }
};

// What is wrong with a command line.
struct UsageError {
  std::string message;     // one line; empty: nothing is
  bool show_usage = true;  // the words are wrong, not only a value
};

// Reads the words of main(). Nothing secret of them is repeated in a message.
[[nodiscard]] UsageError parse_arguments(const ArgList& args, Arguments& out);

// The usage text, many lines.
[[nodiscard]] std::string usage_text();

}  // namespace orv

#endif  // ORV_CLIENT_ARGUMENTS_H_
