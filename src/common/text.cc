#include "common/text.h"

#include <charconv>
#include <system_error>

namespace orv {
namespace {

template <typename Number>
bool parse_digits(std::string_view text, Number& out) {
  // from_chars would take a leading minus sign for a signed type.
  if (text.empty() || !is_digit(text.front())) return false;
  Number value = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end) return false;
  out = value;
  return true;
}

}  // namespace

bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
bool is_digit(char c) { return c >= '0' && c <= '9'; }

int hex_digit(char c) {
  if (is_digit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string_view trim_right(std::string_view text) {
  while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
  return text;
}

std::string_view trim(std::string_view text) {
  text = trim_right(text);
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  return text;
}

bool parse_u32(std::string_view text, std::uint32_t& out) { return parse_digits(text, out); }
bool parse_u64(std::string_view text, std::uint64_t& out) { return parse_digits(text, out); }
bool parse_i64(std::string_view text, std::int64_t& out) { return parse_digits(text, out); }

bool next_list_item(std::string_view& rest, std::string_view& item) {
  while (!rest.empty() && rest.front() == ',') rest.remove_prefix(1);
  if (rest.empty()) return false;
  const std::size_t comma = rest.find(',');
  item = rest.substr(0, comma);
  rest.remove_prefix(item.size());
  return true;
}

}  // namespace orv
