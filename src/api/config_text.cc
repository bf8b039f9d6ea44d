#include "api/config_text.h"

#include <algorithm>
#include <vector>

#include "common/line_syntax.h"
#include "common/text.h"

namespace orv {
namespace {

constexpr std::string_view kBlanks = " \t";

// One line with its line feed, and what the loader would see in it.
struct Line {
  std::string_view raw;
  std::string_view content;  // trimmed, without comment; empty for a line that says nothing
};

// A line with a quote fault says nothing to an edit and stays: the loader will complain about it.
std::vector<Line> split_lines(std::string_view text) {
  std::vector<Line> lines;
  while (!text.empty()) {
    const std::size_t feed = text.find('\n');
    const std::string_view raw = text.substr(0, feed == std::string_view::npos ? feed : feed + 1);
    const std::optional<std::size_t> length = content_length(raw);
    lines.push_back({raw, length ? trim(raw.substr(0, *length)) : std::string_view{}});
    text.remove_prefix(raw.size());
  }
  return lines;
}

std::optional<std::string_view> header_of(const Line& line) {
  return line.content.starts_with('[') ? section_name(line.content) : std::nullopt;
}

std::string_view key_of(const Line& line) {
  if (line.content.starts_with('[')) return {};
  const std::optional<KeyValue> pair = split_key_value(line.content);
  return pair ? pair->key : std::string_view{};
}

// The lines of a section, its header first.
struct Extent {
  std::size_t begin = 0;
  std::size_t end = 0;
};

// Of several sections of one name the first counts; the loader takes no such file anyway.
std::optional<Extent> find_section(const std::vector<Line>& lines, std::string_view section) {
  const auto is_header = [](const Line& line) { return header_of(line).has_value(); };
  const auto first = std::find_if(lines.begin(), lines.end(),
                                  [&](const Line& line) { return header_of(line) == section; });
  if (first == lines.end()) return std::nullopt;
  const auto last = std::find_if(first + 1, lines.end(), is_header);
  return Extent{static_cast<std::size_t>(first - lines.begin()),
                static_cast<std::size_t>(last - lines.begin())};
}

// Without quotes the loader would take a leading quote for one, and cut the value at a comment
// sign.
bool needs_quotes(std::string_view value) {
  if (value.starts_with('"') || value.starts_with('\'')) return true;
  for (std::size_t i = 0; i < value.size(); ++i) {
    const bool comment_sign = value[i] == '#' || value[i] == ';';
    if (comment_sign && (i == 0 || kBlanks.find(value[i - 1]) != std::string_view::npos))
      return true;
  }
  return false;
}

// What the line carries after its value: blanks, a comment, the line ending.
std::string_view tail_of(const Line& line) {
  const char* const end = line.content.data() + line.content.size();
  return line.raw.substr(static_cast<std::size_t>(end - line.raw.data()));
}

std::string_view line_ending(std::string_view raw) { return raw.ends_with("\r\n") ? "\r\n" : "\n"; }

// Single quotes where they will do, because they know no escapes.
void append_value(SecretString& out, std::string_view value) {
  const bool quoted = needs_quotes(value);
  const char quote = value.find('\'') == std::string_view::npos ? '\'' : '"';
  if (quoted) out += quote;
  for (const char c : value) {
    if (quoted && quote == '"' && (c == '"' || c == '\\')) out += '\\';
    out += c;
  }
  if (quoted) out += quote;
}

void append_setting(SecretString& out, const KeyEdit& edit, std::string_view tail) {
  out.append(edit.key).append("=");
  append_value(out, *edit.value);
  const bool quoted = needs_quotes(*edit.value);
  // A comment may follow a closing quote directly, but not a bare value.
  if ((tail.starts_with('#') || tail.starts_with(';')) && !quoted) out += ' ';
  // After a bare value the loader skips white space of any kind, after a closing quote only blanks
  // and the line's end.
  const std::size_t line_end = tail.find_last_not_of("\r\n") + 1;  // 0 when there is nothing else
  std::size_t taken = 0;
  for (; quoted && taken < line_end && is_space(tail[taken]); ++taken) {
    out += tail[taken] == '\t' ? '\t' : ' ';
  }
  out.append(tail.substr(taken));
}

// A key that would read back as another one, as a comment or as a header.
bool writable_key(std::string_view key) {
  return !key.empty() && key.find_first_of("=#[] \t\r\n") == std::string_view::npos;
}

bool writable(std::string_view section, std::span<const KeyEdit> edits) {
  if (!check_stored_value(section) || section.find_first_of("[]") != std::string_view::npos) {
    return false;
  }
  return std::all_of(edits.begin(), edits.end(), [](const KeyEdit& edit) {
    return writable_key(edit.key) && (!edit.value || check_stored_value(*edit.value));
  });
}

// Edits on their way into a section: each value is written once.
class PendingEdits {
 public:
  explicit PendingEdits(std::span<const KeyEdit> edits) : edits_(edits), done_(edits.size()) {}

  // The edit that a line of this key is subject to, or null. Removals take every line of their key.
  const KeyEdit* take(std::string_view key) {
    for (std::size_t i = 0; i < edits_.size(); ++i) {
      if (edits_[i].key != key || (edits_[i].value && done_[i])) continue;
      done_[i] = true;
      return &edits_[i];
    }
    return nullptr;
  }

  // Adds lines, with the given line end, for the values that no line has taken.
  void append_rest(SecretString& out, std::string_view ending) const {
    for (std::size_t i = 0; i < edits_.size(); ++i) {
      if (!edits_[i].value || done_[i]) continue;
      if (!out.ends_with('\n')) out += '\n';  // the text's last line may lack its end
      append_setting(out, edits_[i], ending);
    }
  }

 private:
  std::span<const KeyEdit> edits_;
  std::vector<bool> done_;
};

// After which line of the section new settings go: its last setting, or its header.
std::size_t insertion_line(const std::vector<Line>& lines, const Extent& extent) {
  std::size_t last = extent.begin;
  for (std::size_t i = extent.begin; i < extent.end; ++i) {
    if (!key_of(lines[i]).empty()) last = i;
  }
  return last;
}

void edit_section(const std::vector<Line>& lines, const Extent& extent,
                  std::span<const KeyEdit> edits, SecretString& out) {
  PendingEdits pending(edits);
  const std::size_t insert_after = insertion_line(lines, extent);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const Line& line = lines[i];
    const bool inside = i >= extent.begin && i < extent.end;
    const std::string_view key = inside ? key_of(line) : std::string_view{};
    const KeyEdit* const edit = key.empty() ? nullptr : pending.take(key);
    if (edit == nullptr) {
      out.append(line.raw);
    } else if (edit->value) {
      append_setting(out, *edit, tail_of(line));
    }
    // No line of the section takes an edit after this one, so what is left is new.
    if (i == insert_after) pending.append_rest(out, line_ending(line.raw));
  }
}

}  // namespace

bool check_stored_value(std::string_view text) {
  if (text.empty() || text.size() > kMaxStoredValue) return false;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f) return false;
  }
  // All other white space is a control character.
  return text.front() != ' ' && text.back() != ' ';
}

SecretString quote_value(std::string_view value) {
  SecretString out;
  append_value(out, value);
  return out;
}

std::optional<SecretString> set_keys(std::string_view text, std::string_view section,
                                     std::span<const KeyEdit> edits) {
  if (!writable(section, edits)) return std::nullopt;
  SecretString out;
  out.reserve(text.size() + 1024);  // enough for most changes; growing wipes what it leaves
  const std::vector<Line> lines = split_lines(text);
  if (const std::optional<Extent> extent = find_section(lines, section)) {
    edit_section(lines, *extent, edits, out);
    return out;
  }
  out.append(text);
  // One empty line sets the new section off, also when the last line lacks its end.
  if (!text.empty()) out.append(text.ends_with('\n') ? "\n" : "\n\n");
  out.append("[").append(section).append("]\n");
  PendingEdits(edits).append_rest(out, "\n");
  return out;
}

bool has_section(std::string_view text, std::string_view section) {
  return find_section(split_lines(text), section).has_value();
}

std::optional<SecretString> remove_section(std::string_view text, std::string_view section) {
  const std::vector<Line> lines = split_lines(text);
  const std::optional<Extent> extent = find_section(lines, section);
  if (!extent) return std::nullopt;
  SecretString out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i < extent->begin || i >= extent->end) out.append(lines[i].raw);
  }
  return out;
}

}  // namespace orv
