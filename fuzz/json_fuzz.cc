// The JSON reader over any bytes, and what it accepts through the writer and back: the second
// reading must give the text that was written, byte for byte.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "json/json.h"
#include "json/json_writer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

constexpr std::size_t kBufferSize = 262144;  // the largest request, every byte of it escaped

void write(orv::JsonWriter& json, const orv::JsonValue& value) {
  switch (value.kind) {
    case orv::JsonKind::Null: return json.null();
    case orv::JsonKind::Boolean: return json.boolean(value.boolean);
    case orv::JsonKind::Number: {
      if (value.is_integer) return json.integer(value.integer);
      char text[64];
      (void)std::snprintf(text, sizeof text, "%.17g", value.number);
      return json.raw(text);
    }
    case orv::JsonKind::String: return json.string(value.string);
    case orv::JsonKind::Array:
      json.begin_array();
      for (const auto& element : value.values) write(json, *element);
      return json.end_array();
    case orv::JsonKind::Object:
      json.begin_object();
      for (std::size_t i = 0; i < value.values.size(); ++i) {
        json.key(value.keys[i]);
        write(json, *value.values[i]);
      }
      return json.end_object();
  }
}

std::string written(const orv::JsonValue& value) {
  const auto buffer = std::make_unique<char[]>(kBufferSize);
  orv::JsonWriter json({buffer.get(), kBufferSize});
  write(json, value);
  if (json.overflow()) std::abort();
  return std::string(json.text());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  char err[256];
  std::unique_ptr<orv::JsonValue> root;
  if ((orv::json_parse(text, {}, root, err) == 0) != (root != nullptr)) std::abort();
  if (orv::json_parse(text, orv::kJsonRequestLimits, root, err) != 0) {
    if (root || err[0] == '\0') std::abort();
    return 0;
  }
  // Invalid UTF-8 is first written as the escape of U+FFFD, then as that character itself, and
  // stays so. Two keys may become alike on the way, a string too long: such a text is not read
  // back.
  std::string text_written = written(*root);
  for (int round = 0; round < 2; ++round) {
    constexpr orv::JsonLimits kRoomy{kBufferSize, 4, 512};
    if (orv::json_parse(text_written, kRoomy, root, err) != 0) {
      const std::string_view reason(err);
      if (reason.starts_with("duplicate key") || reason.starts_with("string too long")) return 0;
      std::abort();
    }
    std::string next = written(*root);
    if (round == 1 && next != text_written) std::abort();
    text_written = std::move(next);
  }
  return 0;
}
