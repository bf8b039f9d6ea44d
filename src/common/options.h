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

// The value of the first argument that is `name`, `alias` (when given) or "name=": the text behind
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

}  // namespace orv

#endif  // ORV_COMMON_OPTIONS_H_
