#include "common/line_syntax.h"

#include "common/text.h"

namespace orv {
namespace {

constexpr std::size_t kNone = std::string_view::npos;

bool is_blank(char c) { return c == ' ' || c == '\t'; }
bool is_quote(char c) { return c == '"' || c == '\''; }
bool starts_comment(char c) { return c == '#' || c == ';'; }

// Whether the backslash at `i` hides the next character from the search for the closing quote.
bool is_escape(std::string_view text, std::size_t i, char quote) {
  return quote == '"' && text[i] == '\\' && i + 1 < text.size() &&
         (text[i + 1] == '"' || text[i + 1] == '\\');
}

// Where the quoted text that opens at `begin` is closed; kNone when it is not.
std::size_t closing_quote(std::string_view text, std::size_t begin) {
  const char quote = text[begin];
  for (std::size_t i = begin + 1; i < text.size(); ++i) {
    if (text[i] == quote) return i;
    if (is_escape(text, i, quote)) ++i;
  }
  return kNone;
}

std::string_view without_line_end(std::string_view line) {
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.remove_suffix(1);
  return line;
}

// Where the first comment of line[begin, end) starts, `end` when there is none. A comment needs a
// blank before it or the start of the line.
std::size_t find_comment(std::string_view line, std::size_t begin, std::size_t end) {
  for (std::size_t i = begin; i < end; ++i) {
    if (starts_comment(line[i]) && (i == 0 || is_blank(line[i - 1]))) return i;
  }
  return end;
}

}  // namespace

std::optional<std::size_t> content_length(std::string_view raw_line) {
  const std::string_view line = without_line_end(raw_line);
  // Quotes count in values only: what begins a comment before the "=" is one.
  const std::size_t equals = line.find('=');
  const std::size_t key_end = equals == kNone ? line.size() : equals;
  if (const std::size_t comment = find_comment(line, 0, key_end); comment < key_end) return comment;
  if (equals == kNone) return line.size();

  std::size_t value = equals + 1;
  while (value < line.size() && is_blank(line[value])) ++value;
  if (value == line.size() || !is_quote(line[value])) {
    return find_comment(line, value, line.size());
  }
  const std::size_t close = closing_quote(line, value);
  if (close == kNone) return std::nullopt;
  // After the closing quote only blanks and a comment may follow: the rest of a value would be
  // lost.
  std::size_t rest = close + 1;
  while (rest < line.size() && is_blank(line[rest])) ++rest;
  if (rest < line.size() && !starts_comment(line[rest])) return std::nullopt;
  return rest;
}

std::optional<std::string_view> section_name(std::string_view trimmed_line) {
  if (trimmed_line.size() < 2 || trimmed_line.front() != '[' || trimmed_line.back() != ']') {
    return std::nullopt;
  }
  return trim(trimmed_line.substr(1, trimmed_line.size() - 2));
}

std::optional<KeyValue> split_key_value(std::string_view trimmed_line) {
  const std::size_t equals = trimmed_line.find('=');
  if (equals == kNone) return std::nullopt;
  return KeyValue{trim(trimmed_line.substr(0, equals)), trim(trimmed_line.substr(equals + 1))};
}

void unquote(std::string_view value, SecretString& out) {
  if (value.empty() || !is_quote(value.front())) {
    out.assign(value);
    return;
  }
  const char quote = value.front();
  out.clear();
  for (std::size_t i = 1; i < value.size() && value[i] != quote; ++i) {
    if (is_escape(value, i, quote)) ++i;
    out.push_back(value[i]);
  }
}

}  // namespace orv
