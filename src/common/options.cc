#include "common/options.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace orv {

const char* option_value(const ArgList& args, std::string_view name, const char* fallback,
                         std::string_view alias) {
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string_view word = args[i];
    if (word == name || (!alias.empty() && word == alias)) {
      return i + 1 < args.size() ? args[i + 1] : fallback;
    }
    if (word.size() > name.size() && word.starts_with(name) && word[name.size()] == '=') {
      return args[i] + name.size() + 1;
    }
  }
  return fallback;
}

bool option_present(const ArgList& args, std::string_view name, std::string_view alias) {
  if (args.empty()) return false;
  return std::any_of(args.begin() + 1, args.end(), [&](const char* word) {
    return name == word || (!alias.empty() && alias == word);
  });
}

std::uint32_t option_u32(const ArgList& args, std::string_view name, std::uint32_t fallback) {
  const char* const text = option_value(args, name, nullptr);
  if (text == nullptr) return fallback;
  // Trailing text is passed over and no number is 0, as scripts may rely on.
  const unsigned long value = std::strtoul(text, nullptr, 10);
  return static_cast<std::uint32_t>(
      std::min<unsigned long>(value, std::numeric_limits<std::uint32_t>::max()));
}

const OptionRow* find_option(std::span<const OptionTable> tables, std::string_view word) {
  for (const OptionTable& table : tables) {
    for (const OptionRow& row : table) {
      // A switch has no "=" form: the search then goes on to the next row.
      if (word == row.name || (!row.alias.empty() && word == row.alias)) return &row;
      const bool with_value = word.starts_with(row.name) && word.substr(row.name.size(), 1) == "=";
      if (row.takes_value && with_value) return &row;
    }
  }
  return nullptr;
}

bool WordScan::next(Word& word) {
  if (next_ >= args_.size()) return false;
  const char* const text = args_[next_++];
  const std::string_view view = text;
  word = {Kind::Positional, text, nullptr};
  if (!view.starts_with('-') || view == "-") return true;
  word.option = find_option(tables_, view);
  if (word.option == nullptr) {
    word.kind = Kind::UnknownOption;
    return true;
  }
  word.kind = Kind::Option;
  // Without "=" the next word is the value, whatever it looks like.
  if (!word.option->takes_value || view.find('=') != std::string_view::npos) return true;
  if (next_ < args_.size()) {
    ++next_;
  } else {
    word.kind = Kind::NoValue;
  }
  return true;
}

}  // namespace orv
