// The keys that each kind of section takes, with the wording of every fault of a value.
#ifndef ORV_CONFIG_KEY_TABLES_H_
#define ORV_CONFIG_KEY_TABLES_H_

#include <array>
#include <cstddef>
#include <span>
#include <string_view>
#include <vector>

#include "common/fixed_text.h"
#include "config/config.h"

namespace orv {

inline constexpr std::size_t kMaxSecretText = 1023;    // bytes of a secret as it is written
inline constexpr std::size_t kMaxListText = 2047;      // bytes of the list of recipients
inline constexpr std::size_t kMaxCommandsText = 1023;  // bytes of the list of allowed commands

// None: before the first header. Every name that is not reserved opens a job.
enum class SectionKind { None, Sched, Mail, Api, Job };

// Where the values of the file go. The written password waits in its own field until the whole file
// is read, because it may be a reference; it wipes itself.
struct KeyTarget {
  Config& config;
  FixedSecret<kMaxSecretText> written_password;
};

// A line of the file, for messages.
struct LinePlace {
  const char* path;
  std::size_t number;  // from 1
};

// Assigns the value (unquoted, not empty) to `key` of a section. Keys of a job section go to the
// last job. 0; -1 with a message, which begins "<path>:<line>: " but for those of 'after'.
[[nodiscard]] int store_key(SectionKind section, std::string_view key, std::string_view value,
                            const LinePlace& place, KeyTarget& target, std::span<char> err);

// The keys that sections of the kind take, in the order of their table. The texts are constants.
[[nodiscard]] std::vector<std::string_view> section_keys(SectionKind section);

// The keys that a section has had. It remembers the first kMaxKeys of at most kMaxKeyLength bytes:
// a repetition of any other key goes unnoticed, and its later value counts.
class RememberedKeys {
 public:
  static constexpr std::size_t kMaxKeys = 16;
  static constexpr std::size_t kMaxKeyLength = 31;  // bytes

  // Whether the key is remembered already; if not, it is from now on.
  [[nodiscard]] bool repeats(std::string_view key);
  void forget() { count_ = 0; }

 private:
  std::array<FixedText<kMaxKeyLength>, kMaxKeys> keys_;
  std::size_t count_ = 0;
};

}  // namespace orv

#endif  // ORV_CONFIG_KEY_TABLES_H_
