#include "netproc/mail_message.h"

#include <time.h>

#include <algorithm>
#include <cstddef>

#include "common/text.h"
#include "common/utf8.h"

namespace orv {
namespace {

constexpr std::size_t kFoldAt = 76;           // columns of a folded line
constexpr std::size_t kMaxPlainLine = 998;    // bytes, without the line end
constexpr std::size_t kEncodedWordData = 42;  // bytes: with base64 and its frame below 75 columns
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

unsigned char byte_at(std::string_view text, std::size_t at) {
  return static_cast<unsigned char>(text[at]);
}

// Takes the next character off `rest`; what is not UTF-8 gives the replacement character.
std::string_view next_character(std::string_view& rest) {
  const std::size_t length = utf8_sequence(rest);
  const std::string_view character = length == 0 ? kReplacement : rest.substr(0, length);
  rest.remove_prefix(std::max<std::size_t>(length, 1));
  return character;
}

void append_base64(std::string& out, std::string_view bytes) {
  static constexpr char kDigits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t left = std::min<std::size_t>(bytes.size() - i, 3);
    unsigned value = static_cast<unsigned>(byte_at(bytes, i)) << 16;
    if (left > 1) value |= static_cast<unsigned>(byte_at(bytes, i + 1)) << 8;
    if (left > 2) value |= byte_at(bytes, i + 2);
    out += kDigits[value >> 18];
    out += kDigits[value >> 12 & 63];
    out += left > 1 ? kDigits[value >> 6 & 63] : '=';
    out += left > 2 ? kDigits[value & 63] : '=';
  }
}

// One line, no control characters, well-formed UTF-8: what a header value may hold.
std::string clean_line(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const std::string_view character = next_character(text);
    const unsigned char c = byte_at(character, 0);
    if (c < 0x20 || c == 0x7F) {
      out += ' ';
    } else {
      out += character;
    }
  }
  return out;
}

void append_encoded_words(std::string& out, std::string_view text) {
  std::string word;
  bool first = true;
  const auto flush = [&] {
    if (!first) out += "\r\n ";
    first = false;
    out += "=?UTF-8?B?";
    append_base64(out, word);
    out += "?=";
    word.clear();
  };
  // A word ends between characters: a reader decodes each by itself (RFC 2047, section 5).
  while (!text.empty()) {
    const std::string_view character = next_character(text);
    if (word.size() + character.size() > kEncodedWordData) flush();
    word += character;
  }
  flush();
}

// Breaks plain text before spaces. Never leaves a line that is empty but for the space.
void append_folded(std::string& out, std::size_t column, std::string_view text) {
  std::size_t at = 0;
  while (at < text.size()) {
    std::size_t end = text.find(' ', text.find_first_not_of(' ', at));
    if (end == std::string_view::npos) end = text.size();
    const std::string_view word = text.substr(at, end - at);
    if (column + word.size() > kFoldAt && word.front() == ' ') {
      out += "\r\n";
      column = 0;
    }
    out += word;
    column += word.size();
    at = end;
  }
}

void append_subject(std::string& out, std::string_view raw) {
  std::string text = clean_line(raw);
  text.erase(text.find_last_not_of(' ') + 1);  // a fold must not end in a line of spaces
  out += "Subject: ";
  // What looks like an encoded word would be decoded by the reader: then it is encoded, too.
  const bool plain = std::all_of(text.begin(), text.end(), [](char c) { return c > 0; }) &&
                     text.find("=?") == std::string::npos && text.size() < kMaxPlainLine - 20;
  if (text.empty()) {
    out += "(no subject)";
  } else if (plain) {
    append_folded(out, 9, text);
  } else {
    append_encoded_words(out, text);
  }
  out += "\r\n";
}

void append_date(std::string& out, std::int64_t now) {
  const time_t when = now;
  struct tm local {};
  char text[64];
  if (::localtime_r(&when, &local) == nullptr ||
      ::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S %z", &local) == 0) {
    return;
  }
  out += "Date: ";
  out += text;
  out += "\r\n";
}

// The part of `rest` before its next line end (LF, CRLF or a lone CR, which progress displays leave
// behind), which goes too.
std::string_view next_line(std::string_view& rest) {
  const std::size_t end = std::min(rest.find_first_of("\r\n"), rest.size());
  const std::string_view line = rest.substr(0, end);
  rest.remove_prefix(end);
  if (rest.starts_with("\r\n")) {
    rest.remove_prefix(2);
  } else if (!rest.empty()) {
    rest.remove_prefix(1);
  }
  return line;
}

bool is_plain_body(std::string_view body) {
  while (!body.empty()) {
    const std::string_view line = next_line(body);
    const auto bad = [](char c) { return (c < 0x20 && c != '\t') || c == 0x7F; };
    if (line.size() > kMaxPlainLine || std::any_of(line.begin(), line.end(), bad)) return false;
  }
  return true;
}

// RFC 2045, section 6.7. A dot at the start is quoted too: some servers mishandle it.
void append_quoted_line(std::string& out, std::string_view line) {
  std::size_t column = 0;
  const auto put = [&](std::string_view piece) {
    if (column + piece.size() > kFoldAt - 1) {
      out += "=\r\n";
      column = 0;
    }
    out += piece;
    column += piece.size();
  };
  while (!line.empty()) {
    const std::string_view character = next_character(line);
    const unsigned char c = byte_at(character, 0);
    const bool at_end = line.empty();
    const bool blank = c == ' ' || c == '\t';
    if ((c > 0x20 && c < 0x7F && c != '=' && !(c == '.' && column == 0)) || (blank && !at_end)) {
      put(character);
      continue;
    }
    std::string quoted;  // a character is never split between two lines
    for (const char byte : character) {
      const auto value = static_cast<unsigned char>(byte);
      quoted += {'=', kUpperHexDigits[value >> 4], kUpperHexDigits[value & 15]};
    }
    put(quoted);
  }
  out += "\r\n";
}

}  // namespace

std::string mail_message_text(const MailMessage& mail) {
  const std::string from = clean_line(mail.from);
  std::string out;
  out.reserve(mail.body.size() + mail.body.size() / 8 + 2048);
  append_date(out, mail.now);
  out += "From: <" + from + ">\r\n";
  out += "To: ";
  for (std::size_t i = 0; i < mail.recipients.size(); ++i) {
    out += (i == 0 ? "<" : ",\r\n <") + clean_line(mail.recipients[i]) + ">";
  }
  out += "\r\n";
  append_subject(out, mail.subject);
  out += "Message-ID: <" + std::string(mail.unique_id) + from.substr(from.find('@')) + ">\r\n";
  out += "MIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8\r\n";
  out += "Auto-Submitted: auto-generated\r\n";  // no vacation notes come back for it
  // Plain where that is possible: logs are read in mailboxes with simple tools, too.
  const bool plain = is_plain_body(mail.body);
  out += plain ? "Content-Transfer-Encoding: 7bit\r\n\r\n"
               : "Content-Transfer-Encoding: quoted-printable\r\n\r\n";
  for (std::string_view rest = mail.body; !rest.empty();) {
    const std::string_view line = next_line(rest);
    if (plain) {
      out.append(line).append("\r\n");
    } else {
      append_quoted_line(out, line);
    }
  }
  return out;
}

}  // namespace orv
