#include "api/config_text.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "api/reply.h"
#include "common/digest.h"
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

std::optional<Extent> find_section(const std::vector<Line>& lines, std::string_view section) {
  const auto is_header = [](const Line& line) { return header_of(line).has_value(); };
  const auto first = std::find_if(lines.begin(), lines.end(),
                                  [&](const Line& line) { return header_of(line) == section; });
  if (first == lines.end()) return std::nullopt;
  const auto last = std::find_if(first + 1, lines.end(), is_header);
  return Extent{static_cast<std::size_t>(first - lines.begin()),
                static_cast<std::size_t>(last - lines.begin())};
}

bool needs_quotes(std::string_view value) {
  if (value.starts_with('"') || value.starts_with('\'')) return true;
  for (std::size_t i = 0; i < value.size(); ++i) {
    const bool comment_sign = value[i] == '#' || value[i] == ';';
    if (comment_sign && (i == 0 || kBlanks.find(value[i - 1]) != std::string_view::npos))
      return true;
  }
  return false;
}

// What the line carries behind its value: blanks, a comment, the line ending.
std::string_view tail_of(const Line& line) {
  const char* const end = line.content.data() + line.content.size();
  return line.raw.substr(static_cast<std::size_t>(end - line.raw.data()));
}

std::string_view line_ending(std::string_view raw) { return raw.ends_with("\r\n") ? "\r\n" : "\n"; }

void append_value(std::string& out, std::string_view value) {
  const bool quoted = needs_quotes(value);
  const char quote = value.find('\'') == std::string_view::npos ? '\'' : '"';
  if (quoted) out += quote;
  for (const char c : value) {
    if (quoted && quote == '"' && (c == '"' || c == '\\')) out += '\\';
    out += c;
  }
  if (quoted) out += quote;
}

void append_setting(std::string& out, const KeyEdit& edit, std::string_view tail) {
  out.append(edit.key).append("=");
  append_value(out, *edit.value);
  // A comment may follow a closing quote directly, but not a bare value.
  if ((tail.starts_with('#') || tail.starts_with(';')) && !needs_quotes(*edit.value)) out += ' ';
  out.append(tail);
}

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

  void append_rest(std::string& out, std::string_view ending) const {
    for (std::size_t i = 0; i < edits_.size(); ++i) {
      if (edits_[i].value && !done_[i]) append_setting(out, edits_[i], ending);
    }
  }

  [[nodiscard]] bool rest_to_write() const {
    for (std::size_t i = 0; i < edits_.size(); ++i) {
      if (edits_[i].value && !done_[i]) return true;
    }
    return false;
  }

 private:
  std::span<const KeyEdit> edits_;
  std::vector<bool> done_;
};

std::string edit_section(const std::vector<Line>& lines, const Extent& extent, std::string out,
                         std::span<const KeyEdit> edits) {
  PendingEdits pending(edits);
  std::size_t insert_at = 0;  // in `out`, behind the section's last key line
  std::string_view ending = "\n";
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
    if (i == extent.begin || !key.empty()) {
      insert_at = out.size();
      ending = line_ending(line.raw);
    }
    if (i + 1 == extent.end && pending.rest_to_write()) {
      if (!std::string_view(out).substr(0, insert_at).ends_with('\n'))
        out.insert(insert_at++, "\n");
      // Written behind everything and turned into place: a copy might be one of the password.
      const auto end = static_cast<std::ptrdiff_t>(out.size());
      pending.append_rest(out, ending);
      std::rotate(out.begin() + static_cast<std::ptrdiff_t>(insert_at), out.begin() + end,
                  out.end());
    }
  }
  return out;
}

}  // namespace

std::string quote_value(std::string_view value) {
  std::string out;
  append_value(out, value);
  return out;
}

std::optional<std::string> set_keys(std::string_view text, std::string_view section,
                                    std::span<const KeyEdit> edits) {
  if (!writable(section, edits)) return std::nullopt;
  std::size_t room = text.size() + section.size() + 8;
  for (const KeyEdit& edit : edits) {
    room += edit.key.size() + 2 * (edit.value ? edit.value->size() : 0) + 8;
  }
  // Reserved at once: a text that grows leaves copies of itself, and the file may hold a password.
  std::string out;
  out.reserve(room);
  const std::vector<Line> lines = split_lines(text);
  if (const std::optional<Extent> extent = find_section(lines, section)) {
    return edit_section(lines, *extent, std::move(out), edits);
  }
  out.append(text);
  if (!text.empty()) out.append(text.ends_with('\n') ? "\n" : "\n\n");
  out.append("[").append(section).append("]\n");
  PendingEdits(edits).append_rest(out, "\n");
  return out;
}

std::optional<std::string> remove_section(std::string_view text, std::string_view section) {
  const std::vector<Line> lines = split_lines(text);
  const std::optional<Extent> extent = find_section(lines, section);
  if (!extent) return std::nullopt;
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i < extent->begin || i >= extent->end) out.append(lines[i].raw);
  }
  return out;
}

EntityTag entity_tag(std::string_view text) {
  EntityTag tag;
  tag.set_truncated("\"" + std::string(to_hex(sha256(text)).view()) + "\"");
  return tag;
}

}  // namespace orv
