#include "json/json_writer.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

#include "common/text.h"
#include "common/utf8.h"

namespace orv {
namespace {

unsigned byte_at(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]);
}

// DEL is escaped, too, although RFC 8259 lets it stand: terminals and logs obey it.
constexpr bool is_plain(std::size_t byte) {
  return byte >= 0x20 && byte < 0x7f && byte != '"' && byte != '\\';
}

constexpr auto kPlain = [] {
  std::array<bool, 256> plain{};
  for (std::size_t byte = 0; byte < plain.size(); ++byte) plain[byte] = is_plain(byte);
  return plain;
}();

// Bytes at the front of `text` that need no escape and can be cut anywhere.
std::size_t plain_run(std::string_view text) {
  std::size_t n = 0;
  while (n < text.size() && kPlain[byte_at(text, n)]) ++n;
  return n;
}

// How one byte or sequence that is not plain is written.
struct Piece {
  char text[8];
  std::size_t length;    // bytes of `text`
  std::size_t consumed;  // bytes of the input
};

Piece make_piece(std::string_view out, std::size_t consumed) {
  Piece piece{{}, out.size(), consumed};
  std::memcpy(piece.text, out.data(), out.size());
  return piece;
}

Piece escape(std::string_view rest) {
  const unsigned byte = byte_at(rest, 0);
  switch (byte) {
    case '"': return make_piece("\\\"", 1);
    case '\\': return make_piece("\\\\", 1);
    case '\n': return make_piece("\\n", 1);
    case '\r': return make_piece("\\r", 1);
    case '\t': return make_piece("\\t", 1);
    default: break;
  }
  if (byte < 0x80) {
    // A control character without a short escape.
    const char code[] = {'\\', 'u', '0', '0', kHexDigits[byte >> 4], kHexDigits[byte & 0xf]};
    return make_piece({code, sizeof code}, 1);
  }
  // Of a broken sequence only the first byte is replaced; the next may begin a good one.
  const std::size_t length = utf8_sequence(rest);
  return length != 0 ? make_piece(rest.substr(0, length), length) : make_piece("\\ufffd", 1);
}

}  // namespace

JsonWriter::JsonWriter(std::span<char> buffer) : buffer_(buffer) { reset(); }

void JsonWriter::reset() {
  length_ = 0;
  overflow_ = false;
  depth_ = 0;
  after_key_ = false;
  if (!buffer_.empty()) buffer_[0] = '\0';
}

// After the first piece that does not fit nothing more is written: what came later would make no
// sense without it.
void JsonWriter::put(std::string_view text) {
  if (overflow_) return;
  if (length_ + text.size() + 1 > buffer_.size()) {
    overflow_ = true;
    return;
  }
  std::memcpy(buffer_.data() + length_, text.data(), text.size());
  length_ += text.size();
  buffer_[length_] = '\0';
}

// The comma before a value, a key or an opening bracket, where one belongs.
void JsonWriter::separate() {
  if (after_key_) {
    after_key_ = false;
    return;
  }
  if (depth_ == 0) return;
  if (!first_[depth_]) put(",");
  first_[depth_] = false;
}

void JsonWriter::open(char bracket) {
  separate();
  put({&bracket, 1});
  depth_ = std::min(depth_ + 1, kLevels - 1);  // deeper levels share the last one's commas
  first_[depth_] = true;
}

void JsonWriter::close(char bracket) {
  put({&bracket, 1});
  if (depth_ > 0) --depth_;
}

void JsonWriter::begin_object() { open('{'); }
void JsonWriter::end_object() { close('}'); }
void JsonWriter::begin_array() { open('['); }
void JsonWriter::end_array() { close(']'); }

void JsonWriter::key(std::string_view name) {
  // Escaped like any text: some keys are names of jobs.
  string(name);
  put(":");
  after_key_ = true;
}

std::size_t JsonWriter::put_escaped(std::string_view text, std::size_t limit) {
  // Room is kept for the closing quote and the terminating NUL.
  if (overflow_ || length_ + 2 > buffer_.size()) return 0;
  std::size_t room = std::min(limit, buffer_.size() - length_ - 2);
  std::size_t done = 0;
  while (done < text.size()) {
    const std::string_view rest = text.substr(done);
    // Runs of plain characters, nearly all of a log, are copied as a whole.
    if (const std::size_t run = std::min(plain_run(rest), room); run > 0) {
      put(rest.substr(0, run));
      room -= run;
      done += run;
      continue;
    }
    // An escape or a sequence goes in whole or not at all: half of one would be no JSON.
    const Piece piece = escape(rest);
    if (room == 0 || piece.length > room) break;
    put({piece.text, piece.length});
    room -= piece.length;
    done += piece.consumed;
  }
  return done;
}

// Nearly every key and text is plain, and goes in with its quotes at once.
bool JsonWriter::put_plain(std::string_view text) {
  if (overflow_ || length_ + text.size() + 3 > buffer_.size()) return false;
  if (plain_run(text) < text.size()) return false;
  char* const out = buffer_.data() + length_;
  out[0] = '"';
  std::copy(text.begin(), text.end(), out + 1);
  out[text.size() + 1] = '"';
  out[text.size() + 2] = '\0';
  length_ += text.size() + 2;
  return true;
}

void JsonWriter::string(std::string_view text) {
  separate();
  if (put_plain(text)) return;
  put("\"");
  if (put_escaped(text, SIZE_MAX) < text.size()) overflow_ = true;
  put("\"");
}

// Here what does not fit is no overflow: the caller is told where the text was cut.
std::size_t JsonWriter::string_limited(std::string_view text, std::size_t limit) {
  separate();
  put("\"");
  const std::size_t covered = put_escaped(text, limit);
  put("\"");
  return covered;
}

void JsonWriter::string_or_null(std::string_view text) { text.empty() ? null() : string(text); }

void JsonWriter::integer(std::int64_t value) {
  // -9223372036854775808 has 20 characters.
  char digits[32];
  const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value);
  raw({digits, static_cast<std::size_t>(end.ptr - digits)});
}

void JsonWriter::boolean(bool value) { raw(value ? "true" : "false"); }
void JsonWriter::null() { raw("null"); }

void JsonWriter::text_member(std::string_view name, std::string_view text) {
  key(name);
  string_or_null(text);
}

void JsonWriter::integer_member(std::string_view name, std::int64_t value, bool known) {
  key(name);
  if (known) {
    integer(value);
  } else {
    null();
  }
}

void JsonWriter::boolean_member(std::string_view name, bool value) {
  key(name);
  boolean(value);
}

void JsonWriter::error_object(std::string_view code, std::string_view message) {
  begin_object();
  key("error");
  begin_object();
  key("code");
  string(code);
  key("message");
  string(message);  // also an empty one: clients expect a text
  end_object();
  end_object();
}

void JsonWriter::raw(std::string_view json) {
  separate();
  put(json);
}

}  // namespace orv
