// JsonWriter builds one reply in a buffer of fixed size, commas placed by themselves. Nothing fails
// on its own: the first write that does not fit sets `overflow`, and all later ones are skipped.
#ifndef ORV_JSON_JSON_WRITER_H_
#define ORV_JSON_JSON_WRITER_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace orv {

// The caller balances brackets and puts a key before each member; commas come by themselves. Text
// that is no valid UTF-8 is written with U+FFFD in the place of each bad byte. What does not fit
// sets the overflow, after which nothing more is written. Deeper than 15 levels commas go wrong.
class JsonWriter {
 public:
  // Writes from the start of `buffer`, which is borrowed and always NUL-terminated.
  explicit JsonWriter(std::span<char> buffer);
  void reset();  // starts anew, overflow cleared

  void begin_object();
  void end_object();
  void begin_array();
  void end_array();
  void key(std::string_view name);
  void string(std::string_view text);
  void string_or_null(std::string_view text);  // empty: null
  void integer(std::int64_t value);
  void boolean(bool value);
  void null();
  void raw(std::string_view json);  // a value already in JSON

  // A key with its value.
  void text_member(std::string_view name, std::string_view text);                     // empty: null
  void integer_member(std::string_view name, std::int64_t value, bool known = true);  // else null
  void boolean_member(std::string_view name, bool value);

  // {"error":{"code":...,"message":...}}: the shape of every error of the API, the console's too.
  void error_object(std::string_view code, std::string_view message);

  // A string whose escaped content is at most `limit` bytes and fits the buffer: it stops before
  // the first piece that would not, and is closed. Returns the number of bytes of `text` it covers.
  std::size_t string_limited(std::string_view text, std::size_t limit);

  [[nodiscard]] bool overflow() const { return overflow_; }
  [[nodiscard]] std::string_view text() const { return {buffer_.data(), length_}; }

 private:
  static constexpr std::size_t kLevels = 16;
  void put(std::string_view text);
  void separate();
  void open(char bracket);
  void close(char bracket);
  // The escaped content of a string, as far as it fits; returns the bytes of `text` it covers.
  bool put_plain(std::string_view text);
  std::size_t put_escaped(std::string_view text, std::size_t limit);

  std::span<char> buffer_;
  std::size_t length_ = 0;
  bool overflow_ = false;
  std::array<bool, kLevels> first_{};  // no element was written at that level yet
  std::size_t depth_ = 0;
  bool after_key_ = false;
};

}  // namespace orv

#endif  // ORV_JSON_JSON_WRITER_H_
