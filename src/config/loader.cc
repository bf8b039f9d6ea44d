// Reading of the file: lines, section headers, and which section a line belongs to.
#include <fcntl.h>

#include <cerrno>
#include <new>
#include <string>
#include <unordered_set>

#include "common/files.h"
#include "common/line_syntax.h"
#include "common/message.h"
#include "common/secret.h"
#include "common/status.h"
#include "common/text.h"
#include "config/config.h"
#include "config/cross_checks.h"
#include "config/key_tables.h"

namespace orv {
namespace {

constexpr std::size_t kReadSize = 16384;  // bytes

struct Load {
  Load(LinePlace& line, Config& out, std::span<char> message)
      : place(line), target{out, {}}, err(message) {}

  LinePlace& place;  // of the line at hand
  KeyTarget target;
  std::span<char> err;
  SectionKind section = SectionKind::None;
  RememberedKeys keys;
  bool has_sched = false;
  std::unordered_set<std::string> job_names;
  // Any line may hold the password, so what lines and values pass through wipes itself.
  SecretString line_start;  // of a line whose end has not been read yet
  SecretString value;
};

// Fails with a message about the line at hand.
int fail_line(const Load& load, const char* complaint) {
  return fail(load.err, "%s:%zu: %s", load.place.path, load.place.number, complaint);
}

int fail_line(const Load& load, const char* complaint, std::string_view name) {
  return fail(load.err, "%s:%zu: %s '%.*s'", load.place.path, load.place.number, complaint,
              static_cast<int>(name.size()), name.data());
}

int open_job(Load& load, std::string_view name) {
  std::vector<Job>& jobs = load.target.config.jobs;
  std::string key(name);
  if (load.job_names.contains(key)) {
    return fail(load.err, "%s:%zu: duplicate section [%s]", load.place.path, load.place.number,
                key.c_str());
  }
  if (name.find('/') != std::string_view::npos) {
    return fail(load.err, "%s:%zu: job name '%s' must not contain '/'", load.place.path,
                load.place.number, key.c_str());
  }
  // The name is a directory below that of the job logs: these two would lead elsewhere.
  if (name == "." || name == "..") {
    return fail(load.err, "%s:%zu: a job must not be named '%s'", load.place.path,
                load.place.number, key.c_str());
  }
  if (jobs.size() == kMaxJobs) return fail_line(load, "too many jobs");
  if (name.size() > kMaxJobName) return fail_line(load, "job name too long");
  jobs.reserve(kMaxJobs);  // once: growing step by step would copy every job several times
  jobs.emplace_back().name.set_truncated(name);
  load.job_names.insert(std::move(key));
  load.section = SectionKind::Job;
  return 0;
}

int open_section(Load& load, std::string_view line) {
  const std::optional<std::string_view> name = section_name(line);
  if (!name) return fail_line(load, "malformed section header");
  if (name->empty()) return fail_line(load, "empty section name");
  load.keys.forget();

  Config& config = load.target.config;
  struct NamedSection {
    std::string_view name;
    SectionKind kind;
    bool& seen;
  };
  // Matched exactly: [Mail] opens a job of that name.
  const NamedSection sections[] = {{"sched", SectionKind::Sched, load.has_sched},
                                   {"api", SectionKind::Api, config.api.present},
                                   {"mail", SectionKind::Mail, config.mail.present}};
  for (const NamedSection& section : sections) {
    if (*name != section.name) continue;
    if (section.seen) {
      return fail(load.err, "%s:%zu: duplicate [%s] section", load.place.path, load.place.number,
                  section.name.data());
    }
    section.seen = true;
    load.section = section.kind;
    return 0;
  }
  return open_job(load, *name);
}

int take_setting(Load& load, std::string_view line) {
  const std::optional<KeyValue> setting = split_key_value(line);
  if (!setting) return fail_line(load, "expected key=value");
  unquote(setting->value, load.value);
  const std::string_view value = load.value;
  if (setting->key.empty()) return fail_line(load, "empty key");
  if (value.empty()) return fail_line(load, "empty value for", setting->key);
  if (load.keys.repeats(setting->key)) return fail_line(load, "duplicate setting", setting->key);
  return store_key(load.section, setting->key, value, load.place, load.target, load.err);
}

int take_line(Load& load, std::string_view raw_line) {
  ++load.place.number;
  if (raw_line.size() > kMaxConfigLine) return fail_line(load, "line too long");
  if (raw_line.find('\0') != std::string_view::npos) {
    return fail_line(load, "the line contains a NUL byte");
  }
  const std::optional<std::size_t> length = content_length(raw_line);
  if (!length) return fail_line(load, "unterminated quote or text after the closing quote");
  const std::string_view line = trim(raw_line.substr(0, *length));
  if (line.empty()) return 0;
  if (line.front() == '[') return open_section(load, line);
  if (load.section == SectionKind::None) return fail_line(load, "content before any [section]");
  return take_setting(load, line);
}

// Keeps the start of a line until its end is there. If it does not fit, the line is too long.
int keep_line_start(Load& load, std::string_view part) {
  if (part.size() > kMaxConfigLine - load.line_start.size()) {
    ++load.place.number;
    return fail_line(load, "line too long");
  }
  load.line_start.append(part);
  return 0;
}

// Takes the next bytes of the file, cut anywhere.
int take_bytes(Load& load, std::string_view bytes) {
  for (;;) {
    const std::size_t end = bytes.find('\n');
    if (end == std::string_view::npos) return keep_line_start(load, bytes);
    std::string_view line = bytes.substr(0, end);
    if (!load.line_start.empty()) {
      if (keep_line_start(load, line) != 0) return -1;
      line = load.line_start;
    }
    if (take_line(load, line) != 0) return -1;
    load.line_start.clear();
    bytes.remove_prefix(end + 1);
  }
}

int finish(Load& load) {
  if (!load.line_start.empty() && take_line(load, load.line_start) != 0) return -1;
  Config& config = load.target.config;
  return cross_check(config, load.target.written_password.view(), load.err) ? 0 : -1;
}

int load_file(Load& load) {
  const ScopedFd file = open_file(load.place.path, O_RDONLY | O_NOCTTY);
  SecretString buffer(kReadSize, '\0');
  std::size_t got = 0;
  while (file.valid() && read_up_to(file.get(), buffer, got) == ErrorCode::Ok) {
    if (got == 0) return finish(load);
    if (take_bytes(load, std::string_view(buffer).substr(0, got)) != 0) return -1;
  }
  return fail(load.err, "cannot read the configuration file %s", load.place.path);
}

int load_text(Load& load, std::string_view text) {
  if (take_bytes(load, text) != 0) return -1;
  return finish(load);
}

// Runs a load and words the one exception that it can meet.
template <typename Body>
int run_load(const char* path, Config& out, std::span<char> err, const Body& body) {
  LinePlace place{path, 0};
  try {
    Load load(place, out, err);
    errno = 0;
    const int rc = body(load);
    // errno is still that of the call that failed, if one did: a fault of the text sets none.
    return rc != 0 && is_passing(errno) ? kConfigUnreadNow : rc;
  } catch (const std::bad_alloc&) {
    (void)fail(err, "%s:%zu: out of memory", place.path, place.number);
    return kConfigUnreadNow;
  }
}

}  // namespace

int config_load(const char* path, Config& out, std::span<char> err) {
  return run_load(path, out, err, [](Load& load) { return load_file(load); });
}

int config_parse(std::string_view text, const char* path, Config& out, std::span<char> err) {
  return run_load(path, out, err, [text](Load& load) { return load_text(load, text); });
}

}  // namespace orv
