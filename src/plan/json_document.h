// JSON documents of any length, with the writer that the API uses for its replies.
#ifndef ORV_PLAN_JSON_DOCUMENT_H_
#define ORV_PLAN_JSON_DOCUMENT_H_

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "json/json_writer.h"

namespace orv {

// The document that `write` (a callable that takes a JsonWriter&) produces, with a line feed after
// it. The writer's buffer is fixed: a document that does not fit is written again into a larger
// one, so `write` must write the same each time. Nothing here is secret: the buffers are not wiped.
template <typename Write>
[[nodiscard]] std::string json_document(Write write) {
  for (std::size_t size = 65536;; size *= 4) {
    std::vector<char> buffer(size);
    JsonWriter json{std::span<char>(buffer)};
    write(json);
    if (!json.overflow()) return std::string(json.text()) + "\n";
  }
}

// A member whose value may not be known: null then.
inline void known_member(JsonWriter& json, std::string_view name,
                         std::optional<std::int64_t> value) {
  json.integer_member(name, value.value_or(0), value.has_value());
}

}  // namespace orv

#endif  // ORV_PLAN_JSON_DOCUMENT_H_
