#include "client/output.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>

#include "common/text.h"
#include "common/times.h"
#include "common/utf8.h"

namespace orv {
namespace {

// The code point of a valid sequence.
std::uint32_t code_point(std::string_view sequence) {
  const auto byte = [&](std::size_t i) {
    return static_cast<std::uint32_t>(static_cast<unsigned char>(sequence[i]));
  };
  // The lead byte of n bytes starts with n ones and a zero, the others with 10 (RFC 3629, section
  // 3).
  if (sequence.size() == 1) return byte(0);
  std::uint32_t point = byte(0) & (0x7FU >> sequence.size());
  for (std::size_t i = 1; i < sequence.size(); ++i) point = point << 6U | (byte(i) & 0x3FU);
  return point;
}

// What a terminal obeys, or what makes it show text in another order than it was sent in.
bool is_control(std::uint32_t point) {
  // C0, DEL and C1; then the marks of the bidirectional algorithm (UAX 9), and the separators of
  // lines and paragraphs.
  const bool control = point < 0x20 || (point >= 0x7F && point <= 0x9F);
  const bool turns = point == 0x200E || point == 0x200F || point == 0x061C ||
                     (point >= 0x2028 && point <= 0x202E) || (point >= 0x2066 && point <= 0x2069);
  return control || turns;
}

// Takes the next character off the front; its bytes, and whether they are one.
struct Character {
  std::string_view bytes;
  bool valid;
};
Character take_character(std::string_view& rest) {
  const std::size_t length = utf8_sequence(rest);
  const Character next{rest.substr(0, std::max<std::size_t>(length, 1)), length != 0};
  rest.remove_prefix(next.bytes.size());
  return next;
}

// The members of the API's objects that are Unix seconds.
constexpr std::array<std::string_view, 9> kTimes = {"time",         "daemon_started", "once_unix",
                                                    "next_run",     "last_run",       "last_finish",
                                                    "last_success", "start",          "finish"};

bool is_time(std::string_view name) {
  return std::find(kTimes.begin(), kTimes.end(), name) != kTimes.end();
}

std::string list_text(const JsonValue& list) {
  std::string text;
  for (const auto& item : list.values) {
    if (!text.empty()) text += ", ";
    text += readable({}, item.get());
  }
  return text.empty() ? "-" : text;
}

void add_pairs(std::string& text, const JsonValue& object, std::string_view leave_out,
               std::size_t indent) {
  std::size_t width = 0;
  for (std::size_t i = 0; i < object.keys.size(); ++i) {
    if (json_kind(object.values[i].get()) == JsonKind::Object) continue;
    width = std::max(width, utf8_length(printable(object.keys[i])));
  }
  // Objects follow the plain members: in between, the rest would look like theirs.
  std::string nested;
  for (std::size_t i = 0; i < object.keys.size(); ++i) {
    if (object.keys[i] == leave_out) continue;
    const JsonValue& value = *object.values[i];
    std::string name = printable(object.keys[i]) + ":";
    if (value.kind == JsonKind::Object) {
      nested += std::string(indent, ' ') + name + "\n";
      add_pairs(nested, value, leave_out, indent + 2);
      continue;
    }
    name.append(width + 2 - std::min(width + 2, utf8_length(name)), ' ');
    text += std::string(indent, ' ') + name + printable(readable(object.keys[i], &value)) + "\n";
  }
  text += nested;
}

// One level of the JSON that is written.
class JsonText {
 public:
  explicit JsonText(Layout layout) : layout_(layout) {}

  void add(const JsonValue* value) {
    switch (json_kind(value)) {
      case JsonKind::Null: text_ += "null"; break;
      case JsonKind::Boolean: text_ += value->boolean ? "true" : "false"; break;
      case JsonKind::Number: add_number(*value); break;
      case JsonKind::String: add_string(value->string); break;
      case JsonKind::Array:
      case JsonKind::Object: add_members(*value); break;
    }
  }
  void add_string(std::string_view text);
  SecretString take() { return std::move(text_); }

 private:
  void add_number(const JsonValue& value) {
    std::array<char, 48> digits{};
    if (value.is_integer) {
      std::snprintf(digits.data(), digits.size(), "%lld", static_cast<long long>(value.integer));
    } else {
      // 17 digits give every double back as it was.
      std::snprintf(digits.data(), digits.size(), "%.17g", value.number);
    }
    text_ += digits.data();
  }
  void add_members(const JsonValue& value) {
    const bool object = value.kind == JsonKind::Object;
    text_ += object ? '{' : '[';
    ++depth_;
    for (std::size_t i = 0; i < value.values.size(); ++i) {
      if (i > 0) text_ += layout_ == Layout::Indented ? "," : ", ";
      new_line();
      if (object) {
        add_string(value.keys[i]);
        text_ += ": ";
      }
      add(value.values[i].get());
    }
    --depth_;
    if (!value.values.empty()) new_line();
    text_ += object ? '}' : ']';
  }
  void new_line() {
    if (layout_ == Layout::OneLine) return;
    text_ += '\n';
    text_.append(2 * depth_, ' ');
  }

  Layout layout_;
  SecretString text_;
  std::size_t depth_ = 0;
};

void JsonText::add_string(std::string_view text) {
  constexpr std::string_view kShort = "\"\\\n\r\t", kLetters = "\"\\nrt";
  text_ += '"';
  while (!text.empty()) {
    const Character next = take_character(text);
    const std::uint32_t point = next.valid ? code_point(next.bytes) : 0xFFFD;
    // The short escapes are those of RFC 8259, section 7, that logs and scripts expect.
    const std::size_t escaped = next.bytes.size() == 1 ? kShort.find(next.bytes[0]) : kShort.npos;
    if (escaped != kShort.npos) {
      text_ += '\\';
      text_ += kLetters[escaped];
    } else if (!next.valid || is_control(point)) {
      std::array<char, 8> code{};
      std::snprintf(code.data(), code.size(), "\\u%04x", point);
      text_ += code.data();
    } else {
      text_ += next.bytes;
    }
  }
  text_ += '"';
}

}  // namespace

std::string printable(std::string_view text, Lines lines) {
  std::string shown;
  while (!text.empty()) {
    const Character next = take_character(text);
    const std::uint32_t point = next.valid ? code_point(next.bytes) : 0;
    // A carriage return is never kept: it would write over what the line has shown.
    const bool kept = lines == Lines::Keep && (point == '\n' || point == '\t');
    if (!kept && is_control(point)) {
      shown += '?';
    } else {
      shown += next.bytes;
    }
  }
  return shown;
}

std::string table_text(const std::vector<std::vector<std::string>>& rows) {
  // Of the raw cells: printable() puts one character in the place of each.
  std::vector<std::size_t> widths(rows.empty() ? 0 : rows.front().size());
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], utf8_length(row[i]));
    }
  }
  std::string text;
  for (const auto& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += printable(row[i]);
      line.append(widths[i] - utf8_length(row[i]) + 2, ' ');
    }
    text += std::string(trim_right(line)) + "\n";
  }
  return text;
}

std::string readable(std::string_view name, const JsonValue* value) {
  switch (json_kind(value)) {
    case JsonKind::Null: return "-";
    case JsonKind::Boolean: return value->boolean ? "yes" : "no";
    case JsonKind::Number:
      if (value->is_integer && is_time(name)) return local_time_cell(value->integer);
      break;
    case JsonKind::String: return value->string.empty() ? "-" : std::string(value->string);
    case JsonKind::Array: return list_text(*value);
    case JsonKind::Object: break;
  }
  // What has no form of its own here, a number or a nested object, is shown as JSON.
  return std::string(json_text(value, Layout::OneLine));
}

std::string cell(const JsonValue* object, std::string_view name) {
  return readable(name, json_member(object, name));
}

std::string pairs_text(const JsonValue* object, std::string_view leave_out) {
  std::string text;
  if (json_kind(object) == JsonKind::Object) add_pairs(text, *object, leave_out, 0);
  return text;
}

SecretString json_text(const JsonValue* value, Layout layout) {
  JsonText text(layout);
  text.add(value);
  return text.take();
}

SecretString json_quoted(std::string_view text) {
  JsonText quoted(Layout::OneLine);
  quoted.add_string(text);
  return quoted.take();
}

}  // namespace orv
