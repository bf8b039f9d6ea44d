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

// An option that no table has. The word after it may be its value and is passed over, too.
std::string unknown_option_warning(std::string_view option, WordScan& words) {
  const std::string word(option);
  if (const std::size_t equals = word.find('='); equals != std::string::npos) {
    return "unknown option '" + word.substr(0, equals) + "=...' ignored";
  }
  const char* const next = words.peek();
  if (next == nullptr || next[0] == '-') return "unknown option '" + word + "' ignored";
  words.skip();
  return "unknown option '" + word + "' ignored (with the value after it)";
}

}  // namespace

std::size_t scan_command_line(const ArgList& args, const CommandRow& command,
                              const ScanWarning& warn) {
  // The run log's options count only where there is a run log: without one they have no effect.
  const std::array<OptionTable, 3> tables = {command.options, kGeneralOptions,
                                             runlog_active() ? kRunlogOptions : OptionTable()};
  WordScan words(args, 1, tables);
  WordScan::Word word;
  std::size_t positional = 0;
  std::size_t ignored = 0;
  while (words.next(word) && std::string_view(word.text) != "--") {
    if (word.kind == WordScan::Kind::UnknownOption) {
      warn(unknown_option_warning(word.text, words));
      ++ignored;
    } else if (word.kind == WordScan::Kind::Positional && ++positional > command.positional) {
      warn("unexpected argument '" + std::string(word.text) + "' ignored");
      ++ignored;
    }
  }
  return ignored;
}

}  // namespace orv
