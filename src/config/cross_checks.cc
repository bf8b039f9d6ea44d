#include "config/cross_checks.h"

#include <array>
#include <string>

#include "common/message.h"
#include "config/dependencies.h"
#include "config/job_index.h"

namespace orv {
namespace {

constexpr std::uint32_t kDefaultMailTimeout = 60;  // seconds

std::uint32_t default_port(TlsMode tls) {
  switch (tls) {
    case TlsMode::Smtps: return 465;
    case TlsMode::None: return 25;
    case TlsMode::StartTls: break;
  }
  return 587;
}

// Reads the password. What would be sent in clear text is refused before anything is read.
bool resolve_password(MailSection& mail, std::string_view written, std::span<char> err) {
  if (mail.tls == TlsMode::None) {
    return refuse(
        err,
        "[mail]: 'smtp-password' needs tls=starttls or tls=smtps (it would be sent in clear "
        "text)");
  }
  SecretReference reference;
  std::array<char, 128> reason{};
  if (!parse_secret_reference(written, true, reference, reason)) {
    return refuse(err, "[mail]: 'smtp-password': %s", reason.data());
  }
  mail.smtp_password_kind = reference.kind;
  if (reference.kind == SecretKind::File) mail.smtp_password_file = reference.text;
  if (reference.kind == SecretKind::Kms) {
    return refuse(err, "[mail]: 'smtp-password': kms: is not supported yet");
  }
  if (!read_secret(reference, mail.smtp_password)) {
    return refuse(err,
                  "[mail]: 'smtp-password': cannot read it (file missing/unreadable, or not 1..64 "
                  "characters)");
  }
  return true;
}

bool check_mail(MailSection& mail, std::string_view written_password, std::span<char> err) {
  if (!mail.present) return true;
  if (mail.smtp_host.empty()) return refuse(err, "[mail]: 'smtp-host' is required");
  if (mail.from.empty()) return refuse(err, "[mail]: 'from' is required");
  if (mail.to.empty()) return refuse(err, "[mail]: 'to' is required");
  // The defaults depend on the TLS mode, which may stand after the port in the file.
  if (mail.smtp_port == 0) mail.smtp_port = default_port(mail.tls);
  if (mail.timeout_s == 0) mail.timeout_s = kDefaultMailTimeout;
  if (mail.smtp_user.empty() == mail.smtp_password_set) {
    return refuse(err, "[mail]: 'smtp-user' and 'smtp-password' must be set together");
  }
  return !mail.smtp_password_set || resolve_password(mail, written_password, err);
}

// What starts the job. A disabled job needs nothing: it runs when somebody asks for it.
bool check_start(const Job& job, std::span<char> err) {
  const char* name = job.name.c_str();
  if (job.has_schedule && job.has_once) {
    return refuse(err, "[%s]: 'schedule' and 'once' are mutually exclusive", name);
  }
  if (job.enabled && !job.has_schedule && !job.has_once && job.after.empty()) {
    return refuse(
        err, "[%s]: needs at least one of 'schedule', 'once' or 'after' (or set enabled=no)", name);
  }
  if (job.after_mode_given && job.after.empty()) {
    return refuse(err, "[%s]: 'after-mode' requires 'after'", name);
  }
  return true;
}

// Settings that only the commands that make backups take.
bool check_backup_settings(const Job& job, std::span<char> err) {
  const char* name = job.name.c_str();
  const char* command = command_name(job.command);
  if (!takes_background(job.command)) {
    if (!job.profile.empty()) {
      return refuse(err,
                    "[%s]: 'profile' is not applicable to command=%s; put whatever "
                    "--name/--uuid/--job/--meta this command needs directly in 'args'",
                    name, command);
    }
    // Set to "no" counts as set: the key would have no effect, and its author thinks otherwise.
    const char* key = job.run_background != Tristate::Unset     ? "run-background"
                      : job.start_background != Tristate::Unset ? "start-background"
                                                                : nullptr;
    if (key != nullptr) {
      return refuse(err,
                    "[%s]: '%s' is not applicable to command=%s (only agent, proxmox and xenv take "
                    "--background)",
                    name, key, command);
    }
  }
  if (!takes_retention(job.command)) {
    const char* key = !job.retention.empty()         ? "retention"
                      : !job.retention_class.empty() ? "retention-class"
                                                     : nullptr;
    if (key != nullptr) {
      return refuse(
          err,
          "[%s]: '%s' is not applicable to command=%s (only agent, proxmox and xenv take a "
          "retention)",
          name, key, command);
    }
  }
  return true;
}

bool sets_retention(std::string_view arg) {
  return arg == "--retention" || arg == "--retention-class" || arg.starts_with("--retention=") ||
         arg.starts_with("--retention-class=");
}

// The tool would be given its retention twice, and which one counts is not ours to say.
bool check_retention(const Job& job, std::span<char> err) {
  if (job.retention.empty()) {
    if (job.retention_class.empty()) return true;
    return refuse(err, "[%s]: 'retention-class' requires 'retention'", job.name.c_str());
  }
  for (const std::string& arg : job.args) {
    if (!sets_retention(arg)) continue;
    return refuse(err,
                  "[%s]: set the retention either with 'retention'/'retention-class' or in 'args', "
                  "not both",
                  job.name.c_str());
  }
  return true;
}

// A misspelt name would leave the job waiting for ever.
bool check_after(const Job& job, const JobIndex& index, std::span<char> err) {
  for (const JobName& name : job.after) {
    if (name == job.name) {
      return refuse(err, "[%s]: 'after' cannot reference itself", job.name.c_str());
    }
    if (!index.find(name.view())) {
      return refuse(err, "[%s]: 'after' references unknown job '%s'", job.name.c_str(),
                    name.c_str());
    }
  }
  return true;
}

// The order of the checks is part of the interface: a file with two faults gets the first message.
bool check_job(const Config& config, const Job& job, const JobIndex& index, std::span<char> err) {
  if (!check_start(job, err)) return false;
  if (job.notify != Notify::Inherit && !config.mail.present) {
    return refuse(err, "[%s]: 'notify' needs a [mail] section", job.name.c_str());
  }
  if (!check_backup_settings(job, err)) return false;
  if (!check_retention(job, err)) return false;
  return check_after(job, index, err);
}

}  // namespace

bool cross_check(Config& config, std::string_view written_password, std::span<char> err) {
  if (!check_mail(config.mail, written_password, err)) return false;
  // Circles come last: a name that is unknown, or the job's own, has a clearer message.
  const JobIndex index(config.jobs);
  for (const Job& job : config.jobs) {
    if (!check_job(config, job, index, err)) return false;
  }
  return check_cycles(config, err);
}

}  // namespace orv
