#include "config/key_tables.h"

#include <algorithm>
#include <type_traits>

#include "common/message.h"
#include "common/text.h"
#include "config/after_list.h"

namespace orv {
namespace {

// A store gives its field the value or refuses; a load ends with the first refusal, so it does not
// matter what that leaves in the field.
struct KeyRow {
  std::string_view key;
  bool (*store)(KeyTarget& target, std::string_view value, std::span<char> words);
  const char* complaint;    // null: the store has worded it in `words`
  bool names_place = true;  // the message begins "<path>:<line>: "
};

template <typename Record, typename Field>
std::type_identity<Record> record_of(Field Record::*);

// The field in the record being filled.
template <auto kField>
auto& field(KeyTarget& target) {
  using Record = typename decltype(record_of(kField))::type;
  if constexpr (std::is_same_v<Record, SchedSection>) {
    return target.config.sched.*kField;
  } else if constexpr (std::is_same_v<Record, MailSection>) {
    return target.config.mail.*kField;
  } else if constexpr (std::is_same_v<Record, ApiSection>) {
    return target.config.api.*kField;
  } else {
    static_assert(std::is_same_v<Record, Job>);
    return target.config.jobs.back().*kField;
  }
}

// What strtoul(3) passes over before a number. A minus sign is none of it: nothing may wrap.
std::string_view number_digits(std::string_view value) {
  while (!value.empty() && is_space(value.front())) value.remove_prefix(1);
  if (value.starts_with('+')) value.remove_prefix(1);
  return value;
}

template <auto kField, std::uint32_t kMin = 0, std::uint32_t kMax = UINT32_MAX>
bool number(KeyTarget& target, std::string_view value, std::span<char>) {
  std::uint32_t n = 0;
  if (!parse_u32(number_digits(value), n) || n < kMin || n > kMax) return false;
  field<kField>(target) = n;
  return true;
}

template <auto kField>
bool text(KeyTarget& target, std::string_view value, std::span<char>) {
  return field<kField>(target).set(value);
}

template <auto kField>
bool absolute_path(KeyTarget& target, std::string_view value, std::span<char>) {
  return value.front() == '/' && field<kField>(target).set(value);
}

template <auto kField>
bool yes_no(KeyTarget& target, std::string_view value, std::span<char>) {
  return parse_yes_no(value, field<kField>(target));
}

template <auto kField>
bool tristate(KeyTarget& target, std::string_view value, std::span<char>) {
  bool yes = false;
  if (!parse_yes_no(value, yes)) return false;
  field<kField>(target) = yes ? Tristate::Yes : Tristate::No;
  return true;
}

template <auto kField>
bool notify(KeyTarget& target, std::string_view value, std::span<char>) {
  return parse_notify(value, field<kField>(target));
}

// A name or an address alone: no login, no path, and no second word.
bool smtp_host(KeyTarget& target, std::string_view value, std::span<char>) {
  return value.find_first_of(" \t/@") == std::string_view::npos &&
         target.config.mail.smtp_host.set(value);
}

bool tls(KeyTarget& target, std::string_view value, std::span<char>) {
  return parse_tls_mode(value, target.config.mail.tls);
}

bool smtp_password(KeyTarget& target, std::string_view value, std::span<char>) {
  // It may be a reference to a file, which is only read once the whole configuration is known.
  if (!target.written_password.set(value)) return false;
  target.config.mail.smtp_password_set = true;
  return true;
}

bool mail_from(KeyTarget& target, std::string_view value, std::span<char>) {
  return check_mail_address(value) && target.config.mail.from.set(value);
}

bool mail_to(KeyTarget& target, std::string_view value, std::span<char> words) {
  if (value.size() > kMaxListText) return refuse(words, "'to' too long");
  std::vector<FixedText<kMaxMailAddress>> addresses;
  for (std::string_view item; next_list_item(value, item);) {
    const std::string_view address = trim(item);
    if (!check_mail_address(address)) {
      return refuse(words, "invalid address '%.*s' in 'to'", static_cast<int>(address.size()),
                    address.data());
    }
    if (addresses.size() == kMaxRecipients) {
      return refuse(words, "too many addresses in 'to'");
    }
    addresses.emplace_back().set_truncated(address);  // it fits: that was checked with the rest
  }
  target.config.mail.to.swap(addresses);
  return true;
}

bool listen(KeyTarget& target, std::string_view value, std::span<char>) {
  return parse_listen(value, target.config.api.listen);
}

bool allowed_commands(KeyTarget& target, std::string_view value, std::span<char> words) {
  if (value.size() > kMaxCommandsText) return refuse(words, "'allowed-commands' too long");
  std::uint32_t mask = 0;  // the list replaces the default, it does not add to it
  // "none" stands for the empty list, because a key must have a value.
  if (value == "none") value = {};
  for (std::string_view item; next_list_item(value, item);) {
    const std::string_view name = trim(item);
    JobCommand command{};
    if (!parse_command(name, command)) {
      return refuse(words, "unknown command '%.*s' in 'allowed-commands'",
                    static_cast<int>(name.size()), name.data());
    }
    mask |= 1U << static_cast<std::uint32_t>(command);
  }
  target.config.api.allowed_commands = mask;
  return true;
}

bool job_command(KeyTarget& target, std::string_view value, std::span<char> words) {
  if (parse_command(value, field<&Job::command>(target))) return true;
  return refuse(words, "unknown command '%.*s'", static_cast<int>(value.size()), value.data());
}

bool job_args(KeyTarget& target, std::string_view value, std::span<char> words) {
  // The text is kept with the tokens: the API shows and edits it as it was written.
  if (!field<&Job::args_text>(target).set(value)) return refuse(words, "'args' too long");
  return tokenize_args(value, field<&Job::args>(target), kMaxArgTokens, words) >= 0;
}

bool schedule(KeyTarget& target, std::string_view value, std::span<char> words) {
  // The parser comes first: its message is the one that helps, also for a text that is too long.
  CronSpec cron;
  std::array<char, 128> reason{};
  if (!cron_parse(value, cron, reason)) {
    return refuse(words, "invalid 'schedule': %s", reason.data());
  }
  if (!field<&Job::schedule_text>(target).set(value)) {
    return refuse(words, "'schedule' too long");
  }
  field<&Job::schedule>(target) = cron;
  field<&Job::has_schedule>(target) = true;
  return true;
}

bool once(KeyTarget& target, std::string_view value, std::span<char> words) {
  std::int64_t time = 0;
  if (!parse_once(value, time)) {
    return refuse(words,
                  "invalid 'once' timestamp '%.*s' (expected unix seconds or YYYY-MM-DDTHH:MM:SS "
                  "local time, no timezone suffix)",
                  static_cast<int>(value.size()), value.data());
  }
  if (!field<&Job::once_text>(target).set(value)) return refuse(words, "'once' too long");
  field<&Job::once>(target) = time;
  field<&Job::has_once>(target) = true;
  return true;
}

bool after(KeyTarget& target, std::string_view value, std::span<char> words) {
  return parse_after(value, field<&Job::after>(target), words);
}

bool after_mode(KeyTarget& target, std::string_view value, std::span<char>) {
  if (value != "success" && value != "finished") return false;
  field<&Job::after_mode>(target) = value == "success" ? AfterMode::Success : AfterMode::Finished;
  field<&Job::after_mode_given>(target) = true;
  return true;
}

bool retention(KeyTarget& target, std::string_view value, std::span<char>) {
  Retention parsed;
  return parse_retention(value, parsed) && field<&Job::retention>(target).set(value);
}

bool retention_class(KeyTarget& target, std::string_view value, std::span<char>) {
  return check_retention_class(value) && field<&Job::retention_class>(target).set(value);
}

// clang-format off
constexpr KeyRow kSchedKeys[] = {
    {"poll-interval",        number<&SchedSection::poll_interval_s>, "'poll-interval' must be a number"},
    {"busy-retry-seconds",   number<&SchedSection::busy_retry_s>,    "'busy-retry-seconds' must be a number"},
    {"job-timeout-seconds",  number<&SchedSection::job_timeout_s>,   "'job-timeout-seconds' must be a number"},
    {"job-log-dir",          text<&SchedSection::job_log_dir>,       "'job-log-dir' too long"},
    {"job-log-keep",         number<&SchedSection::job_log_keep>,    "'job-log-keep' must be a number"},
};

constexpr KeyRow kMailKeys[] = {
    {"smtp-host",            smtp_host,                                  "invalid 'smtp-host'"},
    {"smtp-port",            number<&MailSection::smtp_port, 1, 65535>,  "'smtp-port' must be 1..65535"},
    {"tls",                  tls,                                        "'tls' must be starttls, smtps or none"},
    {"smtp-user",            text<&MailSection::smtp_user>,              "'smtp-user' too long"},
    {"smtp-password",        smtp_password,                              "'smtp-password' too long"},
    {"from",                 mail_from,                                  "'from' must be a plain address like backup@example.com"},
    {"to",                   mail_to,                                    nullptr},
    {"ca-file",              text<&MailSection::ca_file>,                "'ca-file' too long"},
    {"timeout-seconds",      number<&MailSection::timeout_s, 1>,         "'timeout-seconds' must be a positive number"},
    {"notify",               notify<&MailSection::notify>,               "'notify' must be never, failed or always"},
};

constexpr KeyRow kApiKeys[] = {
    {"enabled",              yes_no<&ApiSection::enabled>,               "'enabled' must be yes or no"},
    {"listen",               listen,                                     "'listen' must be <address>:<port>, [<ipv6>]:<port> or <port> (numeric address)"},
    {"cert",                 absolute_path<&ApiSection::cert>,           "'cert' must be an absolute path"},
    {"key",                  absolute_path<&ApiSection::key>,            "'key' must be an absolute path"},
    {"tokens-file",          absolute_path<&ApiSection::tokens_file>,    "'tokens-file' must be an absolute path"},
    {"allow-config-write",   yes_no<&ApiSection::allow_config_write>,    "'allow-config-write' must be yes or no"},
    {"allow-args",           yes_no<&ApiSection::allow_args>,            "'allow-args' must be yes or no"},
    {"notify-changes",       yes_no<&ApiSection::notify_changes>,        "'notify-changes' must be yes or no"},
    {"allowed-commands",     allowed_commands,                           nullptr},
    {"max-clients",          number<&ApiSection::max_clients, 1, 256>,   "'max-clients' must be 1..256"},
    {"history-keep",         number<&ApiSection::history_keep, 0, 1000>, "'history-keep' must be 0..1000"},
};

static_assert(kMaxRetentionClass == 31, "the message of 'retention-class' names the limit");
constexpr KeyRow kJobKeys[] = {
    {"command",              job_command,                          nullptr},
    {"profile",              text<&Job::profile>,                  "'profile' too long"},
    {"args",                 job_args,                             nullptr},
    {"schedule",             schedule,                             nullptr},
    {"once",                 once,                                 nullptr},
    {"after",                after,                                nullptr, false},  // scripts match its messages without a place
    {"after-mode",           after_mode,                           "'after-mode' must be success or finished"},
    {"enabled",              yes_no<&Job::enabled>,                "'enabled' must be yes or no"},
    {"run-background",       tristate<&Job::run_background>,       "'run-background' must be yes or no"},
    {"start-background",     tristate<&Job::start_background>,     "'start-background' must be yes or no"},
    {"retention",            retention,                            "'retention' must be <n>d, <n>w, <n>m, <n>y (n >= 1, at most 100 years) or forever"},
    {"retention-class",      retention_class,                      "'retention-class' may only contain a-z, 0-9, '_' and '-' (at most 31 characters)"},
    {"notify",               notify<&Job::notify>,                 "'notify' must be never, failed or always"},
    {"timeout-seconds",      number<&Job::timeout_s>,              "'timeout-seconds' must be a number"},
};
// clang-format on

struct SectionRow {
  SectionKind kind;
  std::span<const KeyRow> keys;
  const char* unknown;  // of a key that is none of its keys
};
constexpr SectionRow kSections[] = {
    {SectionKind::Sched, kSchedKeys, "unknown [sched] setting"},
    {SectionKind::Mail, kMailKeys, "unknown [mail] setting"},
    {SectionKind::Api, kApiKeys, "unknown [api] setting"},
    {SectionKind::Job, kJobKeys, "unknown setting"},
};

}  // namespace

int store_key(SectionKind section, std::string_view key, std::string_view value,
              const LinePlace& place, KeyTarget& target, std::span<char> err) {
  const auto* kind = std::ranges::find(kSections, section, &SectionRow::kind);
  const auto row = std::ranges::find(kind->keys, key, &KeyRow::key);
  if (row == kind->keys.end()) {
    return fail(err, "%s:%zu: %s '%.*s'", place.path, place.number, kind->unknown,
                static_cast<int>(key.size()), key.data());
  }
  std::array<char, 2 * kMaxConfigLine> words;  // a message that shows the whole value
  words.front() = '\0';
  if (row->store(target, value, words)) return 0;
  const char* complaint = row->complaint != nullptr ? row->complaint : words.data();
  if (!row->names_place) return fail(err, "%s", complaint);
  return fail(err, "%s:%zu: %s", place.path, place.number, complaint);
}

std::vector<std::string_view> section_keys(SectionKind section) {
  const auto* kind = std::ranges::find(kSections, section, &SectionRow::kind);
  std::vector<std::string_view> names;
  for (const KeyRow& row : kind->keys) names.push_back(row.key);
  return names;
}

bool RememberedKeys::repeats(std::string_view key) {
  if (key.size() > kMaxKeyLength) return false;
  const auto end = keys_.begin() + static_cast<std::ptrdiff_t>(count_);
  if (std::find(keys_.begin(), end, key) != end) return true;
  if (count_ < kMaxKeys) keys_[count_++].set_truncated(key);
  return false;
}

}  // namespace orv
