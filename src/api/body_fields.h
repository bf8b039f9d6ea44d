// The body of a request: a JSON object whose fields become settings of one section of the
// configuration file. What a section takes is a table; a field that is absent from a body leaves
// its line in the file alone, one that is null, or says that nothing is set, removes it.
//
// Every reader that returns false or null has already made the error reply (status 400 unless it
// says otherwise); its caller just returns.
#ifndef ORV_API_BODY_FIELDS_H_
#define ORV_API_BODY_FIELDS_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "api/config_text.h"
#include "api/reply.h"
#include "common/secret.h"
#include "json/json.h"

namespace orv {

struct BodyField;

// Turns a member that is present into the key's value; none removes the key.
using FieldReader = bool (*)(ApiReply& reply, const JsonValue& object, const BodyField& field,
                             std::optional<SecretString>& value);

struct BodyField {
  const char* name;  // in JSON
  const char* key;   // in the file
  FieldReader read;
  std::int64_t max = 0;                         // bytes of a text, or the greatest number
  bool (*accepts)(std::string_view) = nullptr;  // a further test of a text
  const char* complaint = nullptr;              // when it fails that
};

// The body as a JSON object within kJsonRequestLimits; null after "invalid_json".
[[nodiscard]] std::unique_ptr<JsonValue> read_body_object(ApiReply& reply, std::string_view body);

// Whether every key of `object` is the name of one of the fields, or `also`; else "unknown_field".
[[nodiscard]] bool only_known_fields(ApiReply& reply, const JsonValue& object,
                                     std::span<const BodyField> fields, std::string_view also = {});

// Reads every field of the table that `object` has, in the table's order, into `edits`.
[[nodiscard]] bool read_body_fields(ApiReply& reply, const JsonValue& object,
                                    std::span<const BodyField> fields, std::vector<KeyEdit>& edits);

// A text of 1..`max` bytes that may stand in the file (check_stored_value) and that `accepts`
// accepts, if set.
bool read_text_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                     std::optional<SecretString>& value);
// One of a fixed set of texts; the same complaint serves for a value that is no string. "inherit",
// when accepted, removes the key.
bool read_choice_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                       std::optional<SecretString>& value);
// An integer 0..`max`.
bool read_number_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                       std::optional<SecretString>& value);
// true or false as yes or no; null is refused.
bool read_switch_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                       std::optional<SecretString>& value);
bool read_optional_switch_value(ApiReply& reply, const JsonValue& object, const BodyField& field,
                                std::optional<SecretString>& value);

// "inherit", "never", "failed" or "always", and the complaint about anything else.
[[nodiscard]] bool is_notify_choice(std::string_view text);
inline constexpr const char* kNotifyComplaint = "'notify' must be inherit, never, failed or always";

}  // namespace orv

#endif  // ORV_API_BODY_FIELDS_H_
