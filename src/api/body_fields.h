// The fields of a JSON body that become settings of one section of the configuration file. What a
// section takes is a table; a field that is absent from a body leaves its line in the file alone,
// one that is null, or says that nothing is set, removes it.
#ifndef ORV_API_BODY_FIELDS_H_
#define ORV_API_BODY_FIELDS_H_

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "api/config_text.h"
#include "api/reply.h"
#include "json/json.h"

namespace orv {

struct BodyField;

// Turns a member that is present into the key's value; none removes the key. False after an error
// reply.
using FieldReader = bool (*)(ApiReply& reply, const JsonValue& object, const BodyField& field,
                             std::optional<std::string>& value);

struct BodyField {
  const char* name;  // in JSON
  const char* key;   // in the file
  FieldReader read;
  std::int64_t max = 0;                         // bytes of a text, or the greatest number
  bool (*accepts)(std::string_view) = nullptr;  // a further test of a text
  const char* complaint = nullptr;              // when it fails that
};

bool read_text_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                     std::optional<std::string>& value);
// A text that must be one of few: the complaint also tells of another kind of value. "inherit",
// when accepted, removes the key.
bool read_choice_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                       std::optional<std::string>& value);
bool read_number_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                       std::optional<std::string>& value);
// true or false as yes or no; null is not taken.
bool read_switch_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                       std::optional<std::string>& value);
bool read_optional_switch_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                                std::optional<std::string>& value);

// Reads every field of the table that `object` has, in the table's order, into `edits`.
[[nodiscard]] bool read_body_fields(ApiReply& reply, const JsonValue& object,
                                    std::span<const BodyField> fields, std::vector<KeyEdit>& edits);

// The names of the table, separated by blanks.
[[nodiscard]] std::string field_names(std::span<const BodyField> fields);

// "inherit", "never", "failed" or "always", and the complaint about anything else.
[[nodiscard]] bool is_notify_choice(std::string_view text);
inline constexpr const char* kNotifyComplaint = "'notify' must be inherit, never, failed or always";

}  // namespace orv

#endif  // ORV_API_BODY_FIELDS_H_
