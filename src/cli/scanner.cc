#include "cli/scanner.h"

#include <array>
#include <string_view>

#include "common/log.h"

namespace orv {
namespace {

constexpr std::array<OptionRow, 3> kGeneralOptions = {{
    {"--help", "-h", false},
    {"--version", "", false},
    {"--selftest", "", false},
}};

bool matches(const OptionRow& row, std::string_view word) {
  if (word == row.name || (!row.alias.empty() && word == row.alias)) return true;
  return row.takes_value && word.size() > row.name.size() && word.starts_with(row.name) &&
         word[row.name.size()] == '=';
}

const OptionRow* find_in(const OptionTable& table, std::string_view word) {
  for (const OptionRow& row : table) {
    if (matches(row, word)) return &row;
  }
  return nullptr;
}

const OptionRow* find_option(const CommandRow& command, std::string_view word) {
  if (const OptionRow* row = find_in(command.options, word)) return row;
  if (const OptionRow* row = find_in(kGeneralOptions, word)) return row;
  return runlog_active() ? find_in(kRunlogOptions, word) : nullptr;
}

struct Scan {
  const ArgList& args;
  const ScanWarning& warn;
  std::size_t ignored = 0;

  void ignore(const std::string& warning) {
    warn(warning);
    ++ignored;
  }
};

// An option that no table has. Returns how many further words it takes along.
std::size_t ignore_unknown(Scan& scan, std::size_t at) {
  const std::string word = scan.args[at];
  if (const std::size_t equals = word.find('='); equals != std::string::npos) {
    scan.ignore("unknown option '" + word.substr(0, equals) + "=...' ignored");
    return 0;
  }
  if (at + 1 < scan.args.size() && scan.args[at + 1][0] != '-') {
    scan.ignore("unknown option '" + word + "' ignored (with the value after it)");
    return 1;
  }
  scan.ignore("unknown option '" + word + "' ignored");
  return 0;
}

}  // namespace

std::size_t scan_command_line(const ArgList& args, const CommandRow& command,
                              const ScanWarning& warn) {
  Scan scan{args, warn};
  std::size_t positional = 0;
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string_view word = args[i];
    if (word == "--") break;
    if (!word.starts_with('-') || word == "-") {
      if (++positional > command.positional) {
        scan.ignore("unexpected argument '" + std::string(word) + "' ignored");
      }
      continue;
    }
    const OptionRow* const row = find_option(command, word);
    if (row == nullptr) {
      i += ignore_unknown(scan, i);
    } else if (row->takes_value && word.find('=') == std::string_view::npos) {
      ++i;
    }
  }
  return scan.ignored;
}

}  // namespace orv
