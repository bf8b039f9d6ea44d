#include "json/json.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "common/message.h"
#include "common/text.h"
#include "common/utf8.h"

namespace orv {
namespace {

using Node = std::unique_ptr<JsonValue>;

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

bool is_control(char c) { return static_cast<unsigned char>(c) < 0x20; }

// Recursive descent over one document. Recursion is bounded by the depth limit. Readers return null
// or false once they have failed; the first failure has then written the message.
class Parser {
 public:
  Parser(std::string_view text, const JsonLimits& limits, std::span<char> err)
      : text_(text), limits_(limits), err_(err) {}

  Node document() {
    Node root = value();
    if (!root) return nullptr;
    skip_blanks();
    if (at_end()) return root;
    return fail_node(pos_, "unexpected data after the document");
  }

  [[nodiscard]] std::size_t position() const { return pos_; }

 private:
  bool fail_at(std::size_t offset, const char* reason) {
    (void)fail(err_, "%s at byte %zu", reason, offset);
    return false;
  }
  Node fail_node(std::size_t offset, const char* reason) {
    (void)fail_at(offset, reason);
    return nullptr;
  }

  [[nodiscard]] bool at_end() const { return pos_ == text_.size(); }
  [[nodiscard]] bool next_is(char c) const { return !at_end() && text_[pos_] == c; }
  [[nodiscard]] bool digit_here() const { return !at_end() && is_digit(text_[pos_]); }
  bool take(char c) {
    if (!next_is(c)) return false;
    ++pos_;
    return true;
  }
  void skip_blanks() {
    while (!at_end() && is_blank(text_[pos_])) ++pos_;
  }

  // Counts the value that begins at `offset` and makes its node.
  // The count, not the size in bytes, is what bounds the memory of a hostile document.
  Node new_node(JsonKind kind, std::size_t offset) {
    if (values_ >= limits_.max_values) return fail_node(offset, "too many values");
    ++values_;
    Node node = std::make_unique<JsonValue>();
    node->kind = kind;
    return node;
  }

  Node value() {
    skip_blanks();
    if (at_end()) return fail_node(pos_, "unexpected end");
    const char c = text_[pos_];
    if (c == '{' || c == '[') return container(c == '{');
    if (c == '"') {
      Node node = new_node(JsonKind::String, pos_);
      return node && string(node->string) ? std::move(node) : nullptr;
    }
    if (c == '-' || is_digit(c)) return number();
    return literal();
  }

  // The byte after the word is not checked: "nullx" fails at the "x", as what cannot follow a
  // value.
  Node literal() {
    const std::size_t start = pos_;
    struct Row {
      std::string_view word;
      JsonKind kind;
      bool boolean;
    };
    static constexpr Row kLiterals[] = {{"true", JsonKind::Boolean, true},
                                        {"false", JsonKind::Boolean, false},
                                        {"null", JsonKind::Null, false}};
    for (const Row& row : kLiterals) {
      if (!text_.substr(pos_).starts_with(row.word)) continue;
      Node node = new_node(row.kind, start);
      if (!node) return nullptr;
      node->boolean = row.boolean;
      pos_ += row.word.size();
      return node;
    }
    return fail_node(start, "unexpected character");
  }

  // The depth is left raised by a failure: the whole parse ends with it.
  Node container(bool is_object) {
    const std::size_t start = pos_;
    // Each level is a few calls deep: this is what keeps a hostile document off the end of the
    // stack.
    if (depth_ >= limits_.max_depth) return fail_node(start, "nesting too deep");
    ++depth_;
    Node node = new_node(is_object ? JsonKind::Object : JsonKind::Array, start);
    if (!node) return nullptr;
    ++pos_;
    if (!(is_object ? members(*node) : elements(*node))) return nullptr;
    --depth_;
    return node;
  }

  // After the opening bracket; takes the closing one.
  bool elements(JsonValue& array) {
    skip_blanks();
    if (take(']')) return true;
    for (;;) {
      Node element = value();
      if (!element) return false;
      array.values.push_back(std::move(element));
      skip_blanks();
      if (at_end()) return fail_at(pos_, "unterminated array");
      if (take(']')) return true;
      if (!take(',')) return fail_at(pos_, "expected , or ]");
    }
  }

  bool members(JsonValue& object) {
    skip_blanks();
    if (take('}')) return true;
    for (;;) {
      skip_blanks();
      if (!next_is('"')) return fail_at(pos_, "expected a string key");
      SecretString key;
      // A key is held like a value, wiped and all: a request may put its password in the wrong
      // place.
      if (!string(key)) return false;
      skip_blanks();
      if (!take(':')) return fail_at(pos_, "expected :");
      Node member = value();
      if (!member) return false;
      // A linear search, at most 512 times 512: two readers must not see two values of one key.
      if (json_member(&object, key) != nullptr) return fail_at(pos_, "duplicate key");
      object.values.push_back(std::move(member));
      object.keys.emplace_back(key);
      skip_blanks();
      if (at_end()) return fail_at(pos_, "unterminated object");
      if (take('}')) return true;
      if (!take(',')) return fail_at(pos_, "expected , or }");
    }
  }

  bool append(SecretString& out, std::string_view bytes) {
    if (bytes.size() > kMaxJsonString - out.size()) return fail_at(pos_, "string too long");
    out.append(bytes);
    return true;
  }

  // Takes the bytes up to the next quote, backslash or control character.
  bool plain_run(SecretString& out) {
    const std::size_t start = pos_;
    while (!at_end() && text_[pos_] != '"' && text_[pos_] != '\\' && !is_control(text_[pos_]))
      ++pos_;
    // The message names the first byte that is too many, not where the run ends.
    const std::size_t room = kMaxJsonString - out.size();
    if (pos_ - start > room) return fail_at(start + room, "string too long");
    out.append(text_.substr(start, pos_ - start));
    return true;
  }

  bool string(SecretString& out) {
    ++pos_;
    for (;;) {
      if (!plain_run(out)) return false;
      if (at_end()) return fail_at(pos_, "unterminated string");
      if (take('"')) return true;
      if (!take('\\')) return fail_at(pos_, "control character in string");
      if (!escape(out)) return false;
    }
  }

  bool escape(SecretString& out) {
    // The escapes of RFC 8259, section 7; a letter and its meaning stand at the same place.
    static constexpr std::string_view kLetters = "\"\\/bfnrt";
    static constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    if (at_end()) return fail_at(pos_, "bad escape");
    const char letter = text_[pos_++];
    if (letter == 'u') return unicode_escape(out);
    const std::size_t which = kLetters.find(letter);
    if (which == std::string_view::npos) return fail_at(pos_, "bad escape");
    return append(out, kMeanings.substr(which, 1));
  }

  // Reads four hexadecimal digits; false, the position as it was, when there are none.
  bool hex4(std::uint32_t& out) {
    if (text_.size() - pos_ < 4) return false;
    std::uint32_t code = 0;
    for (std::size_t i = 0; i < 4; ++i) {
      const int digit = hex_digit(text_[pos_ + i]);
      if (digit < 0) return false;
      code = code << 4 | static_cast<std::uint32_t>(digit);
    }
    pos_ += 4;
    out = code;
    return true;
  }

  // A code point beyond the first plane comes as two escapes, a high and a low surrogate. NUL is
  // refused so that every string can be handed on as a C string.
  bool unicode_escape(SecretString& out) {
    std::uint32_t point = 0;
    if (!hex4(point)) return fail_at(pos_, "bad \\u escape");
    const std::size_t end = pos_;
    if (point == 0) return fail_at(end, "NUL in string");
    // A low surrogate that no high one announced; UTF-8 has no form for it (RFC 3629, section 3).
    if (point >= 0xdc00 && point <= 0xdfff) return fail_at(end, "lone surrogate");
    if (point >= 0xd800 && point <= 0xdbff) {
      std::uint32_t low = 0;
      if (!take('\\') || !take('u') || !hex4(low) || low < 0xdc00 || low > 0xdfff)
        return fail_at(end, "bad surrogate pair");
      point = 0x10000 + ((point - 0xd800) << 10) + (low - 0xdc00);
    }
    std::array<char, 4> bytes{};
    const std::size_t length = utf8_encode(point, bytes);
    return append(out, {bytes.data(), length});
  }

  bool digits() {
    if (!digit_here()) return false;
    while (digit_here()) ++pos_;
    return true;
  }

  // Walks over a number's text; null when it is one, else what is wrong with it.
  const char* number_fault(bool& is_integer) {
    (void)take('-');
    if (next_is('0')) {
      ++pos_;
      if (digit_here()) return "leading zero in number";
    } else if (!digits()) {
      return "bad number";
    }
    if (take('.')) {
      is_integer = false;
      if (!digits()) return "bad number";
    }
    if (take('e') || take('E')) {
      is_integer = false;
      if (!take('+')) (void)take('-');
      if (!digits()) return "bad number";
    }
    return nullptr;
  }

  Node number() {
    const std::size_t start = pos_;
    bool is_integer = true;
    if (const char* fault = number_fault(is_integer)) return fail_node(start, fault);
    const std::string_view digits_text = text_.substr(start, pos_ - start);
    // strtod() may be slow on thousands of digits, and no field needs more than these.
    if (digits_text.size() > kMaxJsonNumber) return fail_node(start, "number too long");
    Node node = new_node(JsonKind::Number, start);
    if (!node) return nullptr;
    // strtod() needs a terminator, which the input does not have after the number.
    char copy[kMaxJsonNumber + 1];
    std::memcpy(copy, digits_text.data(), digits_text.size());
    copy[digits_text.size()] = '\0';
    errno = 0;
    node->number = std::strtod(copy, nullptr);
    // Underflow as well: 1e-400 is not the number that was meant.
    if (errno == ERANGE || !(std::fabs(node->number) <= DBL_MAX))
      return fail_node(start, "number out of range");
    if (!is_integer) return node;
    errno = 0;
    // Not taken from the double, which holds 53 bits.
    const long long whole = std::strtoll(copy, nullptr, 10);
    node->is_integer = errno != ERANGE;
    if (node->is_integer) node->integer = whole;
    return node;
  }

  std::string_view text_;
  const JsonLimits& limits_;
  std::span<char> err_;
  std::size_t pos_ = 0;
  std::uint32_t depth_ = 0;
  std::uint32_t values_ = 0;
};

}  // namespace

int json_parse(std::string_view text, const JsonLimits& limits, std::unique_ptr<JsonValue>& out,
               std::span<char> err) {
  out.reset();
  if (!err.empty()) err[0] = '\0';
  if (text.size() > limits.max_bytes) return fail(err, "document too large");
  Parser parser(text, limits, err);
  try {
    out = parser.document();
  } catch (const std::bad_alloc&) {
    // The limits bound the tree, but not what else the machine is doing.
    return fail(err, "out of memory at byte %zu", parser.position());
  }
  return out ? 0 : -1;
}

JsonKind json_kind(const JsonValue* node) { return node != nullptr ? node->kind : JsonKind::Null; }

const JsonValue* json_member(const JsonValue* object, std::string_view key) {
  if (json_kind(object) != JsonKind::Object) return nullptr;
  for (std::size_t i = 0; i < object->keys.size(); ++i)
    if (object->keys[i] == key) return object->values[i].get();
  return nullptr;
}

std::optional<std::string_view> json_string(const JsonValue* node) {
  if (json_kind(node) != JsonKind::String) return std::nullopt;
  return node->string;
}

std::optional<std::int64_t> json_integer(const JsonValue* node) {
  if (json_kind(node) != JsonKind::Number || !node->is_integer) return std::nullopt;
  return node->integer;
}

std::optional<bool> json_boolean(const JsonValue* node) {
  if (json_kind(node) != JsonKind::Boolean) return std::nullopt;
  return node->boolean;
}

std::string_view json_member_text(const JsonValue* object, std::string_view key) {
  return json_string(json_member(object, key)).value_or(std::string_view());
}

std::int64_t json_member_integer(const JsonValue* object, std::string_view key) {
  return json_integer(json_member(object, key)).value_or(0);
}

bool json_member_flag(const JsonValue* object, std::string_view key) {
  return json_boolean(json_member(object, key)).value_or(false);
}

std::size_t json_size(const JsonValue* node) { return node != nullptr ? node->values.size() : 0; }

const JsonValue* json_element(const JsonValue* array, std::size_t index) {
  if (json_kind(array) != JsonKind::Array || index >= array->values.size()) return nullptr;
  return array->values[index].get();
}

}  // namespace orv
