// A strict, bounded reader of JSON (RFC 8259). Every failure is one message; but for "document too
// large" it ends "at byte <n>", the offset at which reading stopped. Clients see these messages.
//
// Stricter than the RFC: keys are unique within an object, no string holds a NUL, a number must fit
// a double. Raw bytes of 0x80 and above pass unchecked. Nothing is shared between parses.
#ifndef ORV_JSON_JSON_H_
#define ORV_JSON_JSON_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/secret.h"

namespace orv {

// The values are fixed; Null comes first because an absent member reads as null.
enum class JsonKind : std::uint32_t {
  Null = 0,
  Boolean = 1,
  Number = 2,
  String = 3,
  Array = 4,
  Object = 5
};

// One value of a document.
struct JsonValue {
  JsonKind kind = JsonKind::Null;
  bool boolean = false;
  bool is_integer = false;   // no fraction, no exponent, and it fits 64 bits
  std::int64_t integer = 0;  // valid when is_integer
  double number = 0;
  SecretString string;  // decoded, UTF-8, never holds a NUL byte; a request may carry a password
  std::vector<std::unique_ptr<JsonValue>> values;  // elements, or members' values in their order
  std::vector<std::string> keys;                   // keys[i] names values[i]; unique
};

inline constexpr std::size_t kMaxJsonString = 65535;  // bytes of a decoded string
inline constexpr std::size_t kMaxJsonNumber = 40;     // bytes of a number's text

// What a document may cost. Depth bounds the stack, values bound the heap; containers count as
// values, too.
struct JsonLimits {
  std::size_t max_bytes = 4194304;    // of the text
  std::uint32_t max_depth = 32;       // containers within each other
  std::uint32_t max_values = 200000;  // some 130 bytes each
};
// Of a request's body.
inline constexpr JsonLimits kJsonRequestLimits{32768, 4, 512};

// The caller owns the tree. 0 with the root in `out`; -1 with one message, `out` empty. `text`
// needs no NUL.
[[nodiscard]] int json_parse(std::string_view text, const JsonLimits& limits,
                             std::unique_ptr<JsonValue>& out, std::span<char> err);

// Accessors; each takes an absent node (null) and one of another kind, and finds nothing in it.
[[nodiscard]] JsonKind json_kind(const JsonValue* node);  // absent reads as Null
// Linear, in document order.
[[nodiscard]] const JsonValue* json_member(const JsonValue* object, std::string_view key);
// Borrowed from the node. Of these three, another kind of value gives nothing, not a default.
[[nodiscard]] std::optional<std::string_view> json_string(const JsonValue* node);
[[nodiscard]] std::optional<std::int64_t> json_integer(const JsonValue* node);
[[nodiscard]] std::optional<bool> json_boolean(const JsonValue* node);
// A member of that kind, else the empty value. Borrowed.
[[nodiscard]] std::string_view json_member_text(const JsonValue* object, std::string_view key);
[[nodiscard]] std::int64_t json_member_integer(const JsonValue* object, std::string_view key);
[[nodiscard]] bool json_member_flag(const JsonValue* object, std::string_view key);
[[nodiscard]] std::size_t json_size(const JsonValue* node);  // elements or members
[[nodiscard]] const JsonValue* json_element(const JsonValue* array, std::size_t index);

}  // namespace orv

#endif  // ORV_JSON_JSON_H_
