// Findings about the files and the mail around the jobs, and all findings in one list.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "common/files.h"
#include "common/line_syntax.h"
#include "common/secret.h"
#include "common/text.h"
#include "plan/check.h"
#include "plan/describe.h"

namespace orv {
namespace {

// The file that smtp-password names, empty when it names none. The loaded configuration holds only
// what stands in it.
std::string password_file(const std::string& config_path) {
  constexpr std::size_t kMost = 1 << 20;  // bytes; a file that loads has far fewer
  std::string text;
  const ScopedFd file = open_file(config_path.c_str(), O_RDONLY | O_NONBLOCK);
  if (!file.valid() || read_whole(file.get(), kMost, text) != ErrorCode::Ok) return {};
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size());
    const std::string_view line = std::string_view(text).substr(at, end - at);
    at = end + 1;
    const auto setting = split_key_value(trim(line.substr(0, content_length(line).value_or(0))));
    if (!setting || setting->key != "smtp-password") continue;
    SecretString value;
    unquote(setting->value, value);
    constexpr std::string_view kPrefix = "file:";
    const std::string_view written = value;
    return written.starts_with(kPrefix) ? std::string(written.substr(kPrefix.size())) : "";
  }
  return {};
}

// Whether group or others have one of the permissions.
bool others_may(const std::string& path, mode_t permissions) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && (status.st_mode & permissions) != 0;
}

void check_modes(const Plan& plan, std::vector<Finding>& out) {
  const std::string path = printable(plan.config_path);
  const MailSection& mail = plan.config.mail;
  // The file that holds the secret itself is the one that counts.
  const bool in_file = mail.smtp_password_kind == SecretKind::File;
  const std::string secret = in_file ? password_file(plan.config_path) : plan.config_path;
  if (mail.smtp_password_set && others_may(secret, S_IRGRP | S_IROTH)) {
    out.push_back(
        {"password-readable", "",
         printable(secret) + " holds the smtp-password and others may read it: chmod 600"});
  }
  if (others_may(plan.config_path, S_IWGRP | S_IWOTH)) {
    out.push_back({"configuration-writable", "",
                   path + " may be written by others, who then decide what runs as the scheduler's "
                          "user: chmod go-w"});
  }
}

}  // namespace

std::string finding_text(const Finding& finding) {
  return finding.job.empty() ? finding.text : "[" + printable(finding.job) + "]: " + finding.text;
}

std::vector<Finding> check_surroundings(const Plan& plan) {
  std::vector<Finding> out;
  check_modes(plan, out);
  const std::string_view host = plan.config.mail.smtp_host.view();
  const std::size_t colon = host.find(':');
  std::uint32_t port = 0;
  // More than one colon is an IPv6 address.
  if (colon != host.npos && host.find(':', colon + 1) == host.npos &&
      parse_u32(host.substr(colon + 1), port)) {
    out.push_back(
        {"port-in-host", "", "[mail]: 'smtp-host' holds a port, which belongs in 'smtp-port'"});
  }
  return out;
}

std::vector<Finding> check_plan(const Plan& plan, const Durations& durations,
                                std::string_view path) {
  std::vector<Finding> all = check_jobs(plan, durations, path);
  for (std::vector<Finding>& more :
       std::array{check_together(plan, durations), check_surroundings(plan)}) {
    std::move(more.begin(), more.end(), std::back_inserter(all));
  }
  return all;
}

}  // namespace orv
