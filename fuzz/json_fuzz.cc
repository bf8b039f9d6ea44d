// The JSON reader over any bytes, and what it accepts through the writer and back: the second
// reading must give the text that was written, byte for byte.
#include <cstddef>
#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "fuzz/targets.h"
#include "json/json.h"
#include "json/json_writer.h"

namespace orv::fuzz {
namespace {

constexpr std::size_t kBufferSize = 262144;  // the largest request, every byte of it escaped

void write(JsonWriter& json, const JsonValue& value) {
  switch (value.kind) {
    case JsonKind::Null: return json.null();
    case JsonKind::Boolean: return json.boolean(value.boolean);
    case JsonKind::Number: {
      if (value.is_integer) return json.integer(value.integer);
      char text[64];
      (void)std::snprintf(text, sizeof text, "%.17g", value.number);
      return json.raw(text);
    }
    case JsonKind::String: return json.string(value.string);
    case JsonKind::Array:
      json.begin_array();
      for (const auto& element : value.values) write(json, *element);
      return json.end_array();
    case JsonKind::Object:
      json.begin_object();
      for (std::size_t i = 0; i < value.values.size(); ++i) {
        json.key(value.keys[i]);
        write(json, *value.values[i]);
      }
      return json.end_object();
  }
}

std::string written(const JsonValue& value) {
  const auto buffer = std::make_unique<char[]>(kBufferSize);
  JsonWriter json({buffer.get(), kBufferSize});
  write(json, value);
  require(!json.overflow());
  return std::string(json.text());
}

}  // namespace

void json(std::string_view text) {
  char err[256];
  std::unique_ptr<JsonValue> root;
  require((json_parse(text, {}, root, err) == 0) == (root != nullptr));
  if (json_parse(text, kJsonRequestLimits, root, err) != 0) {
    require(!root && err[0] != '\0');
    return;
  }
  // Invalid UTF-8 is first written as the escape of U+FFFD, then as that character itself, and
  // stays so. Two keys may become alike on the way, a string too long: such a text is not read
  // back.
  std::string text_written = written(*root);
  for (int round = 0; round < 2; ++round) {
    constexpr JsonLimits kRoomy{kBufferSize, 4, 512};
    if (json_parse(text_written, kRoomy, root, err) != 0) {
      const std::string_view reason(err);
      return require(reason.starts_with("duplicate key") || reason.starts_with("string too long"));
    }
    std::string next = written(*root);
    require(round == 0 || next == text_written);
    text_written = std::move(next);
  }
}

}  // namespace orv::fuzz
