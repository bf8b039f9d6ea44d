#include "client/arguments.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "client/server_list.h"
#include "common/suggestion.h"
#include "common/utf8.h"
#include "common/version.h"

namespace orv {
namespace {

// A word as a message may repeat it: what follows "=" may be a secret that somebody meant to hide.
std::string option_name(std::string_view word) {
  return std::string(word.substr(0, word.find('=')));
}

std::vector<std::string_view> option_names(std::span<const OptionTable> tables) {
  std::vector<std::string_view> names;
  for (const OptionTable& table : tables) {
    for (const OptionRow& row : table) names.push_back(row.name);
  }
  return names;
}

std::string unknown(const char* what, std::string_view word,
                    std::span<const std::string_view> known) {
  return std::string("unknown ") + what + " '" + std::string(word) + "'" +
         did_you_mean(word, known);
}

// The words while they are read.
class Reader {
 public:
  Reader(const ArgList& args, Arguments& out) : args_(args), out_(out) {}

  std::string read() {
    for (next_ = 1; next_ < args_.size(); ++next_) {
      const std::string_view word = args_[next_];
      if (!only_words_ && word == "--") {
        only_words_ = true;
        continue;
      }
      // "-" alone is a word: it stands for standard input.
      const bool option = !only_words_ && word.size() > 1 && word.starts_with('-');
      std::string error = option ? take_option(word) : take_word(word);
      if (!error.empty()) return error;
    }
    return out_.command != nullptr ? check_words() : "a command is needed";
  }

 private:
  std::string take_option(std::string_view word) {
    // What a command adds is known only after its name.
    const std::array<OptionTable, 2> tables = {
        common_api_options(), out_.command != nullptr ? out_.command->options : OptionTable()};
    const OptionRow* row = find_option(tables, word);
    const std::string name = option_name(word);
    if (row == nullptr) return unknown("option", name, option_names(tables));
    std::string value;
    if (row->takes_value && word.find('=') != std::string_view::npos) {
      value = word.substr(name.size() + 1);
    } else if (row->takes_value) {
      if (++next_ == args_.size()) return "'" + name + "' needs a value";
      value = args_[next_];
    }
    // Two values would leave open which one counts.
    const bool first = out_.options.emplace(row->name, std::move(value)).second;
    return first ? "" : "'" + name + "' is given twice";
  }

  std::string take_word(std::string_view word) {
    if (out_.command == nullptr) return take_command(word);
    // Fields follow the words that a command needs.
    const ApiCommand& command = *out_.command;
    if (out_.words.empty() && !command.actions.empty()) {
      const auto& known = command.actions;
      if (std::find(known.begin(), known.end(), word) == known.end()) {
        return unknown("action", word, known);
      }
    }
    if (out_.words.size() < command.max_words) {
      out_.words.emplace_back(word);
    } else if (command.takes_fields) {
      fields_.emplace_back(word);
    } else {
      return "unexpected argument '" + std::string(word) + "'";
    }
    return "";
  }

  std::string take_command(std::string_view word) {
    std::vector<std::string_view> names;
    for (const ApiCommand& command : api_commands()) {
      if (command.name == word) out_.command = &command;
      names.push_back(command.name);
    }
    return out_.command != nullptr ? "" : unknown("command", word, names);
  }

  std::string check_words() {
    const ApiCommand& command = *out_.command;
    if (out_.words.size() < command.min_words) {
      return "'" + std::string(command.name) + "' needs " + std::string(command.words);
    }
    const std::string action = command.actions.empty() ? "" : out_.words[0];
    // Fields that would be ignored are a mistake that somebody should hear of.
    const bool reads = action == "get" || action == "delete" || action == "remove";
    if (reads && (!fields_.empty() || out_.has("--file"))) {
      return "'" + std::string(command.name) + " " + action + "' takes no fields";
    }
    return "";
  }

  ArgList args_;
  Arguments& out_;
  std::size_t next_ = 1;
  bool only_words_ = false;

 public:
  std::vector<std::string> fields_;
};

bool read_seconds(const std::string& text, std::chrono::milliseconds& out) {
  double seconds = 0;
  const char* const end = text.data() + text.size();
  // Not strtod(): it takes "nan", hexadecimal digits and the locale's point.
  const auto read = std::from_chars(text.data(), end, seconds, std::chars_format::fixed);
  if (read.ec != std::errc() || read.ptr != end || !(seconds > 0 && seconds < 1e6)) return false;
  out = std::chrono::milliseconds(std::max<std::int64_t>(1, std::llround(seconds * 1000)));
  return true;
}

std::string check_values(Arguments& given, const std::vector<std::string>& fields) {
  if (given.has("--timeout") && !read_seconds(given.value("--timeout"), given.timeout)) {
    return "'--timeout' must be a number of seconds above 0";
  }
  // A switch of 'run', a number of 'mail-test'.
  const bool timed = given.command->name == "mail-test" && given.has("--wait");
  if (timed && !read_seconds(given.value("--wait"), given.mail_wait)) {
    return "'--wait' must be a number of seconds above 0";
  }
  std::array<char, kClientMessageSize> err{};
  if (read_members(fields, given.value("--file"), given.members, err) != 0) return err.data();
  return "";
}

bool is_utf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = utf8_sequence(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

}  // namespace

UsageError parse_arguments(const ArgList& args, Arguments& out) {
  // Checked before all else: every word may end up in JSON or in a message.
  for (const char* word : args) {
    if (!is_utf8(word)) return {"the arguments are not UTF-8", false};
  }
  Reader reader(args, out);
  if (std::string error = reader.read(); !error.empty()) return {std::move(error)};
  return {check_values(out, reader.fields_), false};
}

}  // namespace orv
