#include "config/values.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <strings.h>
#include <time.h>

#include <algorithm>
#include <array>
#include <limits>
#include <string>

#include "common/calendar.h"
#include "common/files.h"
#include "common/message.h"
#include "common/secret.h"
#include "common/text.h"

namespace orv {
namespace {

template <typename Value>
struct Word {
  std::string_view text;
  Value value;
};

template <typename Value, std::size_t kCount>
bool find_word(const Word<Value> (&words)[kCount], std::string_view text, Value& out) {
  for (const Word<Value>& word : words) {
    if (text != word.text) continue;
    out = word.value;
    return true;
  }
  return false;
}

constexpr Word<Notify> kNotifyWords[] = {
    {"never", Notify::Never}, {"failed", Notify::Failed}, {"always", Notify::Always}};

constexpr Word<TlsMode> kTlsWords[] = {
    {"none", TlsMode::None}, {"starttls", TlsMode::StartTls}, {"smtps", TlsMode::Smtps}};

template <typename Value, std::size_t kCount>
const char* word_of(const Word<Value> (&words)[kCount], Value value, const char* otherwise) {
  for (const Word<Value>& word : words) {
    if (word.value == value) return word.text.data();
  }
  return otherwise;
}

// The port behind the address of a listen setting.
bool parse_port(std::string_view text, std::uint32_t& out) {
  std::uint32_t port = 0;
  if (!parse_u32(text, port) || port < 1 || port > 65535) return false;
  out = port;
  return true;
}

// Cuts "<address>:<port>", "[<ipv6>]:<port>" or "<port>" in two; the address is empty for the last.
bool split_listen(std::string_view text, std::string_view& host, std::string_view& port) {
  if (!text.empty() && text.front() == '[') {
    const std::size_t close = text.find(']');
    if (close == std::string_view::npos || text.substr(close + 1, 1) != ":") return false;
    host = text.substr(1, close - 1);
    port = text.substr(close + 2);
    return !host.empty();
  }
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    host = {};
    port = text;
    return true;
  }
  host = text.substr(0, colon);
  port = text.substr(colon + 1);
  return !host.empty() && host.find(':') == std::string_view::npos;
}

bool is_numeric_address(const char* host) {
  std::array<unsigned char, sizeof(in6_addr)> address{};
  return ::inet_pton(AF_INET, host, address.data()) == 1 ||
         ::inet_pton(AF_INET6, host, address.data()) == 1;
}

struct RetentionRow {
  char letter;
  RetentionUnit unit;
  std::uint32_t max;    // 100 years
  std::int64_t unit_s;  // 0: the unit is `months` of the calendar
  std::int64_t months;
};
constexpr RetentionRow kRetentionUnits[] = {
    {'d', RetentionUnit::Days, 36500, 86400, 0},
    {'w', RetentionUnit::Weeks, 5200, 604800, 0},
    {'m', RetentionUnit::Months, 1200, 0, 1},
    {'y', RetentionUnit::Years, 100, 0, 12},
};
constexpr std::int64_t kForever = std::numeric_limits<std::int64_t>::max();

std::int64_t add_months(std::int64_t from, std::int64_t months) {
  const time_t start = from;
  struct tm date {};
  if (::gmtime_r(&start, &date) == nullptr) return kForever;
  const std::int64_t month = date.tm_mon + months;
  const std::int64_t year = date.tm_year + month / 12;
  if (year > std::numeric_limits<int>::max()) return kForever;
  date.tm_year = static_cast<int>(year);
  date.tm_mon = static_cast<int>(month % 12);
  date.tm_mday =
      std::min(date.tm_mday, days_in_month(year + 1900, static_cast<std::size_t>(date.tm_mon) + 1));
  return ::timegm(&date);
}

// Takes a number off the front of `text`.
bool take_number(std::string_view& text, int& out) {
  std::size_t digits = 0;
  while (digits < text.size() && is_digit(text[digits])) ++digits;
  std::uint32_t number = 0;
  if (!parse_u32(text.substr(0, digits), number)) return false;
  if (number > static_cast<std::uint32_t>(std::numeric_limits<int>::max())) return false;
  text.remove_prefix(digits);
  out = static_cast<int>(number);
  return true;
}

bool take_char(std::string_view& text, char c) {
  if (text.empty() || text.front() != c) return false;
  text.remove_prefix(1);
  return true;
}

// Reads "<year>-<month>-<day> <hour>:<minute>[:<second>]". What follows does not count, unless it
// could be meant as a time zone, an offset from UTC or the half of a day: the time is always local,
// and by the clock of 24 hours.
bool scan_date(std::string_view text, struct tm& date) {
  int year = 0;
  if (!take_number(text, year) || !take_char(text, '-') || !take_number(text, date.tm_mon) ||
      !take_char(text, '-') || !take_number(text, date.tm_mday)) {
    return false;
  }
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  if (!take_number(text, date.tm_hour) || !take_char(text, ':') ||
      !take_number(text, date.tm_min)) {
    return false;
  }
  if (take_char(text, ':') && !text.empty() && is_digit(text.front()) &&
      !take_number(text, date.tm_sec)) {
    return false;
  }
  date.tm_year = year - 1900;
  date.tm_mon -= 1;
  return std::none_of(text.begin(), text.end(), [](char c) {
    return c == '-' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  });
}

bool local_time(struct tm date, std::int64_t& out) {
  // In an hour that occurs twice mktime() keeps to the offset of the call before. Asking it for the
  // day's midnight first gives a text the same meaning at every load: the first of both.
  struct tm midnight = date;
  midnight.tm_hour = midnight.tm_min = midnight.tm_sec = 0;
  midnight.tm_isdst = -1;
  (void)::mktime(&midnight);  // asked for its effect on the next call
  date.tm_isdst = -1;
  const time_t time = ::mktime(&date);
  if (time == -1) return false;
  out = time;
  return true;
}

bool parse_local_once(std::string_view text, std::int64_t& out) {
  if (text.size() > kMaxOnceText || text.find_first_of("Zz+") != std::string_view::npos) {
    return false;
  }
  std::array<char, kMaxOnceText> copy{};  // the caller's text keeps its T
  text.copy(copy.data(), text.size());
  const std::size_t t = text.find_first_of("Tt");
  if (t != std::string_view::npos) copy[t] = ' ';
  struct tm date {};
  return scan_date({copy.data(), text.size()}, date) && local_time(date, out);
}

constexpr std::size_t kMaxSecretFileHead = 127;  // bytes of a secret's file that are looked at

bool read_secret_file(std::string_view path, FixedSecret<kMaxSecret>& out) {
  if (path.find('\0') != std::string_view::npos) return false;
  std::array<char, kMaxSecretFileHead> head{};
  const ScopedWipe wipe(head.data(), head.size());
  // A fifo that nobody writes to must not block the scheduler.
  const ScopedFd file = open_file(std::string(path).c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
  std::size_t size = 0;
  if (!file.valid() || read_up_to(file.get(), head, size) != ErrorCode::Ok) return false;
  std::string_view text(head.data(), size);
  const std::size_t last = text.find_last_not_of(" \t\r\n");
  text = text.substr(0, last == std::string_view::npos ? 0 : last + 1);
  // A NUL byte would silently cut the secret wherever it is used as a C string.
  return !text.empty() && text.find('\0') == std::string_view::npos && out.set(text);
}

}  // namespace

bool parse_yes_no(std::string_view text, bool& out) {
  constexpr Word<bool> kWords[] = {{"yes", true}, {"true", true},   {"1", true},
                                   {"no", false}, {"false", false}, {"0", false}};
  for (const Word<bool>& word : kWords) {
    if (text.size() != word.text.size() ||
        ::strncasecmp(text.data(), word.text.data(), text.size()) != 0) {
      continue;
    }
    out = word.value;
    return true;
  }
  return false;
}

bool parse_notify(std::string_view text, Notify& out) { return find_word(kNotifyWords, text, out); }

const char* notify_name(Notify notify) { return word_of(kNotifyWords, notify, "inherit"); }

bool parse_tls_mode(std::string_view text, TlsMode& out) { return find_word(kTlsWords, text, out); }

const char* tls_mode_name(TlsMode mode) { return word_of(kTlsWords, mode, "?"); }

bool parse_listen(std::string_view text, ListenAddress& out) {
  std::string_view host;
  std::string_view port;
  if (text.find('\0') != std::string_view::npos || !split_listen(text, host, port)) return false;
  ListenAddress address;
  if (!address.host.set(host.empty() ? "0.0.0.0" : host) || !parse_port(port, address.port) ||
      !is_numeric_address(address.host.c_str())) {
    return false;
  }
  out = address;
  return true;
}

bool parse_retention(std::string_view text, Retention& out) {
  if (text == "forever") {
    out = Retention{};
    return true;
  }
  if (text.size() < 2 || text.front() == '0') return false;
  std::uint32_t count = 0;
  if (!parse_u32(text.substr(0, text.size() - 1), count)) return false;
  for (const RetentionRow& row : kRetentionUnits) {
    if (text.back() != row.letter) continue;
    if (count > row.max) return false;
    out = {row.unit, count};
    return true;
  }
  return false;
}

std::int64_t add_retention(std::int64_t from, const Retention& retention) {
  for (const RetentionRow& row : kRetentionUnits) {
    if (row.unit != retention.unit) continue;
    if (row.unit_s == 0) return add_months(from, retention.count * row.months);
    std::int64_t until = 0;
    return __builtin_add_overflow(from, retention.count * row.unit_s, &until) ? kForever : until;
  }
  return kForever;
}

bool check_retention_class(std::string_view text) {
  return !text.empty() && text.size() <= kMaxRetentionClass &&
         text.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789_-") == std::string_view::npos;
}

bool parse_once(std::string_view text, std::int64_t& out) {
  if (std::all_of(text.begin(), text.end(), is_digit)) return parse_i64(text, out);
  return parse_local_once(text, out);
}

int parse_secret_reference(std::string_view text, bool literal_allowed, SecretReference& out,
                           std::span<char> err) {
  struct Prefix {
    std::string_view text;
    SecretKind kind;
    const char* nothing_behind_it;
  };
  constexpr Prefix kPrefixes[] = {{"file:", SecretKind::File, "file: needs a path"},
                                  {"kms:", SecretKind::Kms, "kms: needs a url"}};
  if (text.empty()) return fail(err, "empty secret value");
  for (const Prefix& prefix : kPrefixes) {
    if (!text.starts_with(prefix.text)) continue;
    if (text == prefix.text) return fail(err, "%s", prefix.nothing_behind_it);
    out = {prefix.kind, text.substr(prefix.text.size())};
    return 0;
  }
  if (!literal_allowed) {
    return fail(err,
                "a literal value is not accepted here (visible via /proc/ps) -- use file:<path> or "
                "kms:<url>");
  }
  out = {SecretKind::Literal, text};
  return 0;
}

bool read_secret(const SecretReference& reference, FixedSecret<kMaxSecret>& out) {
  switch (reference.kind) {
    case SecretKind::Literal: return !reference.text.empty() && out.set(reference.text);
    case SecretKind::File: return read_secret_file(reference.text, out);
    case SecretKind::Kms: return false;
  }
  return false;
}

}  // namespace orv
