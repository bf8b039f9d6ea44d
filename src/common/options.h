// Command-line option tables, and the lookups that read option values straight from the arguments.
// Lookups see every argument from the second one on (index 1), the value of another option
// included: they do not know which words the scanner took as values, and a lone "--" does not end
// them.
#ifndef ORV_COMMON_OPTIONS_H_
#define ORV_COMMON_OPTIONS_H_

#include <cstdint>
#include <span>
#include <string_view>

namespace orv {

struct OptionRow {
  std::string_view name;   // with its dashes, as "--config"
  std::string_view alias;  // short form, as "-h"; empty when there is none
  bool takes_value;
};
using OptionTable = std::span<const OptionRow>;

// The argument vector of main(), program name included. Borrowed.
using ArgList = std::span<const char* const>;

// The value of the first argument that is `name`, `alias` (when given) or "name=": the text after
// "=" or the next argument. `fallback` when there is none, or the option is the last argument.
[[nodiscard]] const char* option_value(const ArgList& args, std::string_view name,
                                       const char* fallback, std::string_view alias = {});

// Whether any argument equals `name`, or `alias` when given, exactly.
[[nodiscard]] bool option_present(const ArgList& args, std::string_view name,
                                  std::string_view alias = {});

// The option's value as strtoul() reads it, trailing text and all (no number: 0), cut to 32 bits by
// saturation; `fallback` when the option is absent. A 0 is a value like any other.
[[nodiscard]] std::uint32_t option_u32(const ArgList& args, std::string_view name,
                                       std::uint32_t fallback);

// The row of the first table that has one for `word`: its name or alias exactly, or, for an option
// that takes a value, its name followed by "=". Null when none has.
[[nodiscard]] const OptionRow* find_option(std::span<const OptionTable> tables,
                                           std::string_view word);

// Goes through the words of a command line as a program that checks all of them sees them. What is
// an option's value is never taken for anything else; a lone "-" is positional. A lone "--" comes
// out as an unknown option: what it means is up to the caller.
class WordScan {
 public:
  enum class Kind {
    Positional,
    Option,   // of the tables; its value, when it takes one, has been passed over
    NoValue,  // an option of the tables whose value is missing: the last word
    UnknownOption
  };
  struct Word {
    Kind kind = Kind::Positional;
    const char* text = nullptr;         // as it stands
    const OptionRow* option = nullptr;  // of Option and NoValue
  };

  // Starts at the word of index `first`. Everything is borrowed.
  WordScan(ArgList args, std::size_t first, std::span<const OptionTable> tables)
      : args_(args), next_(first), tables_(tables) {}

  // Takes the next word; false when there is none.
  [[nodiscard]] bool next(Word& word);
  // The word that next() would look at, or null; skip() passes over it.
  [[nodiscard]] const char* peek() const { return next_ < args_.size() ? args_[next_] : nullptr; }
  void skip() { ++next_; }

 private:
  ArgList args_;
  std::size_t next_;
  std::span<const OptionTable> tables_;
};

}  // namespace orv

#endif  // ORV_COMMON_OPTIONS_H_
